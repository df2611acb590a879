// Memory that runs out at every allocation of the library in turn: a code, no exception, and all goes on afterwards.
#ifdef _WIN32
#include "imports.h"
#else
#include <dlfcn.h>
#endif

#include <cstdlib>
#include <cstring>
#include <new>

#include "Pulsekit3_stream.h"
#include "host.h"

namespace {

// 0: memory never runs out; else the nth allocation of the library from now fails.
uint32_t failing_allocation = 0;
uint32_t allocations = 0;
bool counting = false;

#ifdef _WIN32
void *allocate(size_t size) { return counting && ++allocations == failing_allocation ? nullptr : std::malloc(size); }
const bool replaced = pulsekit::test::replaceImport("Pulsekit3.dll", "malloc", reinterpret_cast<uintptr_t>(&allocate));
#else
bool isTheLibrary(const void *address) {
  Dl_info info;
  if (dladdr(address, &info) == 0 || !info.dli_fname) return false;
  return std::strstr(info.dli_fname, "libPulsekit3.so") != nullptr;
}

void *allocate(size_t size, const void *caller) {
  if (counting && isTheLibrary(caller) && ++allocations == failing_allocation) return nullptr;
  return std::malloc(size > 0 ? size : 1);
}
#endif

}  // namespace

#ifndef _WIN32
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
#endif

namespace pulsekit::test {
namespace {

class OutOfMemory : public Host {
 protected:
  // Runs the operation with each of its allocations failing.
  void atEveryAllocation(
      const char *what, const std::function<int32_t()> &operation, const std::function<void()> &restore = [] {}) {
    for (uint32_t nth = 1;; ++nth) {
      ASSERT_LT(nth, 1000u) << what;
      allocations = 0;
      failing_allocation = nth;
      counting = true;
      const int32_t code = operation();
      counting = false;
      if (allocations < nth) {
        EXPECT_EQ(code, 0) << what << description();
        EXPECT_GT(nth, 1u) << what << " allocates nothing";
        return;
      }
      EXPECT_EQ(code, 7) << what << nth << description();
      restore();
    }
  }
  Folder folder;
};

TEST_F(OutOfMemory, IsACodeOfEveryFunctionThatAllocates) {
  add();
  const std::string path = folder.file("settings.txt");
  QTX_Handle *other = nullptr;
  atEveryAllocation("init", [&] { return QTX_InitHandle(&other); });
  QTX_FreeHandle(&other);
  char text[512];
  atEveryAllocation("list", [&] { return QTX_ListRadarModules(handle, text, sizeof text); });
  atEveryAllocation(
      "open", [&] { return open(); }, [&] { QTX_CloseRadar(handle); });
  std::vector<double> frame(4096);
  uint8_t info[4] = {0xfe};
  atEveryAllocation("frame", [&] { return QTX_GetFrameNormalized(handle, frame.data(), 4096); });
  atEveryAllocation("board", [&] { return QTX_ModuleProgramBoardInfo(handle, info, 4); });
  atEveryAllocation("read board", [&] { return QTX_ModuleReadBoardInfo(handle, info, 4); });
  atEveryAllocation("save", [&] { return QTX_VarsSaveToFile(handle, path.c_str()); });
  atEveryAllocation("flash", [&] { return QTX_VarsSaveToFlash(handle); });
  atEveryAllocation("from flash", [&] { return QTX_VarsLoadFromFlash(handle); });
  ASSERT_EQ(QTX_VarSetIntValue_ByName(handle, "FrameStitch", 2), 0);
  // Frames that are there are handed out before the failure of ordering more.
  const auto stream = [&] {
    uint32_t count = 0;
    int32_t code = QTX_StreamStart(handle, nullptr);
    for (int i = 0; i < 3 && code == 0; ++i) {
      code = QTX_StreamRead(handle, frame.data(), 4096, nullptr, 9, &count, 1000);
    }
    return code;
  };
  atEveryAllocation("stream", stream, [&] { QTX_StreamStop(handle); });
}

}  // namespace
}  // namespace pulsekit::test
