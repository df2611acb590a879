#include "numbers.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>

#include "../platform/platform.h"

namespace pulsekit {

namespace {

const char *withoutLeadingBlanks(const char *text) { return text + std::strspn(text, " \t\n\v\f\r"); }

}  // namespace

uint64_t parseInteger(const char *text) {
  // What comes behind the blanks is left to the standard functions, whose blanks follow the locale.
  text = withoutLeadingBlanks(text);
  const bool negative = *text == '-';
  if (!negative && *text != '+' && (*text < '0' || *text > '9')) return 0;
  // Never an unsigned read of a negative number: far below the range it would come back as a small positive one.
  return negative ? static_cast<uint64_t>(std::strtoll(text, nullptr, 10)) : std::strtoull(text, nullptr, 10);
}

double parseDouble(const char *text) { return platform::realOf(text); }

namespace {

std::string format(double value, std::chars_format form, int precision) {
  std::string text(static_cast<size_t>(precision) + 330, '\0');
  const std::to_chars_result result = std::to_chars(text.data(), text.data() + text.size(), value, form, precision);
  text.resize(static_cast<size_t>(result.ptr - text.data()));
  return text;
}

}  // namespace

std::string formatExponent(double value) { return format(value, std::chars_format::scientific, 6); }

std::string formatFixed(double value, int precision) {
  return format(value, std::chars_format::fixed, std::clamp(precision, 0, 1000));
}

}  // namespace pulsekit
