// The time-measurement hardware, driven as a calibration drives it.
#include <gtest/gtest.h>

#include <cmath>

#include "chip/ChipTruth.h"
#include "chip_bus.h"

using namespace pulsekit::simulator;

namespace {

constexpr uint8_t kStartMeas = 20, kCalibrateDco = 33, kFMeasClearResult = 35, kStopMeas = 76;

// Bits of register 0x58.
constexpr uint64_t kMeasClkEnable = 1 << 0, kMClkMeasMode = 1 << 1, kMeasClkFromDco = 1 << 2, kFMeasEnable = 1 << 3,
                   kTunerEnable = 1 << 4, kMClkEnable = 1 << 5, kDcoEnable = 1 << 9, kDcoOutputDiv = 1 << 19,
                   kDefaultConfig = 216 << 10, kTunerWait = 10 << 20;
constexpr uint64_t kMeasuring = kMeasClkEnable | kMClkMeasMode | kMeasClkFromDco | kFMeasEnable | kTunerEnable |
                                kMClkEnable | kDcoEnable | kDefaultConfig | kTunerWait;

constexpr double kReference = 100e6;

class ChipMeasurement : public testing::Test {
 protected:
  ChipMeasurement() {
    clocks(kMeasuring);
    frequencyCycles(100'000);
    bus.write(0x7e, 5, 10'000'000);
    bus.write(0x61, 1, 63 << 1);  // no staggering
    bus.write(0x6a, 1, 3 << 1);   // both fine chains
  }

  void clocks(uint64_t bits) { bus.write(0x58, 5, bits); }
  void frequencyCycles(uint64_t cycles) { bus.write(0x59, 4, cycles); }

  // Until none of the bits is set.
  double wait(uint8_t address, uint64_t bits, uint64_t resolution = 500'000) {
    const uint64_t start = bus.clock.nanoseconds();
    while (bus.read(address, 2) & bits) bus.clock.advance(resolution);
    return static_cast<double>(bus.clock.nanoseconds() - start) * 1e-9;
  }

  double tune(double frequency) {
    const double cycles = static_cast<double>(bus.read(0x59, 4));
    bus.write(0x5a, 4, static_cast<uint64_t>(frequency * cycles / kReference));
    bus.act(kCalibrateDco);
    const double seconds = wait(0x5c, 2);
    const bool tuning = bus.read(0x58, 5) & kTunerEnable;
    EXPECT_NEAR(seconds, tuning ? 10e-3 : 1e-3, 0.6e-3);
    return measuredFrequency();
  }

  double measuredFrequency() {
    return static_cast<double>(bus.read(0x5b, 4)) * kReference / static_cast<double>(bus.read(0x59, 4));
  }

  void measure() {
    bus.act(kFMeasClearResult);
    bus.act(kStartMeas);
    wait(0x7f, 1);
    wait(0x5c, 1);
  }

  // As the driver computes a delay.
  double delay(uint8_t result) {
    return static_cast<double>(bus.read(result, 5)) / (measuredFrequency() * static_cast<double>(bus.read(0x7d, 5)));
  }
  double samplerDelay() {
    measure();
    return delay(0x79);
  }

  ChipBus bus{"QTX3701", 42};
  const ChipTruth &truth = bus.chip->truth();
};

// One count in the chain's result, and the reference's resolution of the clock's frequency.
constexpr double kQuantum = 1 / (211e6 * 10e6) + 30e-9 * 10e-6;

TEST_F(ChipMeasurement, TunesTheOscillatorToTheNearestStep) {
  for (double target : {80e6, 211e6, 380e6}) {
    const double found = tune(target);
    EXPECT_NEAR(found, target, 0.36e6 * truth.oscillatorSpeed + 1000);
    const auto configuration = static_cast<unsigned>(bus.read(0x5c, 2) >> 2);
    EXPECT_NEAR(found, truth.oscillatorFrequency(configuration), 1000);
  }
  EXPECT_NEAR(tune(1e9), truth.oscillatorFrequency(511), 1000) << "as fast as it goes";
}

TEST_F(ChipMeasurement, CalibratingMeasuresTheFrequencyWhateverElseIsOff) {
  clocks(kDcoEnable | kTunerEnable | kDefaultConfig);
  EXPECT_NEAR(tune(211e6), 211e6, 0.4e6);
  clocks(kDcoEnable | kDefaultConfig);  // no tuner: the configured frequency
  EXPECT_NEAR(tune(300e6), truth.oscillatorFrequency(216), 1000);
  clocks(kDcoEnable | kDefaultConfig | kDcoOutputDiv);
  EXPECT_NEAR(tune(300e6), truth.oscillatorFrequency(216) / 2, 1000);
}

TEST_F(ChipMeasurement, EveryElementOfTheSamplerChainIsFoundWithinQuantisation) {
  tune(211e6);
  const auto check = [&](uint8_t address, uint8_t bytes, auto &elements, size_t count) {
    double before = samplerDelay();
    for (size_t i = 0; i < count; ++i) {
      bus.write(address, bytes, i + 1);
      const double after = samplerDelay();
      ASSERT_NEAR(after - before, elements[i], 2 * kQuantum) << "register " << int{address} << " element " << i;
      before = after;
    }
    bus.write(address, bytes, 0);
  };
  check(0x6b, 1, truth.sampler.coarse, 16);
  check(0x6c, 1, truth.sampler.medium, 63);
  check(0x6d, 8, truth.sampler.fine, 63);
}

TEST_F(ChipMeasurement, EveryChainAndTheLineHaveTheirOwnResults) {
  tune(211e6);
  measure();
  EXPECT_EQ(bus.read(0x78, 5), 0u) << "the line is not enabled";
  const double before = delay(0x7a);
  EXPECT_NEAR(delay(0x77), truth.pulseGeneratorDelay, kQuantum);
  bus.write(0x6e, 1, 1);
  measure();
  EXPECT_NEAR(delay(0x7a) - before, truth.sendPulse.coarse[0], 2 * kQuantum);
  bus.write(0x7c, 2, 30 << 3 | 1 << 2 | 1);
  measure();
  EXPECT_NEAR(delay(0x78), 257 / truth.samplesPerSecond, kQuantum);
}

TEST_F(ChipMeasurement, LastsItsCyclesAndHoldsTheResultsBackUntilThen) {
  bus.act(kStartMeas);
  EXPECT_EQ(bus.read(0x5c, 2) & 1, 1u);
  EXPECT_EQ(bus.read(0x5b, 4), 0u);
  EXPECT_NEAR(wait(0x5c, 1, 1000), 1e-3, 2e-6);
  EXPECT_NE(bus.read(0x5b, 4), 0u);
  EXPECT_EQ(bus.read(0x7f, 1), 1u);
  EXPECT_EQ(bus.read(0x7d, 5), 0u);
  EXPECT_NEAR(wait(0x7f, 1, 1000), 99e-3, 3e-6);
  EXPECT_EQ(bus.read(0x7d, 5), 10'000'000u);
}

TEST_F(ChipMeasurement, StoppingKeepsWhatWasCounted) {
  bus.act(kStartMeas);
  wait(0x5c, 1);
  bus.clock.advance(9'000'000);
  bus.act(kStopMeas);
  EXPECT_EQ(bus.read(0x7f, 1), 0u);
  const double cycles = static_cast<double>(bus.read(0x7d, 5));
  EXPECT_NEAR(cycles, 1e6, 1000);
  EXPECT_NEAR(delay(0x79), truth.insertionDelay, 1 / (211e6 * 1e6) + 30e-9 * 10e-6);
  bus.clock.advance(200'000'000);
  EXPECT_EQ(static_cast<double>(bus.read(0x7d, 5)), cycles) << "went on";
  bus.act(kStopMeas);
  EXPECT_EQ(static_cast<double>(bus.read(0x7d, 5)), cycles) << "nothing left to stop";
  bus.act(kStartMeas);
  bus.act(kFMeasClearResult);
  EXPECT_EQ(bus.read(0x5c, 2) & 1, 0u);
  bus.clock.advance(200'000'000);
  EXPECT_EQ(bus.read(0x5b, 4), 0u) << "the cleared frequency came back";
}

TEST_F(ChipMeasurement, TheReferenceItselfCanMeasure) {
  clocks(kMeasuring & ~kMeasClkFromDco);
  measure();
  EXPECT_EQ(measuredFrequency(), kReference);
  EXPECT_NEAR(delay(0x79), truth.insertionDelay, 2 / (kReference * 10e6));
}

TEST_F(ChipMeasurement, NothingRunsOnAStoppedClock) {
  struct Row {
    const char *why;
    uint64_t off;
  };
  for (const Row &row : {Row{"master clock", kMClkEnable}, Row{"oscillator", kDcoEnable},
                         Row{"measurement clock", kMeasClkEnable}, Row{"mode", kMClkMeasMode}}) {
    measure();
    clocks(kMeasuring & ~row.off);
    bus.act(kFMeasClearResult);
    bus.act(kStartMeas);
    EXPECT_EQ(bus.read(0x7f, 1), 0u) << row.why;
    bus.clock.advance(200'000'000);
    EXPECT_EQ(bus.read(0x79, 5), 0u) << row.why;
    EXPECT_EQ(bus.read(0x7d, 5), 0u) << row.why;
    clocks(kMeasuring);
  }
  clocks(kMeasuring & ~kDcoEnable);
  bus.act(kCalibrateDco);
  EXPECT_EQ(bus.read(0x5c, 2) & 3, 0u);
  EXPECT_EQ(bus.read(0x5b, 4), 0u);

  clocks(kMeasuring);
  bus.chip->setReferenceClock(0);
  for (uint8_t action : {kCalibrateDco, kStartMeas}) {
    bus.act(action);
    EXPECT_EQ(bus.read(0x5c, 2) & 3, 0u);
    EXPECT_EQ(bus.read(0x7f, 1), 0u);
  }
}

}  // namespace
