// The timing record: its bytes in flash and the vector of results that a host gets.
#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <vector>

#include "MeasuredRadar.h"
#include "module/module.h"
#include "support/trace.h"

using namespace pulsekit;
using namespace pulsekit::chip;

namespace {

constexpr size_t kRecordSize = 1304;

// A module with a flash of bytes.
class FlashModule {
 public:
  FlashModule() {
    variable.name = 1;
    variable.value = 4096;
    variable.items = kNoItems;
    variable.flags = VAR_FLAG_INT | VAR_FLAG_VISIBLE | VAR_FLAG_READ_ONLY;
    variable.enabled = 1;
    set.count = 1;
    set.variables = &variable;
    set.max_symbol = 1;
    set.symbols = kSymbols;
    set.owner = this;
    module.variables = &set;
    module.ReadFlashMemory = [](ModuleHandle *m, uint32_t address, uint8_t *buffer, int32_t length) {
      FlashModule *self = of(m);
      self->last_address = address;
      if (self->code == 0) std::memcpy(buffer, self->bytes.data(), static_cast<size_t>(length));
      self->last_length = static_cast<uint32_t>(length);
      return self->code;
    };
    module.WriteFlashMemory = [](ModuleHandle *m, uint32_t address, const uint8_t *data, uint32_t length) {
      FlashModule *self = of(m);
      self->last_address = address;
      self->last_length = length;
      if (self->code == 0) self->bytes.assign(data, data + length);
      return self->code;
    };
  }

  ModuleHandle module{};
  VariableSet set{};
  Variable variable{};
  std::vector<uint8_t> bytes = std::vector<uint8_t>(kRecordSize, 0xff);
  uint32_t last_address = 0, last_length = 0;
  int32_t code = 0;

 private:
  static constexpr uint32_t kNoItems[] = {0};
  static constexpr const char *kSymbols[] = {"(invalid symbol)", "FlashBlockSize"};
  static FlashModule *of(ModuleHandle *m) { return static_cast<FlashModule *>(m->variables->owner); }
};

class Record : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(radar.start());
    radar.handle.module = &flash.module;
    flash.set.error_state = flash.module.error_state = radar.handle.error;
    bytes = reinterpret_cast<uint8_t *>(radar.record);
    operations = &radar.handle.chip->operations;
  }
  void TearDown() override { radar.handle.module = nullptr; }

  int32_t save(uint32_t block) { return operations->measurementSaveDataToFlash(radar.handle.chip, block); }
  int32_t load(uint32_t block) { return operations->measurementLoadDataFromFlash(radar.handle.chip, block); }

  // Bytes that are all different from their neighbours, with averages that the variables accept.
  void fill() {
    for (size_t i = 0; i < kRecordSize; ++i) bytes[i] = static_cast<uint8_t>(i * 37 + 11);
    const double averages[] = {1.3e-9, 43e-12, 1.6e-12, 37e9, 30.5, 28.5};
    std::memcpy(bytes + 480, averages, sizeof averages);
  }

  MeasuredRadar radar;
  FlashModule flash;
  uint8_t *bytes = nullptr;
  const ChipOperations *operations = nullptr;
};

template <typename T>
T at(const uint8_t *bytes, size_t offset) {
  T value;
  std::memcpy(&value, bytes + offset, sizeof value);
  return value;
}

}  // namespace

TEST_F(Record, ResultsAreTheRecordInItsOrder) {
  fill();
  std::vector<double> results(579 + 1, -1.0);
  ASSERT_EQ(operations->getTimingMeasurementResults(radar.handle.chip, results.data(), 515), 0);

  EXPECT_EQ(std::memcmp(results.data(), bytes, 8), 0) << "the first word is copied bit by bit";
  EXPECT_EQ(results[1], static_cast<double>(at<uint64_t>(bytes, 8)));
  for (size_t i = 0; i < 3; ++i) EXPECT_EQ(results[2 + i], at<int32_t>(bytes, 16 + 4 * i)) << i;
  for (size_t i = 0; i < 192; ++i) EXPECT_EQ(results[5 + i], bytes[32 + i]) << i;
  for (size_t i = 0; i < 60; ++i) EXPECT_EQ(results[197 + i], at<uint16_t>(bytes, 224 + 2 * i)) << i;
  for (size_t i = 0; i < 120; ++i) EXPECT_EQ(results[257 + i], bytes[344 + i]) << i;
  for (size_t i = 0; i < 4; ++i) EXPECT_EQ(results[377 + i], at<int32_t>(bytes, 464 + 4 * i)) << i;
  for (size_t i = 0; i < 6; ++i) EXPECT_EQ(results[381 + i], at<double>(bytes, 480 + 8 * i)) << i;
  for (size_t i = 0; i < 192; ++i) {
    EXPECT_EQ(results[387 + i], static_cast<double>(at<float>(bytes, 528 + 4 * i))) << i;
  }
  EXPECT_EQ(results[579], -1.0) << "more than 579 results";
}

TEST_F(Record, ResultsNeedRoom) {
  std::vector<double> results(579, -1.0);
  origin(radar.handle.error, {"earlier", "failure", 1}, kError, "earlier");
  EXPECT_EQ(operations->getTimingMeasurementResults(radar.handle.chip, results.data(), 514), kBufferTooSmall);
  EXPECT_EQ(radar.handle.error->code, kBufferTooSmall);
  EXPECT_EQ(std::string(radar.handle.error->trace).find("   at: QTX3701_getTimingMeasurementResults in "), 0u);
  EXPECT_EQ(std::string(radar.handle.error->trace).find("earlier"), std::string::npos);
  EXPECT_EQ(results[0], -1.0);
  EXPECT_EQ(operations->getTimingMeasurementResults(radar.handle.chip, nullptr, 579), kError);
}

TEST_F(Record, SavingWritesTheRecordWithItsChecksumAtTheBlock) {
  fill();
  const std::vector<uint8_t> before(bytes, bytes + kRecordSize);
  ASSERT_EQ(save(3), 0) << radar.trace();
  EXPECT_EQ(flash.last_address, 12'288u);
  EXPECT_EQ(flash.last_length, kRecordSize);
  EXPECT_TRUE(std::equal(before.begin(), before.begin() + 1300, flash.bytes.begin()));
  EXPECT_EQ(at<uint32_t>(flash.bytes.data(), 1300), std::accumulate(before.begin(), before.begin() + 1296, 0u));
  EXPECT_EQ(radar.record->checksum, at<uint32_t>(flash.bytes.data(), 1300));

  flash.variable.value = 65'536;
  ASSERT_EQ(save(3), 0);
  EXPECT_EQ(flash.last_address, 196'608u);
  EXPECT_EQ(save(65'537), 1) << "addresses have 32 bits";
  EXPECT_EQ(flash.last_address, 196'608u);
}

TEST_F(Record, LoadingRestoresWhatWasSaved) {
  fill();
  ASSERT_EQ(save(3), 0);
  const std::vector<uint8_t> saved = flash.bytes;
  std::memset(bytes, 0, kRecordSize);
  ASSERT_EQ(load(3), 0) << radar.trace();
  EXPECT_EQ(flash.last_address, 12'288u);
  EXPECT_EQ(flash.last_length, kRecordSize);
  EXPECT_EQ(std::memcmp(bytes, saved.data(), kRecordSize), 0);
  EXPECT_EQ(radar.getReal("DelayCoarseTune"), 1.3e-9);
  EXPECT_EQ(radar.getReal("DelayMediumTune"), 43e-12);
  EXPECT_EQ(radar.getReal("DelayFineTune"), 1.6e-12);
  EXPECT_EQ(radar.getReal("SamplesPerSecond"), 37e9);
  EXPECT_EQ(radar.getReal("MediumInCoarseAverage"), 30.5);
  EXPECT_EQ(radar.getReal("FineInMediumAverage"), 28.5);
  ASSERT_EQ(save(3), 0);
  EXPECT_EQ(flash.bytes, saved);
}

TEST_F(Record, APreparationOfAnotherPowerCycleIsMadeAnew) {
  ASSERT_EQ(QTX3701_TMeasPrepare(radar.variables()), 0);
  ASSERT_EQ(save(3), 0);
  ASSERT_EQ(chipInitChip(radar.handle.chip), 0);
  EXPECT_EQ(radar.record->prepared, 0);
  ASSERT_EQ(load(3), 0);
  EXPECT_EQ(radar.record->prepared, 1) << "as stored";
  ASSERT_EQ(QTX3701_measureMediumTuneElement(radar.variables(), 0), 0);
  EXPECT_EQ(radar.get("FMeasEnable"), 1) << "nothing would be measured";
}

TEST_F(Record, AnErasedBlockOrABrokenByteIsNoRecord) {
  fill();
  const std::vector<uint8_t> before(bytes, bytes + kRecordSize);
  EXPECT_EQ(load(3), kNoValidSetup);
  EXPECT_EQ(std::string(radar.handle.error->trace).find("   at: QTX3701_measurementLoadDataFromFlash in "), 0u);
  EXPECT_EQ(std::memcmp(bytes, before.data(), kRecordSize), 0);
  EXPECT_EQ(radar.getReal("DelayCoarseTune"), 1.25e-9);

  ASSERT_EQ(save(3), 0);
  for (const size_t broken : {0u, 500u, 1295u, 1300u, 1303u}) {
    flash.bytes[broken] ^= 1;
    EXPECT_EQ(load(3), kNoValidSetup) << broken;
    flash.bytes[broken] ^= 1;
  }
  flash.bytes[1296] ^= 1;
  EXPECT_EQ(load(3), 0) << "the prepared flag is outside the checksum";
}

TEST_F(Record, ABlockOfZerosIsACalibrationOfZeros) {
  fill();
  flash.bytes.assign(kRecordSize, 0);
  ASSERT_EQ(load(0), 0) << radar.trace();
  EXPECT_EQ(std::count(bytes, bytes + kRecordSize, 0), static_cast<int64_t>(kRecordSize));
  EXPECT_EQ(radar.getReal("SamplesPerSecond"), 0.0);
  EXPECT_EQ(radar.getReal("MediumInCoarseAverage"), 0.0);
}

TEST_F(Record, ALoadStopsAtTheFirstAverageThatIsRefused) {
  fill();
  radar.record->delay_fine_tune = 2;  // seconds
  ASSERT_EQ(save(0), 0);
  std::memset(bytes, 0, kRecordSize);
  EXPECT_EQ(load(0), kIllegalValue);
  EXPECT_STREQ(radar.handle.error->message, "Value greater than max value");
  EXPECT_TRUE(radar.traceNames("QTX3701_measurementLoadDataFromFlash"));
  EXPECT_EQ(radar.getReal("DelayMediumTune"), 43e-12);
  EXPECT_EQ(radar.getReal("DelayFineTune"), 1.5e-12);
  EXPECT_EQ(radar.getReal("SamplesPerSecond"), 36e9);
  EXPECT_EQ(std::memcmp(bytes, flash.bytes.data(), kRecordSize), 0) << "the record keeps what was loaded";
}

TEST_F(Record, FlashFailuresComeThroughWithTheirCode) {
  fill();
  flash.code = kFlashAccess;
  EXPECT_EQ(load(0), kFlashAccess);
  EXPECT_TRUE(radar.traceNames("QTX3701_measurementLoadDataFromFlash"));
  flash.code = kFlashProgram;
  EXPECT_EQ(save(0), kFlashProgram);
  EXPECT_TRUE(radar.traceNames("QTX3701_measurementSaveDataToFlash"));
  flash.variable.flags &= ~uint32_t{VAR_FLAG_VISIBLE};
  for (auto *operation : {operations->measurementSaveDataToFlash, operations->measurementLoadDataFromFlash}) {
    EXPECT_EQ(operation(radar.handle.chip, 0), kVariableNotVisible);
  }
  radar.handle.module = nullptr;
  for (auto *operation : {operations->measurementSaveDataToFlash, operations->measurementLoadDataFromFlash}) {
    EXPECT_EQ(operation(radar.handle.chip, 0), kModuleNotInitialized);
    EXPECT_EQ(operation(nullptr, 0), kChipNotInitialized);
  }
}
