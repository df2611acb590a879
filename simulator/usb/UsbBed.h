// Shows the bench's bridges to programs that use libusb: below a test bed of umockdev, libusb finds them in sysfs,
// opens their nodes, and what it asks of the kernel is answered here.
//
//   UsbBed bed;                // sets UMOCKDEV_DIR; before libusb_init and before other threads start
//   QTXSim_AddRadar(...);      // before or after; unplugging shows, too
//
// For the own process, umockdev's preload library must be linked ahead of the C library (-Wl,--no-as-needed
// -lumockdev-preload) or be in LD_PRELOAD; for child processes, too, LD_PRELOAD=libumockdev-preload.so.0.
//
// Time. With QTXSim_SetTime deterministic, transfers end at once, and the host's clock moves to the end of each one
// that it collects. A host that keeps several in flight is given a moment to submit more before an answer from the
// device is taken for what it waits for. In the other modes transfers last as long as they would. Idle answers (two
// status bytes when the latency timer has run out) come in real time in each mode.
//
// Scheduled faults: failed calls of Write and Read are transfers with data that end with a bus error, those of
// ResetDevice, SetLatencyTimer and SetBitMode requests that stall, those of OpenEx claims of a busy interface; a short
// Write takes what it takes and then waits until the host gives up. Transfers to the device, control requests and
// claims count as calls. A held device (QTXSim_SetHeld) is claimed by somebody else.
#pragma once

#include <memory>
#include <string>

namespace pulsekit::simulator {

class UsbBed {
 public:
  // Throws std::runtime_error when umockdev cannot make its environment. One at a time.
  UsbBed();
  // Programs below it should have ended.
  ~UsbBed();
  UsbBed(const UsbBed &) = delete;
  UsbBed &operator=(const UsbBed &) = delete;

  // Whether this process would see the devices, too.
  static bool preloaded();

  // Node of a device, such as "/dev/bus/usb/001/002"; empty for one that is not plugged in.
  std::string node(int device) const;
  // Whether programs may open the node; also those of root. Holds until the device is plugged out.
  void setAccess(int device, bool allowed);
  // Whether the kernel's serial driver has the interface.
  bool driverBound(int device, unsigned interface) const;
  // System calls of programs below, on all nodes.
  unsigned long long requests() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace pulsekit::simulator
