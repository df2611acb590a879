// Opening a radar starts its chip from the automatic values. What one command has set is kept for the commands after
// it, in a file for each radar that lasts as long as the user's login.
#pragma once

#include <optional>

#include "radar.h"

namespace tool {

/// Applies what earlier commands have set.
void resumeSession(const Radar &radar);

/// Keeps what is set now: all settings that do not follow their automatic values.
void keepSession(const Radar &radar);

/// The same after a calibration, whose record stands in that block of the flash, if in any: the commands that follow
/// load it.
void keepCalibration(const Radar &radar, std::optional<uint32_t> block);

/// Loads the record, and returns the library's code. Without fine elements in it their mean stays what it was.
int32_t loadCalibration(const Radar &radar, uint32_t block);

/// Where the window stands follows from the measured delay elements: after a change of these it is placed anew.
void placeWindow(const Radar &radar);

}  // namespace tool
