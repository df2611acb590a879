// The library's settings files (docs/formats.md), read strictly.
#pragma once

#include <string>
#include <vector>

#include "radar.h"

namespace tool {

struct SettingsLine {
  size_t number;
  std::string name, value;
  bool automatic;
};

struct SettingsFile {
  std::string board, chip;          ///< board's name and chip ID as the file has them
  std::vector<SettingsLine> lines;  ///< what a load would set: no read-only lines
};

/// Refuses a line that is no setting.
SettingsFile parseSettings(const std::string &content, const std::string &path);

/// The value as text, as Variable::text gives it; refuses what is not in the variable's type and range.
std::string settingText(const SettingsLine &line, const Variable &variable, const std::string &path);

}  // namespace tool
