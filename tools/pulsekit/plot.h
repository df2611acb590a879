// Curves and images in the terminal, and through gnuplot as .svg or .png.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "commands.h"

namespace tool {

struct Plot {
  std::string title, x_label, y_label;
  double x_first = 0, x_step = 1;  ///< of the values of every curve, or of the columns of the image
  std::vector<std::pair<std::string, std::vector<double>>> curves;
  std::vector<std::vector<double>> image;  ///< instead of curves: lines from the lowest y on
  double y_first = 0, y_step = 1;          ///< of the lines of the image
};

/// As text of that many columns and lines. NaN leaves a gap.
std::string plotText(const Plot &plot, size_t columns, size_t lines);

/// Adds --plot, which may stand twice: "" for the terminal, or the name of a file.
void addPlotOption(const Command &command, Strings *plots);

/// Refuses a file name that is neither .svg nor .png, before anything is measured.
void checkPlotNames(const Options &options, const Strings &plots);

/// Returns the files that were made.
Strings showPlots(const Plot &plot, const Strings &plots);

}  // namespace tool
