// The code that is generated from a description: formulas, fields, back-ends, actions, failures.
#include "support/described.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "Bench-autogen.h"
#include "generator/Bench.h"
#include "support/numbers.h"

using namespace pulsekit;

namespace {

struct Bus {
  std::vector<std::string> log;
  uint64_t value = 0, never_set = 0;
  int32_t code = 0;
} bus;

std::string number(uint64_t value) { return std::to_string(value); }

}  // namespace

double bench_half(VariableSet *, float value) { return double{value} / 2; }
int64_t bench_add(QTX_Handle *owner, int16_t first, int64_t second) { return owner ? first + second : -1; }
int32_t bench_store(QTX_Handle *, uint32_t value) {
  bus.log.push_back("store " + number(value));
  return bus.code;
}
int32_t bench_drivePin(QTX_Handle *, double level) {
  bus.log.push_back(level > 0 ? "high" : "low");
  return 261;
}
int32_t bench_ExecuteAction(QTX_Handle *, uint8_t action) {
  bus.log.push_back("strobe " + number(action));
  return bus.code;
}
int32_t bench_ReadRegister(QTX_Handle *, uint8_t, uint32_t, uint64_t *value) {
  *value = bus.value;
  return bus.code;
}
int32_t bench_WriteRegister(QTX_Handle *, uint8_t address, int32_t byte_count, uint64_t value) {
  bus.log.push_back(number(address) + "," + std::to_string(byte_count) + " = " + number(value));
  bus.value = value & ~bus.never_set;
  return bus.code;
}

namespace {

class Described : public ::testing::Test {
 protected:
  void SetUp() override {
    bus = {};
    ASSERT_EQ(vars_Bench_InitHandle(&set, &record), 0);
    set->owner = &owner;
    ASSERT_EQ(varsInit(set), 0) << record->trace;
    bus.log.clear();
  }
  void TearDown() override {
    vars_Bench_FreeHandle(&set);
    EXPECT_EQ(set, nullptr);
    EXPECT_EQ(record, &storage);
  }
  Variable *variable(const char *name) { return varNamed(set, name); }
  int64_t integer(const char *name) { return varGetValue_Real(set, variable(name)); }
  double real(const char *name) { return bitsToDouble(static_cast<uint64_t>(integer(name))); }
  int32_t trigger(const char *action) { return varActionTrigger(set, varActionNamed(set, action)); }

  VariableSet *set = nullptr;
  QTX_Handle owner = {};
  QTX_StackTrace storage = {};
  QTX_StackTrace *record = &storage;
};

TEST_F(Described, FormulasComputeAsWritten) {
  ASSERT_EQ(varSetIntValue(set, variable("Count"), 6), 0);
  ASSERT_EQ(varSetFloatValue(set, variable("Ratio"), -1.75), 0);
  const std::pair<const char *, double> reals[] = {
      {"Sum", 2.5}, {"Exact", 3}, {"Negative", -1.75}, {"Chosen", -1.75}, {"Called", 3 + 39}};
  for (const auto &[name, value] : reals) EXPECT_EQ(real(name), value) << name;
  const std::pair<const char *, int64_t> integers[] = {{"Whole", 17},  {"Quotient", 3}, {"Left", 192},
                                                       {"Right", 15},  {"TooFar", 0},   {"Index", 71},
                                                       {"Endless", 1}, {"Mirror", 9},   {"Middle", 12}};
  for (const auto &[name, value] : integers) EXPECT_EQ(integer(name), value) << name;

  ASSERT_EQ(varSetIntValue(set, variable("Count"), 5), 0);
  ASSERT_EQ(varSetFloatValue(set, variable("Ratio"), 2.25), 0);
  EXPECT_EQ(real("Chosen"), 5);
  EXPECT_EQ(real("Exact"), 2.5);
  EXPECT_EQ(integer("Quotient"), 2);
  EXPECT_EQ(integer("Endless"), std::numeric_limits<int64_t>::max());
}

TEST_F(Described, EnumerationsCountByTheFirstItemOfATextAndCompareByText) {
  for (const auto &[text, index, item] : {std::tuple("Off", 70, "Quiet"), {"Low", 71, "Quiet"}, {"High", 72, "Loud"}}) {
    ASSERT_EQ(varSetValue_ByString(set, "Mode", text), 0);
    EXPECT_EQ(integer("Index"), index);
    EXPECT_STREQ(sym_to_str(set, static_cast<int32_t>(variable("Item")->value)), item);
  }
}

TEST_F(Described, FieldsAreMaskedShiftedAndVerifiedTogether) {
  EXPECT_EQ(varSetIndex(set, variable("ModeInRegister"), 2), 0);
  EXPECT_EQ(varSetIntValue(set, variable("Middle"), 0xa5), 0);
  EXPECT_EQ(varSetIntValue(set, variable("Wide"), std::numeric_limits<int64_t>::max()), 0);
  EXPECT_EQ(bus.log,
            (std::vector<std::string>{"16,2 = 32929", "16,2 = 35409", "strobe 127", "127,8 = 9223372036854775807"}));
  bus.never_set = 1;
  EXPECT_EQ(varSetIntValue(set, variable("Middle"), 1), 1281);
  EXPECT_STREQ(record->message, "Write value not present when reading register.");
  EXPECT_EQ(std::string(record->trace).rfind("   at: spi_Bench_setreg_0x10_16 in tests/Bench-registers-autogen:", 0),
            0u);
}

// A dependent gets what it holds to the hardware without a range check; what does not fit the field is cut.
TEST_F(Described, AnAutomaticValueBeyondItsFieldDoesNotSpillOver) {
  EXPECT_EQ(varSetIntValue(set, variable("Count"), 200), 0);
  EXPECT_EQ(integer("Middle"), 400);
  EXPECT_EQ(bus.log.front(), "16,2 = " + number((400 & 0xff) << 4 | 1));
}

TEST_F(Described, BackEndsGetTheValueAndReportWhatTheyShould) {
  EXPECT_EQ(varSetIntValue(set, variable("Stored"), 7), 0);
  EXPECT_EQ(varSetValue_ByString(set, "Pin", "On"), 0) << "a pin is no concern of the variable";
  EXPECT_EQ(varSetValue_ByString(set, "Pin", "Down"), 0);
  EXPECT_EQ(trigger("Store"), 0);
  EXPECT_EQ(trigger("Idle"), 0);
  EXPECT_EQ(bus.log, (std::vector<std::string>{"store 7", "high", "low", "store 5"}));

  bus.code = 265;
  EXPECT_EQ(varSetIntValue(set, variable("Stored"), 8), 265);
  EXPECT_NE(std::string(record->trace).find("var_func_Bench_Stored in tests/Bench-vars-autogen:"), std::string::npos);
  for (const char *action : {"Store", "Ping"}) {
    *record = {};
    EXPECT_EQ(trigger(action), 265);
    EXPECT_NE(std::string(record->trace).find(std::string("var_func_Bench_") + action + " in"), std::string::npos);
  }
}

TEST_F(Described, LiveReadsAndRefusals) {
  EXPECT_EQ(integer("LiveInt"), 3);
  EXPECT_EQ(real("LiveFloat"), 1.5);
  EXPECT_EQ(trigger("Refused"), 4);
  EXPECT_STREQ(record->message, "Refused is not implemented for this chip");
  EXPECT_EQ(variable("Absent"), nullptr);
}

TEST_F(Described, RegistersAreReadAsAWhole) {
  bus.value = 0xabcd;
  uint64_t value = 0;
  Variable *middle = variable("Middle");
  EXPECT_EQ(*middle->func(VAR_CMD_READ_VALUE, set, middle, &value), 0xabcdu);
  for (uint32_t command : {0u, 5u, 6u, 9u, 10u}) EXPECT_EQ(*middle->func(command, set, middle, &value), 0u) << command;
}

TEST_F(Described, SetsAreIndependent) {
  VariableSet *other = nullptr;
  ASSERT_EQ(vars_Bench_InitHandle(&other, &record), 0);
  ASSERT_EQ(varSetIntValue(set, variable("Count"), 1), 0);
  EXPECT_EQ(varNamed(other, "Count")->value, 0u);
  vars_Bench_FreeHandle(&other);
  vars_Bench_FreeHandle(&other);
  vars_Bench_FreeHandle(nullptr);
  EXPECT_EQ(vars_Bench_InitHandle(nullptr, &record), 1);
  ASSERT_EQ(vars_Bench_InitHandle(&other, nullptr), 0) << "works without a record";
  vars_Bench_FreeHandle(&other);
}

}  // namespace
