// The simulated time that everything on a bench shares.
#pragma once

#include <cstdint>

namespace pulsekit::simulator {

class Clock {
 public:
  uint64_t nanoseconds() const { return now_; }
  void advance(uint64_t nanoseconds) { now_ += nanoseconds; }

 private:
  uint64_t now_ = 0;
};

}  // namespace pulsekit::simulator
