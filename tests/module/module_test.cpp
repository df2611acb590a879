#include "module/module.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>

#include "recording_bridge.h"

namespace {

constexpr const char kAllBoards[] =
    "QTX-K225 (QTX_K2x5),QTX-K225E (QTX_K2x5),QTX-K235 (QTX_K2x5),QTX-K235E (QTX_K2x5),QTX-K245 (QTX_K2x5),"
    "QTX-K245E (QTX_K2x5),QTX-K265 (QTX_K265),DEFAULT (DEFAULT)";

// What differs between the drivers.
struct DriverCase {
  const char *board, *driver, *power_up, *settings, *power, *clock, *pulse;
};
constexpr DriverCase kDrivers[] = {
    {"QTX-K235", "QTX_K2x5", "1107=1> 1106=1> 1105=0> 1100=0> 500=1>", " 1107=1 1105=0", "1107", "1105",
     "1109=1 1109=0"},
    {"QTX-K265", "QTX_K265", "1207=1> 1206=1> 1205=0> 1200=0> 500=1>", " 1207=1 1205=0", "1207", "1205",
     "1209=1 1209=0"},
};

class ModuleTest : public ::testing::Test {
 protected:
  ~ModuleTest() override {
    moduleFree(&module, nullptr);
    EXPECT_FALSE(bridge.unlocked_access);
    EXPECT_EQ(bridge.lock_depth, 0);
  }

  void create(const char *name) {
    moduleFree(&module, nullptr);
    ASSERT_EQ(moduleInitHandle(&module, &error, &bridge.owner, name), 0);
    bridge.owner.module = module;
    clear();
  }
  void start(const char *name) {
    create(name);
    store(name);
    ASSERT_EQ(moduleInitModule(module), 0);
    clear();
  }
  void clear() {
    bridge.pins.clear();
    bridge.transfers.clear();
    bridge.record = {};
  }
  void store(std::string_view name) { bridge.content.assign(name.begin(), name.end()); }
  bool traceStartsAt(const std::string &function, const std::string &source) const {
    return std::string(bridge.record.trace).starts_with("   at: " + function + " in " + source + ":");
  }

  RecordingBridge bridge;
  QTX_StackTrace *error = &bridge.record;
  ModuleHandle *module = nullptr;
};

TEST_F(ModuleTest, ListsEveryBoardWhereThereIsRoom) {
  constexpr size_t kNeeded = sizeof kAllBoards;
  std::string buffer(kNeeded + 8, '\x55');
  EXPECT_EQ(moduleListSupportedModules(buffer.data(), static_cast<int32_t>(kNeeded)), 0);
  EXPECT_STREQ(buffer.c_str(), kAllBoards);
  EXPECT_EQ(buffer.substr(kNeeded), std::string(8, '\x55'));

  for (int32_t size = -1; size < static_cast<int32_t>(kNeeded); ++size) {
    buffer.assign(kNeeded, '\x55');
    EXPECT_EQ(moduleListSupportedModules(buffer.data(), size), 2) << size;
    const size_t kept = static_cast<size_t>(std::max(size, 0));
    EXPECT_EQ(buffer.substr(kept), std::string(kNeeded - kept, '\x55')) << size;
  }
  EXPECT_EQ(moduleListSupportedModules(nullptr, 100), 1);
}

TEST_F(ModuleTest, CreatingAHandleTouchesNoHardware) {
  for (const DriverCase &item : kDrivers) {
    create(item.board);
    EXPECT_STREQ(module->driver_name, item.driver);
    EXPECT_STREQ(module->board_name, "");
    EXPECT_EQ(module->owner, &bridge.owner);
    EXPECT_EQ(module->variables->owner, &bridge.owner);
    EXPECT_EQ(module->error_state, &bridge.record);
    EXPECT_TRUE(module->InitModule && module->FreeHandle && module->ReadBoardInfo && module->ProgramBoardInfo &&
                module->ReadFlashMemory && module->WriteFlashMemory);
    EXPECT_EQ(bridge.transcript() + bridge.pins, "");
  }
}

TEST_F(ModuleTest, OnlyExactBoardNamesAreKnown) {
  for (const char *name : {"qtx-k225", "QTX-K225 ", "QTX-K22", "LAST", "", "Unknown", "default"}) {
    bridge.record = {};
    EXPECT_EQ(moduleInitHandle(&module, &error, &bridge.owner, name), 513) << name;
    EXPECT_EQ(module, nullptr) << name;
    EXPECT_STREQ(bridge.record.message, "Unknown module name") << name;
    EXPECT_TRUE(traceStartsAt("moduleInitHandle", "src/module/module")) << name;
  }
}

TEST_F(ModuleTest, PowersUpInOrderReadsTheNameAndAppliesTheSettings) {
  for (const DriverCase &item : kDrivers) {
    create(item.board);
    store(item.board);
    bridge.handle.pin_map = bridge.handle.spi_channel_map = this;
    EXPECT_EQ(moduleInitModule(module), 0);
    EXPECT_EQ(bridge.pins, std::string(item.power_up) + item.settings);
    EXPECT_EQ(bridge.transcript(), "770000000000?31");
    EXPECT_EQ(bridge.transfers.at(0).channel, 1u);
    EXPECT_STREQ(module->board_name, item.board);
    EXPECT_TRUE(!bridge.handle.pin_map && !bridge.handle.spi_channel_map) << "another driver's pins would be kept";

    // Once more, as after switching the power on again.
    bridge.pins.clear();
    EXPECT_EQ(module->InitModule(module), 0);
    EXPECT_EQ(bridge.pins, std::string(item.power_up) + item.settings);
  }
}

TEST_F(ModuleTest, PausesWhenThePowerComesOn) {
  struct Case {
    const char *board;
    int milliseconds;
  };
  for (const Case &item : {Case{"QTX-K225", 5}, Case{"QTX-K265", 30}, Case{"DEFAULT", 100}}) {
    create(item.board);
    store(item.board);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(moduleInitModule(module), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(item.milliseconds)) << item.board;
  }
}

TEST_F(ModuleTest, BoardWithoutANameIsUnknown) {
  for (const DriverCase &item : kDrivers) {
    for (uint8_t content : {uint8_t{0x00}, uint8_t{0x20}, uint8_t{0xff}}) {
      create(item.board);
      bridge.content.assign(32, content);
      EXPECT_EQ(moduleInitModule(module), 513);
      EXPECT_STREQ(bridge.record.message, "Could not read Radar Module ID");
      const std::string driver = item.driver, source = "src/module/" + driver + "/" + driver,
                        trace = bridge.record.trace;
      EXPECT_TRUE(traceStartsAt(driver + "_ReadModuleId", source)) << trace;
      EXPECT_NE(trace.find("from: " + driver + "_InitModule in " + source), trace.npos) << trace;
      EXPECT_NE(trace.find("from: moduleInitModule in src/module/module"), trace.npos) << trace;
      EXPECT_EQ(bridge.pins, item.power_up) << "settings must not be applied to an unknown board";
    }
  }
}

TEST_F(ModuleTest, FailingPinEndsThePowerUpOfADriver) {
  store("QTX-K225");
  create("QTX-K225");
  bridge.failing_pin = 1105;
  EXPECT_EQ(moduleInitModule(module), bridge.failure);
  EXPECT_EQ(bridge.pins, "1107=1> 1106=1> 1105=0>");
  EXPECT_EQ(bridge.transcript(), "");
}

TEST_F(ModuleTest, FlashFailureEndsInitModuleWithItsCode) {
  create("QTX-K225");
  bridge.fail_at = 0;
  EXPECT_EQ(moduleInitModule(module), bridge.failure);
  EXPECT_EQ(bridge.pins, kDrivers[0].power_up);
}

TEST_F(ModuleTest, DefaultBoardDrivesThePinsAndKnowsNothingElse) {
  create("DEFAULT");
  EXPECT_STREQ(module->driver_name, "DEFAULT");
  EXPECT_EQ(module->variables, nullptr);
  EXPECT_EQ(moduleInitModule(module), 0);
  EXPECT_EQ(bridge.pins, kDrivers[0].power_up);
  EXPECT_EQ(bridge.transcript(), "");
  EXPECT_STREQ(module->board_name, "");

  std::array<uint8_t, 4> bytes = {};
  EXPECT_EQ(module->ReadFlashMemory(module, 0, bytes.data(), 4), 4);
  EXPECT_TRUE(traceStartsAt("moduleDefaultReadFlashMemory", "src/module/module"));
  EXPECT_EQ(module->WriteFlashMemory(module, 0, bytes.data(), 4), 4);
  EXPECT_TRUE(traceStartsAt("moduleDefaultWriteFlashMemory", "src/module/module"));

  std::array<char, 64> text;
  for (auto list : {moduleListVariables, moduleListActions}) {
    EXPECT_EQ(list(module, text.data(), 64), 514);
    EXPECT_EQ(bridge.record.code, 514);
    EXPECT_EQ(list(nullptr, text.data(), 64), 1);
  }
}

TEST_F(ModuleTest, DefaultBoardGoesOnPastAFailingPin) {
  create("DEFAULT");
  bridge.failing_pin = 1106;
  EXPECT_EQ(moduleInitModule(module), 0);
  EXPECT_EQ(bridge.pins, kDrivers[0].power_up);
  bridge.failing_pin = 500;
  EXPECT_EQ(moduleInitModule(module), bridge.failure);
}

TEST_F(ModuleTest, ListsVariablesAndActions) {
  std::array<char, 256> text;
  create("QTX-K245");
  EXPECT_EQ(moduleListVariables(module, text.data(), 256), 0);
  EXPECT_STREQ(text.data(), "BoardVersion,RadarModulePower,MCLK_RFBoardSelect,AddressOfVariableStorage,FlashBlockSize");
  EXPECT_EQ(moduleListActions(module, text.data(), 256), 0);
  EXPECT_STREQ(text.data(), "ClockPulseOut");
}

TEST_F(ModuleTest, VariablesDriveTheirPins) {
  for (const DriverCase &item : kDrivers) {
    start(item.board);
    const std::string power = item.power, clock = item.clock;
    for (const auto &[name, value, pins] : {std::tuple("RadarModulePower", "PowerOff", power + "=0"),
                                            std::tuple("RadarModulePower", "PowerOn", power + "=1"),
                                            std::tuple("MCLK_RFBoardSelect", "External", clock + "=1"),
                                            std::tuple("MCLK_RFBoardSelect", "OnBoard", clock + "=0"),
                                            std::tuple("AddressOfVariableStorage", "4096", std::string())}) {
      bridge.pins.clear();
      EXPECT_EQ(varSetValue_ByString(module->variables, name, value), 0) << name;
      EXPECT_EQ(bridge.pins, pins) << name << value;
    }
    bridge.pins.clear();
    EXPECT_EQ(varActionTrigger(module->variables, varActionNamed(module->variables, "ClockPulseOut")), 0);
    EXPECT_EQ(bridge.pins, item.pulse);
  }
}

TEST_F(ModuleTest, FailingPinIsNoFailureOfTheVariableButOfTheAction) {
  start("QTX-K265");
  bridge.failing_pin = 1207;
  EXPECT_EQ(varSetValue_ByString(module->variables, "RadarModulePower", "PowerOff"), 0);
  EXPECT_EQ(bridge.pins, "1207=0");
  bridge.failing_pin = 1209;
  EXPECT_EQ(varActionTrigger(module->variables, varActionNamed(module->variables, "ClockPulseOut")), bridge.failure);
}

TEST_F(ModuleTest, FixedValuesOfTheBoard) {
  for (const DriverCase &item : kDrivers) {
    start(item.board);
    uint64_t value = 0;
    EXPECT_EQ(varGetValue_ByName(module->variables, "AddressOfVariableStorage", &value), 0);
    EXPECT_EQ(value, 0xf000u);
    EXPECT_EQ(varGetValue_ByName(module->variables, "FlashBlockSize", &value), 0);
    EXPECT_EQ(value, 4096u);
    EXPECT_EQ(varGetValue_ByName(module->variables, "BoardVersion", &value), 0);
    EXPECT_STREQ(sym_to_str(module->variables, static_cast<int32_t>(value)), item.driver);
  }
}

TEST_F(ModuleTest, BoardInformationIsCutToItsRecord) {
  struct Case {
    int32_t length;
    const char *read, *programmed;
  };
  const Case cases[] = {{200, "770000000000?128", "06 9B000000+64 05?1 05?1 04?1"},
                        {128, "770000000000?128", "06 9B000000+64 05?1 05?1 04?1"},
                        {40, "770000000000?40", "06 9B000000+40 05?1 05?1 04?1"},
                        {0, "770000000000", ""}};
  for (const char *board : {"QTX-K225", "QTX-K265", "DEFAULT"}) {
    create(board);
    for (const Case &item : cases) {
      std::array<uint8_t, 200> bytes = {};
      bridge.transfers.clear();
      EXPECT_EQ(module->ReadBoardInfo(module, bytes.data(), item.length), 0);
      EXPECT_EQ(bridge.transcript(), item.read);
      bridge.transfers.clear();
      EXPECT_EQ(module->ProgramBoardInfo(module, bytes.data(), item.length), 0);
      EXPECT_EQ(bridge.transcript(), item.programmed);
    }
    bridge.transfers.clear();
    std::array<uint8_t, 4> bytes = {};
    EXPECT_EQ(module->ReadBoardInfo(module, bytes.data(), -1), 2);
    EXPECT_EQ(module->ProgramBoardInfo(module, bytes.data(), -1), 2);
    EXPECT_EQ(module->ReadBoardInfo(module, nullptr, 8), 1);
    EXPECT_EQ(module->ProgramBoardInfo(module, nullptr, 8), 1);
    EXPECT_EQ(bridge.transcript(), "");
  }
}

TEST_F(ModuleTest, FlashFailuresCarryTheDriversName) {
  for (const DriverCase &item : kDrivers) {
    create(item.board);
    std::array<uint8_t, 4> bytes = {};
    EXPECT_EQ(module->ReadFlashMemory(module, 0x80, bytes.data(), 4), 1);
    const std::string driver = item.driver, source = " in src/module/" + driver + "/" + driver + ":";
    EXPECT_NE(std::string(bridge.record.trace).find("from: " + driver + "_ReadFlashMemory" + source),
              std::string::npos);
    EXPECT_EQ(module->WriteFlashMemory(module, 0x80, bytes.data(), 4), 1);
    EXPECT_NE(std::string(bridge.record.trace).find("from: " + driver + "_WriteFlashMemory" + source),
              std::string::npos);
  }
}

TEST_F(ModuleTest, OperationsNeedABridgeAndAnOwner) {
  std::array<uint8_t, 4> bytes = {};
  for (const char *board : {"QTX-K225", "DEFAULT"}) {
    create(board);
    bridge.owner.interface_handle = nullptr;
    EXPECT_EQ(moduleInitModule(module), 269);
    EXPECT_EQ(module->ReadBoardInfo(module, bytes.data(), 4), 269);
    EXPECT_EQ(bridge.record.code, 269);
    bridge.owner.interface_handle = &bridge.handle;

    ModuleHandle *orphan = nullptr;
    ASSERT_EQ(moduleInitHandle(&orphan, &error, nullptr, board), 0);
    EXPECT_EQ(moduleInitModule(orphan), 1025);
    EXPECT_EQ(moduleFree(&orphan, nullptr), 0);
  }
}

TEST_F(ModuleTest, OperationsNeedNoMoreOfTheBridgeThanTheyUse) {
  create("DEFAULT");
  bridge.handle.SetIO = nullptr;
  bridge.handle.SendReceiveSPI = nullptr;
  EXPECT_EQ(moduleInitModule(module), 0);
  EXPECT_EQ(bridge.pins, kDrivers[0].power_up);
  std::array<uint8_t, 4> bytes = {};
  EXPECT_EQ(module->ReadBoardInfo(module, bytes.data(), 4), 269);
  EXPECT_EQ(bridge.record.code, 269);

  bridge.handle.SetIO_Direction = nullptr;
  EXPECT_EQ(moduleInitModule(module), 269);
  module->InitModule = nullptr;
  EXPECT_EQ(moduleInitModule(module), 514);
  EXPECT_TRUE(traceStartsAt("moduleInitModule", "src/module/module"));
}

TEST_F(ModuleTest, HandleKeepsARecordOfItsOwnWhereThereIsNoneToShare) {
  for (const char *board : {"QTX-K225", "DEFAULT"}) {
    ModuleHandle *alone = nullptr;
    ASSERT_EQ(moduleInitHandle(&alone, nullptr, nullptr, board), 0);
    EXPECT_EQ(moduleInitModule(alone), 1025);
    EXPECT_EQ(alone->error_state->code, 1025);
    EXPECT_EQ(moduleFree(&alone, nullptr), 0);
    EXPECT_EQ(alone, nullptr);

    ASSERT_EQ(moduleInitHandle(&alone, nullptr, nullptr, board), 0);
    EXPECT_EQ(moduleFree(&alone, &alone->error_state), 0);

    QTX_StackTrace *shared = nullptr;
    QTX_StackTraceInit(&shared, nullptr);
    ASSERT_EQ(moduleInitHandle(&alone, &shared, nullptr, board), 0);
    EXPECT_EQ(moduleFree(&alone, &shared), 0);
    EXPECT_EQ(shared, nullptr);
  }
}

TEST_F(ModuleTest, MissingArgumentsAreAnswered) {
  char name[64];
  EXPECT_EQ(moduleInitHandle(nullptr, &error, &bridge.owner, "DEFAULT"), 1);
  EXPECT_EQ(moduleInitHandle(&module, &error, &bridge.owner, nullptr), 1);
  EXPECT_EQ(moduleInitModule(nullptr), 514);
  EXPECT_EQ(moduleFree(nullptr, nullptr), 1);
  EXPECT_EQ(moduleFree(&module, nullptr), 0);
  EXPECT_EQ(moduleGetConnectedModuleName(nullptr, &error, &bridge.owner, name), 1);
  EXPECT_EQ(moduleGetConnectedModuleName(&module, &error, &bridge.owner, nullptr), 1);
  EXPECT_EQ(moduleGetConnectedModuleName(&module, nullptr, nullptr, name), 1025);
  EXPECT_STREQ(name, "Unknown");
}

TEST_F(ModuleTest, LastAttemptDecidesWhetherDetectionFails) {
  char name[64];
  bridge.fail_at = 0;  // the first board's name can't be read
  EXPECT_EQ(moduleGetConnectedModuleName(&module, &error, &bridge.owner, name), 0);
  EXPECT_STREQ(name, "Unknown");
  EXPECT_EQ(module, nullptr);

  bridge.failing_pin = 500;  // no board powers up
  EXPECT_EQ(moduleGetConnectedModuleName(&module, &error, &bridge.owner, name), bridge.failure);
  EXPECT_STREQ(name, "Unknown");
  EXPECT_EQ(module, nullptr);
  EXPECT_NE(std::string(bridge.record.trace).find("from: moduleGetConnectedModuleName in src/module/module"),
            std::string::npos);
}

}  // namespace
