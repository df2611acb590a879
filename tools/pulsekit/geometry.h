// What the settings mean for a frame (docs/choosing-settings.md has the formulas).
#pragma once

#include "Pulsekit3_settings.h"
#include "radar.h"

namespace tool {

constexpr double kHalfSpeedOfLight = 299792458.0 / 2;  // metres a second, there and back

/// What a sweep would take with settings that are being thought about.
struct Timing {
  double clock = 0, divide = 1, steps = 1, pulses = 0, iterations = 0;
  double per_iteration = 0, per_sweep = 0;  ///< set-up and hold, in clock periods
  /// Seconds of one sweep.
  double sweep() const { return clock > 0 ? (per_sweep + iterations * iteration()) / clock : 0; }
  /// Clock periods of one pass through the thresholds.
  double iteration() const { return steps * pulses * divide + per_iteration; }
  double pulsesAtEachStep() const { return iterations * pulses; }
};
Timing sweepTiming(const Radar &radar);

struct Geometry : QTX_FrameGeometry {
  double range(size_t sampler) const { return first_range + range_step * static_cast<double>(sampler); }
};
Geometry frameGeometry(const Radar &radar);

/// The settings that can't give a good frame: "<name>: <what is wrong>: <remedy>".
Strings findings(const Radar &radar);

/// What the calibration has measured, as QTX_TimingMeasurementResults lays it out; 0 where nothing was.
std::vector<double> calibrationResults(const Radar &radar);

/// Hertz of the SPI bus.
double spiClock(const Radar &radar);

/// How long a calibration is going to take, and a CDF of so many thresholds.
double calibrationSeconds(const Radar &radar);
double cdfSeconds(const Radar &radar, uint32_t lines);

/// Seconds that the counters of one sweep take on the bus.
double readOut(const Radar &radar);

/// The standard deviation of a value in percent, of so many pulses at each threshold, where one comparison has that
/// many codes.
double expectedNoise(double pulses, double step, double comparison);

}  // namespace tool
