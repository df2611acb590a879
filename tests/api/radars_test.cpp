// Listing, opening, closing and powering simulated radars.
#include <algorithm>
#include <utility>

#include "bench.h"
#include "files.h"

namespace pulsekit::test {
namespace {

class Radars : public Bench {
 protected:
  std::string list(int32_t expected = 0) {
    std::vector<char> text(2048, '?');
    EXPECT_EQ(QTX_ListRadarModules(radar, text.data(), static_cast<uint32_t>(text.size())), expected)
        << description(radar);
    return text.data();
  }

  Radar radar;
};

TEST_F(Radars, ABenchWithoutRadarsListsAsNothing) { EXPECT_EQ(list(), ""); }

TEST_F(Radars, EveryDeviceIsListedWithWhatIsOnIt) {
  addRadar("A1", "QTX-K245", "QTX3701");
  addRadar("A2", "QTX-K265", "QTX3702");
  addRadar("A3", "QTX-K225", "QTX3400");
  addRadar("A4", "", "QTX3701");
  addRadar("A5", "QTX-NEW", "QTX3500");
  QTXSim_SetChipId(addRadar("A6", "QTX-K235E", "QTX3701"), 0x123);
  addRadar("A7", nullptr, nullptr);
  QTXSim_SetHeld(addRadar("A8", "QTX-K245", "QTX3701"), 1);
  EXPECT_EQ(list(), device("A1") + "!QTX-K245!QTX3701#" + device("A2") + "!QTX-K265!QTX3702#" + device("A3") +
                        "!QTX-K225!QTX3400#" + device("A4") + "!Unknown!QTX3701#" + device("A5") + "!Unknown!QTX3500#" +
                        device("A6") + "!QTX-K235E!Unknown#" + device("A7") + "!Unknown!Unknown#" +
                        device("Already Open") + "!Unknown!Unknown");
  EXPECT_EQ(radar->interface_handle, nullptr);
  EXPECT_EQ(radar->module, nullptr);
  EXPECT_EQ(radar->chip, nullptr);
}

TEST_F(Radars, AListAsLongAsTheBufferPassesAndOneLongerIsRefused) {
  addRadar("A1");
  addRadar("A2");
  const std::string all = list();
  const uint32_t length = static_cast<uint32_t>(all.size());
  const uint32_t first = static_cast<uint32_t>(all.find('#'));
  const std::tuple<uint32_t, int32_t, int> cases[] = {{length + 1, 0, 0},  {length, 0, 0},  {length - 1, 2, 305},
                                                      {first + 1, 2, 305}, {first, 2, 297}, {first - 1, 2, 305},
                                                      {1, 2, 305},         {0, 2, 305}};
  for (const auto &[size, code, point] : cases) {
    std::vector<char> text(all.size() + 2, '?');
    EXPECT_EQ(QTX_ListRadarModules(radar, text.data(), size), code) << size;
    EXPECT_EQ(text[size], '?') << size;
    if (code == 0) {
      EXPECT_EQ(std::string(text.data(), all.size()), all);
      continue;
    }
    EXPECT_EQ(description(radar),
              "ERROR 0x2: Buffer too small\r\n   at: QTX_ListRadarModules in src/Pulsekit3:" + std::to_string(point))
        << size;
  }
}

TEST_F(Radars, AFailedListingIsToldWithItsTracePoint) {
  addRadar("A1");
  QTXSim_FailCall("Close", 1, 1, 4);
  list(266);
  EXPECT_NE(description(radar).find("QTX_ListRadarModules in src/Pulsekit3:283"), std::string::npos);
  EXPECT_EQ(list(), device("A1") + "!QTX-K245!QTX3701");
  // A bridge that can't be opened keeps its entry.
  QTXSim_FailCall("OpenEx", 1, 1, 4);
  EXPECT_EQ(list(), device("A1") + "!Unknown!Unknown");
}

TEST_F(Radars, MoreThanTenDevicesAreNoListAndManyMoreAreNoRoom) {
  for (int i = 0; i < 10; ++i) addRadar(("A" + std::to_string(i)).c_str(), nullptr, nullptr);
  const std::string ten = list();
  EXPECT_EQ(std::count(ten.begin(), ten.end(), '#'), 9);
  addRadar("B0", nullptr, nullptr);
  EXPECT_EQ(list(), "");
  for (int i = 0; i < 10; ++i) addRadar(("C1234567890123" + std::to_string(i)).c_str(), nullptr, nullptr);
  list(2);
  EXPECT_NE(description(radar).find("QTX_ListRadarModules in src/Pulsekit3:183"), std::string::npos);
}

TEST_F(Radars, ListingLeavesAnOpenRadarAlone) {
  addRadar();
  ASSERT_EQ(QTX_OpenRadar(radar, connection().c_str()), 0);
  std::vector<char> text(64, '?');
  EXPECT_EQ(QTX_ListRadarModules(radar, text.data(), 64), 1);
  EXPECT_NE(description(radar).find("A radar is open on this handle"), std::string::npos);
  EXPECT_EQ(text[0], '\0');
  EXPECT_EQ(QTX_VarSetIntValue_ByName(radar, "PulsesPerStep", 41), 0);
}

struct OpenCase {
  std::string connection;
  int32_t code;
  int point;  // 0: nothing failed
  bool bridge, module, chip;
};

TEST_F(Radars, OpeningTakesEveryKindOfConnectionString) {
  addRadar();
  const std::string here = device();
  const OpenCase cases[] = {
      {connection(), 0, 0, true, true, true},
      {here + "!Unknown!Unknown", 0, 0, true, false, false},
      {here + "!QTX-K245!Unknown", 0, 0, true, true, false},
      {here + "!Unknown!QTX3701", 1281, 439, true, false, true},  // no module, no power
      {here + "!DEFAULT!Unknown", 0, 0, true, true, false},
      {connection() + "!more", 0, 0, true, true, true},
      {here + "!QTX-NEW!QTX3701", 0, 399, true, false, false},
      {here + "!QTX3701", 0, 399, true, false, false},  // the last field is the chip, the module is missing
      {here + "!QTX-K245!QTX9999", 769, 430, false, false, false},
      {here + "!QTX-K245!qtx3701", 769, 430, false, false, false},
      {here, 260, 388, true, false, false},
      {device("NONE") + "!QTX-K245!QTX3701", 260, 388, true, false, false},
      {"FTx232H!no bracket!Unknown!Unknown", 260, 388, true, false, false},
      {"ftx232h" + here.substr(7) + "!Unknown!Unknown", 268, 376, false, false, false},
      {"no delimiter", 268, 376, false, false, false},
      {"", 268, 376, false, false, false},
      {std::string(10000, 'F'), 268, 376, false, false, false},
      {"FTx232H!" + std::string(10000, '(') + "!" + std::string(10000, 'M') + "!C", 260, 388, true, false, false},
  };
  for (const OpenCase &c : cases) {
    const std::string what = c.connection.substr(0, 60);
    radar->error->trace[0] = '\0';
    EXPECT_EQ(QTX_OpenRadar(radar, c.connection.c_str()), c.code) << what << description(radar);
    const std::string point = "QTX_OpenRadar in src/Pulsekit3:" + std::to_string(c.point);
    if (c.point) {
      EXPECT_NE(description(radar).find(point), std::string::npos) << what << description(radar);
    } else {
      EXPECT_EQ(radar->connection_string, c.connection);
    }
    EXPECT_EQ(radar->interface_handle != nullptr, c.bridge) << what;
    EXPECT_EQ(radar->module != nullptr, c.module) << what;
    EXPECT_EQ(radar->chip != nullptr, c.chip) << what;
    EXPECT_EQ(QTX_CloseRadar(radar), 0) << what;
    EXPECT_EQ(radar->interface_handle, nullptr) << what;
  }
  EXPECT_EQ(QTXSim_Calls("Close"), QTXSim_Calls("OpenEx") - 2);  // two of them named no device
}

TEST_F(Radars, ABridgeThatDoesNotConnectStaysUntilItIsReleased) {
  addRadar();
  for (const bool close : {true, false}) {
    QTXSim_ResetStatistics();
    ASSERT_EQ(QTXSim_FailCall("SetLatencyTimer", 1, 1, FT_IO_ERROR), 0);
    EXPECT_EQ(QTX_OpenRadar(radar, connection().c_str()), 258);
    EXPECT_EQ(QTXSim_Calls("Close"), 0u);
    if (close) {
      EXPECT_EQ(QTX_CloseRadar(radar), 0);
    } else {
      EXPECT_EQ(QTX_OpenRadar(radar, connection().c_str()), 0) << description(radar);
    }
    EXPECT_EQ(QTXSim_Calls("Close"), 1u);
  }
}

TEST_F(Radars, ABoardWithoutANameDoesNotStopOpening) {
  addRadar("FT0001AB", "");
  EXPECT_EQ(QTX_OpenRadar(radar, connection().c_str()), 0);
  EXPECT_NE(radar->module, nullptr);
  EXPECT_NE(radar->chip, nullptr);
  EXPECT_EQ(radar->open, 1);
}

TEST_F(Radars, AChipThatDoesNotStartLeavesTheRadarOpen) {
  const int32_t number = addRadar();
  QTXSim_ChipStickBits(number, 0x31, 0xff, 0x55);
  const int32_t code = QTX_OpenRadar(radar, connection().c_str());
  EXPECT_EQ(code, 1281);
  EXPECT_NE(description(radar).find("Write value not present when reading register."), std::string::npos);
  EXPECT_NE(description(radar).find("QTX_OpenRadar in src/Pulsekit3:439"), std::string::npos);
  EXPECT_EQ(radar->open, 1);
  uint64_t value = 0;
  EXPECT_EQ(QTX_RegisterRead(radar, 0x02, 2, &value), 0);
  EXPECT_EQ(QTX_CloseRadar(radar), 0);
}

TEST_F(Radars, OpeningAgainReleasesWhatWasOpen) {
  addRadar();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(QTX_OpenRadar(radar, connection().c_str()), 0);
  EXPECT_EQ(QTX_CloseRadar(radar), 0);
  EXPECT_EQ(QTXSim_Calls("Close"), 3u);
  EXPECT_EQ(QTX_OpenRadar(radar, (device() + "!Unknown!Unknown").c_str()), 0);
  EXPECT_EQ(radar->chip, nullptr);
}

TEST_F(Radars, ClosingTwiceIsFineAndAFailedCloseCanBeRepeated) {
  addRadar();
  EXPECT_EQ(QTX_CloseRadar(nullptr), 1);
  EXPECT_EQ(QTX_CloseRadar(radar), 0);
  ASSERT_EQ(QTX_OpenRadar(radar, connection().c_str()), 0);
  QTXSim_FailCall("Close", 1, 1, 4);
  EXPECT_EQ(QTX_CloseRadar(radar), 266);
  EXPECT_NE(description(radar).find("FTx232H - Could not disconnect the device interface"), std::string::npos);
  EXPECT_NE(description(radar).find("QTX_CloseRadar in src/Pulsekit3:483"), std::string::npos);
  EXPECT_NE(radar->interface_handle, nullptr);
  EXPECT_EQ(QTX_CloseRadar(radar), 0);
  EXPECT_EQ(QTX_CloseRadar(radar), 0);
  EXPECT_EQ(radar->interface_handle, nullptr);
  EXPECT_EQ(radar->open, 1);
  EXPECT_EQ(QTX_OpenRadar(radar, connection().c_str()), 0);
}

TEST_F(Radars, ACloseThatFailsLosesNoDevice) {
  addRadar();
  QTXSim_FailCall("Close", 1, 1, 4);
  EXPECT_EQ(QTX_OpenRadar(radar, connection("QTX-K245", "QTX9999").c_str()), 769);
  EXPECT_EQ(list(), connection());
  QTX_Handle *other = nullptr;
  ASSERT_EQ(QTX_InitHandle(&other), 0);
  ASSERT_EQ(QTX_OpenRadar(other, connection().c_str()), 0);
  QTXSim_FailCall("Close", 1, 1, 4);
  EXPECT_EQ(QTX_CloseRadar(other), 266);
  EXPECT_EQ(QTX_FreeHandle(&other), 0);
  EXPECT_EQ(QTX_OpenRadar(radar, connection().c_str()), 0);
}

TEST_F(Radars, AChipThatCannotBeFreedDoesNotStopClosing) {
  addRadar();
  ASSERT_EQ(QTX_OpenRadar(radar, connection().c_str()), 0);
  const char *name = std::exchange(radar->chip->name, "another");
  EXPECT_EQ(QTX_CloseRadar(radar), 0);
  EXPECT_NE(description(radar).find("QTX_CloseRadar in src/Pulsekit3:466"), std::string::npos);
  EXPECT_EQ(radar->interface_handle, nullptr);
  EXPECT_EQ(radar->module, nullptr);
  radar->chip->name = name;
  EXPECT_EQ(QTX_CloseRadar(radar), 0);
  EXPECT_EQ(radar->chip, nullptr);
}

TEST_F(Radars, NothingIsOpenAfterClosing) {
  addRadar();
  ASSERT_EQ(QTX_OpenRadar(radar, connection().c_str()), 0);
  ASSERT_EQ(QTX_CloseRadar(radar), 0);
  uint32_t frame[512];
  uint64_t value = 0;
  char text[64];
  uint8_t bytes[4];
  EXPECT_EQ(QTX_GetFrameRaw(radar, frame, 512), 770);
  EXPECT_EQ(QTX_RegisterRead(radar, 2, 2, &value), 770);
  EXPECT_EQ(QTX_VarGetValue_ByName(radar, "FrameSize", &value), 1283);
  EXPECT_EQ(QTX_ListVariables(radar, text, sizeof text), 1);
  EXPECT_EQ(QTX_ModuleReadFlashMemory(radar, 0, bytes, 4), 514);
  EXPECT_EQ(QTX_IO_SetValue(radar, 500, 1), 269);
  EXPECT_EQ(QTX_PowerOnRadar(radar), 1283);
  EXPECT_EQ(QTX_PowerOffRadar(radar), 1283);
  EXPECT_EQ(QTX_VarsResetAllToDefault(radar), 514);
  EXPECT_EQ(QTX_VarsSaveToFlash(radar), 1283);
}

TEST_F(Radars, PowerSwitchesTheBoardAndSetsTheRadarUpAnew) {
  const int32_t number = addRadar();
  ASSERT_EQ(QTX_OpenRadar(radar, connection().c_str()), 0);
  ASSERT_EQ(QTX_VarSetIntValue_ByName(radar, "PulsesPerStep", 41), 0);
  EXPECT_EQ(QTX_PowerOffRadar(radar), 0);
  EXPECT_EQ(QTXSim_PinLevel(number, 5), 0);
  EXPECT_EQ(QTX_PowerOnRadar(radar), 0) << description(radar);
  EXPECT_EQ(QTXSim_PinLevel(number, 5), 1);
  uint64_t value = 0;
  EXPECT_EQ(QTX_VarGetValue_ByName(radar, "PulsesPerStep", &value), 0);
  EXPECT_NE(value, 41u);
  uint64_t in_chip = 0;
  EXPECT_EQ(QTXSim_ChipRegister(number, 0x31, &in_chip), 0);
  EXPECT_EQ(in_chip, value);
}

TEST_F(Radars, AFailedPowerOnCarriesItsTracePoint) {
  const int32_t number = addRadar();
  ASSERT_EQ(QTX_OpenRadar(radar, connection().c_str()), 0);
  QTXSim_ChipStickBits(number, 0x31, 0xff, 0x55);
  EXPECT_EQ(QTX_PowerOnRadar(radar), 1281);
  EXPECT_NE(description(radar).find("QTX_PowerOnRadar in src/Pulsekit3:529"), std::string::npos);
  ASSERT_EQ(QTX_OpenRadar(radar, connection("QTX-K245", "Unknown").c_str()), 0);
  EXPECT_EQ(QTX_PowerOffRadar(radar), 0);
  EXPECT_EQ(QTX_PowerOnRadar(radar), 770);
  EXPECT_EQ(QTXSim_PinLevel(number, 5), 1) << "the chip's turn comes last";
  QTXSim_FlashPresent(number, 0);
  EXPECT_EQ(QTX_PowerOnRadar(radar), 513);
  EXPECT_NE(description(radar).find("QTX_PowerOnRadar in src/Pulsekit3:522"), std::string::npos);
}

TEST_F(Radars, BoardInformationIsReadOpenOrNot) {
  const int32_t number = addRadar();
  const std::vector<uint8_t> id{'S', 'N', '4', '2'};
  QTXSim_OtpWrite(number, 32, id.data(), 4);
  const auto read = [&] {
    std::vector<uint8_t> info(200, '?');
    EXPECT_EQ(QTX_ModuleReadBoardInfo(radar, info.data(), 200), 0) << description(radar);
    EXPECT_EQ(info[128], '?');
    return std::string(info.begin(), info.begin() + 8) + "/" + std::string(info.begin() + 32, info.begin() + 36);
  };
  EXPECT_EQ(read(), "QTX-K245/SN42");
  EXPECT_EQ(radar->interface_handle, nullptr);
  EXPECT_EQ(radar->connection_string, connection());
  for (const char *layers : {"!Unknown!Unknown", "!QTX-K245!QTX3701"}) {
    ASSERT_EQ(QTX_OpenRadar(radar, (device() + layers).c_str()), 0);
    EXPECT_EQ(read(), "QTX-K245/SN42") << layers;
    const uint8_t nothing_new[] = {0xff};
    EXPECT_EQ(QTX_ModuleProgramBoardInfo(radar, nothing_new, 1), 0) << layers;
    EXPECT_EQ(QTXSim_Calls("OpenEx"), QTXSim_Calls("Close") + 1) << layers;
    EXPECT_EQ(QTX_CloseRadar(radar), 0);
  }
}

TEST_F(Radars, ABlankBoardCanBeNamed) {
  const int32_t number = addRadar("FT0001AB", "");
  const std::string name = "QTX-K235E";
  std::vector<uint8_t> info(64, 0xff);
  std::copy(name.begin(), name.end(), info.begin());
  info[0] = 'Q';
  EXPECT_EQ(QTX_ModuleProgramBoardInfo(radar, info.data(), 100), 0) << description(radar);
  std::vector<char> text(256);
  EXPECT_EQ(QTX_ListRadarModules(radar, text.data(), 256), 0);
  EXPECT_EQ(std::string(text.data()), device() + "!QTX-K235E!QTX3701");
  uint8_t beyond = 0;
  QTXSim_OtpRead(number, 64, &beyond, 1);
  EXPECT_EQ(beyond, 0xff);
}

TEST_F(Radars, BoardInformationWithoutARadarIsRefused) {
  uint8_t info[128] = {};
  EXPECT_EQ(QTX_ModuleReadBoardInfo(radar, info, 128), 268);
  EXPECT_NE(description(radar).find("QTX_ModuleReadBoardInfo in src/Pulsekit3:1453"), std::string::npos);
  EXPECT_EQ(radar->interface_handle, nullptr);
}

}  // namespace
}  // namespace pulsekit::test
