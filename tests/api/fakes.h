// A library handle whose three layers are plain records, for tests of what the exported functions add to them.
#pragma once

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "Pulsekit3.h"
#include "chip/chip.h"
#include "interface/interface.h"
#include "module/module.h"
#include "support/QTX_Handle.h"
#include "support/QTX_StackTrace.h"

namespace pulsekit::test {

inline uint64_t bits(double value) { return std::bit_cast<uint64_t>(value); }

inline std::string description(QTX_Handle *handle, int32_t code = 0) {
  char text[4096];
  QTX_GetErrorDescription(handle, text, sizeof text, code);
  return text;
}

// Owns a library handle; closes and frees it.
class Library {
 public:
  Library() { QTX_InitHandle(&handle_); }
  ~Library() {
    QTX_FrameLoggingStop(handle_);
    QTX_FreeHandle(&handle_);
  }
  Library(const Library &) = delete;
  Library &operator=(const Library &) = delete;
  QTX_Handle *get() const { return handle_; }
  operator QTX_Handle *() const { return handle_; }  // NOLINT: stands for the handle in calls
  QTX_Handle *operator->() const { return handle_; }

 private:
  QTX_Handle *handle_ = nullptr;
};

// A variable set of the given variables, each with the automatic value 7 (enumerations: their first item).
class FakeSet {
 public:
  explicit FakeSet(const char *name, QTX_StackTrace *record) {
    set.name = name;
    set.version = "3.2.1";
    set.error_state = record;
    addSymbol("(invalid symbol)");
  }

  Variable &add(const char *variable, uint32_t flags, uint64_t value = 0, std::vector<const char *> item_names = {}) {
    items_.push_back({});
    for (const char *item : item_names) items_.back().push_back(addSymbol(item));
    items_.back().push_back(0);
    Variable record{};
    record.name = addSymbol(variable);
    record.flags = flags | VAR_FLAG_VISIBLE;
    record.enabled = 1;
    record.value = flags & VAR_FLAG_ENUM && value < item_names.size() ? items_.back()[value] : value;
    record.max = flags & VAR_FLAG_FLOAT ? bits(1e9) : 1000000;
    record.min = flags & VAR_FLAG_FLOAT ? bits(-1e9) : 0;
    record.func = answer;
    record.description = "";
    variables_.push_back(record);
    order_.push_back({static_cast<int32_t>(variables_.size()) - 1, 1});
    refresh();
    return variables_.back();
  }

  void addAction(const char *action) {
    actions_.push_back({addSymbol(action), VAR_FLAG_VISIBLE, answer, ""});
    refresh();
  }

  Variable &operator[](const char *variable) { return *varNamed(&set, variable); }

  VariableSet set{};
  static inline std::map<uint32_t, int> commands;          // how often each command came
  static inline int32_t write_code = 0, trigger_code = 0;  // answers

 private:
  static uint64_t *answer(uint32_t command, VariableSet *set, void *record, uint64_t *result) {
    ++commands[command];
    *result = 0;
    if (command == VAR_CMD_WRITE_BACKEND && write_code) {
      set->error_state->code = write_code;
      *result = static_cast<uint64_t>(write_code);
    }
    if (command == VAR_CMD_TRIGGER) *result = static_cast<uint64_t>(trigger_code);
    if (command == VAR_CMD_AUTO_VALUE) {
      const auto *variable = static_cast<Variable *>(record);
      *result = variable->flags & VAR_FLAG_ENUM ? variable->items[0] : 7;
    }
    return result;
  }

  uint32_t addSymbol(const char *text) {
    symbols_.push_back(text);
    refresh();
    return static_cast<uint32_t>(symbols_.size()) - 1;
  }

  void refresh() {
    set.symbols = symbols_.data();
    set.max_symbol = static_cast<int32_t>(symbols_.size()) - 1;
    for (size_t i = 0; i < variables_.size(); ++i) variables_[i].items = items_[i].data();
    set.variables = variables_.data();
    set.count = static_cast<int32_t>(variables_.size());
    set.order = order_.data();
    set.actions = actions_.data();
    set.action_count = static_cast<int32_t>(actions_.size());
  }

  std::vector<const char *> symbols_;
  std::vector<std::vector<uint32_t>> items_;
  std::vector<Variable> variables_;
  std::vector<VarOrder> order_;
  std::vector<VarAction> actions_;
};

// A handle with chip "Chip", module and interface "in place"; the operations are filled by the tests that need them.
class FakeRadar {
 public:
  FakeRadar()
      : chip_set("Chip", library->error), module_set("Module", library->error), bridge_set("Bridge", library->error) {
    FakeSet::commands.clear();
    FakeSet::write_code = FakeSet::trigger_code = 0;
    chip.name = "QTX3701";
    chip.chip_id = 0x309;
    chip.variables = &chip_set.set;
    chip.access = library;
    chip.error_state = library->error;
    std::strcpy(module.board_name, "QTX-K235");
    module.driver_name = "QTX_K2x5";
    module.owner = library;
    module.variables = &module_set.set;
    module.error_state = library->error;
    bridge.owner = library;
    bridge.variables = &bridge_set.set;
    bridge.error_state = library->error;
    library->chip = &chip;
    library->module = &module;
    library->interface_handle = &bridge;
    std::strcpy(library->connection_info->module_name, "QTX-K235");
    std::strcpy(library->connection_info->chip_name, "QTX3701");
  }

  // The records are on the stack: only the handle itself is the library's.
  ~FakeRadar() {
    library->chip = nullptr;
    library->module = nullptr;
    library->interface_handle = nullptr;
  }

  Library library;
  FakeSet chip_set, module_set, bridge_set;
  ChipHandle chip{};
  ModuleHandle module{};
  InterfaceHandle bridge{};
};

}  // namespace pulsekit::test
