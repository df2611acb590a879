// Counters behind the faults that tests schedule.
#pragma once

#include <cstdint>

namespace pulsekit::simulator {

// Strikes at the nth event from now, and at the ones after it up to `times` in all.
class Countdown {
 public:
  void schedule(uint32_t nth, uint32_t times) {
    before_ = nth - 1;
    times_ = times;
  }
  void cancel() { times_ = 0; }
  bool active() const { return times_ != 0; }

  bool strikes() {
    if (times_ == 0) return false;
    if (before_ > 0) {
      --before_;
      return false;
    }
    --times_;
    return true;
  }

 private:
  uint32_t before_ = 0;
  uint32_t times_ = 0;
};

}  // namespace pulsekit::simulator
