// The timing measurement of the second generation: delays as settings of the chains, measurements, record, calibration.
#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <random>

#include "radar.h"
#include "world/Scene.h"

using namespace pulsekit::chip;

namespace pulsekit::test {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity(), kNan = std::numeric_limits<float>::quiet_NaN();
constexpr double kSpeedOfLight = 299'792'458;
constexpr std::initializer_list<const char *> kDelays = {
    "SDCT", "SDMT", "SDFT", "SPDCT", "SPDMT", "SPDFT", "StaggeredPRFEnable", "SDFTEnable", "SPDFTEnable"};

class Delays : public Radar {
 protected:
  Delays() {
    start();
    averages(1e-9, 100e-12, 10e-12);
  }
  // Clock periods, coarse, medium and fine settings.
  std::string convert(float delay) {
    return format("%d %d %d %lld", QTX3701_measurementGetFrameOffsetClockPeriods(variables, delay),
                  QTX3701_measurementGetFrameOffsetCoarseTune(variables, delay),
                  QTX3701_measurementGetFrameOffsetMediumTune(variables, delay),
                  static_cast<long long>(QTX3701_measurementGetFrameOffsetFineTune(variables, delay)));
  }
  // Round steps, so that the expected settings can be seen.
  void calibrate(float coarse = 1e-9f, float medium = 100e-12f, float fine = 10e-12f) {
    std::fill_n(record->coarse_step, 63, coarse);
    std::fill_n(record->medium_step, 63, medium);
    std::fill_n(record->fine_step, 63, fine);
    record->coarse_measured = record->medium_measured = record->fine_measured = 1;
  }
  void averages(double coarse, double medium, double fine) {
    setReal("DelayCoarseTune", coarse), setReal("DelayMediumTune", medium), setReal("DelayFineTune", fine);
  }
  void uses(int64_t delayed_clock, int64_t fine) {
    set("FrameOffsetUseDelayedClock", delayed_clock), set("SDFTEnable", fine), kinds = 0;
  }
};

TEST_F(Delays, AreDividedOrWalkedIntoSettings) {
  for (bool calibrated : {false, true}) {
    if (calibrated) calibrate();
    for (int64_t delayed_clock : {0, 1}) {
      for (int64_t fine : {0, 1}) {
        uses(delayed_clock, fine);
        DO_FOR(format("calibrated %d delayed clock %d fine %d", calibrated, int(delayed_clock), int(fine)), convert(0),
               convert(0.04e-9f), convert(0.06e-9f), convert(35.74e-9f), convert(35.78e-9f), convert(35.784e-9f),
               convert(35.786e-9f), convert(100e-9f), convert(-3e-9f), convert(kNan), convert(kInfinity),
               convert(-kInfinity), convert(1e30f));
      }
    }
  }
  averages(2e-9, 50e-12, 5e-12);
  DO(convert(5.187e-9f), (record->fine_measured = 0, convert(5.187e-9f)),
     (record->medium_measured = 0, convert(5.187e-9f)),
     (record->coarse_measured = 0, record->medium_measured = 1, convert(5.187e-9f)),
     (record->coarse_measured = 2, convert(5.187e-9f)));
  calibrate();
  uses(0, 0);
  std::fill_n(record->coarse_step + 4, 60, 0.0f);
  DO(convert(3.9e-9f), convert(5.9e-9f), convert(6.1e-9f), convert(1e-6f),
     (record->coarse_step[0] = 0, convert(1.9e-9f)));
  averages(0, 0, 0);
  uses(1, 1);
  calibrate(0, 0, 0);
  DO(convert(1e-9f), (record->coarse_measured = record->medium_measured = record->fine_measured = 0, convert(1e-9f)),
     convert(0));
  averages(1e-9, 100e-12, 10e-12);
  DO(set("MClkDiv", 1), convert(35.78e-9f), set("MClkEnable", 0), convert(35.78e-9f),
     QTX3701_measurementGetDelayToFrameOffset(variables));
}

TEST_F(Delays, TheDelayToTheFrameAddsUpTheStepsInUse) {
  calibrate();
  const auto delay = [this] { return QTX3701_measurementGetDelayToFrameOffset(variables); };
  kinds = 0;
  DO(set("StaggeredPRFDelay", 7), set("SDCT", 3), set("SDMT", 5), set("SDFT", 9), delay(),
     set("FrameOffsetUseDelayedClock", 0), delay(), set("SDCT", 63), set("SDMT", 0), delay(),
     (record->coarse_step[63] = 1, set("SDCT", 63), delay()));
  start();
  calibrate();
  DO(setReal("SampleDelay", 35.78e-9), values({"StaggeredPRFDelay", "SDCT", "SDMT", "SDFT"}));
  radar->chip = nullptr;
  DO(QTX3701_measurementGetFrameOffsetCoarseTune(variables, 5.5e-9f),
     QTX3701_measurementGetDelayToFrameOffset(variables), QTX3701_measureSampleDelayLines(variables),
     QTX3701_measureSaveAndResetDelays(variables), QTX3701_measureRestoreDelays(variables),
     QTX3701_TMeasPrepare(variables), QTX3701_TMeasDisable(variables), QTX3701_measureAllCoarseTuneElements(variables),
     QTX3701_measureCoarseTuneElement(variables, 0), QTX3701_measureSamplesPerSecond(variables),
     QTX3701_measurementAll(variables));
  radar->chip = chip;
}

// The settings that a delay asks for make that delay again, to half of the finest step in use.
TEST_F(Delays, SettingsMakeTheDelayThatAskedForThem) {
  std::mt19937 random(7);
  std::uniform_real_distribution<float> spread(0.9f, 1.1f), delays(0, 60e-9f);
  calibrate();
  for (int i = 0; i < 63; ++i)
    record->coarse_step[i] = 1.25e-9f * spread(random), record->medium_step[i] = 42e-12f * spread(random),
    record->fine_step[i] = 1.5e-12f * spread(random);
  for (const int64_t fine_enable : {0, 1}) {
    uses(1, fine_enable);
    for (int i = 0; i < 300; ++i) {
      const float delay = delays(random);
      int periods, coarse, medium, fine;
      ASSERT_EQ(std::sscanf(convert(delay).c_str(), "%d %d %d %d", &periods, &coarse, &medium, &fine), 4);
      const double made = std::accumulate(
          record->fine_step, record->fine_step + fine,
          std::accumulate(record->medium_step, record->medium_step + medium,
                          std::accumulate(record->coarse_step, record->coarse_step + coarse, periods / 100e6)));
      EXPECT_NEAR(made, delay, (fine_enable ? 1.5e-12 : 42e-12) * 1.1 / 2 + 1e-14) << convert(delay);
    }
  }
}

class Measurement : public Radar {
 protected:
  Measurement() { ready(); }
  // Without the calibration of the oscillator, and short.
  void ready() {
    start();
    for (const auto &[name, number] : {std::pair{"MeasClkSource", 0},
                                       {"SWMeasTargetCycles", 20'000},
                                       {"FMeasNumCycles", 10'000},
                                       {"CoarseTuneMeasureMax", 2}})
      set(name, number);
    setReal("SampleDelay", 0);
    QTXSim_ClearRecord();
  }
  void choose() {
    int64_t number = 3;
    for (const char *name : kDelays) set(name, std::string(name).find("Enable") == std::string::npos ? ++number : 0);
  }
  // The same measurements on every machine: a result is a whole number of counts.
  std::string lastValues() {
    return values(
        {"TMeasLastValue", "TMeasLastValueSD", "TMeasLastValueSPD", "TMeasLastValueSDL", "TMeasLastValuePGD"});
  }
  std::string flags() {
    return format(" prepared %d measured %d %d %d", record->prepared, record->coarse_measured, record->medium_measured,
                  record->fine_measured);
  }
};

TEST_F(Measurement, OneMeasurementOnTheWire) {
  for (uint32_t kind : {0, 1, 2, 3, 4}) {
    ready();
    DO_FOR(kind, QTX3701_TMeasStartMeasure(variables), QTX3701_TmeasUpdateSingleResult(variables, kind), lastValues());
  }
  DO(QTX3701_TMeasPrepare(variables), flags(), set("SDLMeasEnable", 1), QTX3701_TMeasStartMeasure(variables),
     QTX3701_TMeasUpdateResults(variables), lastValues(), QTX3701_TMeasStartMeasure(variables), lastValues(),
     QTX3701_TMeasDisable(variables), flags());
  say("the oscillator's frequency is the measured one");
  DO(set("MeasClkSource", 1), set("FMeasNumCycles", 30'000), QTXSim_SetChipRegister(0, 0x5b, 63'316),
     QTXSim_SetChipRegister(0, 0x7d, 1'000), QTXSim_SetChipRegister(0, 0x79, 422'100),
     QTX3701_TmeasUpdateSingleResult(variables, 0), values({"DCOActualFrequency", "TMeasLastValue"}));
  say("a measurement of nothing is a warning that keeps the last value");
  for (uint8_t zero : {uint8_t{0x5b}, uint8_t{0x7d}}) {
    for (uint8_t address : {uint8_t{0x5b}, uint8_t{0x7d}})
      QTXSim_SetChipRegister(0, address, address == zero ? 0 : 1000);
    DO(QTX3701_TmeasUpdateSingleResult(variables, 0), QTX3701_TMeasUpdateResults(variables), lastValues());
  }
  DO(set("FMeasNumCycles", 0), QTX3701_TmeasUpdateSingleResult(variables, 0), waitIterations(100'000'000),
     waitIterations(25'000'001), waitIterations(25'000'000), waitIterations(10'000'000), waitIterations(5'000'000),
     waitIterations(1'000'000), waitIterations(500'001), waitIterations(500'000), QTX3701_measureWait(variables));
  say("delays are put aside and back in order");
  ready();
  kinds = QTXSIM_EVENT_SPI;
  DO(values(kDelays), QTX3701_measureSaveAndResetDelays(variables), values(kDelays),
     QTX3701_measureRestoreDelays(variables), values(kDelays), (choose(), values(kDelays)),
     QTX3701_measureSaveAndResetDelays(variables), QTX3701_measureRestoreDelays(variables), values(kDelays),
     set("TimingMeasurementRawValue", 9), QTX3701_measureTimingValue(variables), values({"TimingMeasurementRawValue"}));
}

TEST_F(Measurement, EveryTransferCanFail) {
  using Measure = int32_t (*)(VariableSet *);
  const struct {
    const char *name;
    Measure run;
  } measurements[] = {
      {"prepare", QTX3701_TMeasPrepare},
      {"disable", QTX3701_TMeasDisable},
      {"start", QTX3701_TMeasStartMeasure},
      {"single", [](VariableSet *set) { return QTX3701_TmeasUpdateSingleResult(set, 0); }},
      {"results", QTX3701_TMeasUpdateResults},
      {"coarse element", [](VariableSet *set) { return QTX3701_measureCoarseTuneElement(set, 3); }},
      {"medium element", [](VariableSet *set) { return QTX3701_measureMediumTuneElement(set, 3); }},
      {"coarse", QTX3701_measureAllCoarseTuneElements},
      {"medium", QTX3701_measureAllMediumTuneElements},
      {"fine", QTX3701_measureAllFineTuneElements},
      {"rate", QTX3701_measureSamplesPerSecond},
      {"save", QTX3701_measureSaveAndResetDelays},
      {"restore", QTX3701_measureRestoreDelays},
      {"timing value", [](VariableSet *set) { return static_cast<int32_t>(QTX3701_measureTimingValue(set)); }},
      {"oscillator on", [](VariableSet *set) { return QTX3701_measurementSetDCOFrequency(set, 150'000'000); }},
      {"oscillator off", [](VariableSet *set) { return QTX3701_measurementSetDCOFrequency(set, 0); }},
      {"all", QTX3701_measurementAll}};
  for (const auto &m : measurements) {
    std::string chosen;
    atEveryWrite(
        m.name, [&] { ready(), choose(), set("SWMeasEnable", 0), chosen = values(kDelays); },
        [&] { return m.run(variables); },
        [&] {
          const std::string delays = values(kDelays);
          return (delays == chosen ? "" : delays) + flags() + values({"SDLMeasEnable", "CoarseTuneMeasureMax"});
        },
        24);
  }
}

TEST_F(Measurement, ElementsAndAverages) {
  kinds = 0;
  const auto near = [](double got, double want) { return std::fabs(got / want - 1) < 2e-3 ? "near" : "far"; };
  const auto truth = [](int32_t grain, uint32_t element) {
    double seconds = 0;
    QTXSim_TrueDelayElement(0, grain, element, &seconds);
    return seconds;
  };
  set("SWMeasTargetCycles", 10'000'000);
  set("CoarseTuneMeasureMax", 4);
  const struct {
    int32_t grain;
    float *steps;
    int32_t (*element)(VariableSet *, int32_t);
    int32_t (*all)(VariableSet *);
    const char *average;
    uint32_t last;
  } chains[] = {{QTXSIM_COARSE, record->coarse_step, QTX3701_measureCoarseTuneElement,
                 QTX3701_measureAllCoarseTuneElements, "DelayCoarseTune", 4},
                {QTXSIM_MEDIUM, record->medium_step, QTX3701_measureMediumTuneElement,
                 QTX3701_measureAllMediumTuneElements, "DelayMediumTune", 63},
                {QTXSIM_FINE, record->fine_step, nullptr, QTX3701_measureAllFineTuneElements, "DelayFineTune", 63}};
  for (const auto &chain : chains) {
    if (chain.element) {
      for (int32_t e : {0, 17, 62, -1, 63})
        DO_FOR(e, chain.element(variables, e),
               chain.element(variables, e)
                   ? ""
                   : near(static_cast<double>(chain.steps[e]), truth(chain.grain, static_cast<uint32_t>(e))),
               chain.steps[16]);
    }
    std::fill_n(chain.steps, 64, 77.0f);
    DO_FOR(chain.average, chain.all(variables), chain.steps[chain.last], chain.steps[62] != 77, chain.steps[63],
           flags());
    double sum = 0;
    for (uint32_t e = 0; e < chain.last; ++e) {
      sum += truth(chain.grain, e);
      EXPECT_NEAR(static_cast<double>(chain.steps[e]), truth(chain.grain, e), 3e-14) << chain.average << e;
    }
    EXPECT_NEAR(real(chain.average), sum / (chain.grain == QTXSIM_FINE ? 64 : chain.last), 1e-15);
  }
  DO(record->delay_coarse_tune == real("DelayCoarseTune"), record->delay_medium_tune == real("DelayMediumTune"),
     record->delay_fine_tune == real("DelayFineTune"), set("CoarseTuneMeasureMax", 0),
     QTX3701_measureAllCoarseTuneElements(variables), record->coarse_step[3] != 0);
  say("a prepared chip is not prepared again; stopped clocks measure nothing");
  DO(set("FMeasEnable", 0), QTX3701_measureMediumTuneElement(variables, 0), get("FMeasEnable"),
     (record->prepared = 0, QTX3701_measureMediumTuneElement(variables, 0)), get("FMeasEnable"));
  QTXSim_SetReferenceClock(0, 0);
  DO(QTX3701_measureAllMediumTuneElements(variables), QTX3701_measurementAll(variables), record->coarse_measured);
}

TEST_F(Measurement, Oscillator) {
  start();
  DO(QTX3701_measurementSetDCOFrequency(variables, 150'000'000), values({"DCOTarget", "DCOTunerEnable", "DCOEnable"}),
     std::abs(QTX3701_measurementGetDCOFrequency(variables) - 150'000'000) < 400'000,
     QTX3701_measurementSetDCOFrequency(variables, 0),
     values({"DCOTarget", "DCOTunerEnable", "DCOEnable", "DCOActualFrequency"}),
     QTX3701_writeDCOTargetFrequency(variables, 0), set("DCOTargetFrequency", 200'000'000), values({"DCOTarget"}),
     set("DCOTargetFrequency", 0), values({"DCOEnable", "DCOTarget"}));
  for (const char *name : {"ClockFrequency", "FMeasNumCycles"}) {
    const int64_t before = get(name);
    set(name, 0);
    DO_FOR(name, QTX3701_measurementSetDCOFrequency(variables, 1), set(name, before));
  }
}

class Calibration : public Radar, public testing::WithParamInterface<const char *> {
 protected:
  void SetUp() override {
    start("QTX3701", GetParam());
    kinds = 0;
  }
  // Where a frame sees its only target, for a host that takes the first sampler to look `start` seconds after the
  // pulse.
  double target(const char *start_of_window) {
    std::vector<uint32_t> raw(256);
    std::vector<double> frame(256);
    EXPECT_EQ(operations->CaptureFrame(chip, raw.data(), 256, 0), 0);
    EXPECT_EQ(operations->NormalizeFrameDouble(chip, raw.data(), frame.data(), 256), 0);
    const simulator::Pulse pulse = simulator::pulseOf(5);
    const double middle = std::accumulate(frame.begin(), frame.end(), 0.0) / 256, first = real(start_of_window),
                 rate = real("SamplesPerSecond");
    double best = 0, best_match = -1e300;
    for (double range = 0.2; range < 1.4; range += 0.0002) {
      double match = 0;
      for (size_t k = 0; k < frame.size(); ++k) {
        const double time = first + static_cast<double>(k) / rate - 2 * range / kSpeedOfLight;
        if (std::fabs(time) < 5 * pulse.width) match += (frame[k] - middle) * pulse.at(time);
      }
      if (match > best_match) best_match = match, best = range;
    }
    return best;
  }
  double longest(const float *steps) { return static_cast<double>(*std::max_element(steps, steps + 63)); }
};

// A measured frequency is a whole number of counts, so every delay is off by up to that part of itself.
TEST_P(Calibration, FindsTheTruthAndPutsWindowAndTargetsWhereTheyAre) {
  set("FrameOffsetUseDelayedClock", 0);
  for (const int64_t fine_enable : {1, 0}) {
    set("SDFTEnable", fine_enable);
    ASSERT_EQ(QTX3701_measurementAll(variables), 0) << shown(*radar->error);
    double delay = 30e-9;
    const float *const chains[] = {record->coarse_step, record->medium_step, record->fine_step};
    for (int32_t grain : {QTXSIM_COARSE, QTXSIM_MEDIUM, QTXSIM_FINE}) {
      double sum = 0;
      const uint32_t count = grain == QTXSIM_COARSE && !fine_enable ? 16 : 63;
      for (uint32_t e = 0; e < count; ++e) {
        double truth = 0;
        QTXSim_TrueDelayElement(0, grain, e, &truth);
        sum += truth;
        EXPECT_NEAR(static_cast<double>(chains[grain][e]), truth, 2 * (delay + sum) * (5e-6 + 6e-8) + 1e-15)
            << grain << " " << e;
      }
    }
    double rate = 0, window = 0;
    QTXSim_TrueSamplesPerSecond(0, &rate);
    EXPECT_NEAR(record->samples_per_second / rate, 1, 3e-5);
    EXPECT_EQ(real("SamplesPerSecond"), record->samples_per_second);
    for (const double wanted : {0.7e-9, 3.333e-9, 9.99e-9, 12.345e-9, 47.11e-9}) {
      ASSERT_EQ(setReal("SampleDelay", wanted), 0);
      QTXSim_TrueWindowStart(0, &window);
      EXPECT_NEAR(window, wanted, longest(fine_enable ? record->fine_step : record->medium_step) / 2 + 0.5e-12)
          << wanted;
    }
    set("FrameOffsetUseDelayedClock", 1);
  }
  setReal("SampleDelay", 0.4 / kSpeedOfLight);
  set("SDMT", VAR_AUTO);
  const double element = longest(record->medium_step) * kSpeedOfLight / 2;  // metres
  const QTXSim_Reflector reflector = {1.15, 1500 * 1.15 * 1.15, QTXSIM_STILL, 0, 0, 0};
  QTXSim_SetScene(0, &reflector, 1, 0, 40);
  EXPECT_NEAR(target("SampleDelay"), 1.15, element / 2 + 0.0004);
  EXPECT_NEAR(target("FrameOffsetDelayTime_LiveRead"), 1.15, 0.0004);
}

INSTANTIATE_TEST_SUITE_P(Specimens, Calibration, testing::Values("FT0001AB", "A1"));

TEST_F(Measurement, ACompleteCalibrationKeepsWhatTheHostChose) {
  for (const char *chosen : {"nothing", "everything", "the fine chain"}) {
    start();
    kinds = 0;
    setReal("MediumInCoarseAverage", 29.5), setReal("FineInMediumAverage", 27.5);
    if (*chosen == 'e') {
      for (const auto &[name, number] : {std::pair{"CoarseTuneMeasureMax", 12},
                                         {"DCOTargetFrequency", 180'000'000},
                                         {"SWMeasTargetCycles", 5'000},
                                         {"FMeasNumCycles", 20'000}}) {
        set(name, number);
      }
    }
    set("SDFTEnable", *chosen == 't');
    DO_FOR(chosen, act("MeasureAll"),
           values({"CoarseTuneMeasureMax", "DCOTargetFrequency", "SWMeasTargetCycles", "FMeasNumCycles",
                   "SDLMeasEnable"}) +
               flags(),
           record->mclk_frequency, record->coarse_step[15] > 0, record->coarse_step[16],
           record->medium_in_coarse_average, record->fine_in_medium_average,
           std::fabs(real("FrameSize") * real("SamplesPerSecond") - 256) < 1e-3);
  }
}

class Record : public Delays {
 protected:
  Record() {
    startModule();
    auto *bytes = reinterpret_cast<uint8_t *>(record);
    for (size_t i = 0; i < sizeof *record; ++i) bytes[i] = static_cast<uint8_t>(i * 37 + 11);
    const double averages[] = {1.3e-9, 43e-12, 1.6e-12, 37e9, 30.5, 28.5};
    std::memcpy(&record->delay_coarse_tune, averages, sizeof averages);
    kinds = 0;
  }
  int32_t save(uint32_t block = 3) { return operations->measurementSaveDataToFlash(chip, block); }
  int32_t load(uint32_t block = 3) { return operations->measurementLoadDataFromFlash(chip, block); }
  std::vector<uint8_t> flash(uint32_t address) {
    std::vector<uint8_t> bytes(sizeof *record);
    QTXSim_FlashRead(0, address, bytes.data(), static_cast<uint32_t>(bytes.size()));
    return bytes;
  }
  std::string averagesNow() {
    return values({"DelayCoarseTune", "DelayMediumTune", "DelayFineTune", "SamplesPerSecond", "MediumInCoarseAverage",
                   "FineInMediumAverage"});
  }
};

TEST_F(Record, ResultsAreTheRecordInItsOrder) {
  std::vector<double> results(580, -1.0);
  DO(operations->getTimingMeasurementResults(chip, results.data(), 514), results[0],
     operations->getTimingMeasurementResults(chip, nullptr, 579),
     operations->getTimingMeasurementResults(chip, results.data(), 515), results[579], test::hex(results.data(), 8),
     operations->getTimingMeasurementResults(nullptr, results.data(), 579));
  for (size_t first = 1; first < 579; first += 32) {
    std::string line = std::to_string(first);
    for (size_t i = first; i < std::min<size_t>(first + 32, 579); ++i) line += format(" %.9g", results[i]);
    say(line);
  }
}

TEST_F(Record, SavesAndLoadsThroughTheModulesFlash) {
  const TimingRecord before = *record;
  ASSERT_EQ(save(), 0);
  std::vector<uint8_t> stored = flash(12'288);
  EXPECT_EQ(std::memcmp(stored.data(), &before, 1300), 0);
  EXPECT_EQ(record->checksum, std::accumulate(stored.begin(), stored.begin() + 1296, 0u));
  EXPECT_EQ(std::memcmp(stored.data(), record, sizeof *record), 0);
  std::memset(record, 0, sizeof *record);
  DO(load(), averagesNow(), std::memcmp(stored.data(), record, sizeof *record), load(4));
  for (size_t broken : {0u, 500u, 1295u, 1296u, 1300u, 1303u}) {
    stored[broken] ^= 1;
    QTXSim_FlashWrite(0, 12'288, stored.data(), static_cast<uint32_t>(stored.size()));
    DO_FOR(static_cast<int64_t>(broken), load());
    stored[broken] ^= 1;
  }
  record->delay_fine_tune = 2;  // seconds
  DO(save(), (std::memset(record, 0, sizeof *record), averages(1e-9, 1e-12, 1e-12), load()), averagesNow(),
     record->delay_fine_tune);
  const std::vector<uint8_t> zeros(sizeof *record);
  QTXSim_FlashWrite(0, 4096, zeros.data(), static_cast<uint32_t>(zeros.size()));
  DO(load(1), averagesNow(), (QTXSim_FlashFailProgram(0, 1, 1), save()), load());
  atEveryWrite(
      "load", [] {}, [&] { return load(1); });
  QTXSim_FailCall("Write", 1, 99, 4);
  DO(save());
  QTXSim_ClearFaults();
  say("a preparation of another power cycle is made anew");
  kinds = 0;
  DO(QTX3701_TMeasPrepare(variables), save(), chipInitChip(chip), record->prepared, load(), record->prepared,
     QTX3701_measureMediumTuneElement(variables, 0), get("FMeasEnable"), save(65'537));
  unlocked = 0;
  varNamed(radar->module->variables, "FlashBlockSize")->value = 65'536;
  DO(save(1), flash(65'536)[0], (varNamed(radar->module->variables, "FlashBlockSize")->flags = 0, save()), load(),
     (moduleFree(&radar->module, nullptr), save()), load(), operations->measurementSaveDataToFlash(nullptr, 0),
     operations->measurementLoadDataFromFlash(nullptr, 0));
}

}  // namespace
}  // namespace pulsekit::test
