// Listing, connecting and disconnecting bridges.
#include <memory>

#include "bridge_fixture.h"

namespace {

constexpr char kCheckSerial[] = "FTx232H - Check if serial number is correct";
constexpr char kNoList[] = "FTx232H - Could not create list of connected FT-devices";
constexpr char kOnlyOnce[] = "FTx232H - A handle connects only once";

class Connection : public BridgeTest {
 protected:
  std::string listed(uint32_t size = 512) {
    std::string text(size, 'x');
    EXPECT_EQ(FTx232H_ListDevices(bridge, text.data(), size), 0);
    return text.c_str();
  }
};

}  // namespace

TEST_F(Connection, BringUpToTheByte) {
  EXPECT_EQ(interfaceConnect(bridge, kDevice), 0);
  EXPECT_EQ(d2xx.calls,
            (Names{"OpenEx FT0001AB 1", "CreateDeviceInfoList", "GetDeviceInfoList 1", "ResetDevice",
                   "SetUSBParameters 65536 65536", "SetTimeouts 5000 1000", "SetLatencyTimer 2", "SetBitMode 0 0",
                   "SetBitMode 0 2", "Write 80 FE 0B 82 FF 00", "Write 86 00 00", "Write 85", "Write 8A",
                   "Write 80 F6 0B", "Write 80 FE 0B", "Write 87", "Write 86 01 00"}));
  EXPECT_STREQ(bridge->type_name, "FTx232H");
  EXPECT_EQ(bridge->connected, 1);

  d2xx.forget();
  EXPECT_EQ(interfaceDisconnect(bridge), 0);
  EXPECT_EQ(d2xx.calls, Names{"Close"});
  EXPECT_EQ(bridge->connection, nullptr);
  EXPECT_EQ(bridge->connected, 0);
  EXPECT_EQ(interfaceDisconnect(bridge), 0) << "twice";
  EXPECT_EQ(d2xx.calls, Names{"Close"});
}

TEST_F(Connection, BytesFromBeforeAreThrownAway) {
  d2xx.queue = {1, 2, 3};
  EXPECT_EQ(interfaceConnect(bridge, kDevice), 0);
  EXPECT_TRUE(d2xx.queue.empty());
}

TEST_F(Connection, EveryFailingStep) {
  struct Case {
    const char *call;
    int nth;
    int32_t code;
    const char *message;
    Names trace;
    int32_t opened;
  };
  const char *write_failed = "FTx232H - Could not write data to device";
  const char *purge_failed = "FTx232H - Could not reset the input buffer";
  const Names direct = {"FTx232H_ConnectDevice", "interfaceConnect"};
  const Names sending = {"SendBytesToDevice", "FTx232H_ConnectDevice", "interfaceConnect"};
  const Case cases[] = {
      {"OpenEx", 1, 260, kCheckSerial, direct, 0},
      {"CreateDeviceInfoList", 1, 259, kNoList, direct, 1},
      {"GetDeviceInfoList", 1, 259, kNoList, direct, 1},
      {"ResetDevice", 1, 258, purge_failed, direct, 1},
      {"GetQueueStatus", 1, 258, purge_failed, direct, 1},
      {"SetUSBParameters", 1, 258, "FTx232H - Could not set the USB buffer size", direct, 1},
      {"SetTimeouts", 1, 258, "FTx232H - Could not set the read and write timeouts", direct, 1},
      {"SetLatencyTimer", 1, 258, "FTx232H - Could not set the latency timer", direct, 1},
      {"SetBitMode", 1, 258, "FTx232H - Could not reset the bitmode", direct, 1},
      {"SetBitMode", 2, 258, "FTx232H - Could not set the bitmode to MPSSE mode", direct, 1},
      {"Write", 1, 261, "FTx232H - Could not set the correct state on the IO-pins", direct, 1},
      {"Write", 5, 265, write_failed, sending, 1},
      {"Write", 6, 265, write_failed, sending, 1},
      {"Write", 7, 265, write_failed, sending, 1},
      {"GetQueueStatus", 2, 258, purge_failed, direct, 1},
  };
  for (const Case &test : cases) {
    SCOPED_TRACE(std::string(test.call) + " " + std::to_string(test.nth));
    d2xx.fail(test.call, test.nth, FT_IO_ERROR);
    expectFailure(interfaceConnect(bridge, kDevice), test.code, test.message, test.trace);
    EXPECT_EQ(bridge->connected, 0);
    EXPECT_EQ(d2xx.open_handles, test.opened) << "closed by disconnect or release only";
    open("FTx232H");
    EXPECT_EQ(d2xx.open_handles, 0);
  }

  d2xx.fail("Write", 8, FT_IO_ERROR);
  EXPECT_EQ(interfaceConnect(bridge, kDevice), 265) << "applying the variables";
  EXPECT_EQ(interfaceDisconnect(bridge), 0);
  EXPECT_EQ(d2xx.open_handles, 0);

  for (int unchecked : {2, 3, 4}) {
    open("FTx232H");
    d2xx.fail("Write", unchecked, FT_IO_ERROR);
    EXPECT_EQ(interfaceConnect(bridge, kDevice), 0) << "Write " << unchecked;
  }
}

TEST_F(Connection, SerialNumberIsWhatStandsInTheFirstParentheses) {
  const std::string endless(10'000, 'A');
  const std::pair<std::string, const char *> cases[] = {
      {"FTx232H", "OpenEx  1"},
      {"FTx232H!FT0001AB", "OpenEx  1"},
      {"FTx232H!Serial No: ()", "OpenEx  1"},
      {"FTx232H!Serial No: (FT0001AC)", "OpenEx FT0001AC 1"},
      {"FTx232H!Serial No: (unclosed", "OpenEx unclosed 1"},
      {"FTx232H!Serial No: (Already Open)", "OpenEx Already Open 1"},
      {"FTx232H" + endless, "OpenEx  1"},
      {"FTx232H!Serial No: (" + endless + ")", nullptr},
  };
  for (const auto &[text, call] : cases) {
    SCOPED_TRACE(text.substr(0, 40));
    d2xx.forget();
    expectFailure(interfaceConnect(bridge, text.c_str()), 260, kCheckSerial,
                  {"FTx232H_ConnectDevice", "interfaceConnect"});
    EXPECT_EQ(d2xx.calls, call ? Names{call} : Names{});
  }
  EXPECT_EQ(interfaceConnect(bridge, ("FTx232H" + endless + "(FT0001AB)(x)").c_str()), 0);
}

TEST_F(Connection, AHandleConnectsOnce) {
  connect();
  const Names trace = {"FTx232H_ConnectDevice", "interfaceConnect"};
  expectFailure(interfaceConnect(bridge, kDevice), 260, kOnlyOnce, trace);
  uint32_t value = 0;
  d2xx.replies = {{0, 0}};
  EXPECT_EQ(bridge->GetIO(bridge, 5, &value), 0) << "the open connection lives on";
  EXPECT_EQ(interfaceDisconnect(bridge), 0);
  expectFailure(interfaceConnect(bridge, kDevice), 260, kOnlyOnce, trace);
}

TEST_F(Connection, DriverThatIsInitialisedAgainStartsAnew) {
  connect();
  EXPECT_EQ(FTx232H_InitHandle(&bridge, &radar->error, radar), 0);
  EXPECT_EQ(d2xx.open_handles, 0) << "the open device would be lost";
  EXPECT_EQ(interfaceConnect(bridge, kDevice), 0);
}

TEST_F(Connection, OperationWithoutItsArguments) {
  const Names trace = {"FTx232H_ConnectDevice"};
  expectFailure(bridge->ConnectDevice(bridge, &bridge->connection, nullptr), 1, "", trace);
  expectFailure(bridge->ConnectDevice(bridge, nullptr, kDevice), 1, "", trace);
  EXPECT_EQ(d2xx.calls, Names{});
}

TEST_F(Connection, CloseThatFailsKeepsTheConnection) {
  connect();
  d2xx.fail("Close", 1, FT_IO_ERROR);
  expectFailure(interfaceDisconnect(bridge), 266, "FTx232H - Could not disconnect the device interface",
                {"FTx232H_DisconnectDevice", "interfaceDisconnect"});
  EXPECT_NE(bridge->connection, nullptr);
  EXPECT_EQ(bridge->connected, 1);
  EXPECT_EQ(interfaceDisconnect(bridge), 0);
}

TEST_F(Connection, DeviceThatCouldNotBeClosedIsClosedWhenItIsInTheWay) {
  connect();
  d2xx.fail("Close", 1, FT_IO_ERROR);
  open("FTx232H");
  EXPECT_EQ(d2xx.open_handles, 1);
  d2xx.fail("OpenEx", 1, FT_DEVICE_NOT_OPENED);
  connect();
  EXPECT_EQ(d2xx.open_handles, 1);

  d2xx.fail("Close", 1, FT_IO_ERROR);
  open("FTx232H");
  d2xx.fail("ListDevices", 2, FT_DEVICE_NOT_OPENED);
  EXPECT_EQ(listed(), kDevice) << "instead of Already Open";
}

TEST_F(Connection, LayerNoticesWhatIsReleasedBehindItsBack) {
  connect();
  EXPECT_EQ(bridge->DisconnectDevice(bridge, bridge->connection), 0);
  EXPECT_FALSE(interfaceHasDevice(bridge));
  open("FTx232H");
  connect();
  EXPECT_EQ(FTx232H_FreeHandle(&bridge, nullptr), 0);
  EXPECT_FALSE(interfaceHasDevice(bridge));
}

TEST_F(Connection, OperationsWithoutADevice) {
  uint32_t value = 0;
  uint8_t byte = 0;
  // Never opened: the bridge library is asked, and refuses.
  EXPECT_EQ(bridge->SetIO(bridge, 5, 1), 265);
  EXPECT_EQ(interfaceDisconnect(bridge), 0);
  struct Case {
    const char *function;
    int32_t code;
  };
  const Case cases[] = {
      {"FTx232H_SendReceiveSPI", bridge->SendReceiveSPI(bridge, 0, &byte, 1, &byte, 1, 1)},
      {"FTx232H_SendReceiveBitsSPI", bridge->SendReceiveBitsSPI(bridge, 0, &byte, 8, &byte, 8, 0)},
      {"FTx232H_SetIO", bridge->SetIO(bridge, 5, 1)},
      {"FTx232H_SetIO_Direction", bridge->SetIO_Direction(bridge, 5, 1, 1)},
      {"FTx232H_GetIO", bridge->GetIO(bridge, 5, &value)},
  };
  for (const Case &test : cases) EXPECT_EQ(test.code, 269) << test.function;
  EXPECT_EQ(functionsOf(radar->error), Names{"FTx232H_GetIO"});
  EXPECT_EQ(d2xx.calls, Names{});
}

TEST_F(Connection, TableOfTheConnectionStaysWhenAnotherIsInstalled) {
  connect();
  EXPECT_EQ(FTx232H_SetD2XX(nullptr), 0);
  EXPECT_EQ(bridge->SetIO(bridge, 5, 1), 0);
  EXPECT_EQ(d2xx.calls, Names{"Write 80 FE 0B 82 FF 00"});
  EXPECT_EQ(interfaceDisconnect(bridge), 0);
  EXPECT_EQ(d2xx.calls.back(), "Close");
}

TEST_F(Connection, EmptySlotsOfATableAnswerThatTheyAreNotSupported) {
  FTx232H_D2XX table{};
  table.ListDevices = ScriptedD2xx::table()->ListDevices;
  EXPECT_EQ(FTx232H_SetD2XX(&table), 0);
  EXPECT_EQ(listed(), "FTx232H!Serial No: (FT0001AB)");
  EXPECT_EQ(interfaceConnect(bridge, kDevice), 260);

  table = *ScriptedD2xx::table();
  table.GetDeviceInfoList = nullptr;
  EXPECT_EQ(FTx232H_SetD2XX(&table), 0);
  expectFailure(interfaceConnect(bridge, kDevice), 259, kNoList, {"FTx232H_ConnectDevice", "interfaceConnect"});
}

TEST_F(Connection, Listing) {
  EXPECT_EQ(listed(), "FTx232H!Serial No: (FT0001AB)");
  d2xx.devices = {{"A"}, {"B"}};
  EXPECT_EQ(listed(), "FTx232H!Serial No: (A)#FTx232H!Serial No: (B)");
  d2xx.devices = {{"A", true}, {""}, {"C", true}};
  EXPECT_EQ(listed(), "FTx232H!Serial No: (Already Open)#FTx232H!Serial No: ()#FTx232H!Serial No: (Already Open)");
}

TEST_F(Connection, ListingKnowsOpenDevicesFromTheRegistry) {
  int first = 0;
  int second = 0;
  EXPECT_EQ(FTx232H_AddDeviceInfoEntry(&first, "One", "FT1"), 0);
  EXPECT_EQ(FTx232H_AddDeviceInfoEntry(&second, "Two", std::string(10'000, 'S').c_str()), 0);
  d2xx.devices = {{"A", true}, {"B"}, {"C", true}, {"D", true}};
  EXPECT_EQ(listed(), "FTx232H!Serial No: (FT1)#FTx232H!Serial No: (B)#FTx232H!Serial No: (" + std::string(63, 'S') +
                          ")#FTx232H!Serial No: (Already Open)");
  d2xx.devices.assign(20, {"X", true});
  EXPECT_NE(listed(2048).rfind("(Already Open)"), std::string::npos) << "more open devices than entries";

  EXPECT_EQ(FTx232H_DeleteDeviceInfoEntry(&first), 0);
  EXPECT_EQ(FTx232H_DeleteDeviceInfoEntry(&first), 1);
  EXPECT_EQ(FTx232H_DeleteDeviceInfoEntry(&second), 0);
  int handles[17];
  for (int i = 0; i < 16; ++i) EXPECT_EQ(FTx232H_AddDeviceInfoEntry(&handles[i], "", "s"), 0);
  EXPECT_EQ(FTx232H_AddDeviceInfoEntry(&handles[16], "", "s"), 1);
  open("FTx232H");
  EXPECT_EQ(FTx232H_AddDeviceInfoEntry(&handles[16], "", "s"), 1) << "another handle does not clear the registry";
  for (int i = 0; i < 16; ++i) EXPECT_EQ(FTx232H_DeleteDeviceInfoEntry(&handles[i]), 0);
}

TEST_F(Connection, ListingFailures) {
  const Names trace = {"FTx232H_ListDevices"};
  const std::string no_information = "FTx232H - Could not retrieve information about the connected FT-device";
  const std::string too_small =
      "FTx232H - The buffer for listing the connection strings for the connected FT-devices is too small";
  char text[64];
  d2xx.fail("ListDevices", 1, FT_IO_ERROR);
  expectFailure(FTx232H_ListDevices(bridge, text, sizeof text), 259, kNoList, trace);
  for (int nth : {2, 3}) {
    d2xx.fail("ListDevices", nth, FT_DEVICE_NOT_FOUND);
    expectFailure(FTx232H_ListDevices(bridge, text, sizeof text), 259, no_information, trace);
  }
  // 7 of the driver's name, 8 of the serial number, 16 more.
  expectFailure(FTx232H_ListDevices(bridge, text, 31), 2, too_small, trace);
  EXPECT_EQ(listed(32), kDevice);
  expectFailure(FTx232H_ListDevices(bridge, text, 0), 2, too_small, trace);
  d2xx.devices = {{"FT0001AB"}, {"FT0002AB"}};
  expectFailure(FTx232H_ListDevices(bridge, text, 61), 2, too_small, trace);
  EXPECT_STREQ(text, "FTx232H!Serial No: (FT0001AB)#");
  EXPECT_EQ(listed(62).size(), 59u);

  d2xx.devices.clear();
  expectFailure(FTx232H_ListDevices(bridge, text, sizeof text), 267,
                "FTx232H - There are no compatible FT-devices connected", trace);
  expectFailure(FTx232H_ListDevices(bridge, nullptr, 10), 1, "", trace);
  EXPECT_EQ(FTx232H_ListDevices(nullptr, text, sizeof text), 269);
}
