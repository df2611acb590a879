// A fake radar whose measurement hardware counts the true delays of its chains, as fast as a calibrated oscillator.
#pragma once

#include <cmath>

#include "FakeRadar.h"
#include "chip/QTX3701/QTX3701-timing.h"
#include "support/trace.h"

namespace pulsekit {

class MeasuredRadar : public FakeRadar {
 public:
  MeasuredRadar() {
    for (int i = 0; i < chip::kDelayElements; ++i) {
      coarse[i] = 1.25e-9 * (1 + 0.001 * (i % 7));
      medium[i] = 42e-12 * (1 + 0.004 * (i % 5));
      fine[i] = 1.5e-12 * (1 + 0.01 * (i % 3));
    }
    idle_status = 0x7ffe;  // neither sweeping nor busy with a timing value
    on_action = [this](uint8_t action) { act(action); };
  }

  void start() {
    FakeRadar::start("QTX3701");
    if (handle.chip) record = static_cast<chip::TimingRecord *>(handle.chip->timing_record);
  }
  // As start, ready to measure without the calibration of the oscillator.
  void startReady() {
    start();
    ASSERT_EQ(set("MeasClkSource", 0), 0);
    ASSERT_EQ(set("SWMeasTargetCycles", 10'000'000), 0);
    ASSERT_EQ(setReal("SampleDelay", 0), 0);
    log.clear();
  }
  // What a bridge does that fails.
  int32_t fail(int32_t code) { return origin(handle.error, {"transfer", "bridge", 1}, code); }

  VariableSet *variables() const { return handle.chip->variables; }
  bool traceNames(const char *function) const {
    return std::string(handle.error->trace).find(std::string(function) + " in src/chip/QTX3701/QTX3701-timing:") !=
           std::string::npos;
  }

  double coarse[chip::kDelayElements], medium[chip::kDelayElements], fine[chip::kDelayElements];
  double sampler_line = 257 / 37e9;  // one sampler more than a frame
  double oscillator = 0;             // hertz, once tuned
  uint64_t cycles = UINT64_MAX;      // what the hardware says it counted, unless it is to count what it was told
  chip::TimingRecord *record = nullptr;

 private:
  static double sum(const double *steps, uint64_t count) {
    double total = 0;
    for (uint64_t i = 0; i < count; ++i) total += steps[i];
    return total;
  }

  void act(uint8_t action) {
    constexpr uint8_t kStartMeas = 20, kCalibrate = 33, kClear = 35;
    const double clock = 100e6;
    if (action == kCalibrate) {
      registers[0x5b] = registers[0x5a];
      oscillator = static_cast<double>(registers[0x5a]) * clock / static_cast<double>(registers[0x59]);
    }
    if (action == kClear) registers[0x5b] = 0;
    if (action != kStartMeas) return;
    const bool own_clock = registers[0x58] & 0x4;
    const double frequency = own_clock ? oscillator : clock;
    registers[0x5b] = static_cast<uint64_t>(frequency * static_cast<double>(registers[0x59]) / clock);
    registers[0x7d] = cycles == UINT64_MAX ? registers[0x7e] : cycles;
    const double scale = frequency * static_cast<double>(registers[0x7d]);
    const bool fine_on = registers[0x6a] & 0x4;
    const double delay =
        2e-9 + sum(coarse, registers[0x6b]) + sum(medium, registers[0x6c]) + (fine_on ? sum(fine, registers[0x6d]) : 0);
    registers[0x79] = static_cast<uint64_t>(std::llround(delay * scale));
    registers[0x7a] = static_cast<uint64_t>(std::llround(3e-9 * scale));
    registers[0x77] = static_cast<uint64_t>(std::llround(4e-9 * scale));
    registers[0x78] = registers[0x7c] & 0x1 ? static_cast<uint64_t>(std::llround(sampler_line * scale)) : 0;
  }
};

}  // namespace pulsekit
