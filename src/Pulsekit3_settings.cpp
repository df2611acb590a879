// The settings file and the reset of all settings.
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "Pulsekit3.h"
#include "advice.h"
#include "calls.h"
#include "platform/platform.h"
#include "stream.h"
#include "support/handle_state.h"
#include "support/numbers.h"

using namespace pulsekit;

static constexpr const char kSource[] = "src/Pulsekit3";

namespace {

constexpr char kSectionHeader[] = "[Pulsekit variables]";
constexpr char kReadOnlyMark[] = "<read_only>";
constexpr char kAutoMark[] = "<auto>_";
constexpr int kLineSize = 1024;

struct CloseFile {
  void operator()(FILE *file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;

std::string headerLines(const QTX_Handle *handle) {
  char time_text[64];
  platform::localTimeText(std::time(nullptr), time_text);
  std::string text = std::string("; Generated ") + time_text;
  text += std::string("; Pulsekit version: ") + QTX_SupportVersion() + "\n";
  if (const ModuleHandle *module = handle->module) {
    const char *name = module->board_name;
    text += "; ModuleID=" + std::string(name, strnlen(name, sizeof module->board_name)) + "\n";
  }
  if (handle->chip) {
    char id[32];
    std::snprintf(id, sizeof id, "; ChipID=0x%04x\n", unsigned{handle->chip->chip_id});
    text += id;
  }
  return text + kSectionHeader + "\n";
}

const char *stateMark(const Variable &variable) {
  if (variable.flags & VAR_FLAGS_NOT_WRITABLE) return "<read_only>_";
  return variable.flags & VAR_FLAG_AUTO ? kAutoMark : "";
}

// One line for each variable of the set.
int32_t appendVariables(std::string &text, QTX_StackTrace *record, VariableSet *set, TracePoint type_failed,
                        TracePoint item_failed) {
  for (int32_t i = 0; set && i < set->count; ++i) {
    Variable *variable = &set->variables[i];
    text += varGetName(set, variable);
    text += '=';
    text += stateMark(*variable);
    uint32_t type = 0;
    if (int32_t code = varGetType(set, variable, &type)) return passThrough(record, type_failed, code);
    if (type == VAR_FLAG_INT) {
      text += std::to_string(variable->value);
    } else if (type == VAR_FLAG_FLOAT) {
      text += formatExponent(bitsToDouble(variable->value));
    } else if (type == VAR_FLAG_ENUM) {
      int32_t index = -1;
      if (int32_t code = varGetEnumIndex(set, variable, static_cast<uint32_t>(variable->value), &index)) {
        return passThrough(record, item_failed, code);
      }
      text += std::to_string(index);
    }
    text += '\n';
  }
  return kSuccess;
}

// Sets what one line says. A failure's trace point goes to *line.
int32_t applySetting(QTX_Handle *handle, const char *name, const char *value, int *line) {
  if (std::strstr(value, kAutoMark)) {
    *line = 2129;
    return QTX_VarSetIntValue_ByName(handle, name, VAR_AUTO);
  }
  uint32_t type = 0;
  *line = 2139;
  if (int32_t code = QTX_VarGetType_ByName(handle, name, &type)) return code;
  if (type == VAR_FLAG_ENUM) {
    *line = 2147;
    return QTX_VarSetIntValue_ByName(handle, name, static_cast<int64_t>(parseInteger(value)));
  }
  *line = 2156;
  return QTX_VarSetValue_ByString(handle, name, value);
}

// Variables that follow their automatic values may do so from settings further down in what is loaded.
struct Following {
  VariableSet *set;
  Variable *variable;
};

int32_t follow(const std::vector<Following> &variables) {
  for (const auto &[set, variable] : variables) {
    if (!(variable->flags & VAR_FLAG_AUTO)) continue;
    if (int32_t code = varSetIntValue(set, variable, VAR_AUTO)) return code;
  }
  return kSuccess;
}

// Splits a line of the section at its first '='; null when it sets nothing.
char *splitSetting(char *line) {
  if (std::strstr(line, kReadOnlyMark)) return nullptr;
  line[std::strcspn(line, "\r\n")] = '\0';
  char *equals = std::strchr(line, '=');
  if (!equals) return nullptr;
  *equals = '\0';
  return equals + 1;
}

// Puts the writable variables of a set back to their automatic values.
int32_t resetVariables(QTX_StackTrace *record, VariableSet *set, TracePoint failed) {
  for (int32_t i = 0; set && i < set->count; ++i) {
    Variable *variable = &set->variables[i];
    if (variable->flags & VAR_FLAGS_NOT_WRITABLE) continue;
    if (int32_t code = varSetIntValue(set, variable, VAR_AUTO)) return passThrough(record, failed, code);
  }
  return kSuccess;
}

}  // namespace

extern "C" {

int32_t QTX_VarsSaveToFile(QTX_Handle *handle, const char *path) try {
  if (int32_t code = checkCall(handle, HERE, path)) return code;
  platform::FileReplacement file(path);
  if (!file)
    return failedWith(handle, origin(handle->error, HERE_AT(1928), kCouldNotOpenFile, "Could not open file for write"),
                      path);

  std::string text = headerLines(handle);
  if (handle->module) {
    text += "; Module variables\n";
    if (int32_t code = appendVariables(text, handle->error, handle->module->variables, HERE_AT(1971), HERE_AT(1984))) {
      return code;
    }
  }
  if (handle->chip) {
    text += "; Chip variables\n";
    if (int32_t code = appendVariables(text, handle->error, handle->chip->variables, HERE_AT(2014), HERE_AT(2027))) {
      return code;
    }
  }
  if (!file.commit(text)) return origin(handle->error, HERE, kCouldNotOpenFile, "Error writing file");
  return kSuccess;
} catch (const std::bad_alloc &) {
  return origin(handle->error, HERE, kOutOfMemory);
}

int32_t QTX_VarsLoadFromFile(QTX_Handle *handle, const char *path) try {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE, path)) return code;
  const SettingsChange change(handle);
  const File file(platform::openFile(path, "rb"));
  if (!file)
    return failedWith(handle, origin(handle->error, HERE_AT(2058), kCouldNotOpenFile, "Could not open file for read"),
                      path);

  const Restoring restoring(handle);
  char line[kLineSize];
  bool in_section = false;
  int32_t unknown = 0;
  std::vector<Following> following;
  while (std::fgets(line, sizeof line, file.get())) {
    if (line[0] == ';') continue;
    if (line[0] == '[') {
      in_section = std::strncmp(line, kSectionHeader, sizeof kSectionHeader - 1) == 0;
      continue;
    }
    const char *value = in_section ? splitSetting(line) : nullptr;
    if (!value) continue;
    Variable *variable = nullptr;
    VariableSet *set = nullptr;
    if (findVariable_ByName(handle, line, &variable, &set) != kSuccess) {
      ++unknown;
      continue;
    }
    int point = 0;
    if (int32_t code = applySetting(handle, line, value, &point)) {
      return passThrough(handle->error, HERE_AT(point), code);
    }
    if (variable->flags & VAR_FLAG_AUTO) following.push_back({set, variable});
  }
  if (std::ferror(file.get())) return origin(handle->error, HERE_AT(2171), kCouldNotOpenFile, "Error reading file");
  if (int32_t code = follow(following)) return passThrough(handle->error, HERE_AT(2129), code);
  if (unknown == 0) return kSuccess;
  return origin(handle->error, HERE_AT(2182), kError, "Skipped " + std::to_string(unknown) + " unknown variables");
} catch (const std::bad_alloc &) {
  return origin(handle->error, HERE, kOutOfMemory);
}

int32_t QTX_VarsResetAllToDefault(QTX_Handle *handle) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE)) return code;
  const SettingsChange change(handle);
  if (!handle->module) return origin(handle->error, HERE, kModuleNotInitialized);
  if (!handle->chip) return origin(handle->error, HERE, kChipNotInitialized);
  VariableSet *module = handle->module->variables;
  VariableSet *chip = handle->chip->variables;
  if (int32_t code = resetVariables(handle->error, module, HERE_AT(2204))) return code;
  chipSettingsReset(handle->chip);
  if (int32_t code = resetVariables(handle->error, chip, HERE_AT(2219))) return code;
  if (int32_t code = module ? varsUpdateAllBackends(module) : int32_t{kSuccess}) {
    return passThrough(handle->error, HERE_AT(2232), code);
  }
  if (int32_t code = chip ? varsUpdateAllBackends(chip) : int32_t{kSuccess}) {
    return passThrough(handle->error, HERE_AT(2238), code);
  }
  return kSuccess;
}

}  // extern "C"
