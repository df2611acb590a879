// What a command prints: tables and JSON on standard output, everything else on standard error.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "text.h"

namespace tool {

using Json = nlohmann::ordered_json;

enum class Style { Plain, Bold, Dim, Red, Green, Yellow };

/// The text in a style, where standard output (or error) is a terminal that is not told to be plain by NO_COLOR.
std::string styled(std::string_view text, Style style, FILE *stream = stdout);

/// Standard output; a failure to write ends the command.
void print(std::string_view text);
void printLine(std::string_view text);
void printJson(const Json &json);

/// A remark that is not the result.
void note(std::string_view text);

/// Rows of cells in columns. The last column breaks into lines where the terminal ends.
class Table {
 public:
  explicit Table(Strings headings) : headings_(std::move(headings)) {}
  void add(Strings cells, Style style = Style::Plain) { rows_.push_back({std::move(cells), style}); }
  bool empty() const { return rows_.empty(); }
  void print() const;

 private:
  struct Row {
    Strings cells;
    Style style;
  };
  std::vector<size_t> widths() const;
  Strings headings_;
  std::vector<Row> rows_;
};

/// A bar on standard error with the time that is left, for what takes more than a second; nothing where that is no
/// terminal. What can't count its steps gives the seconds that it is expected to take, or 0 when it can't tell.
class Progress {
 public:
  Progress(std::string what, uint64_t steps);
  static Progress expecting(std::string what, double seconds) { return Progress(std::move(what), 0, seconds); }
  ~Progress();
  Progress(const Progress &) = delete;
  Progress &operator=(const Progress &) = delete;
  void reached(uint64_t step) { step_ = step; }

 private:
  Progress(std::string what, uint64_t steps, double expected);
  void run();
  void draw(double seconds);
  std::string what_;
  uint64_t steps_;
  double expected_;
  std::atomic<uint64_t> step_ = 0;
  std::atomic<bool> ended_ = false;
  bool drawn_ = false;
  std::thread thread_;
};

}  // namespace tool
