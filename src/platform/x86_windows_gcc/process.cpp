#include "../platform.h"
#include "wide.h"

namespace pulsekit::platform {

FILE *openFile(const char *path, const char *mode) { return _wfopen(wide(path).c_str(), wide(mode).c_str()); }

// Not getenv: the host may have a C runtime of its own, whose changes reach the process but not the runtime here.
bool environment(const char *name, char *value, size_t size) {
  wchar_t wide_name[64] = L"", text[4096];
  for (size_t i = 0; name[i] != '\0' && i + 1 < sizeof wide_name / sizeof *wide_name; ++i) {
    wide_name[i] = static_cast<wchar_t>(name[i]);
  }
  const DWORD length = GetEnvironmentVariableW(wide_name, text, sizeof text / sizeof *text);
  if (length == 0 || length >= sizeof text / sizeof *text) return false;
  narrow(text, value, static_cast<int>(size));
  return true;
}

}  // namespace pulsekit::platform
