// Windows only: another function in place of one that a module imports, where elsewhere a program just defines its own.
#pragma once

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <cstdint>
#include <cstring>

namespace pulsekit::test {

// The module - null is the program itself - calls the replacement from now on. False where it does not import the name.
inline bool replaceImport(const char *module, const char *name, uintptr_t replacement) {
  auto *base = reinterpret_cast<uint8_t *>(GetModuleHandleA(module));
  if (!base) return false;
  const auto at = [base](uint64_t offset) { return base + offset; };
  const auto *dos = reinterpret_cast<IMAGE_DOS_HEADER *>(base);
  const auto *headers = reinterpret_cast<IMAGE_NT_HEADERS *>(at(static_cast<uint32_t>(dos->e_lfanew)));
  const uint32_t imports = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
  for (auto *dll = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR *>(at(imports)); dll->Name != 0; ++dll) {
    const auto *names = reinterpret_cast<IMAGE_THUNK_DATA *>(at(dll->OriginalFirstThunk));
    auto *functions = reinterpret_cast<IMAGE_THUNK_DATA *>(at(dll->FirstThunk));
    for (; names->u1.AddressOfData != 0; ++names, ++functions) {
      if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) continue;
      const auto *entry = reinterpret_cast<IMAGE_IMPORT_BY_NAME *>(at(names->u1.AddressOfData));
      if (std::strcmp(reinterpret_cast<const char *>(entry->Name), name) != 0) continue;
      DWORD before = 0;
      VirtualProtect(functions, sizeof *functions, PAGE_READWRITE, &before);
      functions->u1.Function = replacement;
      return VirtualProtect(functions, sizeof *functions, before, &before) != 0;
    }
  }
  return false;
}

}  // namespace pulsekit::test
