// Variables and actions by name: lookup across the layers, conversion by type, listing.
#include <cmath>
#include <limits>

#include "fakes.h"

namespace pulsekit::test {
namespace {

class Variables : public testing::Test {
 protected:
  Variables() {
    radar.chip_set.add("Shared", VAR_FLAG_INT, 1);
    radar.chip_set.add("Count", VAR_FLAG_INT, 5);
    radar.chip_set.add("Gain", VAR_FLAG_FLOAT, bits(1.5));
    radar.chip_set.add("Mode", VAR_FLAG_ENUM, 0, {"low", "middle", "high"});
    radar.chip_set.add("Fixed", VAR_FLAG_INT | VAR_FLAG_READ_ONLY, 9);
    radar.chip_set.add("Typeless", 0, 3);
    radar.chip_set.addAction("Start");
    radar.module_set.add("Shared", VAR_FLAG_INT, 2);
    radar.module_set.add("Power", VAR_FLAG_ENUM, 1, {"PowerOff", "PowerOn"});
    radar.module_set.addAction("Pulse");
    radar.bridge_set.add("Shared", VAR_FLAG_INT, 3);
    radar.bridge_set.add("Clock", VAR_FLAG_INT, 4);
    radar.bridge_set.addAction("Reset");
  }

  uint64_t stored(const char *name) {
    uint64_t value = 0;
    EXPECT_EQ(QTX_VarGetValue_ByName(radar.library, name, &value), 0) << name;
    return value;
  }

  FakeRadar radar;
  QTX_Handle *handle = radar.library;
};

TEST_F(Variables, ANameIsLookedUpInTheChipThenTheModuleThenTheInterface) {
  EXPECT_EQ(stored("Shared"), 1u);
  handle->chip = nullptr;
  EXPECT_EQ(stored("Shared"), 2u);
  handle->module = nullptr;
  EXPECT_EQ(stored("Shared"), 3u);
}

TEST_F(Variables, AnUnknownNameTellsItselfAndTheRoadItTook) {
  EXPECT_EQ(QTX_VarSetValue_ByName(handle, "FrameSize", 1), 1283);
  EXPECT_EQ(description(handle),
            "ERROR 0x503: Unknown variable - FrameSize\r\n"
            "   at: findVariable_ByName in src/support/Pulsekit3_helpers:124\r\n"
            "   from: QTX_VarSetValue_ByName in src/Pulsekit3:786");
  EXPECT_EQ(QTX_ExecuteAction_ByName(handle, "start"), 1284);
  EXPECT_NE(description(handle).find("ERROR 0x504: Unknown action - start\r\n   at: findAction_ByName in "),
            std::string::npos);
}

TEST_F(Variables, IntegersOfEnumerationsAreItemIndices) {
  const uint64_t high = static_cast<uint64_t>(str_to_sym(&radar.chip_set.set, "high"));
  EXPECT_EQ(QTX_VarSetIntValue_ByName(handle, "Mode", 2), 0);
  EXPECT_EQ(radar.chip_set["Mode"].value, high);
  int64_t index = -1;
  EXPECT_EQ(QTX_VarGetIntValue_ByName(handle, "Mode", &index), 0);
  EXPECT_EQ(index, 2);
  uint64_t symbol = 0;
  EXPECT_EQ(QTX_VarGetEnumValue_ByName(handle, "Mode", &symbol), 0);
  EXPECT_EQ(symbol, high);
  double as_float = -1;
  EXPECT_EQ(QTX_VarGetValueAsFloat_ByName(handle, "Mode", &as_float), 0);
  EXPECT_EQ(as_float, 2.0);
  uint32_t items[3] = {};
  int32_t count = 3;
  EXPECT_EQ(QTX_VarGetEnumsItems_ByName(handle, "Mode", items, &count), 0);
  EXPECT_EQ(items[2], high);
  char text[8];
  EXPECT_EQ(QTX_VarGetSymbolString(handle, "Mode", items[2], text, sizeof text), 0);
  EXPECT_STREQ(text, "high");
}

TEST_F(Variables, ASymbolTextFillsABufferOfItsLengthAndNothingMore) {
  const uint32_t middle = static_cast<uint32_t>(str_to_sym(&radar.chip_set.set, "middle"));
  const std::pair<int32_t, const char *> cases[] = {
      {7, "middle"}, {6, "middle?"}, {2, "mi?????"}, {0, "???????"}, {-1, "???????"}};
  for (const auto &[size, expected] : cases) {
    char text[9] = "???????";
    EXPECT_EQ(QTX_VarGetSymbolString(handle, "Mode", middle, text, size), 0);
    EXPECT_STREQ(text, expected) << size;
  }
  char invalid[16];
  for (const uint32_t symbol : {1000u, 0xffffffffu}) {
    EXPECT_EQ(QTX_VarGetSymbolString(handle, "Mode", symbol, invalid, sizeof invalid), 0);
    EXPECT_STREQ(invalid, "(invalid)");
  }
}

TEST_F(Variables, TheAutomaticMarkIsNoIndexAndNoValue) {
  for (const char *name : {"Mode", "Count", "Power"}) {
    EXPECT_EQ(QTX_VarSetIntValue_ByName(handle, name, 1), 0);
    EXPECT_EQ(QTX_VarSetIntValue_ByName(handle, name, 0x7fffffff), 0) << name;
    uint64_t min = 0, max = 0;
    uint32_t writable = 9, automatic = 9;
    EXPECT_EQ(QTX_VarGetIntProperties_ByName(handle, name, &min, &max, &writable, &automatic), 0);
    EXPECT_EQ(automatic, 1u) << name;
    EXPECT_EQ(writable, 1u) << name;
  }
  EXPECT_EQ(radar.chip_set["Count"].value, 7u);
}

TEST_F(Variables, EveryWayOfSettingRefusesWhatIsOutsideTheRange) {
  const double infinite = std::numeric_limits<double>::infinity();
  const double not_a_number = std::numeric_limits<double>::quiet_NaN();
  const std::vector<std::pair<const char *, int32_t>> refusals = {
      {"word", QTX_VarSetValue_ByName(handle, "Count", 1000001)},
      {"word of an enumeration", QTX_VarSetValue_ByName(handle, "Mode", 0)},
      {"negative", QTX_VarSetIntValue_ByName(handle, "Count", -1)},
      {"index at the end", QTX_VarSetIntValue_ByName(handle, "Mode", 3)},
      {"negative index", QTX_VarSetIntValue_ByName(handle, "Mode", -1)},
      {"index that is 1 in 32 bits", QTX_VarSetIntValue_ByName(handle, "Mode", 0x100000001)},
      {"float", QTX_VarSetFloatValue_ByName(handle, "Gain", 1e10)},
      {"no number", QTX_VarSetFloatValue_ByName(handle, "Gain", not_a_number)},
      {"text", QTX_VarSetValue_ByString(handle, "Count", "1000001")},
      {"index as text", QTX_VarSetValue_ByString(handle, "Mode", "1")},
      {"empty item", QTX_VarSetValue_ByString(handle, "Mode", "")},
      {"rounded", QTX_VarSetValueAsFloat_ByName(handle, "Count", -0.5)},
      {"beyond 32 bits", QTX_VarSetValueAsFloat_ByName(handle, "Count", 4294967301.0)},
      {"infinite", QTX_VarSetValueAsFloat_ByName(handle, "Count", infinite)},
      {"no number as integer", QTX_VarSetValueAsFloat_ByName(handle, "Count", not_a_number)},
      {"rounded index", QTX_VarSetValueAsFloat_ByName(handle, "Mode", 2.5)},
      {"infinite float", QTX_VarSetValueAsFloat_ByName(handle, "Gain", infinite)},
      {"typeless", QTX_VarSetValueAsFloat_ByName(handle, "Typeless", 1)},
  };
  for (const auto &[what, code] : refusals) EXPECT_EQ(code, 1286) << what;
  EXPECT_EQ(QTX_VarSetIntValue_ByName(handle, "Fixed", 1), 1285);
  EXPECT_EQ(stored("Count"), 5u);
  EXPECT_EQ(stored("Gain"), bits(1.5));
  EXPECT_EQ(stored("Mode"), radar.chip_set["Mode"].items[0]);
  EXPECT_EQ(FakeSet::commands[VAR_CMD_WRITE_BACKEND], 0);
}

TEST_F(Variables, DoublesAreRoundedHalvesAwayFromZero) {
  const std::tuple<const char *, double, uint64_t> cases[] = {
      {"Count", 2.5, 3}, {"Count", 2.4999, 2}, {"Count", -0.4, 0}, {"Gain", 2.5, bits(2.5)}};
  for (const auto &[name, value, expected] : cases) {
    EXPECT_EQ(QTX_VarSetValueAsFloat_ByName(handle, name, value), 0) << value;
    EXPECT_EQ(stored(name), expected) << value;
  }
  EXPECT_EQ(QTX_VarSetValueAsFloat_ByName(handle, "Mode", 0.5), 0);
  EXPECT_EQ(stored("Mode"), radar.chip_set["Mode"].items[1]);
  EXPECT_EQ(QTX_VarSetFloatValue_ByName(handle, "Gain", -3.25), 0);
  uint64_t word = 0;
  EXPECT_EQ(QTX_VarGetFloatValue_ByName(handle, "Gain", &word), 0);
  EXPECT_EQ(word, bits(-3.25));
  double value = 0;
  EXPECT_EQ(QTX_VarGetValueAsFloat_ByName(handle, "Gain", &value), 0);
  EXPECT_EQ(value, -3.25);
}

TEST_F(Variables, AHiddenVariableCannotBeRead) {
  radar.chip_set["Count"].flags &= ~uint32_t{VAR_FLAG_VISIBLE};
  radar.chip_set["Mode"].flags &= ~uint32_t{VAR_FLAG_VISIBLE};
  uint64_t word = 77;
  int64_t integer = 77;
  double value = 77;
  uint64_t min = 77, max = 77;
  uint32_t writable = 77, automatic = 77;
  EXPECT_EQ(QTX_VarGetValue_ByName(handle, "Count", &word), 1282);
  EXPECT_EQ(QTX_VarGetIntValue_ByName(handle, "Count", &integer), 1282);
  EXPECT_EQ(QTX_VarGetValueAsFloat_ByName(handle, "Mode", &value), 1) << "nothing is no item";
  EXPECT_EQ(QTX_VarGetFloatProperties_ByName(handle, "Count", &min, &max, &writable, &automatic), 1282);
  EXPECT_EQ(word, 77u);
  EXPECT_EQ(integer, 77);
  EXPECT_EQ(value, 77);
  EXPECT_EQ(min, 0u);
  EXPECT_EQ(max, 0u);
  EXPECT_EQ(writable, 1u);
  EXPECT_EQ(automatic, 0u);
}

TEST_F(Variables, PropertiesTellWhetherAHostMayWrite) {
  const uint32_t extra[] = {
      0, VAR_FLAG_READ_ONLY, VAR_FLAG_LIVE_READ, VAR_FLAG_KEEP_ON_RESET, VAR_FLAG_NO_AUTO_VALUE, VAR_FLAG_AUTO};
  const uint32_t writable_then[] = {1, 0, 0, 0, 0, 1};
  const uint32_t automatic_then[] = {0, 0, 0, 0, 1, 1};
  for (size_t i = 0; i < std::size(extra); ++i) {
    radar.chip_set["Count"].flags = VAR_FLAG_VISIBLE | VAR_FLAG_INT | extra[i];
    uint64_t min = 9, max = 9;
    uint32_t writable = 9, automatic = 9;
    EXPECT_EQ(QTX_VarGetIntProperties_ByName(handle, "Count", &min, &max, &writable, &automatic), 0);
    EXPECT_EQ(min, 0u);
    EXPECT_EQ(max, 1000000u);
    EXPECT_EQ(writable, writable_then[i]) << extra[i];
    EXPECT_EQ(automatic, automatic_then[i]) << extra[i];
  }
}

TEST_F(Variables, AFailingBackEndNamesEveryFunctionOnTheWay) {
  FakeSet::write_code = 1281;
  EXPECT_EQ(QTX_VarSetIntValue_ByName(handle, "Count", 6), 1281);
  const std::string text = description(handle);
  size_t position = 0;
  for (const char *function :
       {"varUpdateBackend", "varSetValue_Sub", "varSetValue", "QTX_VarSetValue_ByName", "QTX_VarSetIntValue_ByName"}) {
    const size_t found = text.find(std::string(": ") + function + " in src/", position);
    ASSERT_NE(found, std::string::npos) << function << "\n" << text;
    position = found + 1;
  }
}

TEST_F(Variables, ActionsOfEveryLayerRun) {
  for (const char *name : {"Start", "Pulse", "Reset"}) EXPECT_EQ(QTX_ExecuteAction_ByName(handle, name), 0) << name;
  EXPECT_EQ(FakeSet::commands[VAR_CMD_TRIGGER], 3);
  FakeSet::trigger_code = 771;
  EXPECT_EQ(QTX_ExecuteAction_ByName(handle, "Start"), 771);
}

TEST_F(Variables, ListsRunFromTheInterfaceToTheChip) {
  const std::string names = "Shared,Clock,Shared,Power,Shared,Count,Gain,Mode,Fixed,Typeless";
  char text[256];
  EXPECT_EQ(QTX_ListVariables(handle, text, sizeof text), 0);
  EXPECT_EQ(text, names);
  EXPECT_EQ(QTX_ListActions(handle, text, sizeof text), 0);
  EXPECT_STREQ(text, "Reset,Pulse,Start");

  std::strcpy(handle->connection_info->chip_name, "Unknown");
  EXPECT_EQ(QTX_ListVariables(handle, text, sizeof text), 0);
  EXPECT_STREQ(text, "Shared,Clock,Shared,Power,");
  std::strcpy(handle->connection_info->module_name, "Unknown");
  EXPECT_EQ(QTX_ListVariables(handle, text, sizeof text), 0);
  EXPECT_STREQ(text, "Shared,Clock,,");
}

TEST_F(Variables, AListAsLongAsTheBufferPassesAndOneLongerIsRefused) {
  const std::string names = "Shared,Clock,Shared,Power,Shared,Count,Gain,Mode,Fixed,Typeless";
  const int32_t length = static_cast<int32_t>(names.size());
  for (int32_t size = -1; size <= length; ++size) {
    std::vector<char> text(names.size() + 2, '?');
    EXPECT_EQ(QTX_ListVariables(handle, text.data(), size), size == length ? 0 : 2) << size;
    EXPECT_EQ(text[static_cast<size_t>(std::max(size, 0))], '?') << size;
    if (size == length) {
      EXPECT_EQ(std::string(text.data(), names.size()), names);
    } else if (size > 0) {
      EXPECT_NE(std::memchr(text.data(), 0, static_cast<size_t>(size)), nullptr) << size;
    }
  }
}

TEST_F(Variables, ListsOfALayerThatIsMissingPassItsCodeOn) {
  char text[256];
  handle->chip = nullptr;
  EXPECT_EQ(QTX_ListVariables(handle, text, sizeof text), 1);
  radar.module.variables = nullptr;
  EXPECT_EQ(QTX_ListVariables(handle, text, sizeof text), 514);
  radar.bridge.variables = nullptr;
  EXPECT_EQ(QTX_ListActions(handle, text, sizeof text), 269);
  handle->interface_handle = nullptr;
  EXPECT_EQ(QTX_ListActions(handle, text, sizeof text), 1);
}

}  // namespace
}  // namespace pulsekit::test
