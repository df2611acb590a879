#include <algorithm>
#include <cstring>

#include "Pulsekit3.h"

extern "C" {

char *QTX_itoa(int64_t value, char *buffer, int32_t base) {
  if (!buffer) return nullptr;
  if (base < 2 || base > 36) {
    buffer[0] = '\0';
    return buffer;
  }
  // Indexed from -35 to 35: a negative number gives its digits without being negated, so that the lowest one works too.
  constexpr char kDigits[] = "zyxwvutsrqponmlkjihgfedcba9876543210123456789abcdefghijklmnopqrstuvwxyz";
  int32_t rest = static_cast<int32_t>(value);
  const bool negative = rest < 0;
  char *end = buffer;
  do {
    *end++ = kDigits[35 + rest % base];
    rest /= base;
  } while (rest != 0);
  if (negative) *end++ = '-';
  *end = '\0';
  std::reverse(buffer, end);
  return buffer;
}

char *QTX_intcat(char *text, uint32_t value, int32_t base) {
  if (!text) return nullptr;
  char number[40] = "";
  return std::strcat(text, QTX_itoa(static_cast<int32_t>(value), number, base));
}

char *QTX_chrcat(char *text, char character) {
  if (!text) return nullptr;
  const size_t length = std::strlen(text);
  text[length] = character;
  text[length + 1] = '\0';
  return text;
}

char *QTX_strltrim(char *destination, const char *source) {
  if (!destination || !source) return destination;
  source += std::strspn(source, "\t ");
  std::memmove(destination, source, std::strlen(source) + 1);
  return destination;
}

int32_t QTX_strsplit(const char *text, char **fields, int32_t max_fields, int32_t max_length, char delimiter) {
  if (!text || !fields || max_fields < 1 || max_length < 1) return 0;
  int32_t field = 0;
  int32_t length = 0;
  const char *end = text;
  for (; *end != '\0'; ++end) {
    if (!fields[field]) return 0;
    if (*end == delimiter) {
      fields[field][length] = '\0';
      length = 0;
      if (++field == max_fields) return 0;
    } else {
      fields[field][length++] = *end;
      if (length == max_length) return 0;
    }
  }
  if (!fields[field]) return 0;
  fields[field][length] = '\0';
  return field + (end - text >= 2 ? 1 : 0);
}

}  // extern "C"
