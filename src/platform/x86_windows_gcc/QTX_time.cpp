#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <cstring>

#include "../platform.h"

namespace pulsekit::platform {

uint64_t timestampMicroseconds() {
  LARGE_INTEGER frequency, count;
  QueryPerformanceFrequency(&frequency);
  QueryPerformanceCounter(&count);
  return static_cast<uint64_t>(static_cast<double>(count.QuadPart) * 1'000'000.0 /
                               static_cast<double>(frequency.QuadPart));
}

UtcTime utcNow() {
  SYSTEMTIME utc;
  GetSystemTime(&utc);
  return {utc.wYear, utc.wMonth, utc.wDay, utc.wHour, utc.wMinute, utc.wSecond, utc.wMilliseconds};
}

void sleepMilliseconds(uint32_t milliseconds) { Sleep(milliseconds); }

void raiseTimerResolution() {
  using SetTimerResolution = LONG(NTAPI *)(ULONG requested, BOOLEAN set, ULONG * actual);
  // Every process has that library already.
  const FARPROC symbol = GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtSetTimerResolution");
  SetTimerResolution set = nullptr;
  static_assert(sizeof set == sizeof symbol);
  std::memcpy(&set, &symbol, sizeof set);
  ULONG actual = 0;
  if (set) set(1000, TRUE, &actual);  // units of 100 ns
}

void localTimeText(std::time_t time, char *buffer) {
  const char *text = _ctime64(&time);
  std::strcpy(buffer, text ? text : "\n");
}

}  // namespace pulsekit::platform
