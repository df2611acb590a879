#include "board/Board.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace pulsekit::simulator {

namespace {

constexpr size_t kNameSize = 32;

}  // namespace

Board::Board(Clock &clock, std::string_view name, std::unique_ptr<RadarChip> chip)
    : flash_(clock), chip_(std::move(chip)) {
  chipLine_.device = chip_.get();
  flashLine_.device = &flash_;
  if (name.empty()) return;
  std::fill_n(flash_.otp().begin(), kNameSize, uint8_t{0});
  std::copy_n(name.begin(), std::min(name.size(), kNameSize - 1), flash_.otp().begin());
}

void Board::setLevels(uint16_t levels) {
  levels_ = levels;
  update();
}

void Board::setPlugged(bool plugged) {
  plugged_ = plugged;
  update();
}

void Board::setIdleLevel(bool level) {
  idle_ = level ? 0xFF : 0x00;
  flash_.setIdleByte(idle_);
}

void Board::setFlashPresent(bool present) {
  flashPresent_ = present;
  update();
}

void Board::powerCycle() {
  const bool plugged = plugged_;
  setPlugged(false);
  setPlugged(plugged);
}

void Board::update() {
  const bool powered = plugged_ && (levels_ >> kPower & 1) != 0;
  if (powered != powered_) {
    powered_ = powered;
    updateLine(chipLine_, false);
    updateLine(flashLine_, false);
    flash_.resetVolatileState();
    if (chip_) chip_->setPower(powered);
  }
  updateLine(chipLine_, chip_ && powered && (levels_ >> kChipSelect & 1) == 0);
  updateLine(flashLine_, flashPresent_ && powered && (levels_ >> kFlashSelect & 1) == 0);
}

void Board::updateLine(Line &line, bool selected) {
  if (line.selected == selected) return;
  line.selected = selected;
  line.bits = 0;
  if (selected) {
    line.device->select();
  } else {
    line.device->deselect();
  }
}

uint8_t Board::outgoing(Line &line) {
  const bool drives = line.device != chip_.get() || chip_->drivesDataLine();
  const uint8_t byte = line.device->send();
  return drives ? byte : idle_;
}

void Board::exchange(const uint8_t *in, uint8_t *out, size_t count) {
  if (!selected()) {
    std::memset(out, idle_, count);
    return;
  }
  Line &line = chipLine_.selected ? chipLine_ : flashLine_;
  if (line.bits == 0 && !(chipLine_.selected && flashLine_.selected)) {
    const bool drives = line.device != chip_.get() || chip_->drivesDataLine();
    line.device->exchange(in, out, count);
    if (!drives) std::memset(out, idle_, count);
    return;
  }
  for (size_t i = 0; i < count; ++i) {
    unsigned byte = 0;
    for (int bit = 7; bit >= 0; --bit) byte = byte << 1 | (exchangeBit((in[i] >> bit & 1) != 0) ? 1u : 0u);
    out[i] = static_cast<uint8_t>(byte);
  }
}

// Two selected devices pull against each other; the low one wins.
bool Board::exchangeBit(bool in) {
  if (!selected()) return idle_ != 0;
  bool level = true;
  if (chipLine_.selected) level = lineBit(chipLine_, in);
  if (flashLine_.selected) level = lineBit(flashLine_, in) && level;
  return level;
}

bool Board::lineBit(Line &line, bool in) {
  if (line.bits == 0) line.out = outgoing(line);
  const bool level = (line.out & 0x80) != 0;
  line.out = static_cast<uint8_t>(line.out << 1);
  line.in = static_cast<uint8_t>(line.in << 1 | (in ? 1 : 0));
  if (++line.bits == 8) {
    line.bits = 0;
    line.device->receive(line.in);
  }
  return level;
}

}  // namespace pulsekit::simulator
