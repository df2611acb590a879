#include "session.h"

#include <algorithm>
#include <cctype>
#include <charconv>
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

constexpr std::string_view kCalibration = "; Calibration in flash block ";

std::optional<uint32_t> calibrationIn(const std::string &session) {
  const size_t at = session.find(kCalibration);
  if (at == std::string::npos) return {};
  uint32_t block = 0;
  const char *number = session.data() + at + kCalibration.size();
  if (std::from_chars(number, session.data() + session.size(), block).ec != std::errc()) return {};
  return block;
}

void keep(const Radar &radar, const std::string &path, std::optional<uint32_t> calibration) {
  std::string lines;
  bool calibrated = false;
  for (const std::string &name : radar.variables()) {
    if (Radar::live(name)) continue;
    const Variable variable = radar.variable(name);
    if (!variable.writable || variable.automatic || !variable.visible || name == kPower) continue;
    calibrated = calibrated || name == "SamplesPerSecond";
    const std::string value = variable.isEnum() ? cat(variable.value) : variable.text();
    lines += cat(name, '=', value, '\n');
  }
  std::error_code ignored;
  if (lines.empty()) {
    fs::remove(pathOf(path), ignored);
    return;
  }
  NewFile file(path);
  file.write("; What pulsekit has set\n");
  if (calibration && calibrated) file.write(cat(kCalibration, *calibration, '\n'));
  file.write(cat("[Pulsekit variables]\n", lines));
  file.commit();
}

}  // namespace

void resumeSession(const Radar &radar) {
  const std::string path = sessionPath(radar);
  std::error_code error;
  if (path.empty() || !fs::exists(pathOf(path), error)) return;
  // Before the settings, which may have been changed after the calibration.
  const std::optional<uint32_t> calibration = calibrationIn(readFile(path));
  if (calibration && loadCalibration(radar, *calibration) != 0)
    note(cat("The calibration in flash block ", *calibration, " is gone; only its means are known."));
  if (const int32_t code = QTX_VarsLoadFromFile(radar, path.c_str())) {
    const Failure cause = failure(radar, code);
    throw Failure(cat("what was set before can't be applied again: ", cause.what()),
                  "start from the automatic values with pulsekit --fresh reset", cause.trace());
  }
  if (calibration) placeWindow(radar);
}

void keepSession(const Radar &radar) {
  const std::string path = sessionPath(radar);
  if (path.empty()) return;
  std::error_code error;
  keep(radar, path, fs::exists(pathOf(path), error) ? calibrationIn(readFile(path)) : std::nullopt);
}

void keepCalibration(const Radar &radar, std::optional<uint32_t> block) {
  if (const std::string path = sessionPath(radar); !path.empty()) keep(radar, path, block);
}

int32_t loadCalibration(const Radar &radar, uint32_t block) {
  const Variable fine = radar.variable("DelayFineTune");
  if (const int32_t code = QTX_TimingMeasurementLoadDataFromFlash(radar, block)) return code;
  if (radar.number(fine.name) > 0) return 0;
  return QTX_VarSetValue_ByString(radar, fine.name.c_str(), fine.automatic ? "auto" : fine.text().c_str());
}

void placeWindow(const Radar &radar) {
  const Variable delay = radar.variable("SampleDelay");
  radar.check(QTX_VarSetValue_ByString(radar, "SampleDelay", delay.automatic ? "auto" : delay.text().c_str()));
}

}  // namespace tool
