// Takes a frame with the one radar that is attached.
#include <cstdio>

#include "pulsekit3.hpp"

int main() try {
  pulsekit3::Radar radar = pulsekit3::openRadar();
  radar["PulsesPerStep"] = 40;  // twice as many as usual: less noise
  const std::vector<double> levels = radar.frame();
  const std::vector<double> ranges = radar.rangesMetres();
  std::printf("%zu levels from %.2f m to %.2f m\n", levels.size(), ranges.front(), ranges.back());
  for (std::size_t k = 0; k < levels.size(); k += 32) std::printf("%5.2f m %6.2f %%\n", ranges[k], levels[k]);
} catch (const pulsekit3::Error &error) {
  std::fprintf(stderr, "%s\n%s", error.text(), error.trace().c_str());
  return 1;
}
