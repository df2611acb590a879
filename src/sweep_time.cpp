#include "sweep_time.h"

#include <algorithm>
#include <vector>

#include "support/handle_state.h"
#include "support/trace.h"

namespace pulsekit {

static constexpr const char kSource[] = "src/sweep_time";

namespace {

constexpr uint64_t kStatusClocks = 32;   // two bytes out, two in
constexpr size_t kLooks = 40;            // in one program, which fits the smallest FIFO
constexpr double kLongestProgram = 0.2;  // s
constexpr int kRounds = 8;
constexpr uint16_t kSweeping = 1;

class Stopwatch {
 public:
  Stopwatch(InterfaceHandle *bridge, const chip::SweepDriver &driver, const chip::SweepPlan &plan, SweepTime &time)
      : bridge_(bridge),
        record_(interfaceErrorRecord(bridge)),
        driver_(driver),
        plan_(plan),
        time_(time),
        longest_(static_cast<uint64_t>(kLongestProgram * spiClock(bridge))),
        deadline_(bridge->owner) {}

  int32_t run() {
    // Around what the settings make of it; where that is far off, from the start.
    const auto expected = static_cast<uint64_t>(plan_.expected_seconds * spiClock(bridge_));
    if (int32_t code = look(expected < longest_ / 2 ? spread(expected / 2, expected) : Times{0}, true)) return code;
    if (first_idle_ == 0 && over_ > 0) {
      running_ = 0;
      if (int32_t code = look(spread(0, over_), true)) return code;
    }
    while (first_idle_ == kNone) {
      const double limit = 4 * plan_.expected_seconds + 1;
      if (static_cast<double>(elapsed_) > limit * spiClock(bridge_)) {
        return origin(record_, HERE, kWaitedTooLong, "The sweep does not end");
      }
      if (int32_t code = waitCheck(bridge_->owner, deadline_)) return origin(record_, HERE, code);
      if (int32_t code = look(laterTimes(), false)) return code;
    }
    if (over_ > longest_) {
      // Between the programs that it took, the host's own time passed.
      time_.clocks = over_ + over_ / 100;
      return kSuccess;
    }
    for (int round = 0; over_ - running_ > std::max(2 * kStatusClocks, over_ / 1024); ++round) {
      if (round == kRounds) return origin(record_, HERE, kChipError, "The sweeps are not equally long");
      if (int32_t code = waitCheck(bridge_->owner, deadline_)) return origin(record_, HERE, code);
      if (int32_t code = look(spread(running_, over_ - running_), true)) return code;
      if (first_idle_ == kNone) over_ += over_ / 4 + kStatusClocks;
    }
    time_.clocks = over_ + std::max(kStatusClocks, over_ / 1024);
    return kSuccess;
  }

 private:
  static constexpr size_t kNone = SIZE_MAX;
  using Times = std::vector<uint64_t>;  // clocks since the sweep was started

  // As many as a program takes, from `first` on over a span of that length.
  static Times spread(uint64_t first, uint64_t length) {
    Times times;
    const uint64_t step = std::max(length / kLooks, kStatusClocks);
    for (uint64_t time = first; times.size() <= kLooks && time <= first + length; time += step) times.push_back(time);
    return times;
  }

  Times laterTimes() const {
    Times times;
    const uint64_t step = std::clamp(elapsed_ / 64, kStatusClocks, longest_);
    for (uint64_t time = elapsed_ + step; times.size() < kLooks && time <= elapsed_ + longest_; time += step) {
      times.push_back(time);
    }
    return times;
  }

  // Reads the status at these times, of a sweep that is started anew or goes on.
  int32_t look(const Times &times, bool anew) {
    program_.clear();
    if (anew) {
      driver_.abort(program_);
      driver_.start(plan_, 0, program_);
      elapsed_ = 0;
    }
    for (const uint64_t time : times) {
      program_.pause(time - elapsed_);
      driver_.status(program_);
      elapsed_ = time + kStatusClocks;
    }
    answer_.resize(program_.answerLength());
    if (int32_t code = runProgram(bridge_, program_, answer_.data())) return passThrough(record_, HERE, code);
    return judge(times);
  }

  int32_t judge(const Times &times) {
    first_idle_ = kNone;
    for (size_t i = 0; i < times.size(); ++i) {
      const auto status = static_cast<uint16_t>(answer_[2 * i] | answer_[2 * i + 1] << 8);
      const bool sweeping = (status & kSweeping) != 0;
      const uint16_t others = status & static_cast<uint16_t>(~kSweeping);
      if (!others_known_) time_.idle_status = others;
      others_known_ = true;
      if (others != time_.idle_status || status == 0xFFFF || (sweeping && first_idle_ != kNone)) {
        return origin(record_, HERE, kChipError, "The chip's sweep status makes no sense");
      }
      if (sweeping) {
        running_ = times[i];
      } else if (first_idle_ == kNone) {
        first_idle_ = i;
        over_ = times[i];
      }
    }
    if (over_ < running_) over_ = running_ + kStatusClocks;
    return kSuccess;
  }

  InterfaceHandle *bridge_;
  QTX_StackTrace *record_;
  const chip::SweepDriver &driver_;
  const chip::SweepPlan &plan_;
  SweepTime &time_;
  const uint64_t longest_;
  Deadline deadline_;
  BusProgram program_;
  std::vector<uint8_t> answer_;
  uint64_t elapsed_ = 0;
  uint64_t running_ = 0, over_ = 0;  // the last time at which it ran, the first at which it was over
  size_t first_idle_ = kNone;
  bool others_known_ = false;
};

}  // namespace

int32_t measureSweepTime(InterfaceHandle *bridge, const chip::SweepDriver &driver, const chip::SweepPlan &plan,
                         SweepTime &time) {
  time = {};
  // Step by step, every status read waits until the sweep is over.
  if (!hasPrograms(bridge)) return kSuccess;
  return Stopwatch(bridge, driver, plan, time).run();
}

}  // namespace pulsekit
