// Calibration of simulated chips, each a specimen with its own delays and sampling rate.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numeric>

#include "SimulatedRadar.h"

using namespace pulsekit;
using namespace pulsekit::chip;
using simulator::ChipTruth;
using simulator::Scene;

namespace {

constexpr double kSpeedOfLight = 299'792'458;
constexpr uint64_t kSpecimens[] = {1, 2, 3, 4, 5};

// The measured frequency is a whole number of counts, so every delay is off by up to that part of itself.
constexpr double kFrequencyCounts = 211e6 * 100'000 / 100e6;
constexpr double kDelayQuantum = 1 / (211e6 * 10e6);
constexpr double kSinglePrecision = 6e-8;

double measurementError(double delay) { return delay * (1 / kFrequencyCounts + kSinglePrecision) + kDelayQuantum; }

template <typename Truth>
void expectSteps(const char *chain, const float *steps, const Truth &truth, int count, double insertion_delay) {
  double delay = insertion_delay;
  for (int i = 0; i < count; ++i) {
    const auto element = static_cast<size_t>(i);
    const double error = measurementError(delay) + measurementError(delay + truth[element]);
    EXPECT_NEAR(steps[i], truth[element], error) << chain << " element " << i;
    delay += truth[element];
  }
}

// Where a frame sees its only target, for a host that takes the first sampler to look `start` seconds after the pulse.
double findTarget(const std::vector<double> &frame, double start, double samples_per_second) {
  const simulator::Pulse pulse = simulator::pulseOf(5);
  const double middle = std::accumulate(frame.begin(), frame.end(), 0.0) / static_cast<double>(frame.size());
  double best = 0, best_match = -1e300;
  for (double range = 0.2; range < 1.4; range += 0.0002) {
    const double delay = 2 * range / kSpeedOfLight;
    double match = 0;
    for (size_t k = 0; k < frame.size(); ++k) {
      const double time = start + static_cast<double>(k) / samples_per_second;
      if (std::fabs(time - delay) < 5 * pulse.width) match += (frame[k] - middle) * pulse.at(time - delay);
    }
    if (match > best_match) {
      best_match = match;
      best = range;
    }
  }
  return best;
}

void showTarget(SimulatedRadar &radar, double range) {
  auto scene = std::make_shared<Scene>();
  scene->noise = 40;
  scene->reflectors.push_back({.range = range, .strength = 1500 * range * range});
  radar.chip->setScene(scene);
}

double rangeError(SimulatedRadar &radar, double range, const char *start) {
  return findTarget(radar.frame(), radar.real(start), radar.real("SamplesPerSecond")) - range;
}

class Calibration : public ::testing::TestWithParam<uint64_t> {
 protected:
  void SetUp() override { ASSERT_NO_FATAL_FAILURE(radar.open()); }
  SimulatedRadar radar{GetParam()};
};

}  // namespace

TEST_P(Calibration, FindsTheTruthWithinItsQuantisation) {
  ASSERT_EQ(radar.set("SDFTEnable", 1), 0);
  ASSERT_EQ(radar.act("MeasureAll"), 0) << radar.trace();
  const ChipTruth &truth = radar.chip->truth();
  const TimingRecord &record = radar.record();
  expectSteps("coarse", record.coarse_step, truth.sampler.coarse, 16, truth.insertionDelay);
  expectSteps("medium", record.medium_step, truth.sampler.medium, 63, truth.insertionDelay);
  expectSteps("fine", record.fine_step, truth.sampler.fine, 63, truth.insertionDelay);

  const double line = 257 / truth.samplesPerSecond;
  const double relative_error = measurementError(line) / line + 4 * kSinglePrecision;
  EXPECT_NEAR(record.samples_per_second / truth.samplesPerSecond, 1, relative_error);
  EXPECT_EQ(radar.real("SamplesPerSecond"), record.samples_per_second);

  const auto mean = [](const auto &elements, size_t count, double divisor) {
    return std::accumulate(elements.begin(), elements.begin() + static_cast<ptrdiff_t>(count), 0.0) / divisor;
  };
  EXPECT_NEAR(record.delay_coarse_tune / mean(truth.sampler.coarse, 16, 16), 1, 2e-5);
  EXPECT_NEAR(record.delay_medium_tune / mean(truth.sampler.medium, 63, 63), 1, 2e-5);
  EXPECT_NEAR(record.delay_fine_tune / mean(truth.sampler.fine, 63, 64), 1, 1e-3);
}

TEST_P(Calibration, MeasuresTheWholeCoarseChainWithoutTheDelayedClock) {
  ASSERT_EQ(radar.set("FrameOffsetUseDelayedClock", 0), 0);
  ASSERT_EQ(radar.act("MeasureAll"), 0) << radar.trace();
  const ChipTruth &truth = radar.chip->truth();
  expectSteps("coarse", radar.record().coarse_step, truth.sampler.coarse, 63, truth.insertionDelay);
}

// Half of the finest step in use is what remains of a wanted delay, and nothing of the sampling rate's error.
TEST_P(Calibration, PutsTheWindowWhereItIsWanted) {
  const ChipTruth &truth = radar.chip->truth();
  for (const int64_t fine_enable : {0, 1}) {
    ASSERT_EQ(radar.set("SDFTEnable", fine_enable), 0);
    ASSERT_EQ(radar.act("MeasureAll"), 0) << radar.trace();
    const double largest_medium = *std::max_element(truth.sampler.medium.begin(), truth.sampler.medium.end());
    const double largest_fine = *std::max_element(truth.sampler.fine.begin(), truth.sampler.fine.end());
    const double finest = fine_enable ? largest_fine : largest_medium;
    for (const double wanted : {0.7e-9, 3.333e-9, 9.99e-9, 12.345e-9, 47.11e-9}) {
      ASSERT_EQ(radar.setReal("SampleDelay", wanted), 0);
      EXPECT_NEAR(radar.chip->windowStart(), wanted, finest / 2 + 0.5e-12) << wanted << " with fine " << fine_enable;
    }
  }
}

TEST_P(Calibration, BringsTargetsToTheirRange) {
  const auto &medium = radar.chip->truth().sampler.medium;
  const double element = *std::max_element(medium.begin(), medium.end()) * kSpeedOfLight / 2;  // metres
  for (const double range : {0.45, 0.8, 1.15}) {
    SimulatedRadar fresh(GetParam());
    ASSERT_NO_FATAL_FAILURE(fresh.open());
    showTarget(fresh, range);
    const double before = rangeError(fresh, range, "SampleDelay");
    ASSERT_EQ(fresh.act("MeasureAll"), 0) << fresh.trace();
    const double after = rangeError(fresh, range, "SampleDelay");
    const double from_real_start = rangeError(fresh, range, "FrameOffsetDelayTime_LiveRead");
    ASSERT_EQ(fresh.set("SDMT", VAR_AUTO), 0);
    const double rounded = rangeError(fresh, range, "SampleDelay");
    std::printf(
        "specimen %u, target at %.2f m: %+.1f mm uncalibrated, %+.1f mm calibrated, %+.1f mm with the medium "
        "chain rounded, %+.1f mm from the real start\n",
        static_cast<unsigned>(GetParam()), range, before * 1e3, after * 1e3, rounded * 1e3, from_real_start * 1e3);

    // A measurement puts the medium chain back while the fine one is still on, so that it leaves the rest to that one.
    EXPECT_LT(std::fabs(after), element + 0.0004);
    EXPECT_LT(std::fabs(rounded), element / 2 + 0.0004);
    EXPECT_LT(std::fabs(from_real_start), 0.0004);
    if (range > 1) {
      EXPECT_GT(std::fabs(before), 3 * std::fabs(after)) << "calibration didn't help";
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Specimens, Calibration, ::testing::ValuesIn(kSpecimens));
