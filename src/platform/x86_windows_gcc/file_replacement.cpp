#define WIN32_LEAN_AND_MEAN
#include <fcntl.h>
#include <io.h>
#include <process.h>
#include <sys/stat.h>
#include <windows.h>

#include <cerrno>
#include <cstdio>

#include "../platform.h"

namespace pulsekit::platform {

namespace {

enum class Target { kNone, kFile, kOther, kNotWritable };

Target targetOf(const char *path) {
  const HANDLE file = CreateFileA(path, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE)
    return GetLastError() == ERROR_FILE_NOT_FOUND ? Target::kNone : Target::kNotWritable;
  BY_HANDLE_FILE_INFORMATION information;
  const bool disk_file = GetFileType(file) == FILE_TYPE_DISK && GetFileInformationByHandle(file, &information) != 0 &&
                         information.nNumberOfLinks == 1;
  CloseHandle(file);
  const DWORD attributes = GetFileAttributesA(path);
  const bool link = attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
  return disk_file && !link ? Target::kFile : Target::kOther;
}

// One that is still being written can't be deleted.
void removeLeftBeside(const std::string &path) {
  const size_t name_at = path.find_last_of("/\\:") + 1;  // 0 without a folder
  const std::string beginning = path.substr(name_at) + FileReplacement::kBesideMark;
  WIN32_FIND_DATAA found;
  const HANDLE search = FindFirstFileA((path + FileReplacement::kBesideMark + "*").c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) return;
  do {
    const std::string name = found.cFileName;
    if (name.size() <= beginning.size()) continue;
    if (FileReplacement::isBesideEnding(std::string_view(name).substr(beginning.size()))) {
      DeleteFileA((path.substr(0, name_at) + name).c_str());
    }
  } while (FindNextFileA(search, &found));
  FindClose(search);
}

FILE *openInPlace(const char *path) {
  const int file = _open(path, _O_WRONLY | _O_CREAT | _O_TEXT, _S_IREAD | _S_IWRITE);
  FILE *stream = file >= 0 ? _fdopen(file, "w") : nullptr;
  if (file >= 0 && !stream) _close(file);
  return stream;
}

// Creates a file of its own beside the path; -1 when the folder takes none.
int createBeside(const std::string &path, std::string &name) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    name = path + FileReplacement::kBesideMark + std::to_string(_getpid()) + "-" + std::to_string(attempt);
    const int file = _open(name.c_str(), _O_WRONLY | _O_CREAT | _O_EXCL | _O_TEXT, _S_IREAD | _S_IWRITE);
    if (file >= 0 || errno != EEXIST) return file;
  }
  return -1;
}

}  // namespace

FileReplacement::FileReplacement(const char *path) : path_(path) {
  if (path_.empty()) return;
  const Target target = targetOf(path);
  if (target == Target::kNotWritable) return;
  if (target != Target::kOther) {
    removeLeftBeside(path_);
    const int file = createBeside(path_, beside_);
    if (file >= 0) {
      stream_ = _fdopen(file, "w");
      if (stream_) return;
      _close(file);
      DeleteFileA(beside_.c_str());
    }
    beside_.clear();
  }
  stream_ = openInPlace(path);
}

FileReplacement::~FileReplacement() {
  if (!stream_) return;
  std::fclose(stream_);
  if (!beside_.empty()) DeleteFileA(beside_.c_str());
}

bool FileReplacement::commit(std::string_view text) {
  if (beside_.empty() && _chsize(_fileno(stream_), 0) != 0 && errno != EINVAL) return false;
  bool written = std::fwrite(text.data(), 1, text.size(), stream_) == text.size() && std::fflush(stream_) == 0;
  if (!beside_.empty()) written = written && _commit(_fileno(stream_)) == 0;
  written = std::fclose(stream_) == 0 && written;
  stream_ = nullptr;
  if (beside_.empty()) return written;
  // ReplaceFile keeps the attributes and rights of the old file; it needs one.
  if (written && (ReplaceFileA(path_.c_str(), beside_.c_str(), nullptr, 0, nullptr, nullptr) != 0 ||
                  MoveFileExA(beside_.c_str(), path_.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))) {
    return true;
  }
  DeleteFileA(beside_.c_str());
  return false;
}

}  // namespace pulsekit::platform
