#pragma once

#include <cstdint>

namespace pulsekit::benchmark {

// How long the library has asked to sleep since the program started.
uint64_t pausedNanoseconds();

// Whether pauses take simulated time; they don't at first.
void letPausesPass(bool pass);

}  // namespace pulsekit::benchmark
