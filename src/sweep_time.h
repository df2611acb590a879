// How long a sweep takes, measured on the bridge's clock.
#pragma once

#include <cstdint>

#include "chip/sweeps.h"

namespace pulsekit {

struct SweepTime {
  uint64_t clocks = 0;  // of the SPI bus, from the start of a sweep until a status read finds it over; a little more
  uint16_t idle_status = 0;  // what the status answers when nothing sweeps
};

// Codes: 768 the status makes no sense, 1537, 1538, those of the bridge.
int32_t measureSweepTime(InterfaceHandle *bridge, const chip::SweepDriver &driver, const chip::SweepPlan &plan,
                         SweepTime &time);

}  // namespace pulsekit
