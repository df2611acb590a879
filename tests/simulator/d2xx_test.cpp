#include "bench.h"

namespace simtest {

class D2xxTest : public Bench {
 protected:
  static uint32_t number() {
    uint32_t count = 99;
    EXPECT_EQ(FT_OK, d2xx().ListDevices(&count, nullptr, FT_LIST_NUMBER_ONLY));
    return count;
  }

  static std::string listed(uintptr_t index, uint32_t what = FT_OPEN_BY_SERIAL_NUMBER) {
    char text[64] = "?";
    const FT_STATUS status = d2xx().ListDevices(reinterpret_cast<void *>(index), text, FT_LIST_BY_INDEX | what);
    return status == FT_OK ? text : "status " + std::to_string(status) + " " + text;
  }

  static FT_STATUS openBy(const void *arg, uint32_t flags) {
    FT_HANDLE opened = nullptr;
    return d2xx().OpenEx(arg, flags, &opened);
  }

  static std::vector<FT_Node> nodes() {
    uint32_t count = 0;
    EXPECT_EQ(FT_OK, d2xx().CreateDeviceInfoList(&count));
    std::vector<FT_Node> list(count);
    EXPECT_EQ(FT_OK, d2xx().GetDeviceInfoList(list.data(), &count));
    EXPECT_EQ(list.size(), count);
    return list;
  }

  static int32_t add(const char *serial, int32_t bridge = QTXSIM_FT232H) {
    return QTXSim_AddRadar(serial, "Radar", bridge, nullptr, nullptr);
  }
};

TEST_F(D2xxTest, List_StaysAsItWasUntilItIsBuiltAnew) {
  EXPECT_EQ(0u, number());
  EXPECT_EQ("status 2 ?", listed(0));
  const int32_t first = add("A1");
  FT_Node node;
  uint32_t count = 1;
  EXPECT_EQ(1u, number());
  EXPECT_EQ(FT_DEVICE_LIST_NOT_READY, d2xx().GetDeviceInfoList(&node, &count));
  add("B2");
  EXPECT_EQ("status 2 ?", listed(1));
  EXPECT_EQ(2u, number());
  EXPECT_EQ("B2", listed(1));
  EXPECT_EQ("Radar", listed(1, FT_OPEN_BY_DESCRIPTION));
  char one[16], two[16], *texts[] = {one, two, nullptr};
  ASSERT_EQ(FT_OK, d2xx().ListDevices(texts, &count, FT_LIST_ALL | FT_OPEN_BY_SERIAL_NUMBER));
  EXPECT_EQ("2A1B2", std::to_string(count) + one + two);
  QTXSim_Unplug(first);
  EXPECT_EQ("A1", listed(0)) << "the old list still shows it";
  EXPECT_EQ(FT_DEVICE_NOT_FOUND, openBy("A1", FT_OPEN_BY_SERIAL_NUMBER));
  EXPECT_EQ(1u, nodes().size());
  EXPECT_EQ("B2", listed(0));
}

TEST_F(D2xxTest, BridgesWithChannels_CarryLetters) {
  add("FT0001AB");
  add("FT0002CD", QTXSIM_FT2232H);
  add("FT0003EF", QTXSIM_FT4232H);
  std::string text;
  const std::vector<FT_Node> list = nodes();
  for (const FT_Node &node : list) {
    text += std::string(node.SerialNumber) + "|" + node.Description + "|" + std::to_string(node.Type) + " ";
    EXPECT_EQ(FT_FLAGS_HISPEED, static_cast<int>(node.Flags));
    EXPECT_TRUE(&node == list.data() || node.LocId != (&node)[-1].LocId);
  }
  EXPECT_EQ(
      "FT0001AB|Radar|8 FT0002CDA|Radar A|6 FT0002CDB|Radar B|6 "
      "FT0003EFA|Radar A|7 FT0003EFB|Radar B|7 FT0003EFC|Radar C|7 FT0003EFD|Radar D|7 ",
      text);
  EXPECT_EQ(FT_DEVICE_NOT_FOUND, openBy("FT0002CD", FT_OPEN_BY_SERIAL_NUMBER));
  EXPECT_EQ(FT_OK, openBy("FT0002CDB", FT_OPEN_BY_SERIAL_NUMBER));
  EXPECT_EQ(FT_OK, openBy("Radar A", FT_OPEN_BY_DESCRIPTION));
  EXPECT_EQ(FT_OK, openBy(reinterpret_cast<void *>(static_cast<uintptr_t>(list[4].LocId)), FT_OPEN_BY_LOCATION));
  EXPECT_EQ(FT_FLAGS_OPENED | FT_FLAGS_HISPEED, static_cast<int>(nodes()[4].Flags));
}

TEST_F(D2xxTest, DevicesInUse_DoNotOpenAndOnlyTheirOwnerSeesTheirTexts) {
  plugIn();
  open();
  EXPECT_EQ(1u, number());
  EXPECT_EQ("status 3 ", listed(0));
  EXPECT_EQ("status 3 ", listed(0, FT_OPEN_BY_DESCRIPTION));
  EXPECT_EQ(FT_DEVICE_NOT_OPENED, openBy("FT0001AB", FT_OPEN_BY_SERIAL_NUMBER));
  const FT_Node node = nodes().at(0);
  EXPECT_STREQ("FT0001AB", node.SerialNumber);
  EXPECT_EQ(handle, node.Handle);
  ASSERT_EQ(FT_OK, d2xx().Close(handle));
  EXPECT_EQ("FT0001AB", listed(0));
  QTXSim_SetHeld(device, 1);
  EXPECT_EQ(1u, number());
  EXPECT_EQ("status 3 ", listed(0));
  const FT_Node held = nodes().at(0);
  EXPECT_EQ(1u, held.Flags);
  EXPECT_EQ(3u, held.Type);
  EXPECT_STREQ("", held.SerialNumber);
  EXPECT_EQ(FT_DEVICE_NOT_OPENED, openBy("FT0001AB", FT_OPEN_BY_SERIAL_NUMBER));
}

// Every function on a handle, with arguments that are fine.
std::vector<FT_STATUS> callAll(const FTx232H_D2XX &table, FT_HANDLE handle) {
  uint8_t byte = 0x87;
  uint32_t count = 0;
  return {table.Read(handle, &byte, 0, &count), table.Write(handle, &byte, 1, &count), table.ResetDevice(handle),
          table.SetTimeouts(handle, 1, 1),      table.GetQueueStatus(handle, &count),  table.SetLatencyTimer(handle, 2),
          table.SetBitMode(handle, 0, 2),       table.SetUSBParameters(handle, 64, 64)};
}

TEST_F(D2xxTest, Handles_AreInvalidAfterClosingAndAfterReset) {
  plugIn();
  open();
  EXPECT_EQ(std::vector<FT_STATUS>(8, FT_OK), callAll(d2xx(), handle));
  ASSERT_EQ(FT_OK, d2xx().Close(handle));
  const std::vector<FT_STATUS> invalid(8, FT_INVALID_HANDLE);
  EXPECT_EQ(invalid, callAll(d2xx(), handle));
  EXPECT_EQ(invalid, callAll(d2xx(), nullptr));
  EXPECT_EQ(FT_INVALID_HANDLE, d2xx().Close(handle));
  const FT_HANDLE first = handle;
  open();
  EXPECT_EQ(invalid, callAll(d2xx(), first)) << "an old handle must not reach the reopened device";
  const FT_HANDLE second = handle;
  QTXSim_Reset();
  EXPECT_EQ(invalid, callAll(d2xx(), second));
  plugIn();
  open();
  EXPECT_EQ(invalid, callAll(d2xx(), first));
  EXPECT_EQ(invalid, callAll(d2xx(), second));
}

TEST_F(D2xxTest, UnpluggedDevice_FailsUntilItIsOpenedAnew) {
  plugInAndPowerUp();
  ASSERT_EQ(FT_OK, d2xx().Close(handle));
  EXPECT_EQ(1, QTXSim_PinLevel(device, 5)) << "closing changes nothing";
  EXPECT_EQ(1, QTXSim_PinIsOutput(device, 5));
  open();
  QTXSim_Unplug(device);
  const std::vector<FT_STATUS> failed(8, FT_IO_ERROR);
  EXPECT_EQ(failed, callAll(d2xx(), handle));
  QTXSim_Replug(device);
  EXPECT_EQ(failed, callAll(d2xx(), handle));
  FT_HANDLE second = nullptr;
  ASSERT_EQ(FT_OK, d2xx().OpenEx("FT0001AB", FT_OPEN_BY_SERIAL_NUMBER, &second));
  EXPECT_EQ(FT_OK, d2xx().Close(handle));
  EXPECT_EQ(std::vector<FT_STATUS>(8, FT_OK), callAll(d2xx(), second));
  ASSERT_EQ(FT_OK, d2xx().SetUSBParameters(second, 4096, 4096));
  handle = second;
  EXPECT_EQ((Bytes{0xFA, 0xAA}), exchange({0xAA, 0x87}, 2)) << "closing the dead handle cut the new one off";
}

TEST_F(D2xxTest, BadArguments_AreRefused) {
  plugIn();
  open();
  const FTx232H_D2XX &table = d2xx();
  uint8_t byte = 0;
  uint32_t count = 0;
  FT_HANDLE opened = nullptr;
  for (uint32_t size : {0u, 63u, 100u, 65600u}) {
    EXPECT_EQ(FT_INVALID_PARAMETER, table.SetUSBParameters(handle, size, 4096)) << size;
    EXPECT_EQ(FT_INVALID_PARAMETER, table.SetUSBParameters(handle, 4096, size)) << size;
  }
  EXPECT_EQ(FT_NOT_SUPPORTED, table.SetBitMode(handle, 0, 1));
  EXPECT_EQ(1u, nodes().size());
  EXPECT_EQ(FT_IO_ERROR, table.Write(handle, nullptr, 1, &count));
  EXPECT_EQ(FT_IO_ERROR, table.Read(handle, nullptr, 1, &count));
  const std::vector<FT_STATUS> statuses = {table.Write(handle, &byte, 1, nullptr),
                                           table.Read(handle, &byte, 1, nullptr),
                                           table.GetQueueStatus(handle, nullptr),
                                           table.SetLatencyTimer(handle, 0),
                                           table.OpenEx(nullptr, FT_OPEN_BY_SERIAL_NUMBER, &opened),
                                           table.OpenEx("FT0001AB", 0, &opened),
                                           table.OpenEx("FT0001AB", FT_OPEN_BY_SERIAL_NUMBER, nullptr),
                                           table.ListDevices(nullptr, nullptr, FT_LIST_NUMBER_ONLY),
                                           table.ListDevices(nullptr, &byte, FT_LIST_BY_INDEX),
                                           table.ListDevices(nullptr, nullptr, FT_OPEN_BY_SERIAL_NUMBER),
                                           table.CreateDeviceInfoList(nullptr),
                                           table.GetDeviceInfoList(nullptr, &count)};
  EXPECT_EQ(std::vector<FT_STATUS>(12, FT_INVALID_PARAMETER), statuses);
}

TEST_F(D2xxTest, Functions_OnWhatIsNotThereAreRefused) {
  const std::string longName(64, 'x'), longBoard(32, 'x');
  const auto with = [](const char *text, const char *board, const char *chip) {
    return QTXSim_AddRadar("A1", text, QTXSIM_FT232H, board, chip);
  };
  EXPECT_EQ(std::vector<int32_t>(9, -1),
            (std::vector<int32_t>{add(nullptr), add(""), add("1234567890123456"), add("A1", 3),
                                  add("123456789012345", QTXSIM_FT2232H), with(longName.c_str(), nullptr, nullptr),
                                  with("", longBoard.c_str(), nullptr), with("", nullptr, "QTX3701"),
                                  with("", "QTX-K245", "QTX9999")}));
  const int32_t bare = add("123456789012345"), board = QTXSim_AddRadar("B2", "", QTXSIM_FT232H, "", nullptr);
  EXPECT_EQ(0, bare);
  uint8_t byte = 0;
  uint64_t value = 0;
  for (int32_t number : {bare, 7, -1}) {
    EXPECT_EQ(std::vector<int32_t>(5, -1),
              (std::vector<int32_t>{QTXSim_FlashRead(number, 0, &byte, 1), QTXSim_OtpWrite(number, 0, &byte, 1),
                                    QTXSim_FlashPresent(number, 1), QTXSim_PowerCycle(number),
                                    QTXSim_ChipRegister(number, 0, &value)}));
  }
  EXPECT_EQ(
      std::vector<int32_t>(8, -1),
      (std::vector<int32_t>{
          QTXSim_Unplug(7), QTXSim_PinLevel(bare, 16), QTXSim_DrivePin(bare, 3, 2), QTXSim_FailCall("Wrote", 1, 1, 4),
          QTXSim_FailCall("Write", 0, 1, 4), QTXSim_FlashRead(board, QTXSIM_FLASH_SIZE, &byte, 1),
          QTXSim_FlashWrite(board, 1, &byte, 0xFFFFFFFF), QTXSim_OtpRead(board, QTXSIM_OTP_SIZE - 1, &byte, 2)}));
  EXPECT_EQ(0, QTXSim_OtpRead(board, QTXSIM_OTP_SIZE - 1, &byte, 1));
  EXPECT_EQ(0xFF, byte);
}

TEST_F(D2xxTest, ChannelsOfALargeBridge) {
  plugIn("QTX-K245", nullptr, QTXSIM_FT4232H);
  open("FT0001ABA");
  powerUp();
  EXPECT_EQ((Bytes{0xEF, 0x40, 0x18}), flashFrame({0x9F}, 3));
  EXPECT_EQ((Bytes{0x00}), exchange({0x82, 0xFF, 0xFF, 0x83, 0x87}, 1)) << "there is no high bank";
  open("FT0001ABB");
  EXPECT_EQ((Bytes{0xFA, 0xAA}), exchange({0xAA, 0x87}, 2)) << "channel B has an MPSSE of its own";
  ASSERT_EQ(FT_OK, d2xx().OpenEx("FT0001ABC", FT_OPEN_BY_SERIAL_NUMBER, &handle));
  EXPECT_EQ(FT_NOT_SUPPORTED, d2xx().SetBitMode(handle, 0, 2));
  EXPECT_EQ(FT_OK, d2xx().SetBitMode(handle, 0, 0));
  write({0xAA});
  EXPECT_EQ(0u, queued());
}

}  // namespace simtest
