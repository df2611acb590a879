// Simulated time. The host has a clock and every channel of a bridge its own, which may be behind or ahead of it.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace pulsekit::simulator {

// Rounded up; what would outlast the clock is 30 years.
inline uint64_t nanosecondsOf(double seconds) {
  return static_cast<uint64_t>(std::ceil(std::clamp(seconds, 0.0, 1e9) * 1e9));
}

constexpr uint64_t kNever = UINT64_MAX;

class Clock {
 public:
  uint64_t nanoseconds() const { return now_; }
  void advance(uint64_t nanoseconds) { now_ += nanoseconds; }
  void reach(uint64_t nanoseconds) { now_ = std::max(now_, nanoseconds); }

 private:
  uint64_t now_ = 0;
};

}  // namespace pulsekit::simulator
