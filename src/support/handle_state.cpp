#include "handle_state.h"

#include <algorithm>
#include <utility>

#include "QTX_ErrorCodes.h"
#include "registry.h"

namespace pulsekit {

namespace {

constexpr uint64_t kGraceMicroseconds = 200'000;
constexpr uint32_t kLongestSleepMs = 5;

constinit Registry<HandleState> registry;

uint64_t endOf(int64_t milliseconds) {
  return milliseconds < 0 ? 0 : QTX_timestamp_us() + static_cast<uint64_t>(milliseconds) * 1000;
}

// Outside of calls of the public interface nothing is remembered: every wait ends by itself.
int32_t endWait(HandleState &state, int32_t code) {
  if (state.depth == 0) return code;
  state.ended = code;
  state.grace_until = QTX_timestamp_us() + kGraceMicroseconds;
  return code;
}

}  // namespace

bool createHandleState(const QTX_Handle *handle) { return registry.add(handle) != nullptr; }

bool destroyHandleState(const QTX_Handle *handle) {
  HandleState *state = registry.find(handle);
  if (!state) return false;
  // They go once the handle has no state any more.
  const HandleParts parts = std::exchange(static_cast<HandleParts &>(*state), {});
  registry.remove(handle);
  return true;
}

HandleState *stateOf(const QTX_Handle *handle) { return registry.find(handle); }

bool cancelCall(const QTX_Handle *handle) {
  HandleState *state = registry.find(handle);
  int running = HandleState::kRunning;
  if (state) state->call.compare_exchange_strong(running, HandleState::kToEnd);
  return state != nullptr;
}

CallScope::CallScope(const QTX_Handle *handle) : state_(stateOf(handle)) {
  if (state_ && state_->depth++ == 0) state_->call = HandleState::kRunning;
}

CallScope::~CallScope() {
  if (!state_ || --state_->depth > 0) return;
  state_->call = HandleState::kNone;
  state_->ended = 0;
}

Deadline::Deadline(const QTX_Handle *handle)
    : state_(stateOf(handle)),
      end_(endOf(state_ && state_->wait_limit_ms > 0 ? int64_t{state_->wait_limit_ms} : int64_t{-1})) {}

Deadline::Deadline(const QTX_Handle *handle, int64_t milliseconds)
    : state_(stateOf(handle)), end_(endOf(milliseconds)) {}

uint32_t Deadline::cut(uint32_t milliseconds) const {
  if (end_ == 0) return milliseconds;
  const uint64_t now = QTX_timestamp_us();
  const uint64_t left = end_ > now ? (end_ - now + 999) / 1000 : 0;
  return static_cast<uint32_t>(std::min<uint64_t>(left, milliseconds));
}

int32_t waitCheck(const QTX_Handle *, Deadline &deadline) {
  HandleState *state = deadline.state_;
  if (state && state->ended != 0) return QTX_timestamp_us() < state->grace_until ? 0 : state->ended;
  if (state && state->call == HandleState::kToEnd) return endWait(*state, kCancelled);
  if (deadline.end_ == 0 || QTX_timestamp_us() < deadline.end_) return kSuccess;
  return state ? endWait(*state, kWaitedTooLong) : int32_t{kWaitedTooLong};
}

int32_t cancelCheck(const QTX_Handle *handle) {
  Deadline endless(handle, -1);
  return waitCheck(handle, endless);
}

bool endsWait(int32_t code) { return code == kCancelled || code == kWaitedTooLong; }

void pauseWait(const QTX_Handle *handle, uint32_t milliseconds) {
  const HandleState *state = stateOf(handle);
  while (milliseconds > 0 && !(state && state->call == HandleState::kToEnd && state->ended == 0)) {
    const uint32_t nap = std::min(milliseconds, kLongestSleepMs);
    QTX_sleep_ms(nap);
    milliseconds -= nap;
  }
}

}  // namespace pulsekit
