// The thread that brings libusb's transfers to their end.
#pragma once

#include <libusb.h>

#include <atomic>
#include <mutex>
#include <thread>

namespace pulsekit::d2xx::usb {

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
