#include "below.h"

#include "simulation.h"
#include "system.h"
#include "usb/UsbLibrary.h"

namespace tool {

namespace {

constexpr const char *kLibrary = "libPulsekit3Usb.so";
// What programs that use this library shall look for radars with.
constexpr const char *kBridgeLibrary = "libusb";

class SimulatedUsb {
 public:
  SimulatedUsb() {
    std::string fault;
    const auto start = reinterpret_cast<QTXUsb_StartFunction>(libraryFunction(kLibrary, QTXUSB_START, fault));
    stop_ = reinterpret_cast<QTXUsb_StopFunction>(libraryFunction(kLibrary, QTXUSB_STOP, fault));
    if (start && stop_) {
      const char *refused = start();
      fault = refused ? refused : "";
    }
    if (!fault.empty()) {
      throw Failure(cat("no simulated USB: ", fault), "install the package umockdev, or use a build that has found it");
    }
  }
  ~SimulatedUsb() { stop_(); }
  SimulatedUsb(const SimulatedUsb &) = delete;
  SimulatedUsb &operator=(const SimulatedUsb &) = delete;

 private:
  QTXUsb_StopFunction stop_ = nullptr;
};

}  // namespace

int runBelow(const Options &options, const Strings &command) {
  simulate(options.simulation.empty() ? "true" : options.simulation, options.fresh);
  int code = 0;
  {
    const SimulatedUsb usb;
    setEnvironment("PULSEKIT3_BRIDGE_LIBRARY", kBridgeLibrary);
    code = runProgram(command);
  }
  keepSimulatedFlash();
  return code;
}

}  // namespace tool
