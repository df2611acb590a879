#include <charconv>
#include <cmath>
#include <cstring>

#include "../platform.h"

namespace pulsekit::platform {

const size_t kExponentDigits = 3;

namespace {

const char *skip(const char *text, const char *characters) { return text + std::strspn(text, characters); }

// Of decimal digits that a double can't hold: whether they are too many, not too small.
bool isLarge(const char *digits) {
  long place = 0;
  digits = skip(digits, "0");
  place += static_cast<long>(std::strspn(digits, "0123456789"));
  const char *end = skip(digits, "0123456789");
  if (*end == '.' && place == 0) place -= static_cast<long>(std::strspn(end + 1, "0"));
  if (*end == '.') end = skip(end + 1, "0123456789");
  if (*end != 'e' && *end != 'E') return place > 0;
  end += end[1] == '+' ? 2 : 1;
  long exponent = 0;
  if (std::from_chars(end, end + std::strlen(end), exponent).ec == std::errc::result_out_of_range) return *end != '-';
  return exponent > -place;
}

bool isLargeHexadecimal(const char *digits) {
  const char *mark = std::strpbrk(digits, "pP");
  return !mark || mark[1] != '-';
}

}  // namespace

// The runtime's own strtod knows neither "inf" nor "0x1p3" and rounds in another way.
double realOf(const char *text) {
  text = skip(text, " \t\n\v\f\r");
  const bool negative = *text == '-';
  if (negative || *text == '+') ++text;
  const char *const end = text + std::strlen(text);
  const bool hexadecimal = text[0] == '0' && (text[1] == 'x' || text[1] == 'X') && text[2] != '-';
  const std::chars_format form = hexadecimal ? std::chars_format::hex : std::chars_format::general;
  double value = 0;
  const std::errc error =
      *text == '-' ? std::errc::invalid_argument : std::from_chars(hexadecimal ? text + 2 : text, end, value, form).ec;
  if (hexadecimal && (error == std::errc::invalid_argument || !std::isfinite(value)))
    value = 0;  // "0xinf" is 0, then text
  if (!hexadecimal && error == std::errc::invalid_argument) return 0;
  if (error == std::errc::result_out_of_range) {
    value = (hexadecimal ? isLargeHexadecimal(text) : isLarge(text)) ? HUGE_VAL : 0;
  }
  return negative ? -value : value;
}

}  // namespace pulsekit::platform
