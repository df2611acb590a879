// Settings in groups: the values that single settings would reach are worked out first, then every register that
// differs is written in one program and read back in its answer.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "Pulsekit3_settings.h"
#include "advice.h"
#include "calls.h"
#include "interface/recording.h"
#include "stream.h"
#include "support/handle_state.h"
#include "support/numbers.h"

using namespace pulsekit;

static constexpr const char kSource[] = "src/Pulsekit3_group";

namespace {

// Its back-end tunes the oscillator with the registers as they are and sets what comes out.
constexpr char kTuned[] = "DCOTargetFrequency";
constexpr uint32_t kSetByTuning = 4;

struct Setting {
  const char *name, *text;
  VariableSet *set;
  Variable *variable;
  uint64_t value;
  bool tunes() const { return std::strcmp(name, kTuned) == 0; }
};

// ---- Values ----

// Of a set's variables, in index order.
struct Slots {
  struct Slot {
    uint64_t value;
    uint32_t flags;
  };
  VariableSet *set;
  std::vector<Slot> slots;

  explicit Slots(VariableSet *of) : set(of) {
    for (int32_t i = 0; i < set->count; ++i) slots.push_back({set->variables[i].value, set->variables[i].flags});
  }
  void restore() const {
    for (size_t i = 0; i < slots.size(); ++i) {
      set->variables[i].value = slots[i].value;
      set->variables[i].flags = slots[i].flags;
    }
  }
  bool moved(int32_t index) const { return set->variables[index].value != slots[static_cast<size_t>(index)].value; }
};

class Snapshot {
 public:
  explicit Snapshot(const QTX_Handle *handle) {
    for (VariableSet *set : lookupOrder(handle)) {
      if (set) sets_.emplace_back(set);
    }
  }
  void restore() const {
    for (const Slots &slots : sets_) slots.restore();
  }
  // Calls visit(variable, slot) for each of the set that has moved, in evaluation order, until a code comes back.
  template <typename Visit>
  int32_t forEachMoved(VariableSet *set, Visit visit) const {
    for (const Slots &slots : sets_) {
      for (int32_t i = 0; slots.set == set && i < set->count; ++i) {
        const int32_t index = set->order[i].index;
        if (!slots.moved(index)) continue;
        const int32_t code = visit(&set->variables[index], slots.slots[static_cast<size_t>(index)]);
        if (code) return code;
      }
    }
    return kSuccess;
  }
  uint32_t countMoved() const {
    uint32_t count = 0;
    for (const Slots &slots : sets_) {
      for (int32_t i = 0; i < slots.set->count; ++i) count += slots.moved(i) ? 1 : 0;
    }
    return count;
  }
  const std::vector<Slots> &sets() const { return sets_; }

 private:
  std::vector<Slots> sets_;
};

// While it lasts, settings change values only.
class Hold {
 public:
  explicit Hold(const Snapshot &snapshot) : snapshot_(snapshot) {
    for (const Slots &slots : snapshot_.sets()) ++slots.set->backend_hold;
  }
  ~Hold() {
    for (const Slots &slots : snapshot_.sets()) --slots.set->backend_hold;
  }
  Hold(const Hold &) = delete;
  Hold &operator=(const Hold &) = delete;

 private:
  const Snapshot &snapshot_;
};

// Settings that are undone at its end.
class Rehearsal {
 public:
  explicit Rehearsal(const Snapshot &before) : before_(before), hold_(before) {}
  ~Rehearsal() { before_.restore(); }
  Rehearsal(const Rehearsal &) = delete;
  Rehearsal &operator=(const Rehearsal &) = delete;

 private:
  const Snapshot &before_;
  const Hold hold_;
};

// ---- Texts ----

// Null where the text is a value of the variable's type, else what is wrong with it.
const char *parse(const Setting &setting, uint64_t *value) {
  const uint32_t flags = setting.variable->flags;
  *value = VAR_AUTO;
  if (std::strcmp(setting.text, "auto") == 0) return nullptr;
  if (flags & VAR_FLAG_ENUM) {
    const int32_t symbol = str_to_sym(setting.set, setting.text);
    *value = static_cast<uint64_t>(symbol);
    return symbol > 0 ? nullptr : "no item of this variable";
  }
  if (flags & VAR_FLAG_INT) return strictInteger(setting.text, value) ? nullptr : "not a whole number";
  double number = 0;
  if (!(flags & VAR_FLAG_FLOAT) || !strictDouble(setting.text, &number)) return "not a number";
  *value = doubleToBits(number);
  return nullptr;
}

// ---- The group ----

// Appends the operations to the program, what is written before what is read back.
void append(const std::vector<BusRecording::Operation> &operations, BusProgram *program,
            std::vector<BusRecording::Operation> *read_back) {
  for (const BusRecording::Operation &operation : operations) {
    if (operation.is_pin) {
      program->pin(operation.target, operation.level);
    } else {
      program->transfer(operation.target, operation.out.data(), operation.out.size());
    }
  }
  for (const BusRecording::Operation &operation : operations) {
    if (operation.read_back.empty()) continue;
    program->transfer(operation.target, operation.read_back.data(), operation.read_back.size(),
                      static_cast<uint32_t>(operation.dataSize()));
    read_back->push_back(operation);
  }
}

class Group {
 public:
  explicit Group(QTX_Handle *handle) : handle_(handle), before_(handle), written_(before_) {}

  // Nothing has changed after a failure.
  int32_t check(const char *const *names, const char *const *texts, uint32_t count, TracePoint at);
  uint32_t changesAtMost() const { return changes_; }
  int32_t apply(TracePoint at);
  uint32_t listChanges(QTX_Change *changes, uint32_t capacity) const;

 private:
  int32_t refused(const Setting &setting, TracePoint at, int32_t code, const std::string &why) const;
  int32_t applySettings(TracePoint at);
  int32_t writeMoved(const Snapshot &since, TracePoint at);
  int32_t writeBackends(const Snapshot &since, VariableSet *set) const;
  int32_t writeOneByOne(const Snapshot &since, TracePoint at);
  int32_t run(BusProgram &program, const std::vector<BusRecording::Operation> &read_back, TracePoint at);
  int32_t goBack(int32_t code, TracePoint at);

  QTX_Handle *handle_;
  Snapshot before_, written_;  // as they were, and as the registers are
  std::vector<Setting> settings_;
  std::vector<VariableSet *> order_;  // of the sets, as the settings name them
  uint32_t changes_ = 0;
  bool touched_ = false;  // something has been sent
};

int32_t Group::refused(const Setting &setting, TracePoint at, int32_t code, const std::string &why) const {
  const std::string message = why.empty() ? setting.name : std::string(setting.name) + ": " + why;
  return failedWith(handle_, origin(handle_->error, at, code, message), setting.name, setting.text);
}

int32_t Group::check(const char *const *names, const char *const *texts, uint32_t count, TracePoint at) {
  for (uint32_t i = 0; i < count; ++i) {
    Setting setting{names[i], texts[i], nullptr, nullptr, 0};
    if (!setting.name || !setting.text) return origin(handle_->error, at, kError);
    if (int32_t code = findVariable_ByName(handle_, setting.name, &setting.variable, &setting.set)) {
      return failedWith(handle_, passThrough(handle_->error, at, code), setting.name, setting.text);
    }
    if (const char *why = parse(setting, &setting.value)) return refused(setting, at, kIllegalValue, why);
    settings_.push_back(setting);
    if (std::find(order_.begin(), order_.end(), setting.set) == order_.end()) order_.push_back(setting.set);
  }

  const Rehearsal rehearsal(before_);
  for (const Setting &setting : settings_) {
    const int32_t code = varSetValue(setting.set, setting.variable, setting.value);
    if (code == kSuccess) continue;
    const bool reasoned = handle_->error && code == kIllegalValue;
    return refused(setting, at, code, reasoned ? handle_->error->message : "");
  }
  changes_ = before_.countMoved();
  for (const Setting &setting : settings_) changes_ += setting.tunes() ? kSetByTuning : 0;
  return kSuccess;
}

int32_t Group::apply(TracePoint at) try {
  int32_t code = cancelCheck(handle_);
  if (code) return origin(handle_->error, at, code);
  code = applySettings(at);
  return code ? goBack(code, at) : kSuccess;
} catch (const std::bad_alloc &) {
  return goBack(origin(handle_->error, at, kOutOfMemory), at);
}

int32_t Group::applySettings(TracePoint at) {
  for (const Setting &setting : settings_) {
    const uint64_t old = setting.variable->value;
    const uint32_t flags = setting.variable->flags;
    {
      const Hold hold(before_);
      if (int32_t code = varSetValue(setting.set, setting.variable, setting.value)) {
        return passThrough(handle_->error, at, code);
      }
    }
    if (!setting.tunes() || setting.variable->value == old) continue;
    setting.variable->value = old;
    setting.variable->flags = flags;
    if (int32_t code = writeMoved(written_, at)) return code;
    touched_ = true;
    if (int32_t code = varSetValue(setting.set, setting.variable, setting.value)) {
      return passThrough(handle_->error, at, code);
    }
    written_ = Snapshot(handle_);
  }
  return writeMoved(written_, at);
}

// Sends what the back-ends of the variables that have moved since then write.
int32_t Group::writeMoved(const Snapshot &since, TracePoint at) {
  InterfaceHandle *bridge = handle_->interface_handle;
  if (!bridge || !bridge->SendReceiveSPI || !bridge->SetIO) return writeOneByOne(since, at);
  BusProgram program;
  std::vector<BusRecording::Operation> read_back;  // in the order of the answer
  for (VariableSet *set : order_) {
    const InterfaceLock lock(bridge);
    if (set == bridge->variables) {
      // No operations on the bus, which a stream leaves for them; they are in force at once.
      touched_ = true;
      if (int32_t code = writeBackends(since, set)) return passThrough(handle_->error, at, code);
      continue;
    }
    BusRecording recording(bridge);
    const int32_t code = writeBackends(since, set);
    recording.stop();
    if (code) return passThrough(handle_->error, at, code);
    append(recording.operations(), &program, &read_back);
  }
  return program.steps().empty() ? kSuccess : run(program, read_back, at);
}

int32_t Group::writeBackends(const Snapshot &since, VariableSet *set) const {
  return since.forEachMoved(set, [&](Variable *variable, const Slots::Slot &) {
    const bool tuned = std::strcmp(varGetName(set, variable), kTuned) == 0;
    return tuned ? int32_t{kSuccess} : varUpdateBackend(set, variable);
  });
}

int32_t Group::writeOneByOne(const Snapshot &since, TracePoint at) {
  touched_ = true;
  for (VariableSet *set : order_) {
    if (int32_t code = writeBackends(since, set)) return passThrough(handle_->error, at, code);
  }
  return kSuccess;
}

int32_t Group::run(BusProgram &program, const std::vector<BusRecording::Operation> &read_back, TracePoint at) {
  std::vector<uint8_t> answer(program.answerLength());
  if (int32_t code = read_back.empty() ? int32_t{kSuccess} : chipWaitUntilIdle(handle_->chip)) {
    return passThrough(handle_->error, at, code);
  }
  touched_ = true;
  if (int32_t code = runProgram(handle_->interface_handle, program, answer.data())) {
    return passThrough(handle_->error, at, code);
  }
  const uint8_t *present = answer.data();
  for (const BusRecording::Operation &operation : read_back) {
    if (!std::equal(operation.data(), operation.data() + operation.dataSize(), present)) {
      char message[64];
      std::snprintf(message, sizeof message, "Register 0x%02x does not keep its value",
                    unsigned{operation.read_back[0]});
      return origin(handle_->error, at, kVariableWrite, message);
    }
    present += operation.dataSize();
  }
  return kSuccess;
}

// Everything as it was before, in the registers too where something has been written.
int32_t Group::goBack(int32_t code, TracePoint at) {
  const QTX_StackTrace failure = handle_->error ? *handle_->error : QTX_StackTrace{};
  try {
    const Snapshot reached(handle_);
    before_.restore();
    // What was switched last goes back first: a power that is off would let nothing be written.
    std::reverse(order_.begin(), order_.end());
    // The first operation after a failed one may fail because of it.
    for (int attempt = 0; touched_ && attempt < 3 && writeMoved(reached, at) != kSuccess; ++attempt) {
    }
  } catch (const std::bad_alloc &) {
    before_.restore();
  }
  if (handle_->error) *handle_->error = failure;
  return code;
}

uint32_t Group::listChanges(QTX_Change *changes, uint32_t capacity) const {
  uint32_t count = 0;
  for (const Slots &slots : before_.sets()) {
    VariableSet *set = slots.set;
    before_.forEachMoved(set, [&](Variable *variable, const Slots::Slot &before) {
      if (count++ >= capacity) return int32_t{kSuccess};
      QTX_Change &change = changes[count - 1];
      change = {};
      std::snprintf(change.name, sizeof change.name, "%s", varGetName(set, variable));
      change.before = before.value;
      change.after = variable->value;
      varGetType(set, variable, &change.type);
      change.automatic = (variable->flags & VAR_FLAG_AUTO) != 0;
      return int32_t{kSuccess};
    });
  }
  return count;
}

}  // namespace

extern "C" int32_t QTX_VarsSetMany(QTX_Handle *handle, const char *const *names, const char *const *values,
                                   uint32_t count, QTX_Change *changes, uint32_t *change_count) try {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE, change_count)) return code;
  if (count > 0 && (!names || !values)) return origin(handle->error, HERE, kError);
  if (!changes && *change_count > 0) return origin(handle->error, HERE, kError);
  const SettingsChange change(handle);
  Group group(handle);
  if (int32_t code = group.check(names, values, count, HERE)) return code;
  if (changes && group.changesAtMost() > *change_count) {
    *change_count = group.changesAtMost();
    return origin(handle->error, HERE, kBufferTooSmall, "No room for the list of changes");
  }
  if (int32_t code = group.apply(HERE)) return code;
  *change_count = group.listChanges(changes, *change_count);
  return kSuccess;
} catch (const std::bad_alloc &) {
  return origin(handle->error, HERE, kOutOfMemory);
}
