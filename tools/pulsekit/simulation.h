// Simulated radars in place of attached ones.
#pragma once

#include <string>

namespace tool {

/// Plugs them in for the rest of the process. `scene` is a scene file, or "true" for the simulator's own scene. The
/// flash holds what earlier commands have left in it, unless it shall be fresh.
void simulate(const std::string &scene, bool fresh);

/// Keeps the content of the simulated flash for the next command, if it has changed.
void keepSimulatedFlash();

/// An example of a scene file.
extern const char kExampleScene[];

}  // namespace tool
