// What differs between operating systems.
#pragma once

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>
#include <string_view>

struct QTX_Handle;

namespace pulsekit::platform {

uint64_t timestampMicroseconds();  // monotonic

struct UtcTime {
  int year, month, day, hour, minute, second, millisecond;
};
UtcTime utcNow();

void sleepMilliseconds(uint32_t milliseconds);

// As fopen, with a path in UTF-8. On Windows one that is no UTF-8 is taken to be in the system's code page. May throw
// std::bad_alloc.
FILE *openFile(const char *path, const char *mode);

// A variable of the process's environment, whose name is ASCII, in UTF-8 and cut to the size. False where there is none
// or it is empty.
bool environment(const char *name, char *value, size_t size);

// The digits that "%e" gives an exponent at least.
extern const size_t kExponentDigits;

// As strtod reads it in the C locale, whatever the process's is.
double realOf(const char *text);

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
  void *find(const char *name) const;  // null when there is none
  // Whether the function stands at this number of the library's list; true where the system has no such lists.
  bool hasAt(uint16_t ordinal, const void *function) const;
  // Why it could not be loaded, in the system's words.
  const char *failure() const { return failure_; }

 private:
  void *module_;
  char failure_[512] = "";
};

// The local time as the standard ctime text, "Fri May 17 09:04:31 2013\n"; at least 26 characters.
void localTimeText(std::time_t time, char *buffer);

// A text file that is written as a whole. What stands at the path stays there until commit() has succeeded: the new
// text goes to a file beside it that then takes its place and its mode. A device, a pipe, the target of a link, or a
// file in a folder that takes no new file is written in place, and not touched before commit(). Files beside it that
// earlier replacements have left, because their process ended too soon, are removed.
class FileReplacement {
 public:
  explicit FileReplacement(const char *path);
  ~FileReplacement();  // without a commit everything stays as it was
  FileReplacement(const FileReplacement &) = delete;
  FileReplacement &operator=(const FileReplacement &) = delete;
  explicit operator bool() const { return stream_ != nullptr; }  // false when the path can't be written
  bool commit(std::string_view text);

  // The name of a file beside the one to replace is that name, this, "<number>-<number>".
  static constexpr char kBesideMark[] = ".new-";
  static bool isBesideEnding(std::string_view ending) {
    const size_t first = ending.find_first_not_of("0123456789");
    if (first == 0 || first == ending.npos || ending[first] != '-' || first + 1 == ending.size()) return false;
    return ending.find_first_not_of("0123456789", first + 1) == ending.npos;
  }

 private:
  std::string path_;
  std::string beside_;  // empty when written in place
  FILE *stream_ = nullptr;
};

// ---- What working bridges without a vendor's library needs; not on Windows ----

int64_t processNumber();
// Whether the system has a USB at all.
bool hasUsb();
// The other programs that have the file open, "name (process number), ...", as far as this user may see them.
std::string programsWithOpen(const std::string &path);

}  // namespace pulsekit::platform

// Registration of host functions, which no platform offers: records and returns 8.
int32_t QTX_registerFunction(QTX_Handle *handle);
