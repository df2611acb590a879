#include "stream.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "interface/interface.h"
#include "module/module.h"
#include "support/QTX_Handle.h"
#include "support/trace.h"
#include "support/vars.h"
#include "sweep_time.h"

namespace pulsekit {

static constexpr const char kSource[] = "src/stream";

namespace {

constexpr size_t kUnits = 192;           // more than a bridge can be handed ahead
constexpr double kLongestPause = 0.2;    // s in one unit
constexpr double kAhead = 1;             // s that are ordered unless the host asks for more
constexpr uint64_t kPatience = 1000;     // ms that an answer may be overdue
constexpr uint64_t kShortestStall = 20;  // looks in vain
constexpr uint16_t kSweeping = 1;
constexpr double kShortestGap = 100;  // us
constexpr uint32_t kBadSweepsBeforeMeasuring = 2, kBadSweeps = 8;

uint64_t mixed(uint64_t hash, uint64_t value) { return (hash ^ value) * 0x9E3779B97F4A7C15u ^ hash >> 29; }

uint64_t hashOf(const VariableSet *set, uint64_t hash) {
  constexpr uint32_t kNoSetting = VAR_FLAGS_NOT_WRITABLE | VAR_FLAG_FROM_BACKEND;
  for (int32_t i = 0; set && i < set->count; ++i) {
    if ((set->variables[i].flags & kNoSetting) == 0) hash = mixed(hash, set->variables[i].value);
  }
  return hash;
}

uint64_t lacking(uint64_t wanted, uint64_t there) { return wanted > there ? wanted - there : 0; }

}  // namespace

// While one exists, the stream itself uses the bus.
class Stream::Active {
 public:
  explicit Active(Stream &stream) : stream_(stream) { setProgramOwner(stream.bridge(), &stream, true); }
  ~Active() { setProgramOwner(stream_.bridge(), stream_.stopped_ ? nullptr : &stream_, false); }
  Active(const Active &) = delete;
  Active &operator=(const Active &) = delete;

 private:
  Stream &stream_;
};

Stream::Stream(QTX_Handle *handle, const chip::SweepDriver &driver, const QTX_StreamOptions &options)
    : handle_(handle), driver_(driver), options_(options), units_(kUnits) {}

Stream::~Stream() { stop(); }

InterfaceHandle *Stream::bridge() const { return handle_->interface_handle; }

// ---- Start, change of settings, stop ----

int32_t Stream::start() {
  Active active(*this);
  if (int32_t code = prepare()) return code;
  order();
  return kSuccess;
}

int32_t Stream::stop() {
  if (std::exchange(stopped_, true)) return kSuccess;
  Active active(*this);
  if (handle_->chip) handle_->chip->sweep_idle = 1;
  if (checked_ != ordered_) finishPrograms(bridge());
  dropPrograms(bridge());
  return parked_ ? int32_t{kSuccess} : park();
}

uint64_t Stream::settingsHash() const {
  uint64_t hash = hashOf(handle_->chip ? handle_->chip->variables : nullptr, 0);
  hash = hashOf(handle_->module ? handle_->module->variables : nullptr, hash);
  return hashOf(bridge() ? bridge()->variables : nullptr, hash);
}

void Stream::noteSettings() {
  const uint64_t hash = settingsHash();
  if (!epoch_ || hash == settings_hash_) return;
  settings_hash_ = hash;
  ++settings_;
  prepared_ = false;
}

void Stream::endChange() {
  if (--changes_ == 0) noteSettings();
}

void Stream::noteWrittenRegister() {
  ++settings_;
  prepared_ = false;
}

int32_t Stream::park() {
  parked_ = true;
  const QTX_StackTrace kept = handle_->error ? *handle_->error : QTX_StackTrace{};
  int32_t code = runProgram(bridge(), park_, nullptr);
  // The first operation after a failed one may fail because of it; a window left elsewhere would spoil later frames.
  if (code && !endsWait(code)) code = runProgram(bridge(), park_, nullptr);
  if (code) return passThrough(handle_->error, HERE, code);
  if (handle_->error) *handle_->error = kept;
  return kSuccess;
}

void Stream::yieldBus() {
  if (parked_) return;
  if (tidyUp() != kSuccess) return;
  discardFrom(kNone);
  park();
}

int32_t Stream::prepare() {
  auto epoch = std::make_shared<Epoch>();
  // Until the new positions are known, the window is where the settings say.
  park_.clear();
  driver_.abort(park_);
  driver_.rest(park_);
  parked_ = false;
  if (int32_t code = driver_.plan(handle_->chip, epoch->plan)) return passThrough(handle_->error, HERE, code);
  if (epoch->plan.sweeps == 0) return origin(handle_->error, HERE, kNotPossible, "FrameStitch is 0");
  if (options_.kind != QTX_STREAM_RAW && epoch->plan.scale.step == 0) {
    return origin(handle_->error, HERE, kIllegalValue, "DACStepFine is 0");
  }
  SweepTime sweep;
  if (int32_t code = measureSweepTime(bridge(), driver_, epoch->plan, sweep)) {
    return passThrough(handle_->error, HERE, code);
  }
  epoch->clock = spiClock(bridge());
  epoch->sweep_clocks = sweep.clocks;
  epoch->sweep_seconds = static_cast<double>(sweep.clocks) / epoch->clock;
  epoch->idle_status = sweep.idle_status;
  epoch->settings = settings_;
  makePrograms(*epoch);
  park_.clear();
  driver_.abort(park_);
  if (epoch->plan.sweeps > 1) driver_.position(epoch->plan, 0, park_);
  driver_.rest(park_);

  if (epoch_) before_ += static_cast<double>(std::exchange(clocks_, 0)) / epoch_->clock;
  paced_ = false;
  epoch_ = std::move(epoch);
  settings_hash_ = settingsHash();
  prepared_ = true;
  sweeping_ = resting_ = false;
  return kSuccess;
}

void Stream::makePrograms(Epoch &epoch) const {
  const chip::SweepPlan &plan = epoch.plan;
  driver_.abort(epoch.restart);
  driver_.start(plan, 0, epoch.restart);
  driver_.start(plan, 0, epoch.begin);
  BusProgram read;
  driver_.read(plan, read);
  epoch.read_clocks = read.clocks();
  epoch.sweeps.resize(plan.sweeps);
  epoch.spaced = leavesTime(epoch);
  for (uint32_t i = 0; i < plan.sweeps; ++i) {
    const bool last = i + 1 == plan.sweeps;
    driver_.status(epoch.sweeps[i]);
    driver_.load(epoch.sweeps[i]);
    if (!last || !epoch.spaced) driver_.start(plan, last ? 0 : i + 1, epoch.sweeps[i]);
    driver_.read(plan, epoch.sweeps[i]);
  }
}

// Whether the rate lets a frame end before the next one begins.
bool Stream::leavesTime(const Epoch &epoch) const {
  if (options_.rate <= 0) return false;
  BusProgram sweep;
  driver_.status(sweep);
  driver_.load(sweep);
  const uint64_t one = std::max(epoch.sweep_clocks, epoch.read_clocks) + epoch.begin.clocks() + sweep.clocks();
  return epoch.clock / options_.rate > static_cast<double>(one * epoch.plan.sweeps + epoch.read_clocks);
}

// ---- Ordering ----

void Stream::keepGoing() {
  Active active(*this);
  if (prepared_ && discard_from_ == kNone) order();
}

void Stream::order() {
  if (trouble_) return;
  noteDryBridge();
  for (Order next = nextOrder(); mayOrder(next); next = nextOrder()) {
    if (int32_t code = put(next)) return fail(sweeping_ ? number_ : next_number_, code, "");
    if (!hasPrograms(bridge())) check();
  }
  // Where that fails, the runs tell.
  sendPrograms(bridge());
}

Stream::Order Stream::nextOrder() const {
  Epoch &epoch = *epoch_;
  Order next{};
  if (!sweeping_) {
    BusProgram &program = resting_ ? epoch.begin : epoch.restart;
    next = {Kind::kBegin, &program, lacking(dueClock(), clocks_ + program.clocks())};
  } else {
    BusProgram &program = epoch.sweeps[next_sweep_];
    next = {Kind::kSweep, &program, lacking(sweep_began_ + epoch.sweep_clocks, clocks_)};
    if (!epoch.spaced && next_sweep_ + 1 == epoch.plan.sweeps) {
      next.pause = std::max(next.pause, lacking(dueClock(), clocks_ + program.clocks() - epoch.read_clocks));
    }
  }
  const auto longest = static_cast<uint64_t>(kLongestPause * epoch.clock);
  return next.pause > longest ? Order{Kind::kRest, &epoch.rest, longest} : next;
}

bool Stream::mayOrder(const Order &next) {
  if (ordered_ - first_ == units_.size()) return false;
  // Step by step, ordering is doing: one frame at a time.
  if (!hasPrograms(bridge())) return lastUnitOfNextFrame() == kNone;
  if (checked_ != ordered_) {
    const uint64_t number = sweeping_ ? number_ : next_number_;
    if (options_.in_flight > 0 && number - unit(checked_).number >= options_.in_flight) return false;
    const bool far = static_cast<double>(clocks_in_flight_) > kAhead * epoch_->clock;
    if (options_.in_flight == 0 && far && ordered_ - checked_ > 1) return false;
  }
  return programFits(bridge(), *next.program, next.pause);
}

int32_t Stream::put(const Order &next) {
  Unit &one = unit(ordered_);
  if (one.answer.size() < next.program->answerLength()) one.answer.resize(next.program->answerLength());
  one.counters.reserve(epoch_->plan.samplers);
  one.run = {};
  one.run.answer = one.answer.data();
  if (int32_t code = queueProgram(bridge(), *next.program, next.pause, one.run)) return code;
  const Epoch &epoch = *epoch_;
  ++ordered_;
  parked_ = false;
  resting_ = resting_ && next.kind == Kind::kRest;
  one.epoch = epoch_;
  one.kind = next.kind;
  one.sweep = next_sweep_;
  one.clocks = next.pause + next.program->clocks();
  one.number = sweeping_ ? number_ : next_number_;
  one.time = frame_time_;
  one.flags = frame_flags_;
  clocks_ += one.clocks;
  clocks_in_flight_ += one.clocks;
  expected_end_ += static_cast<double>(one.clocks) * 1e6 / epoch.clock;

  if (next.kind == Kind::kBegin) {
    beginFrame(clocks_);
    one.number = number_;
  } else if (next.kind == Kind::kSweep) {
    const bool last = ++next_sweep_ == epoch.plan.sweeps;
    sweep_began_ = clocks_ - epoch.read_clocks;
    if (last && epoch.spaced) {
      sweeping_ = false;
      resting_ = true;
    } else if (last) {
      beginFrame(sweep_began_);
    }
  }
  return kSuccess;
}

// When the rate wants the next frame to begin; 0: at once.
uint64_t Stream::dueClock() const {
  if (!paced_) return 0;
  const double since = static_cast<double>(grid_index_) * epoch_->clock / options_.rate;
  return grid_origin_ + static_cast<uint64_t>(std::llround(since));
}

void Stream::beginFrame(uint64_t started) {
  const double clock = epoch_->clock;
  frame_flags_ = 0;
  const uint64_t due = dueClock();
  if (options_.rate > 0 && (!paced_ || started > due + 1)) {
    if (paced_) frame_flags_ |= QTX_FRAME_LATE;
    if (paced_ && ran_dry_) {
      // What the host has missed is lost; the grid stays.
      const auto missed = static_cast<uint64_t>(static_cast<double>(started - due) * options_.rate / clock);
      next_number_ += missed;
      statistics_.lost += missed;
      grid_index_ += missed;
    } else {
      grid_origin_ = started;
      grid_index_ = 0;
      paced_ = true;
    }
  }
  ++grid_index_;
  ran_dry_ = false;
  number_ = next_number_++;
  if (number_ < retaken_until_) frame_flags_ |= QTX_FRAME_RETAKEN;
  if (!std::exchange(began_, true)) before_ = -static_cast<double>(started) / clock;
  frame_time_ = before_ + static_cast<double>(started) / clock;
  sweep_began_ = started;
  next_sweep_ = 0;
  sweeping_ = true;
}

// While the bridge has nothing to do only the host knows how much time passes.
void Stream::noteDryBridge() {
  if (checked_ != ordered_) return;
  const auto now = static_cast<double>(QTX_timestamp_us());
  if (began_ && now > expected_end_ + kShortestGap) {
    clocks_ += static_cast<uint64_t>((now - expected_end_) * epoch_->clock / 1e6);
    ran_dry_ = true;
  }
  expected_end_ = began_ ? std::max(expected_end_, now) : now;
}

// ---- Collecting ----

void Stream::collect() {
  takeAnswers(bridge());
  check();
  if (!hasPrograms(bridge())) return;
  // What is still in flight ends after now, and no later than it takes.
  const auto now = static_cast<double>(QTX_timestamp_us());
  const double left = epoch_ ? static_cast<double>(clocks_in_flight_) * 1e6 / epoch_->clock : 0;
  expected_end_ = checked_ == ordered_ ? std::min(expected_end_, now) : std::clamp(expected_end_, now, now + left);
}

void Stream::check() {
  for (; checked_ != ordered_ && unit(checked_).run.done; ++checked_) {
    Unit &one = unit(checked_);
    clocks_in_flight_ -= one.clocks;
    if (one.number >= discard_from_) continue;
    if (one.run.code) {
      fail(one.number, one.run.code, one.run.message);
    } else if (one.kind == Kind::kSweep && !isGood(one)) {
      // The sweeps that follow were started on top of it.
      discard_from_ = one.number;
      retaken_until_ = std::max(retaken_until_, next_number_);
      Epoch &epoch = *epoch_;
      epoch.sweep_clocks += epoch.sweep_clocks / 32 + 64;
      if (++bad_sweeps_ % kBadSweepsBeforeMeasuring == 0) prepared_ = false;
      if (bad_sweeps_ >= kBadSweeps) fail(one.number, kWaitedTooLong, "No sweep ends in the time that was measured");
    } else if (one.kind == Kind::kSweep) {
      bad_sweeps_ = 0;
    }
  }
}

// Whether the sweep was over when its counters were loaded, and they are ones that a sweep can count.
bool Stream::isGood(Unit &one) const {
  const chip::SweepPlan &plan = one.epoch->plan;
  const auto status = static_cast<uint16_t>(one.answer[0] | one.answer[1] << 8);
  if (hasPrograms(bridge()) ? status != one.epoch->idle_status : (status & kSweeping) != 0) return false;
  one.counters.resize(plan.samplers);
  driver_.counters(plan, one.answer.data() + chip::kSweepStatusLength, one.counters.data());
  return plan.largest_counter == 0 || std::all_of(one.counters.begin(), one.counters.end(),
                                                  [&](uint32_t counter) { return counter <= plan.largest_counter; });
}

void Stream::fail(uint64_t number, int32_t code, const char *message) {
  if (!trouble_) trouble_text_ = message;
  if (!trouble_) trouble_ = code;
  discard_from_ = std::min(discard_from_, number);
  retaken_until_ = std::max(retaken_until_, next_number_);
}

// Forgets all units of frames from that number on, and of those that are not complete. Nothing is in flight.
void Stream::discardFrom(uint64_t number) {
  uint64_t keep = first_;
  for (uint64_t i = first_; i != ordered_ && unit(i).number < number; ++i) {
    const Unit &one = unit(i);
    if (one.kind == Kind::kSweep && one.sweep + 1 == one.epoch->plan.sweeps) keep = i + 1;
  }
  if (sweeping_) next_number_ = number_;
  if (keep != ordered_) next_number_ = std::min(next_number_, unit(keep).number);
  checked_ = ordered_ = keep;
  discard_from_ = kNone;
  sweeping_ = resting_ = false;
  next_sweep_ = 0;
}

// Lets what is in flight come in, then discards what is to be discarded. Codes: 1537, 1538.
int32_t Stream::tidyUp() {
  if (checked_ != ordered_) {
    const int32_t code = finishPrograms(bridge());
    check();
    if (checked_ != ordered_) return code;
  }
  if (discard_from_ != kNone) discardFrom(discard_from_);
  return kSuccess;
}

int32_t Stream::turn(bool &progress) {
  const uint64_t checked = checked_, ordered = ordered_;
  if (!prepared_) {
    if (int32_t code = tidyUp()) return code;
    discardFrom(kNone);
    if (trouble_ || lastUnitOfNextFrame() != kNone) return kSuccess;
    if (int32_t code = prepare()) return code;
  }
  collect();
  if (discard_from_ != kNone) {
    if (int32_t code = tidyUp()) return code;
  }
  if (prepared_) order();
  progress = checked != checked_ || ordered != ordered_;
  return kSuccess;
}

void Stream::noteProgress() {
  last_look_ = QTX_timestamp_us();
  waited_ = naps_ = 0;
}

// Only time that was spent waiting counts: a host that was away finds its answers on their way.
bool Stream::stalled() {
  const uint64_t now = QTX_timestamp_us();
  waited_ += now - std::exchange(last_look_, now);
  if (checked_ == ordered_) {
    noteProgress();
    return false;
  }
  const double due = static_cast<double>(clocks_in_flight_) * 1000 / epoch_->clock;
  const uint64_t limit = kPatience + static_cast<uint64_t>(due);
  return ++naps_ > limit || (naps_ > kShortestStall && waited_ / 1000 > limit);
}

int32_t Stream::wait(Deadline &deadline) {
  Active active(*this);
  noteSettings();
  last_look_ = QTX_timestamp_us();
  for (;;) {
    bool progress = false;
    const int32_t code = turn(progress);
    if (progress) noteProgress();
    if (lastUnitOfNextFrame() != kNone) return kSuccess;
    if (code) return passThrough(handle_->error, HERE, code);
    if (trouble_) return origin(handle_->error, HERE, std::exchange(trouble_, 0), trouble_text_);
    if (int32_t ended = waitCheck(handle_, deadline)) return origin(handle_->error, HERE, ended);
    if (progress) continue;
    if (stalled()) {
      fail(unit(checked_).number, kInterfaceTimeout, "The bridge does not answer any more");
      dropPrograms(bridge());
    } else {
      QTX_sleep_ms(1);
    }
  }
}

// ---- Handing out ----

uint64_t Stream::lastUnitOfNextFrame() const {
  for (uint64_t i = first_; i != checked_ && unit(i).number < discard_from_; ++i) {
    const Unit &one = unit(i);
    if (one.kind == Kind::kSweep && one.sweep + 1 == one.epoch->plan.sweeps) return i;
  }
  return kNone;
}

uint32_t Stream::nextLength() const {
  const uint64_t last = lastUnitOfNextFrame();
  return last == kNone ? 0 : unit(last).epoch->plan.samplers * unit(last).epoch->plan.sweeps;
}

const StreamFrame &Stream::take() {
  StreamFrame &frame = frame_;
  const uint64_t last = lastUnitOfNextFrame();
  const Unit &end = unit(last);
  const chip::SweepPlan &plan = end.epoch->plan;
  frame.counters.clear();
  frame.counters.reserve(size_t{plan.samplers} * plan.sweeps);
  frame.scale = plan.scale;
  frame.info = {end.number, end.time, end.run.arrived, end.epoch->settings, plan.samplers * plan.sweeps, end.flags, 0};
  for (; first_ <= last; ++first_) {
    const Unit &one = unit(first_);
    if (one.kind == Kind::kSweep) frame.counters.insert(frame.counters.end(), one.counters.begin(), one.counters.end());
  }
  times_[statistics_.frames % times_.size()] = frame.info.time;
  ++statistics_.frames;
  if (frame.info.flags & QTX_FRAME_RETAKEN) ++statistics_.retaken;
  if (frame.info.flags & QTX_FRAME_LATE) ++statistics_.late;
  return frame;
}

QTX_StreamStatistics Stream::statistics() const {
  QTX_StreamStatistics result = statistics_;
  uint32_t sweeps = 0;
  for (uint64_t i = checked_; i != ordered_; ++i) sweeps += unit(i).kind == Kind::kSweep ? 1 : 0;
  const uint32_t each = epoch_ ? epoch_->plan.sweeps : 1;
  result.in_flight = (sweeps + each - 1) / each;
  result.sweep_time = epoch_ ? epoch_->sweep_seconds : 0;
  const uint64_t steps = std::min<uint64_t>(result.frames, times_.size()) - (result.frames > 0 ? 1 : 0);
  if (steps > 0) {
    const double newest = times_[(result.frames - 1) % times_.size()];
    const double oldest = times_[(result.frames - 1 - steps) % times_.size()];
    result.frame_time = (newest - oldest) / static_cast<double>(steps);
  }
  return result;
}

// ---- The stream of a handle ----

Stream *streamOf(const QTX_Handle *handle) {
  const HandleState *state = stateOf(handle);
  return state ? static_cast<Stream *>(state->stream.get()) : nullptr;
}

void endStream(QTX_Handle *handle) {
  HandleState *state = stateOf(handle);
  if (!state || !state->stream) return;
  QTX_StackTrace kept{};
  if (handle->error) kept = *handle->error;
  state->stream.reset();
  if (handle->error) *handle->error = kept;
}

}  // namespace pulsekit
