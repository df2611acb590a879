// Numbers as slots and as text. Independent of the process's locale, so that files read the same everywhere.
#pragma once

#include <bit>
#include <cstdint>
#include <string>

namespace pulsekit {

inline double bitsToDouble(uint64_t bits) { return std::bit_cast<double>(bits); }
inline uint64_t doubleToBits(double value) { return std::bit_cast<uint64_t>(value); }

// Both skip leading blanks, take a sign, stop at the first character that is not part of the number, and give 0 for a
// text that is none. An integer beyond 64 bits gives the largest, a negative one the lowest of 64 bits with a sign.
uint64_t parseInteger(const char *text);
double parseDouble(const char *text);

// The same, but false unless the whole text is a number; blanks may stand around it.
bool strictInteger(const char *text, uint64_t *value);
bool strictDouble(const char *text, double *value);

// As "%e" and "%.<precision>f".
std::string formatExponent(double value);
std::string formatFixed(double value, int precision);

}  // namespace pulsekit
