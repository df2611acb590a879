#include "Mpsse.h"

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
  kAdaptiveOn = 0x96,
  kAdaptiveOff = 0x97,
};

constexpr uint8_t kBadCommand = 0xFA;
constexpr uint8_t kBitWise = 0x02;
constexpr int kWaitPin = 5;

bool isShift(uint8_t opcode) { return opcode >= 0x10 && opcode < 0x40; }

size_t argumentsOf(uint8_t opcode) {
  if (isShift(opcode)) return (opcode & kBitWise) == 0 ? 2 : (opcode & 0x10) != 0 ? 2 : 1;
  switch (opcode) {
    case kSetLow:
    case kSetHigh:
    case kSetDivisor:
    case kClockBytes:
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
  divisor_ = 0;
  pins_.setLoopback(false);
}

size_t Mpsse::feed(const uint8_t *bytes, size_t count) {
  Input input{bytes, count};
  while (step(input)) {
  }
  return count - input.count;
}

bool Mpsse::step(Input &input) {
  switch (state_) {
    case State::Opcode:
      if (input.count == 0) return false;
      begin(*input.bytes);
      input.skip(1);
      return true;
    case State::Arguments:
      return takeArgument(input);
    case State::Bytes:
      return moveBytes(input);
    case State::Answer:
      return deliverAnswer();
    case State::WaitForPin:
      return pinArrived();
  }
  return false;
}

void Mpsse::begin(uint8_t opcode) {
  opcode_ = opcode;
  argumentsTaken_ = 0;
  argumentsNeeded_ = argumentsOf(opcode);
  state_ = State::Arguments;
  if (argumentsNeeded_ == 0) execute();
}

bool Mpsse::takeArgument(Input &input) {
  if (input.count == 0) return false;
  arguments_[argumentsTaken_++] = *input.bytes;
  input.skip(1);
  if (argumentsTaken_ == argumentsNeeded_) execute();
  return true;
}

void Mpsse::execute() {
  state_ = State::Opcode;
  if (isShift(opcode_)) return executeShift();
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
      return;  // nothing returns a clock here
    case kWaitHigh:
    case kWaitLow:
      state_ = State::WaitForPin;
      return;
    case kClockBits:
      return spend(arguments_[0] % 8u + 1);
    case kClockBytes:
      return spend((argument16() + uint64_t{1}) * 8);
    default:
      record(QTXSIM_EVENT_ODD, opcode_, "BadCommand");
      answer_ = {kBadCommand, opcode_};
      answerSize_ = 2;
      state_ = State::Answer;
  }
}

void Mpsse::executeShift() {
  if ((opcode_ & kBitWise) == 0) {
    bytesLeft_ = argument16() + size_t{1};
    state_ = State::Bytes;
    return;
  }
  shiftBits();
}

// A short answer sits in the low bits, or with the least significant bit first in the high bits.
void Mpsse::shiftBits() {
  const int bits = arguments_[0] % 8 + 1;
  const uint8_t data = leastFirst() ? reversed(arguments_[1]) : arguments_[1];
  spend(static_cast<uint64_t>(bits));
  const uint8_t high = pins_.exchangeBits(writes() ? &data : nullptr, reads(), bits, risingEdge());
  if (!reads()) return;
  const auto low = static_cast<uint8_t>(high >> (8 - bits));
  answer(leastFirst() ? reversed(low) : low);
}

bool Mpsse::moveBytes(Input &input) {
  size_t run = std::min(bytesLeft_, Pins::kMaximumRun);
  if (writes()) run = std::min(run, input.count);
  if (reads()) {
    const uint64_t inTime = sink_.patience() * 3 / (thirdsPerBit() * 8);
    run = std::min({run, sink_.space(), static_cast<size_t>(std::max<uint64_t>(inTime, 1))});
  }
  if (run == 0) return false;

  uint8_t data[Pins::kMaximumRun], got[Pins::kMaximumRun];
  const uint8_t *source = writes() ? input.bytes : nullptr;
  if (source && leastFirst()) {
    std::transform(source, source + run, data, reversed);
    source = data;
  }
  spend(run * 8);
  pins_.exchange(source, reads() ? got : nullptr, run, risingEdge());
  if (writes()) input.skip(run);
  bytesLeft_ -= run;
  if (bytesLeft_ == 0) state_ = State::Opcode;
  if (!reads()) return true;
  if (leastFirst()) std::transform(got, got + run, got, reversed);
  sink_.push(got, run);
  return true;
}

void Mpsse::answer(uint8_t byte) {
  answer_[0] = byte;
  answerSize_ = 1;
  state_ = State::Answer;
}

bool Mpsse::deliverAnswer() {
  if (sink_.space() < answerSize_) return false;
  state_ = State::Opcode;
  sink_.push(answer_.data(), answerSize_);
  return true;
}

bool Mpsse::pinArrived() {
  const bool high = (pins_.levels() >> kWaitPin & 1) != 0;
  if (high != (opcode_ == kWaitHigh)) return false;
  state_ = State::Opcode;
  return true;
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
  recorder_.add(std::move(event));
}

void Mpsse::spend(uint64_t bits) {
  thirds_ += bits * thirdsPerBit();
  clock_.advance(thirds_ / 3);
  spiNanoseconds_ += thirds_ / 3;
  thirds_ %= 3;
}

}  // namespace pulsekit::simulator
