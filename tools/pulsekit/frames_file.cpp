#include "frames_file.h"

#include <bit>
#include <charconv>
#include <cstring>

#include "failure.h"
#include "number.h"
#include "text.h"

namespace tool {

namespace {

constexpr size_t kNpyHeader = 128;
constexpr size_t kLogHeader = 32;
constexpr size_t kTimestamp = 8;

size_t sizeOf(ValueType type) { return type == ValueType::Double ? 8 : 4; }

std::string cellText(double value, ValueType type) {
  if (type == ValueType::Counter) return cat(static_cast<uint64_t>(value));
  if (type == ValueType::Double) return numberText(value);
  char text[32];
  return std::string(text, std::to_chars(text, text + sizeof text, static_cast<float>(value)).ptr);
}

void appendLittleEndian(std::string &bytes, uint64_t word, size_t count) {
  for (size_t i = 0; i < count; ++i) bytes += static_cast<char>(word >> (8 * i) & 0xff);
}

void appendBinary(std::string &bytes, double value, ValueType type) {
  if (type == ValueType::Counter) return appendLittleEndian(bytes, static_cast<uint64_t>(value), 4);
  if (type == ValueType::Double) return appendLittleEndian(bytes, std::bit_cast<uint64_t>(value), 8);
  appendLittleEndian(bytes, std::bit_cast<uint32_t>(static_cast<float>(value)), 4);
}

uint64_t littleEndian(const std::string &bytes, size_t at, size_t count) {
  uint64_t word = 0;
  for (size_t i = count; i-- > 0;) word = word << 8 | static_cast<unsigned char>(bytes[at + i]);
  return word;
}

double binaryValue(const std::string &bytes, size_t at, ValueType type) {
  const uint64_t word = littleEndian(bytes, at, sizeOf(type));
  if (type == ValueType::Counter) return static_cast<double>(word);
  if (type == ValueType::Double) return std::bit_cast<double>(word);
  return static_cast<double>(std::bit_cast<float>(static_cast<uint32_t>(word)));
}

}  // namespace

FileKind fileKind(const std::string &path, bool log_allowed) {
  const std::string name = lower(path);
  if (name == "-" || name.ends_with(".csv")) return FileKind::Csv;
  if (name.ends_with(".npy")) return FileKind::Npy;
  if (log_allowed && name.ends_with(".log")) return FileKind::Log;
  throw Usage(cat(path, ": no known kind of file"),
              log_allowed ? "end the name in .csv, .npy or .log (binary frame log)" : "end the name in .csv or .npy");
}

TableFile::TableFile(const std::string &path, ValueType type, Strings labels, Strings axis)
    : kind_(fileKind(path, false)), type_(type), width_(axis.size()), file_(path) {
  if (kind_ == FileKind::Npy) {
    file_.write(npyHeader());
    return;
  }
  labels.insert(labels.end(), axis.begin(), axis.end());
  file_.write(cat(join(labels, ","), '\n'));
}

// The count of rows is known at the end only: the header has a fixed length and is written anew then.
std::string TableFile::npyHeader() const {
  const char *type = type_ == ValueType::Counter ? "<u4" : type_ == ValueType::Float ? "<f4" : "<f8";
  std::string header =
      cat("\x93NUMPY", '\x01', std::string(1, '\0'), static_cast<char>(kNpyHeader - 10), std::string(1, '\0'),
          "{'descr': '", type, "', 'fortran_order': False, 'shape': (", rows_, ", ", width_, "), }");
  header.resize(kNpyHeader - 1, ' ');
  return header + '\n';
}

void TableFile::add(const Strings &labels, const Values &values) {
  std::string bytes;
  if (kind_ == FileKind::Npy) {
    for (const double value : values) appendBinary(bytes, value, type_);
  } else {
    bytes = join(labels, ",");
    for (const double value : values) bytes += cat(bytes.empty() ? "" : ",", cellText(value, type_));
    bytes += '\n';
  }
  file_.write(bytes);
  ++rows_;
}

void TableFile::finish() {
  if (kind_ == FileKind::Npy) file_.rewrite(npyHeader());
  file_.commit();
}

DecodedLog decodeLog(const std::string &content, const std::string &path) {
  const auto refuse = [&](const char *why) -> Failure {
    return Failure(cat(path, ": ", why), "give a log that pulsekit capture -o FILE.log or the library made");
  };
  if (content.size() < kLogHeader || !content.starts_with("QTX1 ")) throw refuse("no binary frame log");
  DecodedLog log;
  log.samplers = littleEndian(content, 10, 4);
  const auto kind = static_cast<unsigned>(content[14]), value_size = static_cast<unsigned>(content[15]);
  if (kind == 0) throw refuse("a log without frames");
  if (kind > 2 || (value_size != 4 && !(kind == 2 && value_size == 8)) || log.samplers == 0 || log.samplers > 65536) {
    throw refuse("its header makes no sense");
  }
  log.type = kind == 1 ? ValueType::Counter : value_size == 8 ? ValueType::Double : ValueType::Float;
  const size_t record = kTimestamp + log.samplers * value_size;
  size_t at = kLogHeader;
  for (; content.size() - at >= record; at += record) {
    log.times.push_back(littleEndian(content, at, kTimestamp));
    Values &frame = log.frames.emplace_back(log.samplers);
    for (size_t i = 0; i < log.samplers; ++i)
      frame[i] = binaryValue(content, at + kTimestamp + i * value_size, log.type);
  }
  log.left_over = content.size() - at;
  return log;
}

}  // namespace tool
