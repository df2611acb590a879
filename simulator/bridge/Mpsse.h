// The command interpreter of an MPSSE channel. Commands may arrive split anywhere.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "base/Clock.h"
#include "base/Recorder.h"
#include "bridge/Pins.h"

namespace pulsekit::simulator {

// Where answers go: the channel's FIFO towards the host.
class AnswerSink {
 public:
  virtual ~AnswerSink() = default;
  virtual size_t space() = 0;
  virtual void push(const uint8_t *bytes, size_t count) = 0;  // at most space()
  virtual void flush() = 0;                                   // what is there leaves at once
  virtual uint64_t patience() const = 0;                      // the latency timer in nanoseconds
};

// Bytes from the host that wait to be interpreted.
struct Commands {
  const uint8_t *bytes;
  size_t count;
  void skip(size_t n) {
    bytes += n;
    count -= n;
  }
};

enum class Progress {
  Done,     // something was done, there may be more
  Later,    // what comes next is not over by then
  Blocked,  // waits for commands, for room in the FIFO towards the host, for a pin or for a returned clock
};

class Mpsse {
 public:
  // The clock is the engine's own: it stands where the last command that was carried out ended.
  Mpsse(Clock &clock, Pins &pins, AnswerSink &sink, Recorder &recorder, int32_t device);

  // As after switching on: 12 MHz base clock, divisor 0, loopback and adaptive clocking off, no command under way.
  void reset();

  // Goes on with what is over by `until`.
  Progress step(Commands &commands, uint64_t until);

  uint64_t spiNanoseconds() const { return spiNanoseconds_; }

 private:
  enum class State { Opcode, Arguments, Bytes, Bits, Clocks, Answer, WaitForPin };

  Progress begin(Commands &commands);
  Progress takeArguments(Commands &commands);
  Progress moveBytes(Commands &commands, uint64_t until);
  Progress moveBits(uint64_t until);
  Progress runClock(uint64_t until);
  Progress deliverAnswer();
  Progress waitForPin();
  void execute();
  void startClocks(uint64_t bits);
  void setPins(int bank);
  void answer(uint8_t byte);
  void setLoopback(bool on);
  void clockChanged();
  void record(uint32_t kind, uint32_t value, const char *text);

  bool writes() const { return (opcode_ & 0x10) != 0; }
  bool reads() const { return (opcode_ & 0x20) != 0; }
  bool leastFirst() const { return (opcode_ & 0x08) != 0; }
  bool risingEdge() const { return (opcode_ & 0x01) == 0; }
  uint32_t argument16() const { return arguments_[0] | static_cast<uint32_t>(arguments_[1]) << 8; }
  // A clock period is a whole number of thirds of a nanosecond.
  uint64_t thirdsPerPeriod() const { return (uint64_t{divisor_} + 1) * 2 * (slowBase_ ? 250 : 50); }
  uint64_t thirdsPerBit() const { return threePhase_ ? thirdsPerPeriod() * 3 / 2 : thirdsPerPeriod(); }
  uint64_t bitsUntil(uint64_t until) const;
  void spend(uint64_t bits);
  bool pinArrived() const;

  Clock &clock_;
  Pins &pins_;
  AnswerSink &sink_;
  Recorder &recorder_;
  const int32_t device_;

  State state_ = State::Opcode;
  uint8_t opcode_ = 0;
  std::array<uint8_t, 3> arguments_{};
  size_t argumentsTaken_ = 0, argumentsNeeded_ = 0;
  size_t bytesLeft_ = 0;
  uint64_t clocksLeft_ = 0;
  std::array<uint8_t, 2> answer_{};
  size_t answerSize_ = 0;

  bool slowBase_ = true;
  bool threePhase_ = false;
  bool adaptive_ = false;
  uint32_t divisor_ = 0;
  uint64_t thirds_ = 0;
  uint64_t spiNanoseconds_ = 0;
};

}  // namespace pulsekit::simulator
