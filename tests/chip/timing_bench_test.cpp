// Measurements and the record in flash through bridge, board and flash on the simulated bench.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "Pulsekit3Simulator.h"
#include "chip/QTX3701/QTX3701-timing.h"
#include "interface/FTx232H/FTx232H.h"
#include "interface/interface.h"
#include "module/module.h"
#include "support/QTX_Handle.h"

using namespace pulsekit;
using namespace pulsekit::chip;

namespace {

constexpr uint32_t kBlock = 3, kBlockAddress = 12'288;
constexpr uint32_t kRecordSize = 1304;

class TimingBench : public ::testing::TestWithParam<const char *> {
 protected:
  TimingBench() {
    owner.error = &failure;
    FTx232H_SetD2XX(QTXSim_D2XX());
  }
  ~TimingBench() override {
    close();
    FTx232H_SetD2XX(nullptr);
    QTXSim_Reset();
  }

  void SetUp() override {
    QTXSim_Reset();
    device = QTXSim_AddRadar("FT000001", "Radar", QTXSIM_FT232H, "QTX-K245", GetParam());
    ASSERT_GE(device, 0);
    QTXSim_SetRecording(0);
    open();
  }
  void open() {
    std::array<char, 512> connection;
    ASSERT_EQ(interfaceListConnectedInterfaces(&owner, connection.data(), connection.size()), 0);
    ASSERT_EQ(interfaceInitHandle(&owner.interface_handle, &owner.error, &owner, connection.data(), &owner.open), 0);
    ASSERT_EQ(interfaceInitInterface(owner.interface_handle), 0);
    ASSERT_EQ(interfaceConnect(owner.interface_handle, connection.data()), 0);
    ASSERT_EQ(moduleInitHandle(&owner.module, &owner.error, &owner, "QTX-K245"), 0);
    ASSERT_EQ(moduleInitModule(owner.module), 0);
    ASSERT_EQ(chipInitHandle(&owner.chip, &owner.error, &owner, GetParam()), 0);
    ASSERT_EQ(chipInitChip(owner.chip), 0) << failure.trace;
    owner.open = 1;
  }
  void close() {
    owner.open = 0;
    chipFree(&owner.chip, nullptr);
    moduleFree(&owner.module, nullptr);
    if (!owner.interface_handle) return;
    interfaceDisconnect(owner.interface_handle);
    interfaceFreeHandle(&owner.interface_handle, nullptr);
  }

  int32_t act(const char *action) {
    VariableSet *set = owner.chip->variables;
    return varActionTrigger(set, varActionNamed(set, action));
  }
  double real(const char *name) {
    uint64_t slot = 0;
    EXPECT_EQ(varGetValue_ByName(owner.chip->variables, name, &slot), 0) << name;
    return bitsToDouble(slot);
  }
  int32_t save() { return owner.chip->operations.measurementSaveDataToFlash(owner.chip, kBlock); }
  int32_t load() { return owner.chip->operations.measurementLoadDataFromFlash(owner.chip, kBlock); }
  std::vector<double> results() {
    std::vector<double> values(579);
    EXPECT_EQ(owner.chip->operations.getTimingMeasurementResults(owner.chip, values.data(), 579), 0);
    return values;
  }
  std::vector<uint8_t> flash(uint32_t address, uint32_t count) const {
    std::vector<uint8_t> bytes(count);
    EXPECT_EQ(QTXSim_FlashRead(device, address, bytes.data(), count), 0);
    return bytes;
  }

  QTX_StackTrace failure = {};
  QTX_Handle owner = {};
  int32_t device = -1;
};

}  // namespace

TEST_P(TimingBench, ACalibrationOutlivesThePowerOfItsBoard) {
  ASSERT_EQ(act("MeasureAll"), 0) << failure.message << failure.trace;
  const std::vector<double> measured = results();
  const double rate = real("SamplesPerSecond");
  ASSERT_EQ(save(), 0) << failure.trace;
  EXPECT_EQ(std::memcmp(flash(kBlockAddress, kRecordSize).data(), owner.chip->timing_record, kRecordSize), 0);
  for (const uint32_t beside : {kBlockAddress - 1, kBlockAddress + kRecordSize}) {
    EXPECT_EQ(flash(beside, 1)[0], 0xff) << beside;
  }

  close();
  ASSERT_EQ(QTXSim_PowerCycle(device), 0);
  ASSERT_NO_FATAL_FAILURE(open());
  EXPECT_NE(real("SamplesPerSecond"), rate);
  ASSERT_EQ(load(), 0) << failure.trace;
  EXPECT_EQ(results(), measured);
  EXPECT_EQ(real("SamplesPerSecond"), rate);
  EXPECT_EQ(real("DelayMediumTune"), measured[382]);

  ASSERT_EQ(act("TMeasPrepare"), 0) << "the record says that this was done, before the power was cut";
  ASSERT_EQ(act("MeasureAll"), 0) << failure.message << failure.trace;
  ASSERT_EQ(save(), 0) << "the block had to be erased";
  EXPECT_EQ(std::memcmp(flash(kBlockAddress, kRecordSize).data(), owner.chip->timing_record, kRecordSize), 0);
}

TEST_P(TimingBench, AnErasedBlockHoldsNoCalibrationAndOneOfZerosAnEmptyOne) {
  const double coarse = real("DelayCoarseTune");
  EXPECT_EQ(load(), kNoValidSetup);
  EXPECT_EQ(real("DelayCoarseTune"), coarse);
  const std::vector<uint8_t> zeros(kRecordSize);
  ASSERT_EQ(QTXSim_FlashWrite(device, kBlockAddress, zeros.data(), kRecordSize), 0);
  EXPECT_EQ(load(), 0) << failure.trace;
  EXPECT_EQ(real("DelayCoarseTune"), 0.0);
}

// The flash driver tells of a page that was not programmed in the error record alone.
TEST_P(TimingBench, ARecordThatWasNotProgrammedDoesNotLoad) {
  QTXSim_FlashFailProgram(device, 1, 1);
  EXPECT_EQ(save(), 0);
  EXPECT_EQ(failure.code, kFlashProgram);
  EXPECT_EQ(load(), kNoValidSetup);
}

TEST_P(TimingBench, AFailingBusIsTracedUpToTheRecord) {
  const std::string source = std::string(" in src/chip/") + GetParam() + "/" + GetParam() + "-timing:";
  QTXSim_FailCall("Write", 1, 1000, 4);
  EXPECT_NE(save(), 0);
  EXPECT_NE(
      std::string(failure.trace).find(std::string("from: ") + GetParam() + "_measurementSaveDataToFlash" + source),
      std::string::npos)
      << failure.trace;
  EXPECT_NE(load(), 0);
  EXPECT_NE(
      std::string(failure.trace).find(std::string("from: ") + GetParam() + "_measurementLoadDataFromFlash" + source),
      std::string::npos)
      << failure.trace;
  QTXSim_ClearFaults();
}

// The plug is pulled in the middle of waits, writes and reads alike: the measurement ends with a failure each time.
TEST_P(TimingBench, PullingThePlugEndsACalibration) {
  for (const uint32_t call : {3u, 50u, 499u, 1000u, 2500u, 9999u}) {
    QTXSim_UnplugAtCall(device, call);
    EXPECT_NE(act("MeasureAll"), 0) << call;
    EXPECT_NE(failure.code, 0) << call;
    close();
    QTXSim_ClearFaults();
    ASSERT_EQ(QTXSim_Replug(device), 0);
    ASSERT_NO_FATAL_FAILURE(open());
  }
}

INSTANTIATE_TEST_SUITE_P(Models, TimingBench, ::testing::Values("QTX3701", "QTX3702"));
