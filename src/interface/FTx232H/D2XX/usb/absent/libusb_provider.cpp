// For builds without libusb.
#include "../libusb_provider.h"

namespace pulsekit::d2xx::usb {

const FTx232H_D2XX *table(const char **) { return nullptr; }

std::string describePorts(bool) { return ""; }

}  // namespace pulsekit::d2xx::usb
