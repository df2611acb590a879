// Bus programs: transfers, pin levels and pauses that the bridge carries out one behind the other on its own clock,
// while the host does something else. A program is ordered (queueProgram, sendPrograms) and its answer collected later
// (takeAnswers, finishPrograms), in the order of ordering; several may be in flight. Every other operation on the
// handle first waits for what is in flight, so nothing on the bus changes places.
//
// With a driver that can't do this, or operations that a host has put in its place, a program is carried out step by
// step when it is queued, with the same answer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

#include "interface.h"

namespace pulsekit {

class BusProgram {
 public:
  struct Step {
    enum Kind : uint8_t { kTransfer, kPin, kTogglePin, kPause };
    Kind kind;
    uint8_t busy_bits;                     // kTransfer
    uint32_t target;                       // channel or pin identifier
    uint32_t level;                        // kPin
    uint32_t out_at, out_count, in_count;  // kTransfer
    uint64_t clocks;                       // kPause
  };

  void clear();
  // One chip-select frame: bytes out, then bytes in. busy_bits: where a program is carried out step by step, the
  // transfer is repeated until these bits of its first answer byte are 0.
  void transfer(uint32_t channel, const uint8_t *out, size_t out_count, uint32_t in_count = 0, uint8_t busy_bits = 0);
  void transfer(uint32_t channel, std::initializer_list<uint8_t> out, uint32_t in_count = 0, uint8_t busy_bits = 0);
  void pin(uint32_t id, uint32_t level);
  void togglePin(uint32_t id);
  void pause(uint64_t clocks);  // no chip selected

  const std::vector<Step> &steps() const { return steps_; }
  const uint8_t *out(const Step &step) const { return out_.data() + step.out_at; }
  uint32_t answerLength() const { return answer_length_; }  // bytes in of all transfers
  uint64_t clocks() const { return clocks_; }               // SPI clocks that it takes

  // What the driver has made of it, for as long as the pins and their names are the same.
  struct Compiled {
    std::vector<uint8_t> stream;
    uint32_t tail = 0;    // bytes behind the last command that answers
    uint32_t answer = 0;  // bytes, with the two check bytes
    uint16_t directions = 0, states_before = 0, states_after = 0;
    uint8_t check[2] = {};
    const void *pin_map = nullptr, *channel_map = nullptr;
    bool valid = false;
  };
  Compiled compiled;

 private:
  std::vector<Step> steps_;
  std::vector<uint8_t> out_;
  uint32_t answer_length_ = 0;
  uint64_t clocks_ = 0;
};

// One ordered program. Both it and the program stay where they are until it is done.
struct ProgramRun {
  uint8_t *answer = nullptr;  // room for the program's answer; filled in the order of its transfers
  bool done = true;
  int32_t code = 0;          // once done
  const char *message = "";  // of a failure
  uint64_t arrived = 0;      // QTX_timestamp_us
};

// Orders programs of its own and wants to know when somebody else is about to use the bus: it finishes what it has in
// flight and leaves the bus in order.
class ProgramOwner {
 public:
  virtual ~ProgramOwner() = default;
  virtual void yieldBus() = 0;
};

// What a driver with bus programs offers; contracts as below.
struct ProgramOperations {
  decltype(InterfaceHandle::SendReceiveSPI) send_receive;  // the driver's own: another one in the handle's slot counts
  decltype(InterfaceHandle::SetIO) set_io;                 // as a driver without programs
  double (*clock)(const InterfaceHandle *bridge);
  bool (*fits)(InterfaceHandle *bridge, BusProgram &program, uint64_t pause);
  int32_t (*queue)(InterfaceHandle *bridge, BusProgram &program, uint64_t pause, ProgramRun &run);
  int32_t (*send)(InterfaceHandle *bridge);
  int32_t (*take)(InterfaceHandle *bridge);
  int32_t (*finish)(InterfaceHandle *bridge, const ProgramRun *last);
  void (*drop)(InterfaceHandle *bridge);
  void (*set_owner)(InterfaceHandle *bridge, ProgramOwner *owner, bool active);
};

// Whether programs run on the bridge's own clock.
bool hasPrograms(const InterfaceHandle *bridge);
// Hertz of the SPI clock; what programs count in where they are carried out step by step.
double spiClock(const InterfaceHandle *bridge);

// Whether the program, behind a pause of so many clocks, can be ordered now without a write that could block. Throws
// when memory is too short to compile it.
bool programFits(InterfaceHandle *bridge, BusProgram &program, uint64_t pause = 0);
// Puts the program behind those that are queued. Codes: 2 it does not fit, 262 no such pin or channel.
int32_t queueProgram(InterfaceHandle *bridge, BusProgram &program, uint64_t pause, ProgramRun &run);
// One write for all that are queued. A failure ends all that are in flight with its code.
int32_t sendPrograms(InterfaceHandle *bridge);
// Takes the answers that are there; does not wait. A failure ends all that are in flight with its code.
int32_t takeAnswers(InterfaceHandle *bridge);
// Sends what is queued and waits for all answers, or for those up to the last one that matters. Codes of sendPrograms
// and takeAnswers, 270 an answer did not come; and 1537, 1538, which leave everything in flight.
int32_t finishPrograms(InterfaceHandle *bridge, const ProgramRun *last = nullptr);
// Forgets what is in flight: done with 1537. The next use of the bus waits until the bridge has carried it out.
void dropPrograms(InterfaceHandle *bridge);

// Orders the program alone and waits for its answer. Unlike one that is queued it may be longer than the bridge's FIFO
// as long as it has no long pauses.
int32_t runProgram(InterfaceHandle *bridge, BusProgram &program, uint8_t *answer);

// Null: nobody. While `active` the owner itself uses the bus.
void setProgramOwner(InterfaceHandle *bridge, ProgramOwner *owner, bool active);

}  // namespace pulsekit
