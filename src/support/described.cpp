#include "described.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <new>

#include "numbers.h"

namespace pulsekit {

namespace {

template <typename Record>
std::unique_ptr<Record[]> copyOf(const Record *records, int32_t count) {
  std::unique_ptr<Record[]> copy(new (std::nothrow) Record[static_cast<size_t>(count)]);
  if (copy) std::copy_n(records, count, copy.get());
  return copy;
}

QTX_Handle *ownerOf(VariableSet *set) { return static_cast<QTX_Handle *>(set->owner); }

}  // namespace

int32_t createVariableSet(const Description &description, VariableSet **out, QTX_StackTrace **error_state) {
  if (!out) return kError;
  *out = nullptr;
  std::unique_ptr<VariableSet> set(new (std::nothrow) VariableSet{});
  auto variables = copyOf(description.variables, description.count);
  auto actions = copyOf(description.actions, description.action_count);
  if (!set || !variables || !actions) return kOutOfMemory;

  set->name = description.name;
  set->version = "3.2.1";
  set->count = description.count;
  set->order = description.order;
  set->action_count = description.action_count;
  set->max_symbol = description.max_symbol;
  set->symbols = description.symbols;
  if (error_state) QTX_StackTraceInit(&set->error_state, error_state);
  set->variables = variables.release();
  set->actions = actions.release();
  *out = set.release();
  return kSuccess;
}

void freeVariableSet(VariableSet **set) {
  if (!set || !*set) return;
  delete[](*set)->variables;
  delete[](*set)->actions;
  delete *set;
  *set = nullptr;
}

uint64_t *int_to_value(int64_t value, uint64_t *result) {
  *result = static_cast<uint64_t>(value);
  return result;
}

uint64_t *float_to_value(double value, uint64_t *result) {
  *result = doubleToBits(value);
  return result;
}

int64_t integerOf(VariableSet *set, int32_t index) { return varGetValue_Real(set, &set->variables[index]); }

double floatOf(VariableSet *set, int32_t index) {
  return bitsToDouble(static_cast<uint64_t>(varGetValue_Real(set, &set->variables[index])));
}

int64_t truncated(double value) {
  constexpr double kBeyond = 9223372036854775808.0;
  if (std::isnan(value)) return 0;
  if (value >= kBeyond) return std::numeric_limits<int64_t>::max();
  if (value < -kBeyond) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(value);
}

int64_t shiftedLeft(int64_t value, int64_t count) {
  return count < 0 || count > 63 ? 0 : static_cast<int64_t>(static_cast<uint64_t>(value) << count);
}

int64_t shiftedRight(int64_t value, int64_t count) { return count < 0 || count > 63 ? 0 : value >> count; }

uint64_t registerField(VariableSet *set, int32_t index, uint64_t mask, int shift) {
  return (static_cast<uint64_t>(integerOf(set, index)) & mask) << shift;
}

int32_t writeVerified(const RegisterBus &bus, VariableSet *set, TracePoint at, uint8_t address, int32_t byte_count,
                      uint64_t value) {
  QTX_Handle *owner = ownerOf(set);
  if (int32_t code = bus.write(owner, address, byte_count, value)) return passThrough(set->error_state, at, code);
  uint64_t present = 0;
  if (int32_t code = bus.read(owner, address, static_cast<uint32_t>(byte_count), &present)) {
    return passThrough(set->error_state, at, code);
  }
  if (present != value) {
    return origin(set->error_state, at, kVariableWrite, "Write value not present when reading register.");
  }
  return kSuccess;
}

uint64_t readWhole(const RegisterBus &bus, VariableSet *set, TracePoint at, uint8_t address, uint32_t byte_count) {
  uint64_t value = 0;
  if (int32_t code = bus.read(ownerOf(set), address, byte_count, &value)) {
    passThrough(set->error_state, at, code);
    // Whoever asked learns of the failure from the record only.
    if (set->error_state && set->error_state->code == kSuccess) set->error_state->code = code;
    return 0;
  }
  return value;
}

}  // namespace pulsekit
