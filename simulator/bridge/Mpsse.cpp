#include "bridge/Mpsse.h"

#include <algorithm>
#include <string>
#include <utility>

#include "Pulsekit3Simulator.h"

namespace pulsekit::simulator {

namespace {

enum Command : uint8_t {
  kSetLow = 0x80,
  kReadLow = 0x81,
  kSetHigh = 0x82,
  kReadHigh = 0x83,
  kLoopbackOn = 0x84,
  kLoopbackOff = 0x85,
  kSetDivisor = 0x86,
  kSendImmediate = 0x87,
  kWaitHigh = 0x88,
  kWaitLow = 0x89,
  kFastBase = 0x8A,
  kSlowBase = 0x8B,
  kThreePhaseOn = 0x8C,
  kThreePhaseOff = 0x8D,
  kClockBits = 0x8E,
  kClockBytes = 0x8F,
  kClockUntilHigh = 0x94,
  kClockUntilLow = 0x95,
  kAdaptiveOn = 0x96,
  kAdaptiveOff = 0x97,
  kClockBytesUntilHigh = 0x9C,
  kClockBytesUntilLow = 0x9D,
};

constexpr uint8_t kBadCommand = 0xFA;
constexpr uint8_t kBitWise = 0x02;
constexpr int kWaitPin = 5;
constexpr uint64_t kEndless = UINT64_MAX;
constexpr uint64_t kCountable = UINT64_MAX / 4;  // in thirds of a nanosecond, too

bool isShift(uint8_t opcode) { return opcode >= 0x10 && opcode < 0x40; }

size_t argumentsOf(uint8_t opcode) {
  if (isShift(opcode)) return (opcode & kBitWise) == 0 ? 2 : (opcode & 0x10) != 0 ? 2 : 1;
  switch (opcode) {
    case kSetLow:
    case kSetHigh:
    case kSetDivisor:
    case kClockBytes:
    case kClockBytesUntilHigh:
    case kClockBytesUntilLow:
      return 2;
    case kClockBits:
      return 1;
    default:
      return 0;
  }
}

uint8_t reversed(uint8_t byte) {
  unsigned bits = byte;
  bits = (bits & 0xF0) >> 4 | (bits & 0x0F) << 4;
  bits = (bits & 0xCC) >> 2 | (bits & 0x33) << 2;
  bits = (bits & 0xAA) >> 1 | (bits & 0x55) << 1;
  return static_cast<uint8_t>(bits);
}

}  // namespace

Mpsse::Mpsse(Clock &clock, Pins &pins, AnswerSink &sink, Recorder &recorder, int32_t device)
    : clock_(clock), pins_(pins), sink_(sink), recorder_(recorder), device_(device) {}

void Mpsse::reset() {
  state_ = State::Opcode;
  slowBase_ = true;
  threePhase_ = false;
  adaptive_ = false;
  divisor_ = 0;
  pins_.setLoopback(false);
}

Progress Mpsse::step(Commands &commands, uint64_t until) {
  if (clock_.nanoseconds() > until) return Progress::Later;
  switch (state_) {
    case State::Opcode:
      return begin(commands);
    case State::Arguments:
      return takeArguments(commands);
    case State::Bytes:
      return moveBytes(commands, until);
    case State::Bits:
      return moveBits(until);
    case State::Clocks:
      return runClock(until);
    case State::Answer:
      return deliverAnswer();
    case State::WaitForPin:
      return waitForPin();
  }
  return Progress::Blocked;
}

Progress Mpsse::begin(Commands &commands) {
  if (commands.count == 0) return Progress::Blocked;
  opcode_ = *commands.bytes;
  commands.skip(1);
  argumentsTaken_ = 0;
  argumentsNeeded_ = argumentsOf(opcode_);
  state_ = State::Arguments;
  return takeArguments(commands);
}

Progress Mpsse::takeArguments(Commands &commands) {
  for (; argumentsTaken_ < argumentsNeeded_; commands.skip(1)) {
    if (commands.count == 0) return Progress::Blocked;
    arguments_[argumentsTaken_++] = *commands.bytes;
  }
  execute();
  return Progress::Done;
}

void Mpsse::execute() {
  state_ = State::Opcode;
  if (isShift(opcode_)) {
    bytesLeft_ = argument16() + size_t{1};
    state_ = (opcode_ & kBitWise) == 0 ? State::Bytes : State::Bits;
    return;
  }
  switch (opcode_) {
    case kSetLow:
      return setPins(0);
    case kSetHigh:
      return setPins(8);
    case kReadLow:
      return answer(static_cast<uint8_t>(pins_.levels()));
    case kReadHigh:
      return answer(static_cast<uint8_t>(pins_.levels() >> 8));
    case kLoopbackOn:
    case kLoopbackOff:
      return setLoopback(opcode_ == kLoopbackOn);
    case kSetDivisor:
      divisor_ = argument16();
      return clockChanged();
    case kFastBase:
    case kSlowBase:
      slowBase_ = opcode_ == kSlowBase;
      return clockChanged();
    case kSendImmediate:
      return sink_.flush();
    case kThreePhaseOn:
    case kThreePhaseOff:
      threePhase_ = opcode_ == kThreePhaseOn;
      return;
    case kAdaptiveOn:
    case kAdaptiveOff:
      adaptive_ = opcode_ == kAdaptiveOn;
      return;
    case kWaitHigh:
    case kWaitLow:
      state_ = State::WaitForPin;
      return;
    case kClockBits:
      return startClocks(arguments_[0] % 8u + 1);
    case kClockUntilHigh:
    case kClockUntilLow:
      return startClocks(kEndless);
    case kClockBytes:
    case kClockBytesUntilHigh:
    case kClockBytesUntilLow:
      return startClocks((argument16() + uint64_t{1}) * 8);
    default:
      record(QTXSIM_EVENT_ODD, opcode_, "BadCommand");
      answer_ = {kBadCommand, opcode_};
      answerSize_ = 2;
      state_ = State::Answer;
  }
}

void Mpsse::startClocks(uint64_t bits) {
  clocksLeft_ = bits;
  state_ = State::Clocks;
}

// A short answer sits in the low bits, or with the least significant bit first in the high bits.
Progress Mpsse::moveBits(uint64_t until) {
  if (adaptive_) return Progress::Blocked;
  const int bits = arguments_[0] % 8 + 1;
  if (bitsUntil(until) < static_cast<uint64_t>(bits)) return Progress::Later;
  const uint8_t data = leastFirst() ? reversed(arguments_[1]) : arguments_[1];
  spend(static_cast<uint64_t>(bits));
  state_ = State::Opcode;
  const uint8_t high = pins_.exchangeBits(writes() ? &data : nullptr, reads(), bits, risingEdge());
  if (!reads()) return Progress::Done;
  const auto low = static_cast<uint8_t>(high >> (8 - bits));
  answer(leastFirst() ? reversed(low) : low);
  return Progress::Done;
}

Progress Mpsse::moveBytes(Commands &commands, uint64_t until) {
  size_t run = std::min(bytesLeft_, Pins::kMaximumRun);
  if (writes()) run = std::min(run, commands.count);
  if (reads()) {
    const uint64_t inTime = sink_.patience() * 3 / (thirdsPerBit() * 8);
    run = std::min({run, sink_.space(), static_cast<size_t>(std::max<uint64_t>(inTime, 1))});
  }
  if (run == 0 || adaptive_) return Progress::Blocked;
  run = static_cast<size_t>(std::min<uint64_t>(run, bitsUntil(until) / 8));
  if (run == 0) return Progress::Later;

  uint8_t data[Pins::kMaximumRun], got[Pins::kMaximumRun];
  const uint8_t *source = writes() ? commands.bytes : nullptr;
  if (source && leastFirst()) {
    std::transform(source, source + run, data, reversed);
    source = data;
  }
  spend(run * 8);
  pins_.exchange(source, reads() ? got : nullptr, run, risingEdge());
  if (writes()) commands.skip(run);
  bytesLeft_ -= run;
  if (bytesLeft_ == 0) state_ = State::Opcode;
  if (!reads()) return Progress::Done;
  if (leastFirst()) std::transform(got, got + run, got, reversed);
  sink_.push(got, run);
  return Progress::Done;
}

Progress Mpsse::runClock(uint64_t until) {
  if (clocksLeft_ == 0 || pinArrived()) {
    state_ = State::Opcode;
    return Progress::Done;
  }
  const uint64_t bits = std::min(clocksLeft_, bitsUntil(until));
  if (adaptive_ || bits == kEndless) return Progress::Blocked;
  if (bits == 0) return Progress::Later;
  if (clocksLeft_ != kEndless) clocksLeft_ -= bits;
  spend(bits);
  pins_.clock(bits);
  return Progress::Done;
}

void Mpsse::answer(uint8_t byte) {
  answer_[0] = byte;
  answerSize_ = 1;
  state_ = State::Answer;
}

Progress Mpsse::deliverAnswer() {
  if (sink_.space() < answerSize_) return Progress::Blocked;
  state_ = State::Opcode;
  sink_.push(answer_.data(), answerSize_);
  return Progress::Done;
}

Progress Mpsse::waitForPin() {
  if (!pinArrived()) return Progress::Blocked;
  state_ = State::Opcode;
  return Progress::Done;
}

// Whether the pin has the level that ends the command under way.
bool Mpsse::pinArrived() const {
  const bool high = (pins_.levels() >> kWaitPin & 1) != 0;
  switch (opcode_) {
    case kWaitHigh:
    case kClockUntilHigh:
    case kClockBytesUntilHigh:
      return high;
    case kWaitLow:
    case kClockUntilLow:
    case kClockBytesUntilLow:
      return !high;
    default:
      return false;
  }
}

void Mpsse::setPins(int bank) {
  const unsigned keep = bank == 0 ? 0xFF00u : 0x00FFu;
  const unsigned states = (pins_.states() & keep) | static_cast<unsigned>(arguments_[0]) << bank;
  const unsigned directions = (pins_.directions() & keep) | static_cast<unsigned>(arguments_[1]) << bank;
  pins_.drive(static_cast<uint16_t>(directions), static_cast<uint16_t>(states));
}

void Mpsse::setLoopback(bool on) {
  pins_.setLoopback(on);
  record(QTXSIM_EVENT_ODD, on, "Loopback");
}

void Mpsse::clockChanged() {
  record(QTXSIM_EVENT_CLOCK, static_cast<uint32_t>(3'000'000'000u / thirdsPerPeriod()), "");
}

void Mpsse::record(uint32_t kind, uint32_t value, const char *text) {
  if (!recorder_.wants(kind)) return;
  Event event;
  event.kind = kind;
  event.device = device_;
  event.value = value;
  event.text = text;
  recorder_.add(std::move(event), clock_);
}

uint64_t Mpsse::bitsUntil(uint64_t until) const {
  const uint64_t left = until - clock_.nanoseconds();
  return left > kCountable ? kEndless : (left * 3 + 2 - thirds_) / thirdsPerBit();
}

void Mpsse::spend(uint64_t bits) {
  thirds_ += bits * thirdsPerBit();
  clock_.advance(thirds_ / 3);
  spiNanoseconds_ += thirds_ / 3;
  thirds_ %= 3;
}

}  // namespace pulsekit::simulator
