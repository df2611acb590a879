#include "number.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>

#include "text.h"

namespace tool {

namespace {

struct Prefix {
  std::string_view text;
  int exponent;
};

constexpr Prefix kPrefixes[] = {{"", 0},   {"f", -15}, {"p", -12}, {"n", -9}, {"u", -6}, {"\xc2\xb5", -6},
                                {"m", -3}, {"c", -2},  {"k", 3},   {"M", 6},  {"G", 9},  {"T", 12}};

bool takesPrefixes(std::string_view unit) { return unit == "s" || unit == "Hz" || unit == "m"; }

[[noreturn]] void refuse(std::string_view what, std::string_view text, std::string_view why, std::string_view remedy) {
  throw Usage(cat(what, " \"", printable(text), "\": ", why), std::string(remedy));
}

std::string example(std::string_view unit) {
  if (unit == "s") return "write a number with s, ms, us, ns or ps, such as 1.5ns";
  if (unit == "Hz") return "write a number with Hz, kHz, MHz or GHz, such as 15MHz";
  if (unit == "m") return "write a number with m, cm or mm, such as 0.2m";
  if (unit.empty()) return "write a bare number, such as 40 or 0x28";
  return cat("write a number, such as 40 or 0x28; it counts ", unit);
}

// The power of ten that a unit with its prefix stands for.
int exponentOf(std::string_view suffix, std::string_view unit, std::string_view what, std::string_view text) {
  if (suffix.empty() || suffix == unit) return 0;
  if (unit == "bytes" && (suffix == "byte" || suffix == "B")) return 0;
  if (takesPrefixes(unit)) {
    for (const Prefix &prefix : kPrefixes) {
      if (suffix == cat(prefix.text, unit)) return prefix.exponent;
    }
  }
  refuse(what, text,
         unit.empty() ? cat("it has no unit, so \"", printable(suffix), "\" is one too many")
                      : cat("\"", printable(suffix), "\" is not its unit"),
         example(unit));
}

// Where the digits of a decimal number end.
size_t decimalLength(std::string_view text) {
  size_t at = text.find_first_not_of("+-0123456789.");
  if (at == std::string_view::npos) return text.size();
  if (text[at] != 'e' && text[at] != 'E') return at;
  size_t digits = at + 1;
  if (digits < text.size() && (text[digits] == '+' || text[digits] == '-')) ++digits;
  if (digits >= text.size() || !std::isdigit(static_cast<unsigned char>(text[digits]))) return at;
  const size_t end = text.find_first_not_of("0123456789", digits);
  return end == std::string_view::npos ? text.size() : end;
}

// "1.5e3" scaled by a power of ten, correctly rounded: the power goes into the exponent before conversion.
bool convert(std::string_view number, int exponent, double *value) {
  const size_t e = number.find_first_of("eE");
  int own = 0;
  if (e != std::string_view::npos) {
    std::string_view digits = number.substr(e + 1);
    if (digits.starts_with('+')) digits.remove_prefix(1);
    if (std::from_chars(digits.data(), digits.data() + digits.size(), own).ec != std::errc() || std::abs(own) > 9999) {
      return false;
    }
  }
  std::string_view mantissa = number.substr(0, e);
  if (mantissa.starts_with('+')) mantissa.remove_prefix(1);
  const std::string text = cat(mantissa, "e", own + exponent);
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *value);
  return error == std::errc() && end == text.data() + text.size() && std::isfinite(*value);
}

bool isHexadecimal(std::string_view text) { return text.starts_with("0x") || text.starts_with("0X"); }

}  // namespace

double parseNumber(std::string_view text, std::string_view unit, std::string_view what) {
  const std::string trimmed = trim(text);
  if (isHexadecimal(trimmed)) return static_cast<double>(parseWhole(text, unit, what, 0, uint64_t{1} << 53));
  const size_t length = decimalLength(trimmed);
  const std::string_view number = std::string_view(trimmed).substr(0, length);
  if (number.find_first_of("0123456789") == std::string_view::npos) refuse(what, text, "not a number", example(unit));
  const int exponent = exponentOf(trim(std::string_view(trimmed).substr(length)), unit, what, text);
  double value = 0;
  if (!convert(number, exponent, &value)) refuse(what, text, "not a number", example(unit));
  return value;
}

uint64_t parseWhole(std::string_view text, std::string_view unit, std::string_view what, uint64_t least,
                    uint64_t most) {
  const std::string trimmed = trim(text);
  const bool hexadecimal = isHexadecimal(trimmed);
  const char *begin = trimmed.data() + (hexadecimal ? 2 : 0), *end = trimmed.data() + trimmed.size();
  uint64_t value = 0;
  const auto parsed = std::from_chars(begin, end, value, hexadecimal ? 16 : 10);
  if (parsed.ec != std::errc() || parsed.ptr != end) {
    if (hexadecimal) refuse(what, text, "not a number", example(unit));
    const double number = parseNumber(text, unit, what);
    if (number < 0 || number > 9007199254740992.0 || number != std::floor(number)) {
      refuse(what, text, "not a whole number", cat("take one from ", least, " to ", most));
    }
    value = static_cast<uint64_t>(number);
  }
  if (value < least || value > most) refuse(what, text, "out of range", cat("take one from ", least, " to ", most));
  return value;
}

std::string parseBytes(std::string_view text, std::string_view what) {
  std::string bytes, digits;
  std::string spaced(text);
  std::replace(spaced.begin(), spaced.end(), ',', ' ');
  for (std::string_view word : split(spaced, ' ')) {
    if (isHexadecimal(word)) word.remove_prefix(2);
    digits += word.size() % 2 ? cat('0', word) : std::string(word);
  }
  for (size_t i = 0; i < digits.size(); i += 2) {
    unsigned byte = 0;
    const auto parsed = std::from_chars(&digits[i], &digits[i] + 2, byte, 16);
    if (parsed.ec != std::errc() || parsed.ptr != &digits[i] + 2) {
      refuse(what, text, "not hexadecimal bytes", "write bytes as two digits each, such as 9f or \"9f 00\"");
    }
    bytes += static_cast<char>(byte);
  }
  return bytes;
}

std::string numberText(double value) {
  char text[32];
  const auto [end, error] = std::to_chars(text, text + sizeof text, value);
  return error == std::errc() ? std::string(text, end) : "nan";
}

std::string quantity(double value, std::string_view unit, int digits) {
  std::string_view chosen;
  double shown = value;
  if (takesPrefixes(unit) && std::isfinite(value) && value != 0) {
    const bool length = unit == "m";
    for (const Prefix &prefix : kPrefixes) {
      if (prefix.text == "c" || prefix.text == "\xc2\xb5" || (length && (prefix.exponent < -3 || prefix.exponent > 3)))
        continue;
      const double scaled = value / std::pow(10, prefix.exponent);
      if (std::fabs(scaled) < (length && prefix.exponent == -3 ? 10 : 1000) &&
          std::fabs(scaled) >= (length ? 0.01 : 1)) {
        chosen = prefix.text;
        shown = scaled;
        break;
      }
    }
  }
  char text[64];
  std::snprintf(text, sizeof text, "%.*g", digits, shown);
  return unit.empty() ? text : cat(text, ' ', chosen, unit);
}

}  // namespace tool
