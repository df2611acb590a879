#include <cerrno>
#include <ctime>

#include "../platform.h"

namespace pulsekit::platform {

namespace {

timespec now(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return time;
}

}  // namespace

uint64_t timestampMicroseconds() {
  const timespec time = now(CLOCK_MONOTONIC);
  return static_cast<uint64_t>(time.tv_sec) * 1'000'000 + static_cast<uint64_t>(time.tv_nsec) / 1'000;
}

UtcTime utcNow() {
  const timespec time = now(CLOCK_REALTIME);
  std::tm utc{};
  gmtime_r(&time.tv_sec, &utc);
  return {utc.tm_year + 1900,
          utc.tm_mon + 1,
          utc.tm_mday,
          utc.tm_hour,
          utc.tm_min,
          utc.tm_sec,
          static_cast<int>(time.tv_nsec / 1'000'000)};
}

void sleepMilliseconds(uint32_t milliseconds) {
  timespec rest{static_cast<time_t>(milliseconds / 1000), static_cast<long>(milliseconds % 1000) * 1'000'000};
  while (nanosleep(&rest, &rest) != 0 && errno == EINTR) {
  }
}

void raiseTimerResolution() {}

void localTimeText(std::time_t time, char *buffer) { ctime_r(&time, buffer); }

}  // namespace pulsekit::platform
