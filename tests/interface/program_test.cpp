// Bus programs on the simulated bench: what they do on the wire, in which order, and how they take faults.
#include "interface/program.h"

#include "bridge.h"
#include "faults.h"

namespace pulsekit::test {
namespace {

using Bytes = std::vector<uint8_t>;

class BusPrograms : public Bridge {
 protected:
  BusPrograms() {
    // The identity, a register write between two levels of a pin, the register.
    program.transfer(0, {0x02, 0x02}, 2);
    program.pin(500, 0);
    program.transfer(0, {0xB1, 0x03, 0x28, 0x01, 0x00});
    program.togglePin(500);
    program.pause(20);
    program.transfer(0, {0x31, 0x03}, 3, 0);
    ready();
  }
  void ready() {
    fresh();
    ASSERT_EQ(bridge->SetIO_Direction(bridge, 500, 1, 1), 0);
    QTXSim_ClearRecord();
  }
  std::string run() {
    Bytes answer(5);
    const int32_t code = runProgram(bridge, program, answer.data());
    return std::to_string(code) + " " + hex(answer.data(), 5);
  }
  BusProgram program;
};

TEST_F(BusPrograms, DoInOneWriteWhatSingleOperationsDo) {
  kinds = 0;
  DO(program.answerLength(), program.clocks(), run());
  std::string wire[2];
  for (std::string &each : wire) {
    QTXSim_ClearRecord();
    EXPECT_EQ(run(), "0 09 03 28 01 00");
    if (&each == wire) say(QTXSim_RecordText(QTXSIM_EVENT_CALL));
    each = benchEvents(QTXSIM_EVENT_SPI | QTXSIM_EVENT_PIN | QTXSIM_EVENT_ODD);
    bridge->SetIO = [](InterfaceHandle *handle, uint32_t pin, uint32_t level) {
      return interfacePrograms(handle)->set_io(handle, pin, level);
    };
    EXPECT_FALSE(hasPrograms(bridge));
  }
  EXPECT_EQ(wire[0], wire[1]);
}

TEST_F(BusPrograms, FillTheFifoAndAreCollectedBeforeAnythingElse) {
  std::vector<Bytes> answers(64, Bytes(5));
  std::vector<ProgramRun> runs(64);
  size_t ordered = 0;
  for (; ordered < 64 && programFits(bridge, program, 1000); ++ordered) {
    runs[ordered].answer = answers[ordered].data();
    ASSERT_EQ(queueProgram(bridge, program, 1000, runs[ordered]), 0);
  }
  runs[ordered].answer = answers[ordered].data();
  uint8_t id[2] = {};
  const uint8_t command[] = {0x02, 0x02};
  kinds = 0;
  DO(ordered, queueProgram(bridge, program, 1000, runs[ordered]), sendPrograms(bridge),
     bridge->SendReceiveSPI(bridge, 0, command, 2, id, 2, SPI_MODE_EXECUTE), hex(id, 2));
  for (size_t i = 0; i < ordered; ++i)
    EXPECT_TRUE(runs[i].done && runs[i].code == 0 && answers[i] == (Bytes{9, 3, 0x28, 1, 0})) << i;
}

// Each fault either does not matter or gives a code; whatever the bridge was at, the next program gets its own answer.
TEST_F(BusPrograms, FaultsGiveACodeAndLeaveNothingBehind) {
  for (uint32_t fault = 0; fault < kFaults; ++fault) {
    for (uint32_t nth = 1; nth <= 6; ++nth) {
      SCOPED_TRACE(testing::Message() << fault << " " << nth);
      ready();
      // A wrong answer to a command looks like any other: only the pins around it can be checked.
      makeFault(fault, nth, nth * 7 - 7, 5 + nth % 2 + nth / 2 % 2 * 7);
      Bytes answers[2] = {Bytes(5), Bytes(5)};
      ProgramRun runs[2];
      for (int i : {0, 1}) runs[i].answer = answers[i].data(), queueProgram(bridge, program, 100, runs[i]);
      const int32_t code = finishPrograms(bridge);
      for (int i : {0, 1}) {
        EXPECT_TRUE(runs[i].done);
        EXPECT_TRUE(runs[i].code == 0 ? answers[i] == (Bytes{9, 3, 0x28, 1, 0}) : runs[i].code == code);
      }
      QTXSim_ClearFaults();
      QTXSim_Replug(0);
      if (fault == 0) ready();
      EXPECT_EQ(run(), "0 09 03 28 01 00");
      EXPECT_EQ(QTXSim_PinLevel(0, 3) + QTXSim_PinLevel(0, 14), 2);
    }
  }
}

}  // namespace
}  // namespace pulsekit::test
