// What the exported functions share: the checks that open each of them, lookup of names across the layers of an open
// radar, connection strings, and texts in buffers of the host.
#pragma once

#include <cstdint>
#include <string_view>

#include "../chip/chip.h"
#include "../interface/interface.h"
#include "../module/module.h"
#include "QTX_Handle.h"
#include "trace.h"
#include "vars.h"

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

// The code that the handle's record holds after a failure with this code.
int32_t recordedCode(const QTX_Handle *handle, int32_t code);

// ---- Lookup: the chip first, then the module, then the interface ----

// 1283 with the name as detail.
int32_t findVariable_ByName(QTX_Handle *handle, const char *name, Variable **variable, VariableSet **set);
// 1284 with the name as detail.
int32_t findAction_ByName(QTX_Handle *handle, const char *name, VarAction **action, VariableSet **set);

// ---- Connection strings ----

// Fills the record from "<interface>!<device>!<module>!<chip>"; every field is cut at its capacity. With fewer fields
// the last one is the chip name. Returns 1 for a text without '!' or with more than four fields, else 0.
int32_t connectionStringToConnectionInfo(const char *text, ConnectionInfo *info);

// Cut at the capacity, without a terminator when it is reached.
void storeConnectionString(QTX_Handle *handle, const char *text);

// ---- Texts ----

// A text that grows in a buffer of the host. A text exactly as long as the buffer fills it without a terminator.
class TextBuffer {
 public:
  TextBuffer(char *buffer, int64_t size);
  bool empty() const { return length_ == 0; }
  // False, and a terminated text, when the addition does not fit.
  bool append(std::string_view addition);

 private:
  char *buffer_;
  int64_t size_;
  int64_t length_ = 0;
};

}  // namespace pulsekit
