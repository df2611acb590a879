// Listing, opening, closing and powering radars.
#include "Pulsekit3_radars.h"

#include <array>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "Pulsekit3.h"
#include "advice.h"
#include "calls.h"
#include "platform/platform.h"
#include "stream.h"
#include "support/handle_state.h"

using namespace pulsekit;

static constexpr const char kSource[] = "src/Pulsekit3";

namespace {

constexpr char kUnknown[] = "Unknown";
constexpr int32_t kMaxDevices = 10;
constexpr int32_t kDeviceSize = 256;
constexpr int32_t kDeviceListSize = 512;
constexpr size_t kNameSize = 64;

std::vector<std::string> splitDevices(const char *list) {
  std::vector<std::array<char, kDeviceSize>> texts(kMaxDevices);
  std::vector<char *> fields;
  fields.reserve(texts.size());
  for (auto &text : texts) fields.push_back(text.data());
  const int32_t count = QTX_strsplit(list, fields.data(), kMaxDevices, kDeviceSize, QTX_ConnectionStringDelimiter2());
  return std::vector<std::string>(fields.begin(), fields.begin() + count);
}

// Appends "!<module>!<chip>" of what the connected interface reaches. Codes: 7; whatever else fails is unknown.
int32_t appendDetectedNames(QTX_Handle *handle, std::string &entry) {
  char module[kNameSize] = "";
  char chip[kNameSize] = "";
  int32_t code = moduleGetConnectedModuleName(&handle->module, &handle->error, handle, module);
  if (code == kSuccess) {
    code = chipGetConnectedChipName(&handle->chip, &handle->error, handle, chip);
    entry += std::string("!") + module + "!" + (code == kSuccess ? chip : kUnknown);
  } else {
    entry += std::string("!") + kUnknown + "!" + kUnknown;
  }
  return code == kOutOfMemory ? code : int32_t{kSuccess};
}

// Completes the entry of a device. A failure's trace point goes to *line.
int32_t probe(QTX_Handle *handle, std::string &entry, int *line) {
  *line = 213;
  if (int32_t code =
          interfaceInitHandle(&handle->interface_handle, &handle->error, handle, entry.c_str(), &handle->open)) {
    return code;
  }
  *line = 219;
  if (int32_t code = interfaceInitInterface(handle->interface_handle)) return code;
  if (int32_t code = interfaceConnect(handle->interface_handle, entry.c_str())) {
    entry += std::string("!") + kUnknown + "!" + kUnknown;
    return code == kOutOfMemory ? code : int32_t{kSuccess};
  }
  if (int32_t code = appendDetectedNames(handle, entry)) return code;
  *line = 283;
  return interfaceDisconnect(handle->interface_handle);
}

// Passes a failure of opening on and gives up what was opened.
int32_t giveUp(QTX_Handle *handle, TracePoint at, int32_t code) {
  passThrough(handle->error, at, code);
  releaseLayers(handle);
  return code;
}

bool isKnown(const char *layer_name) { return std::strcmp(layer_name, kUnknown) != 0; }

}  // namespace

namespace pulsekit {

bool interfaceIsConnected(const QTX_Handle *handle) { return interfaceHasDevice(handle->interface_handle); }

void releaseLayers(QTX_Handle *handle) {
  endStream(handle);
  QTX_StackTrace kept{};
  if (handle->error) kept = *handle->error;
  if (handle->chip) chipFree(&handle->chip, nullptr);
  if (handle->module) moduleFree(&handle->module, nullptr);
  if (handle->interface_handle) interfaceFreeHandle(&handle->interface_handle, nullptr);
  if (handle->error) *handle->error = kept;
}

void releaseLeftInterface(QTX_Handle *handle) {
  const InterfaceHandle *bridge = handle->interface_handle;
  if (!bridge || handle->chip || handle->module) return;
  if (interfaceIsOurs(bridge)) interfaceFreeHandle(&handle->interface_handle, nullptr);
}

}  // namespace pulsekit

extern "C" {

int32_t QTX_ListRadarModules(QTX_Handle *handle, char *buffer, uint32_t size) try {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE, buffer)) return code;
  TextBuffer list(buffer, size);
  if (interfaceIsConnected(handle)) return origin(handle->error, HERE, kError, "A radar is open on this handle");
  releaseLayers(handle);
  char devices[kDeviceListSize] = "";
  if (int32_t code = interfaceListConnectedInterfaces(handle, devices, sizeof devices)) {
    return passThrough(handle->error, HERE_AT(183), code);
  }
  for (std::string &entry : splitDevices(devices)) {
    if (entry.find("Already Open") != entry.npos) {
      entry += std::string("!") + kUnknown + "!" + kUnknown;
    } else {
      int line = 0;
      const int32_t code = probe(handle, entry, &line);
      if (code) passThrough(handle->error, HERE_AT(line), code);
      releaseLayers(handle);
      if (code) return code;
    }
    if (!list.append(list.empty() ? "" : "#")) return origin(handle->error, HERE_AT(297), kBufferTooSmall);
    if (!list.append(entry)) return origin(handle->error, HERE_AT(305), kBufferTooSmall);
  }
  return kSuccess;
} catch (const std::bad_alloc &) {
  releaseLayers(handle);
  return origin(handle->error, HERE, kOutOfMemory);
}

int32_t QTX_OpenRadar(QTX_Handle *handle, const char *connection_string) {
  const CallScope call(handle);
  platform::raiseTimerResolution();
  if (int32_t code = checkCall(handle, HERE, connection_string)) return code;
  if (!handle->connection_info) return origin(handle->error, HERE, kError);
  releaseLayers(handle);
  connectionStringToConnectionInfo(connection_string, handle->connection_info);
  const ConnectionInfo &info = *handle->connection_info;

  InterfaceHandle *&bridge = handle->interface_handle;
  if (int32_t code = interfaceInitHandle(&bridge, &handle->error, handle, info.interface_name, &handle->open)) {
    return passThrough(handle->error, HERE_AT(376), recordedCode(handle, code));
  }
  // A bridge that does not connect stays for closing, freeing or the next opening to release.
  if (int32_t code = interfaceInitInterface(bridge)) {
    return passThrough(handle->error, HERE_AT(382), recordedCode(handle, code));
  }
  if (int32_t code = interfaceConnect(bridge, info.interface_connection)) {
    passThrough(handle->error, HERE_AT(388), code);
    return failedWith(handle, recordedCode(handle, code), connection_string);
  }
  storeConnectionString(handle, connection_string);

  handle->module = nullptr;
  if (isKnown(info.module_name)) {
    if (int32_t code = moduleInitHandle(&handle->module, &handle->error, handle, info.module_name)) {
      passThrough(handle->error, HERE_AT(399), code);
      const int32_t disconnected = interfaceDisconnect(bridge);
      return code == kOutOfMemory ? code : disconnected;
    }
    const int32_t code = handle->module->InitModule(handle->module);
    if (code != kSuccess && code != kUnknownModule) return giveUp(handle, HERE_AT(412), code);
  }

  int32_t chip_code = kSuccess;
  handle->chip = nullptr;
  if (isKnown(info.chip_name)) {
    if (int32_t code = chipInitHandle(&handle->chip, &handle->error, handle, info.chip_name)) {
      return giveUp(handle, HERE_AT(430), code);
    }
    chip_code = handle->chip->operations.InitChip(handle->chip);
    if (chip_code) passThrough(handle->error, HERE_AT(439), chip_code);
  }
  handle->open = 1;
  return chip_code;
}

int32_t QTX_CloseRadar(QTX_Handle *handle) {
  if (!handle) return kError;
  endStream(handle);
  if (handle->chip) {
    if (int32_t code = chipFree(&handle->chip, nullptr)) passThrough(handle->error, HERE_AT(466), code);
  }
  if (handle->module) {
    if (int32_t code = moduleFree(&handle->module, nullptr)) passThrough(handle->error, HERE_AT(476), code);
  }
  if (!handle->interface_handle) return kSuccess;
  if (int32_t code = interfaceDisconnect(handle->interface_handle)) {
    passThrough(handle->error, HERE_AT(483), code);
    return recordedCode(handle, code);
  }
  if (int32_t code = interfaceFreeHandle(&handle->interface_handle, nullptr)) {
    return passThrough(handle->error, HERE, code);
  }
  return kSuccess;
}

int32_t QTX_PowerOnRadar(QTX_Handle *handle) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE)) return code;
  const SettingsChange change(handle);
  if (int32_t code = QTX_VarSetIntValue_ByName(handle, "RadarModulePower", 1)) {
    return passThrough(handle->error, HERE_AT(515), recordedCode(handle, code));
  }
  if (int32_t code = checkModule(handle, HERE, &ModuleHandle::InitModule)) return code;
  if (int32_t code = handle->module->InitModule(handle->module)) {
    return passThrough(handle->error, HERE_AT(522), recordedCode(handle, code));
  }
  if (int32_t code = checkChip(handle, HERE, &ChipOperations::InitChip)) return code;
  if (int32_t code = handle->chip->operations.InitChip(handle->chip)) {
    return passThrough(handle->error, HERE_AT(529), recordedCode(handle, code));
  }
  return kSuccess;
}

int32_t QTX_PowerOffRadar(QTX_Handle *handle) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE)) return code;
  const SettingsChange change(handle);
  if (int32_t code = QTX_VarSetIntValue_ByName(handle, "RadarModulePower", 0)) {
    return passThrough(handle->error, HERE_AT(502), recordedCode(handle, code));
  }
  return kSuccess;
}

}  // extern "C"
