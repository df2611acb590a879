// Sweeps as parts of bus programs, for frames that are taken one behind the other without the host's help. A frame is
// one sweep or several, the window a little later in each; a sweep is started, over when the status says so, loaded
// into the chip's output memory, and read from there while the next one may run.
#pragma once

#include <cstdint>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "../interface/program.h"
#include "chip.h"

namespace pulsekit::chip {

// From counters to percent of the threshold DAC's range.
struct FrameScale {
  uint64_t pulses = 0;  // at each step of the threshold
  uint64_t offset = 0;  // what thresholds below the lowest would have counted
  uint64_t step = 0;    // of the threshold, in codes; 0: there is no scale
};

template <typename Real>
void normalizeCounters(const FrameScale &scale, const uint32_t *raw, Real *normalized, size_t count) {
  constexpr uint64_t kDacCodes = 8192;
  const Real full_scale = static_cast<Real>(scale.pulses * kDacCodes) / static_cast<Real>(scale.step);
  for (size_t i = 0; i < count; ++i) {
    normalized[i] = static_cast<Real>(raw[i] + scale.offset) * Real{100} / full_scale;
  }
}

using Command = std::vector<uint8_t>;  // what one chip-select frame sends

// How frames are taken with the settings as they stood when it was made.
struct SweepPlan {
  uint32_t sweeps = 1;  // of a frame
  uint32_t samplers = 0, bytes_per_counter = 0;
  uint64_t largest_counter = 0;  // that a sweep can count; 0: not known
  double expected_seconds = 0;   // that a sweep takes; a chip's real clocks may differ
  bool signals_start = false;
  FrameScale scale;
  std::vector<std::vector<Command>> positions;  // of the window, one for each sweep; empty when there is one only
};

// What the settings make of time. 0: the master clock does not run.
struct SweepTiming {
  double sweep_seconds = 0;
  double pulse_rate = 0;  // Hz
};

// Settings that can't give a good frame, a line each: "<name>: <what is wrong>: <remedy>\n".
class Findings {
 public:
  void add(const char *name, const std::string &what, const std::string &remedy) {
    text_ += std::string(name) + ": " + what + ": " + remedy + '\n';
    ++count_;
  }
  const std::string &text() const { return text_; }
  int32_t count() const { return count_; }

 private:
  std::string text_;
  int32_t count_ = 0;
};

// What a chip driver offers for that.
struct SweepDriver {
  // Works the plan out. Where several sweeps make a frame the window is moved through all of its positions and back, so
  // that every register write has been verified once.
  int32_t (*plan)(ChipHandle *chip, SweepPlan &plan);
  void (*abort)(BusProgram &program);  // ends the sweep that runs, if one does
  void (*position)(const SweepPlan &plan, uint32_t sweep, BusProgram &program);
  // Moves the window to the sweep's position and starts it.
  void (*start)(const SweepPlan &plan, uint32_t sweep, BusProgram &program);
  void (*rest)(BusProgram &program);  // pins as they are while nothing sweeps
  // Answers two bytes, the least significant one first: bit 0 is 1 while a sweep runs, the others never change.
  void (*status)(BusProgram &program);
  void (*load)(BusProgram &program);
  void (*read)(const SweepPlan &plan, BusProgram &program);  // answers samplers * bytes_per_counter bytes
  void (*counters)(const SweepPlan &plan, const uint8_t *image, uint32_t *counters);

  SweepTiming (*timing)(VariableSet *set);
  void (*check)(const ChipHandle *chip, Findings &findings);
  // Measures the delay lines and puts the window where the new results say.
  int32_t (*calibrate)(ChipHandle *chip);
};

constexpr uint32_t kSweepStatusLength = 2;

// Null for a chip without.
const SweepDriver *sweepDriverOf(const ChipHandle *chip);

// Notes the commands that drivers write to the chip on this thread while it exists.
class CommandLog {
 public:
  CommandLog() : outer_(current) { current = this; }
  ~CommandLog() { current = outer_; }
  CommandLog(const CommandLog &) = delete;
  CommandLog &operator=(const CommandLog &) = delete;
  // The commands since the last call. Throws when memory was too short to note them.
  std::vector<Command> take() {
    if (std::exchange(incomplete_, false)) throw std::bad_alloc();
    return std::exchange(commands_, {});
  }

  static void note(const uint8_t *command, size_t length) noexcept try {
    if (current) current->commands_.emplace_back(command, command + length);
  } catch (const std::bad_alloc &) {
    current->incomplete_ = true;
  }

 private:
  static inline thread_local CommandLog *current = nullptr;
  CommandLog *outer_;
  std::vector<Command> commands_;
  bool incomplete_ = false;
};

}  // namespace pulsekit::chip
