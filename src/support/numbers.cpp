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

bool onlyBlanks(const char *text) { return *withoutLeadingBlanks(text) == '\0'; }

const char *withoutSign(const char *text) {
  text = withoutLeadingBlanks(text);
  return *text == '-' || *text == '+' ? text + 1 : text;
}

}  // namespace

bool strictInteger(const char *text, uint64_t *value) {
  const char *digits = withoutSign(text);
  const size_t count = std::strspn(digits, "0123456789");
  *value = parseInteger(text);
  return count > 0 && onlyBlanks(digits + count);
}

bool strictDouble(const char *text, double *value) {
  const char *digits = withoutSign(text);
  const bool hexadecimal = digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X');
  if (hexadecimal) digits += 2;
  // A second sign would be one of the number itself.
  if (*digits == '-') return false;
  double ignored = 0;
  const auto form = hexadecimal ? std::chars_format::hex : std::chars_format::general;
  const std::from_chars_result result = std::from_chars(digits, digits + std::strlen(digits), ignored, form);
  *value = parseDouble(text);
  return result.ec != std::errc::invalid_argument && onlyBlanks(result.ptr);
}

namespace {

std::string format(double value, std::chars_format form, int precision) {
  std::string text(static_cast<size_t>(precision) + 330, '\0');
  const std::to_chars_result result = std::to_chars(text.data(), text.data() + text.size(), value, form, precision);
  text.resize(static_cast<size_t>(result.ptr - text.data()));
  return text;
}

}  // namespace

std::string formatExponent(double value) {
  std::string text = format(value, std::chars_format::scientific, 6);
  const size_t digits = text.find('e') + 2;  // behind "e+"
  while (digits > 2 && text.size() - digits < platform::kExponentDigits) text.insert(digits, 1, '0');
  return text;
}

std::string formatFixed(double value, int precision) {
  return format(value, std::chars_format::fixed, std::clamp(precision, 0, 1000));
}

}  // namespace pulsekit
