#include "session.h"

#include <algorithm>
#include <cctype>
#include <filesystem>

#include "files.h"
#include "output.h"
#include "settings_file.h"
#include "system.h"

namespace tool {

namespace fs = std::filesystem;

namespace {

// Opening powers the board up.
constexpr const char *kPower = "RadarModulePower";

std::string sessionPath(const Radar &radar) {
  const std::string directory = sessionDirectory();
  if (directory.empty()) return {};
  std::string name = cat(radar.attached().serial, '-', radar.attached().board, '-', radar.attached().chip);
  std::replace_if(
      name.begin(), name.end(), [](unsigned char c) { return !std::isalnum(c) && c != '-'; }, '_');
  return cat(directory, '/', name, ".settings");
}

}  // namespace

void resumeSession(const Radar &radar) {
  const std::string path = sessionPath(radar);
  std::error_code error;
  if (path.empty() || !fs::exists(path, error)) return;
  if (const int32_t code = QTX_VarsLoadFromFile(radar, path.c_str())) {
    const Failure cause = failure(radar, code);
    throw Failure(cat("what was set before can't be applied again: ", cause.what()),
                  "start from the automatic values with pulsekit --fresh reset", cause.trace());
  }
}

void keepSession(const Radar &radar) {
  const std::string path = sessionPath(radar);
  if (path.empty()) return;
  std::string lines;
  for (const std::string &name : radar.variables()) {
    if (Radar::live(name)) continue;
    const Variable variable = radar.variable(name);
    if (!variable.writable || variable.automatic || !variable.visible || name == kPower) continue;
    const std::string value = variable.isEnum() ? cat(variable.value) : variable.text();
    lines += cat(name, '=', value, '\n');
  }
  std::error_code ignored;
  if (lines.empty()) {
    fs::remove(path, ignored);
    return;
  }
  NewFile file(path);
  file.write(cat("; What pulsekit has set\n[Pulsekit variables]\n", lines));
  file.commit();
}

}  // namespace tool
