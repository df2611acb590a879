#include "host/HostPort.h"

#include <algorithm>
#include <cstring>

#include "host/Bench.h"

namespace pulsekit::simulator {

namespace {

// The driver stops asking for more when the host has left this much lying about.
constexpr size_t kQueueLimit = size_t{1} << 20;
constexpr size_t kPacketSize = 512;
constexpr uint64_t kMillisecond = 1'000'000;

uint64_t timeout(uint32_t milliseconds) { return milliseconds == 0 ? kNever : milliseconds * kMillisecond; }

}  // namespace

HostPort::HostPort(Clock &clock, Device &device, size_t channel, uint64_t &transfers, uint64_t &bytes)
    : clock_(clock),
      device_(device),
      channelIndex_(channel),
      pluggedTime_(device.pluggedTimes),
      transfers_(transfers),
      bytes_(bytes) {
  if (UsbChannel *usb = this->channel()) {
    usb->setLatency(16);
    usb->setHost(this);
  }
}

HostPort::~HostPort() {
  if (UsbChannel *usb = channel(); usb && !gone()) usb->setHost(nullptr);
}

UsbChannel *HostPort::channel() const { return device_.channels[channelIndex_].get(); }

bool HostPort::gone() const { return !device_.plugged || device_.pluggedTimes != pluggedTime_; }

bool HostPort::ready() const { return queue_.size() - head_ < kQueueLimit; }

void HostPort::packet(const uint8_t *bytes, size_t count, uint64_t nanoseconds) {
  queue_.insert(queue_.end(), bytes, bytes + count);
  filled_ += count;
  ++packets_;
  const bool ends = count < UsbChannel::kPacketData || packets_ * kPacketSize >= inTransferSize_;
  if (!ends) return;
  if (filled_ > 0) arrivals_.push_back({nanoseconds + UsbChannel::kTransferTime, filled_});
  packets_ = 0;
  filled_ = 0;
}

void HostPort::collect() {
  while (!arrivals_.empty() && arrivals_.front().nanoseconds <= clock_.nanoseconds()) {
    arrived_ += arrivals_.front().count;
    bytes_ += arrivals_.front().count;
    ++transfers_;
    arrivals_.pop_front();
  }
}

size_t HostPort::available() {
  if (UsbChannel *usb = channel()) usb->runTo(clock_.nanoseconds());
  collect();
  return arrived_;
}

bool HostPort::waitForMore(uint64_t limit) {
  const size_t before = arrived_;
  if (available() != before) return true;
  if (UsbChannel *usb = channel(); usb && arrivals_.empty()) {
    usb->runToAnswer(limit);
    if (arrivals_.empty()) clock_.reach(std::min(usb->clock().nanoseconds(), limit));
  }
  if (arrivals_.empty() || arrivals_.front().nanoseconds > limit) return false;
  clock_.reach(arrivals_.front().nanoseconds);
  collect();
  return true;
}

size_t HostPort::take(uint8_t *bytes, size_t count) {
  const size_t taken = std::min(count, available());
  if (taken > 0) std::memcpy(bytes, queue_.data() + head_, taken);
  head_ += taken;
  arrived_ -= taken;
  if (head_ == queue_.size()) {
    queue_.clear();
    head_ = 0;
  } else if (head_ > kQueueLimit) {
    queue_.erase(queue_.begin(), queue_.begin() + static_cast<std::ptrdiff_t>(head_));
    head_ = 0;
  }
  return taken;
}

void HostPort::insert(const uint8_t *bytes, size_t count) {
  collect();
  queue_.insert(queue_.begin() + static_cast<std::ptrdiff_t>(head_ + arrived_), bytes, bytes + count);
  arrived_ += count;
}

void HostPort::setTransferSizes(uint32_t in, uint32_t out) {
  queue_.clear();
  head_ = 0;
  arrived_ = 0;
  arrivals_.clear();
  packets_ = 0;
  filled_ = 0;
  inTransferSize_ = in;
  outTransferSize_ = out;
}

void HostPort::setTimeouts(uint32_t readMilliseconds, uint32_t writeMilliseconds) {
  readTimeout_ = timeout(readMilliseconds);
  writeTimeout_ = timeout(writeMilliseconds);
}

}  // namespace pulsekit::simulator
