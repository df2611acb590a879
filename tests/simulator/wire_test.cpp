// Transfers, time, FIFOs, scheduled faults and the record.
#include <chrono>

#include "bench.h"

namespace simtest {
namespace {

class Wire : public Bench {
 protected:
  Wire() { restart(), tells_costs = true; }

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
  FT_STATUS sizes(uint32_t size) { return d2xx().SetUSBParameters(handle, size, size); }
};

TEST_F(Wire, ExchangesCostTransfersAndClock) {
  const Bytes content = fillFlash(65536);
  const auto whole = [&](uint32_t size, size_t count, bool hurried = true) {
    Bytes commands = readCommand(count);
    if (!hurried) commands.pop_back();
    EXPECT_EQ(FT_OK, sizes(size));
    events();
    return exchange(commands, count) == Bytes(content.begin(), content.begin() + static_cast<ptrdiff_t>(count));
  };
  DO(exchange({0x81, 0x83, 0x87}, 2), whole(65536, 1024), whole(65536, 65536), whole(4096, 65536),
     write(Bytes(4097, 0x85)));
  say("a slow answer comes one by one");
  DO(exchange({0x8B, 0x86, 0xFF, 0xFF, 0x20, 3, 0, 0x87, 0x8A, 0x86, 0, 0}, 4));
  say("a long answer arrives while the host looks");
  write(readCommand(65536));
  for (uint32_t count = 0; count < 65536; count = queued()) DO(queued());
  EXPECT_EQ(read(65536), content);
  say("full packets end nothing, the latency timer does");
  DO(whole(4096, 510, false));
  for (uint8_t latency : Bytes{2, 16, 255}) DO(d2xx().SetLatencyTimer(handle, latency), exchange({0x81}, 1));
  say("300 bytes of clock with each divisor and base, on whose idea of 3 phases it depends");
  for (const Bytes &setting : {Bytes{0x8A, 0x86, 0, 0}, {0x86, 1, 0}, {0x86, 6, 0}, {0x8B}, {0x8C}}) {
    write(setting);
    DO_FOR(show(setting), (write({0x8F, 0x2B, 0x01}), QTXSim_Advance(10'000'000)));
  }
  say("fractions of nanoseconds are not lost");
  write({0x8D, 0x8A, 0x86, 0, 0});
  DO((write({0x8E, 0}), write({0x8E, 0}), write({0x8E, 0}), QTXSim_Advance(1000)));
}

TEST_F(Wire, TimeIsTheHostsOnlyWhenAsked) {
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
  EXPECT_GE(passed(), 3'000'000u);
  EXPECT_EQ(-1, QTXSim_SetTime(3));
  ASSERT_EQ(0, QTXSim_SetTime(QTXSIM_TIME_REAL));
  ASSERT_EQ(FT_OK, d2xx().SetLatencyTimer(handle, 20));
  pulsekit::test::slept();
  EXPECT_EQ(1u, exchange({0x81}, 1).size());
  EXPECT_GE(pulsekit::test::slept(), 19u) << "in real time, calls last";
}

TEST_F(Wire, ReadsWritesAndFifos) {
  DO(write({0x81, 0x83, 0x87}), read(1), queued(), read(10), d2xx().SetTimeouts(handle, 0, 0), read(1));
  say("old answers are lost by a reset and by new parameters, not by closing; the host keeps what it has");
  DO(d2xx().SetLatencyTimer(handle, 255), write({0x81, 0x87, 0x83}), d2xx().ResetDevice(handle), queued(), queued(),
     sizes(4096), queued(), write({0x81}), d2xx().Close(handle),
     d2xx().OpenEx("FT0001AB", FT_OPEN_BY_SERIAL_NUMBER, &handle), queued());
  say("a stuck bridge takes as much as its FIFO holds");
  for (const int32_t bridge : {QTXSIM_FT232H, QTXSIM_FT2232H, QTXSIM_FT4232H}) {
    QTXSim_Reset();
    plugIn(nullptr, nullptr, bridge);
    open(bridge == QTXSIM_FT232H ? "FT0001AB" : "FT0001ABA");
    DO_FOR(bridge, write({0x89}), write(Bytes(8192, 0x85)));
  }
  say("a host that reads nothing stalls the bridge until it does");
  restart();
  const Bytes content = fillFlash(65536);
  Bytes commands;
  for (int i = 0; i < 20; ++i) commands = commands + readCommand(65536);
  DO(write(commands + Bytes(5000, 0x85)));
  tells_costs = false;
  for (int i = 0; i < 20; ++i) ASSERT_EQ(content, read(65536)) << i;
  DO(queued());
}

TEST_F(Wire, FaultsHitTheirCallOrAnswerOnly) {
  tells_costs = false;
  const Bytes whole = fillFlash(600), look = {0x81, 0x83, 0x87};
  uint32_t count = 0;
  const auto status = [&] { return d2xx().Write(handle, look.data(), 3, &count); };
  DO(QTXSim_FailCall("Write", 2, 2, FT_INSUFFICIENT_RESOURCES), status(), status(), status(), status(), read(4),
     queued(), QTXSim_FailCall("GetQueueStatus", 1, 1, FT_IO_ERROR), QTXSim_ClearFaults());
  for (uint32_t accepted : {0u, 1u, 9u}) DO(QTXSim_ShortWrite(device, 1, accepted), write(look), read(queued()));
  Bytes expected = whole;
  ASSERT_EQ(0, QTXSim_LoseAnswer(device, 10, 3));
  expected.erase(expected.begin() + 10, expected.begin() + 13);
  EXPECT_EQ(expected, exchange(readCommand(600), 597));
  ASSERT_EQ(0, QTXSim_CorruptAnswer(device, 599, 0x81));
  expected = whole;
  expected[599] ^= 0x81;
  EXPECT_EQ(expected, exchange(readCommand(600), 600));
  EXPECT_EQ(whole, exchange(readCommand(600), 600));
  const uint8_t extra[] = {0x10, 0x11};
  DO(QTXSim_InsertAnswer(device, extra, 2), exchange({0x81, 0x87}, 3), d2xx().Close(handle),
     QTXSim_InsertAnswer(device, extra, 1), d2xx().OpenEx("FT0001AB", FT_OPEN_BY_SERIAL_NUMBER, &handle), read(1));
  say("the board loses its power with the plug");
  DO(QTXSim_UnplugAtCall(device, 2), write({0x81, 0x87}), d2xx().GetQueueStatus(handle, &count),
     QTXSim_PinLevel(device, 5));
}

TEST_F(Wire, RecordGivesFramesToProgramsAndOnlyWhatIsWanted) {
  flashFrame({0x9F}, 3);
  tells_costs = false;
  for (uint32_t i = 0; i < 3; ++i) {
    QTXSim_Event event{};
    ASSERT_EQ(0, QTXSim_RecordEvent(i, &event));
    say(format("kind %u device %d value %u out %s in %s", event.kind, event.device, event.value,
               pulsekit::test::hex(event.out, event.out_bits / 8).c_str(),
               pulsekit::test::hex(event.in, event.in_bits / 8).c_str()));
  }
  for (uint32_t recorded : {QTXSIM_EVENT_CALL, QTXSIM_EVENT_POLL, 0u}) {
    QTXSim_SetRecording(recorded);
    kinds = QTXSIM_EVENT_ALL;
    DO_FOR(recorded, QTXSim_ShortWrite(device, 1, 1), write({0x80, 0xFE, 0x0B}), queued(),
           d2xx().ListDevices(nullptr, nullptr, FT_LIST_BY_INDEX | FT_OPEN_BY_SERIAL_NUMBER),
           QTXSim_RecordEvent(QTXSim_RecordCount(), nullptr), (queued(), QTXSim_Calls("GetQueueStatus")));
  }
  say("past 64 MiB the oldest goes");
  kinds = 0;
  QTXSim_SetRecording(QTXSIM_EVENT_CALL);
  QTXSim_ClearRecord();
  for (int i = 0; i < 1100; ++i) write(Bytes{0x11, 0xFC, 0xFF} + Bytes(65533));
  uint64_t total = 0;
  QTXSim_Event event;
  for (uint32_t i = 0; QTXSim_RecordEvent(i, &event) == 0; ++i) total += event.out_bits / 8;
  EXPECT_TRUE(QTXSim_RecordCount() > 0 && total <= 64u << 20) << total;
}

}  // namespace
}  // namespace simtest
