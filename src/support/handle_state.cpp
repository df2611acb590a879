#include "handle_state.h"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <new>
#include <unordered_map>

#include "QTX_ErrorCodes.h"

namespace pulsekit {

namespace {

constexpr uint64_t kGraceMicroseconds = 200'000;

struct Registry {
  std::mutex mutex;
  std::unordered_map<const QTX_Handle *, std::unique_ptr<HandleState>> states;

  HandleState *find(const QTX_Handle *handle) const {
    const auto found = states.find(handle);
    return found == states.end() ? nullptr : found->second.get();
  }
};

// Never destroyed: hosts free handles while the process ends, too.
Registry &registry() {
  static Registry &instance = *new Registry;
  return instance;
}

uint64_t endOf(int64_t milliseconds) {
  return milliseconds < 0 ? 0 : QTX_timestamp_us() + static_cast<uint64_t>(milliseconds) * 1000;
}

int32_t endWait(HandleState &state, int32_t code) {
  state.ended = code;
  state.grace_until = QTX_timestamp_us() + kGraceMicroseconds;
  return code;
}

}  // namespace

bool createHandleState(const QTX_Handle *handle) try {
  Registry &all = registry();
  const std::lock_guard guard(all.mutex);
  all.states[handle] = std::make_unique<HandleState>();
  return true;
} catch (const std::bad_alloc &) {
  destroyHandleState(handle);
  return false;
}

void destroyHandleState(const QTX_Handle *handle) try {
  std::unique_ptr<HandleState> state;  // goes without the lock: its parts may look for other states
  Registry &all = registry();
  const std::lock_guard guard(all.mutex);
  if (const auto found = all.states.find(handle); found != all.states.end()) {
    state = std::move(found->second);
    all.states.erase(found);
  }
} catch (const std::bad_alloc &) {
  // There is no registry yet, so no state either.
}

HandleState *stateOf(const QTX_Handle *handle) try {
  Registry &all = registry();
  const std::lock_guard guard(all.mutex);
  return all.find(handle);
} catch (const std::bad_alloc &) {
  return nullptr;
}

bool cancelCall(const QTX_Handle *handle) try {
  Registry &all = registry();
  const std::lock_guard guard(all.mutex);
  HandleState *state = all.find(handle);
  if (state && state->depth > 0) {
    state->cancelled = true;
    state->woken.notify_all();
  }
  return state != nullptr;
} catch (const std::bad_alloc &) {
  return false;
}

CallScope::CallScope(const QTX_Handle *handle) : state_(stateOf(handle)) {
  if (!state_) return;
  const std::lock_guard guard(registry().mutex);
  if (state_->depth++ == 0) state_->ended = 0;
}

CallScope::~CallScope() {
  if (!state_) return;
  const std::lock_guard guard(registry().mutex);
  if (--state_->depth == 0) state_->cancelled = false;
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
  if (state && state->cancelled) return endWait(*state, kCancelled);
  if (deadline.end_ == 0 || QTX_timestamp_us() < deadline.end_) return kSuccess;
  return state ? endWait(*state, kWaitedTooLong) : int32_t{kWaitedTooLong};
}

int32_t cancelCheck(const QTX_Handle *handle) {
  Deadline endless(handle, -1);
  return waitCheck(handle, endless);
}

bool endsWait(int32_t code) { return code == kCancelled || code == kWaitedTooLong; }

void pauseWait(const QTX_Handle *handle, uint32_t milliseconds) {
  HandleState *state = stateOf(handle);
  if (!state) {
    QTX_sleep_ms(milliseconds);
    return;
  }
  std::unique_lock guard(registry().mutex);
  state->woken.wait_for(guard, std::chrono::milliseconds(milliseconds),
                        [&] { return state->cancelled && state->ended == 0; });
}

}  // namespace pulsekit
