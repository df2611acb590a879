// Numbers as people write them: decimal, hexadecimal, with a unit and its prefix. Anything else is refused.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "failure.h"

namespace tool {

/// A number in the base unit: "1.5ns" with unit "s" is 1.5e-9. The unit may be left out. `what` names the number in the
/// refusal. Units: s, Hz, m, %, bytes, or any word, which then only stands for itself; "" takes a bare number.
double parseNumber(std::string_view text, std::string_view unit, std::string_view what);

/// The same for whole numbers in [least, most]; "0x20" is 32.
uint64_t parseWhole(std::string_view text, std::string_view unit, std::string_view what, uint64_t least, uint64_t most);

/// A list of bytes: "de ad be ef", "deadbeef" or "0xde,0xad".
std::string parseBytes(std::string_view text, std::string_view what);

/// The shortest text that reads back as the same number.
std::string numberText(double value);

/// For people: "1.334 ns", "36 GHz", "0.2 m", "12.5 %", with that many significant digits.
std::string quantity(double value, std::string_view unit, int digits = 5);

}  // namespace tool
