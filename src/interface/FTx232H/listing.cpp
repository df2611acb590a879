#include <algorithm>
#include <cstdio>
#include <cstring>

#include "../../support/trace.h"
#include "D2XX/provider.h"
#include "FTx232H_private.h"

using namespace pulsekit;

static constexpr const char kSource[] = "src/interface/FTx232H/FTx232H";

namespace {

constexpr size_t kDeviceInfoEntries = 16;
constexpr size_t kTextSize = 64;
// D2XX states no length for the texts of a device; known ones take at most 64 bytes.
constexpr size_t kD2xxTextSize = 256;
constexpr char kOpenElsewhere[] = "Already Open";

struct DeviceInfo {
  char serial[kTextSize];
  char description[kTextSize];
  FT_HANDLE handle;
  uint32_t in_use;
};

DeviceInfo globalDeviceInfoArray[kDeviceInfoEntries];
bool device_info_cleared = false;

void copyText(char (&to)[kTextSize], const char *from) {
  const size_t length = from ? strnlen(from, kTextSize - 1) : 0;
  if (length > 0) std::memcpy(to, from, length);
  to[length] = '\0';
}

FT_STATUS deviceText(const FTx232H_D2XX &d2xx, uint32_t index, uint32_t kind, char (&text)[kD2xxTextSize]) {
  std::memset(text, 0, sizeof text);
  const FT_STATUS status = d2xx.ListDevices(reinterpret_cast<void *>(uintptr_t{index}), text, FT_LIST_BY_INDEX | kind);
  text[kD2xxTextSize - 1] = '\0';
  return status;
}

// The serial number of a device; one that is open, here or elsewhere, is known by the registry or not at all.
FT_STATUS readSerial(const FTx232H_D2XX &d2xx, uint32_t index, size_t &open_devices, char (&serial)[kD2xxTextSize]) {
  const FT_STATUS status = deviceText(d2xx, index, FT_OPEN_BY_SERIAL_NUMBER, serial);
  if (status != FT_DEVICE_NOT_OPENED) return status;
  const char *known = open_devices < kDeviceInfoEntries ? globalDeviceInfoArray[open_devices].serial : "";
  std::snprintf(serial, sizeof serial, "%s", known[0] != '\0' ? known : kOpenElsewhere);
  ++open_devices;
  return FT_OK;
}

}  // namespace

std::mutex &deviceListMutex() {
  static std::mutex mutex;
  return mutex;
}

void clearDeviceInfoEntriesOnce() {
  const std::lock_guard guard(deviceListMutex());
  if (device_info_cleared) return;
  for (DeviceInfo &entry : globalDeviceInfoArray) entry = {};
  device_info_cleared = true;
}

int32_t FTx232H_AddDeviceInfoEntry(FT_HANDLE handle, const char *description, const char *serial) {
  const std::lock_guard guard(deviceListMutex());
  for (DeviceInfo &entry : globalDeviceInfoArray) {
    if (entry.in_use) continue;
    copyText(entry.serial, serial);
    copyText(entry.description, description);
    entry.handle = handle;
    entry.in_use = 1;
    return kSuccess;
  }
  return kError;
}

int32_t FTx232H_DeleteDeviceInfoEntry(FT_HANDLE handle) {
  const std::lock_guard guard(deviceListMutex());
  for (DeviceInfo &entry : globalDeviceInfoArray) {
    if (!entry.in_use || entry.handle != handle) continue;
    entry = {};
    return kSuccess;
  }
  return kError;
}

int32_t FTx232H_PresentDevices(QTX_StackTrace *record, std::vector<PresentDevice> *devices) {
  // For what a host that uses the bridge library itself lists between the two calls.
  constexpr size_t kSpareNodes = 32;
  const FTx232H_D2XX d2xx = d2xx::current();
  const std::lock_guard guard(deviceListMutex());
  uint32_t count = 0;
  FT_STATUS status = d2xx.CreateDeviceInfoList(&count);
  std::vector<FT_Node> nodes(status == FT_OK ? count + kSpareNodes : 0);
  if (status == FT_OK) status = d2xx.GetDeviceInfoList(nodes.data(), &count);
  if (status != FT_OK) {
    return origin(record, HERE, kInterfaceList, "FTx232H - Could not create list of connected FT-devices");
  }
  nodes.resize(std::min<size_t>(nodes.size(), count));
  for (const FT_Node &node : nodes) {
    const std::string serial(node.SerialNumber, strnlen(node.SerialNumber, sizeof node.SerialNumber));
    devices->push_back({serial, (node.Flags & FT_FLAGS_OPENED) != 0, node.Handle != nullptr});
  }
  return kSuccess;
}

extern "C" int32_t FTx232H_ListDevices(InterfaceHandle *bridge, char *out, uint32_t size) {
  if (!bridge) return kInterfaceNotInitialized;
  QTX_StackTrace *record = interfaceErrorRecord(bridge);
  if (!out) return origin(record, HERE, kError);
  if (size > 0) out[0] = '\0';

  const FTx232H_D2XX d2xx = d2xx::current();
  const std::lock_guard guard(deviceListMutex());
  uint32_t count = 0;
  if (d2xx.ListDevices(&count, nullptr, FT_LIST_NUMBER_ONLY)) {
    return origin(record, HERE, kInterfaceList, "FTx232H - Could not create list of connected FT-devices");
  }
  if (count == 0) {
    return origin(record, HERE, kNoDevices, "FTx232H - There are no compatible FT-devices connected");
  }

  size_t open_devices = 0;
  for (uint32_t index = 0; index < count; ++index) {
    // Only its status counts: the description is no part of a connection string.
    char text[kD2xxTextSize];
    FT_STATUS described = deviceText(d2xx, index, FT_OPEN_BY_DESCRIPTION, text);
    if (described == FT_DEVICE_NOT_OPENED && closeLeftDevices(d2xx)) {
      described = deviceText(d2xx, index, FT_OPEN_BY_DESCRIPTION, text);
    }
    if ((described && described != FT_DEVICE_NOT_OPENED) || readSerial(d2xx, index, open_devices, text)) {
      return origin(record, HERE, kInterfaceList,
                    "FTx232H - Could not retrieve information about the connected FT-device");
    }
    const size_t used = size > 0 ? std::strlen(out) : 0;
    if (used + std::strlen(FTx232H_Name()) + std::strlen(text) + 16 >= size) {
      return origin(record, HERE, kBufferTooSmall,
                    "FTx232H - The buffer for listing the connection strings for the connected FT-devices is too "
                    "small");
    }
    const char *separator = index + 1 < count ? "#" : "";
    std::snprintf(out + used, size - used, "%s!Serial No: (%s)%s", FTx232H_Name(), text, separator);
  }
  return kSuccess;
}
