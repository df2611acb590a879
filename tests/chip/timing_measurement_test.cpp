// The measurement of delay lines, element by element, on a chip that knows its true delays.
#include <gtest/gtest.h>

#include <limits>

#include "MeasuredRadar.h"
#include "support/trace.h"

using namespace pulsekit;
using namespace pulsekit::chip;

namespace {

class TimingMeasurement : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NO_FATAL_FAILURE(radar.startReady()); }

  // The n-th transfer that begins like this fails.
  void failTransfer(const std::string &start, int number = 1) {
    radar.fault = [this, start, number](const std::string &line) mutable {
      return line.rfind(start, 0) == 0 && --number == 0 ? radar.fail(kInterfaceRead) : 0;
    };
  }
  void failEverything() {
    radar.fault = [this](const std::string &) { return radar.fail(kInterfaceRead); };
  }

  MeasuredRadar radar;
};

constexpr const char *kDelays[] = {"SDCT",       "SDMT",       "SDFT", "SPDCT", "SPDMT", "SPDFT", "StaggeredPRFEnable",
                                   "SDFTEnable", "SPDFTEnable"};
const int64_t kChosen[] = {5, 6, 7, 3, 4, 9, 0, 0, 0};

// Only writes; polls and read-backs left out.
Log writes(const MeasuredRadar &radar) { return radar.changes(); }

constexpr double kQuantum = 1 / (100e6 * 1e7);  // seconds a count

}  // namespace

TEST(TimingWait, GetsLongerAsTheMasterClockGetsSlower) {
  const struct {
    int32_t frequency, iterations;
  } cases[] = {{100'000'000, 0}, {25'000'001, 0},  {25'000'000, 10}, {20'000'000, 10}, {10'000'000, 25},
               {5'000'000, 50},  {1'000'000, 100}, {500'001, 100},   {500'000, 1000},  {0, 1000}};
  for (const auto &c : cases) EXPECT_EQ(waitIterations(c.frequency), c.iterations) << c.frequency;
}

// ---- One measurement ----

TEST_F(TimingMeasurement, StartAndResultGoOverTheWireInOrder) {
  const struct {
    uint32_t kind;
    const char *result;
    double delay;
  } cases[] = {{0, "79 05 <5", 2e-9}, {1, "7a 05 <5", 3e-9}, {2, "77 05 <5", 4e-9}, {3, "78 05 <5", 0}};
  for (const auto &c : cases) {
    radar.log.clear();
    int polls_7f = 2, polls_5c = 2;
    radar.fault = [&](const std::string &line) {
      if (line == "7f 01 <1") radar.registers[0x7f] = polls_7f-- > 0;
      if (line == "5c 02 <2") radar.registers[0x5c] = polls_5c-- > 0 ? 0xffff : 0xfffe;
      return 0;
    };
    ASSERT_EQ(QTX3701_TMeasStartMeasure(radar.variables()), 0) << radar.trace();
    ASSERT_EQ(QTX3701_TmeasUpdateSingleResult(radar.variables(), c.kind), 0) << radar.trace();
    const Log expected = {"a3 00",    "94 00",    "7f 01 <1", "7f 01 <1", "7f 01 <1", "5c 02 <2",
                          "5c 02 <2", "5c 02 <2", c.result,   "5b 04 <4", "7d 05 <5"};
    EXPECT_EQ(radar.log, expected) << c.kind;
    EXPECT_NEAR(radar.getReal("TMeasLastValue"), c.delay, kQuantum) << c.kind;
  }
}

TEST_F(TimingMeasurement, AllResultsAreReadInOrderAndLandInTheirOwnVariables) {
  ASSERT_EQ(radar.set("SDLMeasEnable", 1), 0);
  ASSERT_EQ(QTX3701_TMeasStartMeasure(radar.variables()), 0);
  radar.log.clear();
  ASSERT_EQ(QTX3701_TMeasUpdateResults(radar.variables()), 0) << radar.trace();
  EXPECT_EQ(radar.log,
            (Log{"7f 01 <1", "5c 02 <2", "79 05 <5", "7a 05 <5", "77 05 <5", "78 05 <5", "5b 04 <4", "7d 05 <5"}));
  EXPECT_NEAR(radar.getReal("TMeasLastValueSD"), 2e-9, kQuantum);
  EXPECT_NEAR(radar.getReal("TMeasLastValueSPD"), 3e-9, kQuantum);
  EXPECT_NEAR(radar.getReal("TMeasLastValuePGD"), 4e-9, kQuantum);
  EXPECT_NEAR(radar.getReal("TMeasLastValueSDL"), 257 / 37e9, kQuantum);
}

TEST_F(TimingMeasurement, ANewMeasurementForgetsTheLastValuesFirst) {
  for (const char *name : {"TMeasLastValueSD", "TMeasLastValueSPD", "TMeasLastValueSDL", "TMeasLastValuePGD"}) {
    ASSERT_EQ(radar.setReal(name, 0.5), 0);
  }
  ASSERT_EQ(QTX3701_TMeasStartMeasure(radar.variables()), 0);
  for (const char *name : {"TMeasLastValueSD", "TMeasLastValueSPD", "TMeasLastValueSDL", "TMeasLastValuePGD"}) {
    EXPECT_EQ(radar.getReal(name), 0.0) << name;
  }
}

TEST_F(TimingMeasurement, TheOscillatorsFrequencyIsTheMeasuredOne) {
  ASSERT_EQ(radar.set("MeasClkSource", 1), 0);
  ASSERT_EQ(radar.set("FMeasNumCycles", 30'000), 0);
  radar.registers[0x5b] = 63'316;
  radar.registers[0x7d] = 1'000;
  radar.registers[0x79] = 422'100;
  ASSERT_EQ(QTX3701_TmeasUpdateSingleResult(radar.variables(), 0), 0) << radar.trace();
  EXPECT_EQ(radar.get("DCOActualFrequency"), 211'053'333);
  EXPECT_DOUBLE_EQ(radar.getReal("TMeasLastValue"), 422'100 / (211'053'333.0 * 1'000));
}

TEST_F(TimingMeasurement, AMeasurementOfNothingIsAWarningThatKeepsTheLastValue) {
  const struct {
    uint8_t zero;
    const char *text;
  } cases[] = {{0x5b, "FMeasResult returned 0, measurement data will be invalid."},
               {0x7d, "SWMeasCyclesCounter returned 0, measurement data will be invalid."}};
  using Update = int32_t (*)(VariableSet *);
  const struct {
    Update update;
    const char *name, *value;
  } updates[] = {{[](VariableSet *set) { return QTX3701_TmeasUpdateSingleResult(set, 0); },
                  "QTX3701_TmeasUpdateSingleResult", "TMeasLastValue"},
                 {QTX3701_TMeasUpdateResults, "QTX3701_TMeasUpdateResults", "TMeasLastValueSD"}};
  for (const auto &c : cases) {
    for (const auto &u : updates) {
      radar.registers[0x5b] = 10'000;
      radar.registers[0x7d] = 1'000;
      radar.registers[c.zero] = 0;
      ASSERT_EQ(radar.setReal(u.value, 0.25), 0);
      EXPECT_EQ(u.update(radar.variables()), 0);
      EXPECT_EQ(radar.handle.error->code, kError) << u.name;
      EXPECT_STREQ(radar.handle.error->message, c.text);
      EXPECT_TRUE(radar.traceNames(u.name)) << radar.trace();
      EXPECT_EQ(std::string(radar.handle.error->trace).find("from:"), std::string::npos);
      EXPECT_EQ(radar.getReal(u.value), 0.25) << u.name;
    }
  }
}

TEST_F(TimingMeasurement, AFrequencyWindowOfNoCyclesIsRefused) {
  ASSERT_EQ(radar.set("MeasClkSource", 1), 0);
  ASSERT_EQ(radar.set("FMeasNumCycles", 0), 0);
  EXPECT_EQ(QTX3701_TmeasUpdateSingleResult(radar.variables(), 0), kIllegalValue);
  EXPECT_STREQ(radar.handle.error->message, "FMeasNumCycles is 0");
}

TEST_F(TimingMeasurement, EveryReadAndTriggerOfAMeasurementCanEndIt) {
  for (const char *transfer : {"a3 00", "94 00"}) {
    failTransfer(transfer);
    EXPECT_EQ(QTX3701_TMeasStartMeasure(radar.variables()), kInterfaceRead) << transfer;
    EXPECT_TRUE(radar.traceNames("QTX3701_TMeasStartMeasure")) << radar.trace();
  }
  for (const char *transfer : {"79 05", "5b 04", "7d 05"}) {
    failTransfer(transfer);
    EXPECT_EQ(QTX3701_TmeasUpdateSingleResult(radar.variables(), 0), kInterfaceRead) << transfer;
    EXPECT_TRUE(radar.traceNames("QTX3701_TmeasUpdateSingleResult")) << radar.trace();
    failTransfer(transfer);
    EXPECT_EQ(QTX3701_TMeasUpdateResults(radar.variables()), kInterfaceRead) << transfer;
    EXPECT_TRUE(radar.traceNames("QTX3701_TMeasUpdateResults")) << radar.trace();
  }
}

TEST_F(TimingMeasurement, TheEnablesGoOnAndOffTogether) {
  constexpr uint64_t kEnables = 0x0b;  // FMeasEnable, MClkMeasMode, MeasClkEnable
  ASSERT_EQ(radar.set("SWMeasEnable", 0), 0);
  ASSERT_EQ(QTX3701_TMeasPrepare(radar.variables()), 0);
  EXPECT_EQ(radar.registers[0x58] & kEnables, kEnables);
  EXPECT_TRUE(radar.registers[0x7c] & 0x4);
  EXPECT_EQ(radar.record->prepared, 1);

  failTransfer("fc");
  EXPECT_EQ(QTX3701_TMeasDisable(radar.variables()), kInterfaceRead);
  EXPECT_TRUE(radar.traceNames("QTX3701_TMeasDisable"));
  EXPECT_EQ(radar.record->prepared, 1) << "still half on";

  radar.fault = [](const std::string &) { return 0; };
  ASSERT_EQ(QTX3701_TMeasPrepare(radar.variables()), 0);
  ASSERT_EQ(QTX3701_TMeasDisable(radar.variables()), 0);
  EXPECT_EQ(radar.registers[0x58] & kEnables, 0u);
  EXPECT_FALSE(radar.registers[0x7c] & 0x4);
  EXPECT_EQ(radar.record->prepared, 0);
}

// ---- Delay settings around a measurement ----

TEST_F(TimingMeasurement, DelaySettingsAreResetAndRestoredInOrder) {
  for (size_t i = 0; i < std::size(kDelays); ++i) ASSERT_EQ(radar.set(kDelays[i], kChosen[i]), 0) << kDelays[i];
  ASSERT_EQ(radar.set("StaggeredPRFEnable", 1), 0);
  radar.log.clear();
  ASSERT_EQ(QTX3701_measureSaveAndResetDelays(radar.variables()), 0);
  EXPECT_EQ(writes(radar),
            (Log{"ed 08 00 00 00 00 00 00 00 00", "ec 01 00", "eb 01 00", "f0 08 00 00 00 00 00 00 00 00", "ef 01 00",
                 "ee 01 00", "e1 01 7e", "ea 01 04", "ea 01 06"}));
  radar.log.clear();
  ASSERT_EQ(QTX3701_measureRestoreDelays(radar.variables()), 0);
  EXPECT_EQ(writes(radar), (Log{"ed 08 07 00 00 00 00 00 00 00", "ec 01 06", "eb 01 05", "ee 01 03", "ef 01 04",
                                "f0 08 09 00 00 00 00 00 00 00", "e1 01 7f", "ea 01 02", "ea 01 00"}));
}

TEST_F(TimingMeasurement, AutomaticDelaysAreAutomaticAgainAfterwards) {
  for (const char *name : kDelays) ASSERT_TRUE(radar.isAutomatic(name)) << name;
  ASSERT_EQ(radar.set("SPDMT", 4), 0);
  const int64_t coarse = radar.get("SDCT");
  ASSERT_EQ(QTX3701_measureSaveAndResetDelays(radar.variables()), 0);
  EXPECT_FALSE(radar.isAutomatic("SDCT"));
  EXPECT_EQ(radar.get("SDCT"), 0);
  ASSERT_EQ(QTX3701_measureRestoreDelays(radar.variables()), 0);
  for (const char *name : kDelays) EXPECT_EQ(radar.isAutomatic(name), std::string(name) != "SPDMT") << name;
  EXPECT_EQ(radar.get("SPDMT"), 4);
  EXPECT_EQ(radar.get("SDCT"), coarse);
}

// ---- Failures that put the delays back, and those that don't ----

TEST_F(TimingMeasurement, AFailedSweepPutsTheDelaysBackAndSaysWhereItFailed) {
  using Measure = int32_t (*)(VariableSet *);
  const struct {
    Measure measure;
    const char *name;
  } sweeps[] = {
      {QTX3701_measureAllCoarseTuneElements, "QTX3701_measureAllCoarseTuneElements"},
      {QTX3701_measureAllMediumTuneElements, "QTX3701_measureAllMediumTuneElements"},
      {QTX3701_measureAllFineTuneElements, "QTX3701_measureAllFineTuneElements"},
      {[](VariableSet *set) { return QTX3701_measureCoarseTuneElement(set, 3); }, "QTX3701_measureCoarseTuneElement"},
      {[](VariableSet *set) { return QTX3701_measureMediumTuneElement(set, 3); }, "QTX3701_measureMediumTuneElement"}};
  for (size_t i = 0; i < std::size(kDelays); ++i) ASSERT_EQ(radar.set(kDelays[i], kChosen[i]), 0) << kDelays[i];
  for (const auto &sweep : sweeps) {
    // The first and a later step, and the very first write of all.
    for (const auto &[transfer, number] : {std::pair{"79 05", 1}, {"79 05", 2}, {"94 00", 2}, {"ed 08", 1}}) {
      failTransfer(transfer, number);
      EXPECT_EQ(sweep.measure(radar.variables()), kInterfaceRead) << sweep.name << " " << transfer;
      EXPECT_TRUE(radar.traceNames(sweep.name)) << radar.trace();
      radar.fault = [](const std::string &) { return 0; };
      for (size_t i = 0; i < std::size(kDelays); ++i) {
        EXPECT_EQ(radar.get(kDelays[i]), kChosen[i]) << sweep.name << " " << transfer << " " << kDelays[i];
      }
    }
  }
  EXPECT_EQ(radar.record->coarse_measured + radar.record->medium_measured + radar.record->fine_measured, 0);
}

TEST_F(TimingMeasurement, TheFailureThatEndedASweepIsReportedNotTheOneOfRestoring) {
  ASSERT_EQ(radar.set("SDCT", 5), 0);
  bool dead = false;
  radar.fault = [&](const std::string &line) {
    if (line.rfind("79 05", 0) == 0) dead = true;
    return !dead ? 0 : radar.fail(line.rfind("79 05", 0) == 0 ? kInterfaceRead : kInterfaceWrite);
  };
  EXPECT_EQ(QTX3701_measureMediumTuneElement(radar.variables(), 0), kInterfaceRead);
  EXPECT_TRUE(radar.traceNames("QTX3701_measureMediumTuneElement")) << radar.trace();
  EXPECT_EQ(radar.handle.error->code, kInterfaceRead);
}

TEST_F(TimingMeasurement, AFailedSamplingRatePutsTheDelaysBack) {
  ASSERT_EQ(radar.set("SDCT", 5), 0);
  failTransfer("78 05");
  EXPECT_EQ(QTX3701_measureSamplesPerSecond(radar.variables()), kInterfaceRead);
  EXPECT_TRUE(radar.traceNames("QTX3701_measureSamplesPerSecond")) << radar.trace();
  EXPECT_EQ(radar.get("SDCT"), 5);
  EXPECT_EQ(radar.record->samples_per_second, 0);
}

TEST_F(TimingMeasurement, ADeadBusEndsEveryMeasurement) {
  failEverything();
  EXPECT_EQ(QTX3701_measurementAll(radar.variables()), kInterfaceRead);
  EXPECT_TRUE(radar.traceNames("QTX3701_measurementAll")) << radar.trace();
  EXPECT_EQ(QTX3701_TMeasUpdateResults(radar.variables()), kInterfaceRead);
  EXPECT_EQ(QTX3701_measureTimingValue(radar.variables()), 0.0);
  EXPECT_EQ(QTX3701_measurementSetDCOFrequency(radar.variables(), 211'000'000), kInterfaceRead);
  EXPECT_EQ(QTX3701_measureSamplesPerSecond(radar.variables()), kInterfaceRead);
}

TEST_F(TimingMeasurement, AHandleThatIsNotTheOpenOneMeasuresNothing) {
  ChipHandle *chip = radar.handle.chip;
  radar.handle.chip = nullptr;
  VariableSet *set = chip->variables;
  for (auto *measure :
       {QTX3701_measureSampleDelayLines, QTX3701_measureSaveAndResetDelays, QTX3701_TMeasPrepare, QTX3701_TMeasDisable,
        QTX3701_measureAllCoarseTuneElements, QTX3701_measureSamplesPerSecond, QTX3701_measurementAll}) {
    EXPECT_EQ(measure(set), kChipNotInitialized);
  }
  EXPECT_EQ(QTX3701_measureRestoreDelays(set), 0);
  EXPECT_TRUE(radar.log.empty());
  radar.handle.chip = chip;
}

// ---- Delay elements ----

TEST_F(TimingMeasurement, SingleElementsAreMeasuredWithinTheirRange) {
  const struct {
    int32_t (*measure)(VariableSet *, int32_t);
    const char *name;
    float (TimingRecord::*steps)[kDelayElements];
    const double *truth;
  } chains[] = {
      {QTX3701_measureCoarseTuneElement, "QTX3701_measureCoarseTuneElement", &TimingRecord::coarse_step, radar.coarse},
      {QTX3701_measureMediumTuneElement, "QTX3701_measureMediumTuneElement", &TimingRecord::medium_step, radar.medium}};
  for (const auto &chain : chains) {
    for (const int32_t element : {0, 17, 62}) {
      ASSERT_EQ(chain.measure(radar.variables(), element), 0) << radar.trace();
      EXPECT_NEAR((radar.record->*chain.steps)[element], chain.truth[element], 1e-14) << chain.name << element;
    }
    EXPECT_EQ((radar.record->*chain.steps)[16], 0.0f) << "a neighbour was touched";
    radar.log.clear();
    for (const int32_t element : {-1, 63, 64, std::numeric_limits<int32_t>::min()}) {
      EXPECT_EQ(chain.measure(radar.variables(), element), kTimingMeasurement) << element;
      EXPECT_TRUE(radar.traceNames(chain.name));
      EXPECT_EQ(radar.handle.error->code, kTimingMeasurement);
    }
    EXPECT_TRUE(radar.log.empty()) << "an element out of range reached the chip";
  }
}

TEST_F(TimingMeasurement, ASweepMeasuresEveryElementAndItsAverage) {
  const struct {
    int32_t (*measure)(VariableSet *);
    float (TimingRecord::*steps)[kDelayElements];
    const double *truth;
    int32_t TimingRecord::*measured;
    double TimingRecord::*average;
    const char *average_variable;
    int divisor;
  } sweeps[] = {{QTX3701_measureAllCoarseTuneElements, &TimingRecord::coarse_step, radar.coarse,
                 &TimingRecord::coarse_measured, &TimingRecord::delay_coarse_tune, "DelayCoarseTune", 63},
                {QTX3701_measureAllMediumTuneElements, &TimingRecord::medium_step, radar.medium,
                 &TimingRecord::medium_measured, &TimingRecord::delay_medium_tune, "DelayMediumTune", 63},
                {QTX3701_measureAllFineTuneElements, &TimingRecord::fine_step, radar.fine, &TimingRecord::fine_measured,
                 &TimingRecord::delay_fine_tune, "DelayFineTune", 64}};
  for (const auto &sweep : sweeps) {
    (radar.record->*sweep.steps)[40] = 77;
    ASSERT_EQ(sweep.measure(radar.variables()), 0) << radar.trace();
    double sum = 0;
    for (int i = 0; i < 63; ++i) {
      EXPECT_NEAR((radar.record->*sweep.steps)[i], sweep.truth[i], 1.5e-14) << sweep.average_variable << " " << i;
      sum += sweep.truth[i];
    }
    EXPECT_EQ((radar.record->*sweep.steps)[63], 0.0f) << "has no setting beyond it";
    EXPECT_EQ(radar.record->*sweep.measured, 1);
    EXPECT_NEAR(radar.record->*sweep.average, sum / sweep.divisor, 1e-15) << sweep.average_variable;
    EXPECT_EQ(radar.record->*sweep.average, radar.getReal(sweep.average_variable));
    EXPECT_EQ(radar.record->prepared, 1);
  }
}

TEST_F(TimingMeasurement, TheFineAverageSpreadsSixtyThreeStepsOverSixtyFourElements) {
  for (double &element : radar.fine) element = 1e-9;
  ASSERT_EQ(QTX3701_measureAllFineTuneElements(radar.variables()), 0) << radar.trace();
  EXPECT_NEAR(radar.getReal("DelayFineTune"), 63e-9 / 64, 1e-14);
}

TEST_F(TimingMeasurement, TheCoarseSweepEndsAtItsLimit) {
  ASSERT_EQ(radar.set("CoarseTuneMeasureMax", 4), 0);
  radar.record->coarse_step[3] = radar.record->coarse_step[4] = radar.record->coarse_step[62] = 77;
  radar.log.clear();
  ASSERT_EQ(QTX3701_measureAllCoarseTuneElements(radar.variables()), 0) << radar.trace();
  EXPECT_NEAR(radar.record->coarse_step[3], radar.coarse[3], 1e-14);
  EXPECT_EQ(radar.record->coarse_step[4], 0.0f);
  EXPECT_EQ(radar.record->coarse_step[62], 0.0f);
  EXPECT_EQ(std::count(radar.log.begin(), radar.log.end(), "94 00"), 5);

  ASSERT_EQ(radar.set("CoarseTuneMeasureMax", 0), 0);
  EXPECT_EQ(QTX3701_measureAllCoarseTuneElements(radar.variables()), kIllegalValue);
  EXPECT_NEAR(radar.record->coarse_step[3], radar.coarse[3], 1e-14) << "a refused sweep forgot the steps";
}

TEST_F(TimingMeasurement, ASweepGoesOnPastAMeasurementOfNothing) {
  radar.cycles = 0;
  radar.log.clear();
  EXPECT_EQ(QTX3701_measureAllMediumTuneElements(radar.variables()), 0) << radar.trace();
  EXPECT_EQ(std::count(radar.log.begin(), radar.log.end(), "94 00"), 64);
  EXPECT_EQ(radar.handle.error->code, kError);
  EXPECT_STREQ(radar.handle.error->message, "SWMeasCyclesCounter returned 0, measurement data will be invalid.");
}

TEST_F(TimingMeasurement, APreparedChipIsNotPreparedAgain) {
  ASSERT_EQ(QTX3701_TMeasPrepare(radar.variables()), 0);
  ASSERT_EQ(radar.set("FMeasEnable", 0), 0);
  ASSERT_EQ(QTX3701_measureMediumTuneElement(radar.variables(), 0), 0);
  EXPECT_EQ(radar.get("FMeasEnable"), 0);
  radar.record->prepared = 0;
  ASSERT_EQ(QTX3701_measureMediumTuneElement(radar.variables(), 0), 0);
  EXPECT_EQ(radar.get("FMeasEnable"), 1);
}

// ---- The oscillator ----

TEST_F(TimingMeasurement, TuningTheOscillatorStartsItFirst) {
  int polls = 3;
  radar.fault = [&](const std::string &line) {
    if (line == "5c 02 <2") radar.registers[0x5c] = --polls > 0 ? 0x2 : 0x7fd;
    return 0;
  };
  ASSERT_EQ(QTX3701_measurementSetDCOFrequency(radar.variables(), 150'000'000), 0) << radar.trace();
  const Log seen = writes(radar);
  ASSERT_EQ(seen.size(), 4u);
  EXPECT_EQ(seen[2], "da 04 98 3a 00 00");  // 15,000 cycles of it while the reference makes 10,000
  EXPECT_EQ(seen[3], "a1 00");
  EXPECT_EQ(polls, 0);
  EXPECT_EQ(radar.get("DCOTunerEnable"), 1);
  EXPECT_EQ(radar.get("DCOEnable"), 1);
  EXPECT_EQ(QTX3701_measurementGetDCOFrequency(radar.variables()), 150'000'000);

  radar.log.clear();
  ASSERT_EQ(QTX3701_measurementSetDCOFrequency(radar.variables(), 0), 0);
  EXPECT_EQ(writes(radar).size(), 3u);
  EXPECT_EQ(writes(radar)[0], "da 04 00 00 00 00");
  EXPECT_EQ(radar.registers[0x58] & 0x210, 0u);
  EXPECT_EQ(radar.get("DCOActualFrequency"), 0);
}

TEST_F(TimingMeasurement, TheTargetFrequencyTunesUnlessTheOscillatorIsOffAlready) {
  EXPECT_EQ(radar.get("DCOTarget"), 21'100) << "starting the chip changed it";
  ASSERT_EQ(QTX3701_writeDCOTargetFrequency(radar.variables(), 0), 0);
  EXPECT_TRUE(radar.log.empty());
  ASSERT_EQ(radar.set("DCOTargetFrequency", 200'000'000), 0) << radar.trace();
  EXPECT_EQ(radar.get("DCOActualFrequency"), 200'000'000);
  EXPECT_EQ(radar.get("DCOTarget"), 20'000);
  ASSERT_EQ(radar.set("DCOTargetFrequency", 0), 0);
  EXPECT_EQ(radar.get("DCOEnable"), 0);
  EXPECT_EQ(radar.get("DCOTarget"), 0);
}

TEST_F(TimingMeasurement, AFailedTuningIsTracedThroughTheDriversFunctionToTheVariable) {
  failTransfer("5c 02");
  EXPECT_EQ(QTX3701_measurementSetDCOFrequency(radar.variables(), 100'000'000), kInterfaceRead);
  failTransfer("a1 00");
  EXPECT_EQ(radar.set("DCOTargetFrequency", 200'000'000), kInterfaceRead);
  const std::string trace = radar.handle.error->trace;
  const size_t tuning = trace.find("from: QTX3701_measurementSetDCOFrequency in src/chip/QTX3701/QTX3701-timing:");
  ASSERT_NE(tuning, std::string::npos) << trace;
  const size_t next = trace.find("from: ", tuning + 1);
  EXPECT_EQ(trace.compare(next, 42, "from: var_func_QTX3701_DCOTargetFrequency "), 0) << trace;
}

TEST_F(TimingMeasurement, ATargetThatNothingCanReachIsRefusedBeforeTheOscillatorStarts) {
  for (const char *name : {"ClockFrequency", "FMeasNumCycles"}) {
    const int64_t before = radar.get(name);
    ASSERT_EQ(radar.set(name, 0), 0);
    radar.log.clear();
    EXPECT_EQ(QTX3701_measurementSetDCOFrequency(radar.variables(), 1), kIllegalValue);
    EXPECT_EQ(std::string(radar.handle.error->message), std::string(name) + " is 0");
    EXPECT_TRUE(radar.log.empty());
    ASSERT_EQ(radar.set(name, before), 0);
  }
}

// ---- Everything ----

class CompleteCalibration : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NO_FATAL_FAILURE(radar.start()); }
  MeasuredRadar radar;
};

TEST_F(CompleteCalibration, FindsTheTrueDelaysAndTheSamplingRate) {
  ASSERT_EQ(radar.setReal("MediumInCoarseAverage", 29.5), 0);
  ASSERT_EQ(radar.setReal("FineInMediumAverage", 27.5), 0);
  ASSERT_EQ(QTX3701_measurementAll(radar.variables()), 0) << radar.trace();
  const TimingRecord &record = *radar.record;
  EXPECT_EQ(record.mclk_frequency, 100'000'000);
  EXPECT_EQ(record.fine_measured, 0) << "the fine chain is off";
  for (int i = 0; i < 63; ++i) EXPECT_NEAR(record.medium_step[i], radar.medium[i], 1e-14) << i;
  for (int i = 0; i < 16; ++i) EXPECT_NEAR(record.coarse_step[i], radar.coarse[i], 1e-14) << i;
  EXPECT_EQ(record.coarse_step[16], 0.0f) << "a clock period is enough";
  EXPECT_NEAR(record.samples_per_second, 37e9, 37e9 * 1e-6);
  EXPECT_EQ(record.samples_per_second, radar.getReal("SamplesPerSecond"));
  EXPECT_NEAR(radar.getReal("FrameSize"), 256 / 37e9, 1e-14);
  EXPECT_EQ(record.medium_in_coarse_average, 29.5);
  EXPECT_EQ(record.fine_in_medium_average, 27.5);
  EXPECT_EQ(radar.get("SDLMeasEnable"), 0);
  EXPECT_TRUE(radar.isAutomatic("CoarseTuneMeasureMax"));
  EXPECT_EQ(radar.get("CoarseTuneMeasureMax"), 63);
  EXPECT_EQ(radar.get("DCOActualFrequency"), 211'000'000);
  EXPECT_EQ(radar.get("SWMeasTargetCycles"), 10'000'000);
  EXPECT_EQ(radar.get("FMeasNumCycles"), 100'000);
}

TEST_F(CompleteCalibration, KeepsWhatTheHostChose) {
  ASSERT_EQ(radar.set("DCOTargetFrequency", 180'000'000), 0);
  ASSERT_EQ(radar.set("SWMeasTargetCycles", 5'000'000), 0);
  ASSERT_EQ(radar.set("FMeasNumCycles", 20'000), 0);
  ASSERT_EQ(radar.set("CoarseTuneMeasureMax", 12), 0);
  ASSERT_EQ(QTX3701_measurementAll(radar.variables()), 0) << radar.trace();
  EXPECT_EQ(radar.get("DCOTargetFrequency"), 180'000'000);
  EXPECT_EQ(radar.get("SWMeasTargetCycles"), 5'000'000);
  EXPECT_EQ(radar.get("FMeasNumCycles"), 20'000);
  EXPECT_EQ(radar.get("CoarseTuneMeasureMax"), 12);
  EXPECT_GT(radar.record->coarse_step[15], 0.0f) << "sixteen are measured whatever the limit";
}

TEST_F(CompleteCalibration, MeasuresTheFineChainOnlyWhenItIsOnAndAllCoarseElementsWithoutTheDelayedClock) {
  ASSERT_EQ(radar.set("SDFTEnable", 1), 0);
  ASSERT_EQ(radar.set("FrameOffsetUseDelayedClock", 0), 0);
  ASSERT_EQ(QTX3701_measurementAll(radar.variables()), 0) << radar.trace();
  EXPECT_EQ(radar.record->fine_measured, 1);
  EXPECT_NEAR(radar.record->fine_step[62], radar.fine[62], 1e-14);
  EXPECT_NEAR(radar.record->coarse_step[62], radar.coarse[62], 1.5e-14);
}

TEST_F(CompleteCalibration, EndsWhenTheMediumMeasurementWasOfNothing) {
  radar.cycles = 0;
  EXPECT_EQ(QTX3701_measurementAll(radar.variables()), kError);
  EXPECT_STREQ(radar.handle.error->message, "SWMeasCyclesCounter returned 0, measurement data will be invalid.");
  EXPECT_EQ(radar.record->coarse_measured, 0);
}

TEST_F(CompleteCalibration, TheTimingValueIsZeroAndWaitsForTheBusyBit) {
  radar.busy_status = 0x8000;
  radar.idle_status = 0x7ffe;
  radar.busy_polls = 3;
  ASSERT_EQ(radar.set("TimingMeasurementRawValue", 9), 0);
  radar.log.clear();
  EXPECT_EQ(QTX3701_measureTimingValue(radar.variables()), 0.0);
  EXPECT_EQ(radar.busy_polls, 0);
  EXPECT_EQ(std::count(radar.log.begin(), radar.log.end(), "47 02 <2"), 4);
  EXPECT_EQ(radar.get("TimingMeasurementRawValue"), 0);
  for (const char *name : kDelays) EXPECT_TRUE(radar.isAutomatic(name)) << name;
}

TEST_F(CompleteCalibration, ActionsReachTheirMeasurements) {
  const auto trigger = [this](const char *name) {
    return varActionTrigger(radar.variables(), varActionNamed(radar.variables(), name));
  };
  ASSERT_EQ(trigger("TMeasPrepare"), 0);
  EXPECT_EQ(radar.record->prepared, 1);
  ASSERT_EQ(trigger("TMeasDisable"), 0);
  EXPECT_EQ(radar.record->prepared, 0);
  ASSERT_EQ(trigger("MeasureSampleDelayLines"), 0);
  EXPECT_EQ(radar.record->mclk_frequency, 100'000'000);
  ASSERT_EQ(trigger("MeasureAll"), 0) << radar.trace();
  EXPECT_EQ(radar.record->medium_measured, 1);
  radar.record->coarse_measured = radar.record->medium_measured = 0;
  ASSERT_EQ(trigger("MeasureAllCoarseTuneElements"), 0);
  EXPECT_EQ(radar.record->coarse_measured, 1);
  EXPECT_EQ(radar.record->medium_measured, 0);
  ASSERT_EQ(trigger("MeasureAllMediumTuneElements"), 0);
  EXPECT_EQ(radar.record->medium_measured, 1);
  ASSERT_EQ(trigger("TMeasStartMeasure"), 0);
  ASSERT_EQ(trigger("TMeasUpdateResults"), 0);
  EXPECT_GT(radar.getReal("TMeasLastValueSPD"), 2.9e-9);
}
