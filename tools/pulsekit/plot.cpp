#include "plot.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "files.h"
#include "number.h"
#include "output.h"
#include "system.h"

namespace tool {

namespace {

constexpr size_t kLabelWidth = 9;
constexpr size_t kLinesInTerminal = 18;

struct Extent {
  double least = std::numeric_limits<double>::infinity(), most = -std::numeric_limits<double>::infinity();
  void add(double value) {
    if (!std::isfinite(value)) return;
    least = std::min(least, value);
    most = std::max(most, value);
  }
  double span() const { return most - least; }
};

// A curve that is flat, or no curve at all, still gets a range.
Extent widened(Extent extent) {
  if (!std::isfinite(extent.least)) return {0, 1};
  if (extent.span() > 0) return extent;
  const double margin = extent.least == 0 ? 1 : std::fabs(extent.least) / 10;
  return {extent.least - margin, extent.most + margin};
}

// Dots in character cells: 2 x 4 dots of Braille, or one star where the terminal has no such characters.
class Canvas {
 public:
  Canvas(size_t columns, size_t lines)
      : braille_(speaksUtf8()), columns_(columns), lines_(lines), dots_(width() * height(), false) {}
  size_t width() const { return columns_ * (braille_ ? 2 : 1); }
  size_t height() const { return lines_ * (braille_ ? 4 : 1); }
  void set(size_t x, size_t y) { dots_[y * width() + x] = true; }
  std::string line(size_t line) const {
    std::string text;
    for (size_t column = 0; column < columns_; ++column) text += cell(column, line);
    return text;
  }

 private:
  bool dot(size_t x, size_t y) const { return dots_[y * width() + x]; }
  std::string cell(size_t column, size_t line) const {
    if (!braille_) return dot(column, line) ? "*" : " ";
    constexpr unsigned kBits[4][2] = {{0x01, 0x08}, {0x02, 0x10}, {0x04, 0x20}, {0x40, 0x80}};
    unsigned bits = 0;
    for (size_t y = 0; y < 4; ++y) {
      for (size_t x = 0; x < 2; ++x) bits |= dot(column * 2 + x, line * 4 + y) ? kBits[y][x] : 0;
    }
    return {'\xe2', static_cast<char>(0xa0 | bits >> 6), static_cast<char>(0x80 | (bits & 0x3f))};
  }
  bool braille_;
  size_t columns_, lines_;
  std::vector<bool> dots_;
};

std::string fitted(const std::string &text, size_t width, bool right) {
  const std::string space(width > columns(text) ? width - columns(text) : 0, ' ');
  return right ? space + text : text + space;
}

std::string tick(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.4g", value);
  return text;
}

// The labels of the x axis at its left end, middle and right end.
std::string xAxis(const Plot &plot, size_t count, size_t width) {
  const double last = plot.x_first + plot.x_step * static_cast<double>(std::max<size_t>(count, 1) - 1);
  const std::string left = tick(plot.x_first), right = tick(last), middle = tick((plot.x_first + last) / 2);
  std::string line = fitted(left, width / 2 - columns(middle) / 2, false) + middle;
  return line + fitted(right, width > columns(line) ? width - columns(line) : 0, true);
}

void drawCurve(Canvas &canvas, const std::vector<double> &values, const Extent &y) {
  const auto row = [&](double value) {
    const double share = std::clamp((value - y.least) / y.span(), 0.0, 1.0);
    return static_cast<size_t>((1 - share) * static_cast<double>(canvas.height() - 1) + 0.5);
  };
  const double per_dot =
      values.size() > 1 ? static_cast<double>(values.size() - 1) / static_cast<double>(canvas.width()) : 0;
  const auto at = [&](double position) {
    const auto index = std::min(static_cast<size_t>(position), values.size() - 1);
    const double share = position - static_cast<double>(index);
    const double next = values[std::min(index + 1, values.size() - 1)];
    return share == 0 ? values[index] : values[index] + (next - values[index]) * share;
  };
  for (size_t x = 0; x < canvas.width() && !values.empty(); ++x) {
    // Everything between the two edges of a column of dots, so that no peak is lost.
    const double from = static_cast<double>(x) * per_dot, to = static_cast<double>(x + 1) * per_dot;
    Extent covered;
    covered.add(at(from));
    covered.add(at(to));
    for (auto i = static_cast<size_t>(std::ceil(from)); static_cast<double>(i) < to; ++i) covered.add(values[i]);
    if (!std::isfinite(covered.least)) continue;
    for (size_t dot = row(covered.most); dot <= row(covered.least); ++dot) canvas.set(x, dot);
  }
}

std::string curvesText(const Plot &plot, size_t width, size_t lines) {
  Extent y;
  size_t count = 0;
  for (const auto &[name, values] : plot.curves) {
    for (const double value : values) y.add(value);
    count = std::max(count, values.size());
  }
  y = widened(y);
  Canvas canvas(width, lines);
  for (const auto &curve : plot.curves) drawCurve(canvas, curve.second, y);
  std::string text;
  for (size_t line = 0; line < lines; ++line) {
    const bool labelled = line == 0 || line == lines - 1 || line == lines / 2;
    const double value = y.most - y.span() * static_cast<double>(line) / static_cast<double>(lines - 1);
    text += cat(fitted(labelled ? tick(value) : "", kLabelWidth - 1, true), '|', canvas.line(line), '\n');
  }
  return cat(text, std::string(kLabelWidth, ' '), xAxis(plot, count, width), '\n');
}

std::string imageText(const Plot &plot, size_t width, size_t lines) {
  static constexpr std::string_view kShades = " .:-=+*#%@";
  Extent extent;
  for (const auto &row : plot.image) {
    for (const double value : row) extent.add(value);
  }
  extent = widened(extent);
  std::string text;
  const size_t rows = plot.image.size(), count = plot.image.empty() ? 0 : plot.image[0].size();
  for (size_t line = 0; line < lines && rows > 0; ++line) {
    const size_t row = (lines - 1 - line) * rows / lines;
    const bool labelled = line == 0 || line == lines - 1 || line == lines / 2;
    text +=
        cat(fitted(labelled ? tick(plot.y_first + plot.y_step * static_cast<double>(row)) : "", kLabelWidth - 1, true),
            '|');
    for (size_t column = 0; column < width; ++column) {
      const double share = (plot.image[row][column * count / width] - extent.least) / extent.span();
      text += kShades[std::min(static_cast<size_t>(std::max(share, 0.0) * kShades.size()), kShades.size() - 1)];
    }
    text += '\n';
  }
  return cat(text, std::string(kLabelWidth, ' '), xAxis(plot, count, width), '\n');
}

bool endsWith(const std::string &path, std::string_view extension) { return lower(path).ends_with(extension); }

std::string gnuplotText(std::string_view text) {
  std::string result = "'";
  for (const char c : printable(text)) result += c == '\'' ? std::string("''") : std::string(1, c);
  return result + "'";
}

// What gnuplot is told; the data follow within.
std::string gnuplotScript(const Plot &plot, const std::string &path, bool vector) {
  std::string script =
      cat("set terminal ", vector ? "svg size 900,450 dynamic background 'white'" : "pngcairo size 900,450",
          "\nset output ", gnuplotText(path), "\nset title ", gnuplotText(plot.title), " noenhanced\nset xlabel ",
          gnuplotText(plot.x_label), "\nset ylabel ", gnuplotText(plot.y_label), "\nset grid\nset key noenhanced\n");
  const auto x = [&](size_t i) { return numberText(plot.x_first + plot.x_step * static_cast<double>(i)); };
  const auto cell = [](double value) { return std::isfinite(value) ? numberText(value) : "NaN"; };
  if (!plot.image.empty()) {
    script += "$data << END\n";
    for (size_t row = 0; row < plot.image.size(); ++row) {
      const std::string y = numberText(plot.y_first + plot.y_step * static_cast<double>(row));
      for (size_t i = 0; i < plot.image[row].size(); ++i)
        script += cat(x(i), ' ', y, ' ', cell(plot.image[row][i]), '\n');
      script += '\n';
    }
    return script +
           "END\nset palette defined (0 'white', 1 'navy')\nset autoscale fix\nunset key\nplot $data with image\n";
  }
  std::string command = "plot ";
  for (size_t k = 0; k < plot.curves.size(); ++k) {
    const auto &[name, values] = plot.curves[k];
    script += cat("$data", k, " << END\n");
    for (size_t i = 0; i < values.size(); ++i) script += cat(x(i), ' ', cell(values[i]), '\n');
    script += "END\n";
    command += cat(k ? ", " : "", "$data", k, " with lines ", name.empty() ? "notitle" : "title " + gnuplotText(name));
  }
  return cat(script, command, '\n');
}

void runGnuplot(const std::string &script) {
  const char *missing = "install gnuplot (Debian: gnuplot-nox), or leave out the file name to plot in the terminal";
  const int code = feed("gnuplot", script);
  if (code == 127) throw Failure("gnuplot is not installed", missing);
  if (code != 0) throw Failure("gnuplot could not make the plot", "see its own message above");
}

}  // namespace

std::string plotText(const Plot &plot, size_t columns_wide, size_t lines) {
  const size_t width = std::max<size_t>(columns_wide, kLabelWidth + 20) - kLabelWidth;
  const size_t high = std::max<size_t>(lines, 6) - 2;
  const std::string body = plot.image.empty() ? curvesText(plot, width, high) : imageText(plot, width, high);
  return cat(plot.title, "   [", plot.y_label, " over ", plot.x_label, "]\n", body);
}

void addPlotOption(const Command &command, Strings *plots) {
  command.repeated("--plot", *plots, "Plot it in the terminal, or to FILE.svg or FILE.png; may stand twice")
      .takes("[FILE]");
}

void checkPlotNames(const Options &options, const Strings &plots) {
  for (const std::string &path : plots) {
    if (path.empty() && options.json)
      throw Usage("--plot in the terminal and --json exclude each other", "name a file to plot to");
    if (path.empty() || endsWith(path, ".svg") || endsWith(path, ".png")) continue;
    throw Usage(cat(path, ": plots are made as .svg or .png"), "end the name of the plot in .svg or .png");
  }
}

Strings showPlots(const Plot &plot, const Strings &plots) {
  Strings files;
  for (const std::string &path : plots) {
    if (path.empty()) {
      const TerminalSize size = terminalSize();
      print(plotText(plot, size.columns, std::min(size.lines, kLinesInTerminal + 2)));
      continue;
    }
    NewFile file(path);
    runGnuplot(gnuplotScript(plot, file.temporaryPath(), endsWith(path, ".svg")));
    file.commit();
    files.push_back(path);
  }
  return files;
}

}  // namespace tool
