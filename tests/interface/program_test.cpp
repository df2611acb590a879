// Bus programs on the simulated bench: what they do on the wire, in which order, and how they take faults.
#include "interface/program.h"

#include "bridge.h"

namespace {

using Bytes = std::vector<uint8_t>;
using pulsekit::BusProgram;
using pulsekit::ProgramRun;
using pulsekit::test::kDevice;

constexpr uint32_t kWireEvents = QTXSIM_EVENT_SPI | QTXSIM_EVENT_PIN | QTXSIM_EVENT_ODD;

class BusPrograms : public ::testing::Test {
 protected:
  BusPrograms() {
    QTXSim_Reset();
    FTx232H_SetD2XX(QTXSim_D2XX());
    QTX_InitHandle(&radar);
    QTXSim_AddRadar("FT0001AB", "Radar", QTXSIM_FT232H, "QTX-K245", "QTX3701");
    // The identity, a register write between two levels of a pin, the register.
    program.transfer(0, {0x02, 0x02}, 2);
    program.pin(500, 0);
    program.transfer(0, {0xB1, 0x03, 0x28, 0x01, 0x00});
    program.togglePin(500);
    program.pause(20);
    program.transfer(0, {0x31, 0x03}, 3, 0);
  }
  ~BusPrograms() override {
    interfaceFreeHandle(&radar->interface_handle, nullptr);
    QTX_FreeHandle(&radar);
    FTx232H_SetD2XX(nullptr);
  }

  void open() {
    interfaceFreeHandle(&radar->interface_handle, nullptr);
    ASSERT_EQ(interfaceInitHandle(&radar->interface_handle, &radar->error, radar, kDevice, &radar->open), 0);
    bridge = radar->interface_handle;
    ASSERT_EQ(interfaceInitInterface(bridge), 0);
    ASSERT_EQ(interfaceConnect(bridge, kDevice), 0);
    for (uint32_t pin : {1107, 500}) ASSERT_EQ(bridge->SetIO_Direction(bridge, pin, 1, 1), 0);
    QTXSim_ClearRecord();
  }

  static constexpr uint32_t kAnswer = 5;
  static Bytes expected() { return {0x09, 0x03, 0x28, 0x01, 0x00}; }
  Bytes run(int32_t *code) {
    Bytes answer(kAnswer);
    *code = pulsekit::runProgram(bridge, program, answer.data());
    return answer;
  }

  BusProgram program;
  QTX_Handle *radar = nullptr;
  InterfaceHandle *bridge = nullptr;
};

}  // namespace

TEST_F(BusPrograms, DoInOneWriteWhatSingleOperationsDo) {
  open();
  int32_t code = 1;
  EXPECT_EQ(program.answerLength(), kAnswer);
  EXPECT_EQ(program.clocks(), 14 * 8 + 20u);
  EXPECT_EQ(run(&code), expected());
  EXPECT_EQ(code, 0);
  EXPECT_STREQ(QTXSim_RecordText(QTXSIM_EVENT_CALL),
               "Write 80 F6 2B 11 01 00 02 02 20 01 00 80 FE 2B 82 BF 40 80 F6 2B 11 04 00 B1 03 28 01 00 80 FE 2B 82 "
               "FF 40 8F 01 00 8E 03 80 F6 2B 11 01 00 31 03 20 02 00 81 80 FE 2B 81 87\nRead 7\n");
  const std::string wire = QTXSim_RecordText(kWireEvents);
  bridge->SetIO = [](InterfaceHandle *handle, uint32_t pin, uint32_t value) {
    return interfacePrograms(handle)->set_io(handle, pin, value);
  };
  ASSERT_FALSE(pulsekit::hasPrograms(bridge));
  QTXSim_ClearRecord();
  EXPECT_EQ(run(&code), expected());
  EXPECT_EQ(code, 0);
  EXPECT_EQ(QTXSim_RecordText(kWireEvents), wire);
}

TEST_F(BusPrograms, FillTheFifoAndAreCollectedBeforeAnythingElse) {
  open();
  std::vector<Bytes> answers(64, Bytes(kAnswer));
  std::vector<ProgramRun> runs(64);
  size_t ordered = 0;
  for (; ordered < 64 && pulsekit::programFits(bridge, program, 1000); ++ordered) {
    runs[ordered].answer = answers[ordered].data();
    ASSERT_EQ(pulsekit::queueProgram(bridge, program, 1000, runs[ordered]), 0);
  }
  EXPECT_EQ(ordered, 1024u / (55 + 3)) << "bytes of a program and its pause";
  runs[ordered].answer = answers[ordered].data();
  EXPECT_EQ(pulsekit::queueProgram(bridge, program, 1000, runs[ordered]), 2);
  EXPECT_EQ(pulsekit::sendPrograms(bridge), 0);
  uint8_t id[2] = {};
  const uint8_t command[] = {0x02, 0x02};
  EXPECT_EQ(bridge->SendReceiveSPI(bridge, 0, command, 2, id, 2, SPI_MODE_EXECUTE), 0);
  EXPECT_EQ(id[0] | id[1] << 8, 0x309);
  for (size_t i = 0; i < ordered; ++i) {
    EXPECT_TRUE(runs[i].done && runs[i].code == 0) << i;
    EXPECT_EQ(answers[i], expected()) << i;
  }
}

// Each fault either does not matter or gives a code; whatever the bridge was at, the next program gets its own answer.
TEST_F(BusPrograms, FaultsGiveACodeAndLeaveNothingBehind) {
  const uint8_t surplus[] = {0, 0};
  for (int fault = 0; fault < 40; ++fault) {
    SCOPED_TRACE(fault);
    open();
    const auto nth = static_cast<uint32_t>(fault / 8);
    switch (fault % 8) {
      case 0:
        QTXSim_UnplugAtCall(0, nth + 1);
        break;
      case 1:
        QTXSim_FailCall("Write", nth + 1, 1, FT_IO_ERROR);
        break;
      case 2:
        QTXSim_FailCall("Read", nth + 1, 1, FT_IO_ERROR);
        break;
      case 3:
        QTXSim_FailCall("GetQueueStatus", nth + 1, 1, FT_IO_ERROR);
        break;
      case 4:
        QTXSim_ShortWrite(0, 1, nth * 13);
        break;
      case 5:
        QTXSim_LoseAnswer(0, nth * 7, nth < 2 ? nth + 1 : 0);
        break;
      case 6:
        QTXSim_CorruptAnswer(0, 5 + nth % 2 + nth / 2 % 2 * 7, 0x08);
        break;
      case 7:
        QTXSim_InsertAnswer(0, surplus, nth % 2 + 1);
        break;
    }
    Bytes first(kAnswer), second(kAnswer);
    ProgramRun runs[2];
    runs[0].answer = first.data();
    runs[1].answer = second.data();
    for (ProgramRun &one : runs) pulsekit::queueProgram(bridge, program, 100, one);
    const int32_t code = pulsekit::finishPrograms(bridge);
    for (const ProgramRun &one : runs) {
      EXPECT_TRUE(one.done);
      EXPECT_TRUE(one.code == 0 ? Bytes(one.answer, one.answer + kAnswer) == expected() : one.code == code);
    }
    QTXSim_ClearFaults();
    QTXSim_Replug(0);
    if (fault % 8 == 0) open();
    int32_t afterwards = 1;
    EXPECT_EQ(run(&afterwards), expected());
    EXPECT_EQ(afterwards, 0);
    EXPECT_EQ(QTXSim_PinLevel(0, 3), 1);
    EXPECT_EQ(QTXSim_PinLevel(0, 14), 1);
  }
}
