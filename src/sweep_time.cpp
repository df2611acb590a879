#include "sweep_time.h"

#include <algorithm>
#include <array>
#include <new>
#include <utility>
#include <vector>

#include "support/handle_state.h"
#include "support/trace.h"

namespace pulsekit {

static constexpr const char kSource[] = "src/sweep_time";

namespace {

constexpr uint64_t kStatusClocks = 32;      // two bytes out, two in
constexpr size_t kLooks = 40;               // in one program, which fits the smallest FIFO
constexpr size_t kLooksOfTwo = 16;          // in each of two programs, which fit it together
constexpr double kLongestProgram = 0.2;     // s
constexpr uint64_t kFine = 512, kZoom = 8;  // parts of a long sweep, and of the time to its expected end
constexpr int kRounds = 8;
constexpr uint16_t kSweeping = 1;

using Times = std::vector<uint64_t>;  // clocks since the sweep was started

class Stopwatch {
 public:
  Stopwatch(InterfaceHandle *bridge, const chip::SweepDriver &driver, const chip::SweepPlan &plan, SweepTime &time)
      : bridge_(bridge),
        record_(interfaceErrorRecord(bridge)),
        driver_(driver),
        plan_(plan),
        time_(time),
        expected_(static_cast<uint64_t>(plan.expected_seconds * spiClock(bridge))),
        longest_(static_cast<uint64_t>(kLongestProgram * spiClock(bridge))),
        deadline_(bridge->owner) {}
  ~Stopwatch() {
    if (looks_[0].run.done && looks_[1].run.done) return;
    const QTX_StackTrace kept = record_ ? *record_ : QTX_StackTrace{};
    endSweep();
    dropPrograms(bridge_);
    if (record_) *record_ = kept;
  }
  Stopwatch(const Stopwatch &) = delete;
  Stopwatch &operator=(const Stopwatch &) = delete;

  int32_t run() {
    // Around what the settings make of it; where that is far off, from the start.
    if (expected_ < longest_ / 2) {
      if (int32_t code = look(spread(expected_ / 2, expected_))) return code;
    }
    if (first_idle_ == 0 && over_ > 0) {
      running_ = 0;
      if (int32_t code = look(spread(0, over_))) return code;
    }
    if (first_idle_ == kNone) {
      if (int32_t code = watch()) return code;
    }
    if (over_ > longest_) {
      time_.clocks = over_ + over_ / kFine;
      return kSuccess;
    }
    for (int round = 0; over_ - running_ > std::max(2 * kStatusClocks, over_ / 1024); ++round) {
      if (round == kRounds) return origin(record_, HERE, kChipError, "The sweeps are not equally long");
      if (int32_t code = waitCheck(bridge_->owner, deadline_)) return origin(record_, HERE, code);
      if (int32_t code = look(spread(running_, over_ - running_))) return code;
      if (first_idle_ == kNone) over_ += over_ / 4 + kStatusClocks;
    }
    time_.clocks = over_ + std::max(kStatusClocks, over_ / 1024);
    return kSuccess;
  }

 private:
  static constexpr size_t kNone = SIZE_MAX;

  struct Look {
    Times times;
    BusProgram program;
    std::vector<uint8_t> answer;
    ProgramRun run;
  };

  // As many as a program takes, from `first` on over a span of that length.
  static Times spread(uint64_t first, uint64_t length) {
    Times times;
    const uint64_t step = std::max(length / kLooks, kStatusClocks);
    for (uint64_t time = first; times.size() <= kLooks && time <= first + length; time += step) times.push_back(time);
    return times;
  }

  // The next ones of a long sweep, close to each other around its expected end.
  Times laterTimes() const {
    Times times;
    const uint64_t widest = longest_ / kLooksOfTwo, closest = std::min(std::max(expected_, longest_) / kFine, widest);
    for (uint64_t time = elapsed_; times.size() < kLooksOfTwo;) {
      const uint64_t away = time > expected_ ? time - expected_ : expected_ - time;
      time += std::clamp(away / kZoom, closest, widest);
      times.push_back(time);
    }
    return times;
  }

  // A sweep that is started anew.
  int32_t look(Times times) {
    if (int32_t code = order(looks_[0], std::move(times), true)) return code;
    return finish(looks_[0]);
  }

  // A sweep from its start to its end. Each program is ordered before the one ahead of it ends: while the bridge has
  // nothing to do, the sweep goes on and no clock is counted.
  int32_t watch() {
    running_ = over_ = 0;
    const double limit = (4 * plan_.expected_seconds + 1) * spiClock(bridge_);
    if (int32_t code = order(looks_[0], Times{0}, true)) return code;
    for (size_t i = 0; first_idle_ == kNone; ++i) {
      if (static_cast<double>(elapsed_) > limit) return origin(record_, HERE, kWaitedTooLong, "The sweep does not end");
      if (int32_t code = waitCheck(bridge_->owner, deadline_)) return origin(record_, HERE, code);
      if (int32_t code = order(looks_[(i + 1) % 2], laterTimes(), false)) return code;
      if (int32_t code = finish(looks_[i % 2])) return code;
    }
    return finishPrograms(bridge_);
  }

  // Behind what is in flight, so that no sweep of hours goes on when nobody waits for it any more.
  void endSweep() noexcept try {
    driver_.abort(end_);
    if (queueProgram(bridge_, end_, 0, ended_) == kSuccess) sendPrograms(bridge_);
  } catch (const std::bad_alloc &) {
    return;
  }

  // Reads the status at these times, of a sweep that is started anew or goes on.
  int32_t order(Look &look, Times times, bool anew) {
    look.times = std::move(times);
    look.program.clear();
    if (anew) {
      driver_.abort(look.program);
      driver_.start(plan_, 0, look.program);
      elapsed_ = 0;
    }
    for (const uint64_t time : look.times) {
      look.program.pause(time - elapsed_);
      driver_.status(look.program);
      elapsed_ = time + kStatusClocks;
    }
    look.answer.resize(look.program.answerLength());
    look.run = {};
    look.run.answer = look.answer.data();
    if (int32_t code = queueProgram(bridge_, look.program, 0, look.run)) return passThrough(record_, HERE, code);
    return kSuccess;
  }

  int32_t finish(const Look &look) {
    const int32_t code = finishPrograms(bridge_, &look.run);
    if (code || look.run.code) return passThrough(record_, HERE, code ? code : look.run.code);
    return judge(look);
  }

  int32_t judge(const Look &look) {
    first_idle_ = kNone;
    for (size_t i = 0; i < look.times.size(); ++i) {
      const auto status = static_cast<uint16_t>(look.answer[2 * i] | look.answer[2 * i + 1] << 8);
      const bool sweeping = (status & kSweeping) != 0;
      const uint16_t others = status & static_cast<uint16_t>(~kSweeping);
      if (!others_known_) time_.idle_status = others;
      others_known_ = true;
      if (others != time_.idle_status || status == 0xFFFF || (sweeping && first_idle_ != kNone)) {
        return origin(record_, HERE, kChipError, "The chip's sweep status makes no sense");
      }
      if (sweeping) {
        running_ = look.times[i];
      } else if (first_idle_ == kNone) {
        first_idle_ = i;
        over_ = look.times[i];
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
  const uint64_t expected_, longest_;  // clocks
  Deadline deadline_;
  std::array<Look, 2> looks_;
  BusProgram end_;
  ProgramRun ended_;
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
