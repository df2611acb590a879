// Waits that end, radars that come and go.
#include "Pulsekit3_control.h"

#include <algorithm>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "calls.h"
#include "support/handle_state.h"

using namespace pulsekit;

static constexpr const char kSource[] = "src/Pulsekit3_control";

namespace {

constexpr char kForeignHandle[] = "This handle was not made by QTX_InitHandle";
constexpr uint32_t kListingPauseMs = 100;

// The bridges that are attached. One that is open elsewhere counts, but its name may be hidden meanwhile.
struct Bridges : HandlePart {
  size_t count = 0;
  std::vector<std::string> names;  // of those that the list tells, in order
};

int32_t findBridges(const QTX_Handle *handle, Bridges *bridges) {
  std::vector<PresentDevice> devices;
  if (int32_t code = interfacePresentDevices(handle->error, &devices)) return code;
  bridges->count = devices.size();
  bridges->names.clear();
  for (PresentDevice &device : devices) {
    if (!device.serial.empty()) bridges->names.push_back(std::move(device.serial));
  }
  std::sort(bridges->names.begin(), bridges->names.end());
  return kSuccess;
}

size_t namesMissingIn(const Bridges &other, const Bridges &bridges) {
  std::vector<std::string> missing;
  std::set_difference(bridges.names.begin(), bridges.names.end(), other.names.begin(), other.names.end(),
                      std::back_inserter(missing));
  return missing.size();
}

// A name that only one of the lists has may be that of a bridge without a name in the other.
bool differ(const Bridges &before, const Bridges &now) {
  return before.count != now.count || namesMissingIn(before, now) > before.count - before.names.size() ||
         namesMissingIn(now, before) > now.count - now.names.size();
}

}  // namespace

extern "C" {

int32_t QTX_Cancel(QTX_Handle *handle) { return cancelCall(handle) ? kSuccess : kRadarNotInitialized; }

int32_t QTX_SetWaitLimit(QTX_Handle *handle, int32_t ms) {
  if (int32_t code = checkCall(handle, HERE)) return code;
  HandleState *state = stateOf(handle);
  if (!state) return origin(handle->error, HERE, kRadarNotInitialized, kForeignHandle);
  if (ms < 0) return origin(handle->error, HERE, kError, "A wait limit is not negative");
  state->wait_limit_ms = ms;
  return kSuccess;
}

int32_t QTX_RadarState(QTX_Handle *handle, int32_t *state) {
  if (int32_t code = checkCall(handle, HERE, state)) return code;
  InterfaceHandle *bridge = handle->interface_handle;
  const int32_t open = interfaceAnswers(bridge) ? QTX_RADAR_OPEN : QTX_RADAR_LOST;
  *state = interfaceHasDevice(bridge) ? open : QTX_RADAR_CLOSED;
  return kSuccess;
}

int32_t QTX_WaitForRadarChange(QTX_Handle *handle, int32_t timeout_ms) try {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE)) return code;
  HandleState *state = stateOf(handle);
  if (!state) return origin(handle->error, HERE, kRadarNotInitialized, kForeignHandle);
  Deadline deadline = timeout_ms < 0 ? Deadline(handle) : Deadline(handle, timeout_ms);
  auto now = std::make_unique<Bridges>();
  for (;;) {
    if (int32_t code = findBridges(handle, now.get())) return passThrough(handle->error, HERE, code);
    if (!state->radars) state->radars = std::make_unique<Bridges>(*now);
    if (differ(static_cast<Bridges &>(*state->radars), *now)) break;
    if (int32_t code = waitCheck(handle, deadline)) {
      return origin(handle->error, HERE, code, "Waiting for a radar to come or go");
    }
    pauseWait(handle, deadline.cut(kListingPauseMs));
  }
  state->radars = std::move(now);
  return kSuccess;
} catch (const std::bad_alloc &) {
  return origin(handle->error, HERE, kOutOfMemory);
}

}  // extern "C"
