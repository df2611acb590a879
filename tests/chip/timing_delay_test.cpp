// A wanted delay as settings of the delay chains, uncalibrated and by measured steps.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "MeasuredRadar.h"

using namespace pulsekit;
using namespace pulsekit::chip;

namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

struct Settings {
  int32_t periods, coarse, medium;
  int64_t fine;
  friend bool operator==(const Settings &, const Settings &) = default;
  friend std::ostream &operator<<(std::ostream &out, const Settings &s) {
    return out << s.periods << " periods, " << s.coarse << ", " << s.medium << ", " << s.fine;
  }
};

class DelayConversion : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NO_FATAL_FAILURE(radar.start()); }

  Settings convert(float delay) {
    VariableSet *set = radar.variables();
    return {QTX3701_measurementGetFrameOffsetClockPeriods(set, delay),
            QTX3701_measurementGetFrameOffsetCoarseTune(set, delay),
            QTX3701_measurementGetFrameOffsetMediumTune(set, delay),
            QTX3701_measurementGetFrameOffsetFineTune(set, delay)};
  }

  // Round steps, so that the expected settings can be seen: 1 ns, 100 ps, 10 ps.
  void calibrate() {
    for (int i = 0; i < 63; ++i) {
      radar.record->coarse_step[i] = 1e-9f;
      radar.record->medium_step[i] = 100e-12f;
      radar.record->fine_step[i] = 10e-12f;
    }
    radar.record->coarse_measured = radar.record->medium_measured = radar.record->fine_measured = 1;
  }
  void setAverages(double coarse, double medium, double fine) {
    ASSERT_EQ(radar.setReal("DelayCoarseTune", coarse), 0);
    ASSERT_EQ(radar.setReal("DelayMediumTune", medium), 0);
    ASSERT_EQ(radar.setReal("DelayFineTune", fine), 0);
  }

  MeasuredRadar radar;
};

}  // namespace

TEST_F(DelayConversion, UncalibratedChainsDivideByTheAverageStep) {
  setAverages(1e-9, 100e-12, 10e-12);
  const struct {
    int64_t delayed_clock, fine_enable;
    float delay;
    Settings expected;
  } cases[] = {{1, 0, 0, {0, 0, 0, 0}},           {1, 0, 35.78e-9f, {3, 5, 7, 0}},  {1, 1, 35.785e-9f, {3, 5, 7, 8}},
               {0, 1, 35.785e-9f, {0, 35, 7, 8}}, {0, 1, 100e-9f, {0, 63, 63, 63}},  // as far as the chains go
               {1, 1, -3e-9f, {0, 0, 0, 0}}};
  for (const auto &c : cases) {
    ASSERT_EQ(radar.set("FrameOffsetUseDelayedClock", c.delayed_clock), 0);
    ASSERT_EQ(radar.set("SDFTEnable", c.fine_enable), 0);
    EXPECT_EQ(convert(c.delay), c.expected) << c.delay << " with " << c.delayed_clock << c.fine_enable;
  }
}

TEST_F(DelayConversion, MeasuredChainsAreWalkedStepByStep) {
  calibrate();
  const struct {
    int64_t delayed_clock, fine_enable;
    float delay;
    Settings expected;
  } cases[] = {{1, 0, 0.9e-9f, {0, 0, 9, 0}},
               {1, 0, 35.78e-9f, {3, 5, 8, 0}},  // without the fine chain the medium
                                                 // one rounds
               {1, 0, 35.74e-9f, {3, 5, 7, 0}},
               {1, 0, 0.04e-9f, {0, 0, 0, 0}},
               {1, 0, 0.06e-9f, {0, 0, 1, 0}},
               {1, 1, 35.78e-9f, {3, 5, 7, 8}},  // with it, it leaves it the rest
               {1, 1, 35.784e-9f, {3, 5, 7, 8}},
               {1, 1, 35.786e-9f, {3, 5, 7, 9}},
               {0, 1, 35.78e-9f, {0, 35, 7, 8}},
               {0, 1, 100e-9f, {0, 63, 63, 63}},
               {1, 1, -3e-9f, {0, 0, 0, 0}}};
  for (const auto &c : cases) {
    ASSERT_EQ(radar.set("FrameOffsetUseDelayedClock", c.delayed_clock), 0);
    ASSERT_EQ(radar.set("SDFTEnable", c.fine_enable), 0);
    EXPECT_EQ(convert(c.delay), c.expected) << c.delay << " with " << c.delayed_clock << c.fine_enable;
  }
}

TEST_F(DelayConversion, EachGrainNeedsTheOnesAboveItMeasured) {
  calibrate();
  setAverages(2e-9, 50e-12, 5e-12);
  ASSERT_EQ(radar.set("SDFTEnable", 1), 0);
  const float delay = 5.187e-9f;
  EXPECT_EQ(convert(delay), (Settings{0, 5, 1, 9}));
  radar.record->fine_measured = 0;
  EXPECT_EQ(convert(delay), (Settings{0, 5, 1, 17}));
  radar.record->medium_measured = 0;
  EXPECT_EQ(convert(delay), (Settings{0, 5, 3, 7}));
  radar.record->coarse_measured = 0;
  radar.record->medium_measured = 1;
  EXPECT_EQ(convert(delay), (Settings{0, 2, 23, 7}));
  radar.record->coarse_measured = 2;
  EXPECT_EQ(convert(delay).coarse, 2) << "only 1 means measured";
}

TEST_F(DelayConversion, CoarseStepsThatWereNotMeasuredCountAsTheAverage) {
  calibrate();
  ASSERT_EQ(radar.set("FrameOffsetUseDelayedClock", 0), 0);
  ASSERT_EQ(radar.setReal("DelayCoarseTune", 2e-9), 0);
  for (int i = 4; i < 64; ++i) radar.record->coarse_step[i] = 0;
  EXPECT_EQ(convert(3.9e-9f).coarse, 3);
  EXPECT_EQ(convert(5.9e-9f).coarse, 4);
  EXPECT_EQ(convert(6.1e-9f).coarse, 5);
  EXPECT_EQ(convert(1e-6f).coarse, 63);
  radar.record->coarse_step[0] = 0;
  EXPECT_EQ(convert(1.9e-9f).coarse, 0);
  EXPECT_EQ(convert(1.9e-9f).medium, 19);
}

TEST_F(DelayConversion, WhatIsNoDelayEndsAtAnEnd) {
  ASSERT_EQ(radar.set("SDFTEnable", 1), 0);
  for (const bool calibrated : {false, true}) {
    if (calibrated) calibrate();
    EXPECT_EQ(convert(kNan), (Settings{0, 0, 0, 0}));
    EXPECT_EQ(convert(-kInfinity), (Settings{0, 0, 0, 0}));
    EXPECT_EQ(convert(kInfinity).periods, std::numeric_limits<int32_t>::max());
    EXPECT_EQ(convert(1e30f).periods, std::numeric_limits<int32_t>::max());
    ASSERT_EQ(radar.set("FrameOffsetUseDelayedClock", 0), 0);
    EXPECT_EQ(convert(kInfinity), (Settings{0, 63, 63, 63}));
    EXPECT_EQ(convert(1e30f), (Settings{0, 63, 63, 63}));
    ASSERT_EQ(radar.set("FrameOffsetUseDelayedClock", 1), 0);
  }
}

TEST_F(DelayConversion, StepsOfNothingDivideNothing) {
  ASSERT_EQ(radar.set("SDFTEnable", 1), 0);
  setAverages(0, 0, 0);
  EXPECT_EQ(convert(0), (Settings{0, 0, 0, 0}));
  EXPECT_EQ(convert(1e-9f), (Settings{0, 63, 63, 63}));
  radar.record->coarse_measured = radar.record->medium_measured = radar.record->fine_measured = 1;
  EXPECT_EQ(convert(1e-9f), (Settings{0, 63, 63, 63}));
}

TEST_F(DelayConversion, AStoppedClockHasNoPeriods) {
  ASSERT_EQ(radar.set("MClkEnable", 0), 0);
  setAverages(1e-9, 100e-12, 10e-12);
  EXPECT_EQ(convert(35.78e-9f), (Settings{0, 35, 7, 0}));
  EXPECT_EQ(QTX3701_measurementGetDelayToFrameOffset(radar.variables()), 0.0f);
}

TEST_F(DelayConversion, ADividedClockHasLongerPeriods) {
  setAverages(1e-9, 100e-12, 10e-12);
  ASSERT_EQ(radar.set("MClkDiv", 1), 0);
  EXPECT_EQ(convert(35.78e-9f), (Settings{1, 15, 7, 0}));
}

// The settings that a delay asks for make that delay again, to half of the finest step in use.
TEST_F(DelayConversion, SettingsMakeTheDelayThatAskedForThem) {
  std::mt19937 random(7);
  std::uniform_real_distribution<float> spread(0.9f, 1.1f);
  for (int i = 0; i < 63; ++i) {
    radar.record->coarse_step[i] = 1.25e-9f * spread(random);
    radar.record->medium_step[i] = 42e-12f * spread(random);
    radar.record->fine_step[i] = 1.5e-12f * spread(random);
  }
  radar.record->coarse_measured = radar.record->medium_measured = radar.record->fine_measured = 1;
  std::uniform_real_distribution<float> delays(0, 60e-9f);
  for (const int64_t fine_enable : {0, 1}) {
    ASSERT_EQ(radar.set("SDFTEnable", fine_enable), 0);
    for (int i = 0; i < 500; ++i) {
      const float delay = delays(random);
      const Settings s = convert(delay);
      double made = s.periods / 100e6;
      for (int k = 0; k < s.coarse; ++k) made += radar.record->coarse_step[k];
      for (int k = 0; k < s.medium; ++k) made += radar.record->medium_step[k];
      for (int k = 0; k < s.fine; ++k) made += radar.record->fine_step[k];
      const double rounding = 1e-14;  // of single precision at this length
      EXPECT_NEAR(made, delay, (fine_enable ? 1.5e-12 : 42e-12) * 1.1 / 2 + rounding) << s;
    }
  }
}

TEST_F(DelayConversion, TheDelayToTheFrameAddsUpTheStepsInUse) {
  calibrate();
  const auto delay = [this] {
    return static_cast<double>(QTX3701_measurementGetDelayToFrameOffset(radar.variables()));
  };
  ASSERT_EQ(radar.set("StaggeredPRFDelay", 7), 0);
  ASSERT_EQ(radar.set("SDCT", 3), 0);
  ASSERT_EQ(radar.set("SDMT", 5), 0);
  ASSERT_EQ(radar.set("SDFT", 9), 0);
  EXPECT_NEAR(delay(), 73.5e-9, 1e-14) << "the fine chain is not counted";
  ASSERT_EQ(radar.set("FrameOffsetUseDelayedClock", 0), 0);
  EXPECT_NEAR(delay(), 3.5e-9, 1e-15);
  ASSERT_EQ(radar.set("SDCT", 63), 0);
  ASSERT_EQ(radar.set("SDMT", 0), 0);
  EXPECT_NEAR(delay(), 63e-9, 1e-13);
  uint64_t slot = 0;
  ASSERT_EQ(varGetValue_ByName(radar.variables(), "FrameOffsetDelayTime_LiveRead", &slot), 0);
  EXPECT_EQ(bitsToDouble(slot), delay());
}

TEST_F(DelayConversion, TheSampleDelayReachesTheChainsThroughTheirAutomaticValues) {
  calibrate();
  ASSERT_EQ(radar.setReal("SampleDelay", 35.78e-9), 0);
  EXPECT_EQ(radar.get("StaggeredPRFDelay"), 3);
  EXPECT_EQ(radar.get("SDCT"), 5);
  EXPECT_EQ(radar.get("SDMT"), 8);
  EXPECT_EQ(radar.get("SDFT"), 0);
  EXPECT_EQ(radar.registers[0x6b], 5u);
  EXPECT_EQ(radar.registers[0x6c], 8u);
  EXPECT_EQ(radar.registers[0x62], 3u);
}

TEST_F(DelayConversion, AHandleThatIsNotTheOpenOneCountsAsUncalibrated) {
  calibrate();
  setAverages(2e-9, 100e-12, 10e-12);
  ChipHandle *chip = radar.handle.chip;
  radar.handle.chip = nullptr;
  EXPECT_EQ(QTX3701_measurementGetFrameOffsetCoarseTune(chip->variables, 5.5e-9f), 2);
  EXPECT_EQ(QTX3701_measurementGetDelayToFrameOffset(chip->variables), 0.0f);
  radar.handle.chip = chip;
}
