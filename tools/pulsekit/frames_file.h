// Tables of frames in files: .csv with an axis, .npy for NumPy, and the library's binary log (docs/formats.md).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "files.h"

namespace tool {

enum class FileKind { Csv, Npy, Log };

/// By the end of the name; "-" is .csv on standard output. Refuses other names.
FileKind fileKind(const std::string &path, bool log_allowed);

/// Values of one frame or line; counters are exact as doubles.
using Values = std::vector<double>;

enum class ValueType { Counter, Float, Double };

/// A .csv or .npy file, row by row.
class TableFile {
 public:
  /// `labels` name the columns before the values, `axis` the values; .npy holds the values only.
  TableFile(const std::string &path, ValueType type, std::vector<std::string> labels, std::vector<std::string> axis);
  void add(const std::vector<std::string> &labels, const Values &values);
  /// The file takes its name.
  void finish();

 private:
  std::string npyHeader() const;
  FileKind kind_;
  ValueType type_;
  size_t width_, rows_ = 0;
  NewFile file_;
};

/// A binary log, read as a whole.
struct DecodedLog {
  ValueType type = ValueType::Counter;
  size_t samplers = 0;
  std::vector<uint64_t> times;  ///< microseconds
  std::vector<Values> frames;
  size_t left_over = 0;  ///< bytes of a record that is not complete
};
DecodedLog decodeLog(const std::string &content, const std::string &path);

}  // namespace tool
