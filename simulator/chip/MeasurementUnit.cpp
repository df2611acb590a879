#include "chip/MeasurementUnit.h"

#include <algorithm>
#include <cmath>

#include "base/Clock.h"

namespace pulsekit::simulator {

namespace {

constexpr uint8_t kFrequencyCycles = 0x59;
constexpr uint8_t kOscillatorTarget = 0x5a;
constexpr uint8_t kFrequencyResult = 0x5b;
constexpr uint8_t kFrequencyStatus = 0x5c;
constexpr uint64_t kFrequencyBusy = 1 << 0;
constexpr uint64_t kTunerBusy = 1 << 1;
constexpr uint64_t kTunerResult = 0x1FF << 2;

constexpr uint8_t kPulseGeneratorResult = 0x77;
constexpr uint8_t kSamplerLineResult = 0x78;
constexpr uint8_t kSamplerDelayResult = 0x79;
constexpr uint8_t kSendPulseDelayResult = 0x7a;
constexpr uint8_t kCyclesCounter = 0x7d;
constexpr uint8_t kDelayStatus = 0x7f;
constexpr uint64_t kDelayBusy = 1 << 0;

constexpr uint64_t k32Bits = 0xFFFFFFFF;
constexpr uint64_t k40Bits = 0xFFFFFFFFFF;
constexpr double kCountLimit = 0x1p63;

constexpr double kSamplerLineIntervals = 257;
constexpr unsigned kTunerSteps = 9;  // one for each bit of the configuration

unsigned nearestConfiguration(const ChipClocks &clocks, double frequency) {
  const double divider = clocks.registers.field(0x58, 19, 19, clocks.now) ? 2 : 1;
  unsigned best = 1;
  for (unsigned c = 1; c < 512; ++c) {
    const double error = std::fabs(clocks.truth.oscillatorFrequency(c) / divider - frequency);
    if (error < std::fabs(clocks.truth.oscillatorFrequency(best) / divider - frequency)) best = c;
  }
  return best;
}

}  // namespace

// Clocks that know nothing of each other: the fraction is a matter of where in the cycle the count began.
uint64_t MeasurementUnit::count(double expected) {
  return static_cast<uint64_t>((expected < kCountLimit ? expected : kCountLimit) + random_.uniform());
}

void MeasurementUnit::clearFrequency(uint64_t now) {
  registers_.set(kFrequencyResult, k32Bits, 0, now);
  registers_.set(kFrequencyStatus, kFrequencyBusy, 0, now);
}

void MeasurementUnit::start(const ChipClocks &clocks) {
  const bool frequencyEnabled = registers_.field(0x58, 3, 3, clocks.now);
  if (frequencyEnabled) {
    clearFrequency(clocks.now);
    measureFrequency(clocks.measurement(), 0, clocks);
  }
  measureDelays(clocks);
}

// Counts cycles of the clock during a number of reference cycles, beginning after a delay in nanoseconds.
void MeasurementUnit::measureFrequency(double frequency, uint64_t delay, const ChipClocks &clocks) {
  if (frequency <= 0 || clocks.reference <= 0) return;
  const double seconds = static_cast<double>(registers_.value(kFrequencyCycles, clocks.now)) / clocks.reference;
  const uint64_t due = clocks.now + delay + nanosecondsOf(seconds);
  registers_.set(kFrequencyStatus, kFrequencyBusy, kFrequencyBusy, clocks.now);
  registers_.setLater(kFrequencyStatus, kFrequencyBusy, 0, due, clocks.now);
  registers_.setLater(kFrequencyResult, k32Bits, count(frequency * seconds), due, clocks.now);
}

void MeasurementUnit::calibrateOscillator(const ChipClocks &clocks) {
  clearFrequency(clocks.now);
  registers_.set(kFrequencyStatus, kTunerBusy, 0, clocks.now);
  if (clocks.oscillator() <= 0 || clocks.reference <= 0) return;

  const bool tunerEnabled = registers_.field(0x58, 4, 4, clocks.now);
  const double cycles = static_cast<double>(registers_.value(kFrequencyCycles, clocks.now));
  uint64_t tuning = 0;
  if (tunerEnabled && cycles > 0) {
    const double target = static_cast<double>(registers_.value(kOscillatorTarget, clocks.now));
    const uint64_t configuration = nearestConfiguration(clocks, target * clocks.reference / cycles);
    const double waits = static_cast<double>(registers_.field(0x58, 35, 20, clocks.now));
    tuning = nanosecondsOf(kTunerSteps * (waits + cycles) / clocks.reference);
    registers_.set(kFrequencyStatus, kTunerResult, configuration << 2, clocks.now);
  }
  measureFrequency(clocks.oscillator(), tuning, clocks);
  const uint64_t due = clocks.now + tuning + nanosecondsOf(cycles / clocks.reference);
  registers_.set(kFrequencyStatus, kTunerBusy, kTunerBusy, clocks.now);
  registers_.setLater(kFrequencyStatus, kTunerBusy, 0, due, clocks.now);
}

void MeasurementUnit::measureDelays(const ChipClocks &clocks) {
  for (uint8_t result :
       {kPulseGeneratorResult, kSamplerLineResult, kSamplerDelayResult, kSendPulseDelayResult, kCyclesCounter})
    registers_.set(result, k40Bits, 0, clocks.now);
  registers_.set(kDelayStatus, kDelayBusy, 0, clocks.now);

  const bool enabled = registers_.field(0x7c, 2, 2, clocks.now) && registers_.field(0x58, 1, 1, clocks.now);
  masterClock_ = clocks.master();
  measurementClock_ = clocks.measurement();
  if (!enabled || masterClock_ <= 0 || measurementClock_ <= 0) return;

  const bool samplerLine = registers_.field(0x7c, 0, 0, clocks.now);
  const ChipTruth &truth = clocks.truth;
  delays_ = {{{kPulseGeneratorResult, truth.pulseGeneratorDelay},
              {kSamplerLineResult, samplerLine ? kSamplerLineIntervals / truth.samplesPerSecond : 0},
              {kSamplerDelayResult, truth.insertionDelay + clocks.samplerDelay()},
              {kSendPulseDelayResult, truth.insertionDelay + clocks.sendPulseDelay()}}};
  started_ = clocks.now;
  waitCycles_ = static_cast<double>(registers_.field(0x7c, 9, 3, clocks.now));
  const double cycles = static_cast<double>(registers_.value(0x7e, clocks.now));
  registers_.set(kDelayStatus, kDelayBusy, kDelayBusy, clocks.now);
  finishDelays(clocks.now + nanosecondsOf((waitCycles_ + cycles) / masterClock_), cycles, clocks.now);
}

void MeasurementUnit::finishDelays(uint64_t due, double cycles, uint64_t now) {
  for (const Delay &delay : delays_)
    registers_.setLater(delay.resultRegister, k40Bits, count(measurementClock_ * delay.seconds * cycles), due, now);
  registers_.setLater(kCyclesCounter, k40Bits, static_cast<uint64_t>(cycles), due, now);
  registers_.setLater(kDelayStatus, kDelayBusy, 0, due, now);
}

// What was counted so far stands.
void MeasurementUnit::stop(uint64_t now) {
  const bool running = registers_.field(kDelayStatus, 0, 0, now);
  if (!running) return;
  const double elapsed = static_cast<double>(now - started_) * 1e-9 * masterClock_;
  for (const Delay &delay : delays_) registers_.set(delay.resultRegister, k40Bits, 0, now);
  registers_.set(kCyclesCounter, k40Bits, 0, now);
  registers_.set(kDelayStatus, kDelayBusy, 0, now);
  finishDelays(now, std::floor(std::max(0.0, elapsed - waitCycles_)), now);
}

}  // namespace pulsekit::simulator
