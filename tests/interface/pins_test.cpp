// Pin and channel identifiers, and the commands that drive and read pins.
#include "bridge_fixture.h"

namespace {

class Pins : public BridgeTest {
 protected:
  ~Pins() override { radar->module = nullptr; }

  // As after a module handle of this driver has been created.
  void useModule(const char *driver) {
    module_.driver_name = driver;
    radar->module = &module_;
    ASSERT_EQ(interfaceInitInterface(bridge), 0);
  }

  ModuleHandle module_{};
};

}  // namespace

TEST_F(Pins, IdentifiersOfEachModuleDriver) {
  const std::pair<int32_t, int32_t> k2x5[] = {{1100, 7}, {1101, 0}, {1102, 1}, {1103, 2},  {1104, 3},
                                              {1105, 6}, {1106, 4}, {1107, 5}, {1108, 14}, {1109, 7}};
  struct Module {
    const char *driver;
    bool known;
    int32_t first;
  };
  for (const Module &module : {Module{"DEFAULT", true, 1100}, Module{"QTX_K2x5", true, 1100},
                               Module{"QTX_K265", true, 1200}, Module{"QTX_K2x6", false, 0}}) {
    SCOPED_TRACE(module.driver);
    useModule(module.driver);
    for (const auto &[id, pin] : k2x5) {
      for (int32_t first : {1100, 1200}) {
        const int32_t expected = module.known && module.first == first ? pin : -1;
        EXPECT_EQ(FTx232H_ID_to_pin(radar, id - 1100 + first), expected) << id - 1100 + first;
      }
    }
    EXPECT_EQ(FTx232H_ID_to_pin(radar, 500), module.known ? 14 : -1);
    EXPECT_EQ(FTx232H_ID_to_SPIchannel(radar, 0), module.known ? 3 : -1);
    EXPECT_EQ(FTx232H_ID_to_SPIchannel(radar, 1), module.known ? 4 : -1);
    for (int32_t id : {-1, 0, 501, 1110, 1210}) EXPECT_EQ(FTx232H_ID_to_pin(radar, id), -1) << id;
    for (int32_t id : {1, 5, 499}) EXPECT_EQ(FTx232H_ID_to_pin(radar, id), id);
    for (int32_t id : {-1, 2, 3, 4}) EXPECT_EQ(FTx232H_ID_to_SPIchannel(radar, id), -1) << id;
  }
}

TEST_F(Pins, TableIsChosenOnceUntilTheInterfaceIsInitialised) {
  EXPECT_EQ(FTx232H_ID_to_pin(radar, 1107), 5) << "no module at all";
  module_.driver_name = "QTX_K265";
  radar->module = &module_;
  EXPECT_EQ(FTx232H_ID_to_pin(radar, 1207), -1);
  interfaceInitInterface(bridge);
  EXPECT_EQ(FTx232H_ID_to_pin(radar, 1207), 5);
  EXPECT_EQ(FTx232H_ID_to_pin(nullptr, 1107), 5) << "a handle without an owner";
}

TEST_F(Pins, EveryPinCommandWritesBothBanks) {
  connect();
  EXPECT_EQ(interfaceIO_SetDirection(bridge, 500, 1, 1), 0);
  EXPECT_EQ(interfaceIO_SetDirection(bridge, 5, 1, 0), 0);
  EXPECT_EQ(interfaceIO_SetValue(bridge, 500, 0), 0);
  EXPECT_EQ(interfaceIO_SetValue(bridge, 1107, 1), 0);
  EXPECT_EQ(interfaceIO_SetDirection(bridge, 5, 0, 0), 0);
  EXPECT_EQ(d2xx.calls, (Names{"Write 80 FE 0B 82 FF 40", "Write 80 DE 2B 82 FF 40", "Write 80 DE 2B 82 BF 40",
                               "Write 80 FE 2B 82 BF 40", "Write 80 DE 0B 82 BF 40"}));
}

TEST_F(Pins, ReadingPinsRefreshesWhatIsDriven) {
  connect();
  d2xx.replies = {{0xA1, 0x42}};
  uint32_t value = 7;
  EXPECT_EQ(interfaceIO_GetValue(bridge, 5, &value), 0);
  EXPECT_EQ(value, 1u);
  EXPECT_EQ(interfaceIO_SetValue(bridge, 1, 1), 0);
  d2xx.replies = {{0xFF, 0xBF}};
  EXPECT_EQ(interfaceIO_GetValue(bridge, 14, &value), 0);
  EXPECT_EQ(value, 0u);
  EXPECT_EQ(d2xx.calls, (Names{"Write 81 83 87", "Read 2", "Write 80 A3 0B 82 42 00", "Write 81 83 87", "Read 2"}));
}

TEST_F(Pins, PinsOutsideTheMap) {
  connect();
  const std::string set = "FTx232H - Trying to set the value of an IO pin outside the legal range";
  const std::string get = "FTx232H - Trying to read the status of an IO pin outside the legal range";
  uint32_t value = 0;
  for (uint32_t pin : {0u, 16u, 499u, 501u, 1200u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(pin);
    expectFailure(interfaceIO_SetValue(bridge, pin, 1), 262, set, {"FTx232H_SetIO", "interfaceIO_SetValue"});
    expectFailure(interfaceIO_SetDirection(bridge, pin, 1, 1), 262, set,
                  {"FTx232H_SetIO_Direction", "interfaceIO_SetDirection"});
    expectFailure(interfaceIO_GetValue(bridge, pin, &value), 262, get, {"FTx232H_GetIO", "interfaceIO_GetValue"});
  }
  EXPECT_EQ(d2xx.calls, Names{});
  expectFailure(interfaceIO_GetValue(bridge, 5, nullptr), 1, "", {"FTx232H_GetIO", "interfaceIO_GetValue"});
}

TEST_F(Pins, FailingDevice) {
  connect();
  uint32_t value = 0;
  const std::string write_failed = "FTx232H - Could not write data to device";
  d2xx.fail("Write", 1, FT_IO_ERROR);
  expectFailure(bridge->SetIO(bridge, 5, 1), 265, write_failed, {"SendBytesToDevice", "FTx232H_SetIO"});
  EXPECT_EQ(bridge->SetIO(bridge, 5, 1), 0);
  EXPECT_EQ(d2xx.writes.back().size(), 12u) << "behind what was not sent";
  d2xx.fail("Write", 1, FT_IO_ERROR);
  expectFailure(bridge->SetIO_Direction(bridge, 5, 1, 1), 265, write_failed,
                {"SendBytesToDevice", "FTx232H_SetIO_Direction"});
  d2xx.fail("Write", 1, FT_IO_ERROR);
  expectFailure(bridge->GetIO(bridge, 5, &value), 265, write_failed, {"SendBytesToDevice", "FTx232H_GetIO"});
  d2xx.fail("GetQueueStatus", 1, FT_IO_ERROR);
  expectFailure(bridge->GetIO(bridge, 5, &value), 263, "", {"ReadInQueue", "FTx232H_GetIO"});
}

TEST_F(Pins, WritesThatKeepFailingNeverOverrunTheBatch) {
  connect();
  connection().output_count = sizeof connection().output_buffer - 60;
  std::vector<int32_t> codes;
  for (int i = 0; i < 12; ++i) {
    d2xx.fail("Write", 1, FT_IO_ERROR);
    codes.push_back(bridge->SetIO(bridge, 5, 1));
    ASSERT_LE(connection().output_count, sizeof connection().output_buffer);
  }
  EXPECT_EQ(codes, (std::vector<int32_t>{265, 265, 265, 265, 265, 265, 265, 265, 265, 265, 2, 265}));
}
