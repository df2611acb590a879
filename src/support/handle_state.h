// What the library keeps with a handle beyond the record that hosts see: whether the call in progress is to end, how
// long it may wait, and what belongs to an open radar. Handles of QTX_InitHandle have a state; a record that a host has
// made itself has none, and its calls can be neither cancelled nor limited.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "Pulsekit3.h"

namespace pulsekit {

// Something that goes with the handle; its kind is its owner's secret.
class HandlePart {
 public:
  virtual ~HandlePart() = default;
};

// What goes with the handle.
struct HandleParts {
  std::unique_ptr<HandlePart> stream;  // freed when the radar is closed
  std::unique_ptr<HandlePart> radars;  // that the last wait for a change of the list saw
  std::unique_ptr<HandlePart> advice;  // what the last failure was about
  int32_t wait_limit_ms = 0;           // of waits that have no limit of their own; 0: none
};

// Used by the handle's thread, except for `call`.
struct HandleState : HandleParts {
  enum Call : int { kNone, kRunning, kToEnd };
  std::atomic<int> call = kNone;

  // ---- The call in progress ----
  int32_t depth = 0;
  int32_t ended = 0;         // the code that ended a wait of this call
  uint64_t grace_until = 0;  // us: what puts things in order behind that may wait until then
};

// False when memory is short.
bool createHandleState(const QTX_Handle *handle);
// False where there is none.
bool destroyHandleState(const QTX_Handle *handle);

// Null where there is none; valid until the handle is freed.
HandleState *stateOf(const QTX_Handle *handle);

// From any thread and signal handler: ends the wait of the call in progress; without one nothing happens. False where
// there is no state.
bool cancelCall(const QTX_Handle *handle);

// Stands in every exported function that may wait. They may call each other: the outermost one is the call that a
// cancel ends, and no cancel outlives it.
class CallScope {
 public:
  explicit CallScope(const QTX_Handle *handle);
  ~CallScope();
  CallScope(const CallScope &) = delete;
  CallScope &operator=(const CallScope &) = delete;
  // The code of a call whose last step gave `code`: where a wait was ended and nobody passed it on, that code.
  int32_t result(int32_t code) const { return code == 0 && state_ ? state_->ended : code; }

 private:
  HandleState *state_;
};

// Stands where settings are loaded from a file or from flash.
class Restoring {
 public:
  explicit Restoring(const QTX_Handle *handle) : outer_(current) { current = handle; }
  ~Restoring() { current = outer_; }
  Restoring(const Restoring &) = delete;
  Restoring &operator=(const Restoring &) = delete;
  static bool runs(const QTX_Handle *handle) { return handle && handle == current; }

 private:
  static inline thread_local const QTX_Handle *current = nullptr;
  const QTX_Handle *outer_;
};

// How long a wait that starts now may last.
class Deadline {
 public:
  explicit Deadline(const QTX_Handle *handle);               // the handle's wait limit
  Deadline(const QTX_Handle *handle, int64_t milliseconds);  // -1: no limit
  // A pause that does not outlast it.
  uint32_t cut(uint32_t milliseconds) const;

 private:
  friend int32_t waitCheck(const QTX_Handle *handle, Deadline &deadline);
  HandleState *state_;
  uint64_t end_;  // us; 0: none
};

// To be asked at every turn of a wait: 0, 1537 once the call is cancelled, 1538 behind the deadline. A call whose wait
// was ended has a moment left for waits that put things in order, then these end with the same code.
int32_t waitCheck(const QTX_Handle *handle, Deadline &deadline);

// 1537 once the call is cancelled: for loops whose turns may wait, but need not.
int32_t cancelCheck(const QTX_Handle *handle);

// Whether a call ends with this code because a wait was ended: the radar is there and can be put in order.
bool endsWait(int32_t code);

// Sleeps; ends within some milliseconds when the call is cancelled.
void pauseWait(const QTX_Handle *handle, uint32_t milliseconds);

}  // namespace pulsekit
