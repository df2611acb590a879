// What the exported functions share: the checks that open each of them, and the lookup of names across the layers of an
// open radar.
#pragma once

#include <cstdint>

#include "chip/chip.h"
#include "interface/interface.h"
#include "module/module.h"
#include "support/Pulsekit3_helpers.h"
#include "support/QTX_Handle.h"
#include "support/handle_state.h"
#include "support/trace.h"
#include "support/vars.h"

namespace pulsekit {

// ---- Checks: first the handle and the arguments, then the layer and its operation. A failure is recorded. ----

// 1025 without a handle, 1 when an argument is null.
template <typename... Pointers>
int32_t checkCall(const QTX_Handle *handle, TracePoint at, Pointers... arguments) {
  if (!handle) return kRadarNotInitialized;
  if (!((arguments != nullptr) && ...)) return origin(handle->error, at, kError);
  return kSuccess;
}

// 770 without a chip that has the operation.
template <typename Operation>
int32_t checkChip(const QTX_Handle *handle, TracePoint at, Operation ChipOperations::*operation) {
  if (handle->chip && handle->chip->operations.*operation) return kSuccess;
  return origin(handle->error, at, kChipNotInitialized);
}

// 514 without a module that has the operation.
template <typename Operation>
int32_t checkModule(const QTX_Handle *handle, TracePoint at, Operation ModuleHandle::*operation) {
  if (handle->module && handle->module->*operation) return kSuccess;
  return origin(handle->error, at, kModuleNotInitialized);
}

// 269 without an interface that has the operation.
template <typename Operation>
int32_t checkInterface(const QTX_Handle *handle, TracePoint at, Operation InterfaceHandle::*operation) {
  if (handle->interface_handle && handle->interface_handle->*operation) return kSuccess;
  return origin(handle->error, at, kInterfaceNotInitialized);
}

// 1540 while a stream runs.
inline int32_t checkNoStream(const QTX_Handle *handle, TracePoint at) {
  const HandleState *state = stateOf(handle);
  return state && state->stream ? origin(handle->error, at, kStreamRunning) : int32_t{kSuccess};
}

// The code that the handle's record holds after a failure with this code.
inline int32_t recordedCode(const QTX_Handle *handle, int32_t code) {
  return handle->error && handle->error->code != kSuccess ? handle->error->code : code;
}

// ---- Lookup: the chip first, then the module, then the interface ----

inline LookupOrder lookupOrder(const QTX_Handle *handle) {
  return {handle->chip ? handle->chip->variables : nullptr, handle->module ? handle->module->variables : nullptr,
          handle->interface_handle ? handle->interface_handle->variables : nullptr};
}

// 1283 with the name as detail.
inline int32_t findVariable_ByName(QTX_Handle *handle, const char *name, Variable **variable, VariableSet **set) {
  return findVariable_ByName(lookupOrder(handle), handle->error, name, variable, set);
}

// 1284 with the name as detail.
inline int32_t findAction_ByName(QTX_Handle *handle, const char *name, VarAction **action, VariableSet **set) {
  return findAction_ByName(lookupOrder(handle), handle->error, name, action, set);
}

}  // namespace pulsekit
