#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "../platform.h"

namespace pulsekit::platform {

namespace {

constexpr mode_t kNewFileMode = 0666;
constexpr mode_t kModeBits = 07777;

bool canBeWritten(const char *path) {
  const int file = open(path, O_WRONLY | O_CLOEXEC);
  if (file >= 0) close(file);
  return file >= 0;
}

// Creates a file of its own beside the path; -1 when the folder takes none.
int createBeside(const std::string &path, std::string &name) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    name = path + ".new-" + std::to_string(getpid()) + "-" + std::to_string(attempt);
    const int file = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kNewFileMode);
    if (file >= 0 || errno != EEXIST) return file;
  }
  return -1;
}

bool takeOver(int file, const struct stat &old) {
  const bool owned = (old.st_uid == geteuid() && old.st_gid == getegid()) || fchown(file, old.st_uid, old.st_gid) == 0;
  return owned && fchmod(file, old.st_mode & kModeBits) == 0;
}

}  // namespace

FileReplacement::FileReplacement(const char *path) : path_(path) {
  if (path_.empty()) return;
  struct stat old {};
  const bool exists = lstat(path, &old) == 0;
  // A file of several names would keep the old text under the others.
  const bool replaceable = !exists || (S_ISREG(old.st_mode) && old.st_nlink == 1);
  if (replaceable) {
    if (exists && !canBeWritten(path)) return;
    const int file = createBeside(path_, beside_);
    if (file >= 0 && (!exists || takeOver(file, old))) {
      stream_ = fdopen(file, "w");
      if (stream_) return;
    }
    if (file >= 0) {
      close(file);
      unlink(beside_.c_str());
    }
    beside_.clear();
  }
  stream_ = std::fopen(path, "w");
}

FileReplacement::~FileReplacement() {
  if (!stream_) return;
  std::fclose(stream_);
  if (!beside_.empty()) unlink(beside_.c_str());
}

bool FileReplacement::commit() {
  bool written = std::ferror(stream_) == 0 && std::fflush(stream_) == 0;
  // The new name must not reach the disk before the text does.
  if (!beside_.empty()) written = written && fsync(fileno(stream_)) == 0;
  written = std::fclose(stream_) == 0 && written;
  stream_ = nullptr;
  if (beside_.empty()) return written;
  if (written && std::rename(beside_.c_str(), path_.c_str()) == 0) return true;
  unlink(beside_.c_str());
  return false;
}

}  // namespace pulsekit::platform
