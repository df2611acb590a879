#include "text.h"

#include <algorithm>
#include <cctype>
#include <numeric>

namespace tool {

namespace {

char lowerCase(char character) { return static_cast<char>(std::tolower(static_cast<unsigned char>(character))); }

bool wildcardMatches(std::string_view text, std::string_view pattern) {
  size_t at = 0, in_pattern = 0, star = std::string_view::npos, star_at = 0;
  while (at < text.size()) {
    if (in_pattern < pattern.size() && pattern[in_pattern] == '*') {
      star = in_pattern++;
      star_at = at;
    } else if (in_pattern < pattern.size() && (pattern[in_pattern] == '?' || pattern[in_pattern] == text[at])) {
      ++at, ++in_pattern;
    } else if (star != std::string_view::npos) {
      in_pattern = star + 1;
      at = ++star_at;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of('*', in_pattern) == std::string_view::npos;
}

size_t editDistance(std::string_view from, std::string_view to) {
  std::vector<size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 0; i < from.size(); ++i) {
    size_t diagonal = row[0]++;
    for (size_t j = 0; j < to.size(); ++j) {
      const size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
    }
  }
  return row.back();
}

}  // namespace

Strings split(std::string_view text, char delimiter) {
  Strings parts;
  for (size_t start = 0;;) {
    const size_t end = text.find(delimiter, start);
    parts.emplace_back(text.substr(start, end - start));
    if (end == std::string_view::npos) return parts;
    start = end + 1;
  }
}

std::string join(const Strings &parts, std::string_view between) {
  std::string result;
  for (const std::string &part : parts) {
    if (&part != &parts.front()) result += between;
    result += part;
  }
  return result;
}

std::string lower(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), lowerCase);
  return result;
}

std::string trim(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  return std::string(text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1));
}

std::string singular(std::string_view unit) {
  if (unit.ends_with('s')) unit.remove_suffix(unit.ends_with("sses") ? 2 : 1);
  return std::string(unit);
}

std::string counted(size_t count, std::string_view noun) { return cat(count, ' ', noun, count == 1 ? "" : "s"); }

bool matches(std::string_view text, std::string_view pattern) {
  const std::string small_text = lower(text), small_pattern = lower(pattern);
  if (pattern.find_first_of("*?") == std::string_view::npos) return small_text.find(small_pattern) != std::string::npos;
  return wildcardMatches(small_text, small_pattern);
}

Strings nearest(std::string_view word, const Strings &candidates) {
  const std::string wanted = lower(word);
  const size_t limit = std::max<size_t>(2, wanted.size() / 3);
  std::vector<std::pair<size_t, std::string>> ranked;
  for (const std::string &candidate : candidates) {
    const size_t distance = editDistance(wanted, lower(candidate));
    if (distance <= limit) ranked.emplace_back(distance, candidate);
  }
  std::stable_sort(ranked.begin(), ranked.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
  Strings result;
  for (size_t i = 0; i < ranked.size() && i < 3; ++i) result.push_back(ranked[i].second);
  return result;
}

Strings wrap(std::string_view text, size_t width) {
  Strings lines(1);
  for (const std::string &word : split(text, ' ')) {
    if (!lines.back().empty() && columns(lines.back()) + 1 + columns(word) > width) lines.emplace_back();
    lines.back() += cat(lines.back().empty() ? "" : " ", word);
  }
  return lines;
}

size_t columns(std::string_view text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xc0) != 0x80; }));
}

std::string printable(std::string_view bytes) {
  std::string result(bytes);
  std::replace_if(
      result.begin(), result.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
  return result;
}

}  // namespace tool
