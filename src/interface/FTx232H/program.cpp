// Bus programs: one MPSSE command stream each, written ahead of what the bridge is at.
//
// Every stream answers two bytes more than its transfers: the low pins as they are within the last transfer, then as
// they are at the end. They differ in a chip select, so that an answer which has lost or gained a byte is noticed at
// once.
#include "../program.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "../../support/handle_state.h"
#include "../../support/trace.h"
#include "FTx232H_private.h"

using namespace pulsekit;

static constexpr const char kSource[] = "src/interface/FTx232H/FTx232H";

namespace {

using Flights = FTx232H_Flights;
using Flight = FTx232H_Flights::Flight;
using Step = BusProgram::Step;

constexpr size_t kMaximumTransfer = 65536;
constexpr uint64_t kMaximumClockBytes = 65536;
constexpr uint32_t kHostQueue = 61440;        // answers that the host's side holds without stalling the bridge
constexpr uint64_t kQuickMilliseconds = 200;  // programs longer than the FIFO may take that long
constexpr uint64_t kPatienceMilliseconds = 1000;
constexpr uint64_t kQuietMilliseconds = 5;
constexpr uint32_t kPollsBeforeNaps = 100;
constexpr uint8_t kSpiPins = 0x07;  // their levels are the SPI engine's

constexpr char kWriteMessage[] = "FTx232H - Could not write data to device";
constexpr char kReadMessage[] = "FTx232H - Could not read from device";
constexpr char kAnswerMessage[] = "FTx232H - The answer of a bus program is not the one that was asked for";
constexpr char kTimeoutMessage[] = "FTx232H - Timeout waiting for the answer of a bus program";
constexpr char kPinMessage[] = "FTx232H - Trying to set the value of an IO pin outside the legal range";
constexpr char kChannelMessage[] = "FTx232H - Trying to use an SPI channel outside the legal range";

struct Outcome {
  int32_t code = kSuccess;
  const char *message = "";
};

double clockOf(const FTx232H_Connection &connection) { return 60e6 / ((connection.clock_divisor + 1.0) * 2); }

uint64_t millisecondsOf(const FTx232H_Connection &connection, uint64_t clocks) {
  return static_cast<uint64_t>(static_cast<double>(clocks) * 1000 / clockOf(connection));
}

// ---- Compiling ----

class Compiler {
 public:
  Compiler(InterfaceHandle *bridge, BusProgram &program, uint16_t states, uint16_t directions)
      : bridge_(bridge),
        program_(program),
        made_(program.compiled),
        states_(states),
        check_at_(lastTransfer(program.steps())) {
    made_.stream.clear();
    made_.states_before = states;
    made_.directions = directions;
    made_.answer = program.answerLength();
  }

  Outcome run() {
    for (size_t i = 0; i < program_.steps().size(); ++i) {
      if (Outcome step = add(program_.steps()[i], i == check_at_); step.code) return step;
    }
    check(1);
    append({kSendImmediate});
    made_.tail = 1;
    made_.states_after = states_;
    made_.pin_map = bridge_->pin_map;
    made_.channel_map = bridge_->spi_channel_map;
    made_.valid = true;
    return {};
  }

 private:
  static size_t lastTransfer(const std::vector<Step> &steps) {
    size_t i = steps.size();
    while (i > 0 && steps[i - 1].kind != Step::kTransfer) --i;
    return i - 1;
  }

  void append(std::initializer_list<uint8_t> bytes) {
    made_.stream.insert(made_.stream.end(), bytes.begin(), bytes.end());
  }

  void set(int32_t pin, uint32_t level) {
    states_ = static_cast<uint16_t>((states_ & ~(1u << pin)) | level << pin);
    const int shift = pin < 8 ? 0 : 8;
    append({shift == 0 ? kSetLowPins : kSetHighPins, static_cast<uint8_t>(states_ >> shift),
            static_cast<uint8_t>(made_.directions >> shift)});
  }

  void check(int number) {
    append({kGetLowPins});
    made_.check[number] = static_cast<uint8_t>(states_);
    ++made_.answer;
  }

  void shift(uint8_t command, size_t count) {
    append({command, static_cast<uint8_t>(count - 1), static_cast<uint8_t>((count - 1) >> 8)});
  }

  Outcome add(const Step &step, bool checked) {
    if (step.kind == Step::kTransfer) return addTransfer(step, checked);
    if (step.kind == Step::kPause) {
      FTx232H_appendPause(made_.stream, step.clocks);
      return {};
    }
    const int32_t pin = FTx232H_ID_to_pin(bridge_->owner, static_cast<int32_t>(step.target));
    if (!isBridgePin(pin)) return {kIoRead, kPinMessage};
    set(pin, step.kind == Step::kTogglePin ? (states_ >> pin & 1u) ^ 1u : step.level);
    return {};
  }

  Outcome addTransfer(const Step &step, bool checked) {
    const int32_t chip_select = FTx232H_ID_to_SPIchannel(bridge_->owner, static_cast<int32_t>(step.target));
    if (!isBridgePin(chip_select)) return {kIoRead, kChannelMessage};
    if (step.out_count > kMaximumTransfer || step.in_count > kMaximumTransfer) return {kBufferTooSmall};
    set(chip_select, 0);
    if (step.out_count > 0) {
      shift(kWriteBytes, step.out_count);
      const uint8_t *out = program_.out(step);
      made_.stream.insert(made_.stream.end(), out, out + step.out_count);
    }
    if (step.in_count > 0) shift(kReadBytes, step.in_count);
    if (checked) check(0);
    set(chip_select, 1);
    return {};
  }

  InterfaceHandle *bridge_;
  BusProgram &program_;
  BusProgram::Compiled &made_;
  uint16_t states_;
  const size_t check_at_;
};

// Makes sure that the program is compiled for the pins as they are remembered.
Outcome compile(InterfaceHandle *bridge, BusProgram &program) {
  const FTx232H_Connection &connection = *connectionOf(bridge);
  const BusProgram::Compiled &made = program.compiled;
  const bool current = made.valid && made.states_before == connection.pin_states &&
                       made.directions == connection.pin_directions && made.pin_map == bridge->pin_map &&
                       made.channel_map == bridge->spi_channel_map;
  return current ? Outcome{} : Compiler(bridge, program, connection.pin_states, connection.pin_directions).run();
}

// ---- The queue ----

Flight &flightAt(Flights &programs, size_t index) {
  return programs.flights[(programs.first + index) % programs.flights.size()];
}

bool fits(const FTx232H_Connection &connection, const BusProgram &program, size_t length, uint64_t pause) {
  const Flights &programs = connection.programs;
  if (programs.count == programs.flights.size()) return false;
  if (programs.owed + program.compiled.answer > kHostQueue) return false;
  if (programs.ordered + programs.tail + length <= programs.fifo) return true;
  return programs.count == 0 && millisecondsOf(connection, program.clocks() + pause) <= kQuickMilliseconds;
}

void end(Flight &flight, int32_t code, const char *message) {
  flight.run->code = code;
  flight.run->message = message;
  flight.run->arrived = QTX_timestamp_us();
  flight.run->done = true;
}

// Of the batch, `written` bytes have reached the bridge: what it has in part it must get in full, what it has not got
// at all never happens.
void cutBatch(FTx232H_Connection &connection, size_t written) {
  Flights &programs = connection.programs;
  size_t offset = 0;
  const size_t sent = programs.count - programs.unsent;
  for (size_t i = sent; i < programs.count; ++i) {
    const Flight &flight = flightAt(programs, i);
    if (offset >= written) {
      connection.pin_states = flight.states_before;
      for (size_t k = i; k < programs.count; ++k) flightAt(programs, k).answer = flightAt(programs, k).got = 0;
      break;
    }
    offset += flight.length;
    if (offset > written) {
      programs.rest.assign(programs.batch.begin() + static_cast<std::ptrdiff_t>(written),
                           programs.batch.begin() + static_cast<std::ptrdiff_t>(offset));
    }
  }
}

void logProgram(InterfaceHandle *bridge, const Flight &flight) {
  if (!bridge->log_file) return;
  const uint8_t *in = flight.run->answer;
  for (const Step &step : flight.program->steps()) {
    if (step.kind != Step::kTransfer) continue;
    logWrittenBytes(bridge, flight.program->out(step), step.out_count);
    if (step.in_count == 0) continue;
    logReadBytes(bridge, in, step.in_count);
    in += step.in_count;
  }
}

bool checksOut(const Flight &flight) {
  const size_t checks = flight.answer - flight.program->answerLength();
  for (size_t i = 2 - checks; i < 2; ++i) {
    if ((flight.arrived_check[i] ^ flight.check[i]) & flight.check_mask) return false;
  }
  return true;
}

void land(InterfaceHandle *bridge, Flights &programs) {
  Flight &flight = flightAt(programs, 0);
  programs.ordered -= flight.length;
  programs.tail = flight.tail;
  programs.first = (programs.first + 1) % programs.flights.size();
  --programs.count;
  logProgram(bridge, flight);
  end(flight, kSuccess, "");
}

// Gives arrived bytes to the programs that wait for them. False: they are not what was asked for.
bool deal(InterfaceHandle *bridge, const uint8_t *bytes, uint32_t count) {
  Flights &programs = connectionOf(bridge)->programs;
  while (count > 0) {
    Flight &flight = flightAt(programs, 0);
    const uint32_t length = flight.program->answerLength();
    const uint32_t data = std::min(count, length - std::min(length, flight.got));
    if (data > 0) std::memcpy(flight.run->answer + flight.got, bytes, data);
    const uint32_t checks = std::min(count - data, flight.answer - flight.got - data);
    for (uint32_t i = 0; i < checks; ++i)
      flight.arrived_check[2 - (flight.answer - flight.got - data) + i] = bytes[data + i];
    flight.got += data + checks;
    programs.owed -= data + checks;
    bytes += data + checks;
    count -= data + checks;
    if (flight.got < flight.answer) return true;
    if (!checksOut(flight)) return false;
    land(bridge, programs);
  }
  return true;
}

Outcome failed(FTx232H_Connection &connection, int32_t code, const char *message) {
  endPrograms(connection, code, message);
  return {code, message};
}

Outcome take(InterfaceHandle *bridge) {
  FTx232H_Connection &connection = *connectionOf(bridge);
  Flights &programs = connection.programs;
  if (programs.count == programs.unsent) return {};
  uint32_t there = 0;
  if (connection.d2xx.GetQueueStatus(connection.device_handle, &there)) {
    return failed(connection, kInterfaceStatus, "");
  }
  if (there == 0) return {};
  if (there > programs.owed) return failed(connection, kInterfaceRead, kAnswerMessage);
  uint32_t got = 0;
  const uint32_t count = std::min<uint32_t>(there, sizeof connection.input_buffer);
  if (connection.d2xx.Read(connection.device_handle, connection.input_buffer, count, &got) || got == 0) {
    return failed(connection, kInterfaceRead, kReadMessage);
  }
  if (!deal(bridge, connection.input_buffer, std::min(got, count))) {
    return failed(connection, kInterfaceRead, kAnswerMessage);
  }
  return {};
}

// Writes until everything is with the bridge; how much is.
size_t writeAll(FTx232H_Connection &connection, const std::vector<uint8_t> &bytes) {
  size_t written = 0;
  while (written < bytes.size()) {
    uint32_t accepted = 0;
    const auto left = static_cast<uint32_t>(bytes.size() - written);
    const FT_STATUS status = connection.d2xx.Write(connection.device_handle, bytes.data() + written, left, &accepted);
    written += std::min(accepted, left);
    if (status || accepted == 0) break;
  }
  return written;
}

Outcome send(InterfaceHandle *bridge) {
  FTx232H_Connection &connection = *connectionOf(bridge);
  Flights &programs = connection.programs;
  if (programs.unsent == 0) return {};
  const size_t written = writeAll(connection, programs.batch);
  if (written < programs.batch.size()) {
    cutBatch(connection, written);
    return failed(connection, kInterfaceWrite, kWriteMessage);
  }
  programs.batch.clear();
  programs.unsent = 0;
  return {};
}

// A wait for answers. It lasts as long as they come, and once they stay away as long as the program may take.
class Wait {
 public:
  Wait(const InterfaceHandle *bridge, uint64_t limit) : owner_(bridge->owner), deadline_(owner_), limit_(limit) {}

  // After a look that brought something, or nothing.
  int32_t next(bool progress) {
    if (progress) polls_ = slept_ = 0;
    if (int32_t code = waitCheck(owner_, deadline_)) return code;
    if (slept_ > limit_) return kInterfaceTimeout;
    if (++polls_ < kPollsBeforeNaps) return kSuccess;
    ++slept_;
    QTX_sleep_ms(1);
    return kSuccess;
  }

 private:
  const QTX_Handle *owner_;
  Deadline deadline_;
  uint64_t limit_, polls_ = 0, slept_ = 0;
};

uint64_t patienceFor(FTx232H_Connection &connection) {
  uint64_t clocks = 0;
  for (size_t i = 0; i < connection.programs.count; ++i) {
    clocks = std::max(clocks, flightAt(connection.programs, i).clocks);
  }
  return kPatienceMilliseconds + millisecondsOf(connection, clocks);
}

Outcome finish(InterfaceHandle *bridge, const ProgramRun *last = nullptr) {
  FTx232H_Connection &connection = *connectionOf(bridge);
  if (Outcome sent = send(bridge); sent.code) return sent;
  Wait wait(bridge, patienceFor(connection));
  const auto over = [&] { return connection.programs.count == 0 || (last && last->done); };
  while (!over()) {
    const uint32_t owed = connection.programs.owed;
    if (Outcome taken = take(bridge); taken.code) return taken;
    if (over()) break;
    const int32_t code = wait.next(connection.programs.owed < owed);
    if (code == kInterfaceTimeout) return failed(connection, code, kTimeoutMessage);
    if (code) return {code, ""};
  }
  return {};
}

// Reads bytes away until the stale ones have come, or none comes any more.
int32_t discard(InterfaceHandle *bridge, Wait &wait) {
  FTx232H_Connection &connection = *connectionOf(bridge);
  const bool counting = connection.programs.stale > 0;
  for (;;) {
    uint32_t there = 0, got = 0;
    if (connection.d2xx.GetQueueStatus(connection.device_handle, &there)) return kInterfaceStatus;
    there = std::min<uint32_t>(there, sizeof connection.input_buffer);
    if (there > 0 && connection.d2xx.Read(connection.device_handle, connection.input_buffer, there, &got)) {
      return kInterfaceRead;
    }
    connection.programs.stale -= std::min(connection.programs.stale, got);
    if (counting && connection.programs.stale == 0) return kSuccess;
    if (int32_t code = wait.next(got > 0)) return code;
  }
}

// Waits until the bridge is done with what was dropped, and forgets its answers. Until then none is taken for another.
Outcome resynchronise(InterfaceHandle *bridge) {
  FTx232H_Connection &connection = *connectionOf(bridge);
  Flights &programs = connection.programs;
  if (!programs.rest.empty()) {
    const size_t written = writeAll(connection, programs.rest);
    programs.rest.erase(programs.rest.begin(), programs.rest.begin() + static_cast<std::ptrdiff_t>(written));
    if (!programs.rest.empty()) return {kInterfaceWrite, kWriteMessage};
  }
  // Behind the last byte that is due a surplus one may follow.
  bool due = programs.stale > 0;
  for (;;) {
    Wait wait(bridge,
              due ? kQuickMilliseconds + millisecondsOf(connection, programs.stale_clocks) : kQuietMilliseconds);
    const int32_t code = discard(bridge, wait);
    if (code && code != kInterfaceTimeout) return {code, ""};
    if (!due) break;
    due = false;
  }
  programs.stale = 0;
  programs.stale_clocks = 0;
  programs.out_of_step = false;
  return {};
}

// ---- Operations ----

// Null where the connection is gone, and with it all that was in flight.
FTx232H_Connection *openConnection(const InterfaceHandle *bridge) { return connectionOf(bridge); }

int32_t recorded(const InterfaceHandle *bridge, TracePoint at, Outcome outcome) {
  return outcome.code == kSuccess ? outcome.code
                                  : origin(interfaceErrorRecord(bridge), at, outcome.code, outcome.message);
}

double clockFrequency(const InterfaceHandle *bridge) {
  const FTx232H_Connection *connection = openConnection(bridge);
  return connection ? clockOf(*connection) : 60e6 / 2;
}

bool fitsNow(InterfaceHandle *bridge, BusProgram &program, uint64_t pause) {
  const FTx232H_Connection *connection = openConnection(bridge);
  if (!connection || compile(bridge, program).code) return true;  // ordering it says what is wrong
  return fits(*connection, program, FTx232H_pauseLength(pause) + program.compiled.stream.size(), pause);
}

int32_t order(InterfaceHandle *bridge, BusProgram &program, uint64_t pause, ProgramRun &run) try {
  QTX_StackTrace *record = interfaceErrorRecord(bridge);
  FTx232H_Connection *connection = openConnection(bridge);
  if (!connection) return origin(record, HERE, kInterfaceNotInitialized);
  Flights &programs = connection->programs;
  if (programs.out_of_step || (programs.owner && !programs.owner_active)) {
    if (int32_t code = settlePrograms(bridge)) return passThrough(record, HERE, code);
  }
  if (connection->pending_read_count > 0) return origin(record, HERE, kError, "Queued transfers wait to be executed");
  connection->output_count = 0;
  if (Outcome made = compile(bridge, program); made.code) return recorded(bridge, HERE, made);
  const BusProgram::Compiled &made = program.compiled;
  const size_t length = FTx232H_pauseLength(pause) + made.stream.size();
  if (!fits(*connection, program, length, pause)) return origin(record, HERE, kBufferTooSmall);

  // From here on nothing runs out of memory: neither a half-ordered program nor one that is cut.
  programs.batch.reserve(programs.batch.size() + length);
  programs.rest.reserve(programs.batch.size() + length);
  FTx232H_appendPause(programs.batch, pause);
  programs.batch.insert(programs.batch.end(), made.stream.begin(), made.stream.end());
  run.done = false;
  flightAt(programs, programs.count) = {&program,
                                        &run,
                                        static_cast<uint32_t>(length),
                                        made.tail,
                                        made.answer,
                                        0,
                                        program.clocks() + pause,
                                        made.states_before,
                                        made.states_after,
                                        {made.check[0], made.check[1]},
                                        static_cast<uint8_t>(made.directions & ~kSpiPins),
                                        {}};
  connection->pin_states = made.states_after;
  ++programs.count;
  ++programs.unsent;
  programs.ordered += static_cast<uint32_t>(length);
  programs.owed += made.answer;
  return kSuccess;
} catch (const std::bad_alloc &) {
  return origin(interfaceErrorRecord(bridge), HERE, kOutOfMemory);
}

int32_t sendOrdered(InterfaceHandle *bridge) {
  return openConnection(bridge) ? recorded(bridge, HERE, send(bridge)) : int32_t{kSuccess};
}

int32_t takeArrived(InterfaceHandle *bridge) {
  return openConnection(bridge) ? recorded(bridge, HERE, take(bridge)) : int32_t{kSuccess};
}

int32_t finishUpTo(InterfaceHandle *bridge, const ProgramRun *last) {
  return openConnection(bridge) ? recorded(bridge, HERE, finish(bridge, last)) : int32_t{kSuccess};
}

void forgetAll(InterfaceHandle *bridge) {
  FTx232H_Connection *connection = openConnection(bridge);
  if (!connection) return;
  cutBatch(*connection, 0);
  endPrograms(*connection, kCancelled, "");
}

void setOwner(InterfaceHandle *bridge, ProgramOwner *owner, bool active) {
  if (FTx232H_Connection *connection = openConnection(bridge)) {
    connection->programs.owner = owner;
    connection->programs.owner_active = active;
  }
}

}  // namespace

uint32_t fifoOf(uint32_t device_type) {
  if (device_type == FT_DEVICE_2232H) return 4096;
  return device_type == FT_DEVICE_4232H ? 2048 : kSmallestFifo;
}

size_t FTx232H_pauseLength(uint64_t clocks) {
  const uint64_t runs = (clocks / 8 + kMaximumClockBytes - 1) / kMaximumClockBytes;
  return static_cast<size_t>(runs * 3 + (clocks % 8 > 0 ? 2 : 0));
}

void FTx232H_appendPause(std::vector<uint8_t> &stream, uint64_t clocks) {
  for (uint64_t left = clocks / 8; left > 0;) {
    const uint64_t run = std::min(left, kMaximumClockBytes);
    stream.insert(stream.end(), {kClockBytes, static_cast<uint8_t>(run - 1), static_cast<uint8_t>((run - 1) >> 8)});
    left -= run;
  }
  if (clocks % 8 > 0) stream.insert(stream.end(), {kClockBits, static_cast<uint8_t>(clocks % 8 - 1)});
}

void endPrograms(FTx232H_Connection &connection, int32_t code, const char *message) {
  Flights &programs = connection.programs;
  for (size_t i = 0; i < programs.count; ++i) {
    Flight &flight = flightAt(programs, i);
    programs.stale += flight.answer - flight.got;
    programs.stale_clocks += flight.clocks;
    end(flight, code, message);
  }
  programs.out_of_step = programs.out_of_step || programs.count > 0;
  programs.batch.clear();
  programs.count = programs.unsent = 0;
  programs.ordered = programs.tail = programs.owed = 0;
}

int32_t settlePrograms(InterfaceHandle *bridge) {
  FTx232H_Connection *connection = connectionOf(bridge);
  if (!connection) return kSuccess;
  Flights &programs = connection->programs;
  if (programs.owner && !programs.owner_active) {
    programs.owner_active = true;
    programs.owner->yieldBus();
    programs.owner_active = false;
  }
  if (programs.count > 0) {
    const Outcome ended = finish(bridge);
    if (programs.count > 0) return recorded(bridge, HERE, ended);
  }
  return programs.out_of_step ? recorded(bridge, HERE, resynchronise(bridge)) : int32_t{kSuccess};
}

const ProgramOperations FTx232H_Programs = {FTx232H_SendReceiveSPI,
                                            FTx232H_SetIO,
                                            clockFrequency,
                                            fitsNow,
                                            order,
                                            sendOrdered,
                                            takeArrived,
                                            finishUpTo,
                                            forgetAll,
                                            setOwner};
