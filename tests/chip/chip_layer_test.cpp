// The chip layer: registry, handles, detection, listings.
#include <gtest/gtest.h>

#include "FakeRadar.h"
#include "support/QTX_ErrorCodes.h"

using namespace pulsekit;

namespace {

TEST(ChipRegistry, NamesModelsByChipId) {
  EXPECT_STREQ(chipIdToChipName(0x305), "QTX3400");
  EXPECT_STREQ(chipIdToChipName(0x306), "QTX3500");
  EXPECT_STREQ(chipIdToChipName(0x309), "QTX3701");
  EXPECT_STREQ(chipIdToChipName(0x308), "QTX3702");
  EXPECT_STREQ(chipIdToChipName(0), "Unknown");
}

TEST(ChipRegistry, ListsModelsAndKeepsWhatFits) {
  const std::string all = "QTX3400 (QTX3400),QTX3500 (QTX3500),QTX3701 (QTX3701),QTX3702 (QTX3702)";
  const struct {
    int32_t size, code;
    std::string text;
  } cases[] = {
      {72, kSuccess, all},
      {71, kBufferTooSmall, all.substr(0, 54)},
      {54, kBufferTooSmall, all.substr(0, 53)},
      {18, kBufferTooSmall, all.substr(0, 17)},
      {17, kBufferTooSmall, ""},
      {1, kBufferTooSmall, ""},
  };
  for (const auto &c : cases) {
    std::vector<char> buffer(100, '#');
    EXPECT_EQ(chipListSupportedChips(buffer.data(), c.size), c.code) << c.size;
    EXPECT_EQ(buffer.data(), c.text) << c.size;
    EXPECT_EQ(buffer[static_cast<size_t>(c.size)], '#') << c.size;
  }
  char untouched = '#';
  EXPECT_EQ(chipListSupportedChips(&untouched, 0), kBufferTooSmall);
  EXPECT_EQ(untouched, '#');
  EXPECT_EQ(chipListSupportedChips(nullptr, 72), kError);
}

TEST(ChipHandle, ComesFilledAndHasOnlyReadTheId) {
  FakeRadar radar;
  radar.registers[2] = 0x309;
  ASSERT_EQ(chipInitHandle(&radar.handle.chip, &radar.handle.error, &radar.handle, "QTX3701"), 0);
  EXPECT_EQ(radar.log, Log{"02 02 <2"});
  const ChipHandle &chip = *radar.handle.chip;
  EXPECT_STREQ(chip.name, "QTX3701");
  EXPECT_EQ(chip.chip_id, 0x309);
  EXPECT_EQ(chip.access, &radar.handle);
  EXPECT_EQ(chip.variables->owner, &radar.handle);
  EXPECT_EQ(chip.error_state, radar.handle.error);
  EXPECT_EQ(chip.sweep_idle, 1u);
  EXPECT_EQ(chip.initializing, 0u);
  const std::vector<char> zeros(1304);
  EXPECT_EQ(std::memcmp(chip.timing_record, zeros.data(), 1304), 0);
  EXPECT_EQ(std::memcmp(chip.saved_delays, zeros.data(), 80), 0);
}

TEST(ChipHandle, IsCreatedWithoutABridgeToo) {
  FakeRadar radar;
  radar.handle.interface_handle = nullptr;
  ASSERT_EQ(chipInitHandle(&radar.handle.chip, &radar.handle.error, &radar.handle, "QTX3702"), 0);
  EXPECT_EQ(radar.handle.chip->chip_id, 0);
  EXPECT_EQ(chipInitChip(radar.handle.chip), kInterfaceNotInitialized);
  EXPECT_NE(radar.trace().find("from: chipInitChip in src/chip/chip:"), std::string::npos) << radar.trace();
}

TEST(ChipHandle, CreationRefusesUnknownModelsAndMissingArguments) {
  FakeRadar radar;
  ChipHandle *chip = nullptr;
  QTX_StackTrace **record = &radar.handle.error;
  EXPECT_EQ(chipInitHandle(&chip, record, &radar.handle, "qtx3701"), kUnknownChip);
  EXPECT_EQ(std::string(radar.handle.error->trace).rfind("   at: chipInitHandle in src/chip/chip:", 0), 0u);
  EXPECT_EQ(chipInitHandle(&chip, record, &radar.handle, "LAST"), kUnknownChip);
  EXPECT_EQ(chipInitHandle(&chip, record, &radar.handle, ""), kUnknownChip);
  EXPECT_EQ(chipInitHandle(&chip, record, nullptr, "QTX3701"), kRadarNotInitialized);
  EXPECT_EQ(chipInitHandle(&chip, record, &radar.handle, nullptr), kError);
  EXPECT_EQ(chipInitHandle(nullptr, record, &radar.handle, "QTX3701"), kError);
  EXPECT_EQ(chipInitHandle(&chip, nullptr, &radar.handle, "QTX3701"), kError);
  EXPECT_EQ(chip, nullptr);
  EXPECT_EQ(chipInitChip(nullptr), kChipNotInitialized);
}

TEST(ChipHandle, ReleaseFreesTheRecordOnlyWhenOneIsGiven) {
  FakeRadar radar;
  for (const char *model : {"QTX3400", "QTX3500", "QTX3701", "QTX3702"}) {
    QTX_StackTrace *record = nullptr;
    QTX_StackTraceInit(&record, nullptr);
    ChipHandle *chip = nullptr;
    ASSERT_EQ(chipInitHandle(&chip, &record, &radar.handle, model), 0);
    EXPECT_EQ(chipFree(&chip, nullptr), 0);
    EXPECT_EQ(chip, nullptr);
    ASSERT_NE(record, nullptr);
    ASSERT_EQ(chipInitHandle(&chip, &record, &radar.handle, model), 0);
    EXPECT_EQ(chipFree(&chip, &record), 0);
    EXPECT_EQ(record, nullptr);
  }
  ChipHandle *none = nullptr;
  EXPECT_EQ(chipFree(&none, nullptr), kChipNotInitialized);
  EXPECT_EQ(chipFree(nullptr, nullptr), kError);

  ChipHandle *chip = nullptr;
  ASSERT_EQ(chipInitHandle(&chip, &radar.handle.error, &radar.handle, "QTX3701"), 0);
  chip->name = "QTX9999";
  EXPECT_EQ(chipFree(&chip, nullptr), kUnknownChip);
  EXPECT_NE(chip, nullptr);
  chip->name = "QTX3701";
  EXPECT_EQ(chipFree(&chip, nullptr), 0);
}

TEST(ChipHandle, AnswersForOperationsThatTheDriverLeavesOut) {
  FakeRadar radar(ByteOrder::kMostFirst);
  ASSERT_EQ(chipInitHandle(&radar.handle.chip, &radar.handle.error, &radar.handle, "QTX3400"), 0);
  ChipHandle *chip = radar.handle.chip;
  uint32_t words[2] = {};
  double number = 0;
  float single = 0;
  const struct {
    std::function<int32_t()> call;
    const char *message, *frame;
  } cases[] = {
      {[&] { return chip->operations.calculateCDF_Size(chip, words, words + 1); },
       "CDF is not implemented for this chip", "NotImplemented_calculateCDF_Size in src/chip/chip:243"},
      {[&] { return chip->operations.getCDF(chip, words, 2); }, "CDF is not implemented for this chip",
       "NotImplemented_getCDF in src/chip/chip:251"},
      {[&] { return chip->operations.getTimingMeasurementResults(chip, &number, 1); },
       "getTimingMeasurementResults is not implemented for this chip",
       "NotImplemented_getTimingMeasurementResults in src/chip/chip:260"},
      {[&] { return chip->operations.measurementSaveDataToFlash(chip, 0); },
       "measurementSaveDataToFlash is not implemented for this chip",
       "NotImplemented_measurementSaveDataToFlash in src/chip/chip:267"},
      {[&] { return chip->operations.measurementLoadDataFromFlash(chip, 0); },
       "measurementLoadDataFromFlash is not implemented for this chip",
       "NotImplemented_measurementLoadDataFromFlash in src/chip/chip:274"},
      {[&] { return chip->operations.CaptureFrame(chip, words, 2, 0); },
       "CaptureFrame is not implemented for this chip", "QTX3400_CaptureFrame in src/chip/QTX3400/QTX3400:"},
      {[&] { return chip->operations.NormalizeFrameDouble(chip, words, &number, 1); },
       "NormalizeFrameDouble is not implemented for this chip",
       "QTX3400_NormalizeFrameDouble in src/chip/QTX3400/QTX3400:"},
      {[&] { return chip->operations.NormalizeFrameFloat(chip, words, &single, 1); },
       "NormalizeFrameFloat is not implemented for this chip",
       "QTX3400_NormalizeFrameFloat in src/chip/QTX3400/QTX3400:"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(c.call(), kNotImplemented);
    EXPECT_EQ(radar.handle.error->code, kNotImplemented);
    EXPECT_STREQ(radar.handle.error->message, c.message);
    EXPECT_EQ(std::string(radar.handle.error->trace).rfind(std::string("   at: ") + c.frame, 0), 0u) << radar.trace();
  }
}

struct Detected {
  ByteOrder order;
  uint64_t id;
  const char *name;
  size_t reads;
};

class Detection : public ::testing::TestWithParam<Detected> {};

INSTANTIATE_TEST_SUITE_P(Ids, Detection,
                         ::testing::Values(Detected{ByteOrder::kMostFirst, 0x305, "QTX3400", 1},
                                           Detected{ByteOrder::kMostFirst, 0x306, "QTX3500", 2},
                                           Detected{ByteOrder::kLeastFirst, 0x309, "QTX3701", 3},
                                           Detected{ByteOrder::kLeastFirst, 0x308, "QTX3702", 4},
                                           Detected{ByteOrder::kLeastFirst, 0x305, "Unknown", 4},
                                           Detected{ByteOrder::kLeastFirst, 0, "Unknown", 4}));

TEST_P(Detection, TakesTheFirstModelWhoseDriverReadsItsId) {
  FakeRadar radar(GetParam().order);
  radar.registers[2] = GetParam().id;
  char name[64] = "something else";
  EXPECT_EQ(chipGetConnectedChipName(&radar.handle.chip, &radar.handle.error, &radar.handle, name), 0);
  EXPECT_STREQ(name, GetParam().name);
  EXPECT_EQ(radar.log, Log(GetParam().reads, "02 02 <2"));
  EXPECT_EQ(radar.handle.chip, nullptr);
}

TEST(ChipDetection, FindsNothingOnABusThatFails) {
  FakeRadar radar;
  radar.fault = [](const std::string &) { return kInterfaceTimeout; };
  char name[64];
  EXPECT_EQ(chipGetConnectedChipName(&radar.handle.chip, &radar.handle.error, &radar.handle, name), 0);
  EXPECT_STREQ(name, "Unknown");
  EXPECT_EQ(chipGetConnectedChipName(&radar.handle.chip, &radar.handle.error, nullptr, name), kRadarNotInitialized);
  EXPECT_EQ(chipGetConnectedChipName(&radar.handle.chip, &radar.handle.error, &radar.handle, nullptr), kError);
}

TEST(ChipListings, FollowTheVariableSet) {
  FakeRadar radar;
  ASSERT_EQ(chipInitHandle(&radar.handle.chip, &radar.handle.error, &radar.handle, "QTX3701"), 0);
  ChipHandle *chip = radar.handle.chip;
  std::vector<char> text(8192);
  EXPECT_EQ(chipListActions(chip, text.data(), 8192), 0);
  EXPECT_EQ(std::string(text.data()).rfind("LoadOutputBuffer,ResetCounters,", 0), 0u) << text.data();
  EXPECT_EQ(chipListVariables(chip, text.data(), 8192), 0);
  EXPECT_EQ(std::string(text.data()).rfind("ForceZero,ForceOne,ChipID,", 0), 0u) << text.data();
  EXPECT_EQ(chipListVariables(chip, text.data(), 20), kBufferTooSmall);
  EXPECT_EQ(chipListVariables(nullptr, text.data(), 8192), kError);
  EXPECT_EQ(chipListActions(nullptr, text.data(), 8192), kError);

  VariableSet *variables = std::exchange(chip->variables, nullptr);
  EXPECT_EQ(chipListVariables(chip, text.data(), 8192), kChipNotInitialized);
  EXPECT_EQ(chipListActions(chip, text.data(), 8192), kChipNotInitialized);
  chip->variables = variables;
}

}  // namespace
