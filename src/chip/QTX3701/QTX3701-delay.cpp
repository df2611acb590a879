// A delay as settings of the delay chains and back. Everything is single precision, as the measured steps are.
#include <algorithm>
#include <cmath>
#include <limits>
#include <span>

#include "QTX3701-timing.h"

using namespace pulsekit;
using namespace pulsekit::chip;

namespace {

// What is left of a delay once a chain has taken its part.
struct Taken {
  int32_t setting = 0;
  float rest = 0;
};

int32_t truncated(float quotient, int32_t maximum) {
  if (!(quotient > 0)) return 0;
  return quotient >= static_cast<float>(maximum) ? maximum : static_cast<int32_t>(quotient);
}

float step(VariableSet *set, const char *name) { return static_cast<float>(realSetting(set, name)); }

Taken divide(float delay, float step_size, int32_t maximum) {
  const int32_t setting = truncated(delay / step_size, maximum);
  return {setting, delay - static_cast<float>(setting) * step_size};
}

// Takes steps while the delay reaches them: all of the step, or half of it to end on the nearest setting.
Taken walk(float delay, std::span<const float, kDelayElements> steps, int32_t maximum, float share = 1,
           float unmeasured = 0) {
  if (std::isnan(delay)) return {0, delay};
  for (int32_t setting = 0; setting < maximum; ++setting) {
    const float measured = steps[static_cast<size_t>(setting)];
    const float size = measured == 0 ? unmeasured : measured;
    if (delay < size * share) return {setting, delay};
    delay -= size;
  }
  return {maximum, delay};
}

bool measured(const TimingRecord *record, int32_t TimingRecord::*flag) { return record && record->*flag == 1; }

float beyondClockPeriods(VariableSet *set, float delay) {
  const int32_t periods = CHIP(measurementGetFrameOffsetClockPeriods)(set, delay);
  return periods > 0 ? delay - static_cast<float>(periods) / static_cast<float>(CHIP(MCLK_frequency)(set)) : delay;
}

Taken takeCoarse(VariableSet *set, float delay) {
  const TimingRecord *record = timingRecordOf(set);
  const float average = step(set, "DelayCoarseTune");
  const int32_t maximum = maximumSetting(set, "SDCT");
  const float rest = beyondClockPeriods(set, delay);
  if (!measured(record, &TimingRecord::coarse_measured)) return divide(rest, average, maximum);
  return walk(rest, record->coarse_step, maximum, 1, average);
}

Taken takeMedium(VariableSet *set, float delay) {
  const TimingRecord *record = timingRecordOf(set);
  const int32_t maximum = maximumSetting(set, "SDMT");
  const float rest = takeCoarse(set, delay).rest;
  if (!measured(record, &TimingRecord::coarse_measured) || !measured(record, &TimingRecord::medium_measured)) {
    return divide(rest, step(set, "DelayMediumTune"), maximum);
  }
  const bool fine_chain_takes_the_rest = setting(set, "SDFTEnable") != 0;
  return walk(rest, record->medium_step, maximum, fine_chain_takes_the_rest ? 1.0f : 0.5f);
}

float addSteps(float delay, std::span<const float, kDelayElements> steps, uint64_t count) {
  for (const float size : steps.first(std::min<uint64_t>(count, kDelayElements))) delay += size;
  return delay;
}

}  // namespace

int32_t CHIP(measurementGetFrameOffsetClockPeriods)(VariableSet *set, float delay) {
  if (setting(set, "FrameOffsetUseDelayedClock") == 0) return 0;
  return truncated(static_cast<float>(CHIP(MCLK_frequency)(set)) * delay, std::numeric_limits<int32_t>::max());
}

int32_t CHIP(measurementGetFrameOffsetCoarseTune)(VariableSet *set, float delay) {
  return takeCoarse(set, delay).setting;
}

int32_t CHIP(measurementGetFrameOffsetMediumTune)(VariableSet *set, float delay) {
  return takeMedium(set, delay).setting;
}

int64_t CHIP(measurementGetFrameOffsetFineTune)(VariableSet *set, float delay) {
  if (setting(set, "SDFTEnable") == 0) return 0;
  const TimingRecord *record = timingRecordOf(set);
  const float rest = takeMedium(set, delay).rest;
  if (!measured(record, &TimingRecord::coarse_measured) || !measured(record, &TimingRecord::medium_measured) ||
      !measured(record, &TimingRecord::fine_measured)) {
    return divide(rest, step(set, "DelayFineTune"), maximumSetting(set, "SDFT")).setting;
  }
  return walk(rest, record->fine_step, maximumSetting(set, "SDFT"), 0.5f).setting;
}

float CHIP(measurementGetDelayToFrameOffset)(VariableSet *set) {
  float delay = 0;
  const int32_t frequency = CHIP(MCLK_frequency)(set);
  if (setting(set, "FrameOffsetUseDelayedClock") == 1 && frequency != 0) {
    delay += static_cast<float>(setting(set, "StaggeredPRFDelay")) / static_cast<float>(frequency);
  }
  const TimingRecord *record = timingRecordOf(set);
  if (!record) return delay;
  delay = addSteps(delay, record->coarse_step, setting(set, "SDCT"));
  return addSteps(delay, record->medium_step, setting(set, "SDMT"));
}
