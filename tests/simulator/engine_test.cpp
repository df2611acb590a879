// The bridge works on its own clock while the host goes on.
#include "bench.h"

namespace simtest {

namespace {

constexpr uint64_t kTransfer = 125'000, kMillisecond = 1'000'000, kForever = 1'000'000'000'000;
constexpr uint64_t kPause = 30'000 * 8 * 100 / 3;  // ns of 30,000 bytes without data at 30 MHz
const Bytes kPauseBytes = {0x8F, 0x2F, 0x75};

Bytes joined(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes &part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

}  // namespace

class EngineTest : public Bench {
 protected:
  void SetUp() override {
    Bench::SetUp();
    plugInAndPowerUp();
    restart();
  }

  static void restart() { QTXSim_ResetStatistics(); }
  static QTXSim_Statistics spent() {
    QTXSim_Statistics values{};
    EXPECT_EQ(0, QTXSim_GetStatistics(&values));
    return values;
  }
  static uint64_t passed() { return spent().nanoseconds; }
  static uint64_t clocked() { return spent().spi_nanoseconds; }
  int32_t pin14() const { return QTXSim_PinLevel(device, 14); }

  // Pin 14 high behind a pause.
  const Bytes late = joined({kPauseBytes, {0x82, 0x40, 0xC0}});
};

TEST_F(EngineTest, WhatIsWritten_HappensWhenItsTimeHasCome) {
  for (const bool closed : {false, true}) {
    write(joined({{0x82, 0x00, 0xC0}, late}));
    if (closed) d2xx().Close(handle);
    EXPECT_EQ(0, pin14());
    QTXSim_Advance(kPause - 1000);
    EXPECT_EQ(0, pin14()) << "too early";
    QTXSim_Advance(2000);
    EXPECT_EQ(1, pin14());
  }
}

TEST_F(EngineTest, BatchesInFlight_FollowEachOtherWithoutAGap) {
  const Bytes batch = joined({kPauseBytes, {0x81, 0x87}});
  for (int i = 0; i < 3; ++i) write(batch);
  EXPECT_EQ(3 * kTransfer, passed()) << "a write only hands over";
  for (uint64_t i = 1; i <= 3; ++i) {
    EXPECT_EQ(1u, read(1).size());
    EXPECT_EQ(2 * kTransfer + i * kPause, passed());
    EXPECT_EQ(i * kPause, clocked() / kPause * kPause);
  }
}

TEST_F(EngineTest, AnswersLeaveWhileTheRestIsWorkedOff) {
  write(joined({{0x81, 0x87}, kPauseBytes, {0x83, 0x87}}));
  EXPECT_EQ(1u, queued());
  EXPECT_EQ(2 * kTransfer, passed());
  EXPECT_EQ(1u, read(1).size());
  EXPECT_EQ(0u, queued()) << "who has just read looks before waiting";
  EXPECT_EQ(2 * kTransfer, passed());
  EXPECT_EQ(1u, queued());
  EXPECT_EQ(2 * kTransfer + kPause, passed());
}

TEST_F(EngineTest, Poll_WaitsNoLongerThanTheBridgeHasWork) {
  write(late);
  EXPECT_EQ(0u, queued());
  EXPECT_EQ(kTransfer + kPause, passed());
  EXPECT_EQ(1, pin14());
}

TEST_F(EngineTest, FullFifo_HoldsTheWriteUp) {
  const Bytes batch = joined({kPauseBytes, Bytes(2000, 0x85)});
  write(batch);
  EXPECT_EQ(kTransfer + kPause, passed());
  ASSERT_EQ(FT_OK, d2xx().SetTimeouts(handle, 5000, 5));
  uint32_t written = 0;
  ASSERT_EQ(FT_OK, d2xx().Write(handle, batch.data(), static_cast<uint32_t>(batch.size()), &written));
  EXPECT_EQ(3u + 1024, written) << "the pause outlasts the write's time-out";
  EXPECT_EQ(kTransfer + kPause + 5 * kMillisecond, passed());
}

TEST_F(EngineTest, BitModeReset_EndsWhatIsUnderWay) {
  write(late);
  ASSERT_EQ(FT_OK, d2xx().SetBitMode(handle, 0, 0));
  ASSERT_EQ(FT_OK, d2xx().SetBitMode(handle, 0, 2));
  EXPECT_EQ((Bytes{0xFF}), exchange({0x83, 0x87}, 1));
  EXPECT_EQ(5 * kTransfer, passed());
}

TEST_F(EngineTest, Record_IsInTheOrderOfTime) {
  QTXSim_AddRadar("FT0002", "", QTXSIM_FT232H, nullptr, nullptr);
  FT_HANDLE other = handle;
  open("FT0002");
  powerUp();
  QTXSim_ClearRecord();
  std::swap(handle, other);
  write(late);
  std::swap(handle, other);
  write({0x80, 0xDE, 0x3B});
  QTXSim_Advance(kForever);
  std::string order;
  QTXSim_Event event;
  for (uint32_t i = 0; QTXSim_RecordEvent(i, &event) == 0; ++i) {
    order += (event.kind == QTXSIM_EVENT_PIN ? 'P' : 'C') + std::to_string(event.device) + ' ';
  }
  EXPECT_EQ("C0 C1 P1 P0 P0 ", order);
}

// ---- Waiting for a pin ---------------------------------------------------------------------------------------------

struct Wait {
  Bytes command;
  int level;         // of pin 5 that ends it
  uint64_t clocked;  // ns until it ends without; kForever: never
  bool clocks;       // while it waits
};

TEST_F(EngineTest, WaitingCommands_GoOnWithThePinAndHangNobody) {
  const Wait waits[] = {{{0x88}, 1, kForever, false},          {{0x89}, 0, kForever, false},
                        {{0x94}, 1, kForever, true},           {{0x95}, 0, kForever, true},
                        {{0x9C, 0x2B, 0x01}, 1, 80'000, true}, {{0x9D, 0x2B, 0x01}, 0, 80'000, true}};
  write({0x80, 0xFE, 0x1B});  // lets go of pin 5
  for (const Wait &wait : waits) {
    SCOPED_TRACE(int{wait.command[0]});
    const Bytes batch = joined({wait.command, {0x83, 0x87}});
    QTXSim_DrivePin(device, 5, wait.level);
    restart();
    EXPECT_EQ(1u, exchange(batch, 1).size());
    EXPECT_EQ(2 * kTransfer, passed());

    QTXSim_DrivePin(device, 5, 1 - wait.level);
    restart();
    write(batch);
    const bool ends = wait.clocked != kForever;
    ASSERT_EQ(ends ? 1u : 0u, queued());
    EXPECT_EQ(ends ? 2 * kTransfer + wait.clocked : kTransfer, passed());
    if (!ends) {
      EXPECT_EQ(0u, read(1).size()) << "only the time-out ends this";
      EXPECT_NEAR(wait.clocks ? 5e9 : 0, static_cast<double>(clocked()), 100);
      QTXSim_DrivePin(device, 5, wait.level);
    }
    EXPECT_EQ(1u, read(1).size());
  }
}

TEST_F(EngineTest, ClockWithoutData_ReachesTheSelectedDevice) {
  const Bytes identity = {0x80, 0xEE, 0x3B, 0x11, 0, 0, 0x9F, 0x8F, 0, 0, 0x8E, 7, 0x20, 0, 0, 0x80, 0xFE, 0x3B, 0x87};
  EXPECT_EQ((Bytes{0x18}), exchange(identity, 1));
}

TEST_F(EngineTest, AdaptiveClocking_WaitsForAClockThatNobodyReturns) {
  for (const Bytes &command : {Bytes{0x8E, 0}, Bytes{0x20, 0, 0}, Bytes{0x22, 0}}) {
    write(joined({{0x96, 0x97}, command, {0x96}, command, {0x83, 0x87}}));
    EXPECT_EQ(command[0] == 0x8E ? 0u : 1u, read(2).size());
    ASSERT_EQ(FT_OK, d2xx().SetBitMode(handle, 0, 0));
    ASSERT_EQ(FT_OK, d2xx().SetBitMode(handle, 0, 2));
    powerUp();
  }
  EXPECT_EQ(1u, exchange({0x20, 0, 0, 0x87}, 1).size()) << "the reset ends it";
}

}  // namespace simtest
