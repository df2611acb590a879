// Variables and actions by name.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <string_view>

#include "Pulsekit3.h"
#include "advice.h"
#include "calls.h"
#include "stream.h"
#include "support/handle_state.h"
#include "support/numbers.h"

using namespace pulsekit;

static constexpr const char kSource[] = "src/Pulsekit3";

namespace {

constexpr int32_t kListScratch = 10000;

// The symbol number of an item; 0, which is no item, for an index outside the list.
uint64_t itemSymbol(VariableSet *set, Variable *variable, int64_t index) {
  if (index < 0 || index > std::numeric_limits<int32_t>::max()) return 0;
  return varGetEnumsItem(set, variable, static_cast<int32_t>(index));
}

bool isKnown(const char *layer_name) { return std::strcmp(layer_name, "Unknown") != 0; }

using ListInterface = int32_t (*)(InterfaceHandle *, char *, uint32_t);
using ListModule = int32_t (*)(ModuleHandle *, char *, int32_t);
using ListChip = int32_t (*)(ChipHandle *, char *, int32_t);

// The names of all layers, from the interface up to the chip: the reverse of the order in which names are looked up.
int32_t listNames(QTX_Handle *handle, TracePoint at, char *text, int32_t size, ListInterface list_interface,
                  ListModule list_module, ListChip list_chip) {
  TextBuffer list(text, size);
  char names[kListScratch];
  const auto append = [&](std::string_view addition) {
    return list.append(addition) ? int32_t{kSuccess} : origin(handle->error, at, kBufferTooSmall);
  };
  // A layer that is not there has no record to tell it in.
  const auto failed = [&](const void *layer, int32_t code) {
    return layer ? passThrough(handle->error, at, code) : origin(handle->error, at, code);
  };

  if (int32_t code = list_interface(handle->interface_handle, names, sizeof names)) {
    return failed(handle->interface_handle, code);
  }
  if (int32_t code = append(names)) return code;
  if (int32_t code = append(list.empty() ? "" : ",")) return code;

  const ConnectionInfo *info = handle->connection_info;
  if (info && isKnown(info->module_name)) {
    if (int32_t code = list_module(handle->module, names, sizeof names)) return failed(handle->module, code);
    if (int32_t code = append(names)) return code;
  }
  if (int32_t code = append(list.empty() ? "" : ",")) return code;

  if (!info || !isKnown(info->chip_name)) return kSuccess;
  if (int32_t code = list_chip(handle->chip, names, sizeof names)) return failed(handle->chip, code);
  return append(names);
}

int32_t getProperties(QTX_Handle *handle, TracePoint at, const char *name, uint64_t *min, uint64_t *max,
                      uint32_t *writable, uint32_t *automatic) {
  if (int32_t code = checkCall(handle, at, name, min, max, writable, automatic)) return code;
  Variable *variable = nullptr;
  VariableSet *set = nullptr;
  if (int32_t code = findVariable_ByName(handle, name, &variable, &set)) return passThrough(handle->error, at, code);
  // A hidden variable has no range, but its outputs are defined all the same.
  *min = *max = 0;
  uint32_t flags = variable->flags;
  const int32_t code = varGetProperties(set, variable, min, max, &flags);
  *writable = (flags & VAR_FLAGS_NOT_WRITABLE) == 0;
  *automatic = (flags & (VAR_FLAG_NO_AUTO_VALUE | VAR_FLAG_AUTO)) != 0;
  return code ? passThrough(handle->error, at, code) : kSuccess;
}

// A live read answers with a value alone: only the call knows that its wait was ended.
int32_t readVariable(const CallScope &call, VariableSet *set, Variable *variable, uint64_t *value) {
  return call.result(varGetValue(set, variable, value));
}

// Actions that need the chip for themselves.
bool measures(const char *action) {
  const std::string_view name = action;
  return name.starts_with("Measure") || name.starts_with("TMeas") || name == "StartMeas";
}

}  // namespace

extern "C" {

int32_t QTX_VarSetValue_ByName(QTX_Handle *handle, const char *name, uint64_t value) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE, name)) return code;
  const SettingsChange change(handle);
  Variable *variable = nullptr;
  VariableSet *set = nullptr;
  if (int32_t code = findVariable_ByName(handle, name, &variable, &set)) {
    return passThrough(handle->error, HERE_AT(786), code);
  }
  if (int32_t code = varSetValue(set, variable, value)) {
    passThrough(handle->error, HERE, code);
    if (variable->flags & VAR_FLAG_FLOAT) return failedWith(handle, code, name, bitsToDouble(value));
    return failedWith(handle, code, name, static_cast<int64_t>(value));
  }
  return kSuccess;
}

int32_t QTX_VarSetFloatValue_ByName(QTX_Handle *handle, const char *name, double value) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE, name)) return code;
  if (int32_t code = QTX_VarSetValue_ByName(handle, name, doubleToBits(value))) {
    return passThrough(handle->error, HERE, code);
  }
  return kSuccess;
}

int32_t QTX_VarSetIntValue_ByName(QTX_Handle *handle, const char *name, int64_t value) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE, name)) return code;
  const SettingsChange change(handle);
  Variable *variable = nullptr;
  VariableSet *set = nullptr;
  if (int32_t code = findVariable_ByName(handle, name, &variable, &set)) return passThrough(handle->error, HERE, code);
  if (value == VAR_AUTO) {
    if (int32_t code = varSetIntValue(set, variable, VAR_AUTO)) {
      return failedWith(handle, passThrough(handle->error, HERE, code), name, "auto");
    }
    return kSuccess;
  }
  const bool enumeration = (variable->flags & VAR_FLAG_ENUM) != 0;
  const uint64_t word = enumeration ? itemSymbol(set, variable, value) : static_cast<uint64_t>(value);
  if (int32_t code = QTX_VarSetValue_ByName(handle, name, word)) {
    return failedWith(handle, passThrough(handle->error, HERE, code), name, value);
  }
  return kSuccess;
}

int32_t QTX_VarSetValue_ByString(QTX_Handle *handle, const char *name, const char *text) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE, name, text)) return code;
  const SettingsChange change(handle);
  Variable *variable = nullptr;
  VariableSet *set = nullptr;
  if (int32_t code = findVariable_ByName(handle, name, &variable, &set)) return passThrough(handle->error, HERE, code);
  if (int32_t code = varSetValue_ByString(set, name, text)) {
    return failedWith(handle, passThrough(handle->error, HERE, code), name, text);
  }
  return kSuccess;
}

int32_t QTX_VarSetValueAsFloat_ByName(QTX_Handle *handle, const char *name, double value) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE, name)) return code;
  const SettingsChange change(handle);
  Variable *variable = nullptr;
  VariableSet *set = nullptr;
  if (int32_t code = findVariable_ByName(handle, name, &variable, &set)) return passThrough(handle->error, HERE, code);
  if (variable->flags & VAR_FLAG_FLOAT && !(variable->flags & VAR_FLAG_INT)) {
    return failedWith(handle, varSetValue(set, variable, doubleToBits(value)), name, value);
  }
  if (!(variable->flags & (VAR_FLAG_INT | VAR_FLAG_ENUM))) return origin(handle->error, HERE, kIllegalValue);

  const double rounded = std::round(value);
  const bool fits = rounded >= std::numeric_limits<int32_t>::min() && rounded <= std::numeric_limits<int32_t>::max();
  if (!fits) return failedWith(handle, origin(handle->error, HERE, kIllegalValue), name, value);
  const int64_t number = static_cast<int64_t>(rounded);
  const bool integer = (variable->flags & VAR_FLAG_INT) != 0;
  const uint64_t word = integer ? static_cast<uint64_t>(number) : itemSymbol(set, variable, number);
  return failedWith(handle, varSetValue(set, variable, word), name, value);
}

int32_t QTX_VarGetValue_ByName(QTX_Handle *handle, const char *name, uint64_t *value) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE, name, value)) return code;
  Variable *variable = nullptr;
  VariableSet *set = nullptr;
  if (int32_t code = findVariable_ByName(handle, name, &variable, &set)) return passThrough(handle->error, HERE, code);
  if (int32_t code = readVariable(call, set, variable, value)) return passThrough(handle->error, HERE, code);
  return kSuccess;
}

int32_t QTX_VarGetIntValue_ByName(QTX_Handle *handle, const char *name, int64_t *value) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE, name, value)) return code;
  Variable *variable = nullptr;
  VariableSet *set = nullptr;
  if (int32_t code = findVariable_ByName(handle, name, &variable, &set)) return passThrough(handle->error, HERE, code);
  uint64_t word = 0;
  if (int32_t code = readVariable(call, set, variable, &word)) return passThrough(handle->error, HERE, code);
  if (variable->flags & VAR_FLAG_ENUM) {
    int32_t index = -1;
    if (int32_t code = varGetEnumIndex(set, variable, static_cast<uint32_t>(word), &index)) {
      return passThrough(handle->error, HERE, code);
    }
    word = static_cast<uint64_t>(index);
  }
  *value = static_cast<int64_t>(word);
  return kSuccess;
}

int32_t QTX_VarGetEnumValue_ByName(QTX_Handle *handle, const char *name, uint64_t *value) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE, name, value)) return code;
  if (int32_t code = QTX_VarGetValue_ByName(handle, name, value)) return passThrough(handle->error, HERE, code);
  return kSuccess;
}

int32_t QTX_VarGetFloatValue_ByName(QTX_Handle *handle, const char *name, uint64_t *double_bits) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE, name, double_bits)) return code;
  if (int32_t code = QTX_VarGetValue_ByName(handle, name, double_bits)) return passThrough(handle->error, HERE, code);
  return kSuccess;
}

int32_t QTX_VarGetValueAsFloat_ByName(QTX_Handle *handle, const char *name, double *value) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE, name, value)) return code;
  Variable *variable = nullptr;
  VariableSet *set = nullptr;
  if (int32_t code = findVariable_ByName(handle, name, &variable, &set)) return passThrough(handle->error, HERE, code);
  uint64_t word = 0;
  const int32_t read_code = readVariable(call, set, variable, &word);
  if (read_code) passThrough(handle->error, HERE, read_code);

  if (variable->flags & VAR_FLAG_INT) {
    *value = static_cast<double>(word);
  } else if (variable->flags & VAR_FLAG_FLOAT) {
    *value = bitsToDouble(word);
  } else if (variable->flags & VAR_FLAG_ENUM) {
    int32_t index = -1;
    if (int32_t code = varGetEnumIndex(set, variable, static_cast<uint32_t>(word), &index)) {
      return passThrough(handle->error, HERE, code);
    }
    *value = index;
  }
  return read_code;
}

int32_t QTX_VarGetEnumsItems_ByName(QTX_Handle *handle, const char *name, uint32_t *items, int32_t *count) {
  if (int32_t code = checkCall(handle, HERE, name, items, count)) return code;
  Variable *variable = nullptr;
  VariableSet *set = nullptr;
  if (int32_t code = findVariable_ByName(handle, name, &variable, &set)) return passThrough(handle->error, HERE, code);
  if (int32_t code = varGetEnumsItems(set, variable, items, count)) return passThrough(handle->error, HERE, code);
  return kSuccess;
}

int32_t QTX_VarGetType_ByName(QTX_Handle *handle, const char *name, uint32_t *type) {
  if (int32_t code = checkCall(handle, HERE, name, type)) return code;
  Variable *variable = nullptr;
  VariableSet *set = nullptr;
  if (int32_t code = findVariable_ByName(handle, name, &variable, &set)) return passThrough(handle->error, HERE, code);
  if (int32_t code = varGetType(set, variable, type)) return passThrough(handle->error, HERE, code);
  return kSuccess;
}

int32_t QTX_VarGetIntProperties_ByName(QTX_Handle *handle, const char *name, uint64_t *min, uint64_t *max,
                                       uint32_t *writable, uint32_t *automatic) {
  return getProperties(handle, HERE, name, min, max, writable, automatic);
}

int32_t QTX_VarGetFloatProperties_ByName(QTX_Handle *handle, const char *name, uint64_t *min, uint64_t *max,
                                         uint32_t *writable, uint32_t *automatic) {
  return getProperties(handle, HERE, name, min, max, writable, automatic);
}

int32_t QTX_VarGetSymbolString(QTX_Handle *handle, const char *name, uint32_t symbol, char *text, int32_t size) {
  if (int32_t code = checkCall(handle, HERE, name, text)) return code;
  Variable *variable = nullptr;
  VariableSet *set = nullptr;
  if (int32_t code = findVariable_ByName(handle, name, &variable, &set)) return passThrough(handle->error, HERE, code);
  const char *found = sym_to_str(set, static_cast<int32_t>(symbol));
  if (size > 0) std::memcpy(text, found, std::min(static_cast<size_t>(size), std::strlen(found) + 1));
  return kSuccess;
}

int32_t QTX_ExecuteAction_ByName(QTX_Handle *handle, const char *name) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE, name)) return code;
  VarAction *action = nullptr;
  VariableSet *set = nullptr;
  if (int32_t code = findAction_ByName(handle, name, &action, &set)) return passThrough(handle->error, HERE, code);
  const SettingsChange change(handle);
  if (Stream *stream = streamOf(handle)) {
    if (measures(name)) return origin(handle->error, HERE, kStreamRunning);
    stream->distrust();
  }
  if (int32_t code = varActionTrigger(set, action)) return passThrough(handle->error, HERE, code);
  return kSuccess;
}

int32_t QTX_ListVariables(QTX_Handle *handle, char *text, int32_t size) {
  if (!handle) return kError;
  if (int32_t code = checkCall(handle, HERE, text)) return code;
  return listNames(handle, HERE, text, size, interfaceListVariables, moduleListVariables, chipListVariables);
}

int32_t QTX_ListActions(QTX_Handle *handle, char *text, int32_t size) {
  if (!handle) return kError;
  if (int32_t code = checkCall(handle, HERE, text)) return code;
  return listNames(handle, HERE, text, size, interfaceListActions, moduleListActions, chipListActions);
}

}  // extern "C"
