// Sets a group of settings, keeps them in a file, and has them again after a reset. usage: keep_settings [FILE]
#include <cstdio>

#include "pulsekit3.hpp"

int main(int count, char **arguments) try {
  const char *file = count > 1 ? arguments[1] : "radar.set";
  pulsekit3::Radar radar = pulsekit3::openRadar();

  for (const auto &change : radar.set({{"PulsesPerStep", 40}, {"SampleDelay", 4e-9}, {"SPIClockFrequency", "30MHz"}})) {
    std::printf("%s has moved\n", change.name.c_str());
  }
  radar.saveSettings(file);
  radar.reset();
  std::printf("after a reset: %g pulses a step\n", radar["PulsesPerStep"].value());
  radar.loadSettings(file);
  std::printf("from the file: %g pulses a step\n", radar["PulsesPerStep"].value());
} catch (const pulsekit3::Error &error) {
  std::fprintf(stderr, "%s\n%s", error.text(), error.trace().c_str());
  return 1;
}
