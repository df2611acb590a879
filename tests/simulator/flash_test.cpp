// The flash behind chip select 4: opcodes, durations, one-time area, faults.
#include "bench.h"

namespace simtest {
namespace {

class Flash : public Bench {
 protected:
  Flash() { restart(); }

  void finish() { QTXSim_Advance(1'000'000'000); }
  static Bytes at(uint32_t address) { return {uint8_t(address >> 16), uint8_t(address >> 8), uint8_t(address)}; }
  uint8_t status() { return flashFrame({0x05}, 1).at(0); }
  // With the write enabled; the status in the end.
  int32_t run(const Bytes &command) {
    flashFrame({0x06});
    flashFrame(command);
    finish();
    return status();
  }
  int32_t erase(uint32_t address) { return run(Bytes{0x20} + at(address)); }
  int32_t program(uint32_t address, const Bytes &data, uint8_t opcode = 0x02) {
    return run(Bytes{opcode} + at(address) + data);
  }
  Bytes content(uint32_t address, size_t count) { return flashFrame(Bytes{0x0B} + at(address) + Bytes{0}, count); }
};

TEST_F(Flash, Content) {
  DO(flashFrame({0x9F}, 3), flashFrame({0x90, 0, 0, 0}, 2), flashFrame({0x90, 0, 0, 1}, 2),
     flashFrame({0xAB, 0, 0, 0}, 1));
  say("programming clears bits and wraps inside its page, erasing sets them, a read goes on at the start");
  DO(program(0x1000, {0xF0, 0x3C}), program(0x1000, {0x3F, 0xFF}), content(0x1000, 3), program(0x2000, {0x00}),
     erase(0x1FFF), content(0x1000, 2), content(0x2000, 1), program(0xFFFFFE, {1, 2, 3, 4}), content(0xFFFF00, 3),
     flashFrame({0x03, 0xFF, 0xFF, 0xFE}, 3));
  say("nothing changes without the latch, which falls with a program and with the power, or with another length");
  DO((flashFrame({0x02, 0, 0, 0, 0x00}), finish(), program(0x10, {0x12})), flashFrame({0x02, 0, 0, 1, 0x00}));
  flashFrame({0x06});
  for (const Bytes &wrong_length : {Bytes{0x20, 0, 0}, {0x20, 0, 0, 0, 0}, {0x60, 0}}) flashFrame(wrong_length);
  DO(status(), flashFrame({0x04}), flashFrame({0x20, 0, 0, 0}), (finish(), flashFrame({0x06})),
     (QTXSim_Advance(1000), QTXSim_PowerCycle(device)), status(), content(0, 2), content(0x10, 1));
  say("a busy flash answers nothing but its status");
  DO(flashFrame({0x06}), status(), flashFrame({0x20, 0, 0, 0}), status(), flashFrame({0x0B, 0, 0, 0, 0}, 1),
     (finish(), status()));
}

TEST_F(Flash, OperationsTakeTheirTimeAndCoverWhatTheySay) {
  const uint32_t places[] = {0x00FFFF, 0x010000, 0x01FFFF, 0x020000, 0xFFFFFF};
  for (const Bytes &command :
       {Bytes{0x20, 0, 0xFF, 0}, {0xD8, 0x01, 0x23, 0x45}, {0x60}, {0xC7}, {0x02, 0, 0, 0, 1}, {0x9B, 0, 0, 0, 1}}) {
    const uint8_t zero = 0;
    for (uint32_t place : places) ASSERT_EQ(0, QTXSim_FlashWrite(device, place, &zero, 1));
    flashFrame({0x06});
    flashFrame(command);
    const uint64_t start = QTXSim_Nanoseconds();
    int32_t polls = 0;
    while ((status() & 1) != 0) ++polls;
    const uint64_t took = QTXSim_Nanoseconds() - start;
    std::string erased;
    for (uint32_t place : places) erased += content(place, 1) == Bytes{0xFF} ? '1' : '0';
    DO_FOR(show(command), polls, took, erased);
  }
}

TEST_F(Flash, OneTimeAreaHoldsTheBoardNameAndItsBitsOnlyClear) {
  DO(flashFrame({0x77, 0, 0, 0, 0, 0}, 33), program(32, {0x5A, 0xFF}, 0x9B), program(32, {0xFF, 0x0F}, 0x9B),
     run({0x60}), flashFrame({0x77, 0, 0, 32, 0, 0}, 3));
}

TEST_F(Flash, Faults) {
  DO(QTXSim_FlashFailProgram(device, 2, 1), program(0, {0x11}), program(1, {0x22}), program(2, {0x33}), content(0, 3),
     QTXSim_FlashFailErase(device, 1, 1), erase(0), content(0, 1), QTXSim_FlashStayBusy(device, 1), erase(0),
     QTXSim_FlashStayBusy(device, 0), status());
  for (int32_t level : {0, 1}) {
    DO_FOR(level, QTXSim_SetIdleLevel(device, level), QTXSim_FlashPresent(device, 0), flashFrame({0x9F}, 3),
           QTXSim_FlashPresent(device, 1), flashFrame({0x9F}, 3));
    say("without power: low, and not driven");
    for (const uint8_t high : Bytes{0xDE, 0xFE}) {
      const uint8_t outputs = high == 0xDE ? 0x3B : 0x1B, low = uint8_t(high - 0x10);
      write({0x80, high, outputs});
      DO(QTXSim_PinLevel(device, 5),
         exchange({0x80, low, outputs, 0x11, 0, 0, 0x9F, 0x20, 2, 0, 0x80, high, outputs, 0x87}, 3));
    }
    powerUp();
  }
}

}  // namespace
}  // namespace simtest
