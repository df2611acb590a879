// The thread that brings libusb's transfers to their end.
#pragma once

#include <libusb.h>

#include <atomic>
#include <csignal>
#include <mutex>
#include <thread>

namespace pulsekit::d2xx::usb {

// The host's signals are for the host's threads: those that begin in the scope get none.
class SignalsBlocked {
 public:
  SignalsBlocked();
  ~SignalsBlocked();
  SignalsBlocked(const SignalsBlocked &) = delete;
  SignalsBlocked &operator=(const SignalsBlocked &) = delete;

 private:
  sigset_t before_;
};

// It runs while there are channels open: a process that has none open pays nothing.
class Events {
 public:
  explicit Events(libusb_context *context) : context_(context) {}
  // Each start needs its stop; the last stop waits for the thread. Throws std::system_error.
  void start();
  void stop();

 private:
  void run() noexcept;

  libusb_context *context_;
  std::mutex mutex_;
  uint32_t starts_ = 0;
  std::atomic<bool> ends_ = false;
  std::thread thread_;
};

}  // namespace pulsekit::d2xx::usb
