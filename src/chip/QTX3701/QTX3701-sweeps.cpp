// Sweeps as parts of bus programs. Every part says in one chip-select frame what frame capture says in one transfer.
#include <algorithm>
#include <iterator>
#include <new>

#include "../driver.h"
#include "../sweeps.h"
#include "QTX3701-frames.h"
#include "QTX3701.h"

using namespace pulsekit;
using namespace pulsekit::chip;

static constexpr const char kSource[] = "src/chip/" CHIP_NAME "/" CHIP_NAME "-sweeps";

namespace {

enum Action : uint8_t { kLoadOutputBuffer = 15, kResetCounters = 17, kStartSweep = 93, kResetSweepController = 99 };

void strobe(BusProgram &program, Action action) {
  program.transfer(kChipChannel, {static_cast<uint8_t>(action | kWrite), 0});
}

// A register is known by its first byte; what follows from writing it (a strobe) belongs to it.
struct WrittenRegister {
  uint8_t key;
  std::vector<Command> commands;
};

bool writesRegister(const Command &command) { return command.size() > 2; }

WrittenRegister &registerOf(std::vector<WrittenRegister> &registers, uint8_t key) {
  for (WrittenRegister &one : registers) {
    if (one.key == key) return one;
  }
  return registers.emplace_back(WrittenRegister{key, {}});
}

void remember(std::vector<WrittenRegister> &registers, const std::vector<Command> &commands) {
  WrittenRegister *current = nullptr;
  for (const Command &command : commands) {
    if (!current || writesRegister(command)) {
      current = &registerOf(registers, command[0]);
      current->commands.clear();
    }
    current->commands.push_back(command);
  }
}

std::vector<Command> allCommands(const std::vector<WrittenRegister> &registers) {
  std::vector<Command> all;
  for (const WrittenRegister &one : registers) all.insert(all.end(), one.commands.begin(), one.commands.end());
  return all;
}

// Moves the window through all positions and back to the first. Each position then writes every register that any of
// the moves has written: those that a move left alone keep their value, once round.
int32_t visitPositions(const SamplingWindow &window, uint32_t sweeps, std::vector<std::vector<Command>> &positions) {
  std::vector<std::vector<Command>> moves(sweeps);
  if (int32_t code = window.moveTo(0)) return code;
  CommandLog log;
  for (uint32_t i = 1; i <= sweeps; ++i) {
    if (int32_t code = i < sweeps ? window.moveTo(i) : window.moveToStart()) return code;
    moves[i % sweeps] = log.take();
  }
  std::vector<WrittenRegister> registers;
  for (uint32_t i = 1; i <= 2 * sweeps; ++i) {
    remember(registers, moves[i % sweeps]);
    if (i > sweeps) positions[i % sweeps] = allCommands(registers);
  }
  return kSuccess;
}

// The window's settings as they are. A move that fails on the bus may have left some of them, and the registers behind
// them, half-way.
class WindowSettings {
 public:
  explicit WindowSettings(VariableSet *set) : set_(set) {
    for (size_t i = 0; i < std::size(kNames); ++i) {
      variables_[i] = varNamed(set, kNames[i]);
      saved_[i] = *variables_[i];
    }
  }

  void restore() const {
    for (size_t i = 0; i < std::size(kNames); ++i) *variables_[i] = saved_[i];
    // The first operation after a failed one may fail because of it.
    for (int attempt = 0; attempt < 3 && writeRegisters() != kSuccess; ++attempt) {
    }
  }

 private:
  static constexpr const char *kNames[] = {"SampleDelay", "SDCT", "SDMT", "SDFT", "StaggeredPRFDelay"};

  int32_t writeRegisters() const {
    for (Variable *variable : variables_) {
      if (int32_t code = varUpdateBackend(set_, variable)) return code;
    }
    return kSuccess;
  }

  VariableSet *set_;
  Variable *variables_[std::size(kNames)];
  Variable saved_[std::size(kNames)];
};

double number(VariableSet *set, const char *name) { return static_cast<double>(setting(set, name)); }

// Known where a counter's bytes hold all of the bits that are read out, an eighth more than the settings say.
uint64_t largestCounter(VariableSet *set) {
  const int64_t bits = integerSetting(set, "CounterMSb") - integerSetting(set, "CounterLSb") + 1;
  if (bits <= 0 || (bits + 7) / 8 != integerSetting(set, "BytesPerCounter")) return 0;
  const double most = number(set, "Iterations") * number(set, "PulsesPerStep") * CHIP(thresholds)(set) * 1.125;
  return most < 4294967295.0 ? static_cast<uint64_t>(most) : 0;
}

int32_t plan(ChipHandle *chip, SweepPlan &plan) {
  QTX_StackTrace *record = chip->error_state;
  VariableSet *set = chip->variables;
  const SweepExtent extent = CHIP(sweepExtent)(set);
  if (size_t{extent.samplers} * extent.bytes_per_counter > kSamplerMemorySize) {
    return origin(record, HERE, kBufferTooSmall);
  }
  plan.samplers = extent.samplers;
  plan.bytes_per_counter = extent.bytes_per_counter;
  plan.sweeps = static_cast<uint32_t>(setting(set, "FrameStitch"));
  plan.signals_start = setting(set, "SignalStartOfSweep") == 1;
  plan.scale = CHIP(frameScale)(set);
  plan.expected_seconds = CHIP(sweepTiming)(set).sweep_seconds;
  plan.largest_counter = largestCounter(set);
  plan.positions.assign(plan.sweeps, {});
  if (plan.sweeps < 2) return kSuccess;

  const SamplingWindow window(set);
  const WindowSettings before(set);
  int32_t code = kSuccess;
  try {
    code = visitPositions(window, plan.sweeps, plan.positions);
  } catch (const std::bad_alloc &) {
    code = origin(record, HERE, kOutOfMemory);
  }
  if (code == kSuccess) code = window.putBack();
  if (code == kSuccess) return kSuccess;
  passThrough(record, HERE, code);
  const QTX_StackTrace kept = record ? *record : QTX_StackTrace{};
  before.restore();
  if (record) *record = kept;
  return code;
}

void abortSweep(BusProgram &program) { strobe(program, kResetSweepController); }

void position(const SweepPlan &plan, uint32_t sweep, BusProgram &program) {
  for (const Command &command : plan.positions[sweep]) program.transfer(kChipChannel, command.data(), command.size());
}

void start(const SweepPlan &plan, uint32_t sweep, BusProgram &program) {
  position(plan, sweep, program);
  strobe(program, kResetCounters);
  if (plan.signals_start) program.togglePin(kSweepStartPin);
  program.pin(kSweepPin, 0);
  strobe(program, kStartSweep);
}

void rest(BusProgram &program) { program.pin(kSweepPin, 1); }

void status(BusProgram &program) {
  program.transfer(kChipChannel, {kSweepStatusRegister, kSweepStatusLength}, kSweepStatusLength, kSweeping);
}

void load(BusProgram &program) {
  strobe(program, kLoadOutputBuffer);
  rest(program);
}

void readMemory(const SweepPlan &plan, BusProgram &program) {
  program.transfer(kChipChannel, {kSamplerMemory, kMemoryAccess}, plan.samplers * plan.bytes_per_counter);
}

void counters(const SweepPlan &plan, const uint8_t *image, uint32_t *counters) {
  decodeCounters({plan.samplers, plan.bytes_per_counter}, image, counters);
}

}  // namespace

const SweepDriver &CHIP(Sweeps)() {
  static constexpr SweepDriver driver = {plan,
                                         abortSweep,
                                         position,
                                         start,
                                         rest,
                                         status,
                                         load,
                                         readMemory,
                                         counters,
                                         CHIP(sweepTiming),
                                         CHIP(checkSettings),
                                         CHIP(calibrate)};
  return driver;
}
