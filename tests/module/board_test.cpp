// Boards, their flash and their detection through the whole bridge driver, on the simulated bench.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <numeric>
#include <string>
#include <vector>

#include "Pulsekit3Simulator.h"
#include "interface/FTx232H/FTx232H.h"
#include "interface/interface.h"
#include "module/common/serialFlash.h"
#include "module/module.h"
#include "support/QTX_Handle.h"

namespace {

constexpr uint32_t kFlashChannel = 1;
constexpr uint32_t kStorage = 0xf000;

std::vector<uint8_t> countingBytes(size_t count) {
  std::vector<uint8_t> bytes(count);
  std::iota(bytes.begin(), bytes.end(), uint8_t{1});
  return bytes;
}

class BoardTest : public ::testing::Test {
 protected:
  BoardTest() {
    owner.error = &record;
    FTx232H_SetD2XX(QTXSim_D2XX());
  }
  ~BoardTest() override {
    unplug();
    FTx232H_SetD2XX(nullptr);
    QTXSim_Reset();
  }

  // A bench with one bridge, connected, and this board on it.
  void plugIn(const char *board) {
    unplug();
    QTXSim_Reset();
    device = QTXSim_AddRadar("FT000001", "Radar", QTXSIM_FT232H, board, "QTX3701");
    ASSERT_GE(device, 0);
    std::array<char, 512> connection;
    ASSERT_EQ(interfaceListConnectedInterfaces(&owner, connection.data(), connection.size()), 0);
    ASSERT_EQ(interfaceInitHandle(&owner.interface_handle, &owner.error, &owner, connection.data(), &owner.open), 0);
    ASSERT_EQ(interfaceInitInterface(owner.interface_handle), 0);
    ASSERT_EQ(interfaceConnect(owner.interface_handle, connection.data()), 0);
    QTXSim_ClearRecord();
    QTXSim_ResetStatistics();
  }
  void start(const char *board) {
    plugIn(board);
    ASSERT_EQ(moduleInitHandle(&owner.module, &owner.error, &owner, board), 0);
    ASSERT_EQ(moduleInitModule(owner.module), 0);
    QTXSim_ClearRecord();
    record = {};
  }
  void unplug() {
    moduleFree(&owner.module, nullptr);
    if (!owner.interface_handle) return;
    interfaceDisconnect(owner.interface_handle);
    interfaceFreeHandle(&owner.interface_handle, nullptr);
  }
  int32_t detect() {
    name.fill('\x55');
    return moduleGetConnectedModuleName(&owner.module, &owner.error, &owner, name.data());
  }
  int32_t write(const std::vector<uint8_t> &bytes, uint32_t address = kStorage) {
    return owner.module->WriteFlashMemory(owner.module, address, bytes.data(), static_cast<uint32_t>(bytes.size()));
  }
  std::vector<uint8_t> stored(uint32_t address, size_t count) const {
    std::vector<uint8_t> bytes(count);
    QTXSim_FlashRead(device, address, bytes.data(), static_cast<uint32_t>(count));
    return bytes;
  }
  std::string pins() const {
    std::string text;
    for (int pin : {5, 4, 6, 7, 14}) {
      text += QTXSim_PinIsOutput(device, pin) == 1 ? "" : "!";
      text += std::to_string(QTXSim_PinLevel(device, pin));
    }
    return text;
  }
  static size_t nameReads() {
    const std::string text = QTXSim_RecordText(QTXSIM_EVENT_SPI);
    size_t found = 0;
    for (size_t at = text.find("SPI 4 > 77 "); at != text.npos; at = text.find("SPI 4 > 77 ", at + 1)) ++found;
    return found;
  }

  QTX_StackTrace record = {};
  QTX_Handle owner = {};
  std::array<char, 64> name;
  int32_t device = -1;
};

// Power on, flash deselected, own clock, clock output low, no sweep.
constexpr const char kRunning[] = "11001";

TEST_F(BoardTest, EachBoardIsDetectedByItsName) {
  struct Case {
    const char *stored, *found;
    size_t attempts;  // that read the name
  };
  const Case cases[] = {{"QTX-K225", "QTX-K225", 1},   {"QTX-K225E", "QTX-K225E", 2},   {"QTX-K235", "QTX-K235", 3},
                        {"QTX-K235E", "QTX-K235E", 4}, {"QTX-K245", "QTX-K245", 5},     {"QTX-K245E", "QTX-K245E", 6},
                        {"QTX-K265", "QTX-K265", 7},   {"QTX-K235E  ", "QTX-K235E", 4}, {"QTX-K2", "Unknown", 7},
                        {"qtx-k225", "Unknown", 7},    {"DEFAULT", "Unknown", 7},       {"", "Unknown", 7}};
  for (const Case &item : cases) {
    plugIn(item.stored);
    EXPECT_EQ(detect(), 0) << item.stored;
    EXPECT_STREQ(name.data(), item.found) << item.stored;
    EXPECT_EQ(owner.module, nullptr) << item.stored;
    EXPECT_EQ(pins(), kRunning) << item.stored;
    EXPECT_EQ(nameReads(), item.attempts) << item.stored;

    // An attempt costs five pins and the name, with a name two settings more; the default board five pins.
    const bool named = *item.stored != '\0';
    const bool fallback = item.found == std::string("Unknown");
    EXPECT_EQ(QTXSim_Calls("Write"), item.attempts * (named ? 8 : 6) + (fallback ? 5 : 0)) << item.stored;
    EXPECT_EQ(QTXSim_Calls("Read"), item.attempts) << item.stored;
  }
}

TEST_F(BoardTest, MissingFlashIsAnUnknownBoard) {
  for (int32_t idle : {0, 1}) {
    plugIn("QTX-K225");
    QTXSim_FlashPresent(device, 0);
    QTXSim_SetIdleLevel(device, idle);
    EXPECT_EQ(detect(), 0);
    EXPECT_STREQ(name.data(), "Unknown");
  }
}

TEST_F(BoardTest, DetectionFailsWhenTheBridgeGoes) {
  for (uint32_t call : {1u, 7u, 20u}) {
    plugIn("QTX-K265");
    QTXSim_UnplugAtCall(device, call);
    EXPECT_NE(detect(), 0) << call;
    EXPECT_STREQ(name.data(), "Unknown");
    EXPECT_EQ(owner.module, nullptr);
  }
}

TEST_F(BoardTest, DetectionSurvivesOneLostAnswer) {
  plugIn("QTX-K245");
  QTXSim_LoseAnswer(device, 10, 5);
  EXPECT_EQ(detect(), 0);
  EXPECT_STREQ(name.data(), "QTX-K245");
}

TEST_F(BoardTest, PinsFollowTheVariables) {
  for (const char *board : {"QTX-K245", "QTX-K265"}) {
    start(board);
    EXPECT_EQ(pins(), kRunning);
    EXPECT_EQ(varSetValue_ByString(owner.module->variables, "MCLK_RFBoardSelect", "External"), 0);
    EXPECT_EQ(pins(), "11101");
    EXPECT_EQ(varSetValue_ByString(owner.module->variables, "RadarModulePower", "PowerOff"), 0);
    EXPECT_EQ(pins(), "01101");

    std::array<uint8_t, 4> bytes = {};
    EXPECT_EQ(owner.module->ReadBoardInfo(owner.module, bytes.data(), 4), 0);
    EXPECT_EQ(bytes, (std::array<uint8_t, 4>{})) << "the flash has no power";

    QTXSim_ClearRecord();
    EXPECT_EQ(varActionTrigger(owner.module->variables, varActionNamed(owner.module->variables, "ClockPulseOut")), 0);
    EXPECT_STREQ(QTXSim_RecordText(QTXSIM_EVENT_PIN), "Pin 7 out 1\nPin 7 out 0\n");
  }
}

TEST_F(BoardTest, FlashKeepsWhatIsWrittenAndItsOtherBlocks) {
  start("QTX-K265");
  const std::vector<uint8_t> neighbour(4096, 0x5a);
  for (size_t length : {0, 1, 255, 256, 257, 300, 4095, 4096}) {
    for (uint32_t block : {kStorage - 4096, kStorage, kStorage + 4096}) {
      QTXSim_FlashWrite(device, block, neighbour.data(), 4096);
    }
    const std::vector<uint8_t> bytes = countingBytes(length);
    EXPECT_EQ(write(bytes), 0) << length;
    std::vector<uint8_t> block = bytes;
    block.resize(4096, 0xff);
    EXPECT_EQ(stored(kStorage, 4096), block) << length;
    EXPECT_EQ(stored(kStorage - 4096, 4096), neighbour) << length;
    EXPECT_EQ(stored(kStorage + 4096, 4096), neighbour) << length;

    std::vector<uint8_t> answer(length + 1, 0x55);
    EXPECT_EQ(owner.module->ReadFlashMemory(owner.module, kStorage, answer.data(), static_cast<int32_t>(length)), 0);
    EXPECT_EQ(answer.back(), 0x55) << length;
    answer.pop_back();
    EXPECT_EQ(answer, bytes) << length;
  }
  EXPECT_EQ(record.code, 0) << record.trace;
}

TEST_F(BoardTest, FlashFailuresStandInTheRecord) {
  struct Case {
    const char *name;
    void (*fault)(int32_t device);
    int32_t recorded;
  };
  const Case cases[] = {
      {"erase fails", [](int32_t board) { QTXSim_FlashFailErase(board, 1, 1); }, 642},
      {"program fails", [](int32_t board) { QTXSim_FlashFailProgram(board, 1, 1); }, 641},
      {"stays busy", [](int32_t board) { QTXSim_FlashStayBusy(board, 1); }, 641},
      {"missing, line high",
       [](int32_t board) {
         QTXSim_FlashPresent(board, 0);
         QTXSim_SetIdleLevel(board, 1);
       },
       641},
      {"missing, line low", [](int32_t board) { QTXSim_FlashPresent(board, 0); }, 0},
  };
  for (const Case &item : cases) {
    start("QTX-K225");
    item.fault(device);
    EXPECT_EQ(write(countingBytes(16)), 0) << item.name;
    EXPECT_EQ(record.code, item.recorded) << item.name << record.trace;
    QTXSim_ClearFaults();
    QTXSim_SetIdleLevel(device, 0);
    EXPECT_EQ(write(countingBytes(16)), 0) << item.name;
    EXPECT_EQ(stored(kStorage, 16), countingBytes(16)) << item.name << ": a later write must succeed";
  }
}

TEST_F(BoardTest, ReadsAreBoundedByOneTransfer) {
  start("QTX-K225");
  std::vector<uint8_t> answer(65538, 0x55);
  EXPECT_EQ(owner.module->ReadFlashMemory(owner.module, 0, answer.data(), 65537), 2);
  EXPECT_EQ(owner.module->ReadFlashMemory(owner.module, 0, answer.data(), -1), 2);
  EXPECT_EQ(answer, std::vector<uint8_t>(65538, 0x55));
  EXPECT_EQ(owner.module->ReadFlashMemory(owner.module, 0, answer.data(), 65536), 0);
  EXPECT_EQ(std::count(answer.begin(), answer.end(), 0xff), 65536);
  EXPECT_EQ(answer[65536], 0x55);
}

TEST_F(BoardTest, BoardInformationIsProgrammedOnce) {
  start("QTX-K225");
  std::vector<uint8_t> info(100, 0);
  const std::string text = "RTX-K265";  // an even first byte, so that the cycle ends at the first poll
  std::copy(text.begin(), text.end(), info.begin());
  QTXSim_OtpWrite(device, 0, std::vector<uint8_t>(128, 0xff).data(), 128);
  EXPECT_EQ(owner.module->ProgramBoardInfo(owner.module, info.data(), 100), 0);
  EXPECT_EQ(record.code, 0) << record.trace;

  std::vector<uint8_t> answer(200, 0x55);
  EXPECT_EQ(owner.module->ReadBoardInfo(owner.module, answer.data(), 200), 0);
  info.resize(64);
  info.resize(128, 0xff);
  info.resize(200, 0x55);
  EXPECT_EQ(answer, info);

  std::array<char, 32> board = {};
  EXPECT_EQ(sflashGetBoardName(owner.interface_handle, kFlashChannel, board.data(), 32), 0);
  EXPECT_STREQ(board.data(), "RTX-K265");

  const uint8_t other = 0x0f;  // an odd byte uses up the polls; bits that are clear stay clear
  EXPECT_EQ(owner.module->ProgramBoardInfo(owner.module, &other, 1), 0);
  EXPECT_EQ(record.code, 641);
  EXPECT_EQ(owner.module->ReadBoardInfo(owner.module, answer.data(), 1), 0);
  EXPECT_EQ(answer[0], 'R' & 0x0f);
}

TEST_F(BoardTest, FlashPassesItsSelfTestUntilProgrammingFails) {
  start("QTX-K225");
  EXPECT_EQ(sflashTest(owner.interface_handle, kFlashChannel), 0) << record.trace;
  QTXSim_FlashFailProgram(device, 5, 1);
  EXPECT_EQ(sflashTest(owner.interface_handle, kFlashChannel), 640);
  EXPECT_EQ(record.code, 640);
}

}  // namespace
