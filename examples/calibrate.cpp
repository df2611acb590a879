// Calibrates once and keeps the results in the flash of the board: the next time they are there at once.
#include <cstdio>

#include "pulsekit3.hpp"

constexpr int kBlock = 8;    // of the flash, 4 KiB each
constexpr int kNothing = 5;  // the code of a block that holds no results

static void calibrated() {
  pulsekit3::Radar radar = pulsekit3::openRadar();
  std::printf("as delivered: %.3f GS/s\n", radar["SamplesPerSecond"] / 1e9);
  try {
    radar.restoreCalibration(kBlock);
    std::printf("restored: %.3f GS/s\n", radar["SamplesPerSecond"] / 1e9);
  } catch (const pulsekit3::Error &error) {
    if (error.code() != kNothing) throw;
    radar.calibrate(kBlock);
    std::printf("measured: %.3f GS/s\n", radar["SamplesPerSecond"] / 1e9);
  }
}

int main() try {
  calibrated();
  calibrated();
} catch (const pulsekit3::Error &error) {
  std::fprintf(stderr, "%s\n%s", error.text(), error.trace().c_str());
  return 1;
}
