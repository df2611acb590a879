// Faults of the first bridge of the bench, of every kind that can be scheduled.
#pragma once

#include "Pulsekit3Simulator.h"

namespace pulsekit::test {

constexpr uint32_t kFaults = 8;

// `lost` and `corrupted` answer bytes from now.
inline void makeFault(uint32_t kind, uint32_t nth, uint32_t lost, uint32_t corrupted) {
  const uint8_t surplus[] = {0, 0x55, 0};
  const char *const calls[] = {"Write", "Read", "GetQueueStatus"};
  if (kind == 0) QTXSim_UnplugAtCall(0, nth);
  if (kind >= 1 && kind <= 3) QTXSim_FailCall(calls[kind - 1], nth, 1, FT_IO_ERROR);
  if (kind == 4) QTXSim_ShortWrite(0, nth % 4 + 1, nth * 17);
  if (kind == 5) QTXSim_LoseAnswer(0, lost, nth % 3 + 1);
  if (kind == 6) QTXSim_CorruptAnswer(0, corrupted, 0x08);
  if (kind == 7) QTXSim_InsertAnswer(0, surplus, nth % 3 + 1);
}

}  // namespace pulsekit::test
