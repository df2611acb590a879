#include "bridge/UsbChannel.h"

#include <algorithm>

namespace pulsekit::simulator {

UsbChannel::UsbChannel(uint64_t now, Recorder &recorder, int32_t device, size_t fifoSize, bool highBank)
    : fifoSize_(fifoSize), pins_(clock_, recorder, device, highBank), mpsse_(clock_, pins_, *this, recorder, device) {
  clock_.reach(now);
}

void UsbChannel::setHost(PacketSink *host) {
  host_ = host;
  waitingSince_ = clock_.nanoseconds();
}

void UsbChannel::reset() {
  purgeFifos();
  latency_ = 16;
  setMode(0, kModeReset);
}

void UsbChannel::setMode(uint8_t mask, uint8_t mode) {
  mode_ = mode;
  drop(waiting());
  mpsse_.reset();
  pins_.drive(mode == kModeMpsse ? mask : 0, 0);
}

void UsbChannel::purgeFifos() {
  purgeToHost();
  purgeFromHost();
}

bool UsbChannel::runTo(uint64_t nanoseconds) {
  const bool blocked = work(nanoseconds, waiting(), false) == Progress::Blocked;
  if (blocked) clock_.reach(nanoseconds);
  return !blocked || nextPacket() != kNever;
}

void UsbChannel::runToAnswer(uint64_t limit) { work(limit, waiting(), true); }

size_t UsbChannel::write(const uint8_t *bytes, size_t count, Clock &host, uint64_t limit) {
  runTo(host.nanoseconds());
  if (mode_ != kModeMpsse) return count;  // out of the serial port, where nothing listens
  fromHost_.insert(fromHost_.end(), bytes, bytes + count);
  if (waiting() <= fifoSize_) return count;
  work(limit, waiting() - fifoSize_, false);
  const size_t refused = std::max(waiting(), fifoSize_) - fifoSize_;
  fromHost_.resize(fromHost_.size() - refused);
  if (refused == 0) host.reach(std::min(clock_.nanoseconds(), limit));
  return count - refused;
}

Progress UsbChannel::work(uint64_t until, size_t most, bool toAnswer) {
  sendFullPackets();
  Commands commands{fromHost_.data() + head_, most};
  Progress progress = Progress::Later;
  answered_ = true;
  for (uint64_t due = 0;;) {
    if (answered_) {
      if (toAnswer && host_ && host_->underWay()) break;
      due = nextPacket();
      answered_ = false;
    }
    progress = mode_ == kModeMpsse ? mpsse_.step(commands, std::min(until, due)) : Progress::Blocked;
    if (progress == Progress::Done) continue;
    if (due > until || due == kNever) break;
    sendShortPacket(due);
  }
  drop(most - commands.count);
  // Without a chip select this is what ends a frame.
  if (progress == Progress::Blocked && waiting() == 0) pins_.endBatch();
  return progress;
}

void UsbChannel::drop(size_t used) {
  head_ += used;
  // A host that keeps commands ahead never lets it run empty.
  if (head_ < fromHost_.size() && head_ <= fifoSize_) return;
  fromHost_.erase(fromHost_.begin(), fromHost_.begin() + static_cast<std::ptrdiff_t>(head_));
  head_ = 0;
}

uint64_t UsbChannel::nextPacket() const {
  const bool something = host_ && host_->ready() && (!toHost_.empty() || host_->partlyFilled());
  return something ? waitingSince_ + (flushed_ ? 0 : patience()) : kNever;
}

size_t UsbChannel::space() { return fifoSize_ - toHost_.size(); }

void UsbChannel::push(const uint8_t *bytes, size_t count) {
  answered_ = true;
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
  flushed_ = flushed_ && sent < toHost_.size();
  toHost_.erase(toHost_.begin(), toHost_.begin() + static_cast<std::ptrdiff_t>(sent));
  waitingSince_ = clock_.nanoseconds();
}

void UsbChannel::sendShortPacket(uint64_t nanoseconds) {
  answered_ = true;
  flushed_ = false;
  host_->packet(toHost_.data(), toHost_.size(), nanoseconds);
  toHost_.clear();
}

void UsbChannel::flush() {
  if (!host_) return;
  if (!host_->ready()) {
    flushed_ = !toHost_.empty();
  } else if (!toHost_.empty() || host_->partlyFilled()) {
    sendShortPacket(clock_.nanoseconds());
  }
}

}  // namespace pulsekit::simulator
