#include <cstdio>
#include <cstring>
#include <new>

#include "../platform.h"
#include "wide.h"

namespace pulsekit::platform {

namespace {

constexpr DWORD kLongestPath = 32767;

HMODULE handle(void *module) { return static_cast<HMODULE>(module); }

void *address(FARPROC function) {
  void *result = nullptr;
  static_assert(sizeof function == sizeof result);
  std::memcpy(&result, &function, sizeof result);
  return result;
}

// Where a library of this name would be beside the one that holds this code.
std::wstring besideThis(const std::wstring &name) {
  HMODULE self = nullptr;
  GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                     reinterpret_cast<LPCWSTR>(&besideThis), &self);
  std::wstring path(kLongestPath, L'\0');
  path.resize(GetModuleFileNameW(self, path.data(), kLongestPath));
  return path.substr(0, path.rfind(L'\\') + 1) + name;
}

std::wstring fullPath(const std::wstring &name) {
  std::wstring path(kLongestPath, L'\0');
  path.resize(GetFullPathNameW(name.c_str(), kLongestPath, path.data(), nullptr));
  return path;
}

// What the library itself needs may be beside it.
HMODULE loadFrom(const std::wstring &path) {
  return LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
}

// A name without a folder: beside this library, then in the program's and the system's folders; never in the current
// one, where anybody may have put something.
HMODULE load(const std::wstring &name) {
  if (name.find_first_of(L"/\\:") != name.npos) return loadFrom(fullPath(name));
  const std::wstring beside = besideThis(name);
  if (GetFileAttributesW(beside.c_str()) != INVALID_FILE_ATTRIBUTES) return loadFrom(beside);
  return LoadLibraryExW(name.c_str(), nullptr, LOAD_LIBRARY_SEARCH_DEFAULT_DIRS);
}

void describe(DWORD error, char *text, size_t size) {
  wchar_t message[256] = L"";
  FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK, nullptr,
                 error, 0, message, sizeof message / sizeof *message, nullptr);
  const int length = std::snprintf(text, size, "system error %lu: ", static_cast<unsigned long>(error));
  narrow(message, text + length, static_cast<int>(size) - length);
  for (size_t end = std::strlen(text); end > 0 && std::strchr(" :", text[end - 1]); --end) text[end - 1] = '\0';
}

}  // namespace

SharedLibrary::SharedLibrary(const char *file_name) : module_(nullptr) {
  try {
    module_ = load(wide(file_name));
    if (!module_) describe(GetLastError(), failure_, sizeof failure_);
  } catch (const std::bad_alloc &) {
    describe(ERROR_NOT_ENOUGH_MEMORY, failure_, sizeof failure_);
  }
}

SharedLibrary::~SharedLibrary() {
  if (module_) FreeLibrary(handle(module_));
}

void *SharedLibrary::find(const char *name) const {
  return module_ ? address(GetProcAddress(handle(module_), name)) : nullptr;
}

bool SharedLibrary::hasAt(uint16_t ordinal, const void *function) const {
  return module_ && address(GetProcAddress(handle(module_), reinterpret_cast<LPCSTR>(uintptr_t{ordinal}))) == function;
}

}  // namespace pulsekit::platform
