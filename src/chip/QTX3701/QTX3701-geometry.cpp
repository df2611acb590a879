// What the settings mean for a frame, which of them can't give a good one, and calibration with all that follows from
// it.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "../../support/handle_state.h"
#include "QTX3701-frames.h"
#include "QTX3701-timing.h"

using namespace pulsekit;
using namespace pulsekit::chip;

static constexpr const char kSource[] = "src/chip/" CHIP_NAME "/" CHIP_NAME "-geometry";

namespace {

// Settings that follow from the sample delay by way of the measured steps.
constexpr const char *kWindowSettings[] = {"StaggeredPRFDelay", "SDCT", "SDMT", "SDFT"};

// What a measurement moves and moves back.
constexpr const char *kMovedSettings[] = {
    "SDFT", "SDMT", "SDCT", "SPDCT", "SPDMT", "SPDFT", "StaggeredPRFEnable", "SDFTEnable", "SPDFTEnable"};

double number(VariableSet *set, const char *name) { return static_cast<double>(setting(set, name)); }

std::string text(double value) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%.0f", value);
  return buffer;
}

// Whether an automatic setting of the window is not what the delay steps as they are now make of it.
bool windowIsElsewhere(VariableSet *set) {
  return std::any_of(std::begin(kWindowSettings), std::end(kWindowSettings), [set](const char *name) {
    Variable *variable = varNamed(set, name);
    if (!variable || !(variable->flags & VAR_FLAG_AUTO)) return false;
    uint64_t automatic = variable->value;
    varGetAutoValue(set, variable, &automatic);
    return automatic != variable->value;
  });
}

void checkClock(VariableSet *set, Findings &findings) {
  if (setting(set, "MClkEnable") == 0) {
    findings.add("MClkEnable", "the master clock is off, no sweep runs", "set it to 1");
  } else if (setting(set, "MClkSource") == 1 && setting(set, "DCOEnable") == 0) {
    findings.add("MClkSource", "the master clock comes from the oscillator, which is off",
                 "set it to 0, or DCOTargetFrequency to a frequency");
  } else if (CHIP(MCLK_frequency)(set) <= 0) {
    findings.add("ClockFrequency", "the master clock has no frequency", "set it to the reference clock, or to auto");
  }
}

void checkSweep(VariableSet *set, Findings &findings) {
  if (number(set, "DACMin") > number(set, "DACMax")) {
    findings.add("DACMin", "it is above DACMax, so that a sweep has no threshold",
                 "set DACMin and DACMax to auto, and ZoomMin below ZoomMax");
  }
  if (setting(set, "DACStepFine") == 0) {
    findings.add("DACStepFine", "it is 0, which frames in percent divide by",
                 "set it to auto, and DACStep to 1 or more");
  }
  for (const char *name : {"Iterations", "PulsesPerStep"}) {
    if (setting(set, name) == 0) findings.add(name, "it is 0, so that nothing is counted", "set it to 1 or more");
  }
  if (setting(set, "DACOverride") == 1) {
    findings.add("DACOverride", "the threshold is held at DACOverrideVal and does not sweep", "set it to 0");
  }
  if (setting(set, "SignalOverride") == 1) {
    findings.add("SignalOverride", "the counters see SignalOverrideVal instead of the signal", "set it to 0");
  }
}

void checkCounters(VariableSet *set, Findings &findings) {
  const double lowest = number(set, "CounterLSb"), highest = number(set, "CounterMSb");
  const double bits = highest - lowest + 1;
  const double room = 8 * number(set, "BytesPerCounter");
  const double most = CHIP(thresholds)(set) * number(set, "Iterations") * number(set, "PulsesPerStep");
  if (bits <= 0) {
    findings.add("CounterMSb", "it is below CounterLSb, so that counters have no bits", "set both to auto");
  } else if (std::ceil(bits / 8) * 8 != room) {
    findings.add(
        "BytesPerCounter",
        "counters of " + text(bits) + " bits (CounterLSb to CounterMSb) are not " + text(room / 8) + " bytes long",
        "set it to " + text(std::ceil(bits / 8)) + ", or CounterMSb to " + text(lowest + room - 1));
  } else if (most >= std::exp2(highest + 1)) {
    findings.add("CounterMSb", "counters go up to " + text(most) + " and wrap round at " + text(std::exp2(highest + 1)),
                 "set it higher (and BytesPerCounter), or Iterations, PulsesPerStep or ZoomMax - ZoomMin lower");
  }
}

void checkWindow(VariableSet *set, Findings &findings) {
  if (!(realSetting(set, "SamplesPerSecond") > 0)) {
    return findings.add("SamplesPerSecond", "it is 0, so that a frame has no length", "set it to auto, or calibrate");
  }
  if (windowIsElsewhere(set)) {
    findings.add("SampleDelay", "the window stands where other delay steps than the present ones have put it",
                 "calibrate, or set SampleDelay anew");
  }
  const double pulses = CHIP(sweepTiming)(set).pulse_rate;
  const double end = realSetting(set, "SampleDelay") + number(set, "FrameStitch") * realSetting(set, "FrameSize");
  if (pulses > 0 && end * pulses > 1) {
    findings.add("PRFDivide",
                 "the frame ends " + text(end * 1e12) + " ps after a pulse, the next pulse comes after " +
                     text(1e12 / pulses) + " ps",
                 "set it to " + text(std::ceil(end * CHIP(MCLK_frequency)(set))) + " or more");
  }
}

// Settings and calibration as they were, for a calibration that fails.
class Before {
 public:
  explicit Before(ChipHandle *chip)
      : chip_(chip),
        record_(*timingRecordOf(chip->variables)),
        prepared_elsewhere_(preparedElsewhere(chip)),
        variables_(chip->variables->variables, chip->variables->variables + chip->variables->count) {}

  void putBack() const {
    VariableSet *set = chip_->variables;
    const std::vector<Variable> reached(set->variables, set->variables + set->count);
    std::copy(variables_.begin(), variables_.end(), set->variables);
    *timingRecordOf(set) = record_;
    notePreparedElsewhere(chip_, prepared_elsewhere_);
    // The first operation after a failed one may fail because of it.
    bool again = true;
    const auto write = [&](Variable *variable) {
      if (varUpdateBackend(set, variable) && std::exchange(again, false)) varUpdateBackend(set, variable);
    };
    for (int32_t i = 0; i < set->count; ++i) {
      Variable *variable = &set->variables[set->order[i].index];
      if (variable->value != reached[static_cast<size_t>(varIndex(set, variable))].value) write(variable);
    }
    // These may be back as values only.
    for (const char *name : kMovedSettings) write(varNamed(set, name));
  }

 private:
  ChipHandle *chip_;
  TimingRecord record_;
  bool prepared_elsewhere_;
  std::vector<Variable> variables_;
};

int32_t measureAndApply(ChipHandle *chip) {
  VariableSet *set = chip->variables;
  // A chip that has lost its power in between knows none of its settings.
  if (int32_t code = varsUpdateAllBackends(set)) return code;
  if (int32_t code = CHIP(TMeasPrepare)(set)) return code;
  noteLostPoll(chip, kSuccess);
  if (int32_t code = CHIP(measurementAll)(set)) return code;
  // A measurement may have been read out before its end.
  if (int32_t code = lostPoll(chip)) return origin(chip->error_state, HERE, code, "A measurement's end was not seen");
  for (const char *name : {"DelayCoarseTune", "DelayMediumTune", "SamplesPerSecond"}) {
    const double value = realSetting(set, name);
    if (std::isfinite(value) && value > 0) continue;
    return origin(chip->error_state, HERE, kTimingMeasurement, std::string(name) + " was measured as 0");
  }
  return varNotifyDependers(set, varNamed(set, "SampleDelay"));
}

}  // namespace

double CHIP(thresholds)(VariableSet *set) {
  const double range = number(set, "DACMax") - number(set, "DACMin");
  return range < 0 ? 0 : std::floor(range / std::max(number(set, "DACStepFine"), 1.0)) + 1;
}

SweepTiming CHIP(sweepTiming)(VariableSet *set) {
  const double clock = CHIP(MCLK_frequency)(set);
  if (clock <= 0) return {};
  const double divider = std::max(number(set, "PRFDivide"), 1.0);
  const bool samples_every = setting(set, "SampleEveryPulse") != 0;
  const bool sends_every = samples_every && setting(set, "SendEveryPulse") != 0;
  SweepTiming timing = {0, sends_every ? clock : clock / divider};
  const double steps = CHIP(thresholds)(set);
  if (steps <= 0) return timing;
  const double pass = steps * number(set, "PulsesPerStep") * (samples_every ? 1 : divider) +
                      number(set, "DACFirstStepSetupTime") + number(set, "DACLastStepHoldTime") +
                      (steps - 1) * (number(set, "DACRegularStepSetupTime") + number(set, "DACRegularStepHoldTime"));
  timing.sweep_seconds = (number(set, "DACFirstIterationSetupTime") + number(set, "Iterations") * pass +
                          number(set, "DACLastIterationHoldTime")) /
                         clock;
  return timing;
}

void CHIP(checkSettings)(const ChipHandle *chip, Findings &findings) {
  checkClock(chip->variables, findings);
  checkSweep(chip->variables, findings);
  checkCounters(chip->variables, findings);
  checkWindow(chip->variables, findings);
}

int32_t CHIP(calibrate)(ChipHandle *chip) {
  if (!timingRecordOf(chip->variables)) return origin(chip->error_state, HERE, kChipNotInitialized);
  const Before before(chip);
  CHIP(EmptyPipeLine)(chip->access);
  const int32_t code = measureAndApply(chip);
  if (code == kSuccess) return kSuccess;
  passThrough(chip->error_state, HERE, code);
  return afterEndedWait(chip->error_state, code, [&] { before.putBack(); });
}
