#include "UsbChannel.h"

#include <algorithm>
#include <limits>

namespace pulsekit::simulator {

UsbChannel::UsbChannel(Clock &clock, Recorder &recorder, int32_t device, size_t fifoSize, bool highBank)
    : clock_(clock),
      fifoSize_(fifoSize),
      pins_(recorder, device, highBank),
      mpsse_(clock, pins_, *this, recorder, device) {}

void UsbChannel::reset() {
  purgeFifos();
  latency_ = 16;
  setMode(0, kModeReset);
}

void UsbChannel::setMode(uint8_t mask, uint8_t mode) {
  mode_ = mode;
  fromHost_.clear();
  mpsse_.reset();
  pins_.drive(mode == kModeMpsse ? mask : 0, 0);
}

void UsbChannel::purgeFifos() {
  toHost_.clear();
  fromHost_.clear();
}

size_t UsbChannel::write(const uint8_t *bytes, size_t count) {
  if (mode_ != kModeMpsse) return count;  // out of the serial port, where nothing listens
  run();
  size_t taken = fromHost_.empty() ? mpsse_.feed(bytes, count) : 0;
  const size_t kept = std::min(count - taken, fifoSize_ - fromHost_.size());
  fromHost_.insert(fromHost_.end(), bytes + taken, bytes + taken + kept);
  pins_.endBatch();
  return taken + kept;
}

void UsbChannel::run() {
  if (mode_ != kModeMpsse) return;
  const size_t used = mpsse_.feed(fromHost_.data(), fromHost_.size());
  fromHost_.erase(fromHost_.begin(), fromHost_.begin() + static_cast<std::ptrdiff_t>(used));
}

void UsbChannel::service() {
  sendFullPackets();
  run();
  const uint64_t due = nextPacket();
  if (due <= clock_.nanoseconds()) sendShortPacket(due);
}

uint64_t UsbChannel::nextPacket() const {
  const bool something = host_ && host_->ready() && (!toHost_.empty() || host_->partlyFilled());
  return something ? waitingSince_ + patience() : std::numeric_limits<uint64_t>::max();
}

size_t UsbChannel::space() { return fifoSize_ - toHost_.size(); }

void UsbChannel::push(const uint8_t *bytes, size_t count) {
  const uint64_t due = nextPacket();
  if (due <= clock_.nanoseconds()) sendShortPacket(due);
  if (toHost_.empty()) waitingSince_ = clock_.nanoseconds();
  if (!loss_.active() && !corruption_.active()) {
    toHost_.insert(toHost_.end(), bytes, bytes + count);
  } else {
    std::for_each_n(bytes, count, [this](uint8_t byte) { queue(byte); });
  }
  sendFullPackets();
}

void UsbChannel::queue(uint8_t byte) {
  if (corruption_.strikes()) byte ^= corruptionMask_;
  if (!loss_.strikes()) toHost_.push_back(byte);
}

void UsbChannel::corruptAnswer(uint32_t after, uint8_t mask) {
  corruption_.schedule(after + 1, 1);
  corruptionMask_ = mask;
}

void UsbChannel::clearFaults() {
  loss_.cancel();
  corruption_.cancel();
}

void UsbChannel::sendFullPackets() {
  size_t sent = 0;
  while (toHost_.size() - sent >= kPacketData && host_ && host_->ready()) {
    host_->packet(toHost_.data() + sent, kPacketData, clock_.nanoseconds());
    sent += kPacketData;
  }
  if (sent == 0) return;
  toHost_.erase(toHost_.begin(), toHost_.begin() + static_cast<std::ptrdiff_t>(sent));
  waitingSince_ = clock_.nanoseconds();
}

void UsbChannel::sendShortPacket(uint64_t nanoseconds) {
  host_->packet(toHost_.data(), toHost_.size(), nanoseconds);
  toHost_.clear();
}

void UsbChannel::flush() {
  if (!host_ || !host_->ready()) return;
  if (!toHost_.empty() || host_->partlyFilled()) sendShortPacket(clock_.nanoseconds());
}

}  // namespace pulsekit::simulator
