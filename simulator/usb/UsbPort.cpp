#include "usb/UsbPort.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace pulsekit::simulator {

namespace {

constexpr size_t kPacketSize = 512;
constexpr uint64_t kMillisecond = 1'000'000;

}  // namespace

UsbPort::UsbPort(Bench &bench, Device &device, size_t channel)
    : bench_(bench), device_(device), channel_(device.channels[channel].get()) {}

UsbPort::~UsbPort() { disconnect(); }

void UsbPort::connect() {
  if (!channel_) return;
  channel_->setHost(this);
  channel_->push(device_.insertedAnswer.data(), std::min(device_.insertedAnswer.size(), channel_->space()));
  device_.insertedAnswer.clear();
}

void UsbPort::disconnect() {
  if (channel_) channel_->setHost(nullptr);
}

void UsbPort::submit(Transfer &transfer) {
  if (!transfer.in() && device_.shortWrite.strikes()) transfer.most = device_.shortWriteAccepts;
  (transfer.in() ? in_ : out_).push_back(&transfer);
}

void UsbPort::takeBack(Transfer &transfer) {
  std::deque<Transfer *> &queue = transfer.in() ? in_ : out_;
  if (!transfer.in() && queue.front() == &transfer) outArrives_ = 0;
  std::erase(queue, &transfer);
}

void UsbPort::collected(const Transfer &transfer) {
  if (!transfer.underWay) return;
  --underWay_;
  const size_t packets = (transfer.done + kPacketSize - 1) / kPacketSize;
  ++bench_.counts().in_transfers;
  bench_.counts().bytes_in += transfer.done - packets * sizeof kModemStatus;
}

void UsbPort::work(uint64_t limit, uint64_t outLimit) {
  do {
    if (!channel_) continue;
    if (limit != kNever) {
      busy_ = channel_->runTo(limit);
    } else if (!in_.empty()) {
      channel_->runToAnswer(limit);
    }
  } while (sendOut(outLimit));
}

// Whether a transfer to the device has ended.
bool UsbPort::sendOut(uint64_t limit) {
  if (out_.empty()) return false;
  Transfer &transfer = *out_.front();
  if (outArrives_ == 0) outArrives_ = std::max(transfer.submitted, outFree_) + UsbChannel::kTransferTime;
  Clock host;
  host.reach(std::max(outArrives_, bench_.clock().nanoseconds()));
  const size_t rest = std::min(transfer.length, transfer.most) - transfer.done;
  const uint8_t *bytes = transfer.bytes.data() + transfer.done;
  const size_t taken = channel_ ? channel_->write(bytes, rest, host, std::max(limit, host.nanoseconds())) : rest;
  transfer.done += taken;
  bench_.counts().bytes_out += taken;
  if (transfer.done < transfer.length) return false;
  ++bench_.counts().out_transfers;
  transfer.finish(host.nanoseconds());
  outFree_ = transfer.end;
  outArrives_ = 0;
  out_.pop_front();
  return true;
}

void UsbPort::packet(const uint8_t *bytes, size_t count, uint64_t nanoseconds) {
  lastPacket_ = Transfer::RealTime::now();
  Transfer &transfer = *in_.front();
  const size_t room = transfer.length - transfer.bytes.size();
  const bool overflow = room < sizeof kModemStatus + count;
  transfer.bytes.insert(transfer.bytes.end(), std::begin(kModemStatus), std::end(kModemStatus));
  transfer.bytes.insert(transfer.bytes.end(), bytes, bytes + count);
  if (overflow) transfer.bytes.resize(transfer.length);
  const bool ends = count < UsbChannel::kPacketData || transfer.bytes.size() == transfer.length;
  if (overflow || ends) endIn(nanoseconds, overflow ? EOVERFLOW : 0);
}

void UsbPort::endIn(uint64_t nanoseconds, int failure) {
  Transfer &transfer = *in_.front();
  if (bench_.scheduledFailure(Function::Read) != FT_OK) {
    transfer.bytes.clear();
    failure = EPROTO;
  }
  transfer.done = transfer.bytes.size();
  transfer.finish(std::max(nanoseconds, transfer.submitted) + UsbChannel::kTransferTime, failure);
  transfer.underWay = true;
  in_.pop_front();
  ++underWay_;
}

Transfer::RealTime::time_point UsbPort::idleDue() const {
  if (in_.empty() || partlyFilled() || underWay()) return Transfer::RealTime::time_point::max();
  return std::max(in_.front()->since, lastPacket_) + std::chrono::milliseconds(latency());
}

void UsbPort::answerIdle(Transfer::RealTime::time_point now) {
  if (idleDue() > now) return;
  lastPacket_ = now;
  Transfer &transfer = *in_.front();
  transfer.bytes.assign(kModemStatus, kModemStatus + std::min(sizeof kModemStatus, transfer.length));
  transfer.done = transfer.bytes.size();
  transfer.finish(bench_.clock().nanoseconds());
  in_.pop_front();
}

uint8_t UsbPort::latency() const {
  return channel_ ? static_cast<uint8_t>(channel_->patience() / kMillisecond) : latency_;
}

void UsbPort::setLatency(uint8_t milliseconds) {
  latency_ = milliseconds;
  if (channel_) channel_->setLatency(milliseconds);
}

}  // namespace pulsekit::simulator
