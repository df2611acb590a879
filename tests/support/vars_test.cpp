// The variable engine on a small hand-made set whose callbacks tell what they are asked.
#include "support/vars.h"

#include <cmath>
#include <map>
#include <utility>

#include "support/numbers.h"
#include "support/trace.h"
#include "transcript.h"

using namespace pulsekit;

namespace {

// Source -> Middle -> Last, Source -> Other; the rest stands alone.
enum Index { kRoot, kMiddle, kLast, kOther, kRatio, kMode, kFixed, kLive, kReadout, kKept, kNoAuto, kBare, kCount };
constexpr const char *kSymbols[] = {
    "(invalid symbol)", "Root", "Middle", "Last", "Other", "Ratio", "Mode",   "Fixed",  "Live", "Readout", "Kept",
    "NoAuto",           "Bare", "Off",    "Slow", "Fast",  "Run",   "Broken", "Nothing"};
constexpr uint32_t kOff = 13, kSlow = 14, kFast = 15, kModes[] = {kOff, kSlow, kFast, 0}, kNoItems[] = {0};
constexpr VarOrder kOrder[] = {{kRoot, 1}, {kRatio, 1},  {kMode, 1}, {kFixed, 1},  {kLive, 1},  {kReadout, 1},
                               {kKept, 1}, {kNoAuto, 1}, {kBare, 1}, {kMiddle, 2}, {kOther, 2}, {kLast, 3}};

class Variables : public test::Told {
 protected:
  Variables() {
    watched = &record;
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
    for (uint32_t i = 0; i < kCount; ++i) {
      const auto callback = [](uint32_t command, VariableSet *of, void *variable, uint64_t *result) {
        *result = static_cast<Variables *>(of->owner)->answer(command, static_cast<Variable *>(variable));
        return result;
      };
      variables[i] = {i + 1, 0, 0, 0, i == kMode || i == kFixed ? kModes : kNoItems, flags[i], 1, callback, "", 0};
    }
    variables[kBare].func = nullptr;
    set.owner = this;
    set.variables = variables;
    set.error_state = &record;
    EXPECT_EQ(varsInit(&set), 0);
  }

  uint64_t answer(uint32_t command, Variable *variable) {
    const auto index = static_cast<Index>(variable - variables);
    const std::string name = kSymbols[variable->name];
    switch (command) {
      case VAR_CMD_AUTO_VALUE: {
        const bool automatic = variable->flags & VAR_FLAG_AUTO;
        log += "?" + name + (automatic ? "@" : "") + std::to_string(variable->value) + " ";
        const uint64_t values[] = {3,
                                   at(kRoot)->value * 10,
                                   at(kMiddle)->value + 1,
                                   at(kRoot)->value + 100,
                                   doubleToBits(0.5),
                                   kSlow,
                                   kFast,
                                   0,
                                   0,
                                   9,
                                   9,
                                   0};
        return values[index];
      }
      case VAR_CMD_WRITE_BACKEND:
        log += name + "=" + std::to_string(variable->value) + " ";
        return static_cast<uint64_t>(index == failing ? failure : 0);
      case VAR_CMD_NOTIFY_DEPENDERS: {
        log += name + "> ";
        const std::map<Index, std::vector<Index>> dependents = {{kRoot, {kMiddle, kOther}}, {kMiddle, {kLast}}};
        if (!dependents.contains(index)) return 0;
        for (Index dependent : dependents.at(index)) {
          if (int32_t code = varNotifyDependerAutovalue(&set, at(dependent))) return static_cast<uint64_t>(code);
        }
        return 0;
      }
      case VAR_CMD_READ_VALUE:
        if (read_failure) record.code = read_failure;
        return 55;
      case VAR_CMD_INIT_PROPERTIES:
        variable->min = index == kLast ? 1 : 0;
        variable->max = index == kRatio ? doubleToBits(2.0) : index == kRoot ? 7 : 1000;
        return 0;
      case VAR_CMD_LIVE_READ:
        return 77;
      default:
        log += test::format("%s:%u ", name.c_str(), command);
        return 0;
    }
  }
  std::string events() override { return std::exchange(log, {}); }

  Variable *at(Index index) { return &variables[index]; }
  std::string state(Index index) {
    const Variable &v = *at(index);
    return std::to_string(v.value) + test::format(" flags %x", v.flags);
  }
  std::string sub(Index index, uint64_t next, uint32_t mode = 0) {
    const int32_t code = varSetValue_Sub(&set, at(index), next, mode);
    return std::to_string(code) + ", " + state(index);
  }
  void hide(Index index) { at(index)->flags &= ~uint32_t{VAR_FLAG_VISIBLE}; }
  std::string printed(Index index, int32_t verbose = 0) {
    char buffer[2000] = "before ";
    varSprint(&set, buffer, at(index), verbose);
    return buffer;
  }
  std::string listed(int32_t size, int32_t (*list)(VariableSet *, char *, int32_t) = varListVariables) {
    std::string buffer(100, '~');
    const int32_t code = list(&set, buffer.data(), size);
    return std::to_string(code) + " " + buffer.c_str();
  }

  static uint64_t *act(uint32_t command, VariableSet *of, void *action, uint64_t *result) {
    const uint32_t name = static_cast<VarAction *>(action)->name;
    if (command == VAR_CMD_TRIGGER) static_cast<Variables *>(of->owner)->log += kSymbols[name];
    *result = command == VAR_CMD_TRIGGER && name == 17 ? 768 : 0;
    return result;
  }

  std::string log;
  Index failing = kCount;
  int32_t failure = 1281, read_failure = 0;
  QTX_StackTrace record = {};
  Variable variables[kCount];
  VarAction actions[3] = {{16, 0, act, ""}, {17, 0, act, ""}, {18, 0, nullptr, ""}};
  VariableSet set{"Test", "3.2.1", kCount, nullptr, kOrder, 3, actions, 18, kSymbols, 0, 0, 0, nullptr, nullptr};
  uint64_t value = 4711, max = 4711;
  int64_t integer = 4711;
  uint32_t type = 4711, items[4] = {1, 1, 1, 1};
  int32_t number = 2;
};

TEST_F(Variables, Start) {
  for (int i = 0; i < kCount; ++i) DO_FOR(kSymbols[i + 1], state(static_cast<Index>(i)));
  DO(varsPropertiesUpdatedSinceLastCheck(&set), varsPropertiesUpdatedSinceLastCheck(&set));
  set.auto_depth = set.backend_hold = 5;
  DO(varsInit(&set), set.auto_depth + set.backend_hold, actions[2].flags);
}

TEST_F(Variables, NamesTypesItemsAndTexts) {
  for (int32_t i : {-1, 0, 18, 19}) DO_FOR(i, sym_to_str(&set, i));
  for (const char *name : {"Off", "off", "Ratio", "ratio", "(invalid symbol)", "Run"}) {
    say(name + test::format(": symbol %d variable %d action %d", str_to_sym(&set, name),
                            varIndex(&set, varNamed(&set, name)), varActionNamed(&set, name) == actions));
  }
  DO(varGetName(&set, at(kMode)));
  for (int32_t i : {-1, int32_t{kLast}, int32_t{kCount}}) {
    DO_FOR(i, varGetName_ByNumber(&set, i), varGetProperties_ByNumber(&set, i, &value, &max, &type),
           varSetValue_ByNumber(&set, i, 1), varSetIntValue_ByNumber(&set, i, 2),
           varSetIntValue_ByNmber_AsIndex(&set, i, 0), varGetValue_ByNumber(&set, i, &value),
           varGetIntValue_ByNumber(&set, i, &integer));
  }
  for (Index i : {kRoot, kRatio, kMode, kReadout, kBare}) {
    type = 4711;
    DO_FOR(kSymbols[i + 1], varGetType(&set, at(i), &type), type, varGetProperties(&set, at(i), &value, &max, &type),
           value, max, type);
  }
  hide(kRatio);
  DO(varGetProperties(&set, at(kRatio), &value, &max, &type), varGetType_ByName(&set, "None", &type));
  for (int32_t i : {-1, 0, 2, 3, 1000000}) DO_FOR(i, varGetEnumsItem(&set, at(kMode), i));
  DO(varGetEnumsLength(&set, at(kRoot)), varGetEnumsItems(&set, at(kMode), items, &number));
  number = 3;
  DO(varGetEnumsItems(&set, at(kMode), items, &number), items[0], items[2], items[3], number);
  for (uint32_t symbol : {kFast, 1u}) {
    DO_FOR(symbol, varGetEnumIndex(&set, at(kMode), symbol, &number), number);
  }
  for (int32_t size : {78, 68, 67, 5, 4, 1, 0, -7}) DO_FOR(size, listed(size));
  for (int32_t size : {19, 18}) DO_FOR(size, listed(size, varListActions));
  set.count = 0;
  DO(listed(1));
}

TEST_F(Variables, Printed) {
  for (Index i : {kRoot, kMode, kRatio, kNoAuto, kReadout}) say(printed(i));
  varSetIntValue(&set, at(kRoot), 5);
  varSetFloatValue(&set, at(kRatio), 1.0);
  at(kBare)->flags |= VAR_FLAG_AUTO;
  for (Index i : {kRoot, kRatio, kBare}) say(printed(i, 1));
  at(kRatio)->description = "ab\nmore\nlines";
  for (int32_t verbose : {1, 0}) say(printed(kRatio, verbose));
}

TEST_F(Variables, ChangesTravelDepthFirst) {
  for (int64_t next : {5, 5}) DO(varSetIntValue(&set, at(kRoot), next));
  say("a fixed dependent ends the chain");
  DO(varSetIntValue(&set, at(kMiddle), 50), varSetIntValue(&set, at(kRoot), 6));
  for (Index i : {kMiddle, kMiddle, kRoot}) DO_FOR(kSymbols[i + 1], varSetIntValue(&set, at(i), VAR_AUTO));
  say("a failing write ends it too and keeps the value");
  for (Index i : {kRoot, kLast, kMiddle}) {
    failing = i;
    DO_FOR(kSymbols[i + 1], varSetIntValue(&set, at(kRoot), 4 + i), varDependencyUpdated(&set, at(i)),
           varNotifyDependerBackend(&set, at(i)), varNotifyDependerProperties(&set, at(i)), state(i));
  }
  failing = kCount;
  say("single edges");
  for (uint32_t depth : {0, 1}) {
    set.auto_depth = depth;
    for (uint64_t root : {4, 4}) {
      at(kRoot)->value = root + depth;
      DO(varDependencyUpdated(&set, at(kMiddle)));
    }
  }
  at(kMiddle)->enabled = at(kLast)->enabled = 0;
  DO(varNotifyDependerProperties(&set, at(kMiddle)));
  DO(state(kMiddle));
  for (auto *edge : {varNotifyDependers, varNotifyDependerAutovalue, varNotifyDependerProperties,
                     varNotifyDependerBackend, varDependencyUpdated, varSampleLiveread}) {
    DO_FOR("edge", edge(&set, at(kBare)), edge(&set, at(kOther)), edge(&set, nullptr), edge(nullptr, at(kOther)));
  }
}

TEST_F(Variables, Setting) {
  const uint64_t nan = doubleToBits(std::nan("")), minus_one = ~uint64_t{0};
  DO(sub(kRoot, 8), sub(kRoot, minus_one), sub(kRoot, 7), sub(kRoot, VAR_AUTO), sub(kLast, 0), sub(kLast, 1),
     sub(kRatio, doubleToBits(-0.1)), sub(kRatio, doubleToBits(2.1)), sub(kRatio, doubleToBits(2)), sub(kRatio, nan),
     sub(kMode, 3), sub(kMode, 3, VAR_SET_AS_INDEX), sub(kMode, 0, VAR_SET_AS_INDEX),
     sub(kMode, minus_one, VAR_SET_AS_INDEX), sub(kMode, kFast), sub(kBare, 0), sub(kFixed, kOff),
     sub(kFixed, kOff, VAR_SET_EVEN_READ_ONLY), sub(kFixed, VAR_AUTO), sub(kLive, 5),
     sub(kLive, 5, VAR_SET_EVEN_READ_ONLY), sub(kReadout, 5, VAR_SET_EVEN_READ_ONLY));
  DO(varSetValue_EvenReadOnly(&set, at(kFixed), kFast), varSetIntValue_EvenReadOnly(&set, at(kFixed), kSlow),
     varSetIntValue_EvenReadOnly(&set, at(kFixed), 1), varSetValue_EvenReadOnly(&set, at(kFixed), 1),
     varSetIndex(&set, at(kMode), 1), varSetIndex(&set, at(kMode), 3), varSetFloatValue(&set, at(kRatio), 3),
     varSetValue_ByNumber_AsIndex(&set, kMode, 0), varSetValue_ByNumber(&set, kRoot, 8),
     varSetIntValue_ByNumber(&set, kRoot, 8), varSetIntValue_ByNmber_AsIndex(&set, kMode, -1));
  for (const char *name : {"Root", "root"}) DO(varSetValue_ByName(&set, name, 2));
  DO(varSetValue_ByName(&set, "Root", 9));
  const std::pair<const char *, const char *> texts[] = {
      {"Root", " 6 apples"}, {"Root", "auto"}, {"Root", "Auto"}, {"Root", "8"},    {"Root", "-1"},
      {"Mode", "Fast"},      {"Mode", "fast"}, {"Mode", "1"},    {"Mode", "Root"}, {"Ratio", "1.25e0x"},
      {"Ratio", "nan"},      {"Bare", "1"},    {"None", "1"}};
  for (const auto &text : texts) {
    DO_FOR(text.first + std::string("=") + text.second, varSetValue_ByString(&set, text.first, text.second));
  }
}

TEST_F(Variables, Reading) {
  hide(kOther);
  at(kFixed)->value = 999;
  for (int32_t code : {0, 264}) {
    read_failure = code;
    for (Index i : {kMiddle, kRatio, kMode, kFixed, kLive, kReadout, kNoAuto, kOther, kBare}) {
      DO_FOR(kSymbols[i + 1], varGetValue(&set, at(i), &value), value, varGetValue_Real(&set, at(i)),
             (varGetAutoValue(&set, at(i), &value), value));
    }
    DO(varGetValue_ByName(&set, "Readout", &value), varGetIntValue_ByName(&set, "Readout", &integer),
       varGetIntValue_ByNumber(&set, kReadout, &integer), integer);
  }
  DO(varGetIntValue_ByName(&set, "None", &integer), varUpdateBackend(&set, at(kOther)));
}

TEST_F(Variables, ValidityAndWholeSets) {
  const auto valid = [&](Index index, uint64_t probe) { return varValidValue(&set, at(index), probe); };
  DO(valid(kRoot, VAR_AUTO), valid(kRoot, 7), valid(kRoot, 8), valid(kMode, kFast), valid(kMode, 1),
     valid(kRatio, doubleToBits(2)), valid(kRatio, doubleToBits(2.5)), valid(kLast, 0));
  varSetIntValue(&set, at(kRoot), 5);
  DO(varValidValue(&set, at(kRoot), VAR_AUTO), varPropertiesUpdated(&set, at(kRoot)));
  at(kRoot)->max = 4;
  DO(varPropertiesUpdated(&set, at(kRoot)));
  at(kRoot)->max = 2;
  DO(varPropertiesUpdated(&set, at(kRoot)));
  DO(state(kRoot));

  at(kRoot)->max = 7;
  varSetIntValue(&set, at(kKept), 500);
  varSetIntValue(&set, at(kMiddle), 1);
  at(kBare)->value = 17;
  at(kOther)->enabled = 0;
  for (Index i : {kMode, kCount}) {
    failing = i;
    DO(varsResetAll(&set));
    DO(state(kKept), state(kMiddle), state(kLast), state(kOther), state(kBare), varsUpdateAllBackends(&set),
       varsInit(&set));
  }
  DO(set.backend_hold + set.auto_depth);
  set.backend_hold = 1;
  DO(varSetIntValue(&set, at(kRoot), 6));
  set.backend_hold = 0;
  at(kRoot)->enabled = 0;
  DO(varsUpdateProperties(&set));
  DO(state(kRoot));
  DO(actions[0].flags * 10 + actions[1].flags);
  for (VarAction &action : actions) DO(varActionTrigger(&set, &action));
}

TEST_F(Variables, NothingInPointersIsHarmless) {
  Variable *bare = at(kBare);
  bare->items = nullptr;
  bare->description = nullptr;
  for (QTX_StackTrace *kept : {&record, static_cast<QTX_StackTrace *>(nullptr)}) {
    set.error_state = kept;
    for (uint32_t flags : {VAR_FLAG_INT, VAR_FLAG_FLOAT, VAR_FLAG_ENUM, VAR_FLAG_LIVE_READ, VAR_FLAG_FROM_BACKEND}) {
      bare->flags = flags | VAR_FLAG_VISIBLE | VAR_FLAG_AUTO;
      DO_FOR(flags, varGetValue(&set, bare, &value), varSetValue(&set, bare, 0), varSetValue(&set, bare, VAR_AUTO),
             varSetIndex(&set, bare, 0), varGetProperties(&set, bare, &value, &max, &type),
             varGetEnumsItem(&set, bare, 0), varGetEnumIndex(&set, bare, 1, &number), varPropertiesUpdated(&set, bare),
             printed(kBare, 1));
    }
  }
  set.error_state = &record;
  char text[4] = "abc";
  DO(varGetValue(&set, at(kRoot), nullptr), varGetValue(nullptr, at(kRoot), &value),
     varGetIntValue_ByName(&set, "Root", nullptr), varGetIntValue_ByNumber(&set, kRoot, nullptr),
     varSetValue(&set, nullptr, 1), varSetValue_ByName(&set, nullptr, 1), varSetValue_ByString(&set, "Root", nullptr),
     varGetType(&set, nullptr, &type), varGetType_ByName(&set, "Root", nullptr),
     varGetProperties(&set, at(kRoot), &value, nullptr, &type), varGetEnumsItems(&set, at(kMode), nullptr, &number),
     varGetEnumIndex(&set, nullptr, 1, &number), varListVariables(nullptr, text, 4), varListActions(&set, nullptr, 4),
     varActionTrigger(&set, nullptr), varGetValue_Real(&set, nullptr), varNamed(nullptr, "Root"),
     varActionNamed(&set, nullptr), varGetName(nullptr, nullptr), (varSprint(&set, nullptr, at(kRoot), 1), text));
  for (auto *whole : {varsInit, varsResetAll, varsUpdateProperties, varsUpdateAllBackends, varsInitProperties,
                      varsCalculateAutoValues_NoBackendUpdates, varsPropertiesUpdatedSinceLastCheck}) {
    DO_FOR("no set", whole(nullptr));
  }
}

}  // namespace
