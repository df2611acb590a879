// The thirteen functions: lists, handles, what is refused.
#include "bench.h"

namespace simtest {
namespace {

class D2xx : public Bench {
 protected:
  D2xx() { kinds = 0; }
  std::string number() {
    uint32_t count = 99;
    const FT_STATUS status = d2xx().ListDevices(&count, nullptr, FT_LIST_NUMBER_ONLY);
    return std::to_string(status) + " " + std::to_string(count);
  }
  static std::string listed(uintptr_t index, uint32_t what = FT_OPEN_BY_SERIAL_NUMBER) {
    char text[64] = "?";
    const FT_STATUS status = d2xx().ListDevices(reinterpret_cast<void *>(index), text, FT_LIST_BY_INDEX | what);
    return std::to_string(status) + " " + text;
  }
  static FT_STATUS openBy(const void *arg, uint32_t flags = FT_OPEN_BY_SERIAL_NUMBER) {
    FT_HANDLE opened = nullptr;
    return d2xx().OpenEx(arg, flags, &opened);
  }
  std::string nodes() {
    uint32_t count = 0;
    EXPECT_EQ(FT_OK, d2xx().CreateDeviceInfoList(&count));
    list.resize(count);
    std::string text = std::to_string(d2xx().GetDeviceInfoList(list.data(), &count)) + format(" %u", count);
    for (const FT_Node &node : list) {
      text += format(" [%s|%s|type %u flags %x id %x%s]", node.SerialNumber, node.Description, node.Type, node.Flags,
                     node.ID,
                     node.Handle == nullptr  ? ""
                     : node.Handle == handle ? " mine"
                                             : " other");
      EXPECT_TRUE(&node == list.data() || node.LocId != (&node)[-1].LocId);
    }
    return text;
  }
  // Every function on a handle, with arguments that are fine.
  static Bytes all(FT_HANDLE with) {
    uint8_t byte = 0x87;
    uint32_t count = 0;
    const FTx232H_D2XX &t = d2xx();
    const FT_STATUS statuses[] = {
        t.Read(with, &byte, 0, &count), t.Write(with, &byte, 1, &count), t.ResetDevice(with),
        t.SetTimeouts(with, 1, 1),      t.GetQueueStatus(with, &count),  t.SetLatencyTimer(with, 2),
        t.SetBitMode(with, 0, 2),       t.SetUSBParameters(with, 64, 64)};
    return {std::begin(statuses), std::end(statuses)};
  }
  static int32_t add(const char *serial, int32_t bridge = QTXSIM_FT232H, const char *text = "Radar",
                     const char *board = nullptr, const char *chip = nullptr) {
    return QTXSim_AddRadar(serial, text, bridge, board, chip);
  }

  std::vector<FT_Node> list;
};

TEST_F(D2xx, Lists) {
  FT_Node node;
  uint32_t count = 1;
  char one[16] = "", two[16] = "", *texts[] = {one, two, nullptr};
  DO(number(), listed(0), add("A1"), number(), d2xx().GetDeviceInfoList(&node, &count), add("B2"), listed(1), number(),
     listed(1), listed(1, FT_OPEN_BY_DESCRIPTION),
     d2xx().ListDevices(texts, &count, FT_LIST_ALL | FT_OPEN_BY_SERIAL_NUMBER), count, one, two);
  say("a list stays as it was until it is built anew");
  DO(QTXSim_Unplug(0), listed(0), openBy("A1"), nodes(), listed(0));
  say("bridges with channels carry letters");
  DO(add("FT0002CD", QTXSIM_FT2232H), add("FT0003EF", QTXSIM_FT4232H), nodes(), openBy("FT0002CD"), openBy("FT0002CDB"),
     openBy("Radar A", FT_OPEN_BY_DESCRIPTION),
     openBy(reinterpret_cast<void *>(static_cast<uintptr_t>(list.at(4).LocId)), FT_OPEN_BY_LOCATION), nodes());
}

TEST_F(D2xx, DevicesInUseDoNotOpenAndOnlyTheirOwnerSeesTheirTexts) {
  plugIn();
  open();
  DO(number(), listed(0), listed(0, FT_OPEN_BY_DESCRIPTION), openBy("FT0001AB"), nodes(), d2xx().Close(handle),
     listed(0), QTXSim_SetHeld(device, 1), number(), listed(0), nodes(), openBy("FT0001AB"));
}

TEST_F(D2xx, HandlesEndWithClosingWithAResetAndWithThePlug) {
  restart();
  const FT_HANDLE first = handle;
  DO(all(first), d2xx().Close(first), all(first), all(nullptr), d2xx().Close(first), (open(), all(first)));
  const FT_HANDLE second = handle;
  DO((restart(), all(first)), all(second));
  say("closing changes no pin");
  DO(d2xx().Close(handle), QTXSim_PinLevel(device, 5), QTXSim_PinIsOutput(device, 5));
  open();
  const FT_HANDLE dead = std::exchange(handle, nullptr);
  DO(QTXSim_Unplug(device), all(dead), QTXSim_Replug(device), all(dead), (open(), d2xx().Close(dead)), all(handle),
     d2xx().SetUSBParameters(handle, 4096, 4096), exchange({0xAA, 0x87}, 2));
}

TEST_F(D2xx, BadArguments) {
  restart("QTX-K245", "QTX3701");
  const FTx232H_D2XX &t = d2xx();
  uint8_t byte = 0;
  uint32_t count = 0;
  uint64_t value = 0;
  FT_HANDLE opened = nullptr;
  for (uint32_t size : {0u, 63u, 100u, 64u, 65536u, 65600u})
    DO_FOR(size, t.SetUSBParameters(handle, size, 4096), t.SetUSBParameters(handle, 4096, size));
  DO(t.SetBitMode(handle, 0, 1), t.SetLatencyTimer(handle, 0), t.Write(handle, nullptr, 1, &count),
     t.Read(handle, nullptr, 1, &count), t.Write(handle, &byte, 1, nullptr), t.Read(handle, &byte, 1, nullptr),
     t.GetQueueStatus(handle, nullptr), t.OpenEx(nullptr, FT_OPEN_BY_SERIAL_NUMBER, &opened),
     t.OpenEx("FT0001AB", 0, &opened), t.OpenEx("FT0001AB", FT_OPEN_BY_SERIAL_NUMBER, nullptr),
     t.ListDevices(nullptr, nullptr, FT_LIST_NUMBER_ONLY), t.ListDevices(nullptr, &byte, FT_LIST_BY_INDEX),
     t.ListDevices(nullptr, nullptr, FT_OPEN_BY_SERIAL_NUMBER), t.CreateDeviceInfoList(nullptr),
     t.GetDeviceInfoList(nullptr, &count));
  say("of the simulator's own");
  QTXSim_Reset();
  DO(add(nullptr), add(""), add("1234567890123456"), add("A1", 3), add("123456789012345", QTXSIM_FT2232H),
     add("A1", 0, std::string(64, 'x').c_str()), add("A1", 0, "", std::string(32, 'x').c_str()),
     add("A1", 0, "", nullptr, "QTX3701"), add("A1", 0, "", "QTX-K245", "QTX9999"), add("123456789012345"),
     add("B2", 0, "", ""));
  for (int32_t number : {0, 7, -1}) {
    DO_FOR(number, QTXSim_FlashRead(number, 0, &byte, 1), QTXSim_OtpWrite(number, 0, &byte, 1),
           QTXSim_FlashPresent(number, 1), QTXSim_PowerCycle(number), QTXSim_ChipRegister(number, 0, &value));
  }
  DO(QTXSim_Unplug(7), QTXSim_PinLevel(0, 16), QTXSim_DrivePin(0, 3, 2), QTXSim_FailCall("Wrote", 1, 1, 4),
     QTXSim_FailCall("Write", 0, 1, 4), QTXSim_FlashRead(1, QTXSIM_FLASH_SIZE, &byte, 1),
     QTXSim_FlashWrite(1, 1, &byte, 0xFFFFFFFF), QTXSim_OtpRead(1, QTXSIM_OTP_SIZE - 1, &byte, 2),
     QTXSim_OtpRead(1, QTXSIM_OTP_SIZE - 1, &byte, 1), byte);
}

TEST_F(D2xx, ChannelsOfALargeBridge) {
  plugIn("QTX-K245", nullptr, QTXSIM_FT4232H);
  open("FT0001ABA");
  powerUp();
  DO(flashFrame({0x9F}, 3), exchange({0x82, 0xFF, 0xFF, 0x83, 0x87}, 1), (open("FT0001ABB"), exchange({0xAA, 0x87}, 2)),
     d2xx().OpenEx("FT0001ABC", FT_OPEN_BY_SERIAL_NUMBER, &handle), d2xx().SetBitMode(handle, 0, 2),
     d2xx().SetBitMode(handle, 0, 0), write({0xAA}), queued());
}

}  // namespace
}  // namespace simtest
