// Frames, the frame log and the CDF.
#include "Pulsekit3_frames.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <vector>

#include "Pulsekit3.h"
#include "advice.h"
#include "calls.h"
#include "platform/platform.h"
#include "support/handle_state.h"
#include "support/numbers.h"

using namespace pulsekit;

static constexpr const char kSource[] = "src/Pulsekit3";

namespace {

enum FrameLogFlag : int32_t { kLogRaw = 0x01, kLogNormalized = 0x02, kLogText = 0x10, kLogBinary = 0x20 };

// In a binary log, values are doubles above this precision and floats up to it.
constexpr int32_t kLargestFloatPrecision = 4;

// No setting of any chip makes a longer frame; a host that offers more room does not get a larger scratch frame.
constexpr int64_t kLongestFrame = 0x10000;

constexpr size_t kTimestampSize = 8;
constexpr size_t kHeaderSize = 32;
constexpr char kCouldNotWrite[] = "Could not write to radar frame log file";

bool logs(const QTX_Handle *handle, int32_t flag) { return (handle->frame_log_flags & flag) != 0; }

int32_t frameLength(QTX_Handle *handle, int32_t capacity, size_t *length) {
  int64_t samplers = 0;
  if (int32_t code = QTX_VarGetIntValue_ByName(handle, "SamplersPerFrame", &samplers)) return code;
  *length = static_cast<size_t>(std::clamp<int64_t>(samplers, 0, capacity));
  return kSuccess;
}

// As the frame length is stored, for what comes before it is read; the capacity where there is none.
int32_t storedFrameLength(const QTX_Handle *handle, int32_t capacity) {
  for (VariableSet *set : lookupOrder(handle)) {
    if (const Variable *samplers = set ? varNamed(set, "SamplersPerFrame") : nullptr) {
      return static_cast<int32_t>(std::min<uint64_t>(samplers->value, static_cast<uint64_t>(capacity)));
    }
  }
  return capacity;
}

void appendLittleEndian(std::string &bytes, uint64_t value, size_t count) {
  for (size_t i = 0; i < count; ++i) bytes += static_cast<char>(value >> (8 * i) & 0xff);
}

void appendValue(std::string &bytes, double value, bool wide) {
  if (wide) {
    appendLittleEndian(bytes, doubleToBits(value), sizeof(double));
  } else {
    appendLittleEndian(bytes, std::bit_cast<uint32_t>(static_cast<float>(value)), sizeof(float));
  }
}

// A value that can't be written is left out and the rest still follows. False when there was one.
bool writeRecord(FILE *file, const std::string &record, size_t value_size) {
  bool complete = true;
  size_t done = 0;
  while (done < record.size()) {
    done += std::fwrite(record.data() + done, 1, record.size() - done, file);
    if (done == record.size()) break;
    complete = false;
    done = done < kTimestampSize ? kTimestampSize : done + value_size - (done - kTimestampSize) % value_size;
  }
  return complete;
}

void writeLine(FILE *file, std::string line) {
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), file);
}

std::string timestampText() {
  char text[32];
  return QTX_timestamp_string(text, 0);
}

std::string startRecord() {
  std::string record;
  appendLittleEndian(record, QTX_timestamp_us(), kTimestampSize);
  return record;
}

void logRawFrame(const QTX_Handle *handle, const uint32_t *frame, size_t length) {
  if (!handle->frame_log || !logs(handle, kLogRaw)) return;
  if (logs(handle, kLogText)) {
    std::string line = timestampText();
    for (size_t i = 0; i < length; ++i) {
      line += ',';
      line += std::to_string(static_cast<int32_t>(frame[i]));
    }
    writeLine(handle->frame_log, std::move(line));
  } else if (logs(handle, kLogBinary)) {
    std::string record = startRecord();
    for (size_t i = 0; i < length; ++i) appendLittleEndian(record, frame[i], sizeof(uint32_t));
    writeRecord(handle->frame_log, record, sizeof(uint32_t));
  }
}

// Trace points of the function that takes a normalized frame.
struct NormalizedPoints {
  TracePoint call, capture, normalize, write_double, write_float;
};

template <typename Value>
int32_t logNormalizedFrame(const QTX_Handle *handle, const NormalizedPoints &points, const Value *frame,
                           size_t length) {
  if (!handle->frame_log || !logs(handle, kLogNormalized)) return kSuccess;
  if (logs(handle, kLogText)) {
    std::string line = timestampText();
    std::printf("TimeStamp: %s.\n", line.c_str());
    for (size_t i = 0; i < length; ++i) {
      line += ',';
      line += formatFixed(static_cast<double>(frame[i]), handle->frame_log_precision);
    }
    writeLine(handle->frame_log, std::move(line));
  } else if (logs(handle, kLogBinary)) {
    const bool wide = handle->frame_log_precision > kLargestFloatPrecision;
    std::string record = startRecord();
    for (size_t i = 0; i < length; ++i) appendValue(record, static_cast<double>(frame[i]), wide);
    if (!writeRecord(handle->frame_log, record, wide ? sizeof(double) : sizeof(float))) {
      return origin(handle->error, wide ? points.write_double : points.write_float, kError, kCouldNotWrite);
    }
  }
  return kSuccess;
}

template <typename Value>
using Normalize = int32_t (*)(ChipHandle *, const uint32_t *, Value *, int32_t);

template <typename Value>
int32_t takeNormalizedFrame(QTX_Handle *handle, const NormalizedPoints &points, Value *frame, int64_t capacity,
                            uint64_t option, Normalize<Value> ChipOperations::*normalize) {
  if (int32_t code = checkCall(handle, points.call, frame)) return code;
  if (int32_t code = checkChip(handle, points.call, &ChipOperations::CaptureFrame)) return code;
  if (int32_t code = checkChip(handle, points.call, normalize)) return code;
  if (int32_t code = checkNoStream(handle, points.call)) return code;
  ChipHandle *chip = handle->chip;
  const int32_t entries = static_cast<int32_t>(std::clamp<int64_t>(capacity, 0, kLongestFrame));
  std::vector<uint32_t> raw(static_cast<size_t>(std::max(entries, 1)));
  if (int32_t code = chip->operations.CaptureFrame(chip, raw.data(), entries, option)) {
    return passThrough(handle->error, points.capture, code);
  }
  if (int32_t code = (chip->operations.*normalize)(chip, raw.data(), frame, storedFrameLength(handle, entries))) {
    return passThrough(handle->error, points.normalize, code);
  }
  size_t length = 0;
  if (int32_t code = frameLength(handle, entries, &length)) return passThrough(handle->error, points.call, code);
  return logNormalizedFrame(handle, points, frame, length);
}

uint8_t loggedKind(int32_t flags) {
  if (flags & kLogRaw) return 1;
  return flags & kLogNormalized ? 2 : 0;
}

uint8_t loggedValueSize(int32_t flags, int32_t precision) {
  if (flags & kLogRaw) return sizeof(uint32_t);
  if (!(flags & kLogNormalized)) return 0;
  return precision > kLargestFloatPrecision ? sizeof(double) : sizeof(float);
}

std::string logHeader(uint32_t samplers, int32_t flags, int32_t precision) {
  std::string header = "QTX1 ";
  header.resize(10);
  appendLittleEndian(header, samplers, sizeof samplers);
  header += static_cast<char>(loggedKind(flags));
  header += static_cast<char>(loggedValueSize(flags, precision));
  header.resize(kHeaderSize);
  return header;
}

void closeFrameLog(QTX_Handle *handle) {
  if (handle->frame_log) std::fclose(handle->frame_log);
  handle->frame_log = nullptr;
}

}  // namespace

namespace pulsekit {

int32_t logStreamedFrame(QTX_Handle *handle, TracePoint, const uint32_t *frame, size_t length) {
  logRawFrame(handle, frame, length);
  return kSuccess;
}

int32_t logStreamedFrame(QTX_Handle *handle, TracePoint at, const float *frame, size_t length) {
  return logNormalizedFrame(handle, {at, at, at, at, at}, frame, length);
}

int32_t logStreamedFrame(QTX_Handle *handle, TracePoint at, const double *frame, size_t length) {
  return logNormalizedFrame(handle, {at, at, at, at, at}, frame, length);
}

}  // namespace pulsekit

extern "C" {

int32_t QTX_GetFrameRaw(QTX_Handle *handle, uint32_t *frame, uint64_t capacity) try {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE, frame)) return code;
  if (int32_t code = checkChip(handle, HERE, &ChipOperations::CaptureFrame)) return code;
  if (int32_t code = checkNoStream(handle, HERE)) return code;
  const int32_t entries = static_cast<int32_t>(std::min<uint64_t>(capacity, std::numeric_limits<int32_t>::max()));
  if (int32_t code = handle->chip->operations.CaptureFrame(handle->chip, frame, entries, 0)) {
    return passThrough(handle->error, HERE_AT(1130), code);
  }
  size_t length = 0;
  if (int32_t code = frameLength(handle, entries, &length)) return passThrough(handle->error, HERE, code);
  logRawFrame(handle, frame, length);
  return kSuccess;
} catch (const std::bad_alloc &) {
  return origin(handle->error, HERE, kOutOfMemory);
}

int32_t QTX_GetFrameNormalizedDouble(QTX_Handle *handle, double *frame, int64_t capacity, uint64_t option) try {
  const CallScope call(handle);
  return takeNormalizedFrame(handle, {HERE, HERE_AT(1200), HERE_AT(1211), HERE_AT(1271), HERE_AT(1262)}, frame,
                             capacity, option, &ChipOperations::NormalizeFrameDouble);
} catch (const std::bad_alloc &) {
  return origin(handle->error, HERE, kOutOfMemory);
}

int32_t QTX_GetFrameNormalized(QTX_Handle *handle, double *frame, int64_t capacity) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE, frame)) return code;
  if (int32_t code = QTX_GetFrameNormalizedDouble(handle, frame, capacity, 0)) {
    return passThrough(handle->error, HERE, code);
  }
  return kSuccess;
}

int32_t QTX_GetFrameNormalizedFloat(QTX_Handle *handle, float *frame, int64_t capacity, uint64_t option) try {
  const CallScope call(handle);
  return takeNormalizedFrame(handle, {HERE, HERE_AT(1312), HERE_AT(1323), HERE_AT(1383), HERE_AT(1374)}, frame,
                             capacity, option, &ChipOperations::NormalizeFrameFloat);
} catch (const std::bad_alloc &) {
  return origin(handle->error, HERE, kOutOfMemory);
}

int32_t QTX_CalculateCDF_Size(QTX_Handle *handle, uint32_t *width, uint32_t *lines) {
  if (int32_t code = checkCall(handle, HERE, width, lines)) return code;
  if (int32_t code = checkChip(handle, HERE, &ChipOperations::calculateCDF_Size)) return code;
  if (int32_t code = handle->chip->operations.calculateCDF_Size(handle->chip, width, lines)) {
    return passThrough(handle->error, HERE_AT(1408), code);
  }
  return kSuccess;
}

int32_t QTX_GetCDF(QTX_Handle *handle, uint32_t *table, int32_t capacity) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE, table)) return code;
  if (int32_t code = checkChip(handle, HERE, &ChipOperations::getCDF)) return code;
  if (int32_t code = checkNoStream(handle, HERE)) return code;
  if (int32_t code = handle->chip->operations.getCDF(handle->chip, table, capacity)) {
    return passThrough(handle->error, HERE_AT(1419), code);
  }
  return kSuccess;
}

int32_t QTX_FrameLoggingStart(QTX_Handle *handle, const char *path, int32_t flags, int32_t precision) try {
  if (int32_t code = checkCall(handle, HERE, path)) return code;
  closeFrameLog(handle);
  handle->frame_log = platform::openFile(path, flags & kLogBinary ? "wb" : "w");
  if (!handle->frame_log) {
    handle->frame_log_flags = 0;
    return failedWith(
        handle,
        origin(handle->error, HERE_AT(2414), kCouldNotOpenFile, "Could not open radar frame log file for write"), path);
  }
  // A frame is one write, and what can't be written is noticed at that frame.
  std::setvbuf(handle->frame_log, nullptr, _IONBF, 0);
  handle->frame_log_flags = flags;
  handle->frame_log_precision = precision;
  if (!(flags & kLogBinary) || flags & kLogText) return kSuccess;

  int64_t samplers = 0;
  if (int32_t code = QTX_VarGetIntValue_ByName(handle, "SamplersPerFrame", &samplers)) {
    return passThrough(handle->error, HERE, code);
  }
  const std::string header = logHeader(static_cast<uint32_t>(samplers), flags, precision);
  if (std::fwrite(header.data(), 1, header.size(), handle->frame_log) != header.size()) {
    handle->frame_log_flags = 0;
    closeFrameLog(handle);
    return origin(handle->error, HERE_AT(2486), kError, kCouldNotWrite);
  }
  return kSuccess;
} catch (const std::bad_alloc &) {
  return origin(handle->error, HERE, kOutOfMemory);
}

int32_t QTX_FrameLoggingStop(QTX_Handle *handle) {
  if (int32_t code = checkCall(handle, HERE)) return code;
  handle->frame_log_flags = 0;
  if (!handle->frame_log) return kSuccess;
  FILE *file = handle->frame_log;
  handle->frame_log = nullptr;
  // The file remembers a write that failed while frames were taken.
  const bool complete = std::ferror(file) == 0;
  if (std::fclose(file) != 0 || !complete) {
    return origin(handle->error, HERE_AT(2511), kError, "Could not close radar frame log file");
  }
  return kSuccess;
}

}  // extern "C"
