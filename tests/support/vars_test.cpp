// The variable engine on a small hand-made set whose callbacks record what they are asked.
#include "support/vars.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "support/numbers.h"
#include "support/trace.h"

using namespace pulsekit;

namespace {

// Source -> Middle -> Last, Source -> Other; the rest stands alone.
enum Index {
  kSource_,
  kMiddle,
  kLast,
  kOther,
  kRatio,
  kMode,
  kFixedMode,
  kLive,
  kReadout,
  kKept,
  kNoAuto,
  kBare,
  kCount
};

constexpr const char *kSymbols[] = {
    "(invalid symbol)", "Source", "Middle", "Last", "Other", "Ratio", "Mode",   "FixedMode", "Live", "Readout", "Kept",
    "NoAuto",           "Bare",   "Off",    "Slow", "Fast",  "Run",   "Broken", "Nothing"};
constexpr int32_t kMaxSymbol = 18;
constexpr uint32_t kOff = 13, kSlow = 14, kFast = 15;
constexpr uint32_t kModes[] = {kOff, kSlow, kFast, 0};
constexpr uint32_t kNoItems[] = {0};

constexpr VarOrder kOrder[] = {{kSource_, 1}, {kRatio, 1},  {kMode, 1}, {kFixedMode, 1}, {kLive, 1},  {kReadout, 1},
                               {kKept, 1},    {kNoAuto, 1}, {kBare, 1}, {kMiddle, 2},    {kOther, 2}, {kLast, 3}};

class VariableSystem : public ::testing::Test {
 protected:
  VariableSystem() {
    current = this;
    QTX_StackTraceInit(&set.error_state, nullptr);
    const uint32_t flags[] = {VAR_FLAG_INT,
                              VAR_FLAG_INT,
                              VAR_FLAG_INT,
                              VAR_FLAG_INT,
                              VAR_FLAG_FLOAT,
                              VAR_FLAG_ENUM,
                              VAR_FLAG_ENUM | VAR_FLAG_READ_ONLY,
                              VAR_FLAG_INT | VAR_FLAG_LIVE_READ | VAR_FLAG_READ_ONLY,
                              VAR_FLAG_INT | VAR_FLAG_FROM_BACKEND | VAR_FLAG_READ_ONLY,
                              VAR_FLAG_INT | VAR_FLAG_KEEP_ON_RESET,
                              VAR_FLAG_INT | VAR_FLAG_NO_AUTO_VALUE,
                              0};
    for (int i = 0; i < kCount; ++i) {
      variables[i] = Variable{};
      variables[i].name = static_cast<uint32_t>(i + 1);
      variables[i].items = i == kMode || i == kFixedMode ? kModes : kNoItems;
      variables[i].flags = flags[i];
      variables[i].enabled = 1;
      variables[i].func = i == kBare ? nullptr : callback;
      variables[i].description = "";
    }
    actions[0] = {16, 0, action, ""};
    actions[1] = {17, 0, action, ""};
    actions[2] = {18, 0, nullptr, ""};
    set.name = "Test";
    set.version = "3.2.1";
    set.count = kCount;
    set.variables = variables;
    set.order = kOrder;
    set.action_count = 3;
    set.actions = actions;
    set.max_symbol = kMaxSymbol;
    set.symbols = kSymbols;
  }
  ~VariableSystem() override { QTX_StackTraceFree(&set.error_state); }

  static uint64_t *callback(uint32_t command, VariableSet *set, void *record, uint64_t *result) {
    return current->answer(command, set, static_cast<Variable *>(record), result);
  }

  static uint64_t *action(uint32_t command, VariableSet *set, void *record, uint64_t *result) {
    auto *triggered = static_cast<VarAction *>(record);
    if (command == VAR_CMD_TRIGGER) current->log += std::string("!") + kSymbols[triggered->name] + " ";
    *result = command == VAR_CMD_TRIGGER && triggered->name == 17 ? 768 : 0;
    (void)set;
    return result;
  }

  uint64_t *answer(uint32_t command, VariableSet *of, Variable *variable, uint64_t *result) {
    const auto index = static_cast<Index>(variable - variables);
    const std::string name = kSymbols[variable->name];
    *result = 0;
    switch (command) {
      case VAR_CMD_AUTO_VALUE:
        asked[index] = *variable;
        *result = automatic(index);
        break;
      case VAR_CMD_WRITE_BACKEND:
        log += name + "=" + std::to_string(variable->value) + " ";
        *result = static_cast<uint64_t>(write_failures[index]);
        break;
      case VAR_CMD_NOTIFY_DEPENDERS:
        log += name + "> ";
        for (Index dependent : dependents[index]) {
          if ((*result = static_cast<uint64_t>(varNotifyDependerAutovalue(of, &variables[dependent]))) != 0) break;
        }
        break;
      case VAR_CMD_LIVE_READ:
        *result = 77;
        break;
      case VAR_CMD_SAMPLE_LIVE_READ:
        log += name + "~ ";
        break;
      case VAR_CMD_UPDATE_PROPERTIES:
        ++property_updates[index];
        break;
      case VAR_CMD_READ_VALUE:
        ++register_reads;
        if (register_failure != 0) of->error_state->code = register_failure;
        *result = 55;
        break;
      case VAR_CMD_INIT_PROPERTIES:
        variable->min = index == kLast ? 1 : 0;
        variable->max = index == kRatio ? doubleToBits(2.0) : index == kSource_ ? 7 : 1000;
        break;
      default:
        break;
    }
    return result;
  }

  uint64_t automatic(Index index) {
    switch (index) {
      case kSource_:
        return 3;
      case kMiddle:
        return variables[kSource_].value * 10;
      case kLast:
        return variables[kMiddle].value + 1;
      case kOther:
        return variables[kSource_].value + 100;
      case kRatio:
        return doubleToBits(0.5);
      case kMode:
        return kSlow;
      case kFixedMode:
        return kFast;
      case kNoAuto:
      case kKept:
        return 9;
      default:
        return 0;
    }
  }

  void start() {
    ASSERT_EQ(varsInit(&set), 0);
    log.clear();
  }
  Variable *at(Index index) { return &variables[index]; }
  std::string takeLog() { return std::exchange(log, {}); }
  std::string message() const { return set.error_state->message; }
  std::string trace() const { return set.error_state->trace; }
  std::string listing(int32_t size) {
    std::string buffer(200, '~');
    code = varListVariables(&set, buffer.data(), size);
    return buffer.c_str();
  }
  std::string printed(Index index, int32_t verbose = 0) {
    char buffer[2000] = "";
    varSprint(&set, buffer, at(index), verbose);
    return buffer;
  }

  static inline VariableSystem *current = nullptr;
  VariableSet set{};
  Variable variables[kCount];
  VarAction actions[3];
  std::map<Index, std::vector<Index>> dependents{{kSource_, {kMiddle, kOther}}, {kMiddle, {kLast}}};
  std::map<Index, int32_t> write_failures;
  std::map<Index, int> property_updates;
  std::map<Index, Variable> asked;  // as the callback found them when it was last asked for the automatic value
  std::string log;
  int32_t register_failure = 0, code = 0;
  int register_reads = 0;
};

}  // namespace

TEST_F(VariableSystem, SymbolsAndNames) {
  EXPECT_STREQ(sym_to_str(&set, 18), "Nothing");
  EXPECT_STREQ(sym_to_str(&set, 19), "(invalid)");
  EXPECT_STREQ(sym_to_str(&set, -1), "(invalid)");
  EXPECT_STREQ(sym_to_str(&set, 0), "(invalid symbol)");
  EXPECT_EQ(str_to_sym(&set, "Off"), 13);
  EXPECT_EQ(str_to_sym(&set, "off"), 0);
  EXPECT_EQ(varNamed(&set, "Ratio"), at(kRatio));
  EXPECT_EQ(varNamed(&set, "ratio"), nullptr);
  EXPECT_EQ(varNamed(&set, "(invalid symbol)"), nullptr);
  EXPECT_EQ(varNamed(&set, "Off"), nullptr);  // a symbol, but no variable
  EXPECT_EQ(varNamed(&set, "Run"), nullptr);
  EXPECT_EQ(varActionNamed(&set, "Run"), &actions[0]);
  EXPECT_EQ(varActionNamed(&set, "Ratio"), nullptr);
  EXPECT_EQ(varIndex(&set, at(kMode)), kMode);
  EXPECT_STREQ(varGetName(&set, at(kMode)), "Mode");
  EXPECT_STREQ(varGetName_ByNumber(&set, kLast), "Last");
  EXPECT_STREQ(varGetName_ByNumber(&set, kCount), "(invalid)");
}

TEST_F(VariableSystem, TypesAndProperties) {
  start();
  uint32_t type = 1;
  const std::pair<Index, uint32_t> types[] = {{kSource_, 2048}, {kRatio, 4096}, {kMode, 8}, {kReadout, 2048}};
  for (auto [index, expected] : types) {
    EXPECT_EQ(varGetType(&set, at(index), &type), 0);
    EXPECT_EQ(type, expected);
  }
  type = 4711;
  EXPECT_EQ(varGetType(&set, at(kBare), &type), 0);
  EXPECT_EQ(type, 4711u);
  EXPECT_EQ(varGetType_ByName(&set, "None", &type), 1283);
  EXPECT_EQ(message(), "");

  uint64_t min = 9, max = 9;
  uint32_t flags = 0;
  EXPECT_EQ(varGetProperties(&set, at(kFixedMode), &min, &max, &flags), 0);
  EXPECT_EQ(min, 0u);
  EXPECT_EQ(max, 2u);
  EXPECT_EQ(flags, uint32_t{VAR_FLAG_ENUM | VAR_FLAG_READ_ONLY | VAR_FLAG_VISIBLE | VAR_FLAG_AUTO});
  EXPECT_EQ(varGetProperties_ByNumber(&set, kRatio, &min, &max, &flags), 0);
  EXPECT_EQ(bitsToDouble(max), 2.0);
  for (int32_t number : {-1, int32_t{kCount}}) {
    EXPECT_EQ(varGetProperties_ByNumber(&set, number, &min, &max, &flags), 1283);
  }
  at(kRatio)->flags &= ~uint32_t{VAR_FLAG_VISIBLE};
  origin(set.error_state, {"f", "s", 1}, 1, "stays");
  EXPECT_EQ(varGetProperties(&set, at(kRatio), &min, &max, &flags), 1282);
  EXPECT_EQ(message(), "stays");
}

TEST_F(VariableSystem, EnumerationItems) {
  EXPECT_EQ(varGetEnumsLength(&set, at(kMode)), 3);
  EXPECT_EQ(varGetEnumsLength(&set, at(kSource_)), 0);
  EXPECT_EQ(varGetEnumsItem(&set, at(kMode), 2), kFast);
  for (int32_t i : {-1, 3, 1000000}) EXPECT_EQ(varGetEnumsItem(&set, at(kMode), i), 0u);
  uint32_t items[4] = {1, 1, 1, 1};
  int32_t capacity = 2;
  EXPECT_EQ(varGetEnumsItems(&set, at(kMode), items, &capacity), 2);
  EXPECT_EQ(capacity, 2);
  EXPECT_EQ(items[0], 1u);
  capacity = 3;
  EXPECT_EQ(varGetEnumsItems(&set, at(kMode), items, &capacity), 0);
  EXPECT_EQ(capacity, 3);
  EXPECT_EQ(items[2], kFast);
  EXPECT_EQ(items[3], 1u);
  int32_t index = 5;
  EXPECT_EQ(varGetEnumIndex(&set, at(kMode), kFast, &index), 0);
  EXPECT_EQ(index, 2);
  EXPECT_EQ(varGetEnumIndex(&set, at(kMode), 1, &index), 1);
  EXPECT_EQ(index, -1);
  EXPECT_EQ(varGetEnumIndex(&set, at(kSource_), 1, &index), 1);
}

TEST_F(VariableSystem, ListingStopsAtTheFirstNameThatDoesNotFit) {
  const std::string all = "Source,Middle,Last,Other,Ratio,Mode,FixedMode,Live,Readout,Kept,NoAuto,Bare";
  EXPECT_EQ(listing(static_cast<int32_t>(all.size()) + 1), all);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(listing(static_cast<int32_t>(all.size())), all.substr(0, all.rfind(',')));
  EXPECT_EQ(code, 2);
  EXPECT_EQ(listing(1), "");
  EXPECT_EQ(code, 2);
  EXPECT_EQ(listing(0)[0], '~');
  EXPECT_EQ(code, 2);
  EXPECT_EQ(listing(-7)[0], '~');

  set.count = 2;
  const char *const letters[] = {"(invalid symbol)", "a", "b"};
  set.symbols = letters;
  set.max_symbol = 2;
  EXPECT_EQ(listing(4), "a,b");
  EXPECT_EQ(code, 0);
  EXPECT_EQ(listing(3), "a");
  EXPECT_EQ(code, 2);
  set.count = 0;
  EXPECT_EQ(listing(1), "");
  EXPECT_EQ(code, 0);
  char actions_text[40];
  set.symbols = kSymbols;
  set.max_symbol = kMaxSymbol;
  EXPECT_EQ(varListActions(&set, actions_text, sizeof actions_text), 0);
  EXPECT_STREQ(actions_text, "Run,Broken,Nothing");
}

TEST_F(VariableSystem, TextForms) {
  start();
  EXPECT_EQ(printed(kSource_), "Source A[0..7](default:3)(auto:3)=auto=3");
  EXPECT_EQ(printed(kMode), "Mode A{Off,Slow,Fast}(default:Slow)(auto:Slow)=auto=Slow");
  EXPECT_EQ(printed(kRatio), "Ratio A=auto");
  EXPECT_EQ(printed(kNoAuto), "NoAuto a[0..1000](default:0)(auto:0)=auto");
  EXPECT_EQ(printed(kReadout), "Readout RA[0..1000](default:0)(auto:0)=auto=55");
  varSetIntValue(&set, at(kSource_), 5);
  varSetFloatValue(&set, at(kRatio), 1.0);
  EXPECT_EQ(printed(kSource_), "Source [0..7](default:3)=5");
  EXPECT_EQ(printed(kRatio), "Ratio ");
  EXPECT_EQ(printed(kRatio, 1), "Ratio ");
  at(kBare)->flags |= VAR_FLAG_AUTO;
  EXPECT_EQ(printed(kBare), "Bare A");

  at(kRatio)->description = "ab\nmore\nlines";
  EXPECT_EQ(printed(kRatio, 1), "more\nlines\nRatio " + std::string(44, ' ') + "ab\nmore\nlinesb\nmore\nlines");
  EXPECT_EQ(printed(kRatio, 0), "Ratio ");
  char kept[100] = "before ";
  varSprint(&set, kept, at(kSource_), 0);
  EXPECT_STREQ(kept, "before Source [0..7](default:3)=5");
}

TEST_F(VariableSystem, StartWritesEveryBackendOnceInEvaluationOrder) {
  ASSERT_EQ(varsInit(&set), 0);
  EXPECT_EQ(log.substr(log.find("Source=")),
            "Source=3 Ratio=4602678819172646912 Mode=14 FixedMode=15 Live=0 Readout=55 Kept=9 NoAuto=0 Middle=30 "
            "Other=103 Last=31 ");
  for (int i = 0; i < kCount; ++i) {
    EXPECT_EQ(variables[i].flags & VAR_FLAG_VISIBLE, 1u) << i;
    EXPECT_EQ((variables[i].flags & VAR_FLAG_AUTO) != 0, i != kBare) << i;
  }
  EXPECT_EQ(varsPropertiesUpdatedSinceLastCheck(&set), 1);
  EXPECT_EQ(varsPropertiesUpdatedSinceLastCheck(&set), 0);
  EXPECT_EQ(set.backend_hold, 0u);
  EXPECT_EQ(set.auto_depth, 0u);
  EXPECT_EQ(actions[2].flags & VAR_FLAG_VISIBLE, 1u);
}

TEST_F(VariableSystem, ChangeIsWrittenThenTravelsDepthFirst) {
  start();
  EXPECT_EQ(varSetIntValue(&set, at(kSource_), 5), 0);
  EXPECT_EQ(takeLog(), "Source=5 Source> Middle> Last> Last=51 Middle=50 Other> Other=105 ");
  EXPECT_EQ(varSetIntValue(&set, at(kSource_), 5), 0);
  EXPECT_EQ(takeLog(), "");

  // A fixed dependent ends the chain; setting it to its current value fixes it without touching the hardware.
  EXPECT_EQ(varSetIntValue(&set, at(kMiddle), 50), 0);
  EXPECT_EQ(takeLog(), "");
  EXPECT_EQ(at(kMiddle)->flags & VAR_FLAG_AUTO, 0u);
  EXPECT_EQ(varSetIntValue(&set, at(kSource_), 6), 0);
  EXPECT_EQ(takeLog(), "Source=6 Source> Other> Other=106 ");
  EXPECT_EQ(at(kMiddle)->value, 50u);
  EXPECT_EQ(varSetIntValue(&set, at(kMiddle), VAR_AUTO), 0);
  EXPECT_EQ(takeLog(), "Middle=60 Middle> Last> Last=61 ");
  EXPECT_EQ(varSetIntValue(&set, at(kMiddle), VAR_AUTO), 0);
  EXPECT_EQ(takeLog(), "");
}

TEST_F(VariableSystem, AVariableHoldsItsOldValueInAutomaticStateWhileTheAutomaticOneIsComputed) {
  start();
  varSetIntValue(&set, at(kSource_), 5);
  EXPECT_EQ(varSetIntValue(&set, at(kSource_), VAR_AUTO), 0);
  EXPECT_EQ(asked[kSource_].value, 5u);
  EXPECT_NE(asked[kSource_].flags & VAR_FLAG_AUTO, 0u);
  at(kOther)->value = 77;
  EXPECT_EQ(varDependencyUpdated(&set, at(kOther)), 0);
  EXPECT_EQ(asked[kOther].value, 77u);
  at(kMode)->value = kOff;
  EXPECT_EQ(varsCalculateAutoValues_NoBackendUpdates(&set), 0);
  EXPECT_EQ(asked[kMode].value, kOff);
  EXPECT_EQ(at(kMode)->value, kSlow);
}

TEST_F(VariableSystem, RejectedValuesChangeNothing) {
  start();
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct Case {
    Index index;
    uint64_t value;
    uint32_t mode;
    int32_t code;
    const char *message;
  };
  const char *low = "Value lower than min value", *high = "Value greater than max value";
  const Case cases[] = {
      {kSource_, 8, 0, 1286, high},
      {kSource_, static_cast<uint64_t>(-1), 0, 1286, high},  // unsigned: never below the minimum
      {kLast, 0, 0, 1286, low},
      {kRatio, doubleToBits(-0.1), 0, 1286, low},
      {kRatio, doubleToBits(2.1), 0, 1286, high},
      {kRatio, doubleToBits(nan), 0, 1286, ""},
      {kMode, 3, 0, 1286, ""},
      {kMode, 3, VAR_SET_AS_INDEX, 1286, ""},
      {kMode, static_cast<uint64_t>(-1), VAR_SET_AS_INDEX, 1286, ""},
      {kBare, 0, 0, 1286, ""},
      {kFixedMode, kOff, 0, 1285, "stays"},
      {kLive, 5, 0, 1285, "stays"},
      {kLive, 5, VAR_SET_EVEN_READ_ONLY, 1285, "stays"},
      {kReadout, 5, VAR_SET_EVEN_READ_ONLY, 1285, "stays"},
      {kFixedMode, VAR_AUTO, 0, 1285, "stays"},
  };
  for (const Case &c : cases) {
    const Variable before = *at(c.index);
    origin(set.error_state, {"f", "s", 1}, 1, "stays");
    EXPECT_EQ(varSetValue_Sub(&set, at(c.index), c.value, c.mode), c.code) << c.index << " " << c.value;
    EXPECT_EQ(message(), c.message) << c.index << " " << c.value;
    EXPECT_EQ(before.value, at(c.index)->value);
    EXPECT_EQ(before.flags, at(c.index)->flags);
  }
  EXPECT_EQ(log, "");
  varSetIntValue(&set, at(kSource_), 8);
  EXPECT_EQ(trace().find("   at: varSetValue_Sub in src/support/vars:"), 0u);
  EXPECT_NE(trace().find("\r\n   from: varSetIntValue in src/support/vars:"), std::string::npos);
}

TEST_F(VariableSystem, SetByEveryWrapper) {
  start();
  EXPECT_EQ(varSetIndex(&set, at(kMode), 2), 0);
  EXPECT_EQ(at(kMode)->value, kFast);
  EXPECT_EQ(varSetValue(&set, at(kMode), kOff), 0);
  EXPECT_EQ(varSetValue_ByNumber_AsIndex(&set, kMode, 1), 0);
  EXPECT_EQ(at(kMode)->value, kSlow);
  EXPECT_EQ(varSetIntValue_ByNmber_AsIndex(&set, kMode, 0), 0);
  EXPECT_EQ(at(kMode)->value, kOff);
  EXPECT_EQ(varSetValue_EvenReadOnly(&set, at(kFixedMode), kOff), 0);
  EXPECT_EQ(varSetIntValue_EvenReadOnly(&set, at(kFixedMode), kSlow), 0);
  EXPECT_EQ(varSetIntValue_ByNumber(&set, kSource_, 1), 0);
  EXPECT_EQ(varSetValue_ByName(&set, "Source", 2), 0);
  EXPECT_EQ(at(kSource_)->value, 2u);
  for (int32_t number : {-1, int32_t{kCount}}) {
    EXPECT_EQ(varSetValue_ByNumber(&set, number, 0), 1283);
    EXPECT_EQ(varSetIntValue_ByNumber(&set, number, 0), 1283);
    EXPECT_EQ(varSetIntValue_ByNmber_AsIndex(&set, number, 0), 1283);
  }
  origin(set.error_state, {"f", "s", 1}, 1, "goes");
  EXPECT_EQ(varSetValue_ByName(&set, "source", 2), 1283);
  EXPECT_EQ(message(), "");
}

TEST_F(VariableSystem, SetFromText) {
  start();
  struct Case {
    const char *name, *text;
    int32_t code;
    Index index;
    uint64_t value;
  };
  const Case cases[] = {
      {"Source", " 6 apples", 0, kSource_, 6},
      {"Source", "auto", 0, kSource_, 3},
      {"Source", "Auto", 0, kSource_, 0},
      {"Source", "8", 1286, kSource_, 0},
      {"Source", "-1", 1286, kSource_, 0},
      {"Mode", "Fast", 0, kMode, kFast},
      {"Mode", "fast", 1286, kMode, kFast},
      {"Mode", "1", 1286, kMode, kFast},
      {"Mode", "Source", 1286, kMode, kFast},
      {"Ratio", "1.25e0x", 0, kRatio, doubleToBits(1.25)},
      {"Ratio", "nan", 1286, kRatio, doubleToBits(1.25)},
      {"Bare", "1", 1, kBare, 0},
      {"None", "1", 1283, kBare, 0},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(varSetValue_ByString(&set, c.name, c.text), c.code) << c.name << "=" << c.text;
    EXPECT_EQ(at(c.index)->value, c.value) << c.name << "=" << c.text;
  }
}

TEST_F(VariableSystem, FailedWriteStopsTheChangeButKeepsTheValue) {
  start();
  write_failures[kSource_] = 1281;
  EXPECT_EQ(varSetIntValue(&set, at(kSource_), 5), 1281);
  EXPECT_EQ(takeLog(), "Source=5 ");
  EXPECT_EQ(at(kSource_)->value, 5u);
  write_failures = {{kLast, 264}};
  EXPECT_EQ(varSetIntValue(&set, at(kSource_), 6), 264);
  EXPECT_EQ(takeLog(), "Source=6 Source> Middle> Last> Last=61 ");  // Middle and Other are not reached
}

TEST_F(VariableSystem, Reading) {
  start();
  uint64_t value = 0;
  int64_t integer = 0;
  EXPECT_EQ(varGetValue(&set, at(kLive), &value), 0);
  EXPECT_EQ(value, 77u);
  EXPECT_EQ(at(kLive)->value, 0u);
  EXPECT_EQ(varGetValue_ByName(&set, "Readout", &value), 0);
  EXPECT_EQ(value, 55u);
  EXPECT_EQ(varGetIntValue_ByNumber(&set, kMiddle, &integer), 0);
  EXPECT_EQ(integer, 30);
  EXPECT_EQ(varGetIntValue_ByName(&set, "None", &integer), 1283);
  EXPECT_EQ(varGetValue_ByNumber(&set, kCount, &value), 1283);
  EXPECT_EQ(varGetValue_Real(&set, at(kMode)), 1);
  at(kMode)->value = 999;
  EXPECT_EQ(varGetValue_Real(&set, at(kMode)), -1);
  EXPECT_EQ(varSampleLiveread(&set, at(kLive)), 0);
  EXPECT_EQ(takeLog(), "Live~ ");

  register_failure = 264;
  EXPECT_EQ(varGetValue(&set, at(kReadout), &value), 264);
  EXPECT_EQ(varGetValue_Real(&set, at(kReadout)), -1);
  register_failure = 0;
  set.error_state->code = 99;  // an older failure must not spoil the read
  EXPECT_EQ(varGetValue(&set, at(kReadout), &value), 0);

  at(kSource_)->flags &= ~uint32_t{VAR_FLAG_VISIBLE};
  EXPECT_EQ(varGetValue(&set, at(kSource_), &value), 1282);
  EXPECT_EQ(varGetValue_Real(&set, at(kSource_)), -1);
  EXPECT_EQ(varUpdateBackend(&set, at(kSource_)), 0);
  EXPECT_EQ(log, "");

  uint64_t automatic = 4711;
  varGetAutoValue(&set, at(kBare), &automatic);
  EXPECT_EQ(automatic, 4711u);
  varGetAutoValue(&set, at(kNoAuto), &automatic);
  EXPECT_EQ(automatic, 0u);
  varGetAutoValue(&set, at(kReadout), &automatic);
  EXPECT_EQ(automatic, 55u);
}

TEST_F(VariableSystem, ValidityAndRevalidation) {
  start();
  EXPECT_EQ(varValidValue(&set, at(kSource_), VAR_AUTO), 1);
  EXPECT_EQ(varValidValue(&set, at(kSource_), 8), 0);
  EXPECT_EQ(varValidValue(&set, at(kMode), kFast), 1);
  EXPECT_EQ(varValidValue(&set, at(kMode), 1), 0);
  EXPECT_EQ(varValidValue(&set, at(kRatio), doubleToBits(2.0)), 1);
  varSetIntValue(&set, at(kSource_), 5);
  EXPECT_EQ(varValidValue(&set, at(kSource_), VAR_AUTO), 0);
  EXPECT_EQ(varPropertiesUpdated(&set, at(kSource_)), 1);
  log.clear();
  at(kSource_)->max = 4;
  EXPECT_EQ(varPropertiesUpdated(&set, at(kSource_)), 0);
  EXPECT_EQ(at(kSource_)->value, 3u);
  EXPECT_EQ(at(kSource_)->flags & VAR_FLAG_AUTO, 0u);
  EXPECT_EQ(log.find("Source=3 "), 0u);
}

TEST_F(VariableSystem, ResetKeepsWhatIsMarkedAndStopsWritingAtAFailure) {
  start();
  varSetIntValue(&set, at(kKept), 500);
  varSetIntValue(&set, at(kMiddle), 1);
  varSetIntValue(&set, at(kSource_), 6);
  at(kBare)->value = 17;
  log.clear();
  write_failures[kMode] = 1281;
  EXPECT_EQ(varsResetAll(&set), 1281);
  EXPECT_EQ(log.substr(log.find("Source=")), "Source=3 Ratio=4602678819172646912 Mode=14 ");
  EXPECT_EQ(at(kKept)->value, 500u);
  EXPECT_EQ(at(kBare)->value, 0u);
  EXPECT_EQ(at(kMiddle)->value, 30u);
  EXPECT_EQ(at(kLast)->value, 31u);
  EXPECT_EQ(set.backend_hold, 0u);
}

TEST_F(VariableSystem, HeldBackendsAreNotWritten) {
  start();
  set.backend_hold = 1;
  EXPECT_EQ(varSetIntValue(&set, at(kSource_), 6), 0);
  EXPECT_EQ(takeLog(), "Source> Middle> Last> Other> ");
  set.backend_hold = 0;
  at(kSource_)->enabled = 0;
  EXPECT_EQ(varsUpdateProperties(&set), 0);
  EXPECT_EQ(property_updates[kSource_], 2);  // once at start, once now
  EXPECT_EQ(at(kSource_)->flags & VAR_FLAG_VISIBLE, 0u);
  EXPECT_EQ(actions[0].flags & VAR_FLAG_VISIBLE, 0u);  // an action follows the variable of its index
  EXPECT_EQ(actions[1].flags & VAR_FLAG_VISIBLE, 1u);
  EXPECT_EQ(varsUpdateAllBackends(&set), 0);
  EXPECT_EQ(log.find("Ratio="), 0u);
}

TEST_F(VariableSystem, OtherEdges) {
  start();
  EXPECT_EQ(varDependencyUpdated(&set, at(kMiddle)), 0);
  EXPECT_EQ(takeLog(), "");  // unchanged
  at(kSource_)->value = 4;
  EXPECT_EQ(varDependencyUpdated(&set, at(kMiddle)), 0);
  EXPECT_EQ(takeLog(), "Middle=40 Middle> Last> Last=41 ");
  set.auto_depth = 1;
  EXPECT_EQ(varDependencyUpdated(&set, at(kMiddle)), 0);
  EXPECT_EQ(takeLog(), "Middle=40 Middle> Last> Last=41 ");
  set.auto_depth = 0;
  write_failures[kMiddle] = 264;
  at(kSource_)->value = 5;
  EXPECT_EQ(varDependencyUpdated(&set, at(kMiddle)), 0);  // its own write may fail
  EXPECT_EQ(varNotifyDependerBackend(&set, at(kMiddle)), 264);
  EXPECT_EQ(varNotifyDependerBackend(&set, at(kBare)), 0);
  takeLog();
  EXPECT_EQ(varNotifyDependerProperties(&set, at(kMiddle)), 0);  // failures end here
  EXPECT_EQ(takeLog(), "Middle> Last> Last=51 Middle=50 ");
  at(kMiddle)->enabled = 0;
  EXPECT_EQ(varNotifyDependerProperties(&set, at(kMiddle)), 0);
  EXPECT_EQ(at(kMiddle)->flags & VAR_FLAG_VISIBLE, 0u);
  EXPECT_EQ(varNotifyDependers(&set, at(kBare)), 0);
  EXPECT_EQ(varNotifyDependerAutovalue(&set, at(kBare)), 0);
}

TEST_F(VariableSystem, Actions) {
  EXPECT_EQ(varActionTrigger(&set, &actions[0]), 0);
  EXPECT_EQ(takeLog(), "!Run ");
  EXPECT_EQ(varActionTrigger(&set, &actions[1]), 768);
  EXPECT_EQ(varActionTrigger(&set, &actions[2]), 1280);
  EXPECT_EQ(trace().find("   at: varActionTrigger in src/support/vars:"), 0u);
}

TEST_F(VariableSystem, RecordsWithNothingInTheirPointersAreHarmless) {
  Variable *bare = at(kBare);
  bare->items = nullptr;
  bare->description = nullptr;
  QTX_StackTraceFree(&set.error_state);
  for (uint32_t flags : {VAR_FLAG_INT, VAR_FLAG_FLOAT, VAR_FLAG_ENUM, VAR_FLAG_LIVE_READ, VAR_FLAG_FROM_BACKEND}) {
    bare->flags = flags;
    start();
    bare->flags |= VAR_FLAG_VISIBLE | VAR_FLAG_AUTO;
    uint64_t value = 0, min = 0, max = 0;
    uint32_t reported = 0, item = 0;
    int32_t index = 0, capacity = 0;
    const bool settable = flags == VAR_FLAG_INT || flags == VAR_FLAG_FLOAT;
    EXPECT_EQ(varGetValue(&set, bare, &value), 0);
    EXPECT_EQ(varSetValue(&set, bare, 0), settable ? 0 : flags == VAR_FLAG_ENUM ? 1286 : 1285);
    varSetIndex(&set, bare, 0);
    varSetValue(&set, bare, VAR_AUTO);
    EXPECT_EQ(varGetProperties(&set, bare, &min, &max, &reported), 0);
    EXPECT_EQ(varGetEnumsItem(&set, bare, 0), 0u);
    EXPECT_EQ(varGetEnumsItems(&set, bare, &item, &capacity), 0);
    EXPECT_EQ(varGetEnumIndex(&set, bare, 1, &index), 1);
    varPropertiesUpdated(&set, bare);
    EXPECT_EQ(varNotifyDependerProperties(&set, bare), 0);
    EXPECT_EQ(varDependencyUpdated(&set, bare), 0);
    EXPECT_EQ(printed(kBare, 1).rfind("Bare ", 0), 0u);
  }
}

TEST_F(VariableSystem, NullArgumentsAreRefused) {
  start();
  uint64_t value = 0;
  uint32_t type = 0;
  int32_t number = 0;
  char text[4] = "abc";
  EXPECT_EQ(varGetValue(&set, at(kSource_), nullptr), 1);
  EXPECT_EQ(trace().find("   at: varGetValue in src/support/vars:"), 0u);
  EXPECT_EQ(varGetValue(nullptr, at(kSource_), &value), 1);
  EXPECT_EQ(varSetValue(&set, nullptr, 1), 1);
  EXPECT_EQ(varSetValue_ByName(&set, nullptr, 1), 1);
  EXPECT_EQ(varSetValue_ByString(&set, "Source", nullptr), 1);
  EXPECT_EQ(varGetType(&set, nullptr, &type), 1);
  EXPECT_EQ(varGetEnumIndex(&set, nullptr, 1, &number), 1);
  EXPECT_EQ(varListVariables(nullptr, text, 4), 1);
  EXPECT_EQ(varListActions(&set, nullptr, 4), 1);
  EXPECT_EQ(varsInit(nullptr), 1);
  EXPECT_EQ(varActionTrigger(&set, nullptr), 1);
  EXPECT_EQ(varIndex(nullptr, nullptr), -1);
  EXPECT_EQ(varGetValue_Real(&set, nullptr), -1);
  EXPECT_EQ(varNamed(nullptr, "Source"), nullptr);
  EXPECT_EQ(varActionNamed(&set, nullptr), nullptr);
  EXPECT_STREQ(varGetName(nullptr, nullptr), "(invalid)");
  varSprint(&set, nullptr, at(kSource_), 1);
  EXPECT_STREQ(text, "abc");
}
