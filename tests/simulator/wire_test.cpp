#include <algorithm>
#include <chrono>

#include "bench.h"
#include "transcript.h"

namespace simtest {

namespace {

constexpr uint64_t kTransfer = 125'000, kMillisecond = 1'000'000;

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

struct Exchange {
  const char *name;
  uint32_t transferSize;
  Bytes commands;
  size_t answer;
  uint64_t out, in;       // transfers
  double clocked, spent;  // ns
};

TEST_F(WireTest, Exchanges_CostTransfersAndClock) {
  const Bytes content = fillFlash(65536);
  const double kibibyte = 1029 * 8 * 1000 / 30.0, both = 2 * kTransfer;
  Bytes unhurried = readCommand(510);
  unhurried.pop_back();
  for (const Exchange &row : {
           Exchange{"short", 65536, {0x81, 0x83, 0x87}, 2, 1, 1, 0, both},
           Exchange{"1 KiB", 65536, readCommand(1024), 1024, 1, 1, kibibyte, both + kibibyte},
           Exchange{"64 KiB", 65536, readCommand(65536), 65536, 1, 2, 17.478e6, 17.73e6},
           Exchange{"small transfers", 4096, readCommand(65536), 65536, 1, 17, 17.478e6, 17.73e6},
           Exchange{"cut on the way out", 4096, Bytes(4097, 0x85), 0, 2, 0, 0, both},
           Exchange{"full packets end nothing, the latency timer does", 4096, unhurried, 510, 1, 1, 0.1373e6, 2.3873e6},
           Exchange{
               "slow answer: one by one", 4096, {0x8B, 0x86, 0xFF, 0xFF, 0x20, 3, 0, 0x87}, 4, 1, 4, 349.5e6, 350e6},
       }) {
    SCOPED_TRACE(row.name);
    ASSERT_EQ(FT_OK, d2xx().SetUSBParameters(handle, row.transferSize, row.transferSize));
    QTXSim_ResetStatistics();
    const Bytes answer = exchange(row.commands, row.answer);
    ASSERT_EQ(row.answer, answer.size());
    if (row.answer > 500) {
      EXPECT_EQ(Bytes(content.begin(), content.begin() + row.answer), answer);
    }
    const QTXSim_Statistics cost = statistics();
    EXPECT_EQ(row.out, cost.out_transfers);
    EXPECT_EQ(row.in, cost.in_transfers);
    EXPECT_EQ(row.commands.size(), cost.bytes_out);
    EXPECT_EQ(row.answer, cost.bytes_in);
    EXPECT_NEAR(row.clocked, static_cast<double>(cost.spi_nanoseconds), 10 + row.clocked / 500);
    EXPECT_NEAR(row.spent, static_cast<double>(cost.nanoseconds), 10 + row.spent / 500);
  }
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
  write({0x8D, 0x8A, 0x86, 0, 0});
  QTXSim_ResetStatistics();
  for (int i = 0; i < 3; ++i) write({0x8E, 0});
  QTXSim_Advance(1000);
  EXPECT_EQ(100u, statistics().spi_nanoseconds) << "fractions of nanoseconds are lost";
}

TEST_F(WireTest, AnswerWithoutSendImmediate_WaitsForTheLatencyTimer) {
  for (uint8_t latency : Bytes{2, 16, 255}) {
    ASSERT_EQ(FT_OK, d2xx().SetLatencyTimer(handle, latency));
    QTXSim_ResetStatistics();
    EXPECT_EQ(1u, exchange({0x81}, 1).size());
    EXPECT_EQ(2 * kTransfer + latency * kMillisecond, statistics().nanoseconds);
  }
}

TEST_F(WireTest, Time_IsTheHostsOnlyWhenAsked) {
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
  ASSERT_EQ(0, QTXSim_SetTime(QTXSIM_TIME_REAL));
  ASSERT_EQ(FT_OK, d2xx().SetLatencyTimer(handle, 20));
  pulsekit::test::slept();
  EXPECT_EQ(1u, exchange({0x81}, 1).size());
  EXPECT_GE(pulsekit::test::slept(), 19u) << "in real time, calls last";
}

// ---- Reading, writing, FIFOs ---------------------------------------------------------------------------------------

TEST_F(WireTest, Read_WaitsForWhatItWantsOrItsTimeOut) {
  EXPECT_EQ((Bytes{0xFA}), exchange({0x81, 0x83, 0x87}, 1));
  EXPECT_EQ(1u, queued());
  EXPECT_LT(statistics().nanoseconds, kMillisecond);
  EXPECT_EQ(1u, read(10).size());
  EXPECT_NEAR(5000.0, static_cast<double>(statistics().nanoseconds) / kMillisecond, 1);
  ASSERT_EQ(FT_OK, d2xx().SetTimeouts(handle, 0, 0));
  EXPECT_EQ(0u, read(1).size()) << "does not hang without a time-out";
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

TEST_F(WireTest, OldAnswers_AreLostByResetAndByNewParametersNotByClosing) {
  ASSERT_EQ(FT_OK, d2xx().SetLatencyTimer(handle, 255));
  write({0x81, 0x87, 0x83});
  ASSERT_EQ(FT_OK, d2xx().ResetDevice(handle));
  EXPECT_EQ(1u, queued()) << "the host keeps what it has, the chip nothing";
  EXPECT_EQ(1u, queued());
  ASSERT_EQ(FT_OK, d2xx().SetUSBParameters(handle, 4096, 4096));
  EXPECT_EQ(0u, queued());
  write({0x81});
  ASSERT_EQ(FT_OK, d2xx().Close(handle));
  ASSERT_EQ(FT_OK, d2xx().OpenEx("FT0001AB", FT_OPEN_BY_SERIAL_NUMBER, &handle));
  EXPECT_EQ(1u, queued());
}

// ---- Faults --------------------------------------------------------------------------------------------------------

TEST_F(WireTest, Faults_HitTheirCallOrAnswerOnly) {
  const uint8_t command[] = {0x81, 0x83, 0x87};
  uint32_t written = 0, count = 0;
  ASSERT_EQ(0, QTXSim_FailCall("Write", 2, 2, FT_INSUFFICIENT_RESOURCES));
  std::vector<FT_STATUS> statuses;
  for (int i = 0; i < 4; ++i) statuses.push_back(d2xx().Write(handle, command, 3, &written));
  EXPECT_EQ((std::vector<FT_STATUS>{0, 5, 5, 0}), statuses);
  EXPECT_EQ(4u, read(4).size());
  EXPECT_EQ(0u, queued());
  ASSERT_EQ(0, QTXSim_FailCall("GetQueueStatus", 1, 1, FT_IO_ERROR));
  QTXSim_ClearFaults();
  for (uint32_t accepted : {0u, 1u, 9u}) {
    ASSERT_EQ(0, QTXSim_ShortWrite(device, 1, accepted));
    ASSERT_EQ(FT_OK, d2xx().Write(handle, command, 3, &written));
    EXPECT_EQ(std::min(accepted, 3u), written);
    EXPECT_EQ(std::min(accepted, 2u), read(queued()).size());
  }
  Bytes whole = fillFlash(600), expected = whole;
  ASSERT_EQ(0, QTXSim_LoseAnswer(device, 10, 3));
  expected.erase(expected.begin() + 10, expected.begin() + 13);
  EXPECT_EQ(expected, exchange(readCommand(600), 597));
  ASSERT_EQ(0, QTXSim_CorruptAnswer(device, 599, 0x81));
  expected = whole;
  expected[599] ^= 0x81;
  EXPECT_EQ(expected, exchange(readCommand(600), 600));
  EXPECT_EQ(whole, exchange(readCommand(600), 600));
  const uint8_t extra[] = {0x10, 0x11};
  ASSERT_EQ(0, QTXSim_InsertAnswer(device, extra, 2));
  EXPECT_EQ((Bytes{0x10, 0x11, 0xFA}), exchange({0x81, 0x87}, 3));
  ASSERT_EQ(0, QTXSim_UnplugAtCall(device, 2));
  write({0x81, 0x87});
  EXPECT_EQ(FT_IO_ERROR, d2xx().GetQueueStatus(handle, &count));
  EXPECT_EQ(0, QTXSim_PinLevel(device, 5)) << "the board lost its power";
}

// ---- Record --------------------------------------------------------------------------------------------------------

TEST_F(WireTest, Record_GivesFramesToProgramsAndOnlyWhatIsWanted) {
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
  QTXSim_SetRecording(QTXSIM_EVENT_CALL);
  QTXSim_ClearRecord();
  ASSERT_EQ(0, QTXSim_ShortWrite(device, 1, 1));
  const uint8_t bytes[] = {0x80, 0xFE, 0x0B};
  uint32_t written = 0;
  d2xx().Write(handle, bytes, 3, &written);
  queued();
  d2xx().ListDevices(nullptr, nullptr, FT_LIST_BY_INDEX | FT_OPEN_BY_SERIAL_NUMBER);
  EXPECT_STREQ("Write 80 FE 0B took 1\nListDevices 0 0x40000001 = 6\n", QTXSim_RecordText(QTXSIM_EVENT_ALL));
  EXPECT_LE(1u, QTXSim_Calls("GetQueueStatus"));
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
