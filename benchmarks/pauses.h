#pragma once

#include <cstdint>

namespace pulsekit::benchmark {

// How long the library has asked to sleep since the program started.
uint64_t pausedNanoseconds();

}  // namespace pulsekit::benchmark
