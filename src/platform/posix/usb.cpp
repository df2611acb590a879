#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "../platform.h"

namespace pulsekit::platform {

namespace {

namespace fs = std::filesystem;

// The entries of a folder, as many as can be read; calls visit(path) until it returns false.
template <typename Visit>
void visitAll(const fs::path &folder, Visit visit) {
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    if (!visit(entry->path())) return;
  }
}

bool hasOpen(const fs::path &process, const fs::path &file) {
  bool found = false;
  visitAll(process / "fd", [&](const fs::path &entry) {
    std::error_code error;
    found = fs::read_symlink(entry, error) == file;
    return !found;
  });
  return found;
}

}  // namespace

int64_t processNumber() { return getpid(); }

bool hasUsb() {
#ifdef __linux__
  std::error_code error;
  return fs::exists("/sys/bus/usb", error);
#else
  return true;
#endif
}

std::string programsWithOpen(const std::string &path) {
  std::string programs;
  visitAll("/proc", [&](const fs::path &process) {
    const std::string number = process.filename().string();
    if (number.find_first_not_of("0123456789") != number.npos || number == std::to_string(getpid())) return true;
    if (!hasOpen(process, path)) return true;
    std::string name;
    std::getline(std::ifstream(process / "comm"), name);
    programs += (programs.empty() ? "" : ", ") + name + " (" + number + ")";
    return true;
  });
  return programs;
}

}  // namespace pulsekit::platform
