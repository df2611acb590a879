#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <cstdio>
#include <cstring>

#include "../platform.h"

namespace pulsekit::platform {

namespace {

HMODULE handle(void *module) { return static_cast<HMODULE>(module); }

void *address(FARPROC function) {
  void *result = nullptr;
  static_assert(sizeof function == sizeof result);
  std::memcpy(&result, &function, sizeof result);
  return result;
}

}  // namespace

SharedLibrary::SharedLibrary(const char *file_name) : module_(LoadLibraryA(file_name)) {
  if (!module_)
    std::snprintf(failure_, sizeof failure_, "system error %lu", static_cast<unsigned long>(GetLastError()));
}

SharedLibrary::~SharedLibrary() {
  if (module_) FreeLibrary(handle(module_));
}

void *SharedLibrary::find(const char *name, uint16_t ordinal) const {
  if (!module_) return nullptr;
  void *by_name = address(GetProcAddress(handle(module_), name));
  if (ordinal == 0) return by_name;
  void *by_ordinal = address(GetProcAddress(handle(module_), reinterpret_cast<LPCSTR>(uintptr_t{ordinal})));
  return by_name == by_ordinal ? by_name : nullptr;
}

}  // namespace pulsekit::platform
