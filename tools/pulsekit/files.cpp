#include "files.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>

#include "failure.h"
#include "system.h"
#include "text.h"

namespace tool {

namespace fs = std::filesystem;

namespace {

Failure fileFailure(const std::string &path, std::string_view what, int error) {
  const char *remedy = error == ENOSPC   ? "make room on the disk"
                       : error == EACCES ? "choose a place that you may write to"
                       : error == ENOENT ? "check that the directory exists"
                                         : "check the file and its directory";
  return Failure(cat(path, ": could not ", what, ": ", std::strerror(error)), remedy);
}

}  // namespace

// A link keeps pointing at its file. Devices and pipes are written as they are.
NewFile::NewFile(std::string path) : path_(std::move(path)), file_(nullptr) {
  if (path_ == "-") {
    file_ = stdout;
    return;
  }
  std::error_code error;
  if (const fs::path target = fs::canonical(pathOf(path_), error); !error) path_ = nameOf(target);
  if (fs::is_directory(pathOf(path_), error)) throw Failure(cat(path_, ": is a directory"), "name a file in it");
  const bool in_place = fs::exists(pathOf(path_), error) && !fs::is_regular_file(pathOf(path_), error);
  temporary_ = in_place ? path_ : cat(path_, ".part-", processNumber());
  file_ = createFile(temporary_, in_place);
  if (!file_) throw fileFailure(path_, "be created", errno);
}

NewFile::~NewFile() {
  if (!file_ || file_ == stdout) return;
  std::fclose(file_);
  std::error_code ignored;
  if (temporary_ != path_) fs::remove(pathOf(temporary_), ignored);
}

void NewFile::write(std::string_view bytes) {
  if (std::fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size()) throw fileFailure(path_, "be written", errno);
}

void NewFile::rewrite(std::string_view bytes) {
  if (std::fseek(file_, 0, SEEK_SET) != 0) throw fileFailure(path_, "be written", errno);
  write(bytes);
  if (std::fseek(file_, 0, SEEK_END) != 0) throw fileFailure(path_, "be written", errno);
}

void NewFile::flush() {
  if (std::fflush(file_) != 0) throw fileFailure(path_, "be written", errno);
}

void NewFile::commit() {
  if (file_ == stdout) {
    if (std::fflush(stdout) != 0) throw fileFailure("standard output", "be written", errno);
    return;
  }
  FILE *file = file_;
  file_ = nullptr;
  std::error_code error;
  if (!closeDurably(file)) {
    const int reason = errno;
    if (temporary_ != path_) fs::remove(pathOf(temporary_), error);
    throw fileFailure(path_, "be written", reason);
  }
  if (temporary_ == path_) return;
  const fs::path from = pathOf(temporary_), to = pathOf(path_);
  if (fs::exists(to, error)) fs::permissions(from, fs::status(to, error).permissions(), error);
  fs::rename(from, to, error);
  if (!error) return;
  const int reason = error.value();
  fs::remove(pathOf(temporary_), error);
  throw fileFailure(path_, "take its name", reason);
}

std::string readFile(const std::string &path) {
  std::error_code error;
  if (fs::is_directory(pathOf(path), error)) throw Failure(cat(path, ": is a directory"), "name a file in it");
  const std::unique_ptr<FILE, int (*)(FILE *)> file(openFile(path), std::fclose);
  if (!file) throw fileFailure(path, "be read", errno);
  std::string content;
  char part[65536];
  while (const size_t count = std::fread(part, 1, sizeof part, file.get())) content.append(part, count);
  if (std::ferror(file.get())) throw fileFailure(path, "be read", errno);
  return content;
}

}  // namespace tool
