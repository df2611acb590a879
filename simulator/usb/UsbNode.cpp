#include "usb/UsbNode.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace pulsekit::simulator {

namespace {

// How long a host that has several transfers in flight may take to submit another one.
constexpr std::chrono::microseconds kGrace(200);
// How often a channel at work is looked at when real time counts: every other microframe.
constexpr std::chrono::microseconds kWorkStep(250);

}  // namespace

UsbNode::UsbNode(Bench &bench, Device &device, int wakeup)
    : bench_(bench), device_(std::make_unique<UsbDevice>(bench, device)), wakeup_(wakeup) {
  setWakeup(false);
}

UsbNode::~UsbNode() { close(wakeup_); }

// The node is a pipe of one page: full, nobody can write to it.
void UsbNode::setWakeup(bool on) {
  if (on == awake_) return;
  awake_ = on;
  char page[4096] = {};
  if (on) {
    while (read(wakeup_, page, sizeof page) > 0) {
    }
  } else {
    while (write(wakeup_, page, sizeof page) > 0) {
    }
  }
}

void UsbNode::unplug() {
  for (Flight &flight : flights_) {
    if (!flight.transfer->ended()) flight.transfer->finish(bench_.clock().nanoseconds(), ESHUTDOWN);
  }
  device_.reset();
  setWakeup(!flights_.empty());
}

int UsbNode::submit(Owner owner, std::unique_ptr<Transfer> &transfer) {
  if (!device_) return ENODEV;
  transfer->since = lastRequest_ = RealTime::now();
  if (const int failure = device_->submit(*transfer, owner)) return failure;
  flights_.push_back({owner, std::move(transfer)});
  return 0;
}

bool UsbNode::cancel(Owner owner, uintptr_t name) {
  const auto found = std::find_if(flights_.begin(), flights_.end(), [&](const Flight &flight) {
    return flight.owner == owner && flight.transfer->name == name;
  });
  if (found == flights_.end() || found->transfer->ended() || !device_) return false;
  Transfer &it = *found->transfer;
  device_->takeBack(it);
  if (it.in()) it.done = it.bytes.size();
  it.finish(bench_.clock().nanoseconds(), ENOENT);
  return true;
}

std::unique_ptr<Transfer> UsbNode::collect(Owner owner) {
  const RealTime::time_point now = RealTime::now();
  const auto found = next(owner, now);
  if (found == flights_.end()) return nullptr;
  std::unique_ptr<Transfer> transfer = std::move(found->transfer);
  flights_.erase(found);
  lastRequest_ = now;
  if (bench_.deterministic()) bench_.clock().reach(transfer->end);
  if (device_) device_->collected(*transfer);
  return transfer;
}

void UsbNode::leave(Owner owner) {
  for (Flight &flight : flights_) {
    if (flight.owner != owner || !device_) continue;
    if (!flight.transfer->ended())
      device_->takeBack(*flight.transfer);
    else
      device_->collected(*flight.transfer);
  }
  flights_.remove_if([&](const Flight &flight) { return flight.owner == owner; });
  if (device_) device_->releaseAll(owner);
}

// Whether the host has nothing more to do than to wait for an answer.
bool UsbNode::patient(RealTime::time_point now) const { return flights_.size() == 1 || now >= lastRequest_ + kGrace; }

bool UsbNode::collectable(const Transfer &transfer, RealTime::time_point now) const {
  if (!transfer.ended()) return false;
  if (!device_ || transfer.end <= bench_.clock().nanoseconds()) return true;
  return bench_.deterministic() && (!transfer.in() || patient(now));
}

std::list<UsbNode::Flight>::iterator UsbNode::next(Owner owner, RealTime::time_point now) {
  auto first = flights_.end();
  for (auto it = flights_.begin(); it != flights_.end(); ++it) {
    if (owner && it->owner != owner) continue;
    if (!it->transfer->ended() || (first != flights_.end() && first->transfer->end <= it->transfer->end)) continue;
    first = it;
  }
  return first != flights_.end() && collectable(*first->transfer, now) ? first : flights_.end();
}

UsbNode::RealTime::time_point UsbNode::advance(RealTime::time_point now) {
  constexpr auto kLater = RealTime::time_point::max();
  if (!device_) {
    // Who has collected everything sleeps: libusb would come back at once for ever.
    setWakeup(!flights_.empty());
    return kLater;
  }
  const uint64_t clock = bench_.clock().nanoseconds();
  const bool deterministic = bench_.deterministic();
  const bool search = deterministic && patient(now);
  RealTime::time_point again = kLater;
  for (const auto &port : device_->ports()) {
    port->work(search ? kNever : clock, deterministic ? kNever : clock);
    port->answerIdle(now);
    again = std::min(again, port->idleDue());
    if (!deterministic && port->busy()) again = std::min(again, now + kWorkStep);
  }
  if (deterministic && !search && !flights_.empty()) again = std::min(again, lastRequest_ + kGrace);
  const bool wake = next(nullptr, now) != flights_.end();
  if (!deterministic && !wake) {
    for (const Flight &flight : flights_) {
      if (!flight.transfer->ended()) continue;
      again = std::min(again, now + std::chrono::nanoseconds(flight.transfer->end - clock));
    }
  }
  setWakeup(wake);
  return again;
}

}  // namespace pulsekit::simulator
