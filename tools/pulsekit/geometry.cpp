#include "geometry.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "Pulsekit3_settings.h"
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
  QTX_FrameGeometry frame{};
  frame.size = sizeof frame;
  radar.check(QTX_GetFrameGeometry(radar, &frame));
  return {frame.samplers, frame.first_time, frame.time_step, frame.first_range, frame.range_step};
}

double readOut(const Radar &radar) {
  const double sweeps = std::max(1.0, radar.number("FrameStitch"));
  const double clock = parseNumber(radar.variable("SPIClockFrequency").text(), "Hz", "SPIClockFrequency");
  return 8 * radar.number("BytesPerFrame") / sweeps / clock;
}

double expectedNoise(const Timing &timing, double step, double comparison) {
  const double hits = timing.iterations * timing.pulses;
  return hits > 0 ? std::sqrt(comparison * step / (std::sqrt(std::numbers::pi) * hits)) / 81.92 : 0;
}

}  // namespace tool
