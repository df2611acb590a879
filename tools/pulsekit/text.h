// Small helpers for texts.
#pragma once

#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace tool {

using Strings = std::vector<std::string>;

/// Joins texts, characters and integers.
template <typename... Parts>
std::string cat(const Parts &...parts) {
  std::string result;
  const auto append = [&result](const auto &part) {
    if constexpr (std::is_convertible_v<decltype(part), std::string_view>) {
      result += std::string_view(part);
    } else if constexpr (std::is_same_v<std::decay_t<decltype(part)>, char>) {
      result += part;
    } else {
      result += std::to_string(part);
    }
  };
  (append(parts), ...);
  return result;
}

Strings split(std::string_view text, char delimiter);
std::string join(const Strings &parts, std::string_view between);
std::string lower(std::string_view text);
std::string trim(std::string_view text);

/// The unit of one: "pulse" of "pulses", "pass" of "passes".
std::string singular(std::string_view unit);

/// "1 frame", "2 frames".
std::string counted(size_t count, std::string_view noun);

/// Shell-like pattern of * and ?; without either, any text that contains the pattern matches. Cases count as equal.
bool matches(std::string_view text, std::string_view pattern);

/// The candidates that look most like the word, at most three; empty when none is close.
Strings nearest(std::string_view word, const Strings &candidates);

/// Breaks a text into lines of at most width characters.
Strings wrap(std::string_view text, size_t width);

/// Characters on the screen, which are fewer than bytes in UTF-8.
size_t columns(std::string_view text);

/// Printable form of bytes that came from outside: control characters become "?".
std::string printable(std::string_view bytes);

}  // namespace tool
