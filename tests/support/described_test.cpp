// The code that is generated from a description: formulas, fields, back-ends, actions, failures.
#include "support/described.h"

#include "Bench-autogen.h"
#include "generator/Bench.h"
#include "support/numbers.h"
#include "transcript.h"

using namespace pulsekit;

namespace {

struct Bus {
  std::string log;
  uint64_t value = 0, never_set = 0;
  int32_t code = 0;
} bus;

std::string number(uint64_t value) { return std::to_string(value); }

}  // namespace

double bench_half(VariableSet *, float value) { return double{value} / 2; }
int64_t bench_add(QTX_Handle *owner, int16_t first, int64_t second) { return owner ? first + second : -1; }
int32_t bench_store(QTX_Handle *, uint32_t value) {
  bus.log += "store " + number(value) + " ";
  return bus.code;
}
int32_t bench_drivePin(QTX_Handle *, double level) {
  bus.log += level > 0 ? "high " : "low ";
  return 261;
}
int32_t bench_ExecuteAction(QTX_Handle *, uint8_t action) {
  bus.log += "strobe " + number(action) + " ";
  return bus.code;
}
int32_t bench_ReadRegister(QTX_Handle *, uint8_t, uint32_t, uint64_t *value) {
  *value = bus.value;
  return bus.code;
}
int32_t bench_WriteRegister(QTX_Handle *, uint8_t address, int32_t byte_count, uint64_t value) {
  bus.log += number(address) + "," + std::to_string(byte_count) + "=" + number(value) + " ";
  bus.value = value & ~bus.never_set;
  return bus.code;
}

namespace {

class Described : public test::Told {
 protected:
  Described() {
    watched = &record;
    QTX_StackTrace *shared = &record;
    EXPECT_EQ(vars_Bench_InitHandle(&set, &shared), 0);
    set->owner = &owner;
    EXPECT_EQ(varsInit(set), 0) << record.trace;
  }
  ~Described() override { vars_Bench_FreeHandle(&set); }
  std::string events() override { return std::exchange(bus, {}).log; }

  Variable *named(const char *name) { return varNamed(set, name); }
  int32_t put(const char *name, int64_t value) { return varSetIntValue(set, named(name), value); }
  int32_t put(const char *name, const char *text) { return varSetValue_ByString(set, name, text); }
  int32_t act(const char *name) { return varActionTrigger(set, varActionNamed(set, name)); }
  // Every value as its kind says.
  std::string values() {
    std::string text;
    for (int32_t i = 0; i < set->count; ++i) {
      Variable *variable = &set->variables[i];
      const int64_t value = varGetValue_Real(set, variable);
      const bool real = variable->flags & VAR_FLAG_FLOAT, item = variable->flags & VAR_FLAG_ENUM;
      text += std::string(" ") + varGetName(set, variable) + "=";
      text += real   ? test::show(bitsToDouble(static_cast<uint64_t>(value)))
              : item ? sym_to_str(set, static_cast<int32_t>(variable->value))
                     : std::to_string(value);
    }
    return text;
  }

  VariableSet *set = nullptr;
  QTX_Handle owner = {};
  QTX_StackTrace record = {};
};

TEST_F(Described, FormulasComputeAsWritten) {
  DO(values(), put("Count", 6), varSetFloatValue(set, named("Ratio"), -1.75), put("Mode", "Off"), values());
  DO(put("Count", 5), varSetFloatValue(set, named("Ratio"), 2.25), put("Mode", "High"), values());
}

TEST_F(Described, FieldsAreMaskedShiftedAndVerifiedTogether) {
  DO(varSetIndex(set, named("ModeInRegister"), 2), put("Middle", 0xa5), put("Wide", 9223372036854775807));
  say("a dependent beyond its field is cut, one that does not stick is told");
  DO(put("Middle", VAR_AUTO), put("Count", 200), named("Middle")->value, (bus.never_set = 16, put("Middle", 1)));
}

TEST_F(Described, BackEndsActionsAndReadouts) {
  DO(put("Stored", 7), put("Pin", "On"), put("Pin", "Down"), act("Store"), act("Idle"), act("Refused"), act("Ping"));
  DO((bus.code = 265, put("Stored", 8)), (bus.code = 265, act("Store")), (bus.code = 265, act("Ping")),
     named("Absent"));
  uint64_t value = 0;
  Variable *middle = named("Middle");
  for (uint32_t command : {uint32_t{VAR_CMD_READ_VALUE}, 0u, 5u, 6u, 9u, 10u}) {
    DO_FOR(command, (bus.value = 0xabcd, *middle->func(command, set, middle, &value)));
  }
  DO((bus.code = 264, *middle->func(VAR_CMD_READ_VALUE, set, middle, &value)));
  watched = nullptr;
  DO((record = {}, bus.code = 264, *middle->func(VAR_CMD_READ_VALUE, set, middle, &value)), record.code);
}

TEST_F(Described, SetsAreIndependent) {
  VariableSet *other = nullptr;
  QTX_StackTrace *shared = &record;
  DO(vars_Bench_InitHandle(&other, &shared), put("Count", 1), varNamed(other, "Count")->value,
     (vars_Bench_FreeHandle(&other), other));
  vars_Bench_FreeHandle(&other);
  vars_Bench_FreeHandle(nullptr);
  DO(vars_Bench_InitHandle(nullptr, &shared), vars_Bench_InitHandle(&other, nullptr), other->error_state);
  vars_Bench_FreeHandle(&other);
}

}  // namespace
