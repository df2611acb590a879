// The D2XX functions on libusb, for systems where nothing of the bridge's vendor is installed.
#pragma once

#include <string>

#include "../FTx232H_D2XX.h"

namespace pulsekit::d2xx::usb {

// Null and the reason where libusb can't serve on this system. The table and the text live as long as the process.
const FTx232H_D2XX *table(const char **reason);

// The ports of all bridges (ports.h); `detaches`: whether they are used through this table. Throws std::bad_alloc.
std::string describePorts(bool detaches);

}  // namespace pulsekit::d2xx::usb
