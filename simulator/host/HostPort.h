// What the D2XX driver keeps for a device that is open.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "base/Clock.h"
#include "bridge/UsbChannel.h"

namespace pulsekit::simulator {

struct Device;

class HostPort : public PacketSink {
 public:
  HostPort(Clock &clock, Device &device, size_t channel, uint64_t &transfers, uint64_t &bytes);
  ~HostPort() override;
  HostPort(const HostPort &) = delete;
  HostPort &operator=(const HostPort &) = delete;

  Device &device() const { return device_; }
  size_t channelIndex() const { return channelIndex_; }
  UsbChannel *channel() const;
  bool gone() const;  // unplugged since it was opened

  // Bytes the host may have now.
  size_t available();
  // Lets time pass until something more arrives, at most until `limit`. False: nothing came; time then passed only
  // until the bridge had nothing left to do.
  bool waitForMore(uint64_t limit);
  size_t take(uint8_t *bytes, size_t count);
  void insert(const uint8_t *bytes, size_t count);

  void setTransferSizes(uint32_t in, uint32_t out);
  uint32_t outTransferSize() const { return outTransferSize_; }
  void setTimeouts(uint32_t readMilliseconds, uint32_t writeMilliseconds);
  uint64_t readTimeout() const { return readTimeout_; }
  uint64_t writeTimeout() const { return writeTimeout_; }

  bool ready() const override;
  bool partlyFilled() const override { return packets_ > 0; }
  bool underWay() const override { return !arrivals_.empty(); }
  void packet(const uint8_t *bytes, size_t count, uint64_t nanoseconds) override;
  void collect();  // what has arrived

  // Whether the host has just taken something: a look at the queue then only tells what is left.
  bool looksOn = false;

 private:
  struct Arrival {
    uint64_t nanoseconds;
    size_t count;
  };

  Clock &clock_;
  Device &device_;
  const size_t channelIndex_;
  const uint32_t pluggedTime_;
  uint64_t &transfers_;
  uint64_t &bytes_;
  uint32_t inTransferSize_ = 4096, outTransferSize_ = 4096;
  uint64_t readTimeout_ = kNever, writeTimeout_ = kNever;

  std::vector<uint8_t> queue_;  // taken from at head_; the arrived ones first, then those on their way
  size_t head_ = 0;
  size_t arrived_ = 0;
  std::deque<Arrival> arrivals_;
  size_t packets_ = 0;  // of the transfer under way, and its bytes
  size_t filled_ = 0;
};

}  // namespace pulsekit::simulator
