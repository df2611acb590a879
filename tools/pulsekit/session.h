// Opening a radar starts its chip from the automatic values. What one command has set is kept for the commands after
// it, in a file for each radar that lasts as long as the user's login.
#pragma once

#include "radar.h"

namespace tool {

/// Applies what earlier commands have set.
void resumeSession(const Radar &radar);

/// Keeps what is set now: all settings that do not follow their automatic values.
void keepSession(const Radar &radar);

}  // namespace tool
