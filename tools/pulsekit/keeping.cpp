// save, load, diff, store, restore: settings in files and in the board's flash.
#include <algorithm>
#include <bit>
#include <cmath>
#include <filesystem>
#include <memory>

#include "changes.h"
#include "commands.h"
#include "files.h"
#include "session.h"
#include "settings_file.h"
#include "system.h"

namespace tool {

namespace {

constexpr const char *kPower = "RadarModulePower";
constexpr uint64_t kAutomaticWord = 0x7fffffff;

// Files keep six digits after the point.
bool sameValue(const Variable &variable, const std::string &text) {
  if (text == "auto") return variable.automatic;
  if (variable.automatic) return false;
  if (!variable.isFloat()) return text == variable.text();
  const double kept = std::strtod(text.c_str(), nullptr), held = std::bit_cast<double>(variable.value);
  return std::fabs(kept - held) <= 1e-6 * std::max(std::fabs(kept), std::fabs(held));
}

// A file that does not hold what the radar holds is no good.
void verifyFile(const Radar &radar, const std::string &temporary, const std::string &path) {
  const SettingsFile file = parseSettings(readFile(temporary), path);
  if (file.chip.empty() || file.board.empty())
    throw Failure(cat(path, ": chip and board are missing in it"), "save again");
  size_t found = 0;
  for (const std::string &name : radar.variables()) {
    if (Radar::live(name)) continue;
    const Variable variable = radar.variable(name);
    if (!variable.writable || std::string_view(variable.layer) == "bridge") continue;
    const auto line =
        std::find_if(file.lines.begin(), file.lines.end(), [&](const SettingsLine &l) { return l.name == name; });
    if (line == file.lines.end() || !sameValue(variable, settingText(*line, variable, path))) {
      throw Failure(cat(path, ": ", name, " reads back differently"), "save again; the file was left as it was");
    }
    ++found;
  }
  if (found != file.lines.size())
    throw Failure(cat(path, ": lines too many"), "save again; the file was left as it was");
}

void save(const Options &options, const std::string &path) {
  const Radar radar(options);
  NewFile file(path);
  if (path == "-") {
    throw Usage("settings are saved to a file", "name it; pulsekit settings prints to standard output");
  }
  radar.check(QTX_VarsSaveToFile(radar, file.temporaryPath().c_str()));
  verifyFile(radar, file.temporaryPath(), path);
  file.commit();
  if (options.json) return printJson({{"file", path}, {"verified", true}});
  note(cat(path, ": settings of ", radar.attached().board, ' ', radar.attached().chip, ", verified"));
}

struct Checked {
  std::vector<Asked> settings;
  Strings complaints;
};

// All lines are looked at before anything is set.
Checked check(const Radar &radar, const SettingsFile &file, const std::string &path) {
  Checked result;
  const Strings known = radar.variables();
  for (const SettingsLine &line : file.lines) {
    if (std::find(known.begin(), known.end(), line.name) == known.end()) {
      const Strings near = nearest(line.name, known);
      result.complaints.push_back(cat(path, ':', line.number, ": unknown setting ", printable(line.name),
                                      near.empty() ? "" : cat(", near is ", join(near, ", "))));
      continue;
    }
    const Variable variable = radar.variable(line.name);
    const std::string text = settingText(line, variable, path);
    // Without power nothing that follows would reach the chip.
    if (line.name == kPower && text == "PowerOff") continue;
    result.settings.push_back({line.name, text, text});
  }
  char chip[16];
  std::snprintf(chip, sizeof chip, "0x%04X", static_cast<unsigned>(radar.whole("ChipID")));
  if (!file.chip.empty() && lower(file.chip) != lower(chip)) {
    result.complaints.push_back(
        cat(path, ": saved from a chip with ID ", printable(file.chip), ", this one has ", chip));
  }
  return result;
}

// The library applies the file; what it was told to skip is left out of the copy that it gets.
void apply(const Radar &radar, const SettingsFile &file, const Checked &checked, const std::string &content) {
  const auto keep = [&](const std::string &name) {
    return std::any_of(checked.settings.begin(), checked.settings.end(),
                       [&](const Asked &one) { return one.name == name; });
  };
  Strings lines = split(content, '\n');
  for (const SettingsLine &line : file.lines) {
    if (!keep(line.name)) lines[line.number - 1] = "; left out";
  }
  NewFile copy(nameOf(std::filesystem::temp_directory_path() / cat("pulsekit-load-", lower(radar.attached().serial))));
  copy.write(join(lines, "\n"));
  copy.flush();
  radar.check(QTX_VarsLoadFromFile(radar, copy.temporaryPath().c_str()));
}

void startAnewIfOff(const Radar &radar) {
  if (radar.whole(kPower) == 0) radar.check(QTX_PowerOnRadar(radar));
}

void load(const Options &options, const std::string &path, bool force) {
  const std::string content = readFile(path);
  const SettingsFile file = parseSettings(content, path);
  const Radar radar(options);
  const Checked checked = check(radar, file, path);
  if (!checked.complaints.empty() && !force) {
    throw Failure(join(checked.complaints, "\n"), "nothing was changed; --force loads what fits all the same");
  }
  for (const std::string &complaint : checked.complaints) note(complaint);
  startAnewIfOff(radar);
  const std::vector<Variable> before = snapshot(radar);
  apply(radar, file, checked, content);
  Strings different;
  for (const Asked &one : checked.settings) {
    if (!sameValue(radar.variable(one.name), one.text)) different.push_back(one.name);
  }
  keepSession(radar);
  if (!different.empty()) {
    throw Failure(cat("after loading ", path, " these hold something else: ", join(different, ", ")),
                  "pulsekit settings NAME tells what each follows");
  }
  reportChanges(options, radar, movedSince(radar, before));
}

void printDifferences(const Options &options, const Strings &headings, const std::vector<Strings> &rows) {
  if (options.json) {
    Json json = Json::array();
    for (const Strings &row : rows) json.push_back({{"name", row[0]}, {headings[1], row[1]}, {headings[2], row[2]}});
    return printJson(json);
  }
  if (rows.empty()) return note("No difference.");
  Table table(headings);
  for (const Strings &row : rows) table.add(row);
  table.print();
}

void diff(const Options &options, const std::string &path, const std::string &other_path) {
  const SettingsFile file = parseSettings(readFile(path), path);
  std::vector<Strings> rows;
  if (!other_path.empty()) {
    const SettingsFile other = parseSettings(readFile(other_path), other_path);
    const auto text = [](const SettingsFile &where, const std::string &name) -> std::string {
      for (const SettingsLine &line : where.lines) {
        if (line.name == name) return line.automatic ? "auto" : line.value;
      }
      return "-";
    };
    for (const SettingsLine &line : file.lines) {
      const std::string first = text(file, line.name), second = text(other, line.name);
      if (first != second) rows.push_back({line.name, printable(first), printable(second)});
    }
    for (const SettingsLine &line : other.lines) {
      if (text(file, line.name) == "-") rows.push_back({line.name, "-", printable(text(other, line.name))});
    }
    return printDifferences(options, {"name", path, other_path}, rows);
  }
  const Radar radar(options);
  const Strings known = radar.variables();
  for (const SettingsLine &line : file.lines) {
    if (std::find(known.begin(), known.end(), line.name) == known.end()) {
      rows.push_back({line.name, printable(line.value), "-"});
      continue;
    }
    const Variable variable = radar.variable(line.name);
    const std::string text = settingText(line, variable, path);
    if (!sameValue(variable, text)) rows.push_back({line.name, text, variable.automatic ? "auto" : variable.text()});
  }
  printDifferences(options, {"name", path, "radar"}, rows);
}

uint64_t wordAt(const std::string &bytes, size_t index) {
  uint64_t word = 0;
  for (size_t i = 8; i-- > 0;) word = word << 8 | static_cast<unsigned char>(bytes[index * 8 + i]);
  return word;
}

// What holds something else than the record in the flash. The record has a word for each variable of the board, then of
// the chip, in the order of the list.
Strings differentFromRecord(const Radar &radar) {
  std::vector<Variable> variables = radar.variables({});
  std::erase_if(variables, [](const Variable &variable) { return std::string_view(variable.layer) == "bridge"; });
  std::string record((variables.size() + 3) * 8, '\0');
  radar.check(QTX_ModuleReadFlashMemory(radar, static_cast<uint32_t>(radar.whole("AddressOfVariableStorage")),
                                        reinterpret_cast<uint8_t *>(record.data()),
                                        static_cast<int32_t>(record.size())));
  Strings different;
  for (size_t i = 0; i < variables.size(); ++i) {
    const Variable &variable = variables[i];
    if (!variable.writable) continue;
    uint64_t held = 0;
    radar.check(QTX_VarGetValue_ByName(radar, variable.name.c_str(), &held));
    if (wordAt(record, i + 2) != (variable.automatic ? kAutomaticWord : held)) different.push_back(variable.name);
  }
  return different;
}

void store(const Options &options) {
  const Radar radar(options);
  {
    const Uninterrupted whole_block;
    radar.check(QTX_VarsSaveToFlash(radar));
  }
  if (const Strings different = differentFromRecord(radar); !different.empty()) {
    throw Failure(cat("the flash holds something else for ", join(different, ", ")),
                  "store again; if it stays so, the flash is worn");
  }
  if (options.json) return printJson({{"address", radar.whole("AddressOfVariableStorage")}, {"verified", true}});
  note(cat("Settings stored in the flash of ", radar.attached().serial, ", verified"));
}

void restore(const Options &options) {
  const Radar radar(options);
  startAnewIfOff(radar);
  const std::vector<Variable> before = snapshot(radar);
  radar.check(QTX_VarsLoadFromFlash(radar));
  const Strings different = differentFromRecord(radar);
  keepSession(radar);
  if (!different.empty()) {
    throw Failure(cat("these hold something else than the flash: ", join(different, ", ")),
                  "pulsekit settings NAME tells what each follows");
  }
  reportChanges(options, radar, movedSince(radar, before));
}

}  // namespace

void addKeepingCommands(const Command &program, const Options &options) {
  const auto with_file = [&](const char *name, const char *help, auto run) {
    const Command command = program.add(name, help);
    const auto path = std::make_shared<std::string>();
    command.argument("FILE", *path, "Settings file").required();
    command.runs([&options, path, run] { run(options, *path); });
    return command;
  };
  with_file("save", "Keep settings in a file, verified by reading it back", save);
  const auto force = std::make_shared<bool>(false);
  with_file("load", "Apply a settings file", [force](const Options &o, const std::string &path) {
    load(o, path, *force);
  }).flag("--force", *force, "Skip unknown settings, take settings of another chip");
  const auto other = std::make_shared<std::string>();
  with_file("diff", "Compare a settings file with the radar, or with another file",
            [other](const Options &o, const std::string &path) { diff(o, path, *other); })
      .argument("OTHER", *other, "The other file");
  program.add("store", "Keep settings in the board's flash, verified by reading it back").runs([&options] {
    store(options);
  });
  program.add("restore", "Apply the settings in the board's flash").runs([&options] { restore(options); });
}

}  // namespace tool
