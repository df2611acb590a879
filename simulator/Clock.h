// The simulated time that everything on a bench shares.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace pulsekit::simulator {

// Rounded up; what would outlast the clock is 30 years.
inline uint64_t nanosecondsOf(double seconds) {
  return static_cast<uint64_t>(std::ceil(std::clamp(seconds, 0.0, 1e9) * 1e9));
}

class Clock {
 public:
  uint64_t nanoseconds() const { return now_; }
  void advance(uint64_t nanoseconds) { now_ += nanoseconds; }

 private:
  uint64_t now_ = 0;
};

}  // namespace pulsekit::simulator
