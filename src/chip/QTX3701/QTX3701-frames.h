// What frame capture, sweeps in bus programs and the sampler CDF share. These helpers leave no trace of their own.
#pragma once

#include <cstdint>

#include "../../support/numbers.h"
#include "../driver.h"
#include "../sweeps.h"
#include "QTX3701.h"

constexpr uint64_t kSweeping = 0x1;          // in the sweep status
constexpr uint8_t kSamplerMemory = 0x20;     // address
constexpr uint8_t kMemoryAccess = 0x7f;      // length byte that makes a read one of memory
constexpr size_t kSamplerMemorySize = 2048;  // bytes
constexpr uint32_t kSweepPin = 500;
constexpr uint32_t kSweepStartPin = 7;

// What one sweep yields with the settings as they stand.
struct SweepExtent {
  uint32_t samplers;
  uint32_t bytes_per_counter;
};
SweepExtent CHIP(sweepExtent)(VariableSet *set);

// The sweep pin is low while the chip sweeps. Captures go on without it.
int32_t CHIP(setSweepPin)(const ChipHandle *chip, uint32_t level);

// Ends a sweep that nobody waits for any more. Failures are ignored.
void CHIP(stopSweep)(ChipHandle *chip);

// Reads the counters of one sweep from the sampler memory.
int32_t CHIP(readCounters)(const ChipHandle *chip, SweepExtent extent, uint32_t *counters);

// The counters that an image of the sampler memory holds, least significant byte first.
inline void decodeCounters(SweepExtent extent, const uint8_t *image, uint32_t *counters) {
  const uint8_t *end_of_counter = image;
  for (uint32_t k = 0; k < extent.samplers; ++k) {
    end_of_counter += extent.bytes_per_counter;
    uint32_t counter = 0;
    for (uint32_t i = 1; i <= extent.bytes_per_counter; ++i)
      counter = counter << 8 | end_of_counter[-static_cast<int32_t>(i)];
    counters[k] = counter;
  }
}

pulsekit::chip::FrameScale CHIP(frameScale)(VariableSet *set);

// Thresholds of one pass; 0 when the range is upside down.
double CHIP(thresholds)(VariableSet *set);
pulsekit::chip::SweepTiming CHIP(sweepTiming)(VariableSet *set);
void CHIP(checkSettings)(const ChipHandle *chip, pulsekit::chip::Findings &findings);
int32_t CHIP(calibrate)(ChipHandle *chip);

// The delay of the sampling window, which is moved from sweep to sweep of a stitched frame.
class SamplingWindow {
 public:
  explicit SamplingWindow(VariableSet *set)
      : set_(set),
        delay_(varNamed(set, "SampleDelay")),
        original_(pulsekit::chip::setting(set, "SampleDelay")),
        automatic_(delay_ && (delay_->flags & VAR_FLAG_AUTO)),
        step_(pulsekit::chip::realSetting(set, "FrameSize")) {}

  int32_t moveTo(uint64_t sweep) const {
    return varSetFloatValue(set_, delay_, static_cast<double>(sweep) * step_ + pulsekit::bitsToDouble(original_));
  }
  int32_t moveToStart() const { return varSetFloatValue(set_, delay_, pulsekit::bitsToDouble(original_)); }
  int32_t putBack() const {
    return automatic_ ? varSetIntValue(set_, delay_, VAR_AUTO) : varSetValue(set_, delay_, original_);
  }

 private:
  VariableSet *set_;
  Variable *delay_;
  uint64_t original_;
  bool automatic_;
  double step_;
};
