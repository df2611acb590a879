#include "settings_file.h"

#include "number.h"

namespace tool {

namespace {

constexpr std::string_view kSection = "[Pulsekit variables]";
constexpr std::string_view kAutomatic = "<auto>_";
constexpr std::string_view kSentinel = "2147483647";

std::string after(const std::string &line, std::string_view start) {
  return line.starts_with(start) ? trim(std::string_view(line).substr(start.size())) : "";
}

}  // namespace

SettingsFile parseSettings(const std::string &content, const std::string &path) {
  SettingsFile file;
  bool inside = false, found = false;
  size_t number = 0;
  for (std::string line : split(content, '\n')) {
    ++number;
    if (line.ends_with('\r')) line.pop_back();
    if (line.starts_with(';')) {
      if (const std::string board = after(line, "; ModuleID="); !board.empty()) file.board = board;
      if (const std::string chip = after(line, "; ChipID="); !chip.empty()) file.chip = chip;
      continue;
    }
    if (line.starts_with('[')) {
      inside = line.starts_with(kSection);
      found = found || inside;
      continue;
    }
    if (!inside || line.empty() || line.find("<read_only>") != std::string::npos) continue;
    const size_t equals = line.find('=');
    if (equals == std::string::npos || equals == 0) {
      throw Failure(cat(path, ':', number, ": no setting: ", printable(line)),
                    "write NAME=VALUE, or ; before a comment");
    }
    const std::string value = line.substr(equals + 1);
    const bool automatic = value.starts_with(kAutomatic) || value == kSentinel || value == "auto";
    file.lines.push_back({number, line.substr(0, equals), value, automatic});
  }
  if (!found) throw Failure(cat(path, ": no settings file"), cat("settings stand below a line ", kSection));
  return file;
}

std::string settingText(const SettingsLine &line, const Variable &variable, const std::string &path) {
  if (line.automatic) return "auto";
  try {
    if (!variable.isEnum()) return variable.parse(line.value);
    return variable.items.at(parseWhole(line.value, "", line.name, 0, variable.items.size() - 1));
  } catch (const Usage &usage) {
    throw Failure(cat(path, ':', line.number, ": ", usage.what()), usage.remedy());
  }
}

}  // namespace tool
