// The sampler CDF: how often each sampler's comparator fires at each fixed threshold.
#include <cstdio>

#include "../../support/handle_state.h"
#include "../driver.h"
#include "QTX3701-frames.h"
#include "QTX3701.h"

using namespace pulsekit;
using namespace pulsekit::chip;

static constexpr const char kSource[] = "src/chip/" CHIP_NAME "/" CHIP_NAME "-CDF";

namespace {

// What to set the variable to later, so that it is as it is now.
int64_t restorePoint(const ChipHandle *chip, const char *name) {
  const Variable *variable = varNamed(chip->variables, name);
  const bool automatic = variable && (variable->flags & VAR_FLAG_AUTO);
  return automatic ? VAR_AUTO : static_cast<int64_t>(setting(chip->variables, name));
}

}  // namespace

int32_t CHIP(calculateCDF_Size)(ChipHandle *chip, uint32_t *width, uint32_t *lines) {
  if (!chip) return kChipNotInitialized;
  if (!width || !lines) return origin(chip->error_state, HERE, kError);
  VariableSet *variables = chip->variables;
  const uint64_t step = setting(variables, "DACStepFine");
  if (step == 0) return origin(chip->error_state, HERE, kIllegalValue, "DACStepFine is 0");
  *width = CHIP(sweepExtent)(variables).samplers;
  // Wraps on purpose where the range is upside down.
  *lines = static_cast<uint32_t>((setting(variables, "DACMax") - setting(variables, "DACMin")) / step + 1);
  return kSuccess;
}

int32_t CHIP(getCDF_Line)(ChipHandle *chip, int64_t dac_value, uint32_t *line, int32_t capacity) {
  if (!chip) return kChipNotInitialized;
  QTX_StackTrace *record = chip->error_state;
  if (!line) return origin(record, HERE, kError);
  VariableSet *variables = chip->variables;
  const SweepExtent extent = CHIP(sweepExtent)(variables);
  if (extent.samplers > static_cast<int64_t>(capacity)) return origin(record, HERE, kBufferTooSmall);
  const int64_t value_afterwards = setting(variables, "CDF_ReturnDACToZero") == 1 ? 0 : dac_value;

  if (int32_t code = trigger(variables, "ResetCounters")) return passThrough(record, HERE, code);
  if (int32_t code = setInteger(variables, "DACOverrideVal", dac_value)) {
    std::printf("Error setting DAC: DACValue = %d\n", static_cast<int>(dac_value));
    return passThrough(record, HERE, code);
  }
  if (int32_t code = trigger(variables, "StartSweep")) return passThrough(record, HERE, code);
  if (int32_t code = CHIP(waitForSweepFinished)(chip)) return passThrough(record, HERE, code);
  if (int32_t code = setInteger(variables, "DACOverrideVal", value_afterwards)) {
    std::printf("Error resetting DAC: DACValue = %d\n", static_cast<int>(dac_value));
    return passThrough(record, HERE, code);
  }
  if (int32_t code = trigger(variables, "LoadOutputBuffer")) return passThrough(record, HERE, code);
  if (int32_t code = CHIP(readCounters)(chip, extent, line)) return passThrough(record, HERE, code);
  return kSuccess;
}

int32_t CHIP(getCDF)(ChipHandle *chip, uint32_t *table, int32_t capacity) {
  if (!chip) return kChipNotInitialized;
  QTX_StackTrace *record = chip->error_state;
  if (!table) return origin(record, HERE, kError);
  VariableSet *variables = chip->variables;
  const int64_t dac_min_afterwards = restorePoint(chip, "DACMin");
  const int64_t dac_max_afterwards = restorePoint(chip, "DACMax");
  const int64_t override_afterwards = restorePoint(chip, "DACOverride");
  const uint64_t first = setting(variables, "DACMin");
  const uint64_t last = setting(variables, "DACMax");
  const uint64_t step = setting(variables, "DACStepFine");
  uint32_t width = 0, lines = 0;
  if (int32_t code = CHIP(calculateCDF_Size)(chip, &width, &lines)) return passThrough(record, HERE, code);
  if (capacity < static_cast<int32_t>(width * lines)) return origin(record, HERE, kBufferTooSmall);

  const auto putBack = [&]() -> int32_t {
    if (int32_t code = setInteger(variables, "DACMin", dac_min_afterwards)) return code;
    if (int32_t code = setInteger(variables, "DACMax", dac_max_afterwards)) return code;
    return setInteger(variables, "DACOverride", override_afterwards);
  };
  const auto giveUp = [&](int32_t code) {
    if (!endsWait(code)) return code;
    return afterEndedWait(record, code, [&] {
      CHIP(stopSweep)(chip);
      putBack();
    });
  };

  // A sweep of no range under the override holds the DAC where the override puts it.
  if (int32_t code = setInteger(variables, "DACMin", 0)) return giveUp(passThrough(record, HERE, code));
  if (int32_t code = setInteger(variables, "DACMax", 0)) return giveUp(passThrough(record, HERE, code));
  if (int32_t code = setInteger(variables, "DACOverride", 1)) return giveUp(passThrough(record, HERE, code));
  if (int32_t code = CHIP(setSweepPin)(chip, 0)) return passThrough(record, HERE, code);
  const uint64_t passes = setting(variables, "CDF_SpreadingFactor");
  for (uint64_t pass = 1; pass <= passes; ++pass) {
    uint32_t *line = table;
    for (uint64_t dac_value = first; dac_value <= last; dac_value += step, line += width) {
      if (int32_t code = cancelCheck(chip->access)) return giveUp(origin(record, HERE, code));
      if (int32_t code = CHIP(getCDF_Line)(chip, static_cast<int64_t>(dac_value), line, capacity)) {
        return giveUp(passThrough(record, HERE, code));
      }
    }
  }
  if (int32_t code = CHIP(setSweepPin)(chip, 1)) return passThrough(record, HERE, code);
  if (int32_t code = putBack()) return giveUp(passThrough(record, HERE, code));
  return kSuccess;
}
