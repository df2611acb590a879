#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <atomic>

#include "../platform.h"

namespace pulsekit::platform {

namespace {

// Leaving a critical section that the thread does not hold corrupts it, hence the owner beside it.
struct State {
  CRITICAL_SECTION section;
  std::atomic<DWORD> owner{0};
  int depth = 0;
};

State *state(void *pointer) { return static_cast<State *>(pointer); }

}  // namespace

Lock::Lock() : state_(new State) { InitializeCriticalSection(&state(state_)->section); }

Lock::~Lock() {
  DeleteCriticalSection(&state(state_)->section);
  delete state(state_);
}

void Lock::enter() {
  State &lock = *state(state_);
  EnterCriticalSection(&lock.section);
  lock.owner = GetCurrentThreadId();
  ++lock.depth;
}

void Lock::leave() {
  State &lock = *state(state_);
  if (lock.owner != GetCurrentThreadId()) return;
  if (--lock.depth == 0) lock.owner = 0;
  LeaveCriticalSection(&lock.section);
}

}  // namespace pulsekit::platform
