// The bridges on the USB: a port for each of their channels.
#pragma once

#include <libusb.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace pulsekit::d2xx::usb {

struct DeviceHandleCloser {
  void operator()(libusb_device_handle *handle) const { libusb_close(handle); }
};
using DeviceHandle = std::unique_ptr<libusb_device_handle, DeviceHandleCloser>;

struct Port {
  std::shared_ptr<libusb_device> device;
  uint8_t channel = 0;    // from 0
  bool lettered = false;  // one of several of its bridge
  bool high_speed = false;
  uint32_t type = 0, id = 0, location = 0;
  std::string serial, description;  // with the channel's letter; the serial number also where others have the port
  int fault = LIBUSB_SUCCESS;       // why it can't be used now, as libusb says it
  bool kernel_driver = false;       // a serial port at the moment

  bool hasMpsse() const { return channel < 2; }
  char letter() const { return static_cast<char>('A' + channel); }
  bool is(const Port &other) const { return device == other.device && channel == other.channel; }
};

// Opens the port's bridge and claims the port, which takes it from the kernel's driver until it is closed. Null and
// libusb's error where that fails.
DeviceHandle claim(const Port &port, int *error);

class Ports {
 public:
  explicit Ports(libusb_context *context) : context_(context) {}

  // Whether this process has the port open: it need not be tried then.
  using IsOpen = std::function<bool(const Port &)>;
  // All ports in the order of the bus; which of them can't be used. Throws std::bad_alloc.
  std::vector<Port> find(const IsOpen &isOpen);
  // Without looking whether others have them.
  std::vector<Port> names();

 private:
  struct Texts {
    std::shared_ptr<libusb_device> device;
    std::string serial, description;
  };
  using TryPort = std::function<int(libusb_device_handle *handle, Port &port)>;
  std::vector<Port> all(const TryPort &tryPort);
  // Each bridge is asked once as long as it is plugged in; opens it where that is still to be done. Libusb's error.
  int readTexts(const Port &port, const libusb_device_descriptor &descriptor, DeviceHandle &handle, Texts &texts);

  libusb_context *context_;
  std::vector<Texts> known_;
};

// A line for each port: where it is, its IDs and serial number, its state, and, where it can't be used, the cause and
// the remedy. `detaches`: whether the kernel's driver will be made to let go.
std::string describe(const std::vector<Port> &ports, const Ports::IsOpen &isOpen, bool detaches);

}  // namespace pulsekit::d2xx::usb
