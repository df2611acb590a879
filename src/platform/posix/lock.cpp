#include <pthread.h>

#include "../platform.h"

namespace pulsekit::platform {

namespace {

pthread_mutex_t *mutex(void *state) { return static_cast<pthread_mutex_t *>(state); }

}  // namespace

// A recursive mutex knows its owner: unlocking it from elsewhere is refused, not undefined.
Lock::Lock() : state_(new pthread_mutex_t) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(mutex(state_), &attributes);
  pthread_mutexattr_destroy(&attributes);
}

Lock::~Lock() {
  pthread_mutex_destroy(mutex(state_));
  delete mutex(state_);
}

void Lock::enter() { pthread_mutex_lock(mutex(state_)); }

void Lock::leave() { pthread_mutex_unlock(mutex(state_)); }

}  // namespace pulsekit::platform
