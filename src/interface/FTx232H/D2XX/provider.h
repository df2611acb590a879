// Where the driver gets its D2XX functions from.
#pragma once

#include "FTx232H_D2XX.h"

namespace pulsekit::d2xx {

// For a connection or a listing that starts now: the host's table, else that of the library that the environment names
// or of the vendor's, which is loaded at the first call, else `unavailable()`.
FTx232H_D2XX current();

// A table whose calls all fail: what a device that is not open answers, too.
FTx232H_D2XX unavailable();

}  // namespace pulsekit::d2xx
