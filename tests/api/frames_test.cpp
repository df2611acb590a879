// Frames, normalized or not, the frame log, the sampler distribution and the timing measurement as hosts get them.
#include <algorithm>
#include <limits>
#include <regex>

#include "host.h"

namespace pulsekit::test {
namespace {

constexpr uint32_t kFrame[] = {17, 0, 0xffffffff, 5};
constexpr int32_t kLength = 4;

struct Capture {
  int32_t capacity = 0, count = 0, code = 0, normalize_code = 0;
  uint64_t option = 99;
} asked;

template <typename Value>
int32_t normalize(ChipHandle *, const uint32_t *raw, Value *frame, int32_t count) {
  asked.count = count;
  for (int32_t i = 0; i < count; ++i) frame[i] = static_cast<Value>(raw[i]) / 8;
  return asked.normalize_code;
}

// A chip that gives a known frame of four.
class Frames : public Radar {
 protected:
  Frames() {
    asked = {};
    named("SamplersPerFrame").value = kLength;
    handle->chip->operations.CaptureFrame = [](ChipHandle *, uint32_t *frame, int32_t capacity, uint64_t option) {
      asked.capacity = capacity, asked.option = option;
      if (asked.code == 0) std::copy_n(kFrame, std::clamp(capacity, 0, kLength), frame);
      return asked.code;
    };
    handle->chip->operations.NormalizeFrameDouble = normalize<double>;
    handle->chip->operations.NormalizeFrameFloat = normalize<float>;
  }
  std::string events() override { return ""; }
  std::string request() {
    return format("capacity %d option %llu normalized %d [%u] [%.9g %.9g] [%.9g]", asked.capacity,
                  static_cast<unsigned long long>(asked.option), asked.count, raw[0], wide[0], wide[4],
                  static_cast<double>(single[0]));
  }
  int32_t getRaw(uint64_t capacity = 6) { return QTX_GetFrameRaw(handle, raw, capacity); }
  int32_t getWide(int64_t capacity = 6, uint64_t option = 0) {
    return QTX_GetFrameNormalizedDouble(handle, wide, capacity, option);
  }
  int32_t getSingle(int64_t capacity = 6, uint64_t option = 0) {
    return QTX_GetFrameNormalizedFloat(handle, single, capacity, option);
  }
  int32_t start(const std::string &file, int32_t flags, int32_t precision = 3) {
    return QTX_FrameLoggingStart(handle, file.c_str(), flags, precision);
  }
  int32_t log(int32_t flags, int32_t precision = 3) { return start(path, flags, precision); }
  // The file with its times replaced: texts as they are, binaries as bytes.
  std::string logged(int32_t flags) {
    const int32_t code = QTX_FrameLoggingStop(handle);
    const std::string text = contents(path);
    if (!(flags & 0x20) || flags & 0x10)
      return std::to_string(code) + " " +
             std::regex_replace(flags & 0x20 ? text : textOf(path),
                                std::regex("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}"), "TIME");
    std::string shown = std::to_string(code);
    for (size_t at = 0; at < text.size(); ++at) {
      uint64_t stamp = 0;
      if (at + 8 <= text.size()) std::memcpy(&stamp, text.data() + at, 8);
      const bool time = stamp <= QTX_timestamp_us() && stamp + 60'000'000 > QTX_timestamp_us() && at >= 32;
      shown += " " + (time ? "TIME" : hex(text.data() + at, 1));
      at += time ? 7 : 0;
    }
    return shown;
  }

  Folder folder;
  std::string path = folder.file("frames.log");
  uint32_t raw[6] = {1, 1, 1, 1, 1, 1};
  double wide[6] = {1, 1, 1, 1, 1, 1};
  float single[6] = {1, 1, 1, 1, 1, 1};
};

TEST_F(Frames, CapacitiesAreClampedAndOptionsAndFailuresHandedOn) {
  for (uint64_t capacity :
       {uint64_t{0}, uint64_t{1}, uint64_t{6}, uint64_t{1} << 40, (uint64_t{1} << 32) + 1, ~uint64_t{0}})
    DO_FOR("raw", getRaw(capacity), request());
  for (int64_t capacity :
       {int64_t{0}, int64_t{-1}, int64_t{1}, int64_t{6}, int64_t{1} << 40, std::numeric_limits<int64_t>::min()}) {
    DO_FOR(capacity, getWide(capacity, 0x123456789), request(), getSingle(capacity, 5), request(),
           QTX_GetFrameNormalized(handle, wide, capacity), request());
  }
  DO((asked.code = 2, getRaw()), getWide(), getSingle(), (asked.code = 0, asked.normalize_code = 1286, getWide()),
     getSingle());
  handle->chip->operations.NormalizeFrameDouble = nullptr, handle->chip->operations.NormalizeFrameFloat = nullptr;
  DO(getWide(), getSingle());
}

TEST_F(Frames, Logs) {
  for (int32_t flags : {0x13, 0x11, 0x12, 0x01, 0x02, 0x31, 0x10, 0x23, 0x21, 0x22, 0x20}) {
    for (int32_t precision : {3, 5}) {
      testing::internal::CaptureStdout();
      DO_FOR(format("%x %d", static_cast<unsigned>(flags), precision), log(flags, precision), getRaw(), getWide(2),
             getSingle(3), logged(flags), getRaw(1), contents(path).size() > 0);
      say(std::regex_replace(testing::internal::GetCapturedStdout(),
                             std::regex("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}"), "TIME"));
    }
  }
  DO(log(0x11), start(folder.file("missing/frames.log"), 0x11), getRaw(), contents(path), start(folder.file(""), 0x21),
     QTX_FrameLoggingStop(handle));
  auto *chip = std::exchange(handle->chip, nullptr);
  DO(log(0x21), handle->frame_log, log(0x11), QTX_FrameLoggingStop(handle));
  handle->chip = chip;
}

#ifndef _WIN32
TEST_F(Frames, LogsOnAFullDisk) {
  DO(start("/dev/full", 0x21), handle->frame_log);
  for (int32_t precision : {6, 4}) {
    DO_FOR(precision, start("/dev/full", 0x02, precision), (handle->frame_log_flags = 0x23, getWide()), wide[3],
           getSingle(), single[3], getRaw(), raw[0], QTX_FrameLoggingStop(handle));
  }
  // Buffered on purpose: what the buffer holds can't be written when the file is closed.
  handle->frame_log = std::fopen("/dev/full", "w");
  std::fputs("text", handle->frame_log);
  DO(QTX_FrameLoggingStop(handle), handle->frame_log, QTX_FrameLoggingStop(handle));
}
#endif

class WholeChain : public Radar {};

TEST_F(WholeChain, FramesDistributionTimingAndLog) {
  std::vector<uint32_t> raw(257, 7);
  std::vector<double> doubles(257, -7), results(579), again(579);
  std::vector<float> floats(257, -7);
  DO(QTX_GetFrameRaw(handle, raw.data(), 255), QTX_GetFrameRaw(handle, raw.data(), 256),
     QTX_GetFrameNormalized(handle, doubles.data(), 256),
     QTX_GetFrameNormalizedFloat(handle, floats.data(), int64_t{1} << 40, 0), raw[256], doubles[256], floats[256]);
  for (size_t i = 0; i < 256; ++i) {
    EXPECT_TRUE(doubles[i] >= 0 && doubles[i] <= 100) << i;
    EXPECT_NEAR(static_cast<double>(floats[i]), doubles[i], 5.0);
  }
  uint32_t width = 0, lines = 0;
  DO(QTX_VarSetIntValue_ByName(handle, "DACMin", 4000), QTX_VarSetIntValue_ByName(handle, "DACMax", 4016),
     QTX_CalculateCDF_Size(handle, &width, &lines), width * lines, QTX_GetCDF(handle, raw.data(), 257));
  std::vector<uint32_t> table(width * lines);
  DO(QTX_GetCDF(handle, table.data(), static_cast<int32_t>(table.size())),
     QTX_TimingMeasurementLoadDataFromFlash(handle, 3), QTX_TimingMeasurementSaveDataToFlash(handle, 0x10000F),
     QTX_ExecuteAction_ByName(handle, "MeasureSampleDelayLines"),
     QTX_TimingMeasurementResults(handle, results.data(), 579), QTX_TimingMeasurementSaveDataToFlash(handle, 3), open(),
     QTX_TimingMeasurementLoadDataFromFlash(handle, 3), QTX_TimingMeasurementResults(handle, again.data(), 579),
     results == again, results[2]);
  Folder folder;
  const std::string path = folder.file("spi.log");
  DO(QTX_InterfaceLogging(handle, 1, path.c_str()), QTX_InterfaceLogging(handle, 3, nullptr),
     QTX_InterfaceLogComment(handle, "iterations"), QTX_RegisterWrite(handle, 0x31, 3, 40),
     QTX_InterfaceLogging(handle, 2, nullptr), textOf(path));
}

}  // namespace
}  // namespace pulsekit::test
