// The chip drivers on the simulated bridge and chip: what they cost on the bus, and that both ends agree.
#include <vector>

#include "BenchRadar.h"
#include "support/QTX_ErrorCodes.h"

using namespace pulsekit;

namespace {

class SimulatedModels : public BenchRadar, public ::testing::WithParamInterface<const char *> {};

INSTANTIATE_TEST_SUITE_P(All, SimulatedModels, ::testing::Values("QTX3400", "QTX3500", "QTX3701", "QTX3702"),
                         [](const auto &model) { return std::string(model.param); });

TEST_P(SimulatedModels, AreDetectedAndStart) {
  plugIn(GetParam());
  char name[64];
  EXPECT_EQ(chipGetConnectedChipName(&handle->chip, &handle->error, handle, name), 0);
  EXPECT_STREQ(name, GetParam());
  createChip(GetParam());
  EXPECT_EQ(chipInitChip(handle->chip), 0) << trace();
}

TEST_P(SimulatedModels, KeepWhatIsWrittenToTheirRegisters) {
  start(GetParam());
  handle->open = 1;
  uint64_t value = 0;
  ChipOperations &chip = handle->chip->operations;
  EXPECT_EQ(chip.WriteRegister(handle, 0x31, 3, 0x123456), 0);
  EXPECT_EQ(chip.ReadRegister(handle, 0x31, 3, &value), 0);
  EXPECT_EQ(value, 0x123456u);
}

class SimulatedFrames : public BenchRadar {
 protected:
  void SetUp() override { start("QTX3701"); }
  // A sweep that has ended at the first poll.
  void quickSweeps() {
    ASSERT_EQ(set("Iterations", 1), 0);
    ASSERT_EQ(set("PulsesPerStep", 1), 0);
    ASSERT_EQ(set("DACStepFine", 1000), 0);
  }
  QTXSim_Statistics capture() {
    QTXSim_ResetStatistics();
    EXPECT_EQ(handle->chip->operations.CaptureFrame(handle->chip, frame.data(), 4096, 0), 0) << trace();
    return statistics();
  }
  std::vector<uint32_t> frame = std::vector<uint32_t>(4096);
};

TEST_F(SimulatedFrames, StartUpTakesOneVerifiedWriteAVariable) {
  QTXSim_ResetStatistics();
  ASSERT_EQ(chipInitChip(handle->chip), 0);
  EXPECT_EQ(QTXSim_Calls("Write"), 177u);
  EXPECT_EQ(QTXSim_Calls("Read"), 103u);
}

TEST_F(SimulatedFrames, AQuickFrameTakesSevenWritesAndTwoAnswers) {
  quickSweeps();
  capture();
  EXPECT_EQ(QTXSim_Calls("Write"), 7u);
  EXPECT_EQ(QTXSim_Calls("Read"), 2u);
}

// Moving the window, and putting it back, is four verified writes that each ask for the end of the sweep, and an
// action.
TEST_F(SimulatedFrames, MovingTheWindowOfAnOpenRadarCostsThirteenWritesAndEightAnswers) {
  handle->open = 1;
  quickSweeps();
  ASSERT_EQ(set("FrameStitch", 4), 0);
  capture();
  EXPECT_EQ(QTXSim_Calls("Write"), 4u * (7 + 13));
  EXPECT_EQ(QTXSim_Calls("Read"), 4u * (2 + 8));
}

TEST_F(SimulatedFrames, CountersStayWithinTheirSweep) {
  ASSERT_EQ(set("FrameStitch", 4), 0);
  capture();
  const uint32_t steps = 8184 / 8 + 1, pulses = 10 * 20;
  uint32_t most = 0;
  for (size_t k = 0; k < 1024; ++k) most = std::max(most, frame[k]);
  EXPECT_GT(most, 0u);
  EXPECT_LE(most, steps * pulses);
  EXPECT_EQ(frame[1024], 0u);
}

TEST_F(SimulatedFrames, CdfFallsFromEveryPulseToNone) {
  ASSERT_EQ(set("Downsampling", 3), 0);
  ASSERT_EQ(set("DACStepFine", 1023), 0);
  uint32_t width = 0, lines = 0;
  ChipOperations &chip = handle->chip->operations;
  ASSERT_EQ(chip.calculateCDF_Size(handle->chip, &width, &lines), 0);
  ASSERT_EQ(width, 32u);
  ASSERT_EQ(lines, 9u);
  std::vector<uint32_t> table(width * lines);
  ASSERT_EQ(chip.getCDF(handle->chip, table.data(), static_cast<int32_t>(table.size())), 0) << trace();
  for (uint32_t k = 0; k < width; ++k) {
    EXPECT_EQ(table[k], 10u * 20u);
    EXPECT_EQ(table[(lines - 1) * width + k], 0u);
    for (uint32_t i = 1; i < lines; ++i) EXPECT_LE(table[i * width + k], table[(i - 1) * width + k]) << i << " " << k;
  }
}

class FirstGenerationMemory : public BenchRadar {
 protected:
  void SetUp() override { start("QTX3400"); }
};

TEST_F(FirstGenerationMemory, ComesInOneRoundTrip) {
  std::vector<uint8_t> memory(1024);
  QTXSim_ResetStatistics();
  EXPECT_EQ(handle->chip->operations.ReadMemory(handle, 0x20, 300, memory.data()), 0) << trace();
  EXPECT_EQ(QTXSim_Calls("Write"), 1u);
  EXPECT_EQ(QTXSim_Calls("Read"), 1u);
  EXPECT_EQ(statistics().bytes_in, 300u);
}

TEST_F(FirstGenerationMemory, EndsInATimeOutWhenOneByteIsLeftOver) {
  std::vector<uint8_t> memory(128);
  EXPECT_EQ(handle->chip->operations.ReadMemory(handle, 0x20, 128, memory.data()), kInterfaceStatus);
  EXPECT_EQ(trace().rfind("FTx232H - Timeout waiting for data: Got 127 bytes, waiting for 128 bytes", 0), 0u)
      << trace();
  EXPECT_EQ(handle->chip->operations.ReadMemory(handle, 0x20, 127, memory.data()), 0) << trace();
}

}  // namespace
