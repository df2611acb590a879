#include <algorithm>
#include <chrono>
#include <numeric>

#include "bench.h"
#include "transcript.h"

namespace simtest {

namespace {

constexpr uint64_t kTransfer = 125'000, kMillisecond = 1'000'000;

Bytes sequence(size_t count, uint8_t first) {
  Bytes bytes(count);
  std::iota(bytes.begin(), bytes.end(), first);
  return bytes;
}

}  // namespace

class WireTest : public Bench {
 protected:
  void SetUp() override {
    Bench::SetUp();
    plugInAndPowerUp();
    QTXSim_ResetStatistics();
    QTXSim_ClearRecord();
  }

  static QTXSim_Statistics statistics() {
    QTXSim_Statistics values{};
    EXPECT_EQ(0, QTXSim_GetStatistics(&values));
    return values;
  }

  // Fills the flash from address 0 on and returns what a read of it has to give.
  Bytes fillFlash(size_t count) {
    Bytes content(count);
    for (size_t i = 0; i < count; ++i) content[i] = static_cast<uint8_t>(i * 7 + i / 251);
    EXPECT_EQ(0, QTXSim_FlashWrite(device, 0, content.data(), static_cast<uint32_t>(count)));
    return content;
  }

  static Bytes readCommand(size_t count) {
    return {0x80, 0xEE, 0x3B, 0x11, 4, 0, 0x0B, 0, 0, 0, 0, 0x20, uint8_t(count - 1), uint8_t((count - 1) >> 8),
            0x80, 0xFE, 0x3B, 0x87};
  }
};

// ---- Time and transfers --------------------------------------------------------------------------------------------

TEST_F(WireTest, ShortExchange_CostsOneTransferEachWay) {
  EXPECT_EQ(2u, exchange({0x81, 0x83, 0x87}, 2).size());
  const QTXSim_Statistics spent = statistics();
  EXPECT_EQ(1u, spent.out_transfers);
  EXPECT_EQ(1u, spent.in_transfers);
  EXPECT_EQ(3u, spent.bytes_out);
  EXPECT_EQ(2u, spent.bytes_in);
  EXPECT_EQ(2 * kTransfer, spent.nanoseconds);
}

TEST_F(WireTest, OneKibibyte_CostsItsClock) {
  const Bytes content = fillFlash(1024);
  EXPECT_EQ(content, exchange(readCommand(1024), 1024));
  const QTXSim_Statistics spent = statistics();
  EXPECT_EQ(1u, spent.in_transfers);
  EXPECT_NEAR(1029 * 8 * 1000 / 30, static_cast<double>(spent.spi_nanoseconds), 10);
  EXPECT_EQ(2 * kTransfer + spent.spi_nanoseconds, spent.nanoseconds);
}

TEST_F(WireTest, LongAnswer_DrainsIntoTheHostWithoutARead) {
  const Bytes content = fillFlash(65536);
  write(readCommand(65536));
  uint32_t count = queued();
  for (int polls = 0; count < 65536 && polls < 10; ++polls) count = queued();
  EXPECT_EQ(65536u, count);
  EXPECT_EQ(1u, statistics().out_transfers);
  EXPECT_EQ(2u, statistics().in_transfers);
  EXPECT_EQ(content, read(65536));
  EXPECT_NEAR(17.73e6, static_cast<double>(statistics().nanoseconds), 0.02e6);
}

TEST_F(WireTest, SmallInTransfers_TakeMoreOfThem) {
  ASSERT_EQ(FT_OK, d2xx().SetUSBParameters(handle, 4096, 4096));
  fillFlash(65536);
  EXPECT_EQ(65536u, exchange(readCommand(65536), 65536).size());
  EXPECT_EQ(17u, statistics().in_transfers);
}

TEST_F(WireTest, OutTransfers_AreCutAtTheirSize) {
  ASSERT_EQ(FT_OK, d2xx().SetUSBParameters(handle, 4096, 4096));
  write(Bytes(4097, 0x85));
  EXPECT_EQ(2u, statistics().out_transfers);
}

TEST_F(WireTest, Clock_FollowsDivisorAndBase) {
  const auto spent = [&](const Bytes &setting) {
    write(setting);
    const uint64_t before = statistics().spi_nanoseconds;
    write({0x8F, 0x2B, 0x01});  // 300 bytes
    QTXSim_Advance(10 * kMillisecond);
    return statistics().spi_nanoseconds - before;
  };
  EXPECT_EQ(80'000u, spent({0x8A, 0x86, 0, 0}));
  EXPECT_EQ(160'000u, spent({0x86, 1, 0}));
  EXPECT_EQ(560'000u, spent({0x86, 6, 0}));
  EXPECT_EQ(2'800'000u, spent({0x8B}));
  EXPECT_EQ(4'200'000u, spent({0x8C}));
}

TEST_F(WireTest, Clock_LosesNoFractionsOfNanoseconds) {
  for (int i = 0; i < 3; ++i) write({0x8E, 0});
  QTXSim_Advance(1000);
  EXPECT_EQ(100u, statistics().spi_nanoseconds);
}

TEST_F(WireTest, SlowAnswer_LeavesByteByByteWithTheLatencyTimer) {
  EXPECT_EQ(4u, exchange({0x8B, 0x86, 0xFF, 0xFF, 0x20, 3, 0, 0x87}, 4).size());
  EXPECT_EQ(4u, statistics().in_transfers);
}

TEST_F(WireTest, AnswerWithoutSendImmediate_WaitsForTheLatencyTimer) {
  for (uint8_t latency : Bytes{2, 16, 255}) {
    ASSERT_EQ(FT_OK, d2xx().SetLatencyTimer(handle, latency));
    QTXSim_ResetStatistics();
    EXPECT_EQ(1u, exchange({0x81}, 1).size());
    EXPECT_EQ(2 * kTransfer + latency * kMillisecond, statistics().nanoseconds);
  }
}

TEST_F(WireTest, FullPackets_LeaveAtOnceButEndNoTransfer) {
  fillFlash(510);
  Bytes commands = readCommand(510);
  commands.pop_back();
  EXPECT_EQ(510u, exchange(commands, 510).size());
  EXPECT_GT(statistics().nanoseconds, 2 * kMillisecond) << "only the latency timer ends the transfer";
  QTXSim_ResetStatistics();
  EXPECT_EQ(510u, exchange(readCommand(510), 510).size());
  EXPECT_LT(statistics().nanoseconds, kMillisecond);
}

TEST_F(WireTest, HostTime_CountsOnlyWhenAsked) {
  const auto passed = [&] {
    queued();
    const uint64_t before = QTXSim_Nanoseconds();
    const auto start = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - start < std::chrono::milliseconds(3)) {
    }
    queued();
    return QTXSim_Nanoseconds() - before;
  };
  EXPECT_EQ(0u, passed());
  ASSERT_EQ(0, QTXSim_SetTime(QTXSIM_TIME_HOST));
  EXPECT_GE(passed(), 3 * kMillisecond);
  EXPECT_EQ(-1, QTXSim_SetTime(3));
}

TEST_F(WireTest, RealTime_MakesCallsLast) {
  ASSERT_EQ(0, QTXSim_SetTime(QTXSIM_TIME_REAL));
  ASSERT_EQ(FT_OK, d2xx().SetLatencyTimer(handle, 20));
  pulsekit::test::slept();
  EXPECT_EQ(1u, exchange({0x81}, 1).size());
  EXPECT_GE(pulsekit::test::slept(), 19u);
}

// ---- Reading, writing, FIFOs ---------------------------------------------------------------------------------------

TEST_F(WireTest, Read_GivesWhatCameWhenTheTimeOutIsOver) {
  write({0x81, 0x87});
  EXPECT_EQ(1u, read(10).size());
  EXPECT_NEAR(5000.0, static_cast<double>(statistics().nanoseconds) / kMillisecond, 1);
  EXPECT_EQ(0u, read(1).size());
}

TEST_F(WireTest, Read_DoesNotWaitForMoreThanItNeeds) {
  EXPECT_EQ((Bytes{0xFA}), exchange({0x81, 0x83, 0x87}, 1));
  EXPECT_EQ(1u, queued());
  EXPECT_LT(statistics().nanoseconds, kMillisecond);
}

TEST_F(WireTest, ReadWithoutTimeOut_DoesNotHangOnNothing) {
  ASSERT_EQ(FT_OK, d2xx().SetTimeouts(handle, 0, 0));
  EXPECT_EQ(0u, read(1).size());
}

TEST_F(WireTest, HostThatReadsNothing_StallsTheBridgeUntilItDoes) {
  const Bytes content = fillFlash(65536);
  Bytes commands;
  for (int i = 0; i < 20; ++i) {
    const Bytes one = readCommand(65536);
    commands.insert(commands.end(), one.begin(), one.end());
  }
  commands.resize(commands.size() + 5000, 0x85);
  uint32_t written = 0;
  ASSERT_EQ(FT_OK, d2xx().Write(handle, commands.data(), static_cast<uint32_t>(commands.size()), &written));
  EXPECT_LT(written, commands.size());
  EXPECT_GE(statistics().nanoseconds, 1000 * kMillisecond) << "the write time-out has to be over";
  for (int i = 0; i < 20; ++i) ASSERT_EQ(content, read(65536)) << i;
  EXPECT_EQ(0u, queued());
}

struct Fifo {
  int32_t bridge;
  const char *serial;
  uint32_t size;
};

TEST_F(WireTest, StuckBridge_TakesAsMuchAsItsFifoHolds) {
  for (const Fifo &fifo : {Fifo{QTXSIM_FT232H, "FT0001AB", 1024}, Fifo{QTXSIM_FT2232H, "FT0001ABA", 4096},
                           Fifo{QTXSIM_FT4232H, "FT0001ABA", 2048}}) {
    QTXSim_Reset();
    plugIn(nullptr, nullptr, fifo.bridge);
    open(fifo.serial);
    write({0x89});  // pin 5 floats high
    const Bytes more(8192, 0x85);
    uint32_t written = 0;
    ASSERT_EQ(FT_OK, d2xx().Write(handle, more.data(), static_cast<uint32_t>(more.size()), &written));
    EXPECT_EQ(fifo.size, written);
  }
}

TEST_F(WireTest, ResetDevice_EmptiesTheChipNotTheHost) {
  ASSERT_EQ(FT_OK, d2xx().SetLatencyTimer(handle, 255));
  write({0x81, 0x87, 0x83});
  ASSERT_EQ(FT_OK, d2xx().ResetDevice(handle));
  EXPECT_EQ(1u, queued());
  EXPECT_EQ(1u, queued());
}

TEST_F(WireTest, SetUsbParameters_LosesWhatTheDriverHolds) {
  write({0x81, 0x87});
  EXPECT_EQ(1u, queued());
  ASSERT_EQ(FT_OK, d2xx().SetUSBParameters(handle, 4096, 4096));
  EXPECT_EQ(0u, queued());
}

TEST_F(WireTest, StaleAnswer_AwaitsTheNextOneWhoOpens) {
  ASSERT_EQ(FT_OK, d2xx().SetLatencyTimer(handle, 255));
  write({0x81});
  ASSERT_EQ(FT_OK, d2xx().Close(handle));
  ASSERT_EQ(FT_OK, d2xx().OpenEx("FT0001AB", FT_OPEN_BY_SERIAL_NUMBER, &handle));
  EXPECT_EQ(1u, queued());
}

// ---- Faults --------------------------------------------------------------------------------------------------------

TEST_F(WireTest, ScheduledCalls_FailAndDoNothing) {
  ASSERT_EQ(0, QTXSim_FailCall("Write", 2, 2, FT_INSUFFICIENT_RESOURCES));
  const uint8_t command[] = {0x81, 0x87};
  std::vector<FT_STATUS> statuses;
  uint32_t written = 0;
  for (int i = 0; i < 4; ++i) statuses.push_back(d2xx().Write(handle, command, 2, &written));
  EXPECT_EQ((std::vector<FT_STATUS>{0, 5, 5, 0}), statuses);
  EXPECT_EQ(2u, read(2).size());
  EXPECT_EQ(0u, queued());
  ASSERT_EQ(0, QTXSim_FailCall("GetQueueStatus", 1, 1, FT_IO_ERROR));
  QTXSim_ClearFaults();
  EXPECT_EQ(0u, queued());
}

TEST_F(WireTest, UnplugAtACall_HitsThatCall) {
  ASSERT_EQ(0, QTXSim_UnplugAtCall(device, 2));
  write({0x81, 0x87});
  uint32_t count = 0;
  EXPECT_EQ(FT_IO_ERROR, d2xx().GetQueueStatus(handle, &count));
  EXPECT_EQ(0, QTXSim_PinLevel(device, 5)) << "the board lost its power";
  EXPECT_EQ(FT_OK, d2xx().Close(handle));
}

TEST_F(WireTest, ShortWrites) {
  for (uint32_t accepted : {0u, 1u, 9u}) {
    ASSERT_EQ(0, QTXSim_ShortWrite(device, 1, accepted));
    const uint8_t commands[] = {0x81, 0x83, 0x87};
    uint32_t written = 99;
    ASSERT_EQ(FT_OK, d2xx().Write(handle, commands, 3, &written));
    EXPECT_EQ(std::min(accepted, 3u), written);
    EXPECT_EQ(std::min(accepted, 2u), read(queued()).size());
  }
}

TEST_F(WireTest, LostAndCorruptedAnswers) {
  fillFlash(600);
  const Bytes whole = exchange(readCommand(600), 600);
  ASSERT_EQ(0, QTXSim_LoseAnswer(device, 10, 3));
  Bytes expected = whole;
  expected.erase(expected.begin() + 10, expected.begin() + 13);
  EXPECT_EQ(expected, exchange(readCommand(600), 597));
  EXPECT_EQ(0u, queued());
  ASSERT_EQ(0, QTXSim_CorruptAnswer(device, 599, 0x81));
  expected = whole;
  expected[599] ^= 0x81;
  EXPECT_EQ(expected, exchange(readCommand(600), 600));
  EXPECT_EQ(whole, exchange(readCommand(600), 600));
}

TEST_F(WireTest, InsertedBytes_ComeFirstInTheQueue) {
  const Bytes extra = sequence(3, 0x10);
  ASSERT_EQ(0, QTXSim_InsertAnswer(device, extra.data(), 3));
  EXPECT_EQ((Bytes{0x10, 0x11, 0x12, 0xFA}), exchange({0x81, 0x87}, 4));
  ASSERT_EQ(FT_OK, d2xx().Close(handle));
  ASSERT_EQ(0, QTXSim_InsertAnswer(device, extra.data(), 3));
  ASSERT_EQ(FT_OK, d2xx().OpenEx("FT0001AB", FT_OPEN_BY_SERIAL_NUMBER, &handle));
  EXPECT_EQ(3u, queued());
}

// ---- Record --------------------------------------------------------------------------------------------------------

TEST_F(WireTest, Record_TellsTheCallsInOrder) {
  QTXSim_Reset();
  plugIn();
  EXPECT_EQ(FT_DEVICE_NOT_FOUND, d2xx().OpenEx("X", FT_OPEN_BY_SERIAL_NUMBER, &handle));
  open();
  ASSERT_EQ(0, QTXSim_ShortWrite(device, 1, 1));
  const uint8_t bytes[] = {0x80, 0xFE, 0x0B};
  uint32_t written = 0;
  d2xx().Write(handle, bytes, 3, &written);
  queued();
  uint32_t count = 0;
  d2xx().ListDevices(&count, nullptr, FT_LIST_NUMBER_ONLY);
  d2xx().ListDevices(nullptr, nullptr, FT_LIST_BY_INDEX | FT_OPEN_BY_SERIAL_NUMBER);
  d2xx().Close(handle);
  EXPECT_STREQ(
      "OpenEx X 1 = 2\nOpenEx FT0001AB 1\nSetUSBParameters 65536 65536\nSetTimeouts 5000 1000\nSetLatencyTimer 2\n"
      "SetBitMode 0 0\nSetBitMode 0 2\nWrite 80 FE 0B took 1\nListDevices 0x80000000\n"
      "ListDevices 0 0x40000001 = 6\nClose\n",
      QTXSim_RecordText(QTXSIM_EVENT_CALL));
  EXPECT_EQ(1u, QTXSim_Calls("GetQueueStatus"));
  EXPECT_EQ(2u, QTXSim_Calls("OpenEx"));
}

TEST_F(WireTest, Record_GivesFramesToPrograms) {
  flashFrame({0x9F}, 3);
  QTXSim_Event call{}, frame{};
  ASSERT_EQ(0, QTXSim_RecordEvent(0, &call));
  ASSERT_EQ(0, QTXSim_RecordEvent(2, &frame)) << "it ends when the read has begun";
  EXPECT_EQ(QTXSIM_EVENT_CALL, call.kind);
  EXPECT_EQ(device, call.device);
  EXPECT_EQ(14u * 8, call.out_bits);
  EXPECT_EQ(14u, call.value);
  EXPECT_EQ(QTXSIM_EVENT_SPI, frame.kind);
  EXPECT_EQ(1u << 4, frame.value);
  EXPECT_EQ((Bytes{0x9F}), Bytes(frame.out, frame.out + frame.out_bits / 8));
  EXPECT_EQ((Bytes{0xEF, 0x40, 0x18}), Bytes(frame.in, frame.in + frame.in_bits / 8));
  EXPECT_EQ(-1, QTXSim_RecordEvent(QTXSim_RecordCount(), &frame));
}

TEST_F(WireTest, Record_KeepsOnlyWhatIsWanted) {
  QTXSim_SetRecording(QTXSIM_EVENT_POLL);
  flashFrame({0x9F}, 3);
  queued();
  EXPECT_STREQ("GetQueueStatus\n", QTXSim_RecordText(QTXSIM_EVENT_ALL));
  QTXSim_SetRecording(0);
  QTXSim_ClearRecord();
  queued();
  EXPECT_EQ(0u, QTXSim_RecordCount());
}

TEST_F(WireTest, Record_ForgetsTheOldestWhenItGrowsTooLarge) {
  QTXSim_SetRecording(QTXSIM_EVENT_CALL);
  Bytes block(65536);
  block[0] = 0x11;
  block[1] = 0xFC;
  block[2] = 0xFF;
  for (int i = 0; i < 1100; ++i) write(block);
  EXPECT_GT(QTXSim_RecordCount(), 0u);
  uint64_t total = 0;
  QTXSim_Event event;
  for (uint32_t i = 0; QTXSim_RecordEvent(i, &event) == 0; ++i) total += event.out_bits / 8;
  EXPECT_LE(total, 64u << 20);
}

}  // namespace simtest
