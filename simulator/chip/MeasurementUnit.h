// The chip's time-measurement hardware: frequency measurement, DCO tuner, and counting of delays.
#pragma once

#include <array>
#include <cstdint>

#include "base/Random.h"
#include "chip/ChipClocks.h"
#include "chip/RegisterFile.h"

namespace pulsekit::simulator {

class MeasurementUnit {
 public:
  MeasurementUnit(RegisterFile &registers, Random &random) : registers_(registers), random_(random) {}

  void start(const ChipClocks &clocks);
  void stop(uint64_t now);
  void calibrateOscillator(const ChipClocks &clocks);
  void clearFrequency(uint64_t now);

 private:
  struct Delay {
    uint8_t resultRegister;
    double seconds;
  };

  uint64_t count(double expected);
  void measureFrequency(double frequency, uint64_t delay, const ChipClocks &clocks);
  void measureDelays(const ChipClocks &clocks);
  void finishDelays(uint64_t due, double cycles, uint64_t now);

  RegisterFile &registers_;
  Random &random_;

  // The delay measurement that runs or ran last.
  uint64_t started_ = 0;
  double masterClock_ = 0, measurementClock_ = 0, waitCycles_ = 0;
  std::array<Delay, 4> delays_{};
};

}  // namespace pulsekit::simulator
