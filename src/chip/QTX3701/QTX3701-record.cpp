// The timing record as the host's vector of results and in the module's flash.
#include <cstring>
#include <numeric>
#include <span>

#include "../../module/module.h"
#include "QTX3701-timing.h"

using namespace pulsekit;
using namespace pulsekit::chip;

static constexpr const char kSource[] = CHIP_TIMING_SOURCE;

namespace {

constexpr int32_t kLeastCapacity = 515;  // less than the 579 results, as hosts have always passed it

struct Average {
  const char *variable;
  double TimingRecord::*field;
};
constexpr Average kAverages[] = {
    {"DelayCoarseTune", &TimingRecord::delay_coarse_tune},
    {"DelayMediumTune", &TimingRecord::delay_medium_tune},
    {"DelayFineTune", &TimingRecord::delay_fine_tune},
    {"SamplesPerSecond", &TimingRecord::samples_per_second},
    {"MediumInCoarseAverage", &TimingRecord::medium_in_coarse_average},
    {"FineInMediumAverage", &TimingRecord::fine_in_medium_average},
};

template <typename T, size_t count>
double *append(double *out, const T (&table)[count]) {
  for (const T value : table) *out++ = static_cast<double>(value);
  return out;
}

uint32_t checksum(const TimingRecord &record) {
  const auto *bytes = reinterpret_cast<const uint8_t *>(&record);
  return std::accumulate(bytes, bytes + offsetof(TimingRecord, prepared), uint32_t{0});
}

TimingRecord *recordOf(const ChipHandle *chip) {
  return chip ? static_cast<TimingRecord *>(chip->timing_record) : nullptr;
}

// The board's module and the flash address of a block.
int32_t locate(const ChipHandle *chip, uint32_t block, TracePoint at, ModuleHandle **module, uint32_t *address) {
  *module = chip->access ? chip->access->module : nullptr;
  if (!*module || !(*module)->variables || !(*module)->ReadFlashMemory || !(*module)->WriteFlashMemory) {
    return origin(chip->error_state, at, kModuleNotInitialized);
  }
  int64_t block_size = 0;
  if (int32_t code = varGetIntValue_ByName((*module)->variables, "FlashBlockSize", &block_size)) {
    return passThrough(chip->error_state, at, code);
  }
  // A product that wrapped round would be the address of something else.
  const uint64_t product = uint64_t{static_cast<uint32_t>(block_size)} * block;
  *address = static_cast<uint32_t>(product);
  if (*address != product) return origin(chip->error_state, at, kError, "Address is outside the flash");
  return kSuccess;
}

}  // namespace

int32_t CHIP(getTimingMeasurementResults)(ChipHandle *chip, double *results, int32_t capacity) {
  const TimingRecord *record = recordOf(chip);
  if (!record) return origin(chip ? chip->error_state : nullptr, HERE, kChipNotInitialized);
  if (!results) return origin(chip->error_state, HERE, kError);
  if (capacity < kLeastCapacity) return origin(chip->error_state, HERE, kBufferTooSmall);

  std::memcpy(results, &record->word0, sizeof *results);
  double *out = results + 1;
  *out++ = static_cast<double>(record->word1);
  *out++ = record->mclk_frequency;
  *out++ = record->coarse_measured;
  *out++ = record->medium_measured;
  out = append(out, record->table8a);
  out = append(out, record->table8b);
  out = append(out, record->table8c);
  out = append(out, record->table16);
  out = append(out, record->table8d);
  out = append(out, record->table8e);
  out = append(out, record->words32);
  for (const Average &average : kAverages) *out++ = record->*average.field;
  out = append(out, record->coarse_step);
  out = append(out, record->medium_step);
  append(out, record->fine_step);
  return kSuccess;
}

int32_t CHIP(measurementSaveDataToFlash)(ChipHandle *chip, uint32_t block) {
  TimingRecord *record = recordOf(chip);
  if (!record) return origin(chip ? chip->error_state : nullptr, HERE, kChipNotInitialized);
  ModuleHandle *module = nullptr;
  uint32_t address = 0;
  if (int32_t code = locate(chip, block, HERE, &module, &address)) return code;

  record->checksum = checksum(*record);
  const auto *bytes = reinterpret_cast<const uint8_t *>(record);
  if (int32_t code = module->WriteFlashMemory(module, address, bytes, sizeof *record)) {
    return passThrough(chip->error_state, HERE, code);
  }
  return kSuccess;
}

int32_t CHIP(measurementLoadDataFromFlash)(ChipHandle *chip, uint32_t block) {
  TimingRecord *record = recordOf(chip);
  if (!record) return origin(chip ? chip->error_state : nullptr, HERE, kChipNotInitialized);
  ModuleHandle *module = nullptr;
  uint32_t address = 0;
  if (int32_t code = locate(chip, block, HERE, &module, &address)) return code;

  TimingRecord loaded = {};
  auto *bytes = reinterpret_cast<uint8_t *>(&loaded);
  if (int32_t code = module->ReadFlashMemory(module, address, bytes, sizeof loaded)) {
    return passThrough(chip->error_state, HERE, code);
  }
  if (checksum(loaded) != loaded.checksum) return origin(chip->error_state, HERE, kNoValidSetup);
  const bool prepared_here = record->prepared != 0 && !preparedElsewhere(chip);
  notePreparedElsewhere(chip, loaded.prepared != 0 && !prepared_here);
  *record = loaded;
  for (const Average &average : kAverages) {
    Variable *variable = varNamed(chip->variables, average.variable);
    if (int32_t code = varSetValue(chip->variables, variable, doubleToBits(record->*average.field))) {
      return passThrough(chip->error_state, HERE, code);
    }
  }
  return kSuccess;
}
