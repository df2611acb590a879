// What the timing measurement knows: the record of its results, which the module's flash holds byte for byte as memory
// does, and the delay settings that a measurement puts aside.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "../../support/numbers.h"
#include "../../support/own_records.h"
#include "../driver.h"
#include "QTX3701.h"

#define CHIP_TIMING_SOURCE "src/chip/" CHIP_NAME "/" CHIP_NAME "-timing"

namespace pulsekit::chip {

constexpr int32_t kDelayElements = 64;
constexpr int32_t kMaxDelaySetting = kDelayElements - 1;

// Seconds, hertz. Fields that nothing in the driver writes pass through from a loaded record.
struct TimingRecord {
  uint64_t word0;
  uint64_t word1;
  int32_t mclk_frequency;
  int32_t coarse_measured;
  int32_t medium_measured;
  int32_t fine_measured;
  uint8_t table8a[64];
  uint8_t table8b[64];
  uint8_t table8c[64];
  uint16_t table16[60];
  uint8_t table8d[60];
  uint8_t table8e[60];
  int32_t words32[4];
  double delay_coarse_tune;
  double delay_medium_tune;
  double delay_fine_tune;
  double samples_per_second;
  double medium_in_coarse_average;
  double fine_in_medium_average;
  float coarse_step[kDelayElements];  // element i: from setting i to setting i + 1
  float medium_step[kDelayElements];
  float fine_step[kDelayElements];
  int32_t prepared;   // not 0 while the measurement hardware is switched on
  uint32_t checksum;  // sum of the bytes before `prepared`
};

static_assert(std::endian::native == std::endian::little, "the record in flash is little-endian");
static_assert(offsetof(TimingRecord, word0) == 0);
static_assert(offsetof(TimingRecord, word1) == 8);
static_assert(offsetof(TimingRecord, mclk_frequency) == 16);
static_assert(offsetof(TimingRecord, coarse_measured) == 20);
static_assert(offsetof(TimingRecord, medium_measured) == 24);
static_assert(offsetof(TimingRecord, fine_measured) == 28);
static_assert(offsetof(TimingRecord, table8a) == 32);
static_assert(offsetof(TimingRecord, table8b) == 96);
static_assert(offsetof(TimingRecord, table8c) == 160);
static_assert(offsetof(TimingRecord, table16) == 224);
static_assert(offsetof(TimingRecord, table8d) == 344);
static_assert(offsetof(TimingRecord, table8e) == 404);
static_assert(offsetof(TimingRecord, words32) == 464);
static_assert(offsetof(TimingRecord, delay_coarse_tune) == 480);
static_assert(offsetof(TimingRecord, delay_medium_tune) == 488);
static_assert(offsetof(TimingRecord, delay_fine_tune) == 496);
static_assert(offsetof(TimingRecord, samples_per_second) == 504);
static_assert(offsetof(TimingRecord, medium_in_coarse_average) == 512);
static_assert(offsetof(TimingRecord, fine_in_medium_average) == 520);
static_assert(offsetof(TimingRecord, coarse_step) == 528);
static_assert(offsetof(TimingRecord, medium_step) == 784);
static_assert(offsetof(TimingRecord, fine_step) == 1040);
static_assert(offsetof(TimingRecord, prepared) == 1296);
static_assert(offsetof(TimingRecord, checksum) == 1300);
static_assert(sizeof(TimingRecord) == 1304);

// VAR_AUTO stands for a variable that followed its automatic value.
struct SavedDelays {
  int64_t slots[10];
};

// Null while the set's chip handle is not the one that is open: nothing is measured then.
inline ChipHandle *chipOf(const VariableSet *set) {
  const auto *access = set ? static_cast<const QTX_Handle *>(set->owner) : nullptr;
  return access && access->chip && access->chip->variables == set ? access->chip : nullptr;
}

inline TimingRecord *timingRecordOf(const VariableSet *set) {
  ChipHandle *chip = chipOf(set);
  return chip ? static_cast<TimingRecord *>(chip->timing_record) : nullptr;
}

// Whether the record's preparation was loaded with it. A chip handle that a host has made itself has no room to tell.
inline bool preparedElsewhere(const ChipHandle *chip) { return isOwnRecord(chip) && chip->prepared_elsewhere != 0; }
inline void notePreparedElsewhere(ChipHandle *chip, bool elsewhere) {
  if (isOwnRecord(chip)) chip->prepared_elsewhere = elsewhere;
}

// The code of the first read of a measurement's status that failed since it was noted as 0.
inline int32_t lostPoll(const ChipHandle *chip) { return isOwnRecord(chip) ? chip->lost_poll : int32_t{kSuccess}; }
inline void noteLostPoll(ChipHandle *chip, int32_t code) {
  if (isOwnRecord(chip)) chip->lost_poll = code;
}

// How long the short wait counts at a master clock frequency.
constexpr int32_t waitIterations(int32_t frequency) {
  if (frequency > 25'000'000) return 0;
  if (frequency > 10'000'000) return 10;
  if (frequency > 5'000'000) return 25;
  if (frequency > 1'000'000) return 50;
  if (frequency > 500'000) return 100;
  return 1000;
}

// ---- Variables by name ----
// The ends of a chain's range, as far as there are elements.
inline int32_t minimumSetting(VariableSet *set, const char *name) {
  const Variable *variable = varNamed(set, name);
  return variable ? static_cast<int32_t>(std::min<uint64_t>(variable->min, kMaxDelaySetting)) : 0;
}

inline int32_t maximumSetting(VariableSet *set, const char *name) {
  const Variable *variable = varNamed(set, name);
  return variable ? static_cast<int32_t>(std::min<uint64_t>(variable->max, kMaxDelaySetting)) : 0;
}

}  // namespace pulsekit::chip
