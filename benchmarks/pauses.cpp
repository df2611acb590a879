#include "pauses.h"

#include <time.h>

namespace {

uint64_t paused = 0;

}  // namespace

namespace pulsekit::benchmark {

uint64_t pausedNanoseconds() { return paused; }

}  // namespace pulsekit::benchmark

// Goes before the system's function of this name.
extern "C" __attribute__((visibility("default"))) int nanosleep(const timespec *time, timespec *) {
  paused += static_cast<uint64_t>(time->tv_sec) * 1'000'000'000 + static_cast<uint64_t>(time->tv_nsec);
  return 0;
}
