// The sampler CDF of the second generation.
#include <gtest/gtest.h>

#include "FakeRadar.h"
#include "chip/QTX3701/QTX3701.h"
#include "support/QTX_ErrorCodes.h"

using namespace pulsekit;

namespace {

constexpr uint8_t kLoadOutputBuffer = 15;

class Cdf : public ::testing::Test {
 protected:
  void SetUp() override {
    radar.start("QTX3701");
    for (const auto &[name, value] : std::map<const char *, int64_t>{{"Iterations", 1},
                                                                     {"PulsesPerStep", 1},
                                                                     {"DACStepFine", 8},
                                                                     {"Downsampling", 3},
                                                                     {"BytesPerCounter", 1}}) {
      ASSERT_EQ(radar.set(name, value), 0);
    }
    range(16, 32);
    // Counters tell which sweep they are of.
    radar.on_action = [this](uint8_t action) {
      if (action == kLoadOutputBuffer) radar.memory.assign(radar.memory.size(), ++sweeps);
    };
  }
  void range(int64_t min, int64_t max) {
    ASSERT_EQ(radar.set("DACMin", min), 0);
    ASSERT_EQ(radar.set("DACMax", max), 0);
    radar.log.clear();
  }
  int32_t cdf(int32_t capacity = 96) {
    radar.log.clear();
    return radar.handle.chip->operations.getCDF(radar.handle.chip, table.data(), capacity);
  }

  FakeRadar radar;
  std::vector<uint32_t> table = std::vector<uint32_t>(256, 0xdeadbeef);
  uint8_t sweeps = 0;
};

TEST_F(Cdf, SizeFollowsRangeStepAndDownsampling) {
  const struct {
    int64_t min, max, step, downsampling;
    uint32_t width, lines;
  } cases[] = {
      {0, 8191, 64, 0, 256, 128},
      {0, 8191, 8191, 2, 64, 2},
      {100, 100, 1, 3, 32, 1},
      {1000, 0, 8, 3, 32, 0xffffff84},  // upside down: wraps
  };
  for (const auto &c : cases) {
    range(c.min, c.max);
    ASSERT_EQ(radar.set("DACStepFine", c.step), 0);
    ASSERT_EQ(radar.set("Downsampling", c.downsampling), 0);
    uint32_t width = 0, lines = 0;
    EXPECT_EQ(radar.handle.chip->operations.calculateCDF_Size(radar.handle.chip, &width, &lines), 0);
    EXPECT_EQ(width, c.width);
    EXPECT_EQ(lines, c.lines);
  }
  EXPECT_EQ(QTX3701_calculateCDF_Size(radar.handle.chip, nullptr, nullptr), kError);
  EXPECT_EQ(QTX3701_calculateCDF_Size(nullptr, nullptr, nullptr), kChipNotInitialized);
}

TEST_F(Cdf, MeasuresLineAfterLineUnderTheOverride) {
  ASSERT_EQ(cdf(), 0) << radar.trace();
  const auto line = [](const std::string &dac) {
    return Log{"91 00", "d1 02 " + dac + " 20", "dd 00", "d1 02 00 20", "8f 00"};
  };
  Log expected = {"ba 02 00 00", "b9 02 00 00", "d1 02 00 20", "pin 500 = 0"};
  for (const char *dac : {"10", "18", "20"}) {
    const Log one = line(dac);
    expected.insert(expected.end(), one.begin(), one.end());
  }
  for (const char *last : {"pin 500 = 1", "ba 02 10 00", "b9 02 20 00", "d1 02 00 00"}) expected.push_back(last);
  EXPECT_EQ(radar.changes(), expected);
  for (uint32_t i = 0; i < 3; ++i) {
    EXPECT_EQ(table[i * 32], i + 1);
    EXPECT_EQ(table[i * 32 + 31], i + 1);
  }
  EXPECT_EQ(table[96], 0xdeadbeef);
}

TEST_F(Cdf, RestoresWhatWasAutomatic) {
  ASSERT_EQ(radar.set("DACMin", VAR_AUTO), 0);
  ASSERT_EQ(radar.setReal("ZoomMax", 0.25), 0);
  ASSERT_EQ(radar.set("DACMax", VAR_AUTO), 0);
  ASSERT_EQ(cdf(), 0) << radar.trace();
  EXPECT_TRUE(radar.isAutomatic("DACMin"));
  EXPECT_TRUE(radar.isAutomatic("DACMax"));
  EXPECT_TRUE(radar.isAutomatic("DACOverride"));
  EXPECT_EQ(radar.get("DACMax"), 20);
  EXPECT_EQ(radar.get("DACOverride"), 0);
}

TEST_F(Cdf, LeavesTheDacAtTheLastLineWhenAsked) {
  ASSERT_EQ(radar.set("CDF_ReturnDACToZero", 0), 0);
  ASSERT_EQ(cdf(), 0);
  EXPECT_EQ(radar.get("DACOverrideVal"), 32);
  const Log changes = radar.changes();
  EXPECT_EQ(std::count(changes.begin(), changes.end(), "d1 02 10 20"), 1);
}

TEST_F(Cdf, EveryPassMeasuresAgainAndTheLastOneStays) {
  ASSERT_EQ(radar.set("CDF_SpreadingFactor", 3), 0);
  ASSERT_EQ(cdf(), 0);
  EXPECT_EQ(sweeps, 9);
  EXPECT_EQ(table[0], 7u);
  EXPECT_EQ(table[64], 9u);

  ASSERT_EQ(radar.set("CDF_SpreadingFactor", 0), 0);
  ASSERT_EQ(cdf(), 0);
  EXPECT_EQ(sweeps, 9);
}

TEST_F(Cdf, AnUpsideDownRangeMakesNoLine) {
  range(1000, 0);
  EXPECT_EQ(cdf(0), 0);
  EXPECT_EQ(sweeps, 0);
  EXPECT_EQ(radar.get("DACMin"), 1000);
}

TEST_F(Cdf, RefusesATableThatIsTooSmallAndAStepOfZero) {
  EXPECT_EQ(cdf(95), kBufferTooSmall);
  EXPECT_EQ(std::string(radar.handle.error->trace).rfind("   at: QTX3701_getCDF in src/chip/QTX3701/QTX3701-CDF:", 0),
            0u);
  EXPECT_EQ(QTX3701_getCDF_Line(radar.handle.chip, 0, table.data(), 31), kBufferTooSmall);
  EXPECT_EQ(QTX3701_getCDF(radar.handle.chip, nullptr, 96), kError);
  EXPECT_EQ(QTX3701_getCDF_Line(radar.handle.chip, 0, nullptr, 32), kError);
  EXPECT_EQ(QTX3701_getCDF(nullptr, table.data(), 96), kChipNotInitialized);
  EXPECT_EQ(QTX3701_getCDF_Line(nullptr, 0, table.data(), 32), kChipNotInitialized);
  EXPECT_EQ(radar.log, Log{});
  radar.pin_code = kIoSet;
  EXPECT_EQ(cdf(), kIoSet);
  radar.pin_code = 0;
  EXPECT_EQ(QTX3701_getCDF_Line(radar.handle.chip, 0, table.data(), 32), 0);
  ASSERT_EQ(radar.set("DACStepFine", 0), 0);
  EXPECT_EQ(cdf(), kIllegalValue);
  EXPECT_STREQ(radar.handle.error->message, "DACStepFine is 0");
}

TEST_F(Cdf, AFailingLineEndsItWithoutRestoring) {
  const struct {
    const char *line, *printed;
  } cases[] = {
      {"91 00", ""}, {"d1 02 18 20", "Error setting DAC: DACValue = 24\n"},
      {"dd 00", ""}, {"47 02 <2", ""},
      {"8f 00", ""}, {"20 7f <32", ""},
  };
  for (const auto &c : cases) {
    ASSERT_EQ(radar.set("DACOverride", 0), 0);
    range(16, 32);
    radar.fault = [&](const std::string &line) { return line == c.line ? kInterfaceTimeout : kSuccess; };
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(cdf(), kInterfaceTimeout) << c.line;
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), c.printed);
    radar.fault = [](const std::string &) { return 0; };
    EXPECT_EQ(radar.pins[500], 0u) << c.line;
    EXPECT_EQ(radar.get("DACMin"), 0);
    EXPECT_EQ(radar.get("DACMax"), 0);
    EXPECT_EQ(radar.get("DACOverride"), 1);
    const std::string trace = radar.handle.error->trace;
    EXPECT_NE(trace.find("from: QTX3701_getCDF_Line in src/chip/QTX3701/QTX3701-CDF:"), std::string::npos) << trace;
    EXPECT_NE(trace.find("from: QTX3701_getCDF in src/chip/QTX3701/QTX3701-CDF:"), std::string::npos) << trace;
  }
}

TEST_F(Cdf, NamesTheLineWhoseDacCannotBeReset) {
  int zeros = 0;
  // The first write of 0 switches the override on, the second ends line 16, the third line 24.
  radar.fault = [&](const std::string &line) {
    return line == "d1 02 00 20" && ++zeros == 3 ? kInterfaceTimeout : kSuccess;
  };
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(cdf(), kInterfaceTimeout);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Error resetting DAC: DACValue = 24\n");
}

}  // namespace
