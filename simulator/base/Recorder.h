// What went over the wire, for tests to look at.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "base/Clock.h"

namespace pulsekit::simulator {

struct Event {
  uint32_t kind = 0;
  int32_t device = -1;
  uint64_t nanoseconds = 0;
  uint32_t status = 0;
  uint32_t value = 0;
  int32_t output = 0;
  int32_t level = 0;
  std::vector<uint8_t> out, in;
  uint32_t outBits = 0, inBits = 0;
  std::string text;  // CALL, POLL, ODD: the line without what the result adds
};

class Recorder {
 public:
  bool wants(uint32_t kind) const { return (kinds_ & kind) != 0; }
  void setKinds(uint32_t kinds) { kinds_ = kinds; }
  // Puts the event in its place by time. Returns a number under which it can be completed until an earlier one comes, 0
  // for one that is not wanted.
  uint64_t add(Event &&event, const Clock &clock);
  void complete(uint64_t number, uint32_t status, uint32_t value);
  void clear();

  const std::deque<Event> &events() const { return events_; }
  std::string text(uint32_t kinds) const;

 private:
  uint32_t kinds_ = 0;
  std::deque<Event> events_;
  uint64_t dropped_ = 0;
  size_t weight_ = 0;
};

}  // namespace pulsekit::simulator
