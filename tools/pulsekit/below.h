// Other programs on the simulated radars, by way of the USB.
#pragma once

#include "radar.h"

namespace tool {

/// Runs the command with the simulated radars attached to its USB, and only them. Returns its exit code.
int runBelow(const Options &options, const Strings &command);

}  // namespace tool
