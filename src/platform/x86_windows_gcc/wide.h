// The system's texts are UTF-16, those of this library UTF-8.
#pragma once

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <string>

namespace pulsekit::platform {

inline bool convert(const std::string &text, UINT code_page, DWORD flags, std::wstring &out) {
  const int size = static_cast<int>(text.size());
  out.resize(text.size());
  const int length = MultiByteToWideChar(code_page, flags, text.data(), size, out.data(), size);
  out.resize(static_cast<size_t>(length));
  return length > 0 || size == 0;
}

// What is no UTF-8 is taken to be in the system's code page.
inline std::wstring wide(const std::string &text) {
  std::wstring result;
  if (!convert(text, CP_UTF8, MB_ERR_INVALID_CHARS, result)) convert(text, CP_ACP, 0, result);
  return result;
}

// Writes what fits of a text of the system.
inline void narrow(const wchar_t *text, char *out, int size) {
  int length = static_cast<int>(wcslen(text));
  while (length > 0 && WideCharToMultiByte(CP_UTF8, 0, text, length, nullptr, 0, nullptr, nullptr) >= size) --length;
  const int written = length > 0 ? WideCharToMultiByte(CP_UTF8, 0, text, length, out, size - 1, nullptr, nullptr) : 0;
  out[written] = '\0';
}

}  // namespace pulsekit::platform
