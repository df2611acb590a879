#include "program.h"

#include <algorithm>

#include "../support/handle_state.h"
#include "../support/trace.h"

using namespace pulsekit;

static constexpr const char kSource[] = "src/interface/program";

namespace pulsekit {

void BusProgram::clear() {
  steps_.clear();
  out_.clear();
  answer_length_ = 0;
  clocks_ = 0;
  compiled.valid = false;
}

void BusProgram::transfer(uint32_t channel, const uint8_t *out, size_t out_count, uint32_t in_count,
                          uint8_t busy_bits) {
  // The bytes first: a step whose bytes found no memory would send others.
  const auto out_at = static_cast<uint32_t>(out_.size());
  out_.insert(out_.end(), out, out + out_count);
  steps_.push_back({Step::kTransfer, busy_bits, channel, 0, out_at, static_cast<uint32_t>(out_count), in_count, 0});
  answer_length_ += in_count;
  clocks_ += (uint64_t{out_count} + in_count) * 8;
  compiled.valid = false;
}

void BusProgram::transfer(uint32_t channel, std::initializer_list<uint8_t> out, uint32_t in_count, uint8_t busy_bits) {
  transfer(channel, out.begin(), out.size(), in_count, busy_bits);
}

void BusProgram::pin(uint32_t id, uint32_t level) {
  steps_.push_back({Step::kPin, 0, id, level != 0 ? 1u : 0u, 0, 0, 0, 0});
  compiled.valid = false;
}

void BusProgram::togglePin(uint32_t id) {
  steps_.push_back({Step::kTogglePin, 0, id, 0, 0, 0, 0, 0});
  compiled.valid = false;
}

void BusProgram::pause(uint64_t clocks) {
  if (clocks == 0) return;
  steps_.push_back({Step::kPause, 0, 0, 0, 0, 0, 0, clocks});
  clocks_ += clocks;
  compiled.valid = false;
}

namespace {

constexpr double kAssumedClock = 15e6;

const ProgramOperations *operationsOf(const InterfaceHandle *bridge) {
  const ProgramOperations *programs = interfacePrograms(bridge);
  const bool own = programs && bridge->SendReceiveSPI == programs->send_receive && bridge->SetIO == programs->set_io;
  return own ? programs : nullptr;
}

void sleepClocks(const InterfaceHandle *bridge, uint64_t clocks) {
  const double milliseconds = static_cast<double>(clocks) * 1000 / spiClock(bridge);
  if (milliseconds >= 1) pauseWait(bridge->owner, static_cast<uint32_t>(std::min(milliseconds, 1e9)));
}

int32_t repeatTransfer(InterfaceHandle *bridge, const BusProgram &program, const BusProgram::Step &step, uint8_t *in) {
  if (!bridge->SendReceiveSPI) return kInterfaceNotInitialized;
  Deadline deadline(bridge->owner);
  for (;;) {
    if (int32_t code =
            bridge->SendReceiveSPI(bridge, step.target, program.out(step), static_cast<int32_t>(step.out_count), in,
                                   step.in_count, SPI_MODE_EXECUTE)) {
      return code;
    }
    if (step.in_count == 0 || (in[0] & step.busy_bits) == 0) return kSuccess;
    if (int32_t code = waitCheck(bridge->owner, deadline)) return code;
  }
}

int32_t carryOutStep(InterfaceHandle *bridge, const BusProgram &program, const BusProgram::Step &step, uint8_t *in) {
  uint32_t level = step.level;
  switch (step.kind) {
    case BusProgram::Step::kTransfer:
      return repeatTransfer(bridge, program, step, in);
    case BusProgram::Step::kPause:
      sleepClocks(bridge, step.clocks);
      return kSuccess;
    case BusProgram::Step::kTogglePin:
      if (!bridge->GetIO) return kInterfaceNotInitialized;
      if (int32_t code = bridge->GetIO(bridge, step.target, &level)) return code;
      level = level == 0 ? 1 : 0;
      break;
    case BusProgram::Step::kPin:
      break;
  }
  return bridge->SetIO ? bridge->SetIO(bridge, step.target, level) : int32_t{kInterfaceNotInitialized};
}

int32_t carryOut(InterfaceHandle *bridge, const BusProgram &program, uint64_t pause, uint8_t *answer) {
  sleepClocks(bridge, pause);
  for (const BusProgram::Step &step : program.steps()) {
    if (int32_t code = carryOutStep(bridge, program, step, answer)) return code;
    if (step.in_count > 0) answer += step.in_count;
  }
  return kSuccess;
}

}  // namespace

bool hasPrograms(const InterfaceHandle *bridge) { return operationsOf(bridge) != nullptr; }

double spiClock(const InterfaceHandle *bridge) {
  const ProgramOperations *programs = operationsOf(bridge);
  return programs ? programs->clock(bridge) : kAssumedClock;
}

bool programFits(InterfaceHandle *bridge, BusProgram &program, uint64_t pause) {
  const ProgramOperations *programs = operationsOf(bridge);
  return !programs || programs->fits(bridge, program, pause);
}

int32_t queueProgram(InterfaceHandle *bridge, BusProgram &program, uint64_t pause, ProgramRun &run) {
  if (!bridge) return kInterfaceNotInitialized;
  QTX_StackTrace *record = interfaceErrorRecord(bridge);
  if (program.answerLength() > 0 && !run.answer) return origin(record, HERE, kError);
  InterfaceLock lock(bridge);
  if (const ProgramOperations *programs = operationsOf(bridge)) {
    if (int32_t code = programs->queue(bridge, program, pause, run)) return passThrough(record, HERE, code);
    return kSuccess;
  }
  run.code = carryOut(bridge, program, pause, run.answer);
  run.message = "";
  run.arrived = QTX_timestamp_us();
  run.done = true;
  return run.code == 0 ? run.code : passThrough(record, HERE, run.code);
}

// What is in flight is collected by the driver, also where operations of others have taken the place of its own since.

int32_t sendPrograms(InterfaceHandle *bridge) {
  const ProgramOperations *programs = interfacePrograms(bridge);
  if (!programs) return kSuccess;
  InterfaceLock lock(bridge);
  if (int32_t code = programs->send(bridge)) return passThrough(interfaceErrorRecord(bridge), HERE, code);
  return kSuccess;
}

int32_t takeAnswers(InterfaceHandle *bridge) {
  const ProgramOperations *programs = interfacePrograms(bridge);
  if (!programs) return kSuccess;
  InterfaceLock lock(bridge);
  if (int32_t code = programs->take(bridge)) return passThrough(interfaceErrorRecord(bridge), HERE, code);
  return kSuccess;
}

int32_t finishPrograms(InterfaceHandle *bridge, const ProgramRun *last) {
  const ProgramOperations *programs = interfacePrograms(bridge);
  if (!programs) return kSuccess;
  InterfaceLock lock(bridge);
  if (int32_t code = programs->finish(bridge, last)) return passThrough(interfaceErrorRecord(bridge), HERE, code);
  return kSuccess;
}

void dropPrograms(InterfaceHandle *bridge) {
  const ProgramOperations *programs = interfacePrograms(bridge);
  if (!programs) return;
  InterfaceLock lock(bridge);
  programs->drop(bridge);
}

int32_t runProgram(InterfaceHandle *bridge, BusProgram &program, uint8_t *answer) {
  ProgramRun run;
  run.answer = answer;
  InterfaceLock lock(bridge);
  if (int32_t code = queueProgram(bridge, program, 0, run)) return code;
  const int32_t code = finishPrograms(bridge);
  if (!run.done) dropPrograms(bridge);
  return code != 0 ? code : run.code;
}

void setProgramOwner(InterfaceHandle *bridge, ProgramOwner *owner, bool active) {
  if (const ProgramOperations *programs = interfacePrograms(bridge)) programs->set_owner(bridge, owner, active);
}

}  // namespace pulsekit
