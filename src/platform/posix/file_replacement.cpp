#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>

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

// A replacement holds the lock of its file as long as it lives; where files have no locks, every one counts as held.
bool takeLock(int file) { return flock(file, LOCK_EX | LOCK_NB) == 0; }
bool isHeldElsewhere(int file) { return !takeLock(file) && errno == EWOULDBLOCK; }

void removeIfLeft(const std::string &name) {
  const int file = open(name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (file < 0) return;
  struct stat status {};
  if (fstat(file, &status) == 0 && S_ISREG(status.st_mode) && takeLock(file)) unlink(name.c_str());
  close(file);
}

struct CloseFolder {
  void operator()(DIR *folder) const { closedir(folder); }
};

void removeLeftBeside(const std::string &path) {
  const size_t name_at = path.rfind('/') + 1;  // 0 without a folder
  const std::string folder = name_at > 0 ? path.substr(0, name_at) : "./";
  const std::string beginning = path.substr(name_at) + FileReplacement::kBesideMark;
  const std::unique_ptr<DIR, CloseFolder> open_folder(opendir(folder.c_str()));
  while (const dirent *entry = open_folder ? readdir(open_folder.get()) : nullptr) {
    const std::string_view name = entry->d_name;
    if (!name.starts_with(beginning)) continue;
    if (FileReplacement::isBesideEnding(name.substr(beginning.size()))) removeIfLeft(folder + entry->d_name);
  }
}

// Creates a file of its own beside the path; -1 when the folder takes none.
int createBeside(const std::string &path, std::string &name) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    name = path + FileReplacement::kBesideMark + std::to_string(getpid()) + "-" + std::to_string(attempt);
    const int file = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kNewFileMode);
    if (file < 0 && errno == EEXIST) continue;
    if (file < 0) return file;
    // Another replacement may have taken the new file for one that was left.
    struct stat status {};
    if (!isHeldElsewhere(file) && fstat(file, &status) == 0 && status.st_nlink > 0) return file;
    close(file);
  }
  return -1;
}

bool takeOver(int file, const struct stat &old) {
  const bool owned = (old.st_uid == geteuid() && old.st_gid == getegid()) || fchown(file, old.st_uid, old.st_gid) == 0;
  return owned && fchmod(file, old.st_mode & kModeBits) == 0;
}

FILE *openInPlace(const char *path) {
  const int file = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, kNewFileMode);
  FILE *stream = file >= 0 ? fdopen(file, "w") : nullptr;
  if (file >= 0 && !stream) close(file);
  return stream;
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
    removeLeftBeside(path_);
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
  stream_ = openInPlace(path);
}

FileReplacement::~FileReplacement() {
  if (!stream_) return;
  if (!beside_.empty()) unlink(beside_.c_str());
  std::fclose(stream_);
}

bool FileReplacement::commit(std::string_view text) {
  // A device has no length to cut.
  if (beside_.empty() && ftruncate(fileno(stream_), 0) != 0 && errno != EINVAL) return false;
  bool written = std::fwrite(text.data(), 1, text.size(), stream_) == text.size() && std::fflush(stream_) == 0;
  // The new name must not reach the disk before the text does, and the file stays locked until it has that name.
  if (!beside_.empty()) {
    written = written && fsync(fileno(stream_)) == 0;
    if (!written || std::rename(beside_.c_str(), path_.c_str()) != 0) return false;
    beside_.clear();
  }
  written = std::fclose(stream_) == 0 && written;
  stream_ = nullptr;
  return written;
}

}  // namespace pulsekit::platform
