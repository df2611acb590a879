// A bridge as the USB sees it: descriptors, control requests, and interfaces of which each carries a channel.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/Bench.h"
#include "usb/Transfer.h"
#include "usb/UsbPort.h"

namespace pulsekit::simulator {

class UsbDevice {
 public:
  using Owner = const void *;  // whoever has claimed an interface

  UsbDevice(Bench &bench, Device &device);

  // The device descriptor and that of its one configuration behind it.
  static std::vector<uint8_t> descriptors(const Device &device);

  // These return an errno value, 0 when done.
  int claim(uint32_t interface, Owner owner, bool pushDriverAside);
  int release(uint32_t interface, Owner owner);
  int detachDriver(uint32_t interface);
  int attachDriver(uint32_t interface);
  void reset();
  // Null where nobody has the interface.
  const char *driver(uint32_t interface) const;
  void releaseAll(Owner owner);

  // The transfer belongs to the caller, who keeps it until it was collected or taken back.
  int submit(Transfer &transfer, Owner owner);
  void takeBack(Transfer &transfer);
  void collected(const Transfer &transfer);

  std::vector<std::unique_ptr<UsbPort>> &ports() { return ports_; }

 private:
  struct Interface {
    bool driverBound = true;
    Owner owner = nullptr;
  };

  UsbPort *portOf(uint8_t endpoint);
  void control(Transfer &transfer);
  bool standardRequest(Transfer &transfer);
  bool vendorRequest(Transfer &transfer);
  bool vendorWrite(UsbPort &port, uint8_t request, uint16_t value);

  Bench &bench_;
  Device &device_;
  std::vector<Interface> interfaces_;
  std::vector<std::unique_ptr<UsbPort>> ports_;
  uint64_t controlFree_ = 0;
};

}  // namespace pulsekit::simulator
