// What the boards have in common: their handle, their pins, their way to the bridge. For the layer and its drivers.
#pragma once

#include <cstdint>

#include "../../interface/interface.h"
#include "../../support/trace.h"
#include "../module.h"

namespace pulsekit {

constexpr uint32_t kFlashChannel = 1;

// Pin identifiers of one family of boards.
struct BoardPins {
  uint32_t power;         // high: on
  uint32_t flash_select;  // chip select of the flash, idle high
  uint32_t clock_select;  // low: the board's own clock, high: an external one
  uint32_t clock_idle;    // the line of the clock output, idle low
  uint32_t clock_output;
  uint32_t power_up_ms;  // pause behind switching the power on
};

constexpr BoardPins kPinsOfK2x5{1107, 1106, 1105, 1100, 1109, 5};
constexpr BoardPins kPinsOfK265{1207, 1206, 1205, 1200, 1209, 30};
constexpr uint32_t kSweepPin = 500;  // low while a sweep runs

// Creates a handle with its error record and no operations. Codes: 7.
int32_t createBoardHandle(ModuleHandle **out, QTX_StackTrace **error_state, QTX_Handle *owner, const char *driver_name);
// Frees the handle, the record too when one is given, and clears the slot; the variables are the driver's.
void freeBoardHandle(ModuleHandle **module, QTX_StackTrace **error_state_or_null);

// The bridge that the board hangs on. Codes: 269, 1025 without an owner; no trace.
int32_t findBridge(const QTX_Handle *owner, InterfaceHandle **bridge);

// Runs operation(bridge) with the bridge's lock held; a failure is traced at `at`. A handle without a driver lacks the
// slot that the operation needs: 269.
template <typename Slot, typename Operation>
int32_t onBridge(const QTX_Handle *owner, QTX_StackTrace *record, TracePoint at, Slot InterfaceHandle::*needed,
                 Operation operation) {
  InterfaceHandle *bridge = nullptr;
  if (int32_t code = findBridge(owner, &bridge)) return origin(record, at, code);
  if (!(bridge->*needed)) return origin(record, at, kInterfaceNotInitialized);
  const InterfaceLock lock(bridge);
  if (int32_t code = operation(bridge)) return passThrough(record, at, code);
  return kSuccess;
}

template <typename Slot, typename Operation>
int32_t onBridge(const ModuleHandle &module, TracePoint at, Slot InterfaceHandle::*needed, Operation operation) {
  return onBridge(module.owner, module.error_state, at, needed, operation);
}

enum class OnFailure { kStop, kGoOn };

// Drives the pins of a board in the order of its power-up. The code is that of the last call made.
int32_t powerUp(InterfaceHandle *bridge, const BoardPins &pins, OnFailure on_failure);

// The board-information record in the OTP register; a length beyond the limits is cut.
int32_t readBoardInfo(InterfaceHandle *bridge, uint8_t *buffer, int32_t length);
int32_t programBoardInfo(InterfaceHandle *bridge, const uint8_t *buffer, int32_t length);

}  // namespace pulsekit
