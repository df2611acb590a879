// The sixteen pins of an MPSSE channel: what the bridge drives, what pulls and drives from outside, and the record of
// it.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "base/Recorder.h"
#include "board/Board.h"

namespace pulsekit::simulator {

class Pins {
 public:
  static constexpr int kClock = 0, kDataOut = 1, kDataIn = 2;

  // Without a high bank pins 8 to 15 do not exist: they read 0 and can't be driven.
  Pins(const Clock &clock, Recorder &recorder, int32_t device, bool highBank);

  void attach(std::unique_ptr<Board> board);
  Board *board() { return board_.get(); }

  void drive(uint16_t directions, uint16_t states);
  void driveFromOutside(int pin, int level);  // level -1 lets go
  void setIdleLevel(bool level);

  uint16_t directions() const { return directions_; }
  uint16_t states() const { return states_; }
  uint16_t levels() const;

  static constexpr size_t kMaximumRun = 512;

  // Clocks at most kMaximumRun bytes through the bus, first bit on the wire in bit 7. data null: data-out stays as it
  // is; answer null: nobody looks at data-in. risingEdge: data-out changes with the clock's rising edge.
  void exchange(const uint8_t *data, uint8_t *answer, size_t count, bool risingEdge);
  // The same for 1 to 7 bits, in the high bits of data and of the result.
  uint8_t exchangeBits(const uint8_t *data, bool answered, int bits, bool risingEdge);
  // Clocks with data-out as it is, and nobody looks at data-in.
  void clock(uint64_t bits);
  void setLoopback(bool on) { loopback_ = on; }
  // Nothing more comes for now: without a chip select this is what ends a frame.
  void endBatch();

 private:
  uint16_t chipSelectsLow() const;
  void levelsChanged(uint16_t oldDirections, uint16_t oldLevels);
  void recordPins(uint16_t oldDirections, uint16_t oldLevels);
  void endFrame();
  bool dataOut() const { return (states_ >> kDataOut & 1) != 0; }
  void setDataOut(bool level);
  bool idleLevel() const;
  // The devices sample at the rising edge: with a clock that idles low they then see the bit before.
  bool late(bool risingEdge) const { return risingEdge && (states_ >> kClock & 1) == 0; }

  const Clock &clock_;
  Recorder &recorder_;
  const int32_t device_;
  const uint16_t existing_;
  uint16_t directions_ = 0, states_ = 0;
  uint16_t outsideMask_ = 0, outside_ = 0;
  bool idle_ = false;
  bool loopback_ = false;
  std::unique_ptr<Board> board_;

  uint16_t frameSelects_ = 0;
  bool frameOpen_ = false;
  struct Side {
    std::vector<uint8_t> bytes;
    uint32_t bits = 0;
    void add(const uint8_t *more, size_t count);
    void addBits(uint8_t high, int count);
  };
  Side written_, read_;
};

}  // namespace pulsekit::simulator
