// Sweeps and sampler counters: time, mean and spread, and what interrupted sweeps leave behind.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <vector>

#include "chip/ChipTruth.h"
#include "chip_bus.h"
#include "world/Scene.h"

using namespace pulsekit::simulator;

namespace {

constexpr double kSpeedOfLight = 299792458;
constexpr uint8_t kLoadOutputBuffer = 15, kResetCounters = 17, kStartSweep = 93, kResetSweepController = 99;
constexpr unsigned kSamplers = 256;

class ChipSweep : public testing::Test {
 protected:
  void look(const Scene &scene) { bus.chip->setScene(std::make_shared<Scene>(scene)); }
  void lookAtNoise(double noise) {
    Scene scene;
    scene.noise = noise;
    look(scene);
  }

  bool sweeping() { return bus.read(0x47, 2) & 1; }

  // Until the sweep's end, to 10 us.
  double waitForSweep() {
    const uint64_t start = bus.clock.nanoseconds();
    while (sweeping()) bus.clock.advance(10'000);
    return static_cast<double>(bus.clock.nanoseconds() - start) * 1e-9;
  }

  std::vector<double> counters(unsigned samplers = kSamplers, unsigned bytes = 4) {
    bus.act(kLoadOutputBuffer);
    const std::vector<uint8_t> image = bus.memory(samplers * bytes);
    std::vector<double> values;
    for (unsigned k = 0; k < samplers; ++k) {
      uint64_t value = 0;
      for (unsigned b = bytes; b-- > 0;) value = value << 8 | image[k * bytes + b];
      values.push_back(static_cast<double>(value));
    }
    return values;
  }

  std::vector<double> sweep() {
    bus.act(kResetCounters);
    bus.act(kStartSweep);
    waitForSweep();
    return counters();
  }

  // In DAC codes, as the driver normalizes.
  std::vector<double> levels() {
    const double iterations = static_cast<double>(bus.read(0x3c, 2));
    const double pulses = static_cast<double>(bus.read(0x31, 3));
    const double step = static_cast<double>(bus.read(0x3b, 4) & 0x1FFF);
    const double least = static_cast<double>(bus.read(0x3a, 2));
    std::vector<double> values = sweep();
    for (double &value : values) value = least + value * step / (iterations * pulses);
    return values;
  }

  void setSweep(uint64_t iterations, uint64_t pulses, uint64_t least, uint64_t most, uint64_t step) {
    bus.write(0x3c, 2, iterations);
    bus.write(0x31, 3, pulses);
    bus.write(0x3a, 2, least);
    bus.write(0x39, 2, most);
    bus.write(0x3b, 4, 8 << 13 | step);
  }

  ChipBus bus{"QTX3701", 7};
};

double mean(const std::vector<double> &values) {
  double sum = 0;
  for (double value : values) sum += value;
  return sum / static_cast<double>(values.size());
}

double deviation(const std::vector<double> &values) {
  const double middle = mean(values);
  double sum = 0;
  for (double value : values) sum += (value - middle) * (value - middle);
  return std::sqrt(sum / static_cast<double>(values.size() - 1));
}

struct Setting {
  const char *why;
  uint8_t address, bytes;
  uint64_t value;
  double seconds;  // that a sweep then takes
};

// Each on top of those before.
TEST_F(ChipSweep, LastsIterationsTimesStepsTimesPulsesAndSetUp) {
  constexpr double steps = 10 * 1024;
  for (const Setting &row : {Setting{"pulses come as divided", 0x60, 1, 4, steps * (20 * 4 + 1) * 10e-9},
                             Setting{"set-up time", 0x34, 2, 100, steps * (20 * 4 + 100) * 10e-9},
                             Setting{"hold time", 0x37, 2, 50, steps * (20 * 4 + 150) * 10e-9},
                             Setting{"0 divides by 1", 0x60, 1, 0, steps * (20 + 150) * 10e-9},
                             Setting{"clock", 0x58, 5, 0xA36024 | 2 << 6, steps * (20 + 150) * 40e-9},
                             Setting{"no iteration", 0x3c, 2, 0, 0}, Setting{"", 0x3c, 2, 1, steps * 170 * 4e-9},
                             Setting{"no pulse", 0x31, 3, 0, 0}, Setting{"", 0x31, 3, 20, steps * 170 * 4e-9},
                             Setting{"one step", 0x39, 2, 0, 170 * 40e-9}, Setting{"no clock", 0x58, 5, 0xA36004, 0}}) {
    bus.write(row.address, row.bytes, row.value);
    bus.act(kResetCounters);
    bus.act(kStartSweep);
    EXPECT_EQ(sweeping(), row.seconds > 0) << row.why;
    EXPECT_NEAR(waitForSweep(), row.seconds, 20e-6 + row.seconds / 100) << row.why;
    EXPECT_EQ(counters()[0] > 0, row.seconds > 0) << row.why;
  }
  bus.write(0x58, 5, 0xA36024);
  bus.write(0x3a, 2, 1);  // above the range's end
  bus.act(kStartSweep);
  EXPECT_FALSE(sweeping());
}

// The spread of a sum of binomials: iterations * pulses * noise / (step * sqrt(pi)).
TEST_F(ChipSweep, CountersHaveTheSignalsMeanAndSpread) {
  struct Row {
    uint64_t iterations, pulses, least, most, step;
    double noise;
  };
  const Row rows[] = {
      {10, 20, 0, 8184, 8, 40},                                      // as it starts up
      {10, 20, 0, 8184, 8, 3},                                       // noise within a step
      {1, 1, 0, 8191, 1, 30},                                        // few pulses
      {1, 1, 3900, 4300, 20, 50},                                    // few steps, drawn one by one
      {100, 100, 3000, 5000, 100, 40}, {10, 20, 4080, 8184, 8, 40},  // half of the noise below the range
      {10, 20, 0, 4120, 8, 40},                                      // and above it
      {2, 5, 5000, 6000, 10, 10},      {2, 5, 1000, 2000, 10, 10},   // all above and all below
  };
  for (const Row &row : rows) {
    setSweep(row.iterations, row.pulses, row.least, row.most, row.step);
    lookAtNoise(row.noise);
    std::vector<double> all;
    for (int i = 0; i < 8; ++i)
      for (double level : levels()) all.push_back(level);
    const double trials = static_cast<double>(row.iterations * row.pulses);
    const double step = static_cast<double>(row.step);
    double level = static_cast<double>(row.least), variance = 0;
    for (uint64_t code = row.least; code <= row.most; code += row.step) {
      const double threshold = static_cast<double>(code) + step / 2;
      const double chance = 0.5 * std::erfc((threshold - kMidScale) / row.noise / std::numbers::sqrt2);
      level += chance * step;
      variance += chance * (1 - chance) * step * step / trials;
    }
    const double expected = std::sqrt(variance);
    const double count = static_cast<double>(all.size());
    EXPECT_NEAR(mean(all), level, 5 * expected / std::sqrt(count) + 0.02 * step) << row.least << " noise " << row.noise;
    EXPECT_NEAR(deviation(all), expected, 5 * expected / std::sqrt(2 * count) + 0.02 * expected)
        << row.least << " noise " << row.noise;
  }
}

TEST_F(ChipSweep, AnOverriddenDacGivesTheDistributionAtItsCodeAnOverriddenSignalAllOrNothing) {
  lookAtNoise(50);
  for (uint64_t pulses : {1, 5, 1000}) {
    setSweep(1, pulses, 0, 0, 8);
    for (double offset : {-400.0, -50.0, 0.0, 30.0}) {
      bus.write(0x51, 2, 1 << 13 | static_cast<uint64_t>(kMidScale + offset));
      const double chance = 0.5 * std::erfc(offset / 50 / std::numbers::sqrt2);
      const double trials = static_cast<double>(pulses);
      const double spread = std::sqrt(trials * chance * (1 - chance));
      const std::vector<double> counts = sweep();
      EXPECT_NEAR(mean(counts), trials * chance, 5 * spread / 16 + 1e-6) << pulses << " at " << offset;
      EXPECT_NEAR(deviation(counts), spread, spread * 5 / 16 + 1e-6) << pulses << " at " << offset;
    }
  }
  bus.write(0x51, 2, 0);
  setSweep(1, 3, 0, 99, 10);
  for (uint64_t high : {1, 0}) {
    bus.write(0x2a, 1, 8 | high << 2);
    for (double count : sweep()) ASSERT_EQ(count, high ? 30 : 0);
  }
}

TEST_F(ChipSweep, InterruptedSweepsLeaveWhatTheyCounted) {
  setSweep(100, 10, 0, 999, 10);  // 100 000 hits in about 1.1 ms
  bus.act(kStartSweep);
  bus.clock.advance(550'000);
  bus.act(kResetSweepController);
  EXPECT_FALSE(sweeping());
  const double half = counters()[0];
  EXPECT_NEAR(half, 50'000, 600);
  const std::vector<uint8_t> loaded = bus.memory(1024);
  bus.clock.advance(1'000'000);
  EXPECT_EQ(counters()[0], half) << "goes on counting after the reset";

  bus.act(kResetCounters);
  bus.act(kStartSweep);
  bus.clock.advance(550'000);
  bus.act(kStartSweep);  // anew, on top of the half
  waitForSweep();
  EXPECT_EQ(bus.memory(1024), loaded) << "only a load changes the memory";
  EXPECT_NEAR(counters()[0], 150'000, 600);

  bus.act(kResetCounters);
  bus.act(kStartSweep);
  bus.clock.advance(550'000);
  bus.act(kResetCounters);
  waitForSweep();
  EXPECT_NEAR(counters()[0], 50'000, 600) << "hits before the reset count";
}

TEST_F(ChipSweep, ASceneThatChangesInMidSweepCountsForItsShare) {
  lookAtNoise(10);
  setSweep(100, 10, 0, 8184, 8);
  bus.act(kResetCounters);
  bus.act(kStartSweep);
  bus.clock.advance(100 * 1024 * 110 / 4);
  Scene scene;
  scene.directCoupling = 2000;
  look(scene);
  waitForSweep();
  EXPECT_NEAR(counters()[0] * 8 / 1000, kMidScale + 0.75 * 2000, 5);
}

// An upward iteration meets the low thresholds first, a downward one the high ones.
TEST_F(ChipSweep, EveryOtherIterationTurnsAround) {
  lookAtNoise(0);
  setSweep(2, 10, 0, 8184, 8);
  for (uint64_t turns : {0, 1}) {
    bus.write(0x38, 1, turns);
    bus.act(kResetCounters);
    bus.act(kStartSweep);
    bus.clock.advance(2 * 1024 * 11 * 10 * 3 / 4);
    EXPECT_NEAR(counters()[0], turns ? 5120 : 5120 + 5120, 120) << turns;
    waitForSweep();
    EXPECT_EQ(counters()[0], 2 * 5120) << "loading in mid-sweep disturbed it";
  }
}

TEST_F(ChipSweep, CounterBitsAndDownsamplingShapeTheMemory) {
  Scene scene;
  scene.reflectors.push_back({.range = 0.5, .strength = 200});
  look(scene);
  setSweep(10, 20, 0, 8184, 8);
  const std::vector<double> full = sweep();
  bus.write(0x21, 2, 31 << 7 | 2);
  const std::vector<double> quarter = counters(64);
  for (unsigned k = 0; k < 64; ++k) ASSERT_EQ(quarter[k], full[4 * k]);
  EXPECT_EQ(bus.memory(260)[256], 0) << "past the last sampler";

  bus.write(0x21, 2, 19 << 7 | 4 << 2);  // bits 19 to 4 in two bytes
  const std::vector<double> middle = counters(kSamplers, 2);
  for (unsigned k = 0; k < kSamplers; ++k) ASSERT_EQ(middle[k], std::floor(full[k] / 16));
  bus.write(0x21, 2, 9 << 7);  // wraps past bit 9
  const std::vector<double> low = counters(kSamplers, 2);
  for (unsigned k = 0; k < kSamplers; ++k) ASSERT_EQ(low[k], std::fmod(full[k], 1024));
  bus.write(0x21, 2, 3 << 7 | 9 << 2);  // upside down
  for (double count : counters(kSamplers, 1)) ASSERT_EQ(count, 0);
}

class ChipEcho : public ChipSweep {
 protected:
  // Where the centre of an echo lies, from the window's start on, in true samples.
  double centreOfEcho() {
    const std::vector<double> frame = levels();
    double weights = 0, sum = 0;
    for (size_t k = 0; k < frame.size(); ++k) {
      const double power = (frame[k] - kMidScale) * (frame[k] - kMidScale);
      weights += power;
      sum += power * static_cast<double>(k);
    }
    return sum / weights;
  }

  double sampleOf(double range) {
    return (2 * range / kSpeedOfLight - bus.chip->windowStart()) * bus.chip->truth().samplesPerSecond;
  }
};

TEST_F(ChipEcho, ReflectorsAppearAtTheirRangeWithTheirStrength) {
  for (double range : {0.3, 0.5, 0.8}) {
    Scene scene;
    scene.noise = 1;
    scene.reflectors.push_back({.range = range, .strength = 100});
    look(scene);
    EXPECT_NEAR(centreOfEcho(), sampleOf(range), 0.5) << range;
    double peak = 0;
    for (double level : levels()) peak = std::max(peak, level - kMidScale);
    EXPECT_LT(peak, 100 / (range * range) * 1.02);
    EXPECT_GT(peak, 100 / (range * range) * 0.80);  // between two samples of a 7.25 GHz carrier
  }
}

TEST_F(ChipEcho, DelaySettingsMoveTheWindowByTheirElements) {
  Scene scene;
  scene.noise = 1;
  scene.reflectors.push_back({.range = 0.8, .strength = 100});
  look(scene);
  const ChipTruth &truth = bus.chip->truth();
  const double before = centreOfEcho();

  bus.write(0x6b, 1, 2);
  bus.write(0x6c, 1, 10);
  double moved = truth.sampler.coarse[0] + truth.sampler.coarse[1];
  for (size_t i = 0; i < 10; ++i) moved += truth.sampler.medium[i];
  EXPECT_DOUBLE_EQ(bus.chip->windowStart(), moved);
  EXPECT_NEAR(centreOfEcho(), before - moved * truth.samplesPerSecond, 0.5);

  bus.write(0x6d, 8, 3);
  EXPECT_DOUBLE_EQ(bus.chip->windowStart(), moved) << "the fine chain is off";
  bus.write(0x6a, 1, 1 << 2);
  moved += truth.sampler.fine[0] + truth.sampler.fine[1] + truth.sampler.fine[2];
  EXPECT_NEAR(bus.chip->windowStart(), moved, 1e-18);

  bus.write(0x6e, 1, 1);  // a later pulse brings the window forward
  EXPECT_NEAR(bus.chip->windowStart(), moved - truth.sendPulse.coarse[0], 1e-18);
  bus.write(0x6e, 1, 0);
  bus.write(0x62, 1, 2);  // master-clock periods
  EXPECT_NEAR(bus.chip->windowStart(), moved + 20e-9, 1e-18);
  bus.write(0x61, 1, 63 << 1);
  EXPECT_NEAR(bus.chip->windowStart(), moved, 1e-18) << "not staggered";
}

TEST_F(ChipEcho, MotionFollowsTheClock) {
  Scene scene;
  scene.noise = 1;
  scene.reflectors.push_back({.range = 0.5, .strength = 50, .motion = Reflector::Motion::speed, .speed = 0.1});
  look(scene);
  EXPECT_NEAR(centreOfEcho(), sampleOf(0.5), 0.5);
  bus.clock.advance(2'000'000'000);
  EXPECT_NEAR(centreOfEcho(), sampleOf(0.7), 0.5);
  look(scene);
  EXPECT_NEAR(centreOfEcho(), sampleOf(0.5), 0.5) << "a new scene begins anew";

  scene.reflectors[0] = {
      .range = 0.5, .strength = 50, .motion = Reflector::Motion::breathing, .amplitude = 0.1, .rate = 0.25};
  look(scene);
  bus.clock.advance(1'000'000'000);
  EXPECT_NEAR(centreOfEcho(), sampleOf(0.6), 0.5);
  bus.clock.advance(2'000'000'000);
  EXPECT_NEAR(centreOfEcho(), sampleOf(0.4), 0.5);
}

TEST_F(ChipEcho, ASlowerSenderIsSeenOnlyInItsShareOfThePulses) {
  Scene scene;
  scene.directCoupling = 800;
  look(scene);
  EXPECT_NEAR(levels()[100], kMidScale, 4) << "coupling sits at range 0";
  bus.write(0x60, 1, 4);
  bus.write(0x26, 1, 1);  // sample every pulse
  EXPECT_NEAR(levels()[0], kMidScale + 200, 4);
  bus.write(0x50, 1, 1 << 4 | 5);  // send every pulse
  EXPECT_NEAR(levels()[0], kMidScale + 800, 4);
}

TEST(ChipSpecimen, IsTheSameForTheSameSeedOnly) {
  for (uint64_t seed = 0; seed < 50; ++seed) {
    const ChipTruth truth = makeTruth(seed);
    EXPECT_EQ(truth.sampler.fine, makeTruth(seed).sampler.fine);
    EXPECT_NE(truth.sampler.fine, makeTruth(seed + 1).sampler.fine);
    const double error = std::fabs(truth.samplesPerSecond / 36e9 - 1);
    EXPECT_GE(error, 0.02);
    EXPECT_LE(error, 0.04);
    for (double element : truth.sampler.coarse) EXPECT_NEAR(element, 1.25e-9, 0.085 * 1.25e-9);
    for (double element : truth.sampler.medium) EXPECT_NEAR(element, 42e-12, 0.14 * 42e-12);
    for (double element : truth.sampler.fine) EXPECT_NEAR(element, 1.5e-12, 0.16 * 1.5e-12);
  }
}

TEST(ChipFirstGeneration, SweepsWithItsOwnStatusBitAndBursts) {
  ChipBus bus("QTX3400");
  bus.act(kStartSweep);
  EXPECT_EQ(bus.transfer({0x47, 2}, 2), (std::vector<uint8_t>{0x80, 0x00}));
  bus.clock.advance(10'000'000);
  EXPECT_EQ(bus.transfer({0x47, 2}, 2), (std::vector<uint8_t>{0x00, 0x00}));
  bus.act(kLoadOutputBuffer);
  std::vector<uint8_t> image;
  for (uint8_t count : std::vector<uint8_t>{127, 0x80 | 127, 0x80 | 46}) {
    const std::vector<uint8_t> burst = bus.transfer({0x20, count}, count & 0x7F);
    image.insert(image.end(), burst.begin(), burst.end());
  }
  for (size_t k = 0; k < 75; ++k) {
    const double count = image[4 * k] + 256 * image[4 * k + 1] + 65536 * image[4 * k + 2];
    ASSERT_NEAR(count, 105'000, 35'000) << k;
  }
  EXPECT_EQ(bus.transfer({0x20, 4}, 4), std::vector<uint8_t>(image.begin(), image.begin() + 4)) << "starts again";
}

}  // namespace
