#include "numbers.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace pulsekit {

namespace {

const char *withoutLeadingBlanks(const char *text) { return text + std::strspn(text, " \t\n\v\f\r"); }

}  // namespace

uint64_t parseInteger(const char *text) {
  // Never an unsigned read of a negative number: far below the range it would come back as a small positive one.
  const bool negative = *withoutLeadingBlanks(text) == '-';
  return negative ? static_cast<uint64_t>(std::strtoll(text, nullptr, 10)) : std::strtoull(text, nullptr, 10);
}

double parseDouble(const char *text) {
  text = withoutLeadingBlanks(text);
  const bool negative = *text == '-';
  if (*text == '-' || *text == '+') ++text;
  if (*text == '-' || *text == '+') return 0.0;

  const char *end = text + std::strlen(text);
  const bool hexadecimal = text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  double value = 0.0;
  const std::from_chars_result result = hexadecimal ? std::from_chars(text + 2, end, value, std::chars_format::hex)
                                                    : std::from_chars(text, end, value, std::chars_format::general);
  if (result.ec == std::errc::invalid_argument) return 0.0;
  if (result.ec == std::errc::result_out_of_range) {
    const std::string_view number(text, static_cast<size_t>(result.ptr - text));
    const size_t exponent = number.find_first_of(hexadecimal ? "pP" : "eE");
    const bool tiny = exponent != number.npos ? number.substr(exponent + 1, 1) == "-"
                                              : number.starts_with("0.") || number.starts_with(".");
    value = tiny ? 0.0 : HUGE_VAL;
  }
  return negative ? -value : value;
}

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
