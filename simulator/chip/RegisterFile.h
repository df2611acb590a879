// The registers of a simulated radar chip: widths, fields, reset values, and updates that fall due later.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace pulsekit::simulator {

enum class Generation { first, second };

// A register as its own datasheet line.
struct RegisterRow {
  uint8_t address;
  uint8_t bytes;
  uint64_t fields;  // bits that keep what is written; all others read 0
  uint64_t reset;
  bool readOnly;
};

// Times are in nanoseconds of the simulated clock.
class RegisterFile {
 public:
  explicit RegisterFile(Generation generation);

  void reset();
  uint64_t value(uint8_t address, uint64_t now) const;
  uint64_t field(uint8_t address, unsigned high, unsigned low, uint64_t now) const;

  // From the bus: read-only registers and bits outside the fields stay as they are. Only the low bytes are written.
  void write(uint8_t address, uint64_t value, unsigned bytes, uint64_t now);
  // From within the chip: any bit of the register, at once or later. An update at once withdraws a later one of the
  // bits.
  void set(uint8_t address, uint64_t mask, uint64_t value, uint64_t now);
  void setLater(uint8_t address, uint64_t mask, uint64_t value, uint64_t due, uint64_t now);

  size_t updatesToCome() const { return later_.size(); }

  // Bits of mask read as those of value from now on, whatever is written. Survives a reset; mask 0 repairs.
  void stick(uint8_t address, uint64_t mask, uint64_t value);

 private:
  struct Later {
    uint8_t address;
    uint64_t mask, value, due;
  };
  struct Stuck {
    uint64_t mask = 0, value = 0;
  };

  void settle(uint64_t now);

  std::array<RegisterRow, 128> rows_{};
  std::array<uint64_t, 128> values_{};
  std::array<Stuck, 128> stuck_{};
  std::vector<Later> later_;
};

}  // namespace pulsekit::simulator
