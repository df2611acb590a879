#include "provider.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>

#include "../../../platform/platform.h"
#include "../../../support/QTX_ErrorCodes.h"
#include "usb/libusb_provider.h"

namespace pulsekit::d2xx {

namespace {

using platform::SharedLibrary;

#ifdef _WIN32
constexpr char kVendorLibrary[] = "FTD2XX.dll";
#else
constexpr char kVendorLibrary[] = "libftd2xx.so";
#endif

constexpr char kOwn[] = "libusb-1.0";

constexpr char kNamedLibrary[] = "PULSEKIT3_BRIDGE_LIBRARY";
constexpr char kOwnName[] = "libusb";
constexpr char kFault[] = "FTx232H_LibraryFault";

// Fills the table; tells the first function that the library lacks or has in another place than the vendor's.
class Resolver {
 public:
  Resolver(const SharedLibrary &library, bool by_ordinal) : library_(library), by_ordinal_(by_ordinal) {}

  template <typename Function>
  void operator()(const char *name, uint16_t ordinal, Function &slot) {
    void *function = library_.find(name);
    slot = reinterpret_cast<Function>(function);
    if (fault_[0] != '\0') return;
    if (!function) std::snprintf(fault_, sizeof fault_, "it lacks %s", name);
    if (function && by_ordinal_ && !library_.hasAt(ordinal, function)) {
      std::snprintf(fault_, sizeof fault_, "its function %u is not %s", unsigned{ordinal}, name);
    }
  }
  const char *fault() const { return fault_[0] != '\0' ? fault_ : nullptr; }

 private:
  const SharedLibrary &library_;
  bool by_ordinal_;
  char fault_[64] = "";
};

void resolveAll(Resolver &resolve, FTx232H_D2XX &table) {
  resolve("FT_Close", 2, table.Close);
  resolve("FT_Read", 3, table.Read);
  resolve("FT_Write", 4, table.Write);
  resolve("FT_ResetDevice", 6, table.ResetDevice);
  resolve("FT_SetTimeouts", 17, table.SetTimeouts);
  resolve("FT_GetQueueStatus", 18, table.GetQueueStatus);
  resolve("FT_OpenEx", 27, table.OpenEx);
  resolve("FT_ListDevices", 28, table.ListDevices);
  resolve("FT_SetLatencyTimer", 29, table.SetLatencyTimer);
  resolve("FT_SetBitMode", 31, table.SetBitMode);
  resolve("FT_SetUSBParameters", 33, table.SetUSBParameters);
  resolve("FT_CreateDeviceInfoList", 70, table.CreateDeviceInfoList);
  resolve("FT_GetDeviceInfoList", 71, table.GetDeviceInfoList);
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

// What became of the search for a library. Texts have fixed sizes: searching must not run out of memory.
struct Search {
  enum class Found { Nothing, Library, Own };

  void report(const char *name, const char *outcome, const char *detail) {
    const size_t used = std::strlen(text);
    std::snprintf(text + used, sizeof text - used, "%s%s%s%s: %s%s\n", name, named ? " (" : "",
                  named ? kNamedLibrary : "", named ? ")" : "", outcome, detail);
  }

  FTx232H_D2XX table = completed({});
  Found found = Found::Nothing;
  bool named = false;
  char text[2048] = "";
};

void load(Search &search, const char *file_name) {
  std::unique_ptr<SharedLibrary> library(new (std::nothrow) SharedLibrary(file_name));
  FTx232H_D2XX table{};
  const auto report = [&](const char *outcome, const char *detail) { search.report(file_name, outcome, detail); };
  if (!library || !*library) return report("not loaded: ", library ? library->failure() : "out of memory");
  // The ordinals are the vendor's own.
  Resolver resolve(*library, !search.named);
  resolveAll(resolve, table);
  if (const char *fault = resolve.fault()) return report("refused: ", fault);
  const auto fault = reinterpret_cast<const char *(*)()>(library->find(kFault));
  if (const char *text = fault ? fault() : nullptr) return report("refused: ", text);
  report("loaded", "");
  search.table = table;
  search.found = Search::Found::Library;
  // Once loaded, the library stays: a host may close devices while the process ends. Volatile, since optimizing would
  // drop a pointer that nobody reads, and a host's leak checker would miss it.
  static const SharedLibrary *volatile kept = nullptr;
  kept = library.release();
  static_cast<void>(kept);
}

void useOwn(Search &search) {
  const char *reason = nullptr;
  const FTx232H_D2XX *table = usb::table(&reason);
  if (!table && !reason && !search.named) return;
  if (!table) return search.report(kOwn, "refused: ", reason ? reason : "it is not part of this build");
  search.report(kOwn, "in use", "");
  search.table = *table;
  search.found = Search::Found::Own;
}

// What the user names is the one to use or none: no radar on the desk answers for a simulated one.
Search searchLibrary() {
  Search search;
  char name[1024];
  search.named = platform::environment(kNamedLibrary, name, sizeof name);
  const bool own = search.named && std::strcmp(name, kOwnName) == 0;
  if (!own) load(search, search.named ? name : kVendorLibrary);
  if (own || (!search.named && search.found == Search::Found::Nothing)) useOwn(search);
  return search;
}

const Search &search() {
  static const Search result = searchLibrary();
  return result;
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
  return search().table;
}

}  // namespace pulsekit::d2xx

extern "C" int32_t FTx232H_SetD2XX(const FTx232H_D2XX *functions) {
  using namespace pulsekit;
  const std::lock_guard guard(d2xx::host_table_mutex);
  d2xx::host_table = functions ? std::optional(d2xx::completed(*functions)) : std::nullopt;
  return kSuccess;
}

extern "C" int32_t FTx232H_DescribeBridgeLibraries(char *text, int32_t size) {
  using namespace pulsekit;
  if (!text || size <= 0) return kError;
  const char *report = d2xx::hostTable() ? "table of the host (FTx232H_SetD2XX): in use\n" : d2xx::search().text;
  return std::snprintf(text, static_cast<size_t>(size), "%s", report) < size ? kSuccess : kBufferTooSmall;
}

extern "C" int32_t FTx232H_DescribePorts(char *text, int32_t size) try {
  using namespace pulsekit;
  using Found = d2xx::Search::Found;
  if (!text || size <= 0) return kError;
  // Of another library's ports, as simulated ones, the USB knows nothing.
  const bool elsewhere = d2xx::hostTable() || (d2xx::search().named && d2xx::search().found != Found::Own);
  const std::string ports = elsewhere ? "" : d2xx::usb::describePorts(d2xx::search().found == Found::Own);
  return std::snprintf(text, static_cast<size_t>(size), "%s", ports.c_str()) < size ? kSuccess : kBufferTooSmall;
} catch (const std::bad_alloc &) {
  return pulsekit::kOutOfMemory;
}
