#include "geometry.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "number.h"

namespace tool {

Timing sweepTiming(const Radar &radar) {
  Timing timing;
  const double step = std::max(1.0, radar.number("DACStepFine"));
  const bool every_pulse = radar.whole("SampleEveryPulse") == 1;
  timing.clock =
      radar.number("MClkEnable") > 0 ? radar.number("ClockFrequency") / std::exp2(radar.number("MClkDiv")) : 0;
  timing.divide = every_pulse ? 1 : std::max(1.0, radar.number("PRFDivide"));
  timing.steps = std::floor(std::max(0.0, radar.number("DACMax") - radar.number("DACMin")) / step) + 1;
  timing.pulses = radar.number("PulsesPerStep");
  timing.iterations = radar.number("Iterations");
  timing.per_iteration =
      radar.number("DACFirstStepSetupTime") + radar.number("DACLastStepHoldTime") +
      (timing.steps - 1) * (radar.number("DACRegularStepSetupTime") + radar.number("DACRegularStepHoldTime"));
  timing.per_sweep = radar.number("DACFirstIterationSetupTime") + radar.number("DACLastIterationHoldTime");
  return timing;
}

Geometry frameGeometry(const Radar &radar) {
  Geometry geometry{};
  geometry.size = sizeof(QTX_FrameGeometry);
  radar.check(QTX_GetFrameGeometry(radar, &geometry));
  return geometry;
}

Strings findings(const Radar &radar) {
  const auto read = [&](char *text, int32_t size) {
    int32_t count = 0;
    return QTX_CheckSettings(radar, text, size, &count);
  };
  Strings lines = split(radar.handle().text(read), '\n');
  std::erase(lines, "");
  return lines;
}

std::vector<double> calibrationResults(const Radar &radar) {
  std::vector<double> results(579);
  radar.check(QTX_TimingMeasurementResults(radar, results.data(), static_cast<int32_t>(results.size())));
  return results;
}

double spiClock(const Radar &radar) {
  return parseNumber(radar.variable("SPIClockFrequency").text(), "Hz", "SPIClockFrequency");
}

double readOut(const Radar &radar) {
  const double sweeps = std::max(1.0, radar.number("FrameStitch"));
  return 8 * radar.number("BytesPerFrame") / sweeps / spiClock(radar);
}

double calibrationSeconds(const Radar &radar) {
  constexpr double kMedium = 63, kFine = 64, kCoarseInAPeriod = 16, kLines = 5, kAutomaticCycles = 10e6;
  const Variable cycles = radar.variable("SWMeasTargetCycles");
  const double coarse =
      radar.whole("FrameOffsetUseDelayedClock") ? kCoarseInAPeriod : radar.number("CoarseTuneMeasureMax");
  const double measurements = kMedium + coarse + kLines + (radar.whole("SDFTEnable") ? kFine : 0);
  const double clock = sweepTiming(radar).clock;
  return clock > 0 ? measurements * (cycles.automatic ? kAutomaticCycles : radar.number(cycles.name)) / clock : 0;
}

double cdfSeconds(const Radar &radar, uint32_t lines) {
  constexpr double kTransfers = 7.4e-3;  // of USB for each threshold, as measured
  Timing timing = sweepTiming(radar);
  timing.per_iteration /= timing.steps;
  timing.steps = 1;
  return lines * radar.number("CDF_SpreadingFactor") * (timing.sweep() + readOut(radar) + kTransfers);
}

double expectedNoise(double pulses, double step, double comparison) {
  return pulses > 0 ? std::sqrt(comparison * step / (std::sqrt(std::numbers::pi) * pulses)) / 81.92 : 0;
}

}  // namespace tool
