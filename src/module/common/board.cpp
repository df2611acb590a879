#include "board.h"

#include <algorithm>
#include <memory>
#include <new>

#include "../../support/QTX_Handle.h"
#include "../../support/own_records.h"
#include "serialFlash.h"

namespace pulsekit {

int32_t createBoardHandle(ModuleHandle **out, QTX_StackTrace **error_state, QTX_Handle *owner,
                          const char *driver_name) {
  *out = nullptr;
  std::unique_ptr<ModuleHandle> handle(new (std::nothrow) ModuleHandle{});
  if (!handle || !addOwnRecord(handle.get())) return kOutOfMemory;
  *out = handle.release();
  ModuleHandle &module = **out;
  module.driver_name = driver_name;
  module.owner = owner;
  module.owns_error_state = error_state == nullptr;
  QTX_StackTraceInit(&module.error_state, error_state);
  return kSuccess;
}

void freeBoardHandle(ModuleHandle **module, QTX_StackTrace **error_state_or_null) {
  ModuleHandle *handle = *module;
  const bool ours = isOwnRecord(handle);
  const bool given = error_state_or_null && *error_state_or_null == handle->error_state;
  if (ours && handle->owns_error_state && !given) QTX_StackTraceFree(&handle->error_state);
  if (error_state_or_null) QTX_StackTraceFree(error_state_or_null);
  *module = nullptr;
  if (!ours) return;
  removeOwnRecord(handle);
  delete handle;
}

int32_t findBridge(const QTX_Handle *owner, InterfaceHandle **bridge) {
  if (!owner) return kRadarNotInitialized;
  *bridge = owner->interface_handle;
  return *bridge ? kSuccess : kInterfaceNotInitialized;
}

int32_t powerUp(InterfaceHandle *bridge, const BoardPins &pins, OnFailure on_failure) {
  constexpr uint32_t kOutput = 1;
  const struct {
    uint32_t pin, level, pause_ms;
  } steps[] = {{pins.power, 1, pins.power_up_ms},
               {pins.flash_select, 1, 0},
               {pins.clock_select, 0, 0},
               {pins.clock_idle, 0, 0},
               {kSweepPin, 1, 0}};

  int32_t code = kSuccess;
  for (const auto &step : steps) {
    code = bridge->SetIO_Direction(bridge, step.pin, kOutput, step.level);
    if (code && on_failure == OnFailure::kStop) return code;
    if (step.pause_ms > 0) QTX_sleep_ms(step.pause_ms);
  }
  return code;
}

int32_t readBoardInfo(InterfaceHandle *bridge, uint8_t *buffer, int32_t length) {
  constexpr int32_t kLimit = 128;
  return sflashReadOtpRegister(bridge, kFlashChannel, 0, buffer, std::min(length, kLimit));
}

int32_t programBoardInfo(InterfaceHandle *bridge, const uint8_t *buffer, int32_t length) {
  constexpr int32_t kLimit = 64;
  // A negative length stays beyond every limit.
  const uint32_t count = static_cast<uint32_t>(std::min(length, kLimit));
  return sflashProgramOtpRegister(bridge, kFlashChannel, 0, buffer, count);
}

}  // namespace pulsekit
