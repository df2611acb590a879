// A radar board on the pins of a bridge: power switch, flash, radar chip.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "base/Clock.h"
#include "board/Flash.h"
#include "chip/RadarChip.h"

namespace pulsekit::simulator {

class Board {
 public:
  static constexpr int kChipSelect = 3;
  static constexpr int kFlashSelect = 4;
  static constexpr int kPower = 5;

  // An empty name leaves the one-time-programmable area as it left the factory. chip may be null.
  Board(Clock &clock, std::string_view name, std::unique_ptr<RadarChip> chip);

  // Levels of the sixteen pins on the wire.
  void setLevels(uint16_t levels);
  void setPlugged(bool plugged);
  void setIdleLevel(bool level);
  void setFlashPresent(bool present);
  void powerCycle();

  bool selected() const { return chipLine_.selected || flashLine_.selected; }

  // Clocks data through whatever is selected. An incomplete byte is lost when its device is deselected.
  void exchange(const uint8_t *in, uint8_t *out, size_t count);
  bool exchangeBit(bool in);

  Flash &flash() { return flash_; }
  bool flashPresent() const { return flashPresent_; }
  RadarChip *chip() { return chip_.get(); }

 private:
  // One device on the bus and the byte that is going through it.
  struct Line {
    SpiDevice *device = nullptr;
    bool selected = false;
    int bits = 0;
    uint8_t in = 0, out = 0;
  };

  void update();
  void updateLine(Line &line, bool selected);
  uint8_t outgoing(Line &line);
  bool lineBit(Line &line, bool in);

  uint8_t idle_ = 0;
  bool plugged_ = true;
  bool powered_ = false;
  bool flashPresent_ = true;
  uint16_t levels_ = 0;
  Flash flash_;
  std::unique_ptr<RadarChip> chip_;
  Line chipLine_, flashLine_;
};

}  // namespace pulsekit::simulator
