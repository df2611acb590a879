// One sweep of the threshold DAC, and how often each sampler's signal is above it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "base/Random.h"
#include "chip/ChipClocks.h"

namespace pulsekit::simulator {

// What the registers ask for when a sweep starts.
struct SweepSettings {
  double iterations, pulsesPerStep, steps;
  double dacMin, dacStep;
  bool turnsAround;                      // every other iteration steps downwards
  std::optional<double> fixedThreshold;  // the DAC does not follow the steps
  std::optional<bool> fixedComparator;   // nor the comparators the signal
  double signalShare;                    // part of the sampled pulses that were sent
  double seconds;                        // that it lasts; 0 where it cannot run
};

SweepSettings readSweepSettings(const ChipClocks &clocks);

// Some steps of as many iterations, each the same.
struct SweepPart {
  double iterations, firstStep, endStep;
};

// How often a signal of this mean level and noise is above the threshold in a part of a sweep.
double drawHits(const SweepSettings &settings, const SweepPart &part, double level, double noise, Random &random);

class Sweep {
 public:
  Sweep(const SweepSettings &settings, uint64_t start);

  const SweepSettings &settings() const { return settings_; }
  uint64_t end() const { return end_; }

  // The steps done since the last call, and the time in their middle.
  std::vector<SweepPart> advance(uint64_t now, uint64_t &middle);

 private:
  double stepsDoneAt(uint64_t now) const;
  void appendSteps(double iteration, double first, double last, std::vector<SweepPart> &parts) const;

  SweepSettings settings_;
  uint64_t start_, end_;
  double done_ = 0;
};

}  // namespace pulsekit::simulator
