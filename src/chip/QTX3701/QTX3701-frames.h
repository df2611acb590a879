// What frame capture and the sampler CDF share. These helpers leave no trace of their own.
#pragma once

#include <cstdint>

#include "QTX3701.h"

// What one sweep yields with the settings as they stand.
struct SweepExtent {
  uint32_t samplers;
  uint32_t bytes_per_counter;
};
SweepExtent CHIP(sweepExtent)(VariableSet *set);

// The sweep pin is low while the chip sweeps. Captures go on without it.
int32_t CHIP(setSweepPin)(const ChipHandle *chip, uint32_t level);

// Ends a sweep that nobody waits for any more. Failures are ignored.
void CHIP(stopSweep)(ChipHandle *chip);

// Reads the counters of one sweep from the sampler memory.
int32_t CHIP(readCounters)(const ChipHandle *chip, SweepExtent extent, uint32_t *counters);
