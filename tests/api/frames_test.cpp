// Frames and the frame log, on a chip that gives a known frame.
#include <algorithm>
#include <limits>
#include <regex>

#include "fakes.h"
#include "files.h"

namespace pulsekit::test {
namespace {

constexpr uint32_t kFrame[] = {17, 0, 0xffffffff, 5};
constexpr int32_t kLength = 4;

struct Capture {
  int32_t calls = 0, capacity = 0, count = 0;
  uint64_t option = 99;
  int32_t code = 0, normalize_code = 0;
} capture;

int32_t captureFrame(ChipHandle *, uint32_t *frame, int32_t capacity, uint64_t option) {
  ++capture.calls;
  capture.capacity = capacity;
  capture.option = option;
  if (capture.code) return capture.code;
  std::copy_n(kFrame, std::clamp(capacity, 0, kLength), frame);
  return 0;
}

template <typename Value>
int32_t normalize(ChipHandle *, const uint32_t *raw, Value *frame, int32_t count) {
  capture.count = count;
  for (int32_t i = 0; i < count; ++i) frame[i] = static_cast<Value>(raw[i]) / 8;
  return capture.normalize_code;
}

class Frames : public testing::Test {
 protected:
  Frames() {
    capture = {};
    radar.chip_set.add("SamplersPerFrame", VAR_FLAG_INT, kLength);
    radar.chip.operations.CaptureFrame = captureFrame;
    radar.chip.operations.NormalizeFrameDouble = normalize<double>;
    radar.chip.operations.NormalizeFrameFloat = normalize<float>;
  }

  void log(int32_t flags, int32_t precision = 3) {
    ASSERT_EQ(QTX_FrameLoggingStart(handle, path.c_str(), flags, precision), 0);
  }

  FakeRadar radar;
  QTX_Handle *handle = radar.library;
  Folder folder;
  std::string path = folder.file("frames.log");
  uint32_t raw[6] = {1, 1, 1, 1, 1, 1};
  double normalized[6] = {1, 1, 1, 1, 1, 1};
  float single[6] = {1, 1, 1, 1, 1, 1};
};

TEST_F(Frames, CapacitiesAreClampedAndNeverTruncated) {
  const std::pair<uint64_t, int32_t> raw_cases[] = {{0, 0},
                                                    {1, 1},
                                                    {6, 6},
                                                    {uint64_t{1} << 40, 0x7fffffff},
                                                    {(uint64_t{1} << 32) + 1, 0x7fffffff},
                                                    {~uint64_t{0}, 0x7fffffff}};
  for (const auto &[capacity, seen] : raw_cases) {
    EXPECT_EQ(QTX_GetFrameRaw(handle, raw, capacity), 0);
    EXPECT_EQ(capture.capacity, seen) << capacity;
  }
  const std::pair<int64_t, int32_t> normalized_cases[] = {
      {0, 0}, {-1, 0}, {1, 1}, {6, 6}, {int64_t{1} << 40, 0x10000}, {std::numeric_limits<int64_t>::min(), 0}};
  for (const auto &[capacity, seen] : normalized_cases) {
    EXPECT_EQ(QTX_GetFrameNormalizedDouble(handle, normalized, capacity, 0), 0);
    EXPECT_EQ(capture.capacity, seen) << capacity;
    EXPECT_EQ(capture.count, std::min(seen, kLength)) << capacity;
  }
  EXPECT_EQ(raw[4], 1u);
  EXPECT_EQ(normalized[4], 1.0);
}

TEST_F(Frames, TheOptionReachesTheCapture) {
  EXPECT_EQ(QTX_GetFrameNormalizedDouble(handle, normalized, 6, 0x123456789), 0);
  EXPECT_EQ(capture.option, 0x123456789u);
  EXPECT_EQ(QTX_GetFrameNormalized(handle, normalized, 6), 0);
  EXPECT_EQ(capture.option, 0u);
  EXPECT_EQ(QTX_GetFrameNormalizedFloat(handle, single, 6, 5), 0);
  EXPECT_EQ(capture.option, 5u);
  EXPECT_EQ(single[0], 17.0f / 8);
}

TEST_F(Frames, FailuresCarryTheirTracePoints) {
  capture.code = 2;
  EXPECT_EQ(QTX_GetFrameRaw(handle, raw, 6), 2);
  EXPECT_NE(description(handle).find("QTX_GetFrameRaw in src/Pulsekit3:1130"), std::string::npos);
  EXPECT_EQ(QTX_GetFrameNormalizedDouble(handle, normalized, 6, 0), 2);
  EXPECT_NE(description(handle).find("QTX_GetFrameNormalizedDouble in src/Pulsekit3:1200"), std::string::npos);
  EXPECT_EQ(QTX_GetFrameNormalizedFloat(handle, single, 6, 0), 2);
  EXPECT_NE(description(handle).find("QTX_GetFrameNormalizedFloat in src/Pulsekit3:1312"), std::string::npos);
  capture.code = 0;
  capture.normalize_code = 1286;
  EXPECT_EQ(QTX_GetFrameNormalizedDouble(handle, normalized, 6, 0), 1286);
  EXPECT_NE(description(handle).find("QTX_GetFrameNormalizedDouble in src/Pulsekit3:1211"), std::string::npos);
  EXPECT_EQ(QTX_GetFrameNormalizedFloat(handle, single, 6, 0), 1286);
  EXPECT_NE(description(handle).find("QTX_GetFrameNormalizedFloat in src/Pulsekit3:1323"), std::string::npos);
  radar.chip_set["SamplersPerFrame"].flags &= ~uint32_t{VAR_FLAG_VISIBLE};
  EXPECT_EQ(QTX_GetFrameNormalizedDouble(handle, normalized, 6, 0), 1286) << "before the frame length is read";
}

constexpr char kStamp[] = "\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}";

TEST_F(Frames, ATextLogHasALineForEachFrame) {
  log(0x13);
  EXPECT_EQ(QTX_GetFrameRaw(handle, raw, 6), 0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(QTX_GetFrameNormalizedDouble(handle, normalized, 2, 0), 0);
  EXPECT_EQ(QTX_GetFrameNormalizedFloat(handle, single, 2, 0), 0);
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_EQ(QTX_FrameLoggingStop(handle), 0);
  const std::string stamp = kStamp;
  EXPECT_TRUE(std::regex_match(
      contents(path), std::regex(stamp + ",17,0,-1,5\n" + stamp + ",2\\.125,0\\.000\n" + stamp + ",2\\.125,0\\.000\n")))
      << contents(path);
  EXPECT_TRUE(std::regex_match(printed, std::regex("(TimeStamp: " + stamp + "\\.\n){2}"))) << printed;
}

std::string word(uint64_t value, size_t size) {
  std::string bytes;
  for (size_t i = 0; i < size; ++i) bytes += static_cast<char>(value >> (8 * i));
  return bytes;
}

std::string header(uint32_t samplers, char kind, char size) {
  return "QTX1 " + std::string(5, '\0') + word(samplers, 4) + kind + size + std::string(16, '\0');
}

struct BinaryCase {
  int32_t flags, precision;
  char kind, size;
  std::string values;  // of one raw and one normalized frame; each follows a timestamp
};

TEST_F(Frames, ABinaryLogIsAHeaderAndRecords) {
  const std::string raw_values = word(17, 4) + word(0, 4) + word(0xffffffff, 4) + word(5, 4);
  std::string floats, doubles;
  for (const uint32_t value : kFrame) {
    floats += word(std::bit_cast<uint32_t>(static_cast<float>(static_cast<double>(value) / 8)), 4);
    doubles += word(bits(static_cast<double>(value) / 8), 8);
  }
  const BinaryCase cases[] = {
      {0x21, 6, 1, 4, raw_values}, {0x22, 4, 2, 4, floats}, {0x22, 5, 2, 8, doubles}, {0x20, 6, 0, 0, ""}};
  for (const BinaryCase &c : cases) {
    log(c.flags, c.precision);
    const uint64_t before = QTX_timestamp_us();
    EXPECT_EQ(QTX_GetFrameRaw(handle, raw, 6), 0);
    EXPECT_EQ(QTX_GetFrameNormalizedDouble(handle, normalized, 6, 0), 0);
    EXPECT_EQ(QTX_FrameLoggingStop(handle), 0);
    const std::string file = contents(path);
    EXPECT_EQ(file.substr(0, 32), header(kLength, c.kind, c.size)) << c.flags;
    if (c.values.empty()) {
      EXPECT_EQ(file.size(), 32u);
      continue;
    }
    ASSERT_EQ(file.size(), 40 + c.values.size()) << c.flags;
    uint64_t timestamp = 0;
    std::memcpy(&timestamp, file.data() + 32, 8);
    EXPECT_GE(timestamp, before);
    EXPECT_LE(timestamp, QTX_timestamp_us());
    EXPECT_EQ(file.substr(40), c.values) << c.flags << " " << c.precision;
  }
}

TEST_F(Frames, BothFlagsMixBothKindsAndTheHeaderSaysRaw) {
  log(0x23, 6);
  EXPECT_EQ(QTX_GetFrameNormalizedFloat(handle, single, 6, 0), 0);
  EXPECT_EQ(QTX_GetFrameRaw(handle, raw, 6), 0);
  EXPECT_EQ(QTX_FrameLoggingStop(handle), 0);
  const std::string file = contents(path);
  EXPECT_EQ(file.substr(0, 32), header(kLength, 1, 4));
  EXPECT_EQ(file.size(), 32u + (8 + 4 * 8) + (8 + 4 * 4));
}

TEST_F(Frames, TextTogetherWithBinaryWritesTextWithoutAHeader) {
  log(0x31);
  EXPECT_EQ(QTX_GetFrameRaw(handle, raw, 1), 0);
  EXPECT_EQ(QTX_FrameLoggingStop(handle), 0);
  EXPECT_TRUE(std::regex_match(contents(path), std::regex(std::string(kStamp) + ",17\n"))) << contents(path);
}

TEST_F(Frames, NothingIsLoggedOfAKindThatWasNotAskedFor) {
  log(0x12);
  EXPECT_EQ(QTX_GetFrameRaw(handle, raw, 6), 0);
  log(0x01);
  EXPECT_EQ(QTX_GetFrameRaw(handle, raw, 6), 0);
  EXPECT_EQ(QTX_FrameLoggingStop(handle), 0);
  EXPECT_EQ(QTX_GetFrameRaw(handle, raw, 6), 0);
  EXPECT_EQ(contents(path), "");
}

TEST_F(Frames, ALogThatCannotBeOpenedEndsTheOneThatWas) {
  log(0x11);
  EXPECT_EQ(QTX_FrameLoggingStart(handle, folder.file("missing/frames.log").c_str(), 0x11, 3), 6);
  EXPECT_EQ(description(handle),
            "ERROR 0x6: Could not open file - Could not open radar frame log file for write\r\n"
            "   at: QTX_FrameLoggingStart in src/Pulsekit3:2414");
  EXPECT_EQ(QTX_GetFrameRaw(handle, raw, 6), 0);
  EXPECT_EQ(contents(path), "");
  EXPECT_EQ(QTX_FrameLoggingStart(handle, folder.file("").c_str(), 0x21, 3), 6);
  EXPECT_EQ(QTX_FrameLoggingStop(handle), 0);
}

TEST_F(Frames, AFullDiskIsToldAndTheFrameIsNotLost) {
  EXPECT_EQ(QTX_FrameLoggingStart(handle, "/dev/full", 0x21, 3), 1);
  EXPECT_EQ(description(handle),
            "ERROR 0x1: Error - Could not write to radar frame log file\r\n"
            "   at: QTX_FrameLoggingStart in src/Pulsekit3:2486");
  const std::tuple<int32_t, bool, const char *> cases[] = {
      {6, false, "QTX_GetFrameNormalizedDouble in src/Pulsekit3:1271"},
      {4, false, "QTX_GetFrameNormalizedDouble in src/Pulsekit3:1262"},
      {6, true, "QTX_GetFrameNormalizedFloat in src/Pulsekit3:1383"},
      {4, true, "QTX_GetFrameNormalizedFloat in src/Pulsekit3:1374"}};
  for (const auto &[precision, as_float, point] : cases) {
    ASSERT_EQ(QTX_FrameLoggingStart(handle, "/dev/full", 0x02, precision), 0);
    handle->frame_log_flags = 0x23;
    normalized[3] = single[3] = 1;
    EXPECT_EQ(as_float ? QTX_GetFrameNormalizedFloat(handle, single, 6, 0)
                       : QTX_GetFrameNormalizedDouble(handle, normalized, 6, 0),
              1);
    EXPECT_EQ(as_float ? static_cast<double>(single[3]) : normalized[3], 5.0 / 8);
    EXPECT_EQ(description(handle),
              std::string("ERROR 0x1: Error - Could not write to radar frame log file\r\n   at: ") + point);
    EXPECT_EQ(QTX_GetFrameRaw(handle, raw, 6), 0);
    EXPECT_EQ(raw[0], 17u);
    EXPECT_EQ(QTX_FrameLoggingStop(handle), 1) << "a write has failed";
  }
}

TEST_F(Frames, ALogThatCannotBeClosedIsTold) {
  // Buffered on purpose: what the buffer holds can't be written when the file is closed.
  handle->frame_log = std::fopen("/dev/full", "w");
  std::fputs("text", handle->frame_log);
  EXPECT_EQ(QTX_FrameLoggingStop(handle), 1);
  EXPECT_EQ(description(handle),
            "ERROR 0x1: Error - Could not close radar frame log file\r\n"
            "   at: QTX_FrameLoggingStop in src/Pulsekit3:2511");
  EXPECT_EQ(handle->frame_log, nullptr);
  EXPECT_EQ(QTX_FrameLoggingStop(handle), 0);
}

TEST_F(Frames, TheHeaderNeedsTheFrameLength) {
  handle->chip = nullptr;
  EXPECT_EQ(QTX_FrameLoggingStart(handle, path.c_str(), 0x21, 3), 1283);
  EXPECT_EQ(QTX_FrameLoggingStart(handle, path.c_str(), 0x11, 3), 0);
}

}  // namespace
}  // namespace pulsekit::test
