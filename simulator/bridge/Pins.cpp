#include "bridge/Pins.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "Pulsekit3Simulator.h"

namespace pulsekit::simulator {

namespace {

constexpr uint16_t kSelects = 1u << Board::kChipSelect | 1u << Board::kFlashSelect;
// More clocks in a row, always with the same data, make no difference to a device.
constexpr uint64_t kAnyClocks = 1 << 20;
// Their levels are the SPI frames' business.
constexpr uint16_t kQuietPins = 0x001F;

}  // namespace

void Pins::Side::add(const uint8_t *more, size_t count) {
  if (bits % 8 == 0) {
    bytes.insert(bytes.end(), more, more + count);
    bits += static_cast<uint32_t>(count * 8);
    return;
  }
  for (size_t i = 0; i < count; ++i) addBits(more[i], 8);
}

void Pins::Side::addBits(uint8_t high, int count) {
  for (int i = 0; i < count; ++i, ++bits) {
    if (bits % 8 == 0) bytes.push_back(0);
    if (high << i & 0x80) bytes.back() = static_cast<uint8_t>(bytes.back() | 0x80u >> bits % 8);
  }
}

Pins::Pins(const Clock &clock, Recorder &recorder, int32_t device, bool highBank)
    : clock_(clock), recorder_(recorder), device_(device), existing_(highBank ? 0xFFFF : 0x00FF) {}

void Pins::attach(std::unique_ptr<Board> board) {
  board_ = std::move(board);
  board_->setIdleLevel(idleLevel());
  board_->setLevels(levels());
}

void Pins::setIdleLevel(bool level) {
  idle_ = level;
  if (board_) board_->setIdleLevel(idleLevel());
}

bool Pins::idleLevel() const { return (outsideMask_ >> kDataIn & 1) != 0 ? (outside_ >> kDataIn & 1) != 0 : idle_; }

uint16_t Pins::levels() const {
  unsigned pulls = 0xFFFF & ~(1u << kDataIn);
  if (idle_) pulls |= 1u << kDataIn;
  if (board_) pulls &= ~(1u << Board::kPower);
  const unsigned undriven = (pulls & ~unsigned{outsideMask_}) | (outside_ & outsideMask_);
  return static_cast<uint16_t>(((states_ & directions_) | (undriven & ~unsigned{directions_})) & existing_);
}

void Pins::drive(uint16_t directions, uint16_t states) {
  const uint16_t oldLevels = levels();
  const uint16_t oldDirections = directions_;
  directions_ = directions & existing_;
  states_ = states & existing_;
  levelsChanged(oldDirections, oldLevels);
}

void Pins::driveFromOutside(int pin, int level) {
  const uint16_t oldLevels = levels();
  const auto bit = static_cast<uint16_t>(1u << pin);
  outsideMask_ = static_cast<uint16_t>(level < 0 ? outsideMask_ & ~bit : outsideMask_ | bit);
  outside_ = static_cast<uint16_t>(level > 0 ? outside_ | bit : outside_ & ~bit);
  if (board_) board_->setIdleLevel(idleLevel());
  levelsChanged(directions_, oldLevels);
}

void Pins::levelsChanged(uint16_t oldDirections, uint16_t oldLevels) {
  const uint16_t now = levels();
  if (now == oldLevels && directions_ == oldDirections) return;
  recordPins(oldDirections, oldLevels);
  if (chipSelectsLow() != frameSelects_ || frameSelects_ == 0) endFrame();
  if (board_ && now != oldLevels) board_->setLevels(now);
}

void Pins::recordPins(uint16_t oldDirections, uint16_t oldLevels) {
  if (!recorder_.wants(QTXSIM_EVENT_PIN)) return;
  const uint16_t now = levels();
  const unsigned turned = directions_ ^ oldDirections;
  const unsigned changed = turned | ((now ^ oldLevels) & directions_ & ~unsigned{kQuietPins});
  for (uint32_t pin = 0; pin < 16; ++pin) {
    if ((changed >> pin & 1) == 0) continue;
    Event event;
    event.kind = QTXSIM_EVENT_PIN;
    event.device = device_;
    event.value = pin;
    event.output = directions_ >> pin & 1;
    event.level = now >> pin & 1;
    recorder_.add(std::move(event), clock_);
  }
}

uint16_t Pins::chipSelectsLow() const { return static_cast<uint16_t>(~levels() & kSelects); }

// A frame ends where the chip selects change; one that is selected counts even if nothing is clocked.
void Pins::endFrame() {
  if ((frameSelects_ != 0 || frameOpen_) && recorder_.wants(QTXSIM_EVENT_SPI)) {
    Event event;
    event.kind = QTXSIM_EVENT_SPI;
    event.device = device_;
    event.value = frameSelects_;
    event.out = std::move(written_.bytes);
    event.in = std::move(read_.bytes);
    event.outBits = written_.bits;
    event.inBits = read_.bits;
    recorder_.add(std::move(event), clock_);
  }
  frameSelects_ = chipSelectsLow();
  frameOpen_ = false;
  written_ = {};
  read_ = {};
}

void Pins::endBatch() {
  if (frameSelects_ == 0 && frameOpen_) endFrame();
}

void Pins::setDataOut(bool level) {
  states_ = static_cast<uint16_t>(level ? states_ | 1u << kDataOut : states_ & ~(1u << kDataOut));
}

void Pins::exchange(const uint8_t *data, uint8_t *answer, size_t count, bool risingEdge) {
  uint8_t sent[kMaximumRun], seen[kMaximumRun];
  if (!data) {
    std::memset(sent, dataOut() ? 0xFF : 0x00, count);
  } else {
    std::memcpy(sent, data, count);
  }
  const bool last = (sent[count - 1] & 1) != 0;
  if (data && late(risingEdge)) {
    unsigned before = dataOut() ? 1 : 0;
    for (size_t i = 0; i < count; ++i) {
      const unsigned now = sent[i];
      sent[i] = static_cast<uint8_t>(before << 7 | now >> 1);
      before = now & 1;
    }
  }
  if (board_) {
    board_->exchange(sent, seen, count);
  } else {
    std::memset(seen, idleLevel() ? 0xFF : 0x00, count);
  }
  if (answer) std::memcpy(answer, loopback_ ? (data ? data : sent) : seen, count);
  setDataOut(last);
  if (!recorder_.wants(QTXSIM_EVENT_SPI)) return;
  frameOpen_ = true;
  if (data) written_.add(data, count);
  if (answer) read_.add(answer, count);
}

uint8_t Pins::exchangeBits(const uint8_t *data, bool answered, int bits, bool risingEdge) {
  unsigned sent = data ? *data : (dataOut() ? 0xFFu : 0u);
  const unsigned original = sent;
  if (data && late(risingEdge)) sent = (dataOut() ? 0x80u : 0u) | sent >> 1;
  unsigned answer = 0;
  for (int i = 0; i < bits; ++i) {
    const bool level = board_ ? board_->exchangeBit((sent << i & 0x80) != 0) : idleLevel();
    if (level) answer |= 0x80u >> i;
  }
  if (loopback_) answer = original & ~(0xFFu >> bits);
  setDataOut((original << (bits - 1) & 0x80) != 0);
  if (recorder_.wants(QTXSIM_EVENT_SPI)) {
    frameOpen_ = true;
    if (data) written_.addBits(*data, bits);
    if (answered) read_.addBits(static_cast<uint8_t>(answer), bits);
  }
  return static_cast<uint8_t>(answer);
}

void Pins::clock(uint64_t bits) {
  if (!board_ || !board_->selected()) return;
  bits = std::min(bits, kAnyClocks);
  for (uint64_t run = 0; bits >= 8; bits -= run * 8) {
    run = std::min<uint64_t>(bits / 8, kMaximumRun);
    exchange(nullptr, nullptr, run, false);
  }
  if (bits > 0) exchangeBits(nullptr, false, static_cast<int>(bits), false);
}

}  // namespace pulsekit::simulator
