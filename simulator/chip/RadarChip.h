// A simulated radar chip on the SPI bus.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "base/Clock.h"
#include "base/SpiDevice.h"

namespace pulsekit::simulator {

class Scene;
struct ChipTruth;

class RadarChip : public SpiDevice {
 public:
  // Without power it answers nothing; switching it on resets every register.
  virtual void setPower(bool on) = 0;
  // False while it does not drive the data line: the bus then reads its idle level.
  virtual bool drivesDataLine() const = 0;
  // What the antenna looks at. Never null; may be replaced while it runs. Motions begin anew.
  virtual void setScene(std::shared_ptr<const Scene> scene) = 0;
  // The clock that the board feeds it, hertz; 0 stops it. 100 MHz unless set.
  virtual void setReferenceClock(double frequency) = 0;

  // For tests: registers as they stand, faults.
  virtual uint64_t registerValue(uint8_t address) const = 0;
  virtual void setRegisterValue(uint8_t address, uint64_t value) = 0;  // past read-only, as the hardware would
  // Bits of mask in the register no longer take what is written: they keep the bits of value.
  virtual void stickBits(uint8_t address, uint64_t mask, uint64_t value) = 0;
  virtual void setChipId(uint16_t id) = 0;

  // For tests: what this specimen really is, and, with the registers as they stand, when after the pulse its first
  // sampler looks (seconds) and what mean level every sampler sees (threshold-DAC codes).
  virtual const ChipTruth &truth() const = 0;
  virtual double windowStart() const = 0;
  virtual std::vector<double> levels() const = 0;
};

// "QTX3400", "QTX3500", "QTX3701" or "QTX3702"; null for any other model. seed makes the spread of its delay elements.
std::unique_ptr<RadarChip> makeRadarChip(std::string_view model, Clock &clock, uint64_t seed);

}  // namespace pulsekit::simulator
