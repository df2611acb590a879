// Files that are either complete or not there.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

/// A file that takes its name when it is complete; until then what stood under the name stays. "-" is standard output.
class NewFile {
 public:
  explicit NewFile(std::string path);
  /// Removes what was not committed.
  ~NewFile();
  NewFile(const NewFile &) = delete;
  NewFile &operator=(const NewFile &) = delete;
  void write(std::string_view bytes);
  /// Overwrites bytes at the start, for headers that tell a count.
  void rewrite(std::string_view bytes);
  /// What was written can be read under the temporary name.
  void flush();
  void commit();
  /// Lets another writer fill the file, by this name, before it is committed.
  const std::string &temporaryPath() const { return temporary_; }

 private:
  std::string path_, temporary_;
  FILE *file_;
};

std::string readFile(const std::string &path);

}  // namespace tool
