#include "provider.h"

#include <memory>
#include <mutex>
#include <new>
#include <optional>

#include "../../../platform/platform.h"
#include "../../../support/QTX_ErrorCodes.h"

namespace pulsekit::d2xx {

namespace {

using platform::SharedLibrary;

#ifdef _WIN32
constexpr char kVendorLibrary[] = "FTD2XX.dll";
#else
constexpr char kVendorLibrary[] = "libftd2xx.so";
#endif

template <typename Function>
bool resolve(const SharedLibrary &library, const char *name, uint16_t ordinal, Function &slot) {
  slot = reinterpret_cast<Function>(library.find(name, ordinal));
  return slot != nullptr;
}

bool resolveAll(const SharedLibrary &library, FTx232H_D2XX &table) {
  return resolve(library, "FT_Close", 2, table.Close) && resolve(library, "FT_Read", 3, table.Read) &&
         resolve(library, "FT_Write", 4, table.Write) && resolve(library, "FT_ResetDevice", 6, table.ResetDevice) &&
         resolve(library, "FT_SetTimeouts", 17, table.SetTimeouts) &&
         resolve(library, "FT_GetQueueStatus", 18, table.GetQueueStatus) &&
         resolve(library, "FT_OpenEx", 27, table.OpenEx) && resolve(library, "FT_ListDevices", 28, table.ListDevices) &&
         resolve(library, "FT_SetLatencyTimer", 29, table.SetLatencyTimer) &&
         resolve(library, "FT_SetBitMode", 31, table.SetBitMode) &&
         resolve(library, "FT_SetUSBParameters", 33, table.SetUSBParameters) &&
         resolve(library, "FT_CreateDeviceInfoList", 70, table.CreateDeviceInfoList) &&
         resolve(library, "FT_GetDeviceInfoList", 71, table.GetDeviceInfoList);
}

// Once loaded, the library stays: a host may close devices while the process ends.
struct Vendor {
  const SharedLibrary *library;
  FTx232H_D2XX table;
};

Vendor loadVendorLibrary() {
  std::unique_ptr<SharedLibrary> library(new (std::nothrow) SharedLibrary(kVendorLibrary));
  FTx232H_D2XX table{};
  if (!library || !*library || !resolveAll(*library, table)) return {nullptr, unavailable()};
  return {library.release(), table};
}

template <typename... Arguments>
FT_STATUS notSupported(Arguments...) {
  return FT_NOT_SUPPORTED;
}

template <typename... Arguments>
void fillIfEmpty(FT_STATUS (*&slot)(Arguments...)) {
  if (!slot) slot = notSupported;
}

FTx232H_D2XX completed(FTx232H_D2XX table) {
  fillIfEmpty(table.Close);
  fillIfEmpty(table.Read);
  fillIfEmpty(table.Write);
  fillIfEmpty(table.ResetDevice);
  fillIfEmpty(table.SetTimeouts);
  fillIfEmpty(table.GetQueueStatus);
  fillIfEmpty(table.OpenEx);
  fillIfEmpty(table.ListDevices);
  fillIfEmpty(table.SetLatencyTimer);
  fillIfEmpty(table.SetBitMode);
  fillIfEmpty(table.SetUSBParameters);
  fillIfEmpty(table.CreateDeviceInfoList);
  fillIfEmpty(table.GetDeviceInfoList);
  return table;
}

std::mutex host_table_mutex;
std::optional<FTx232H_D2XX> host_table;

std::optional<FTx232H_D2XX> hostTable() {
  const std::lock_guard guard(host_table_mutex);
  return host_table;
}

}  // namespace

FTx232H_D2XX unavailable() { return completed({}); }

FTx232H_D2XX current() {
  if (const auto table = hostTable()) return *table;
  static const Vendor vendor = loadVendorLibrary();
  return vendor.table;
}

}  // namespace pulsekit::d2xx

extern "C" int32_t FTx232H_SetD2XX(const FTx232H_D2XX *functions) {
  using namespace pulsekit;
  const std::lock_guard guard(d2xx::host_table_mutex);
  d2xx::host_table = functions ? std::optional(d2xx::completed(*functions)) : std::nullopt;
  return kSuccess;
}
