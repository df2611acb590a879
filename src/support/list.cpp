#include "list.h"

#include <cstdio>
#include <cstring>

#include "QTX_ErrorCodes.h"

namespace pulsekit {

int32_t appendDriver(char *list, int32_t size, const char *name, const char *driver) {
  const size_t capacity = size > 0 ? static_cast<size_t>(size) : 0;
  size_t length = std::strlen(list);
  if (length > 0) {
    if (length + 2 > capacity) return kBufferTooSmall;
    list[length++] = ',';
    list[length] = '\0';
  }
  if (length + std::strlen(name) + std::strlen(driver) + sizeof " ()" > capacity) return kBufferTooSmall;
  std::snprintf(list + length, capacity - length, "%s (%s)", name, driver);
  return kSuccess;
}

}  // namespace pulsekit
