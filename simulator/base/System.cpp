#include "base/System.h"

#include <chrono>
#include <cstdlib>
#include <thread>

#ifdef _WIN32
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
#endif

namespace pulsekit::simulator {

#ifdef _WIN32

namespace {

std::wstring wide(const std::string &text, UINT code_page, DWORD flags) {
  const int size = static_cast<int>(text.size());
  std::wstring result(text.size(), L'\0');
  const int length = MultiByteToWideChar(code_page, flags, text.data(), size, result.data(), size);
  result.resize(static_cast<size_t>(length));
  return result;
}

}  // namespace

std::filesystem::path pathOf(const std::string &name) {
  const std::wstring result = wide(name, CP_UTF8, MB_ERR_INVALID_CHARS);
  return result.empty() ? wide(name, CP_ACP, 0) : result;
}

// Not getenv: the program may have a C runtime of its own, whose changes don't reach the runtime here.
std::string environment(const char *name, const char *otherwise) {
  wchar_t text[4096];
  const DWORD length = GetEnvironmentVariableW(pathOf(name).c_str(), text, sizeof text / sizeof *text);
  if (length == 0 || length >= sizeof text / sizeof *text) return otherwise;
  const std::u8string utf8 = std::filesystem::path(text).u8string();
  return {utf8.begin(), utf8.end()};
}

// The system sleeps for whole milliseconds.
void sleepFor(uint64_t nanoseconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::nanoseconds(nanoseconds);
  if (nanoseconds >= 1'000'000) Sleep(static_cast<DWORD>(nanoseconds / 1'000'000));
  while (std::chrono::steady_clock::now() < end) std::this_thread::yield();
}

#else

std::filesystem::path pathOf(const std::string &name) { return name; }

std::string environment(const char *name, const char *otherwise) {
  const char *value = std::getenv(name);
  return value && *value != '\0' ? value : otherwise;
}

void sleepFor(uint64_t nanoseconds) { std::this_thread::sleep_for(std::chrono::nanoseconds(nanoseconds)); }

#endif

}  // namespace pulsekit::simulator
