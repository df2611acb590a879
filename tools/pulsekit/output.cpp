#include "output.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "failure.h"
#include "system.h"

namespace tool {

namespace {

constexpr double kWorthABar = 1.0;  // seconds
constexpr auto kRedraw = std::chrono::milliseconds(100);

bool coloured(FILE *stream) {
  const char *plain = std::getenv("NO_COLOR");
  return isTerminal(stream) && !(plain && *plain);
}

const char *escape(Style style) {
  switch (style) {
    case Style::Bold:
      return "\033[1m";
    case Style::Dim:
      return "\033[2m";
    case Style::Red:
      return "\033[31m";
    case Style::Green:
      return "\033[32m";
    case Style::Yellow:
      return "\033[33m";
    case Style::Plain:
      break;
  }
  return "";
}

std::string padded(std::string_view text, size_t width) {
  std::string result(text);
  if (const size_t used = columns(text); used < width) result.append(width - used, ' ');
  return result;
}

std::string duration(double seconds) {
  const auto whole = static_cast<uint64_t>(std::ceil(seconds));
  if (whole < 60) return cat(whole, " s");
  if (whole < 3600) return cat(whole / 60, " min ", whole % 60, " s");
  return cat(whole / 3600, " h ", whole / 60 % 60, " min");
}

}  // namespace

std::string styled(std::string_view text, Style style, FILE *stream) {
  if (style == Style::Plain || !coloured(stream)) return std::string(text);
  return cat(escape(style), text, "\033[0m");
}

void print(std::string_view text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
    throw Failure(cat("standard output: ", std::strerror(errno)), "check where the output goes");
  }
}

void printLine(std::string_view text) { print(cat(text, '\n')); }

void printJson(const Json &json) { printLine(json.dump(2, ' ', false, Json::error_handler_t::replace)); }

void note(std::string_view text) {
  const std::string line = cat(styled(text, Style::Dim, stderr), '\n');
  std::fwrite(line.data(), 1, line.size(), stderr);
}

std::vector<size_t> Table::widths() const {
  std::vector<size_t> result(headings_.size());
  for (size_t i = 0; i < headings_.size(); ++i) {
    result[i] = columns(headings_[i]);
    for (const Row &row : rows_) {
      if (i < row.cells.size()) result[i] = std::max(result[i], columns(row.cells[i]));
    }
  }
  return result;
}

void Table::print() const {
  const std::vector<size_t> width = widths();
  size_t last_column = 0;
  for (size_t i = 0; i + 1 < width.size(); ++i) last_column += width[i] + 2;
  const bool breaks = isTerminal(stdout);
  const size_t room = std::max<size_t>(terminalSize().columns, last_column + 24) - last_column;
  const auto line = [&](const Strings &cells, Style style) {
    std::string text;
    for (size_t i = 0; i + 1 < cells.size(); ++i) text += padded(cells[i], width[i] + 2);
    const Strings lines = cells.empty() ? Strings{} : breaks ? wrap(cells.back(), room) : Strings{cells.back()};
    for (size_t i = 0; i < lines.size(); ++i) {
      if (i > 0) text += cat('\n', std::string(last_column, ' '));
      text += lines[i];
    }
    text.erase(text.find_last_not_of(' ') + 1);
    printLine(styled(text, style));
  };
  const bool headed =
      std::any_of(headings_.begin(), headings_.end(), [](const std::string &heading) { return !heading.empty(); });
  if (headed) line(headings_, Style::Bold);
  for (const Row &row : rows_) line(row.cells, row.style);
}

Progress::Progress(std::string what, uint64_t steps) : Progress(std::move(what), steps, 0) {}

Progress::Progress(std::string what, uint64_t steps, double expected)
    : what_(std::move(what)), steps_(steps), expected_(expected) {
  if (isTerminal(stderr)) thread_ = std::thread([this] { run(); });
}

Progress::~Progress() {
  ended_ = true;
  if (thread_.joinable()) thread_.join();
  if (drawn_) std::fputs("\r\033[K", stderr);
}

void Progress::run() {
  const auto start = std::chrono::steady_clock::now();
  while (!ended_) {
    std::this_thread::sleep_for(kRedraw);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (!ended_ && seconds > kWorthABar) draw(seconds);
  }
}

void Progress::draw(double seconds) {
  const uint64_t step = step_;
  double share = 0;
  if (steps_ > 0) {
    share = std::min(1.0, static_cast<double>(step) / static_cast<double>(steps_));
  } else if (expected_ > 0) {
    share = std::min(0.99, seconds / expected_);
  }
  std::string line = what_;
  if (steps_ > 0 || expected_ > 0) {
    constexpr size_t kWidth = 24;
    const auto full = static_cast<size_t>(share * kWidth);
    line +=
        cat(" [", std::string(full, '#'), std::string(kWidth - full, '.'), "] ", static_cast<int>(share * 100), " %");
    if (steps_ > 0) line += cat(", ", step, " of ", steps_);
    if (share > 0) line += cat(", ", duration(seconds * (1 - share) / share), " left");
  } else {
    line += step > 0 ? cat(", ", step, " so far, ", duration(seconds)) : cat(", ", duration(seconds));
  }
  std::fputs(cat("\r", line.substr(0, terminalSize().columns - 1), "\033[K").c_str(), stderr);
  drawn_ = true;
}

}  // namespace tool
