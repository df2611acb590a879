// The driver on the simulated bench: what arrives at pins, chip and flash, and how it takes a bridge that breaks.
#include <numeric>

#include "Pulsekit3Simulator.h"
#include "bridge_fixture.h"

namespace {

constexpr uint32_t kFlashChannel = 1;
constexpr uint32_t kWireEvents = QTXSIM_EVENT_SPI | QTXSIM_EVENT_PIN | QTXSIM_EVENT_CLOCK | QTXSIM_EVENT_ODD;

class SimulatedBridge : public ::testing::Test {
 protected:
  SimulatedBridge() {
    QTXSim_Reset();
    FTx232H_SetD2XX(QTXSim_D2XX());
    EXPECT_EQ(QTX_InitHandle(&radar), 0);
    EXPECT_EQ(QTXSim_AddRadar("FT0001AB", "Radar", QTXSIM_FT232H, "QTX-K245", "QTX3701"), 0);
  }
  ~SimulatedBridge() override {
    interfaceFreeHandle(&radar->interface_handle, nullptr);
    QTX_FreeHandle(&radar);
    FTx232H_SetD2XX(nullptr);
    QTXSim_Reset();
  }

  int32_t connect(const char *device = kDevice) {
    interfaceFreeHandle(&radar->interface_handle, nullptr);
    EXPECT_EQ(interfaceInitHandle(&radar->interface_handle, &radar->error, radar, device, &radar->open), 0);
    bridge = radar->interface_handle;
    EXPECT_EQ(interfaceInitInterface(bridge), 0);
    return interfaceConnect(bridge, device);
  }

  // Power and chip selects as a module driver leaves them.
  void powerUp() {
    ASSERT_EQ(connect(), 0);
    ASSERT_EQ(bridge->SetIO_Direction(bridge, 1107, 1, 1), 0);
    ASSERT_EQ(bridge->SetIO_Direction(bridge, 1106, 1, 1), 0);
    QTXSim_ClearRecord();
    QTXSim_ResetStatistics();
  }

  int32_t transfer(uint32_t channel, const Bytes &out, uint8_t *in, uint32_t in_count,
                   int32_t mode = SPI_MODE_EXECUTE) {
    return bridge->SendReceiveSPI(bridge, channel, out.data(), static_cast<int32_t>(out.size()), in, in_count, mode);
  }

  int32_t readFlash(uint32_t address, uint8_t *in, uint32_t count) {
    const auto byte = [&](int shift) { return static_cast<uint8_t>(address >> shift); };
    return transfer(kFlashChannel, {0x0B, byte(16), byte(8), byte(0), 0}, in, count);
  }

  // A register read that works shows that nothing of an earlier failure is left over.
  void expectWorks() {
    uint8_t id[2] = {};
    EXPECT_EQ(transfer(0, {0x02, 0x02}, id, 2), 0);
    EXPECT_EQ(id[0] | (id[1] << 8), 0x309);
  }

  static std::string record(uint32_t kinds) { return QTXSim_RecordText(kinds); }

  static QTXSim_Statistics statistics() {
    QTXSim_Statistics result{};
    QTXSim_GetStatistics(&result);
    QTXSim_ResetStatistics();
    return result;
  }

  QTX_Handle *radar = nullptr;
  InterfaceHandle *bridge = nullptr;
};

}  // namespace

TEST_F(SimulatedBridge, ConnectingLeavesTheBusIdleAt15MHz) {
  EXPECT_EQ(connect(), 0);
  EXPECT_EQ(record(QTXSIM_EVENT_CLOCK | QTXSIM_EVENT_ODD),
            "Clock 6000000\nLoopback 00\nClock 30000000\nClock 15000000\n");
  for (int32_t pin : {0, 1, 3}) EXPECT_EQ(QTXSim_PinIsOutput(0, pin), 1) << pin;
  for (int32_t pin : {2, 4, 5, 6, 7, 14}) EXPECT_EQ(QTXSim_PinIsOutput(0, pin), 0) << pin;
  EXPECT_EQ(QTXSim_PinLevel(0, 0), 0);
  EXPECT_EQ(QTXSim_PinLevel(0, 3), 1);
}

TEST_F(SimulatedBridge, FramesInTheThreeModes) {
  powerUp();
  uint8_t in[6] = {};
  EXPECT_EQ(transfer(0, {0x02, 0x02}, in, 2), 0);
  EXPECT_EQ(transfer(0, {0x02, 0x02}, nullptr, 2, SPI_MODE_QUEUE), 0);
  EXPECT_EQ(transfer(0, {0x02, 0x01}, nullptr, 1, SPI_MODE_QUEUE), 0);
  EXPECT_EQ(transfer(0, {0x02, 0x02}, in, 2, SPI_MODE_EXECUTE), 0);
  EXPECT_EQ(Bytes(in, in + 5), (Bytes{0x09, 0x03, 0x09, 0x09, 0x03}));
  EXPECT_EQ(transfer(0, {0x02, 0x02}, nullptr, 2, SPI_MODE_QUEUE), 0);
  EXPECT_EQ(transfer(kFlashChannel, {0x04}, in, 2, SPI_MODE_COLLECT), 0);
  EXPECT_EQ(record(kWireEvents),
            "SPI 3 > 02 02 < 09 03\n"
            "SPI 3 > 02 02 < 09 03\nSPI 3 > 02 01 < 09\nSPI 3 > 02 02 < 09 03\n"
            "SPI 3 > 02 02 < 09 03\nSPI 4 > 04\n");
  EXPECT_EQ(statistics().out_transfers, 3u);
}

TEST_F(SimulatedBridge, BitTransfersShiftWhatIsAsked) {
  powerUp();
  uint8_t in[2] = {};
  const uint8_t out[] = {0x02, 0x02};
  for (uint32_t flags : {0x100u, 0u}) {
    EXPECT_EQ(bridge->SendReceiveBitsSPI(bridge, 0, out, 12, in, 12, flags), 0);
  }
  EXPECT_EQ(varSetValue_ByName(bridge->variables, "SPIToggleSlaveSelectEnable", 0), 0);
  EXPECT_EQ(bridge->SendReceiveBitsSPI(bridge, 0, out, 8, in, 8, 0x100), 0);
  EXPECT_EQ(record(QTXSIM_EVENT_SPI), "SPI 3 > 02 00/4 < 00 00/4\nSPI 3 > 02 00/4 < 00 00/4\nSPI - > 02 < 00\n");
}

TEST_F(SimulatedBridge, PinsReachTheBoard) {
  ASSERT_EQ(connect(), 0);
  QTXSim_ClearRecord();
  EXPECT_EQ(interfaceIO_SetDirection(bridge, 1107, 1, 1), 0);
  EXPECT_EQ(interfaceIO_SetDirection(bridge, 500, 1, 1), 0);
  EXPECT_EQ(interfaceIO_SetValue(bridge, 500, 0), 0);
  EXPECT_EQ(record(QTXSIM_EVENT_PIN), "Pin 5 out 1\nPin 14 out 1\nPin 14 out 0\n");
  for (int32_t level : {0, 1}) {
    EXPECT_EQ(QTXSim_DrivePin(0, 9, level), 0);
    uint32_t value = 7;
    EXPECT_EQ(interfaceIO_GetValue(bridge, 9, &value), 0);
    EXPECT_EQ(value, static_cast<uint32_t>(level));
  }
}

TEST_F(SimulatedBridge, LargeReadsAreWhole) {
  powerUp();
  Bytes stored(65536);
  std::iota(stored.begin(), stored.end(), uint8_t{7});
  for (size_t i = 0; i < stored.size(); i += 251) stored[i] ^= static_cast<uint8_t>(i >> 8);
  ASSERT_EQ(QTXSim_FlashWrite(0, 0x10000, stored.data(), 65536), 0);
  for (uint32_t count : {1u, 255u, 1024u, 4096u, 65535u, 65536u}) {
    Bytes read(count + 1, 0xEE);
    EXPECT_EQ(readFlash(0x10000, read.data(), count), 0) << count;
    EXPECT_TRUE(std::equal(stored.begin(), stored.begin() + count, read.begin())) << count;
    EXPECT_EQ(read[count], 0xEE) << count;
  }
}

// One USB transfer each way for what is read often; the driver waits for nothing else.
TEST_F(SimulatedBridge, CostOfTransfers) {
  powerUp();
  ASSERT_EQ(varSetValue_ByString(bridge->variables, "SPIClockFrequency", "30MHz"), 0);
  statistics();
  Bytes in(65536);
  struct Case {
    uint32_t count;
    uint64_t bytes_out, nanoseconds;
  };
  // What the SPI clock itself takes is 1, 274 and 17478 us of it.
  for (const Case &test : {Case{2, 21, 260'000}, Case{1024, 24, 530'000}, Case{65536, 24, 18'000'000}}) {
    EXPECT_EQ(test.count == 2 ? transfer(0, {0x02, 0x02}, in.data(), 2) : readFlash(0, in.data(), test.count), 0);
    const QTXSim_Statistics cost = statistics();
    EXPECT_EQ(cost.calls, 3u) << "a write, one queue status, a read";
    EXPECT_EQ(cost.out_transfers, 1u);
    EXPECT_EQ(cost.bytes_out, test.bytes_out);
    EXPECT_EQ(cost.bytes_in, test.count);
    EXPECT_LE(cost.nanoseconds, test.nanoseconds);
  }
}

TEST_F(SimulatedBridge, UnpluggedInTheMiddleOfATransfer) {
  uint8_t in[2];
  const std::pair<uint32_t, int32_t> cases[] = {{1, 265}, {2, 263}, {3, 264}};
  for (const auto &[call, code] : cases) {
    powerUp();
    QTXSim_UnplugAtCall(0, call);
    EXPECT_EQ(transfer(0, {0x02, 0x02}, in, 2), code) << "at call " << call;
    uint32_t value = 0;
    EXPECT_EQ(bridge->SetIO(bridge, 5, 0), 265);
    EXPECT_EQ(bridge->GetIO(bridge, 5, &value), 265);
    EXPECT_EQ(interfaceDisconnect(bridge), 0);
    EXPECT_EQ(connect(), 260) << "still unplugged";
    QTXSim_Replug(0);
  }
  powerUp();
  expectWorks();
}

TEST_F(SimulatedBridge, UnpluggedInTheMiddleOfALongWrite) {
  powerUp();
  QTXSim_UnplugAtCall(0, 3);
  EXPECT_EQ(transfer(0, Bytes(20'000, 0), nullptr, 0), 265);
  EXPECT_EQ(interfaceDisconnect(bridge), 0);
}

TEST_F(SimulatedBridge, LostAnswerTimesOutAndTheNextTransferWorks) {
  powerUp();
  uint8_t in[2] = {};
  QTXSim_LoseAnswer(0, 1, 1);
  EXPECT_EQ(transfer(0, {0x02, 0x02}, in, 2), 263);
  EXPECT_EQ(radar->error->code, 263);
  EXPECT_STREQ(radar->error->message,
               "FTx232H - Timeout waiting for data: Got 1 bytes, waiting for 2 bytes (Timeout counter: 100000)");
  EXPECT_EQ(functionsOf(radar->error), (Names{"waitForBytesRecieved", "ReadInQueue", "FTx232H_SendReceiveSPI"}));
  expectWorks();
}

TEST_F(SimulatedBridge, QueueThatHoldsTooMuchTimesOutAndTheNextTransferWorks) {
  powerUp();
  const uint8_t stray = 0xFA;
  uint8_t in[2] = {};
  QTXSim_InsertAnswer(0, &stray, 1);
  EXPECT_EQ(transfer(0, {0x02, 0x02}, in, 2), 263);
  EXPECT_EQ(radar->error->code, 263);
  expectWorks();
}

TEST_F(SimulatedBridge, BridgesOfAllKindsAndBridgesHeldElsewhere) {
  ASSERT_EQ(QTXSim_AddRadar("FT0002", "Two", QTXSIM_FT2232H, nullptr, nullptr), 1);
  ASSERT_EQ(QTXSim_AddRadar("FT0003", "Three", QTXSIM_FT232H, nullptr, nullptr), 2);
  ASSERT_EQ(QTXSim_SetHeld(2, 1), 0);
  char text[512];
  EXPECT_EQ(interfaceListConnectedInterfaces(radar, text, sizeof text), 0);
  EXPECT_STREQ(text,
               "FTx232H!Serial No: (FT0001AB)#FTx232H!Serial No: (FT0002A)#FTx232H!Serial No: (FT0002B)#"
               "FTx232H!Serial No: (Already Open)");
  EXPECT_EQ(connect("FTx232H!Serial No: (FT0002A)"), 0);
  EXPECT_EQ(connect("FTx232H!Serial No: (FT0003)"), 260);
  EXPECT_EQ(connect("FTx232H!Serial No: (Already Open)"), 260);
  EXPECT_EQ(connect(), 0);

  QTXSim_Reset();
  QTX_Handle *other = nullptr;
  ASSERT_EQ(QTX_InitHandle(&other), 0);
  EXPECT_EQ(interfaceListConnectedInterfaces(other, text, sizeof text), 0);
  EXPECT_STREQ(text, "");
  EXPECT_EQ(other->error->code, 267);
  QTX_FreeHandle(&other);
}

TEST_F(SimulatedBridge, FailureAfterOpeningNeverKeepsTheDevice) {
  uint32_t failures = 0;
  for (const char *function : {"CreateDeviceInfoList", "ResetDevice", "SetBitMode", "Write", "GetQueueStatus"}) {
    QTXSim_FailCall(function, 1, 1, FT_IO_ERROR);
    failures += connect() != 0;
    EXPECT_EQ(interfaceFreeHandle(&radar->interface_handle, nullptr), 0);
    EXPECT_EQ(connect(), 0) << function << " left the device open";
  }
  EXPECT_EQ(failures, 5u);
}
