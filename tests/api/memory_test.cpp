// Memory that runs out at every allocation of the library in turn: a code, no exception, and all goes on afterwards.
#include <dlfcn.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "bench.h"
#include "files.h"

namespace {

// 0: memory never runs out; else the nth allocation of the library from now fails.
uint32_t failing_allocation = 0;
uint32_t allocations = 0;
bool counting = false;

bool isTheLibrary(const void *address) {
  Dl_info info;
  if (dladdr(address, &info) == 0 || !info.dli_fname) return false;
  return std::strstr(info.dli_fname, "libPulsekit3.so") != nullptr;
}

void *allocate(size_t size, const void *caller) {
  if (counting && isTheLibrary(caller) && ++allocations == failing_allocation) return nullptr;
  return std::malloc(size > 0 ? size : 1);
}

}  // namespace

#define DEFAULT_VISIBILITY __attribute__((visibility("default"), noinline))

// These go before the system's, for the library too.
DEFAULT_VISIBILITY void *operator new(size_t size) {
  if (void *memory = allocate(size, __builtin_return_address(0))) return memory;
  throw std::bad_alloc();
}
DEFAULT_VISIBILITY void *operator new[](size_t size) {
  if (void *memory = allocate(size, __builtin_return_address(0))) return memory;
  throw std::bad_alloc();
}
DEFAULT_VISIBILITY void *operator new(size_t size, const std::nothrow_t &) noexcept {
  return allocate(size, __builtin_return_address(0));
}
DEFAULT_VISIBILITY void *operator new[](size_t size, const std::nothrow_t &) noexcept {
  return allocate(size, __builtin_return_address(0));
}
DEFAULT_VISIBILITY void operator delete(void *memory) noexcept { std::free(memory); }
DEFAULT_VISIBILITY void operator delete[](void *memory) noexcept { std::free(memory); }
DEFAULT_VISIBILITY void operator delete(void *memory, size_t) noexcept { std::free(memory); }
DEFAULT_VISIBILITY void operator delete[](void *memory, size_t) noexcept { std::free(memory); }

namespace pulsekit::test {
namespace {

class OutOfMemory : public Bench {
 protected:
  // Runs the operation with each of its allocations failing.
  template <typename Operation, typename Restore>
  void atEveryAllocation(const char *what, Operation operation, Restore restore) {
    for (uint32_t nth = 1; nth < 1000; ++nth) {
      allocations = 0;
      failing_allocation = nth;
      counting = true;
      int32_t code = -1;
      try {
        code = operation();
      } catch (...) {
        ADD_FAILURE() << what << ": an exception left the library at allocation " << nth;
      }
      counting = false;
      if (allocations < nth) {
        EXPECT_EQ(code, 0) << what << description(radar);
        EXPECT_GT(nth, 1u) << what << " allocates nothing";
        return;
      }
      EXPECT_EQ(code, 7) << what << nth << description(radar);
      restore();
      if (testing::Test::HasFailure()) return;
    }
  }

  Radar radar;
  Folder folder;
};

TEST_F(OutOfMemory, IsACodeOfEveryFunctionThatAllocates) {
  addRadar();
  const std::string path = folder.file("settings.txt");
  const auto nothing = [] {};
  const auto close = [&] { QTX_CloseRadar(radar); };
  QTX_Handle *handle = nullptr;
  atEveryAllocation(
      "init", [&] { return QTX_InitHandle(&handle); }, nothing);
  QTX_FreeHandle(&handle);
  char text[512];
  atEveryAllocation(
      "list", [&] { return QTX_ListRadarModules(radar, text, sizeof text); }, nothing);
  atEveryAllocation(
      "open", [&] { return QTX_OpenRadar(radar, connection().c_str()); }, close);
  std::vector<double> frame(4096);
  atEveryAllocation(
      "frame", [&] { return QTX_GetFrameNormalized(radar, frame.data(), 4096); }, nothing);
  atEveryAllocation(
      "save", [&] { return QTX_VarsSaveToFile(radar, path.c_str()); }, nothing);
  atEveryAllocation(
      "flash", [&] { return QTX_VarsSaveToFlash(radar); }, nothing);
  atEveryAllocation(
      "from flash", [&] { return QTX_VarsLoadFromFlash(radar); }, nothing);
}

}  // namespace
}  // namespace pulsekit::test
