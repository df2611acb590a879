// A device node: the transfers and claims of whoever has it open, and what wakes them.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/Bench.h"
#include "usb/Transfer.h"
#include "usb/UsbDevice.h"

namespace pulsekit::simulator {

class UsbNode {
 public:
  using RealTime = Transfer::RealTime;
  using Owner = UsbDevice::Owner;

  // wakeup: polled by whoever waits; it can be written to while something can be collected.
  UsbNode(Bench &bench, Device &device, int wakeup);
  ~UsbNode();
  UsbNode(const UsbNode &) = delete;
  UsbNode &operator=(const UsbNode &) = delete;

  // Null once the device is gone.
  UsbDevice *device() { return device_.get(); }
  // It is unplugged: what was in flight ends with that.
  void unplug();

  // Returns an errno value; what is refused was not taken.
  int submit(Owner owner, std::unique_ptr<Transfer> &transfer);
  // Ends the transfer of that name as cancelled. False when there is nothing to cancel any more.
  bool cancel(Owner owner, uintptr_t name);
  // The next one that has ended; null when there is none yet.
  std::unique_ptr<Transfer> collect(Owner owner);
  // Forgets all that the owner had.
  void leave(Owner owner);

  // Lets everything happen that is due, and wakes whoever can collect something. Returns when to look again.
  RealTime::time_point advance(RealTime::time_point now);

 private:
  struct Flight {
    Owner owner;
    std::unique_ptr<Transfer> transfer;
  };

  bool patient(RealTime::time_point now) const;
  bool collectable(const Transfer &transfer, RealTime::time_point now) const;
  std::list<Flight>::iterator next(Owner owner, RealTime::time_point now);
  void setWakeup(bool on);

  Bench &bench_;
  std::unique_ptr<UsbDevice> device_;
  const int wakeup_;
  bool awake_ = true;
  std::list<Flight> flights_;  // in the order of submission
  RealTime::time_point lastRequest_{};
};

}  // namespace pulsekit::simulator
