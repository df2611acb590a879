#include "events.h"

#include "../../../../platform/platform.h"

namespace pulsekit::d2xx::usb {

namespace {

// Another thread that talks to a bridge may take the call to end for its own.
constexpr timeval kLongestWait{0, 250'000};
constexpr uint32_t kPauseAfterErrorMs = 10;

}  // namespace

SignalsBlocked::SignalsBlocked() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before_);
}

SignalsBlocked::~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

void Events::start() {
  const std::lock_guard guard(mutex_);
  if (starts_ == 0) {
    const SignalsBlocked blocked;
    ends_ = false;
    thread_ = std::thread([this] { run(); });
  }
  ++starts_;
}

void Events::stop() {
  const std::lock_guard guard(mutex_);
  if (--starts_ > 0) return;
  ends_ = true;
  libusb_interrupt_event_handler(context_);
  thread_.join();
}

void Events::run() noexcept {
  while (!ends_) {
    timeval wait = kLongestWait;
    const int error = libusb_handle_events_timeout_completed(context_, &wait, nullptr);
    if (error && error != LIBUSB_ERROR_INTERRUPTED) platform::sleepMilliseconds(kPauseAfterErrorMs);
  }
}

}  // namespace pulsekit::d2xx::usb
