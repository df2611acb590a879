// The bridge works on its own clock while the host goes on: what each call takes.
#include "bench.h"

namespace simtest {
namespace {

constexpr uint64_t kPause = 8'000'000;  // ns of 30,000 bytes without data at 30 MHz
const Bytes kPauseBytes = {0x8F, 0x2F, 0x75}, kHigh = {0x83, 0x87};
const Bytes kLate = kPauseBytes + Bytes{0x82, 0x40, 0xC0};  // pin 14 high behind a pause

class Engine : public Bench {
 protected:
  Engine() { restart(), tells_costs = true; }
  int32_t pin14() const { return QTXSim_PinLevel(device, 14); }
};

TEST_F(Engine, WorksWhileTheHostGoesOn) {
  say("what is written happens when its time has come, also after closing");
  for (const bool closed : {false, true}) {
    DO_FOR(closed, write(Bytes{0x82, 0x00, 0xC0} + kLate), closed ? d2xx().Close(handle) : 0u, pin14(),
           (QTXSim_Advance(kPause - 1000), pin14()), (QTXSim_Advance(2000), pin14()));
  }
  restart();
  say("batches in flight follow each other without a gap");
  for (int i = 0; i < 3; ++i) DO(write(kPauseBytes + Bytes{0x81, 0x87}));
  DO(read(1), read(1), read(1));
  say("answers leave while the rest is worked off; who has just read looks before waiting");
  DO(write(Bytes{0x81, 0x87} + kPauseBytes + kHigh), queued(), read(1), queued(), queued(), read(1));
  say("a poll waits no longer than the bridge has work");
  DO(write(kLate), queued(), pin14());
  say("a full FIFO holds a write up until its time-out");
  DO(write(kPauseBytes + Bytes(2000, 0x85)), d2xx().SetTimeouts(handle, 5000, 5),
     write(kPauseBytes + Bytes(2000, 0x85)));
  restart();
  say("a reset of the bit mode ends what is under way");
  DO(write({0x82, 0x00, 0xC0}), write(kLate), d2xx().SetBitMode(handle, 0, 0), d2xx().SetBitMode(handle, 0, 2),
     exchange(kHigh, 1));
}

TEST_F(Engine, RecordIsInTheOrderOfTime) {
  QTXSim_AddRadar("FT0002", "", QTXSIM_FT232H, nullptr, nullptr);
  FT_HANDLE first = handle;
  open("FT0002");
  powerUp();
  QTXSim_ClearRecord();
  std::swap(handle, first);
  write(kLate);
  std::swap(handle, first);
  write({0x80, 0xDE, 0x3B});
  QTXSim_Advance(1'000'000'000);
  QTXSim_Event event;
  for (uint32_t i = 0; QTXSim_RecordEvent(i, &event) == 0; ++i)
    say(format("kind %u device %d", event.kind, event.device));
}

TEST_F(Engine, WaitingCommandsGoOnWithThePinAndHangNobody) {
  for (const Bytes &command : {Bytes{0x88}, {0x89}, {0x94}, {0x95}, {0x9C, 0x2B, 0x01}, {0x9D, 0x2B, 0x01}}) {
    for (int32_t level : {0, 1}) {
      restart();
      write({0x80, 0xFE, 0x1B});  // lets go of pin 5
      QTXSim_DrivePin(device, 5, level);
      DO_FOR(show(command) + (level ? " high" : " low"), write(command + kHigh), queued(), read(1),
             QTXSim_DrivePin(device, 5, 1 - level), read(1));
    }
  }
  restart();
  say("a clock without data reaches the selected device");
  DO(exchange({0x80, 0xEE, 0x3B, 0x11, 0, 0, 0x9F, 0x8F, 0, 0, 0x8E, 7, 0x20, 0, 0, 0x80, 0xFE, 0x3B, 0x87}, 1));
  say("an adaptive clock waits for one that nobody returns, until a reset");
  for (const Bytes &command : {Bytes{0x8E, 0}, Bytes{0x20, 0, 0}, Bytes{0x22, 0}}) {
    DO_FOR(show(command), write(Bytes{0x96, 0x97} + command + Bytes{0x96} + command + kHigh), read(2),
           (bitModes(), powerUp(), exchange({0x20, 0, 0, 0x87}, 1)));
  }
}

}  // namespace
}  // namespace simtest
