#include <fcntl.h>
#include <io.h>
#include <process.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <new>

#include "../platform.h"
#include "wide.h"

namespace pulsekit::platform {

namespace {

enum class Target { kNone, kFile, kOther, kNotWritable };

Target targetOf(const std::wstring &path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  const bool exists = attributes != INVALID_FILE_ATTRIBUTES;
  if (exists && (attributes & FILE_ATTRIBUTE_READONLY) != 0) return Target::kNotWritable;
  const HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                  nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE)
    return GetLastError() == ERROR_FILE_NOT_FOUND ? Target::kNone : Target::kNotWritable;
  BY_HANDLE_FILE_INFORMATION information;
  // A file of several names would keep the old text under the others.
  const bool replaceable = GetFileType(file) == FILE_TYPE_DISK && GetFileInformationByHandle(file, &information) != 0 &&
                           information.nNumberOfLinks == 1;
  CloseHandle(file);
  const bool link = exists && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
  // One that somebody has open can't be replaced.
  const HANDLE alone =
      CreateFileW(path.c_str(), GENERIC_WRITE | DELETE, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (alone == INVALID_HANDLE_VALUE) return Target::kOther;
  CloseHandle(alone);
  return replaceable && !link ? Target::kFile : Target::kOther;
}

// As it stands in the folder's listing; empty for another file.
std::string endingOf(const std::wstring &name, const std::wstring &beginning) {
  if (name.compare(0, beginning.size(), beginning) != 0) return "";
  std::string ending;
  for (const wchar_t character : name.substr(beginning.size())) {
    ending += character < 0x80 ? static_cast<char>(character) : '?';
  }
  return ending;
}

// One that is still being written can't be deleted.
void removeLeftBeside(const std::wstring &path) {
  const size_t name_at = path.find_last_of(L"/\\:") + 1;  // 0 without a folder
  const std::wstring mark = wide(FileReplacement::kBesideMark), beginning = path.substr(name_at) + mark;
  WIN32_FIND_DATAW found;
  const HANDLE search = FindFirstFileW((path + mark + L"*").c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) return;
  do {
    const std::wstring name = found.cFileName;
    if (!FileReplacement::isBesideEnding(endingOf(name, beginning))) continue;
    DeleteFileW((path.substr(0, name_at) + name).c_str());
  } while (FindNextFileW(search, &found));
  FindClose(search);
}

FILE *streamOf(int file) {
  FILE *stream = file >= 0 ? _fdopen(file, "w") : nullptr;
  if (file >= 0 && !stream) _close(file);
  return stream;
}

// Creates a file of its own beside the path; null when the folder takes none.
FILE *createBeside(const std::string &path, std::string &name) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    name = path + FileReplacement::kBesideMark + std::to_string(_getpid()) + "-" + std::to_string(attempt);
    const int file =
        _wopen(wide(name).c_str(), _O_WRONLY | _O_CREAT | _O_EXCL | _O_TEXT | _O_NOINHERIT, _S_IREAD | _S_IWRITE);
    if (file >= 0) return streamOf(file);
    if (errno != EEXIST) break;
  }
  return nullptr;
}

}  // namespace

FileReplacement::FileReplacement(const char *path) : path_(path) {
  if (path_.empty()) return;
  const std::wstring wide_path = wide(path_);
  const Target target = targetOf(wide_path);
  if (target == Target::kNotWritable) return;
  if (target != Target::kOther) {
    removeLeftBeside(wide_path);
    stream_ = createBeside(path_, beside_);
    if (stream_) return;
    beside_.clear();
  }
  stream_ = streamOf(_wopen(wide_path.c_str(), _O_WRONLY | _O_CREAT | _O_TEXT | _O_NOINHERIT, _S_IREAD | _S_IWRITE));
}

FileReplacement::~FileReplacement() {
  if (!stream_) return;
  std::fclose(stream_);
  try {
    if (!beside_.empty()) DeleteFileW(wide(beside_).c_str());
  } catch (const std::bad_alloc &) {  // then the next replacement removes it
  }
}

bool FileReplacement::commit(std::string_view text) {
  const std::wstring path = wide(path_), beside = wide(beside_);
  const int file = _fileno(stream_);
  const bool device = GetFileType(reinterpret_cast<HANDLE>(_get_osfhandle(file))) != FILE_TYPE_DISK;
  // A device has no length to cut.
  if (beside_.empty() && !device && _chsize(file, 0) != 0) return false;
  bool written = std::fwrite(text.data(), 1, text.size(), stream_) == text.size() && std::fflush(stream_) == 0;
  if (!beside_.empty()) written = written && _commit(file) == 0;
  written = std::fclose(stream_) == 0 && written;
  stream_ = nullptr;
  if (beside_.empty()) return written;
  // ReplaceFile keeps the attributes and rights of the old file; it needs one.
  if (written && (ReplaceFileW(path.c_str(), beside.c_str(), nullptr, 0, nullptr, nullptr) != 0 ||
                  MoveFileExW(beside.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0)) {
    return true;
  }
  DeleteFileW(beside.c_str());
  return false;
}

}  // namespace pulsekit::platform
