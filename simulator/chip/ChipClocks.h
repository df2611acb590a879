// The clocks of a simulated chip and its delay settings, as its registers set them.
#pragma once

#include <cstdint>

#include "chip/ChipTruth.h"
#include "chip/RegisterFile.h"

namespace pulsekit::simulator {

// 0 stands for a clock that does not run.
struct ChipClocks {
  const RegisterFile &registers;
  const ChipTruth &truth;
  double reference;  // hertz, at the chip's clock input
  uint64_t now;

  double oscillator() const;   // of the DCO, hertz
  double master() const;       // hertz
  double measurement() const;  // hertz

  // Seconds that the sampling window starts after the pulse, and what the two chains put in their signals' way.
  double windowStart() const;
  double samplerDelay() const;
  double sendPulseDelay() const;
};

}  // namespace pulsekit::simulator
