#include <cstdio>
#include <cstring>

#include "../platform/platform.h"
#include "Pulsekit3.h"

extern "C" {

uint64_t QTX_timestamp_us(void) { return pulsekit::platform::timestampMicroseconds(); }

char *QTX_timestamp_string(char *buffer, int32_t) {
  if (!buffer) return nullptr;
  const pulsekit::platform::UtcTime now = pulsekit::platform::utcNow();
  // Sized for any value that the fields could hold; a real time takes 24 bytes.
  char text[96];
  std::snprintf(text, sizeof text, "%4d-%02d-%02dT%02d:%02d:%02d.%.03d", now.year, now.month, now.day, now.hour,
                now.minute, now.second, now.millisecond);
  text[23] = '\0';
  return std::strcpy(buffer, text);
}

int32_t QTX_sleep_ms(uint32_t milliseconds) {
  pulsekit::platform::sleepMilliseconds(milliseconds);
  return 0;
}

}  // extern "C"
