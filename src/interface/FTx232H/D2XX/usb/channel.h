// A channel of a bridge that is open: what the host sends goes out at once, what the bridge sends is fetched and kept
// until the host reads it. Where nothing came and nobody asked for a while, nothing is fetched until the next call: a
// bridge that is left alone would answer hundreds of times a second that it has nothing.
#pragma once

#include <libusb.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "../FTx232H_D2XX.h"
#include "events.h"
#include "ports.h"

namespace pulsekit::d2xx::usb {

// The bytes that have arrived, oldest first. Memory is taken once: what arrives must find room.
class Ring {
 public:
  explicit Ring(size_t capacity) : bytes_(new uint8_t[capacity]), capacity_(capacity) {}
  size_t size() const { return size_; }
  void clear() { size_ = 0; }
  void append(const uint8_t *bytes, size_t count);  // which fit
  void take(uint8_t *bytes, size_t count);          // which are there

 private:
  std::unique_ptr<uint8_t[]> bytes_;
  size_t capacity_, head_ = 0, size_ = 0;
};

// Any thread may call any function at any time. They answer FT_INVALID_HANDLE once the channel is being closed,
// FT_IO_ERROR once the bridge is gone; both end every wait.
class Channel {
 public:
  // Claims the port, for which it waits a little where others are about to let go of it, and starts to receive. Null
  // and libusb's error where that fails. Throws std::bad_alloc, std::system_error.
  static std::shared_ptr<Channel> open(Events &events, const Port &port, int *error);
  Channel(DeviceHandle handle, Events &events, const Port &port, const libusb_interface_descriptor &endpoints);
  ~Channel();
  Channel(const Channel &) = delete;
  Channel &operator=(const Channel &) = delete;
  // Returns when nothing is on its way any more, no other call is under way and the port is free.
  void close();

  const Port &port() const { return port_; }

  FT_STATUS read(uint8_t *bytes, uint32_t count, uint32_t *got);
  FT_STATUS write(const uint8_t *bytes, uint32_t count, uint32_t *written);
  // A look that finds nothing new shortly after something was written or has arrived waits a moment for more: who looks
  // again and again sleeps between the looks, in whole milliseconds. The first look after a while waits for what the
  // bridge has to say.
  FT_STATUS queued(uint32_t *count);
  FT_STATUS reset();
  FT_STATUS setTimeouts(uint32_t read_ms, uint32_t write_ms);
  FT_STATUS setLatency(uint8_t ms);
  FT_STATUS setBitMode(uint8_t mask, uint8_t mode);
  FT_STATUS setTransferSizes(uint32_t in, uint32_t out);

 private:
  using Clock = std::chrono::steady_clock;
  using Deadline = std::optional<Clock::time_point>;  // none: for ever
  static constexpr size_t kIncoming = 4;              // transfers that wait for data, so that the bridge never does

  struct Transfer {
    struct Freer {
      void operator()(libusb_transfer *one) const { libusb_free_transfer(one); }
    };
    std::unique_ptr<libusb_transfer, Freer> transfer;
    bool in_flight = false;
  };
  class Call;

  static Deadline deadlineAfter(uint32_t ms);
  FT_STATUS status() const { return closing_ ? FT_STATUS{FT_INVALID_HANDLE} : failure_; }
  template <typename Condition>
  bool wait(std::unique_lock<std::mutex> &lock, const Deadline &deadline, Condition condition);

  FT_STATUS control(uint8_t request, uint16_t value);
  void fail(int error);

  // Receiving.
  void listen();
  void feed();
  size_t receiving() const;
  void arrived(libusb_transfer &transfer) noexcept;
  void strip(const libusb_transfer &transfer);
  void restart(std::unique_lock<std::mutex> &lock, bool drop, uint32_t in_size);

  // Sending.
  uint32_t send(std::unique_lock<std::mutex> &lock, const uint8_t *bytes, uint32_t count, const Deadline &deadline,
                FT_STATUS *failure);
  void sent() noexcept;

  DeviceHandle handle_;
  Events &events_;
  const Port port_;
  bool listening_ = false;  // events_ has been started
  uint8_t in_endpoint_ = 0, out_endpoint_ = 0;
  uint32_t packet_size_ = 0;

  std::mutex mutex_;
  std::condition_variable changed_;
  FT_STATUS failure_ = FT_OK;  // for good
  bool closing_ = false;
  uint32_t calls_ = 0;
  uint32_t read_timeout_ = 0, write_timeout_ = 0;

  Ring ring_;
  std::unique_ptr<uint8_t[]> in_buffers_;
  std::array<Transfer, kIncoming> in_;
  uint32_t in_size_, out_size_;
  uint32_t errors_ = 0;  // in a row
  bool restarting_ = false;
  uint32_t arrivals_ = 0;
  uint32_t waiting_for_data_ = 0, waiting_for_arrival_ = 0;  // calls
  uint8_t latency_ms_;
  Clock::time_point listen_until_;
  size_t last_look_ = 0;
  Clock::time_point more_expected_until_;

  Transfer out_;
  bool writing_ = false;
};

}  // namespace pulsekit::d2xx::usb
