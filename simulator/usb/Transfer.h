// A USB transfer between its submission by a host and the moment when that host collects it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/Clock.h"

namespace pulsekit::simulator {

struct Transfer {
  using RealTime = std::chrono::steady_clock;

  virtual ~Transfer() = default;

  uintptr_t name = 0;          // by which its host cancels it
  uint8_t endpoint = 0;        // as in the descriptor; 0 is the control endpoint
  std::vector<uint8_t> bytes;  // to the device; from it, what has arrived. Control: the request, then its data
  size_t length = 0;           // of the host's buffer, without a control transfer's request
  size_t most = SIZE_MAX;      // what the device takes of it before it refuses more
  size_t done = 0;             // bytes that went over the wire, without a control transfer's request
  int error = 0;               // an errno value
  uint64_t submitted = 0;      // on the host's clock
  uint64_t end = kNever;       // on the host's clock, once it is known
  RealTime::time_point since;  // really submitted
  bool underWay = false;       // an answer that has not reached the host

  bool in() const { return (endpoint & 0x80) != 0; }
  bool ended() const { return end != kNever; }
  void finish(uint64_t time, int failure = 0) {
    end = time;
    error = failure;
  }
};

}  // namespace pulsekit::simulator
