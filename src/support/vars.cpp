#include "vars.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include "numbers.h"
#include "trace.h"

using namespace pulsekit;

static constexpr const char kSource[] = "src/support/vars";

namespace {

bool has(const Variable *variable, uint32_t flags) { return (variable->flags & flags) != 0; }

QTX_StackTrace *record(const VariableSet *set) { return set ? set->error_state : nullptr; }

uint64_t ask(VariableSet *set, Variable *variable, uint32_t command, uint64_t preset = 0) {
  uint64_t result = preset;
  if (variable->func) variable->func(command, set, variable, &result);
  return result;
}

int32_t askCode(VariableSet *set, Variable *variable, uint32_t command) {
  return static_cast<int32_t>(ask(set, variable, command));
}

// The callback sees the old value until it has answered.
void takeAutomaticValue(VariableSet *set, Variable *variable) {
  uint64_t value = variable->value;
  varGetAutoValue(set, variable, &value);
  variable->value = value;
}

void showWhenEnabled(Variable *variable) {
  if (variable->enabled) {
    variable->flags |= VAR_FLAG_VISIBLE;
  } else {
    variable->flags &= ~uint32_t{VAR_FLAG_VISIBLE};
  }
}

Variable *numbered(VariableSet *set, int32_t number) {
  return number >= 0 && number < set->count ? &set->variables[number] : nullptr;
}

bool inIntegerRange(const Variable *variable, uint64_t value) {
  return variable->min <= value && value <= variable->max;
}

bool inFloatRange(const Variable *variable, uint64_t value) {
  const double number = bitsToDouble(value);
  return number >= bitsToDouble(variable->min) && bitsToDouble(variable->max) >= number;
}

bool isItem(const Variable *variable, uint64_t symbol) {
  for (const uint32_t *item = variable->items; item && *item; ++item) {
    if (*item == symbol) return true;
  }
  return false;
}

// Names joined by ','; the names that fit stay in the buffer when not all do.
template <typename Record>
int32_t listNames(VariableSet *set, const Record *records, int32_t count, char *buffer, int32_t size, TracePoint at) {
  if (!set || !buffer) return origin(record(set), at, kError);
  if (size <= 0) return origin(record(set), at, kBufferTooSmall);
  buffer[0] = '\0';
  size_t length = 0;
  for (int32_t i = 0; i < count; ++i) {
    const std::string_view name = sym_to_str(set, static_cast<int32_t>(records[i].name));
    if (name.size() + length + 1 >= static_cast<size_t>(size)) return origin(record(set), at, kBufferTooSmall);
    if (length > 0) buffer[length++] = ',';
    std::memcpy(buffer + length, name.data(), name.size());
    length += name.size();
    buffer[length] = '\0';
  }
  return kSuccess;
}

int32_t rejected(VariableSet *set, TracePoint at, const char *detail = "") {
  return origin(record(set), at, kIllegalValue, detail);
}

// Null where the variable takes the value, which an item index turns into the item's symbol; else the detail of the
// refusal. Integers compare unsigned on purpose: a negative one is above every maximum.
const char *refuse(Variable *variable, uint32_t mode, uint64_t *value) {
  const bool integer = has(variable, VAR_FLAG_INT), real = has(variable, VAR_FLAG_FLOAT);
  if ((integer && inIntegerRange(variable, *value)) || (real && inFloatRange(variable, *value))) return nullptr;
  if (has(variable, VAR_FLAG_ENUM)) {
    if (!(mode & VAR_SET_AS_INDEX)) return isItem(variable, *value) ? nullptr : "";
    const int32_t index = static_cast<int32_t>(*value);
    if (index < 0 || index >= varGetEnumsLength(nullptr, variable)) return "";
    *value = variable->items[index];
    return nullptr;
  }
  const double number = bitsToDouble(*value);
  if ((integer && *value < variable->min) || (real && number < bitsToDouble(variable->min))) {
    return "Value lower than min value";
  }
  if ((integer && *value > variable->max) || (real && number > bitsToDouble(variable->max))) {
    return "Value greater than max value";
  }
  return "";
}

}  // namespace

extern "C" {

/* ---- Lookup ---- */

const char *sym_to_str(VariableSet *set, int32_t number) {
  return set && number >= 0 && number <= set->max_symbol ? set->symbols[number] : "(invalid)";
}

int32_t str_to_sym(VariableSet *set, const char *text) {
  if (!set || !text) return 0;
  for (int32_t number = 0; number <= set->max_symbol; ++number) {
    if (std::strcmp(set->symbols[number], text) == 0) return number;
  }
  return 0;
}

Variable *varNamed(VariableSet *set, const char *name) {
  const int32_t symbol = str_to_sym(set, name);
  if (symbol == 0) return nullptr;
  for (int32_t i = 0; i < set->count; ++i) {
    if (set->variables[i].name == static_cast<uint32_t>(symbol)) return &set->variables[i];
  }
  return nullptr;
}

VarAction *varActionNamed(VariableSet *set, const char *name) {
  const int32_t symbol = str_to_sym(set, name);
  if (symbol == 0) return nullptr;
  for (int32_t i = 0; i < set->action_count; ++i) {
    if (set->actions[i].name == static_cast<uint32_t>(symbol)) return &set->actions[i];
  }
  return nullptr;
}

int32_t varIndex(VariableSet *set, Variable *variable) {
  return set && variable ? static_cast<int32_t>(variable - set->variables) : -1;
}

const char *varGetName(VariableSet *set, Variable *variable) {
  return variable ? sym_to_str(set, static_cast<int32_t>(variable->name)) : "(invalid)";
}

const char *varGetName_ByNumber(VariableSet *set, int32_t index) {
  return varGetName(set, set ? numbered(set, index) : nullptr);
}

int32_t varGetType(VariableSet *set, Variable *variable, uint32_t *type) {
  if (!variable || !type) return origin(record(set), HERE, kError);
  for (const uint32_t bit : {VAR_FLAG_INT, VAR_FLAG_FLOAT, VAR_FLAG_ENUM}) {
    if (has(variable, bit)) {
      *type = bit;
      break;
    }
  }
  return kSuccess;
}

int32_t varGetType_ByName(VariableSet *set, const char *name, uint32_t *type) {
  if (!set || !name || !type) return origin(record(set), HERE, kError);
  Variable *variable = varNamed(set, name);
  if (!variable) return origin(record(set), HERE, kUnknownVariable);
  return varGetType(set, variable, type);
}

int32_t varGetProperties(VariableSet *set, Variable *variable, uint64_t *min, uint64_t *max, uint32_t *flags) {
  if (!set || !variable || !min || !max || !flags) return origin(record(set), HERE, kError);
  if (!has(variable, VAR_FLAG_VISIBLE)) return originKeepingMessage(record(set), HERE, kVariableNotVisible);
  if (has(variable, VAR_FLAG_ENUM)) {
    *min = 0;
    *max = static_cast<uint64_t>(static_cast<int64_t>(varGetEnumsLength(set, variable)) - 1);
  } else if (has(variable, VAR_FLAG_INT | VAR_FLAG_FLOAT)) {
    *min = variable->min;
    *max = variable->max;
  }
  *flags = variable->flags;
  return kSuccess;
}

int32_t varGetProperties_ByNumber(VariableSet *set, int32_t index, uint64_t *min, uint64_t *max, uint32_t *flags) {
  if (!set) return kError;
  Variable *variable = numbered(set, index);
  if (!variable) return origin(record(set), HERE, kUnknownVariable);
  if (int32_t code = varGetProperties(set, variable, min, max, flags)) return passThrough(record(set), HERE, code);
  return kSuccess;
}

int32_t varGetEnumsLength(VariableSet *, Variable *variable) {
  int32_t count = 0;
  if (variable && variable->items) {
    while (variable->items[count] != 0) ++count;
  }
  return count;
}

uint32_t varGetEnumsItem(VariableSet *set, Variable *variable, int32_t i) {
  return i >= 0 && i < varGetEnumsLength(set, variable) ? variable->items[i] : 0;
}

int32_t varGetEnumsItems(VariableSet *set, Variable *variable, uint32_t *items, int32_t *capacity) {
  if (!set || !variable || !items || !capacity) return origin(record(set), HERE, kError);
  const int32_t count = varGetEnumsLength(set, variable);
  if (count > *capacity) return origin(record(set), HERE, kBufferTooSmall);
  for (int32_t i = 0; i < count; ++i) items[i] = variable->items[i];
  *capacity = count;
  return kSuccess;
}

int32_t varGetEnumIndex(VariableSet *set, Variable *variable, uint32_t symbol, int32_t *index) {
  if (!variable || !index) return origin(record(set), HERE, kError);
  const int32_t count = varGetEnumsLength(set, variable);
  for (*index = 0; *index < count; ++*index) {
    if (variable->items[*index] == symbol) return kSuccess;
  }
  *index = -1;
  return kError;
}

int32_t varListVariables(VariableSet *set, char *buffer, int32_t size) {
  return listNames(set, set ? set->variables : nullptr, set ? set->count : 0, buffer, size, HERE);
}

int32_t varListActions(VariableSet *set, char *buffer, int32_t size) {
  return listNames(set, set ? set->actions : nullptr, set ? set->action_count : 0, buffer, size, HERE);
}

void varSprint(VariableSet *set, char *buffer, Variable *variable, int32_t verbose) try {
  if (!set || !buffer || !variable) return;
  const std::string_view description = variable->description ? variable->description : "";
  const size_t line_feed = description.find('\n');
  std::string text;
  if (verbose && line_feed != description.npos) {
    text += description.substr(line_feed + 1);
    text += '\n';
  }

  const size_t line_start = text.size();
  const bool automatic = has(variable, VAR_FLAG_AUTO);
  const bool no_automatic_value = has(variable, VAR_FLAG_NO_AUTO_VALUE);
  text += varGetName(set, variable);
  text += ' ';
  if (has(variable, VAR_FLAG_READ_ONLY)) text += 'R';
  if (automatic) text += no_automatic_value ? 'a' : 'A';

  const auto print = [&](uint64_t value) {
    return has(variable, VAR_FLAG_ENUM) ? std::string(sym_to_str(set, static_cast<int32_t>(value)))
                                        : std::to_string(value);
  };
  if (has(variable, VAR_FLAG_ENUM | VAR_FLAG_INT)) {
    if (has(variable, VAR_FLAG_ENUM)) {
      text += '{';
      for (int32_t i = 0; i < varGetEnumsLength(set, variable); ++i) {
        if (i > 0) text += ',';
        text += print(variable->items[i]);
      }
      text += '}';
    } else {
      text += '[' + print(variable->min) + ".." + print(variable->max) + ']';
    }
    const std::string value = print(no_automatic_value ? 0 : ask(set, variable, VAR_CMD_AUTO_VALUE));
    text += "(default:" + value + ')';
    if (automatic) text += "(auto:" + value + ')';
  }
  if (automatic && has(variable, VAR_FLAG_ENUM | VAR_FLAG_INT | VAR_FLAG_FLOAT)) text += "=auto";
  if (has(variable, VAR_FLAG_ENUM | VAR_FLAG_INT) && !(no_automatic_value && automatic)) {
    uint64_t value = 0;
    varGetValue(set, variable, &value);
    text += '=' + print(value);
  }

  const size_t first_line = std::min(line_feed, description.size());
  if (verbose && first_line > 0) {
    text += "  ";
    while (text.size() - line_start < 50) text += ' ';
    for (size_t i = 0; i < first_line; ++i) text += description.substr(i);
  }
  std::strcat(buffer, text.c_str());
} catch (const std::bad_alloc &) {
  // Nothing is appended.
}

/* ---- Setting ---- */

int32_t varSetValue_Sub(VariableSet *set, Variable *variable, uint64_t value, uint32_t mode) {
  if (!set || !variable) return origin(record(set), HERE, kError);
  if (has(variable, VAR_FLAG_LIVE_READ | VAR_FLAG_FROM_BACKEND) ||
      (has(variable, VAR_FLAG_READ_ONLY) && !(mode & VAR_SET_EVEN_READ_ONLY))) {
    return originKeepingMessage(record(set), HERE, kVariableReadOnly);
  }

  const uint64_t old = variable->value;
  if (value == VAR_AUTO) {
    variable->flags |= VAR_FLAG_AUTO;
    takeAutomaticValue(set, variable);
  } else {
    if (const char *reason = refuse(variable, mode, &value)) return rejected(set, HERE, reason);
    variable->flags &= ~uint32_t{VAR_FLAG_AUTO};
    variable->value = value;
  }

  if (variable->value == old && !std::isnan(bitsToDouble(old))) return kSuccess;
  if (int32_t code = varUpdateBackend(set, variable)) return passThrough(record(set), HERE, code);
  if (int32_t code = varNotifyDependers(set, variable)) return passThrough(record(set), HERE, code);
  return kSuccess;
}

int32_t varSetValue(VariableSet *set, Variable *variable, uint64_t value) {
  if (int32_t code = varSetValue_Sub(set, variable, value, 0)) return passThrough(record(set), HERE, code);
  return kSuccess;
}

int32_t varSetIntValue(VariableSet *set, Variable *variable, int64_t value) {
  if (int32_t code = varSetValue_Sub(set, variable, static_cast<uint64_t>(value), 0)) {
    return passThrough(record(set), HERE, code);
  }
  return kSuccess;
}

int32_t varSetFloatValue(VariableSet *set, Variable *variable, double value) {
  if (int32_t code = varSetValue_Sub(set, variable, doubleToBits(value), 0)) {
    return passThrough(record(set), HERE, code);
  }
  return kSuccess;
}

int32_t varSetValue_EvenReadOnly(VariableSet *set, Variable *variable, uint64_t value) {
  if (int32_t code = varSetValue_Sub(set, variable, value, VAR_SET_EVEN_READ_ONLY)) {
    return passThrough(record(set), HERE, code);
  }
  return kSuccess;
}

int32_t varSetIntValue_EvenReadOnly(VariableSet *set, Variable *variable, int64_t value) {
  if (int32_t code = varSetValue_Sub(set, variable, static_cast<uint64_t>(value), VAR_SET_EVEN_READ_ONLY)) {
    return passThrough(record(set), HERE, code);
  }
  return kSuccess;
}

int32_t varSetIndex(VariableSet *set, Variable *variable, int32_t index) {
  const uint64_t value = static_cast<uint64_t>(static_cast<int64_t>(index));
  if (int32_t code = varSetValue_Sub(set, variable, value, VAR_SET_AS_INDEX)) {
    return passThrough(record(set), HERE, code);
  }
  return kSuccess;
}

int32_t varSetValue_ByNumber(VariableSet *set, int32_t number, uint64_t value) {
  if (!set) return kError;
  Variable *variable = numbered(set, number);
  if (!variable) return origin(record(set), HERE, kUnknownVariable);
  if (int32_t code = varSetValue(set, variable, value)) return passThrough(record(set), HERE, code);
  return kSuccess;
}

int32_t varSetIntValue_ByNumber(VariableSet *set, int32_t number, int64_t value) {
  if (int32_t code = varSetValue_ByNumber(set, number, static_cast<uint64_t>(value))) {
    return passThrough(record(set), HERE, code);
  }
  return kSuccess;
}

int32_t varSetValue_ByNumber_AsIndex(VariableSet *set, int32_t number, int32_t index) {
  if (!set) return kError;
  Variable *variable = numbered(set, number);
  if (!variable) return origin(record(set), HERE, kUnknownVariable);
  if (int32_t code = varSetIndex(set, variable, index)) return passThrough(record(set), HERE, code);
  return kSuccess;
}

int32_t varSetIntValue_ByNmber_AsIndex(VariableSet *set, int32_t number, int32_t index) {
  if (int32_t code = varSetValue_ByNumber_AsIndex(set, number, index)) return passThrough(record(set), HERE, code);
  return kSuccess;
}

int32_t varSetValue_ByName(VariableSet *set, const char *name, uint64_t value) {
  if (!set || !name) return origin(record(set), HERE, kError);
  Variable *variable = varNamed(set, name);
  if (!variable) return origin(record(set), HERE, kUnknownVariable);
  if (int32_t code = varSetValue(set, variable, value)) return passThrough(record(set), HERE, code);
  return kSuccess;
}

int32_t varSetValue_ByString(VariableSet *set, const char *name, const char *text) {
  if (!set || !name || !text) return origin(record(set), HERE, kError);
  Variable *variable = varNamed(set, name);
  if (!variable) return origin(record(set), HERE, kUnknownVariable);

  uint64_t value = VAR_AUTO;
  if (std::strcmp(text, "auto") == 0) {
  } else if (has(variable, VAR_FLAG_ENUM)) {
    const int32_t symbol = str_to_sym(set, text);
    if (symbol < 1) return rejected(set, HERE);
    value = static_cast<uint64_t>(symbol);
  } else if (has(variable, VAR_FLAG_INT)) {
    value = parseInteger(text);
  } else if (has(variable, VAR_FLAG_FLOAT)) {
    value = doubleToBits(parseDouble(text));
  } else {
    return kError;
  }
  if (int32_t code = varSetValue(set, variable, value)) return passThrough(record(set), HERE, code);
  return kSuccess;
}

/* ---- Reading ---- */

int32_t varGetValue(VariableSet *set, Variable *variable, uint64_t *value) {
  if (!set || !variable || !value) return origin(record(set), HERE, kError);
  if (!has(variable, VAR_FLAG_VISIBLE)) return originKeepingMessage(record(set), HERE, kVariableNotVisible);
  if (has(variable, VAR_FLAG_LIVE_READ)) {
    varGetLiveRead(set, variable, value);
    return kSuccess;
  }
  if (has(variable, VAR_FLAG_FROM_BACKEND)) {
    // Register reads answer with a value alone: the record tells whether it is one.
    if (set->error_state) set->error_state->code = kSuccess;
    if (variable->func) variable->func(VAR_CMD_READ_VALUE, set, variable, value);
    if (set->error_state && set->error_state->code != kSuccess) {
      return passThrough(set->error_state, HERE, set->error_state->code);
    }
    return kSuccess;
  }
  *value = variable->value;
  return kSuccess;
}

int32_t varGetValue_ByNumber(VariableSet *set, int32_t number, uint64_t *value) {
  if (!set) return kError;
  Variable *variable = numbered(set, number);
  if (!variable) return origin(record(set), HERE, kUnknownVariable);
  if (int32_t code = varGetValue(set, variable, value)) return passThrough(record(set), HERE, code);
  return kSuccess;
}

int32_t varGetValue_ByName(VariableSet *set, const char *name, uint64_t *value) {
  if (!set || !name || !value) return origin(record(set), HERE, kError);
  Variable *variable = varNamed(set, name);
  if (!variable) return origin(record(set), HERE, kUnknownVariable);
  if (int32_t code = varGetValue(set, variable, value)) return passThrough(record(set), HERE, code);
  return kSuccess;
}

int32_t varGetIntValue_ByNumber(VariableSet *set, int32_t number, int64_t *value) {
  if (!value) return origin(record(set), HERE, kError);
  uint64_t slot = 0;
  if (int32_t code = varGetValue_ByNumber(set, number, &slot)) return passThrough(record(set), HERE, code);
  *value = static_cast<int64_t>(slot);
  return kSuccess;
}

int32_t varGetIntValue_ByName(VariableSet *set, const char *name, int64_t *value) {
  if (!value) return origin(record(set), HERE, kError);
  uint64_t slot = 0;
  if (int32_t code = varGetValue_ByName(set, name, &slot)) return passThrough(record(set), HERE, code);
  *value = static_cast<int64_t>(slot);
  return kSuccess;
}

int64_t varGetValue_Real(VariableSet *set, Variable *variable) {
  uint64_t value = 0;
  if (varGetValue(set, variable, &value) != kSuccess) return -1;
  if (!has(variable, VAR_FLAG_ENUM)) return static_cast<int64_t>(value);
  int32_t index = -1;
  varGetEnumIndex(set, variable, static_cast<uint32_t>(value), &index);
  return index;
}

int32_t varGetLiveRead(VariableSet *set, Variable *variable, uint64_t *value) {
  if (!set || !variable || !value) return kSuccess;
  if (variable->func) variable->func(VAR_CMD_LIVE_READ, set, variable, value);
  return kSuccess;
}

int32_t varSampleLiveread(VariableSet *set, Variable *variable) {
  if (set && variable) ask(set, variable, VAR_CMD_SAMPLE_LIVE_READ);
  return kSuccess;
}

int32_t varGetAutoValue(VariableSet *set, Variable *variable, uint64_t *value) {
  if (!set || !variable || !value) return kSuccess;
  if (has(variable, VAR_FLAG_NO_AUTO_VALUE)) {
    *value = 0;
  } else if (variable->func) {
    variable->func(has(variable, VAR_FLAG_FROM_BACKEND) ? VAR_CMD_READ_VALUE : VAR_CMD_AUTO_VALUE, set, variable,
                   value);
  }
  return kSuccess;
}

int32_t varUpdateBackend(VariableSet *set, Variable *variable) {
  if (!set || !variable) return origin(record(set), HERE, kError);
  if (set->backend_hold > 0 || !has(variable, VAR_FLAG_VISIBLE)) return kSuccess;
  if (int32_t code = askCode(set, variable, VAR_CMD_WRITE_BACKEND)) return passThrough(record(set), HERE, code);
  return kSuccess;
}

int32_t varValidValue(VariableSet *, Variable *variable, uint64_t value) {
  if (!variable) return 0;
  return (has(variable, VAR_FLAG_AUTO) && value == VAR_AUTO) ||
         (has(variable, VAR_FLAG_INT) && inIntegerRange(variable, value)) ||
         (has(variable, VAR_FLAG_FLOAT) && inFloatRange(variable, value)) ||
         (has(variable, VAR_FLAG_ENUM) && isItem(variable, value));
}

int32_t varPropertiesUpdated(VariableSet *set, Variable *variable) {
  if (!set || !variable) return origin(record(set), HERE, kError);
  if (varValidValue(set, variable, variable->value)) return 1;
  const uint64_t automatic = ask(set, variable, VAR_CMD_AUTO_VALUE, variable->value);
  if (int32_t code = varSetValue(set, variable, automatic)) return passThrough(record(set), HERE, code);
  return kSuccess;
}

/* ---- Whole sets; they walk the evaluation order, so that sources come before what depends on them ---- */

int32_t varsInit(VariableSet *set) {
  if (!set) return kError;
  set->auto_depth = 0;
  set->properties_changed = 0;
  set->backend_hold = 1;
  varsInitProperties(set);
  varsResetAll_NoBackendUpdates(set, 1);
  varsCalculateAutoValues_NoBackendUpdates(set);
  varsUpdateProperties_NoUpdateVars(set);
  --set->backend_hold;
  if (int32_t code = varsUpdateAllBackends(set)) return passThrough(record(set), HERE, code);
  return kSuccess;
}

int32_t varsResetAll(VariableSet *set) {
  if (!set) return kError;
  ++set->backend_hold;
  varsResetAll_NoBackendUpdates(set, 0);
  varsCalculateAutoValues_NoBackendUpdates(set);
  varsUpdateProperties_NoUpdateVars(set);
  --set->backend_hold;
  if (int32_t code = varsUpdateAllBackends(set)) return passThrough(record(set), HERE, code);
  return kSuccess;
}

int32_t varsResetAll_NoBackendUpdates(VariableSet *set, int32_t initial) {
  if (!set) return kError;
  for (int32_t i = 0; i < set->count; ++i) {
    Variable *variable = &set->variables[set->order[i].index];
    if (initial || !has(variable, VAR_FLAG_KEEP_ON_RESET)) {
      if (variable->func) {
        variable->flags |= VAR_FLAG_AUTO;
        const bool readout = has(variable, VAR_FLAG_FROM_BACKEND);
        variable->value = ask(set, variable, readout ? VAR_CMD_READ_VALUE : VAR_CMD_AUTO_VALUE);
      } else {
        variable->value = 0;
      }
    }
    showWhenEnabled(variable);
  }
  return kSuccess;
}

int32_t varsCalculateAutoValues_NoBackendUpdates(VariableSet *set) {
  if (!set) return kError;
  ++set->auto_depth;
  ++set->backend_hold;
  for (int32_t i = 0; i < set->count; ++i) {
    Variable *variable = &set->variables[set->order[i].index];
    if (!has(variable, VAR_FLAG_AUTO)) continue;
    takeAutomaticValue(set, variable);
    varNotifyDependers(set, variable);
  }
  --set->backend_hold;
  --set->auto_depth;
  return kSuccess;
}

int32_t varsInitProperties(VariableSet *set) {
  if (!set) return kError;
  for (int32_t i = 0; i < set->count; ++i) {
    Variable *variable = &set->variables[i];
    if (!variable->func) continue;
    ask(set, variable, VAR_CMD_INIT_PROPERTIES);
    variable->flags |= VAR_FLAG_VISIBLE;
    variable->enabled = 1;
  }
  return kSuccess;
}

int32_t varsUpdateProperties(VariableSet *set) { return varsUpdateProperties_NoUpdateVars(set); }

int32_t varsUpdateProperties_NoUpdateVars(VariableSet *set) {
  if (!set) return kError;
  set->properties_changed = 1;
  for (int32_t i = 0; i < set->count; ++i) {
    Variable *variable = &set->variables[set->order[i].index];
    ask(set, variable, VAR_CMD_UPDATE_PROPERTIES);
    showWhenEnabled(variable);
  }
  for (int32_t i = 0; i < set->action_count; ++i) {
    VarAction *action = &set->actions[i];
    uint64_t ignored = 0;
    if (action->func) action->func(VAR_CMD_UPDATE_PROPERTIES, set, action, &ignored);
    // An action's visibility follows the variable with the same index: actions have no enabled field of their own.
    const bool visible = i >= set->count || set->variables[i].enabled;
    action->flags = (action->flags & ~uint32_t{VAR_FLAG_VISIBLE}) | (visible ? VAR_FLAG_VISIBLE : 0);
  }
  return kSuccess;
}

int32_t varsPropertiesUpdatedSinceLastCheck(VariableSet *set) {
  if (!set) return 0;
  const uint32_t changed = set->properties_changed;
  set->properties_changed = 0;
  return static_cast<int32_t>(changed);
}

int32_t varsUpdateAllBackends(VariableSet *set) {
  if (!set) return kError;
  for (int32_t i = 0; i < set->count; ++i) {
    if (int32_t code = varUpdateBackend(set, &set->variables[set->order[i].index])) {
      return passThrough(record(set), HERE, code);
    }
  }
  return kSuccess;
}

/* ---- Dependencies: edges that the callbacks call for each of their dependents ---- */

int32_t varNotifyDependers(VariableSet *set, Variable *variable) {
  if (!set || !variable) return origin(record(set), HERE, kError);
  if (int32_t code = askCode(set, variable, VAR_CMD_NOTIFY_DEPENDERS)) return passThrough(record(set), HERE, code);
  return kSuccess;
}

int32_t varNotifyDependerAutovalue(VariableSet *set, Variable *dependent) {
  if (!set || !dependent) return origin(record(set), HERE, kError);
  if (!dependent->func || !has(dependent, VAR_FLAG_AUTO)) return kSuccess;
  dependent->value = ask(set, dependent, VAR_CMD_AUTO_VALUE);
  if (int32_t code = askCode(set, dependent, VAR_CMD_NOTIFY_DEPENDERS)) return passThrough(record(set), HERE, code);
  if (int32_t code = varUpdateBackend(set, dependent)) return passThrough(record(set), HERE, code);
  return kSuccess;
}

int32_t varNotifyDependerProperties(VariableSet *set, Variable *dependent) {
  if (!set || !dependent) return origin(record(set), HERE, kError);
  if (!dependent->func) return kSuccess;
  ask(set, dependent, VAR_CMD_UPDATE_PROPERTIES);
  showWhenEnabled(dependent);
  if (askCode(set, dependent, VAR_CMD_NOTIFY_DEPENDERS) == kSuccess) varUpdateBackend(set, dependent);
  return kSuccess;
}

int32_t varNotifyDependerBackend(VariableSet *set, Variable *dependent) {
  if (!set || !dependent) return origin(record(set), HERE, kError);
  if (int32_t code = varUpdateBackend(set, dependent)) return passThrough(record(set), HERE, code);
  return kSuccess;
}

int32_t varDependencyUpdated(VariableSet *set, Variable *dependent) {
  if (!set || !dependent) return origin(record(set), HERE, kError);
  if (!has(dependent, VAR_FLAG_AUTO)) return kSuccess;
  const uint64_t old = dependent->value;
  takeAutomaticValue(set, dependent);
  if (set->auto_depth == 0 && dependent->value == old) return kSuccess;
  varUpdateBackend(set, dependent);
  if (int32_t code = varNotifyDependers(set, dependent)) return passThrough(record(set), HERE, code);
  return kSuccess;
}

int32_t varActionTrigger(VariableSet *set, VarAction *action) {
  if (!set || !action) return origin(record(set), HERE, kError);
  if (!action->func) return origin(record(set), HERE, kVariableSystem);
  uint64_t answer = 0;
  action->func(VAR_CMD_TRIGGER, set, action, &answer);
  if (int32_t code = static_cast<int32_t>(answer)) return passThrough(record(set), HERE, code);
  return kSuccess;
}

}  // extern "C"
