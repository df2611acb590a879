// Listing, opening, closing and powering radars, board information, a bridge that is pulled at any moment.
#include <algorithm>
#include <cstddef>
#include <cstdlib>

#include "Pulsekit3_control.h"
#include "Pulsekit3_settings.h"
#include "Pulsekit3_stream.h"
#include "host.h"

namespace pulsekit::test {
namespace {

class Radars : public Host {
 protected:
  std::string list(uint32_t size = 2048) {
    std::string text(size + 1, '~');
    const int32_t code = QTX_ListRadarModules(handle, text.data(), size);
    EXPECT_EQ(text[size], '~') << size;
    return std::to_string(code) + " " + text.substr(0, size).c_str();
  }
  std::string state() {
    return format("bridge %d module %d chip %d open %d", handle->interface_handle != nullptr, handle->module != nullptr,
                  handle->chip != nullptr, handle->open);
  }
  std::string boardInfo(int32_t length = 200) {
    std::vector<uint8_t> info(201, '?');
    const int32_t code = QTX_ModuleReadBoardInfo(handle, info.data(), length);
    return std::to_string(code) + " " + std::string(info.begin(), info.begin() + 8) + "/" +
           std::string(info.begin() + 32, info.begin() + 36) + format(" %d %d", info[127], info[128]);
  }
};

TEST_F(Radars, Listing) {
  DO(list());
  add("A1", "QTX-K245", "QTX3701");
  add("A2", "QTX-K265", "QTX3702");
  add("A3", "QTX-K225", "QTX3400");
  add("A4", "", "QTX3701");
  add("A5", "QTX-NEW", "QTX3500");
  QTXSim_SetChipId(add("A6", "QTX-K235E", "QTX3701"), 0x123);
  add("A7", nullptr, nullptr);
  QTXSim_SetHeld(add("A8", "QTX-K245", "QTX3701"), 1);
  DO(list(), state());
  QTXSim_Reset();
  add("A1");
  add("A2");
  for (uint32_t size : {92, 91, 90, 47, 46, 45, 44, 1, 0}) DO_FOR(size, list(size));
  for (const char *call : {"Close", "OpenEx", "ListDevices", "Write"}) {
    for (uint32_t nth : {1, 2})
      DO_FOR(call, (QTXSim_FailCall(call, nth, 1, 4), list()), (QTXSim_ClearFaults(), list().size()));
  }
  QTXSim_Reset();
  for (int i = 0; i < 10; ++i) add(("A" + std::to_string(i)).c_str(), nullptr, nullptr);
  const std::string ten = list();
  DO(std::count(ten.begin(), ten.end(), '#'), (add("B0", nullptr, nullptr), list()));
  for (int i = 0; i < 10; ++i) add(("C1234567890123" + std::to_string(i)).c_str(), nullptr, nullptr);
  DO(list(), QTX_ListRadarModules(nullptr, nullptr, 9));
  QTXSim_Reset();
  add();
  DO(open(), list(64), QTX_VarSetIntValue_ByName(handle, "PulsesPerStep", 41));
}

TEST_F(Radars, OpeningAndClosing) {
  add();
  const std::string here = device();
  for (const std::string &text :
       {here + "!QTX-K245!QTX3701", here + "!Unknown!Unknown", here + "!QTX-K245!Unknown", here + "!Unknown!QTX3701",
        here + "!DEFAULT!Unknown", here + "!QTX-K245!QTX3701!more", here + "!QTX-NEW!QTX3701", here + "!QTX3701",
        here + "!QTX-K245!QTX9999", here + "!QTX-K245!qtx3701", here, device("NONE") + "!QTX-K245!QTX3701",
        std::string("FTx232H!no bracket!Unknown!Unknown"), "ftx232h" + here.substr(7) + "!Unknown!Unknown",
        std::string("no delimiter"), std::string(), std::string(10000, 'F'),
        "FTx232H!" + std::string(10000, '(') + "!" + std::string(10000, 'M') + "!C"}) {
    DO_FOR(text.substr(0, 60), QTX_OpenRadar(handle, text.c_str()), state(), QTX_CloseRadar(handle), state());
  }
  DO(open(), open(), handle->connection_string, QTX_CloseRadar(handle), QTXSim_Calls("OpenEx") - QTXSim_Calls("Close"),
     QTX_CloseRadar(handle), QTX_CloseRadar(nullptr), QTX_OpenRadar(nullptr, "x"), QTX_OpenRadar(handle, nullptr));
  say("a bridge that does not connect stays until it is released");
  for (bool close : {true, false}) {
    QTXSim_ResetStatistics();
    QTXSim_FailCall("SetLatencyTimer", 1, 1, 4);
    DO_FOR(close, open(), QTXSim_Calls("Close"), close ? QTX_CloseRadar(handle) : open(), QTXSim_Calls("Close"));
  }
  say("failed closes can be repeated");
  DO((QTXSim_FailCall("Close", 1, 1, 4), QTX_CloseRadar(handle)), state(), QTX_CloseRadar(handle), state(), open(),
     (QTXSim_FailCall("Close", 1, 1, 4), open()), state(), open(), state());
  QTX_Handle *other = nullptr;
  QTX_InitHandle(&other);
  DO((QTX_CloseRadar(handle), QTXSim_FailCall("Close", 1, 1, 4), open("!QTX-K245!QTX9999")), list(),
     QTX_OpenRadar(other, here.c_str()), (QTXSim_FailCall("Close", 1, 1, 4), QTX_CloseRadar(other)),
     QTX_FreeHandle(&other), open());
  const char *name = std::exchange(handle->chip->name, "another");
  DO(QTX_CloseRadar(handle), state());
  handle->chip->name = name;
  DO(QTX_CloseRadar(handle), state());
  say("a chip that does not start, a board without a name");
  QTXSim_ChipStickBits(0, 0x31, 0xff, 0x55);
  uint64_t value = 0;
  DO(open(), state(), QTX_RegisterRead(handle, 0x02, 2, &value), value, QTX_CloseRadar(handle),
     QTX_RegisterRead(handle, 0x02, 2, &value));
  QTXSim_Reset();
  add("FT0001AB", "");
  DO(open(), state());
}

TEST_F(Radars, Power) {
  add();
  uint64_t value = 0;
  DO(QTX_PowerOffRadar(nullptr), QTX_PowerOnRadar(nullptr), QTX_PowerOffRadar(handle), QTX_PowerOnRadar(handle), open(),
     QTX_VarSetIntValue_ByName(handle, "PulsesPerStep", 41), QTX_PowerOffRadar(handle), QTXSim_PinLevel(0, 5),
     QTX_PowerOnRadar(handle), QTXSim_PinLevel(0, 5), values({"PulsesPerStep"}), QTXSim_ChipRegister(0, 0x31, &value),
     value);
  QTXSim_ChipStickBits(0, 0x31, 0xff, 0x55);
  DO(QTX_PowerOnRadar(handle), (QTXSim_FlashPresent(0, 0), QTX_PowerOnRadar(handle)),
     (handle->module->InitModule = nullptr, QTX_PowerOnRadar(handle)));
  QTXSim_FlashPresent(0, 1);
  open();
  auto *chip = std::exchange(handle->chip, nullptr);
  DO(QTX_PowerOnRadar(handle), QTX_PowerOffRadar(handle));
  handle->chip = chip;
  DO(open("!QTX-K245!Unknown"), QTX_PowerOffRadar(handle), QTX_PowerOnRadar(handle), QTXSim_PinLevel(0, 5));
  open("!Unknown!QTX3701");
  DO(QTX_PowerOnRadar(handle), QTX_PowerOffRadar(handle), open("!DEFAULT!QTX3701"), QTX_PowerOnRadar(handle));
}

TEST_F(Radars, BoardInformation) {
  DO(boardInfo(), state());
  add("FT0001AB", "");
  std::vector<uint8_t> info(100, 0xff);
  const std::string name = "RTX-K245";
  std::copy(name.begin(), name.end(), info.begin());
  std::fill(info.begin() + 32, info.begin() + 36, uint8_t{'4'});
  info[64] = 0;
  uint8_t beyond = 0;
  DO(QTX_ModuleProgramBoardInfo(handle, info.data(), 100), QTXSim_OtpRead(0, 64, &beyond, 1), beyond, boardInfo(),
     state(), handle->connection_string);
  const uint8_t otp[] = {'Q'};
  QTXSim_OtpWrite(0, 0, otp, 1);
  for (const char *layers : {"!Unknown!Unknown", "!QTX-K245!QTX3701"}) {
    DO_FOR(layers, open(layers), boardInfo(), boardInfo(-1), QTX_ModuleProgramBoardInfo(handle, info.data() + 99, 1),
           QTXSim_Calls("OpenEx") - QTXSim_Calls("Close"), (QTXSim_FailCall("Write", 3, 99, 4), boardInfo()),
           QTX_ModuleProgramBoardInfo(handle, info.data(), 1), (QTXSim_ClearFaults(), QTX_CloseRadar(handle)));
  }
  DO(QTX_ModuleReadBoardInfo(handle, nullptr, 4), QTX_ModuleReadBoardInfo(nullptr, nullptr, 4),
     QTX_ModuleProgramBoardInfo(handle, nullptr, 4), QTX_ModuleProgramBoardInfo(nullptr, info.data(), 4));
}

// A host's own record ends in front of the private fields; a sanitizer watches what lies there.
template <typename Record>
Record *hostsOwn(const Record *whole, size_t size) {
  return static_cast<Record *>(std::memcpy(std::malloc(size), whole, size));
}

TEST_F(Radars, RecordsOfAHostsOwn) {
  add();
  ASSERT_EQ(open(), 0);
  ChipHandle *chip = hostsOwn(handle->chip, offsetof(ChipHandle, prepared_elsewhere));
  ModuleHandle *module = hostsOwn(handle->module, offsetof(ModuleHandle, owns_error_state));
  InterfaceHandle *bridge = hostsOwn(handle->interface_handle, offsetof(InterfaceHandle, lock));
  const auto exchange = [&] {
    std::swap(chip, handle->chip);
    std::swap(module, handle->module);
    std::swap(bridge, handle->interface_handle);
  };
  double frame[512];
  uint32_t count = 0;
  const char *names[] = {"PulsesPerStep"}, *values[] = {"3"};
  exchange();
  DO(QTX_PowerOffRadar(handle), QTX_PowerOnRadar(handle), QTX_ExecuteAction_ByName(handle, "TMeasPrepare"),
     QTX_VarsResetAllToDefault(handle), QTX_TimingMeasurementSaveDataToFlash(handle, 9),
     QTX_TimingMeasurementLoadDataFromFlash(handle, 9), QTX_VarsSetMany(handle, names, values, 1, nullptr, &count),
     QTX_GetFrameNormalized(handle, frame, 512), QTX_StreamStart(handle, nullptr),
     QTX_StreamRead(handle, frame, 1024, nullptr, 1, &count, -1), QTX_StreamStop(handle), QTX_IO_SetValue(handle, 9, 1),
     (QTXSim_FailCall("Write", 9, 9, 4), QTX_Calibrate(handle, -1)));
  QTXSim_ClearFaults();
  exchange();
  void *blocks[] = {chip, module, bridge};
  module->variables = nullptr;
  bridge->driver_name[0] = 0;
  DO(chipFree(&chip, nullptr), moduleFree(&module, nullptr), interfaceFreeHandle(&bridge, nullptr), chip, module,
     bridge);
  for (void *block : blocks) std::free(block);
}

TEST_F(Radars, PullingThePlugEndsEveryCall) {
  add();
  char text[512];
  std::vector<uint8_t> info(128);
  const uint8_t even[4] = {0xfe, 0xff, 0xff, 0xff};
  std::vector<double> frame(4096);
  const auto nothing = [] {};
  const auto opened = [&] { ASSERT_EQ(open(), 0); };
  atEveryCall(
      "open", nothing, [&] { return open(); }, 3);
  atEveryCall(
      "list", nothing, [&] { return QTX_ListRadarModules(handle, text, 512); }, 3);
  atEveryCall("read", nothing, [&] { return QTX_ModuleReadBoardInfo(handle, info.data(), 128); });
  atEveryCall("program", nothing, [&] { return QTX_ModuleProgramBoardInfo(handle, even, 4); });
  atEveryCall("frame", opened, [&] { return QTX_GetFrameNormalized(handle, frame.data(), 4096); });
  atEveryCall(
      "save", opened, [&] { return QTX_VarsSaveToFlash(handle); }, 7);
  atEveryCall("close", opened, [&] { return QTX_CloseRadar(handle); });
  atEveryCall(
      "power", opened, [&] { return QTX_PowerOnRadar(handle); }, 17);
}

}  // namespace
}  // namespace pulsekit::test
