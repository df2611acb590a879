#include <cstdlib>

#include "../platform.h"

namespace pulsekit::platform {

FILE *openFile(const char *path, const char *mode) { return std::fopen(path, mode); }

bool environment(const char *name, char *value, size_t size) {
  const char *text = std::getenv(name);
  if (!text || *text == '\0') return false;
  std::snprintf(value, size, "%s", text);
  return true;
}

}  // namespace pulsekit::platform
