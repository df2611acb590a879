// A folder for one test, and what tests ask of files.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace pulsekit::test {

class Folder {
 public:
  Folder() {
    std::string pattern = testing::TempDir() + "pulsekit-XXXXXX";
    path_ = mkdtemp(pattern.data());
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder &) = delete;
  Folder &operator=(const Folder &) = delete;
  std::string file(const std::string &name) const { return (path_ / name).string(); }
  size_t fileCount() const {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(path_), {}));
  }

 private:
  std::filesystem::path path_;
};

inline std::string contents(const std::string &path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

inline void write(const std::string &path, const std::string &text) { std::ofstream(path, std::ios::binary) << text; }

}  // namespace pulsekit::test
