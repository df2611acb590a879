// What the settings mean for a frame (docs/choosing-settings.md has the formulas).
#pragma once

#include "radar.h"

namespace tool {

constexpr double kHalfSpeedOfLight = 299792458.0 / 2;  // metres a second, there and back

/// The settings that decide about times.
struct Timing {
  double clock = 0, divide = 1, steps = 1, pulses = 0, iterations = 0;
  double per_iteration = 0, per_sweep = 0;  ///< set-up and hold, in clock periods
  /// Seconds of one sweep.
  double sweep() const { return clock > 0 ? (per_sweep + iterations * iteration()) / clock : 0; }
  /// Clock periods of one pass through the thresholds.
  double iteration() const { return steps * pulses * divide + per_iteration; }
};
Timing sweepTiming(const Radar &radar);

struct Geometry {
  size_t samplers;
  double first_time, time_step, first_range, range_step;
  double range(size_t sampler) const { return first_range + range_step * static_cast<double>(sampler); }
};
Geometry frameGeometry(const Radar &radar);

/// Seconds that the counters of one sweep take on the bus.
double readOut(const Radar &radar);

/// The standard deviation of a value in percent, where one comparison has that many codes.
double expectedNoise(const Timing &timing, double step, double comparison);

}  // namespace tool
