#include "QTX3701-timing.h"

#include <algorithm>
#include <iterator>
#include <optional>

#include "../../support/handle_state.h"

using namespace pulsekit;
using namespace pulsekit::chip;

static constexpr const char kSource[] = CHIP_TIMING_SOURCE;

namespace {

constexpr uint8_t kFrequencyStatusRegister = 0x5c;
constexpr uint64_t kFrequencyBusy = 0x1;
constexpr uint64_t kTunerBusy = 0x2;
constexpr uint8_t kMeasureStatusRegister = 0x7f;
constexpr uint64_t kMeasureBusy = 0x1;
constexpr uint64_t kTimingValueBusy = 0x8000;

enum ResultKind : uint32_t { kSampleDelay = 0, kSamplerDelayLine = 3 };
constexpr const char *kResultRegisters[] = {"SDMeasResult", "SPDMeasResult", "PGMeasResult", "SDLMeasResult"};

struct LastValue {
  const char *variable;
  uint32_t kind;
};
constexpr LastValue kLastValues[] = {
    {"TMeasLastValueSD", 0}, {"TMeasLastValueSPD", 1}, {"TMeasLastValueSDL", 3}, {"TMeasLastValuePGD", 2}};

// Power-on values that are of no use to a measurement, and what it needs instead.
struct Replacement {
  const char *variable;
  uint64_t power_on;
  int64_t needed;
};
constexpr Replacement kReplacements[] = {
    {"DCOTargetFrequency", 0, 211'000'000},
    {"SWMeasTargetCycles", 65'535, 10'000'000},
    {"FMeasNumCycles", 10'000, 100'000},
};

constexpr const char *kMeasurementEnables[] = {"MClkMeasMode", "SWMeasEnable", "MeasClkEnable", "FMeasEnable"};

// The variables of the saved-delay slots; a measurement wants the fine chains on and everything else at 0.
constexpr const char *kDelayVariables[] = {
    "SDCT", "SDMT", "SDFT", "SPDCT", "SPDMT", "SPDFT", "StaggeredPRFEnable", nullptr, "SDFTEnable", "SPDFTEnable"};
constexpr size_t kFirstFineEnable = 8;
constexpr size_t kFollowFineEnable[] = {2, 1};
constexpr size_t kResetOrder[] = {2, 1, 0, 5, 4, 3, 6, 8, 9};
constexpr size_t kRestoreOrder[] = {2, 1, 0, 3, 4, 5, 6, 8, 9};

struct Chain {
  const char *variable, *average_variable;
  float (TimingRecord::*steps)[kDelayElements];
  double TimingRecord::*average;
  int32_t TimingRecord::*measured;
};
constexpr Chain kCoarse = {"SDCT", "DelayCoarseTune", &TimingRecord::coarse_step, &TimingRecord::delay_coarse_tune,
                           &TimingRecord::coarse_measured};
constexpr Chain kMedium = {"SDMT", "DelayMediumTune", &TimingRecord::medium_step, &TimingRecord::delay_medium_tune,
                           &TimingRecord::medium_measured};
constexpr Chain kFine = {"SDFT", "DelayFineTune", &TimingRecord::fine_step, &TimingRecord::delay_fine_tune,
                         &TimingRecord::fine_measured};

// The settings that a sweep steps through, and the settings whose steps it forgets first.
struct Sweep {
  int32_t first, last, divisor, cleared_first, cleared_last;
};

QTX_Handle *accessOf(const VariableSet *set) { return static_cast<QTX_Handle *>(set->owner); }

// A register that can't be read ends the wait: where the code is not looked at, it counts as idle.
int32_t waitWhile(VariableSet *set, uint8_t address, uint32_t byte_count, uint64_t busy) {
  Deadline deadline(accessOf(set));
  for (;;) {
    uint64_t status = 0;
    if (int32_t code = CHIP(ReadRegister)(accessOf(set), address, byte_count, &status)) {
      if (!lostPoll(chipOf(set))) noteLostPoll(chipOf(set), code);
      return code;
    }
    if ((status & busy) == 0) return kSuccess;
    if (int32_t code = waitCheck(accessOf(set), deadline)) {
      return origin(set->error_state, HERE, code, "Waiting for the end of a measurement");
    }
  }
}

int32_t setEnables(VariableSet *set, int64_t value) {
  for (const char *name : kMeasurementEnables) {
    if (int32_t code = setInteger(set, name, value)) return code;
  }
  return kSuccess;
}

int32_t prepareOnce(VariableSet *set, const TimingRecord *record) {
  return record->prepared == 0 || preparedElsewhere(chipOf(set)) ? CHIP(TMeasPrepare)(set) : int32_t{kSuccess};
}

void notePreparation(ChipHandle *chip, int32_t prepared) {
  if (chip->timing_record) static_cast<TimingRecord *>(chip->timing_record)->prepared = prepared;
  notePreparedElsewhere(chip, false);
}

int32_t waitForResults(VariableSet *set) {
  int32_t code = waitWhile(set, kMeasureStatusRegister, 1, kMeasureBusy);
  if (!endsWait(code)) code = waitWhile(set, kFrequencyStatusRegister, 2, kFrequencyBusy);
  if (!endsWait(code)) return kSuccess;
  return afterEndedWait(set->error_state, code, [&] { trigger(set, "SWStopMeas"); });
}

// Counts that one second of delay gives; none, and a warning in the record, where the hardware measured nothing.
int32_t readScale(VariableSet *set, TracePoint at, std::optional<uint64_t> *counts_per_second) {
  QTX_StackTrace *trace = set->error_state;
  uint64_t measured = 0, cycles = 0, reference_cycles = 0;
  if (int32_t code = varGetValue_ByName(set, "FMeasResult", &measured)) return passThrough(trace, at, code);
  if (int32_t code = varGetValue_ByName(set, "SWMeasCyclesCounter", &cycles)) return passThrough(trace, at, code);
  if (int32_t code = varGetValue_ByName(set, "FMeasNumCycles", &reference_cycles)) return passThrough(trace, at, code);

  uint64_t frequency = setting(set, "ClockFrequency");
  if (setting(set, "MeasClkSource") == 1) {
    if (reference_cycles == 0) return origin(trace, at, kIllegalValue, "FMeasNumCycles is 0");
    frequency = measured * frequency / reference_cycles;
    if (int32_t code = setInteger(set, "DCOActualFrequency", static_cast<int64_t>(frequency))) {
      return passThrough(trace, at, code);
    }
  }
  if (measured == 0) {
    origin(trace, at, kError, "FMeasResult returned 0, measurement data will be invalid.");
  } else if (cycles == 0) {
    origin(trace, at, kError, "SWMeasCyclesCounter returned 0, measurement data will be invalid.");
  } else {
    *counts_per_second = frequency * cycles;
  }
  return kSuccess;
}

double seconds(uint64_t counts, uint64_t counts_per_second) {
  return static_cast<double>(counts) / static_cast<double>(counts_per_second);
}

// The sample delay with a chain at a setting.
int32_t measureAt(VariableSet *set, const Chain &chain, int64_t chain_setting, float *delay) {
  if (int32_t code = setInteger(set, chain.variable, chain_setting)) return code;
  if (int32_t code = CHIP(TMeasStartMeasure)(set)) return code;
  if (int32_t code = CHIP(TmeasUpdateSingleResult)(set, kSampleDelay)) return code;
  *delay = static_cast<float>(realSetting(set, "TMeasLastValue"));
  return kSuccess;
}

int32_t sweepElements(VariableSet *set, const Chain &chain, const Sweep &sweep, TimingRecord *record, float *sum) {
  if (int32_t code = CHIP(measureSaveAndResetDelays)(set)) return code;
  if (int32_t code = prepareOnce(set, record)) return code;
  float previous = 0;
  if (int32_t code = measureAt(set, chain, sweep.first, &previous)) return code;
  for (int32_t element = sweep.first; element < sweep.last; ++element) {
    float delay = 0;
    if (int32_t code = measureAt(set, chain, element + 1, &delay)) return code;
    (record->*chain.steps)[element] = delay - previous;
    *sum += delay - previous;
    previous = delay;
  }
  return kSuccess;
}

int32_t measureElements(VariableSet *set, const Chain &chain, const Sweep &sweep, TracePoint at) {
  TimingRecord *record = timingRecordOf(set);
  if (!record) return origin(set->error_state, at, kChipNotInitialized);
  std::fill((record->*chain.steps) + sweep.cleared_first, (record->*chain.steps) + sweep.cleared_last, 0.0f);

  float sum = 0;
  if (int32_t code = sweepElements(set, chain, sweep, record, &sum)) {
    return CHIP(measureRestoreAndReturn)(set, passThrough(set->error_state, at, code));
  }
  CHIP(measureRestoreDelays)(set);
  if (int32_t code = setReal(set, chain.average_variable, sum / static_cast<float>(sweep.divisor))) {
    return passThrough(set->error_state, at, code);
  }
  record->*chain.measured = 1;
  record->*chain.average = realSetting(set, chain.average_variable);
  return kSuccess;
}

int32_t stepOfElement(VariableSet *set, const Chain &chain, int32_t element, TimingRecord *record) {
  if (int32_t code = CHIP(measureSaveAndResetDelays)(set)) return code;
  if (int32_t code = prepareOnce(set, record)) return code;
  float before = 0, after = 0;
  if (int32_t code = measureAt(set, chain, element, &before)) return code;
  if (int32_t code = measureAt(set, chain, element + 1, &after)) return code;
  (record->*chain.steps)[element] = after - before;
  return kSuccess;
}

// An element is in range when the named variable can be set one beyond it.
int32_t measureElement(VariableSet *set, const Chain &chain, const char *range, int32_t element, TracePoint at) {
  TimingRecord *record = timingRecordOf(set);
  if (!record) return origin(set->error_state, at, kChipNotInitialized);
  if (element < 0 || element >= maximumSetting(set, range)) return origin(set->error_state, at, kTimingMeasurement);
  if (int32_t code = stepOfElement(set, chain, element, record)) {
    return CHIP(measureRestoreAndReturn)(set, passThrough(set->error_state, at, code));
  }
  CHIP(measureRestoreDelays)(set);
  return kSuccess;
}

int32_t tuneDco(VariableSet *set) {
  if (int32_t code = trigger(set, "CalibrateDCO")) return code;
  return waitWhile(set, kFrequencyStatusRegister, 2, kTunerBusy);
}

int32_t switchDcoOff(VariableSet *set) {
  for (const char *name : {"DCOTarget", "DCOTunerEnable", "DCOEnable", "DCOActualFrequency"}) {
    if (int32_t code = setInteger(set, name, 0)) return code;
  }
  return kSuccess;
}

int32_t measureSamplerDelayLine(VariableSet *set, const TimingRecord *record) {
  if (int32_t code = CHIP(measureSaveAndResetDelays)(set)) return code;
  if (int32_t code = setInteger(set, "SDLMeasEnable", 1)) return code;
  if (int32_t code = prepareOnce(set, record)) return code;
  if (int32_t code = CHIP(TMeasStartMeasure)(set)) return code;
  if (int32_t code = CHIP(TmeasUpdateSingleResult)(set, kSamplerDelayLine)) return code;
  return setInteger(set, "SDLMeasEnable", 0);
}

int32_t replacePowerOnValues(VariableSet *set) {
  for (const Replacement &replacement : kReplacements) {
    if (setting(set, replacement.variable) != replacement.power_on) continue;
    if (int32_t code = setInteger(set, replacement.variable, replacement.needed)) return code;
  }
  return kSuccess;
}

int64_t valueToRestore(VariableSet *set, const char *name) {
  const Variable *variable = varNamed(set, name);
  return variable && !(variable->flags & VAR_FLAG_AUTO) ? static_cast<int64_t>(variable->value) : VAR_AUTO;
}

// With the delayed clock the coarse chain never has to cover more than a clock period, so a part of it is enough.
int32_t measureCoarseWithinClockPeriod(VariableSet *set) {
  constexpr int64_t kLeastCoarseSettings = 16;
  const float timing_value = static_cast<float>(CHIP(measureTimingValue)(set));
  if (set->error_state && set->error_state->code != kSuccess) return set->error_state->code;

  const int64_t remembered = valueToRestore(set, "CoarseTuneMeasureMax");
  const int64_t enough = std::max(static_cast<int64_t>(timing_value) + 1, kLeastCoarseSettings);
  if (int32_t code = setInteger(set, "CoarseTuneMeasureMax", enough)) return code;
  if (int32_t code = CHIP(measureAllCoarseTuneElements)(set)) {
    if (!endsWait(code)) return code;
    return afterEndedWait(set->error_state, code, [&] { setInteger(set, "CoarseTuneMeasureMax", remembered); });
  }
  return setInteger(set, "CoarseTuneMeasureMax", remembered);
}

}  // namespace

int32_t CHIP(measureSampleDelayLines)(VariableSet *set) {
  TimingRecord *record = timingRecordOf(set);
  if (!record) return origin(set->error_state, HERE, kChipNotInitialized);
  record->mclk_frequency = CHIP(MCLK_frequency)(set);
  return kSuccess;
}

/* ---- Delay settings around a measurement ---- */

int32_t CHIP(measureSaveAndResetDelays)(VariableSet *set) {
  const ChipHandle *chip = chipOf(set);
  if (!chip || !chip->saved_delays) return origin(set->error_state, HERE, kChipNotInitialized);
  auto *saved = static_cast<SavedDelays *>(chip->saved_delays);
  for (const size_t slot : kResetOrder) saved->slots[slot] = valueToRestore(set, kDelayVariables[slot]);
  for (const size_t slot : kResetOrder) {
    if (int32_t code = setInteger(set, kDelayVariables[slot], slot >= kFirstFineEnable ? 1 : 0)) {
      return passThrough(set->error_state, HERE, code);
    }
  }
  return kSuccess;
}

int32_t CHIP(measureRestoreDelays)(VariableSet *set) {
  const ChipHandle *chip = chipOf(set);
  if (!chip || !chip->saved_delays) return kSuccess;
  const auto *saved = static_cast<const SavedDelays *>(chip->saved_delays);
  for (const size_t slot : kRestoreOrder) setInteger(set, kDelayVariables[slot], saved->slots[slot]);
  // The fine chains were on until the end of that order: what follows the delay does so with them as they are now.
  for (const size_t slot : kFollowFineEnable) {
    if (saved->slots[slot] == VAR_AUTO) setInteger(set, kDelayVariables[slot], VAR_AUTO);
  }
  return kSuccess;
}

int32_t CHIP(measureRestoreAndReturn)(VariableSet *set, int32_t code) {
  if (code == kSuccess || !set->error_state) {
    CHIP(measureRestoreDelays)(set);
    return code;
  }
  // The failure that ended the measurement is the one to report, whatever the restoring meets.
  const QTX_StackTrace failure = *set->error_state;
  CHIP(measureRestoreDelays)(set);
  *set->error_state = failure;
  return code;
}

int32_t CHIP(measureWait)(VariableSet *set) {
  const int32_t iterations = waitIterations(CHIP(MCLK_frequency)(set));
  volatile int32_t count = 0;
  while (count < iterations) {
    count = count + 1;
  }
  return kSuccess;
}

/* ---- One measurement ---- */

int32_t CHIP(TMeasPrepare)(VariableSet *set) {
  if (!timingRecordOf(set)) return origin(set->error_state, HERE, kChipNotInitialized);
  if (int32_t code = setEnables(set, 1)) return passThrough(set->error_state, HERE, code);
  notePreparation(chipOf(set), 1);
  return kSuccess;
}

void CHIP(forgetPreparation)(ChipHandle *chip) { notePreparation(chip, 0); }

int32_t CHIP(TMeasDisable)(VariableSet *set) {
  if (!timingRecordOf(set)) return origin(set->error_state, HERE, kChipNotInitialized);
  if (int32_t code = setEnables(set, 0)) return passThrough(set->error_state, HERE, code);
  notePreparation(chipOf(set), 0);
  return kSuccess;
}

int32_t CHIP(TMeasStartMeasure)(VariableSet *set) {
  if (int32_t code = cancelCheck(accessOf(set))) return origin(set->error_state, HERE, code);
  for (const LastValue &last : kLastValues) {
    if (int32_t code = setReal(set, last.variable, 0.0)) return passThrough(set->error_state, HERE, code);
  }
  if (int32_t code = trigger(set, "FMeasClearResult")) return passThrough(set->error_state, HERE, code);
  if (int32_t code = trigger(set, "StartMeas")) return passThrough(set->error_state, HERE, code);
  return kSuccess;
}

int32_t CHIP(TmeasUpdateSingleResult)(VariableSet *set, uint32_t kind) {
  if (int32_t code = waitForResults(set)) return passThrough(set->error_state, HERE, code);
  uint64_t result = 0;
  if (kind < std::size(kResultRegisters)) {
    if (int32_t code = varGetValue_ByName(set, kResultRegisters[kind], &result))
      return passThrough(set->error_state, HERE, code);
  }
  std::optional<uint64_t> counts_per_second;
  if (int32_t code = readScale(set, HERE, &counts_per_second)) return code;
  if (!counts_per_second) return kSuccess;
  if (int32_t code = setReal(set, "TMeasLastValue", seconds(result, *counts_per_second))) {
    return passThrough(set->error_state, HERE, code);
  }
  return kSuccess;
}

int32_t CHIP(TMeasUpdateResults)(VariableSet *set) {
  if (int32_t code = waitForResults(set)) return passThrough(set->error_state, HERE, code);
  uint64_t counts[std::size(kResultRegisters)] = {};
  for (size_t kind = 0; kind < std::size(counts); ++kind) {
    if (int32_t code = varGetValue_ByName(set, kResultRegisters[kind], &counts[kind])) {
      return passThrough(set->error_state, HERE, code);
    }
  }
  std::optional<uint64_t> counts_per_second;
  if (int32_t code = readScale(set, HERE, &counts_per_second)) return code;
  if (!counts_per_second) return kSuccess;
  for (const LastValue &last : kLastValues) {
    if (int32_t code = setReal(set, last.variable, seconds(counts[last.kind], *counts_per_second))) {
      return passThrough(set->error_state, HERE, code);
    }
  }
  return kSuccess;
}

double CHIP(measureTimingValue)(VariableSet *set) {
  if (endsWait(waitWhile(set, kSweepStatusRegister, 2, kTimingValueBusy))) return 0.0;
  int32_t code = CHIP(measureSaveAndResetDelays)(set);
  if (code == kSuccess) code = setInteger(set, "TimingMeasurementRawValue", 0);
  if (code != kSuccess) passThrough(set->error_state, HERE, code);
  CHIP(measureRestoreAndReturn)(set, code);
  return 0.0;
}

/* ---- Delay elements ---- */

int32_t CHIP(measureAllMediumTuneElements)(VariableSet *set) {
  const int32_t first = minimumSetting(set, "SDMT"), last = maximumSetting(set, "SDMT");
  return measureElements(set, kMedium, {first, last, last - first, first, last}, HERE);
}

int32_t CHIP(measureAllFineTuneElements)(VariableSet *set) {
  // The average spreads over all elements, also the last one, whose step can't be measured.
  return measureElements(set, kFine, {0, kMaxDelaySetting, kDelayElements, 0, kDelayElements}, HERE);
}

int32_t CHIP(measureAllCoarseTuneElements)(VariableSet *set) {
  const int32_t first = minimumSetting(set, "SDCT");
  const int32_t last = static_cast<int32_t>(std::min<uint64_t>(setting(set, "CoarseTuneMeasureMax"), kMaxDelaySetting));
  if (last <= first) return origin(set->error_state, HERE, kIllegalValue, "CoarseTuneMeasureMax is 0");
  return measureElements(set, kCoarse, {first, last, last - first, first, maximumSetting(set, "SDCT")}, HERE);
}

int32_t CHIP(measureMediumTuneElement)(VariableSet *set, int32_t element) {
  // The send-pulse chain's range stands for both: the chains are of the same build.
  return measureElement(set, kMedium, "SPDMT", element, HERE);
}

int32_t CHIP(measureCoarseTuneElement)(VariableSet *set, int32_t element) {
  return measureElement(set, kCoarse, "SDCT", element, HERE);
}

/* ---- Oscillator, sampling rate, everything ---- */

int32_t CHIP(measurementSetDCOFrequency)(VariableSet *set, uint32_t frequency) {
  QTX_StackTrace *trace = set->error_state;
  if (frequency == 0) {
    if (int32_t code = switchDcoOff(set)) return passThrough(trace, HERE, code);
    return kSuccess;
  }
  const uint64_t clock = setting(set, "ClockFrequency");
  const uint64_t reference_cycles = setting(set, "FMeasNumCycles");
  if (clock == 0) return origin(trace, HERE, kIllegalValue, "ClockFrequency is 0");
  if (reference_cycles == 0) return origin(trace, HERE, kIllegalValue, "FMeasNumCycles is 0");

  if (int32_t code = setInteger(set, "DCOTunerEnable", 1)) return passThrough(trace, HERE, code);
  if (int32_t code = setInteger(set, "DCOEnable", 1)) return passThrough(trace, HERE, code);
  const uint64_t target = frequency * reference_cycles / clock;
  if (int32_t code = setInteger(set, "DCOTarget", static_cast<int64_t>(target))) return passThrough(trace, HERE, code);
  if (int32_t code = tuneDco(set)) return passThrough(trace, HERE, code);
  uint64_t measured = 0;
  if (int32_t code = varGetValue_ByName(set, "FMeasResult", &measured)) return passThrough(trace, HERE, code);
  const int64_t actual = static_cast<int64_t>(measured * clock / reference_cycles);
  if (int32_t code = setInteger(set, "DCOActualFrequency", actual)) return passThrough(trace, HERE, code);
  return kSuccess;
}

int32_t CHIP(writeDCOTargetFrequency)(VariableSet *set, int64_t frequency) {
  const uint64_t oscillator = setting(set, "DCOEnable"), tuner = setting(set, "DCOTunerEnable");
  if (Restoring::runs(accessOf(set))) {
    // The settings that would follow from the frequency are restored themselves.
    const int32_t code = oscillator == 1 && tuner == 1 ? tuneDco(set) : int32_t{kSuccess};
    return code ? passThrough(set->error_state, HERE, code) : kSuccess;
  }
  if (frequency == 0 && oscillator == 0 && tuner == 0) return kSuccess;
  return CHIP(measurementSetDCOFrequency)(set, static_cast<uint32_t>(frequency));
}

int64_t CHIP(measurementGetDCOFrequency)(VariableSet *set) {
  return static_cast<int64_t>(setting(set, "DCOActualFrequency"));
}

int32_t CHIP(measureSamplesPerSecond)(VariableSet *set) {
  TimingRecord *record = timingRecordOf(set);
  if (!record) return origin(set->error_state, HERE, kChipNotInitialized);
  if (int32_t code = measureSamplerDelayLine(set, record)) {
    return CHIP(measureRestoreAndReturn)(set, passThrough(set->error_state, HERE, code));
  }

  // The measured line spans one sampler more than a frame.
  const float samplers = static_cast<float>(setting(set, "SamplersOnChip"));
  const float line = static_cast<float>(realSetting(set, "TMeasLastValue"));
  const float frame_size = line * samplers / (samplers + 1);
  if (int32_t code = setReal(set, "FrameSize", frame_size)) {
    return CHIP(measureRestoreAndReturn)(set, passThrough(set->error_state, HERE, code));
  }
  CHIP(measureRestoreDelays)(set);
  if (int32_t code = setReal(set, "SamplesPerSecond", samplers / frame_size)) {
    return passThrough(set->error_state, HERE, code);
  }
  record->samples_per_second = realSetting(set, "SamplesPerSecond");
  return kSuccess;
}

int32_t CHIP(measurementAll)(VariableSet *set) {
  QTX_StackTrace *trace = set->error_state;
  TimingRecord *record = timingRecordOf(set);
  if (!record) return origin(trace, HERE, kChipNotInitialized);
  if (int32_t code = replacePowerOnValues(set)) return passThrough(trace, HERE, code);
  if (setting(set, "SDFTEnable") == 1) {
    if (int32_t code = CHIP(measureAllFineTuneElements)(set)) return passThrough(trace, HERE, code);
  }
  if (int32_t code = CHIP(measureAllMediumTuneElements)(set)) return passThrough(trace, HERE, code);
  if (setting(set, "FrameOffsetUseDelayedClock") == 1) {
    if (int32_t code = measureCoarseWithinClockPeriod(set)) return passThrough(trace, HERE, code);
  } else {
    if (int32_t code = CHIP(measureAllCoarseTuneElements)(set)) return passThrough(trace, HERE, code);
  }
  if (int32_t code = CHIP(measureSampleDelayLines)(set)) return passThrough(trace, HERE, code);
  if (int32_t code = CHIP(measureSamplesPerSecond)(set)) return passThrough(trace, HERE, code);
  record->medium_in_coarse_average = realSetting(set, "MediumInCoarseAverage");
  record->fine_in_medium_average = realSetting(set, "FineInMediumAverage");
  return kSuccess;
}
