// What differs between operating systems.
#pragma once

#include <cstdint>
#include <cstdio>
#include <ctime>

struct QTX_Handle;

namespace pulsekit::platform {

uint64_t timestampMicroseconds();  // monotonic

struct UtcTime {
  int year, month, day, hour, minute, second, millisecond;
};
UtcTime utcNow();

void sleepMilliseconds(uint32_t milliseconds);

// Makes millisecond sleeps accurate where the system needs to be asked for it.
void raiseTimerResolution();

// Recursive; leaving it without holding it does nothing.
class Lock {
 public:
  Lock();
  ~Lock();
  Lock(const Lock &) = delete;
  Lock &operator=(const Lock &) = delete;
  void enter();
  void leave();

 private:
  void *state_;
};

// A shared library that was loaded at run time; unloaded with the object.
class SharedLibrary {
 public:
  explicit SharedLibrary(const char *file_name);
  ~SharedLibrary();
  SharedLibrary(const SharedLibrary &) = delete;
  SharedLibrary &operator=(const SharedLibrary &) = delete;
  explicit operator bool() const { return module_ != nullptr; }
  // Null when there is none. An ordinal other than 0 must name the same function where the system has ordinals.
  void *find(const char *name, uint16_t ordinal = 0) const;

 private:
  void *module_;
};

// The local time as the standard ctime text, "Fri May 17 09:04:31 2013\n"; at least 26 characters.
void localTimeText(std::time_t time, char *buffer);

}  // namespace pulsekit::platform

// Registration of host functions, which no platform offers: records and returns 8.
int32_t QTX_registerFunction(QTX_Handle *handle);
