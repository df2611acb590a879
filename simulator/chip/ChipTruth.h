// What one chip really is, as its calibration should find it.
#pragma once

#include <array>
#include <cstdint>

namespace pulsekit::simulator {

// One chain of delay elements; a setting of n passes the signal through the first n of a grain.
struct DelayChain {
  std::array<double, 63> coarse, medium;  // seconds each
  std::array<double, 64> fine;

  double delay(uint64_t coarseSetting, uint64_t mediumSetting, uint64_t fineSetting) const;
};

struct ChipTruth {
  double samplesPerSecond;
  DelayChain sampler, sendPulse;
  double insertionDelay;       // of either chain with all settings 0, seconds
  double pulseGeneratorDelay;  // seconds
  double oscillatorSpeed;      // of the DCO, as a part of nominal

  double oscillatorFrequency(unsigned configuration) const;  // hertz, 0 to 511
};

// The spread of one specimen; the same seed gives the same specimen.
ChipTruth makeTruth(uint64_t seed);

}  // namespace pulsekit::simulator
