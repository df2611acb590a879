// Frame capture of the second generation as a sequence on the wire, and what becomes of the counters.
#include <gtest/gtest.h>

#include <chrono>
#include <limits>

#include "FakeRadar.h"
#include "chip/QTX3701/QTX3701.h"
#include "support/QTX_ErrorCodes.h"

using namespace pulsekit;

namespace {

constexpr uint8_t kLoadOutputBuffer = 15, kStartSweep = 93;
const std::string kReset = "91 00", kStart = "dd 00", kPoll = "47 02 <2", kLoad = "8f 00", kRead = "20 7f <1024",
                  kPinLow = "pin 500 = 0", kPinHigh = "pin 500 = 1";

class Frames : public ::testing::Test {
 protected:
  void SetUp() override {
    radar.start("QTX3701");
    ASSERT_EQ(radar.set("Iterations", 1), 0);
    ASSERT_EQ(radar.set("PulsesPerStep", 1), 0);
    radar.log.clear();
    radar.on_action = [this](uint8_t action) {
      if (action != kStartSweep) return;
      delays.push_back(radar.getReal("SampleDelay"));
      was_automatic = was_automatic && radar.isAutomatic("SampleDelay");
    };
  }
  void TearDown() override {
    EXPECT_FALSE(radar.unlocked_access);
    EXPECT_EQ(radar.lock_depth, 0);
  }

  int32_t capture(int32_t capacity = 4096) {
    delays.clear();
    radar.log.clear();
    return radar.handle.chip->operations.CaptureFrame(radar.handle.chip, frame.data(), capacity, 0);
  }
  uint32_t &sweepIdle() { return radar.handle.chip->sweep_idle; }
  // Without the registers of the delay chains.
  Log sequence() const {
    Log result;
    for (const std::string &line : radar.log) {
      const std::string address = line.substr(0, 2);
      bool delay = line == "ad 00";
      for (const char *chain : {"eb", "ec", "ed", "e2", "6b", "6c", "6d", "62"}) delay = delay || address == chain;
      if (!delay) result.push_back(line);
    }
    return result;
  }

  FakeRadar radar;
  std::vector<uint32_t> frame = std::vector<uint32_t>(4096, 0xdeadbeef);
  std::vector<double> delays;  // the sample delay at each start of a sweep
  bool was_automatic = true;   // it was so at each of them
};

TEST_F(Frames, PlainCaptureTakesSevenWritesAndTwoAnswers) {
  ASSERT_EQ(capture(256), 0) << radar.trace();
  EXPECT_EQ(radar.log, (Log{kPinLow, kReset, kStart, kPoll, kLoad, kPinHigh, kRead}));
  EXPECT_EQ(sweepIdle(), 0u);
  ASSERT_EQ(capture(), 0);
  EXPECT_EQ(radar.log, (Log{kPinLow, kReset, kStart, kPoll, kLoad, kPinHigh, kRead}));
}

TEST_F(Frames, CapturePollsUntilTheSweepHasEnded) {
  radar.busy_polls = 2;
  ASSERT_EQ(capture(), 0);
  EXPECT_EQ(radar.log, (Log{kPinLow, kReset, kStart, kPoll, kPoll, kPoll, kLoad, kPinHigh, kRead}));
}

TEST_F(Frames, PipelinedCaptureCollectsTheSweepThatTheLastOneStarted) {
  ASSERT_EQ(radar.set("PipeLining", 1), 0);
  const Log first = {kPinLow, kReset, kStart, kPoll, kLoad, kPinHigh, kReset, kStart, kRead};
  const Log steady = {kPinLow, kPoll, kLoad, kPinHigh, kReset, kStart, kRead};
  ASSERT_EQ(capture(), 0);
  EXPECT_EQ(radar.log, first);
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(capture(), 0);
    EXPECT_EQ(radar.log, steady);
    EXPECT_EQ(sweepIdle(), 0u);
  }
  EXPECT_TRUE(was_automatic);
  VariableSet *set = radar.handle.chip->variables;
  ASSERT_EQ(varActionTrigger(set, varActionNamed(set, "EmptyPipeLine")), 0);
  ASSERT_EQ(capture(), 0);
  EXPECT_EQ(radar.log, first);
  ASSERT_EQ(radar.set("PipeLining", 0), 0);
  ASSERT_EQ(capture(), 0);
  EXPECT_EQ(radar.log, (Log{kPinLow, kReset, kStart, kPoll, kLoad, kPinHigh, kRead}));
}

TEST_F(Frames, StitchedCaptureMovesTheWindowAndPutsItBack) {
  ASSERT_EQ(radar.set("FrameStitch", 3), 0);
  const double step = radar.getReal("FrameSize"), start = radar.getReal("SampleDelay");
  ASSERT_EQ(capture(768), 0) << radar.trace();
  EXPECT_EQ(delays, (std::vector<double>{start, step + start, 2 * step + start}));
  EXPECT_TRUE(radar.isAutomatic("SampleDelay"));
  EXPECT_EQ(radar.getReal("SampleDelay"), start);
  const Log one = {kPinLow, kReset, kStart, kPoll, kLoad, kPinHigh, kRead};
  Log three;
  for (int i = 0; i < 3; ++i) three.insert(three.end(), one.begin(), one.end());
  EXPECT_EQ(sequence(), three);

  ASSERT_EQ(radar.setReal("SampleDelay", 2e-9), 0);
  ASSERT_EQ(capture(768), 0);
  EXPECT_EQ(delays, (std::vector<double>{2e-9, step + 2e-9, 2 * step + 2e-9}));
  EXPECT_FALSE(radar.isAutomatic("SampleDelay"));
  EXPECT_EQ(radar.getReal("SampleDelay"), 2e-9);
}

TEST_F(Frames, StitchedAndPipelinedCaptureEndsWithTheFirstSweepOfTheNextFrame) {
  ASSERT_EQ(radar.set("FrameStitch", 2), 0);
  ASSERT_EQ(radar.set("PipeLining", 1), 0);
  const double step = radar.getReal("FrameSize"), start = radar.getReal("SampleDelay");
  ASSERT_EQ(capture(512), 0);
  EXPECT_EQ(delays, (std::vector<double>{start, step + start, start}));
  EXPECT_TRUE(radar.isAutomatic("SampleDelay"));
  ASSERT_EQ(capture(512), 0);
  EXPECT_EQ(delays, (std::vector<double>{step + start, start}));
  EXPECT_TRUE(radar.isAutomatic("SampleDelay"));
}

TEST_F(Frames, SignalsEveryStartOfASweepOnAPin) {
  ASSERT_EQ(radar.set("SignalStartOfSweep", 1), 0);
  radar.pin_code = kIoRead;  // ignored
  ASSERT_EQ(capture(), 0);
  EXPECT_EQ(radar.log, (Log{kPinLow, kReset, "pin 7 ?", "pin 7 = 1", kStart, kPoll, kLoad, kPinHigh, kRead}));
  ASSERT_EQ(radar.set("PipeLining", 1), 0);
  sweepIdle() = 0;
  ASSERT_EQ(capture(), 0);
  EXPECT_EQ(radar.log, (Log{kPinLow, kPoll, kLoad, kPinHigh, kReset, "pin 7 ?", "pin 7 = 0", kStart, kRead}));
}

TEST_F(Frames, RefusesABufferThatIsTooSmallBeforeTouchingTheChip) {
  ASSERT_EQ(radar.set("FrameStitch", 2), 0);
  ASSERT_EQ(radar.set("Downsampling", 1), 0);
  EXPECT_EQ(capture(255), kBufferTooSmall);
  EXPECT_EQ(capture(-1), kBufferTooSmall);
  EXPECT_EQ(radar.log, Log{});
  EXPECT_EQ(std::string(radar.handle.error->trace).rfind("   at: QTX3701_CaptureFrame in ", 0), 0u);
  EXPECT_EQ(QTX3701_CaptureFrame(radar.handle.chip, nullptr, 256, 0), kError);
  EXPECT_EQ(QTX3701_CaptureFrame(nullptr, frame.data(), 256, 0), kChipNotInitialized);
  EXPECT_EQ(capture(256), 0);
}

TEST_F(Frames, AssemblesCountersLeastSignificantByteFirstSweepAfterSweep) {
  ASSERT_EQ(radar.set("FrameStitch", 2), 0);
  ASSERT_EQ(radar.set("Downsampling", 3), 0);
  for (int bytes = 1; bytes <= 4; ++bytes) {
    ASSERT_EQ(radar.set("BytesPerCounter", bytes), 0);
    frame.assign(frame.size(), 0xdeadbeef);
    uint8_t sweep = 0;
    radar.on_action = [&](uint8_t action) {
      if (action != kLoadOutputBuffer) return;
      ++sweep;
      for (size_t i = 0; i < radar.memory.size(); ++i) radar.memory[i] = static_cast<uint8_t>(100 * sweep + i);
    };
    ASSERT_EQ(capture(64), 0);
    const auto counter = [&](uint32_t first) {
      uint32_t value = 0;
      for (int i = 0; i < bytes; ++i) value |= ((first + static_cast<uint32_t>(i)) & 0xff) << 8 * i;
      return value;
    };
    const uint32_t width = static_cast<uint32_t>(bytes);
    EXPECT_EQ(frame[0], counter(100)) << bytes;
    EXPECT_EQ(frame[31], counter(100 + 31 * width)) << bytes;
    EXPECT_EQ(frame[32], counter(200)) << bytes;
    EXPECT_EQ(frame[63], counter(200 + 31 * width)) << bytes;
    EXPECT_EQ(frame[64], 0xdeadbeef);
    EXPECT_EQ(radar.log[6], "20 7f <" + std::to_string(32 * bytes));
  }
}

// A failing step ends the capture and leaves everything as far as it got.
TEST_F(Frames, FailingStepsEndTheCaptureWhereItStands) {
  ASSERT_EQ(radar.setReal("SampleDelay", 2e-9), 0);
  ASSERT_EQ(radar.set("FrameStitch", 2), 0);
  const double step = radar.getReal("FrameSize");
  const struct {
    const char *what, *line;
    int occurrence, pipelining;
    uint32_t idle_before, idle_after, pin;
    double delay_after;
  } cases[] = {
      {"moving the window", "eb 01 07", 1, 0, 1, 1, 0, step + 2e-9},
      {"resetting", "91 00", 1, 0, 1, 1, 0, 2e-9},
      {"starting", "dd 00", 1, 0, 1, 1, 0, 2e-9},
      {"waiting", "47 02 <2", 1, 0, 1, 0, 0, 2e-9},
      {"loading", "8f 00", 1, 0, 1, 0, 0, 2e-9},
      {"reading", "20 7f <1024", 1, 0, 1, 0, 1, 2e-9},
      {"starting ahead", "dd 00", 1, 1, 0, 0, 1, step + 2e-9},
      {"reading the last sweep", "20 7f <1024", 2, 0, 1, 0, 1, step + 2e-9},
  };
  for (const auto &c : cases) {
    ASSERT_EQ(radar.setReal("SampleDelay", 2e-9), 0);
    ASSERT_EQ(radar.set("PipeLining", c.pipelining), 0);
    sweepIdle() = c.idle_before;
    int seen = 0;
    radar.fault = [&](const std::string &line) {
      return line == c.line && ++seen == c.occurrence ? kInterfaceTimeout : kSuccess;
    };
    EXPECT_EQ(capture(), kInterfaceTimeout) << c.what;
    radar.fault = [](const std::string &) { return 0; };
    EXPECT_EQ(radar.pins[500], c.pin) << c.what;
    EXPECT_EQ(sweepIdle(), c.idle_after) << c.what;
    EXPECT_DOUBLE_EQ(radar.getReal("SampleDelay"), c.delay_after) << c.what;
    EXPECT_NE(radar.trace().find("from: QTX3701_CaptureFrame in src/chip/QTX3701/QTX3701:"), std::string::npos)
        << radar.trace();
  }
}

TEST_F(Frames, WaitsAMillisecondBeforePollingALongSweep) {
  const auto waitTime = [&](int64_t pulses) {
    EXPECT_EQ(radar.set("PulsesPerStep", pulses), 0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(QTX3701_waitForSweepFinished(radar.handle.chip), 0);
    return std::chrono::steady_clock::now() - start;
  };
  auto shortest = std::chrono::steady_clock::duration::max();
  for (int i = 0; i < 20; ++i) shortest = std::min(shortest, waitTime(100));
  EXPECT_LT(shortest, std::chrono::milliseconds(1));
  EXPECT_GE(waitTime(101), std::chrono::milliseconds(1));
}

TEST_F(Frames, MasterClockFollowsItsDivider) {
  VariableSet *set = radar.handle.chip->variables;
  radar.variable("ClockFrequency")->value = 100;
  const int32_t expected[] = {100, 50, 25, 12, 6, 0, 0, 0, 100};
  for (uint64_t divider = 0; divider < std::size(expected); ++divider) {
    radar.variable("MClkDiv")->value = divider;
    EXPECT_EQ(QTX3701_MCLK_frequency(set), expected[divider]) << divider;
  }
  radar.variable("MClkEnable")->value = 0;
  EXPECT_EQ(QTX3701_MCLK_frequency(set), 0);
}

// ---- Normalization ----

class Normalization : public Frames {
 protected:
  void settings(int64_t iterations, int64_t pulses, int64_t dac_min, int64_t step) {
    ASSERT_EQ(radar.set("Iterations", iterations), 0);
    ASSERT_EQ(radar.set("PulsesPerStep", pulses), 0);
    ASSERT_EQ(radar.set("DACMin", dac_min), 0);
    ASSERT_EQ(radar.set("DACStepFine", step), 0);
  }
  double normalizedDouble(uint32_t raw) {
    double value = -1;
    EXPECT_EQ(radar.handle.chip->operations.NormalizeFrameDouble(radar.handle.chip, &raw, &value, 1), 0);
    return value;
  }
  float normalizedFloat(uint32_t raw) {
    float value = -1;
    EXPECT_EQ(radar.handle.chip->operations.NormalizeFrameFloat(radar.handle.chip, &raw, &value, 1), 0);
    return value;
  }
};

TEST_F(Normalization, GivesPercentOfTheDacRange) {
  const struct {
    int64_t iterations, pulses, dac_min, step;
    uint32_t raw;
    double percent;
  } cases[] = {
      {1, 1, 0, 1, 0, 0},
      {1, 1, 0, 1, 4096, 50},
      {10, 20, 0, 8, 102400, 50},
      {1, 1, 4096, 1, 0, 50},
      {1, 1, 3, 2, 1, 0.048828125},                   // the offset of 1.5 counts is cut to 1
      {65535, 16777215, 8191, 1, 0, 99.98779296875},  // beyond 32 bits
      {1, 1, 1, 1, 0xffffffff, 52428800},             // the sum is beyond 32 bits
  };
  for (const auto &c : cases) {
    settings(c.iterations, c.pulses, c.dac_min, c.step);
    EXPECT_DOUBLE_EQ(normalizedDouble(c.raw), c.percent);
    EXPECT_FLOAT_EQ(normalizedFloat(c.raw), static_cast<float>(c.percent));
  }
}

TEST_F(Normalization, FloatVariantCalculatesInSinglePrecision) {
  settings(1, 1, 0, 1);
  const uint32_t raw = 16777219;  // the next floats are 16777218 and 16777220
  EXPECT_EQ(normalizedFloat(raw), 16777220.0f * 100.0f / 8192.0f);
  EXPECT_EQ(normalizedDouble(raw), 16777219.0 * 100.0 / 8192.0);
  EXPECT_NE(static_cast<float>(normalizedDouble(raw)), normalizedFloat(raw));
}

TEST_F(Normalization, RefusesAStepOfZeroAndMissingBuffers) {
  const uint32_t raw[] = {1};
  double real = -1;
  float single = -1;
  ChipHandle *chip = radar.handle.chip;
  EXPECT_EQ(QTX3701_NormalizeFrameDouble(chip, nullptr, &real, 1), kError);
  EXPECT_EQ(QTX3701_NormalizeFrameFloat(chip, raw, nullptr, 1), kError);
  EXPECT_EQ(QTX3701_NormalizeFrameDouble(nullptr, raw, &real, 1), kChipNotInitialized);
  EXPECT_EQ(QTX3701_NormalizeFrameDouble(chip, nullptr, nullptr, 0), 0);
  EXPECT_EQ(QTX3701_NormalizeFrameDouble(chip, raw, &real, -1), 0);
  settings(1, 1, 0, 0);
  EXPECT_EQ(QTX3701_NormalizeFrameDouble(chip, raw, &real, 1), kIllegalValue);
  EXPECT_STREQ(radar.handle.error->message, "DACStepFine is 0");
  EXPECT_EQ(QTX3701_NormalizeFrameFloat(chip, raw, &single, 1), kIllegalValue);
  EXPECT_EQ(real, -1);
  EXPECT_EQ(single, -1);
}

}  // namespace
