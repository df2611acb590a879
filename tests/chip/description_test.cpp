// The variables and actions of the chip models, against literal tables: types, ranges, values at start, readouts, and
// which function of the driver each one reaches.
#include <gtest/gtest.h>

#include <set>

#include "FakeRadar.h"
#include "support/QTX_ErrorCodes.h"
#include "support/trace.h"

using namespace pulsekit;

namespace {

struct Slot {
  Slot(int64_t number) : bits(static_cast<uint64_t>(number)) {}
  Slot(int number) : Slot(int64_t{number}) {}
  Slot(double number) : bits(doubleToBits(number)) {}
  Slot(const char *text) : item(text) {}
  uint64_t bits = 0;
  const char *item = nullptr;
};

struct Row {
  const char *name;
  uint32_t flags;
  Slot min, max, value;
};

// QTX3701 as it starts; the values of readouts and live reads are left aside.
const Row kSecondGeneration[] = {
    {"ForceZero", 0xc02, 0, 255, 0},
    {"ForceOne", 0xc02, 0, 255, 0},
    {"ChipID", 0xc02, 0, 65535, 0},
    {"MISOHiZEnable", 0x800, 0, 1, 1},
    {"AsyncOutput", 0x800, 0, 7, 0},
    {"SampleEveryPulse", 0x800, 0, 1, 0},
    {"CounterMSb", 0x800, 0, 31, 31},
    {"CounterLSb", 0x800, 0, 31, 0},
    {"Downsampling", 0x800, 0, 3, 0},
    {"DCOTunerWaitCycles", 0x800, 0, 65535, 10},
    {"DCOOutputDiv", 0x800, 0, 1, 0},
    {"DCOConfigVal", 0x800, 0, 511, 216},
    {"DCOEnable", 0x800, 0, 1, 0},
    {"MClkSource", 0x800, 0, 1, 0},
    {"MClkDiv", 0x800, 0, 3, 0},
    {"MClkEnable", 0x800, 0, 1, 1},
    {"DCOTunerEnable", 0x800, 0, 1, 0},
    {"FMeasEnable", 0x800, 0, 1, 0},
    {"MeasClkSource", 0x800, 0, 1, 1},
    {"MClkMeasMode", 0x800, 0, 1, 0},
    {"MeasClkEnable", 0x800, 0, 1, 0},
    {"FMeasNumCycles", 0x800, 0, 4294967295, 10000},
    {"DCOTarget", 0x800, 0, 4294967295, 21100},
    {"FMeasResult", 0xc02, 0, 4294967295, 0},
    {"DCOTunerResult", 0xc02, 0, 511, 0},
    {"DCOTunerBusy", 0xc02, 0, 1, 0},
    {"FMeasBusy", 0xc02, 0, 1, 0},
    {"SPDCT", 0x800, 0, 15, 0},
    {"SPDMT", 0x800, 0, 63, 0},
    {"LFSRTaps", 0x800, 0, 0xfffff, 0x90000},
    {"MClkShaper", 0x800, 0, 1, 0},
    {"SPDShaper", 0x800, 0, 1, 0},
    {"SDShaper", 0x800, 0, 1, 0},
    {"SDFTEnable", 0x800, 0, 1, 0},
    {"SPDFTEnable", 0x800, 0, 1, 0},
    {"FTCtrl", 0x800, 0, 1, 0},
    {"SPDFT", 0x800, 0, 9223372036854775807, 0},
    {"ClkOutEnable", 0x800, 0, 1, 0},
    {"ClkOutSource", 0x800, 0, 1, 0},
    {"SDCT", 0x800, 0, 63, 1},
    {"PRFDivide", 0x800, 0, 255, 1},
    {"SDCTEnable", 0x800, 0, 15, 8},
    {"SPDCTEnable", 0x800, 0, 3, 2},
    {"SDMT", 0x800, 0, 63, 2},
    {"LFSRBitEnable", 0x800, 0, 63, 63},
    {"StaggeredPRFEnable", 0x800, 0, 1, 1},
    {"SDFT", 0x800, 0, 9223372036854775807, 0},
    {"StaggeredPRFDelay", 0x800, 0, 255, 0},
    {"SWMeasTargetCycles", 0x800, 0, 1099511627775, 65535},
    {"SDMeasResult", 0xc02, 0, 1099511627775, 0},
    {"SWMeasBusy", 0xc02, 0, 1, 0},
    {"SPDMeasResult", 0xc02, 0, 1099511627775, 0},
    {"SWMeasClkSignalOverride", 0x800, 0, 1, 0},
    {"SWWaitCycles", 0x800, 0, 127, 30},
    {"SWMeasEnable", 0x800, 0, 1, 1},
    {"SWSweepMode", 0x800, 0, 1, 0},
    {"SDLMeasEnable", 0x800, 0, 1, 0},
    {"PGMeasResult", 0xc02, 0, 1099511627775, 0},
    {"SWMeasCyclesCounter", 0xc02, 0, 1099511627775, 0},
    {"SDLMeasResult", 0xc02, 0, 1099511627775, 0},
    {"BiasOverride", 0x800, 0, 1, 0},
    {"SendEveryPulse", 0x800, 0, 1, 0},
    {"PGSelect", 0x800, 0, 15, 5},
    {"Sweeping", 0xc02, 0, 1, 0},
    {"Iterations", 0x800, 0, 65535, 10},
    {"PulsesPerStep", 0x800, 0, 0xffffff, 20},
    {"DACRegularStepHoldTime", 0x800, 0, 65535, 0},
    {"DACFirstIterationSetupTime", 0x800, 0, 65535, 10},
    {"SweepInterleavingEnable", 0x800, 0, 1, 0},
    {"SweepPhase", 0x800, 0, 1, 0},
    {"Reserved", 0x800, 0, 1, 0},
    {"AutoBidirEnable", 0x800, 0, 1, 1},
    {"DACFirstStepSetupTime", 0x800, 0, 65535, 1},
    {"DACMax", 0x800, 0, 8191, 8184},
    {"DACRegularStepSetupTime", 0x800, 0, 65535, 1},
    {"DACMin", 0x800, 0, 8191, 0},
    {"DACLastIterationHoldTime", 0x800, 0, 65535, 0},
    {"DACStepCoarse", 0x800, 0, 8191, 8},
    {"DACStepFine", 0x800, 0, 8191, 8},
    {"DACLastStepHoldTime", 0x800, 0, 65535, 0},
    {"SignalOverride", 0x800, 0, 1, 0},
    {"SignalOverrideVal", 0x800, 0, 1, 0},
    {"SICEnable", 0x800, 0, 1, 0},
    {"VthOutEnable", 0x800, 0, 1, 0},
    {"DACOverride", 0x800, 0, 1, 0},
    {"DACOverrideVal", 0x800, 0, 8191, 0},
    {"Chip", 0xa, 0, 0, "QTX3701"},
    {"FrameOffsetUseDelayedClock", 0x800, 0, 1, 1},
    {"PipeLining", 0x800, 0, 1, 0},
    {"FrameStitch", 0x800, 1, 15, 1},
    {"FrameSize", 0x1000, 0.0, 1.0, 256 / 36e9},
    {"BytesPerCounter", 0x800, 1, 4, 4},
    {"CounterBitShift", 0x800, 0, 23, 0},
    {"BytesPerFrame", 0x802, 0, 0x10000, 1024},
    {"ZoomMin", 0x1000, 0.0, 100.0, 0.0},
    {"ZoomMax", 0x1000, 0.0, 100.0, 99.915},
    {"SamplersOnChip", 0x802, 256, 256, 256},
    {"SamplesPerSecond", 0x1000, 0.0, 1000000000000.0, 36000000000.0},
    {"SamplersPerFrame", 0x802, 0, 0x10000, 256},
    {"SampleDelay", 0x1000, 0.0, 1.0, 0.4 / 299792458},
    {"SampleDelayToReference", 0x1000, 0.0, 1.0, 0.0},
    {"SampleDelayFromReference", 0x1000, 0.0, 1.0, 0.4 / 299792458},
    {"OffsetDistanceFromReference", 0x1000, 0.0, 100.0, 0.2},
    {"FrameOffsetDelayTime_LiveRead", 0x1012, 0.0, 1.0, 0.0},
    {"TimingMeasurementThreshold", 0x1000, 0.0, 1.0, 0.9},
    {"SamplerLengthCompensation", 0x1000, 0.0, 10.0, 4.5},
    {"SignalStartOfSweep", 0x800, 0, 1, 0},
    {"CDF_SpreadingFactor", 0x800, 0, 100, 1},
    {"CDF_ReturnDACToZero", 0x800, 0, 1, 1},
    {"ClockFrequency", 0x800, 0, 500000000, 100000000},
    {"MCLKFrequency_LiveRead", 0x812, 0, 300000000, 0},
    {"CoarseTuneMeasureMax", 0x800, 0, 63, 63},
    {"DelayCoarseTune", 0x1000, 0.0, 1.0, 1.25e-9},
    {"DelayMediumTune", 0x1000, 0.0, 1.0, 4.2e-11},
    {"DelayFineTune", 0x1000, 0.0, 1.0, 1.5e-12},
    {"MediumInCoarseAverage", 0x1000, 0.0, 64.0, 30.0},
    {"FineInMediumAverage", 0x1000, 0.0, 64.0, 28.0},
    {"TimingMeasurementValue_LiveRead", 0x1012, 0.0, 999.0, 0.0},
    {"TimingMeasurementRawValue", 0x800, 0, 9999999, 0},
    {"TMSamples", 0x800, 0, 255, 10},
    {"DACStep", 0x800, 1, 8191, 8},
    {"DCOActualFrequency", 0x800, 0, 999999999, 0},
    {"DCOTargetFrequency", 0x800, 0, 999999999, 0},
    {"TMeasLastValue", 0x1000, 0.0, 1.0, 0.0},
    {"TMeasLastValueSD", 0x1000, 0.0, 1.0, 0.0},
    {"TMeasLastValueSPD", 0x1000, 0.0, 1.0, 0.0},
    {"TMeasLastValueSDL", 0x1000, 0.0, 1.0, 0.0},
    {"TMeasLastValuePGD", 0x1000, 0.0, 1.0, 0.0},
};

const char *const kSecondGenerationActions =
    "LoadOutputBuffer,ResetCounters,StartMeas,CalibrateDCO,FMeasClearResult,StaggeredPRFReset,SWStopMeas,StartSweep,"
    "ResetSweepController,EmptyPipeLine,TMeasPrepare,TMeasDisable,TMeasStartMeasure,TMeasUpdateResults,"
    "MeasureAllCoarseTuneElements,MeasureAllMediumTuneElements,MeasureSampleDelayLines,MeasureAll";

struct Model {
  const char *name;
  uint64_t id;
  ByteOrder order;
};

const Model kModels[] = {{"QTX3400", 0x305, ByteOrder::kMostFirst},
                         {"QTX3500", 0x306, ByteOrder::kMostFirst},
                         {"QTX3701", 0x309, ByteOrder::kLeastFirst},
                         {"QTX3702", 0x308, ByteOrder::kLeastFirst}};

std::string actionsOf(VariableSet *set) {
  char text[2000];
  EXPECT_EQ(varListActions(set, text, sizeof text), 0);
  return text;
}

std::string itemsOf(VariableSet *set, const char *name) {
  std::string text;
  for (const uint32_t *item = varNamed(set, name)->items; *item; ++item) {
    text += (text.empty() ? "" : ",") + std::string(sym_to_str(set, static_cast<int32_t>(*item)));
  }
  return text;
}

int32_t trigger(FakeRadar &radar, const char *action) {
  return varActionTrigger(radar.handle.chip->variables, varActionNamed(radar.handle.chip->variables, action));
}

void failAlways(FakeRadar &radar) {
  radar.fault = [&radar](const std::string &) {
    return origin(radar.handle.error, {"bridge", "test", 1}, kInterfaceTimeout);
  };
}

class ModelVariables : public ::testing::TestWithParam<Model> {
 protected:
  void SetUp() override {
    radar.idle_status = 0;
    radar.registers[2] = GetParam().id;
    radar.start(GetParam().name);
    set = radar.handle.chip->variables;
  }
  FakeRadar radar{GetParam().order};
  VariableSet *set = nullptr;
};

INSTANTIATE_TEST_SUITE_P(All, ModelVariables, ::testing::ValuesIn(kModels),
                         [](const auto &test) { return test.param.name; });

TEST_P(ModelVariables, HoldEachTextOnce) {
  EXPECT_STREQ(set->name, GetParam().name);
  EXPECT_STREQ(set->version, "3.2.1");
  EXPECT_STREQ(sym_to_str(set, 0), "(invalid symbol)");
  std::set<std::string> texts, needed = {"(invalid symbol)"};
  for (int32_t i = 0; i <= set->max_symbol; ++i) texts.insert(sym_to_str(set, i));
  for (int32_t i = 0; i < set->count; ++i) {
    needed.insert(varGetName_ByNumber(set, i));
    for (const uint32_t *item = set->variables[i].items; *item; ++item) {
      needed.insert(sym_to_str(set, static_cast<int32_t>(*item)));
    }
    EXPECT_STREQ(set->variables[i].description, "");
  }
  for (int32_t i = 0; i < set->action_count; ++i) {
    needed.insert(sym_to_str(set, static_cast<int32_t>(set->actions[i].name)));
  }
  EXPECT_EQ(texts.size(), static_cast<size_t>(set->max_symbol) + 1);
  EXPECT_EQ(texts, needed);
}

TEST_P(ModelVariables, KnowTheirOwnChipOnly) {
  EXPECT_EQ(itemsOf(set, "Chip"), std::string("unknown,") + GetParam().name);
  EXPECT_STREQ(sym_to_str(set, static_cast<int32_t>(radar.variable("Chip")->value)), GetParam().name);
  for (const Model &other : kModels) {
    radar.registers[2] = other.id;
    ASSERT_EQ(varsResetAll(set), 0);
    const char *chip = sym_to_str(set, static_cast<int32_t>(radar.variable("Chip")->value));
    EXPECT_STREQ(chip, other.id == GetParam().id ? GetParam().name : "unknown") << other.id;
  }
}

TEST_P(ModelVariables, SetsOfTheSameModelShareNothingButTheErrorRecord) {
  VariableSet before = *set;
  ChipHandle *second = nullptr;
  ASSERT_EQ(chipInitHandle(&second, &radar.handle.error, &radar.handle, GetParam().name), 0);
  EXPECT_NE(second->variables->variables, before.variables);
  EXPECT_EQ(second->variables->error_state, radar.handle.error);
  EXPECT_EQ(second->variables->owner, &radar.handle);
  EXPECT_EQ(chipFree(&second, nullptr), 0);
  EXPECT_EQ(radar.get("Iterations"), 10);
}

class SecondGenerationModels : public ModelVariables {};

INSTANTIATE_TEST_SUITE_P(All, SecondGenerationModels, ::testing::Values(kModels[2], kModels[3]),
                         [](const auto &test) { return test.param.name; });

TEST_P(SecondGenerationModels, HaveTheirTypesRangesAndValues) {
  ASSERT_EQ(set->count, static_cast<int32_t>(std::size(kSecondGeneration)));
  for (int32_t i = 0; i < set->count; ++i) {
    const Row &row = kSecondGeneration[i];
    const Variable &variable = set->variables[i];
    EXPECT_STREQ(varGetName_ByNumber(set, i), row.name);
    EXPECT_EQ(variable.flags & ~uint32_t{VAR_FLAG_VISIBLE | VAR_FLAG_AUTO}, row.flags) << row.name;
    EXPECT_EQ(variable.min, row.min.bits) << row.name;
    EXPECT_EQ(variable.max, row.max.bits) << row.name;
    if (row.value.item || row.flags & (VAR_FLAG_LIVE_READ | VAR_FLAG_FROM_BACKEND)) continue;
    if (row.flags & VAR_FLAG_FLOAT) {
      EXPECT_DOUBLE_EQ(bitsToDouble(variable.value), bitsToDouble(row.value.bits)) << row.name;
    } else {
      EXPECT_EQ(variable.value, row.value.bits) << row.name;
    }
  }
  EXPECT_EQ(actionsOf(set), kSecondGenerationActions);
}

// ---- Second generation ----

class SecondGenerationVariables : public ::testing::Test {
 protected:
  void SetUp() override {
    radar.idle_status = 0;
    radar.start("QTX3701");
    set = radar.handle.chip->variables;
  }
  FakeRadar radar;
  VariableSet *set = nullptr;
};

struct Readout {
  const char *name;
  size_t address;
  uint64_t present;
  int64_t value;
};

TEST_F(SecondGenerationVariables, ReadoutsAreRegistersOrTheirFields) {
  const Readout readouts[] = {
      {"ForceZero", 0x00, 0x5a, 0x5a},
      {"ForceOne", 0x01, 0xa5, 0xa5},
      {"ChipID", 0x02, 0x0309, 0x0309},
      {"Sweeping", 0x47, 1, 1},
      {"FMeasResult", 0x5b, 0xfedcba98, 0xfedcba98},
      {"DCOTunerResult", 0x5c, 0xfd56, 0x155},
      {"DCOTunerBusy", 0x5c, 0xfd56, 1},
      {"FMeasBusy", 0x5c, 0xfd56, 0},
      {"DCOTunerBusy", 0x5c, 0xfffd, 0},
      {"FMeasBusy", 0x5c, 0x0001, 1},
      {"PGMeasResult", 0x77, 0xfedcba9876, 0xfedcba9876},
      {"SDLMeasResult", 0x78, 0xfedcba9876, 0xfedcba9876},
      {"SDMeasResult", 0x79, 0xfedcba9876, 0xfedcba9876},
      {"SPDMeasResult", 0x7a, 0xfedcba9876, 0xfedcba9876},
      {"SWMeasCyclesCounter", 0x7d, 0xfedcba9876, 0xfedcba9876},
      {"SWMeasBusy", 0x7f, 1, 1},
  };
  radar.idle_status = 1;
  for (const Readout &readout : readouts) {
    radar.registers[readout.address] = readout.present;
    EXPECT_EQ(radar.get(readout.name), readout.value) << readout.name << " of " << readout.present;
  }
}

TEST_F(SecondGenerationVariables, AReadoutThatCannotBeReadFails) {
  radar.fault = [](const std::string &) { return kInterfaceTimeout; };
  uint64_t value = 1;
  EXPECT_EQ(varGetValue(set, radar.variable("FMeasResult"), &value), kInterfaceTimeout);
  EXPECT_EQ(value, 0u);
  const std::string trace = radar.handle.error->trace;
  EXPECT_NE(trace.find("from: spi_QTX3701_getreg_0x5b_91 in src/chip/QTX3701/QTX3701-registers-autogen:"), trace.npos)
      << trace;
}

TEST_F(SecondGenerationVariables, SettingsAreReadAsStored) {
  radar.registers[0x31] = 77;
  radar.log.clear();
  EXPECT_EQ(radar.get("PulsesPerStep"), 20);
  EXPECT_EQ(radar.log, Log{});
}

TEST_F(SecondGenerationVariables, LiveReadsMeasure) {
  ASSERT_EQ(radar.set("MClkDiv", 2), 0);
  EXPECT_EQ(radar.get("MCLKFrequency_LiveRead"), 25000000);
  ASSERT_EQ(radar.set("StaggeredPRFDelay", 3), 0);
  uint64_t bits = 0;
  ASSERT_EQ(varGetValue(set, radar.variable("FrameOffsetDelayTime_LiveRead"), &bits), 0);
  EXPECT_FLOAT_EQ(static_cast<float>(bitsToDouble(bits)), 3 / 25e6f);
  ASSERT_EQ(varSetIntValue(set, radar.variable("TimingMeasurementRawValue"), 9), 0);
  ASSERT_EQ(varGetValue(set, radar.variable("TimingMeasurementValue_LiveRead"), &bits), 0);
  EXPECT_EQ(bitsToDouble(bits), 0.0);
  EXPECT_EQ(radar.get("TimingMeasurementRawValue"), 0);
  EXPECT_EQ(radar.variable("MCLKFrequency_LiveRead")->value, 0u) << "a live read is not kept";
}

TEST_F(SecondGenerationVariables, TheFirstDependentThatFailsEndsTheChain) {
  radar.fault = [](const std::string &line) { return line.rfind("ec", 0) == 0 ? kInterfaceWrite : kSuccess; };
  EXPECT_EQ(radar.setReal("SampleDelay", 5e-9), kInterfaceWrite);
  EXPECT_EQ(radar.changes(), Log{"eb 01 04"}) << "SDCT comes before SDMT, SDFT and StaggeredPRFDelay after it";
  EXPECT_EQ(radar.getReal("SampleDelay"), 5e-9);
  const std::string trace = radar.handle.error->trace;
  size_t at = 0;
  for (const char *frame : {"spi_QTX3701_setreg_0x6c_108 in src/chip/QTX3701/QTX3701-registers-autogen:",
                            "var_func_QTX3701_SDMT in src/chip/QTX3701/QTX3701-vars-autogen:",
                            "var_func_QTX3701_SampleDelay in src/chip/QTX3701/QTX3701-vars-autogen:",
                            "varSetValue_Sub in src/support/vars:"}) {
    at = trace.find(frame, at);
    ASSERT_NE(at, trace.npos) << frame << "\n" << trace;
  }
}

TEST_F(SecondGenerationVariables, ADelayThatIsWrittenButNotRestartedFails) {
  radar.fault = [](const std::string &line) { return line == "ad 00" ? kInterfaceWrite : kSuccess; };
  EXPECT_EQ(radar.set("StaggeredPRFDelay", 9), kInterfaceWrite);
  EXPECT_EQ(radar.registers[0x62], 9u);
}

TEST_F(SecondGenerationVariables, TheTargetFrequencyTunesTheOscillator) {
  radar.registers[0x5b] = 21100;
  ASSERT_EQ(radar.set("DCOTargetFrequency", 211000000), 0) << radar.trace();
  EXPECT_EQ(radar.changes().back(), "a1 00");
  EXPECT_EQ(radar.get("DCOTarget"), 21100);
  EXPECT_EQ(radar.get("DCOActualFrequency"), 211000000);
}

TEST_F(SecondGenerationVariables, StrobesCarryTheirNumbers) {
  const std::pair<const char *, const char *> strobes[] = {
      {"LoadOutputBuffer", "8f 00"}, {"ResetCounters", "91 00"},    {"StartMeas", "94 00"},
      {"CalibrateDCO", "a1 00"},     {"FMeasClearResult", "a3 00"}, {"StaggeredPRFReset", "ad 00"},
      {"SWStopMeas", "cc 00"},       {"StartSweep", "dd 00"},       {"ResetSweepController", "e3 00"}};
  for (const auto &[action, bytes] : strobes) {
    radar.log.clear();
    EXPECT_EQ(trigger(radar, action), 0);
    EXPECT_EQ(radar.log, Log{bytes}) << action;
  }
}

TEST_F(SecondGenerationVariables, EveryOtherActionReachesItsFunction) {
  const std::pair<const char *, const char *> functions[] = {
      {"StartSweep", "QTX3701_ExecuteAction"},
      {"TMeasPrepare", "QTX3701_TMeasPrepare"},
      {"TMeasDisable", "QTX3701_TMeasDisable"},
      {"TMeasStartMeasure", "QTX3701_TMeasStartMeasure"},
      {"TMeasUpdateResults", "QTX3701_TMeasUpdateResults"},
      {"MeasureAllCoarseTuneElements", "QTX3701_measureAllCoarseTuneElements"},
      {"MeasureAllMediumTuneElements", "QTX3701_measureAllMediumTuneElements"},
      {"MeasureAll", "QTX3701_measurementAll"}};
  for (const auto &[action, function] : functions) {
    SCOPED_TRACE(action);
    ASSERT_EQ(varsResetAll(set), 0);
    failAlways(radar);
    EXPECT_EQ(trigger(radar, action), kInterfaceTimeout);
    radar.fault = [](const std::string &) { return 0; };
    const std::string frames = std::string(function) + " in src/chip/QTX3701/QTX3701",
                      last = std::string("var_func_QTX3701_") + action;
    EXPECT_NE(radar.trace().find(frames), std::string::npos) << radar.trace();
    EXPECT_NE(radar.trace().find(last), std::string::npos) << radar.trace();
  }
  failAlways(radar);
  EXPECT_EQ(trigger(radar, "MeasureSampleDelayLines"), 0) << "needs no bus";
}

// ---- First generation ----

const char *const kOwnOfFirstGeneration[] = {
    "SPIversion",
    "SPI",
    "SampleEveryPulseAutoValue",
    "SignalOverrideAutoValue",
    "SignalOverrideValue",
    "SignalOverrideValueAutoValue",
    "PulseGen",
    "AveragingFactor",
    "DACValueManual",
    "DACSourceSweepController",
    "Gain",
    "ManualSweepDir",
    "DelayOutputSignals",
    "DACRegularSetupTime",
    "DACRegularHoldTime",
    "SampleDelayCoarseTune",
    "SampleDelayMediumTune",
    "SendPulseDelayMediumTune",
    "SendPulseDelayCoarseTune",
    "SamplingRate",
    "SweepControllerClkDivider",
    "FocusMax",
    "FocusMin",
    "NormalPulsesPerStep",
    "FocusPulsesPerStep",
    "MClkDelayedOutSource",
    "FocusOverrideValue",
    "FocusOverride",
    "UnfocusedCounterIncrement",
    "DisableAutomaticPowerdown",
    "ManualPowerdown",
    "FocusLevel",
    "PulseGenFineTune",
    "PulseGenMeasureEn",
    "SquarePGCtrlLong0",
    "SquarePGCtrlLong1",
    "SquarePGCtrlShort0",
    "SquarePGCtrlShort1",
    "ClkEnable",
    "ClkDivider",
    "DividedClkShaper",
    "DelayedClkSelect",
    "DelayedClkSampleWhenReady",
    "LFSR5TapEnable",
    "LFSR4TapEnable",
    "LFSR3TapEnable",
    "LFSR2TapEnable",
    "LFSR1TapEnable",
    "LFSR0TapEnable",
    "SendPulseDelayShaper",
    "SampleDelayShaper",
    "SampleDelayFineTuneEnable",
    "SendPulseDelayFineTuneEnable",
    "SendPulseDelayFineTune",
    "SampleDelayFineTune",
    "TMeasPulseGenSelect",
    "MClkDelayedOutEnable",
    "VGACfg",
    "PulseStretchEnable",
    "CounterBitSelectorOutput",
    "SamplingRateMeasurementResult",
    "SweepControllerStatus",
    "TMeasResult",
    "FocusSetupTime",
    "FocusHoldTime",
    "FocusSetupHoldEnable",
    "DACVal",
    "Focus",
    "SampleEnable",
    "CoarseTuneOffset",
};

const char *const kSharedByBothGenerations[] = {
    "ForceZero",
    "ForceOne",
    "ChipID",
    "SampleEveryPulse",
    "Downsampling",
    "PRFDivide",
    "StaggeredPRFEnable",
    "StaggeredPRFDelay",
    "Iterations",
    "PulsesPerStep",
    "DACFirstIterationSetupTime",
    "DACFirstStepSetupTime",
    "DACLastIterationHoldTime",
    "DACLastStepHoldTime",
    "SweepInterleavingEnable",
    "SweepPhase",
    "AutoBidirEnable",
    "DACMax",
    "DACMin",
    "DACStepCoarse",
    "DACStepFine",
    "SignalOverride",
    "Chip",
    "FrameOffsetUseDelayedClock",
    "PipeLining",
    "FrameStitch",
    "FrameSize",
    "BytesPerCounter",
    "CounterBitShift",
    "BytesPerFrame",
    "ZoomMin",
    "ZoomMax",
    "SamplersOnChip",
    "SamplesPerSecond",
    "SamplersPerFrame",
    "SampleDelay",
    "SampleDelayToReference",
    "SampleDelayFromReference",
    "OffsetDistanceFromReference",
    "FrameOffsetDelayTime_LiveRead",
    "TimingMeasurementThreshold",
    "SamplerLengthCompensation",
    "SignalStartOfSweep",
    "CDF_SpreadingFactor",
    "CDF_ReturnDACToZero",
    "ClockFrequency",
    "MCLKFrequency_LiveRead",
    "CoarseTuneMeasureMax",
    "DelayCoarseTune",
    "DelayMediumTune",
    "DelayFineTune",
    "MediumInCoarseAverage",
    "FineInMediumAverage",
    "TimingMeasurementValue_LiveRead",
    "TimingMeasurementRawValue",
    "TMSamples",
    "DACStep",
};

const char *const kOnlyQTX3400[] = {"SquarePGCtrlLong0", "SquarePGCtrlLong1", "SquarePGCtrlShort0",
                                    "SquarePGCtrlShort1"};

class FirstGenerationVariables : public ModelVariables {};

INSTANTIATE_TEST_SUITE_P(All, FirstGenerationVariables, ::testing::Values(kModels[0], kModels[1]),
                         [](const auto &test) { return test.param.name; });

TEST_P(FirstGenerationVariables, HasItsOwnVariablesAndTheSharedOnes) {
  std::set<std::string> expected, found;
  for (const char *name : kOwnOfFirstGeneration) expected.insert(name);
  for (const char *name : kSharedByBothGenerations) expected.insert(name);
  const bool first = GetParam().name == std::string("QTX3400");
  if (!first) {
    for (const char *name : kOnlyQTX3400) expected.erase(name);
  }
  for (int32_t i = 0; i < set->count; ++i) found.insert(varGetName_ByNumber(set, i));
  EXPECT_EQ(found, expected);
  EXPECT_EQ(set->count, first ? 127 : 123);
  EXPECT_EQ(actionsOf(set),
            "LoadOutputBuffer,ResetCounters,StartSweep,ResetSweepController,StaggeredPRFReset,TMeasSample,TMeasReset,"
            "SamplingRateMeasurementSample,SamplingRateMeasurementReset,MeasureSampleDelayLines,"
            "MeasureSamplesPerSecond,MeasureAllCoarseTuneElements,MeasureAllMediumTuneElements,MeasureAll,"
            "EmptyPipeLine");
}

TEST_P(FirstGenerationVariables, HasItsOwnItems) {
  const bool first = GetParam().name == std::string("QTX3400");
  EXPECT_EQ(itemsOf(set, "PulseGen"), first ? "Off,6.0-8.5GHz,Square Pulse,Off" : "Off,1.5GHz,4.3GHz,Off");
  EXPECT_EQ(itemsOf(set, "SPI"), "SPI1,SPI2,SPI3,SPI4,unknown");
  EXPECT_EQ(itemsOf(set, "Gain"), "0,1,2,3,4,5,6");
  EXPECT_EQ(itemsOf(set, "Downsampling"), "512 samplers,256 samplers,128 samplers,64 samplers");
}

TEST_P(FirstGenerationVariables, CountsDownsamplingByItsItems) {
  EXPECT_EQ(radar.get("SamplersPerFrame"), 512);
  EXPECT_EQ(varSetValue_ByString(set, "Downsampling", "128 samplers"), 0);
  EXPECT_EQ(radar.get("SamplersPerFrame"), 128);
  EXPECT_EQ(radar.get("BytesPerFrame"), 512);
  EXPECT_EQ(radar.log, Log{}) << "its register is not known";
}

TEST_P(FirstGenerationVariables, ReadsItsIdAndSweepStatus) {
  EXPECT_EQ(radar.get("ChipID"), static_cast<int64_t>(GetParam().id));
  radar.idle_status = 0x8001;
  EXPECT_EQ(radar.get("SweepControllerStatus"), 0x8001);
}

TEST_P(FirstGenerationVariables, RefusesActionsWhoseNumberIsNotKnown) {
  const std::pair<const char *, const char *> strobes[] = {{"LoadOutputBuffer", "8f 00"},
                                                           {"ResetCounters", "91 00"},
                                                           {"StartSweep", "dd 00"},
                                                           {"ResetSweepController", "e3 00"},
                                                           {"StaggeredPRFReset", "ad 00"}};
  Log known;
  for (const auto &[action, bytes] : strobes) {
    EXPECT_EQ(trigger(radar, action), 0);
    known.push_back(bytes);
  }
  for (const char *action : {"TMeasSample", "TMeasReset", "SamplingRateMeasurementSample",
                             "SamplingRateMeasurementReset", "MeasureSampleDelayLines", "MeasureSamplesPerSecond",
                             "MeasureAllCoarseTuneElements", "MeasureAllMediumTuneElements", "MeasureAll"}) {
    EXPECT_EQ(trigger(radar, action), kNotImplemented);
    EXPECT_EQ(radar.handle.error->message, std::string(action) + " is not implemented for this chip");
    EXPECT_EQ(radar.handle.error->code, kNotImplemented);
  }
  EXPECT_EQ(trigger(radar, "EmptyPipeLine"), 0);
  EXPECT_EQ(radar.log, known);
}

}  // namespace
