// Shows what stands before the radar, and how far away: the peaks of an averaged frame.
#include <algorithm>
#include <cstdio>

#include "baseband.hpp"
#include "pulsekit3.hpp"

constexpr int kFrames = 20;
constexpr double kPeakToMedian = 4;
constexpr double kApartMetres = 0.2;

int main() try {
  pulsekit3::Radar radar = pulsekit3::openRadar();
  radar.calibrate();         // else ranges are some per cent off
  radar["FrameStitch"] = 3;  // three windows, one behind the other

  std::vector<double> mean(radar.samplers());
  for (int i = 0; i < kFrames; ++i) {
    const std::vector<double> levels = radar.frame();
    for (std::size_t k = 0; k < mean.size(); ++k) mean[k] += levels[k] / kFrames;
  }

  const pulsekit3::Geometry shape = radar.geometry();
  std::vector<double> profile;
  for (const Echo echo : baseband(mean, shape.timeStepSeconds)) profile.push_back(std::abs(echo));
  std::vector<double> sorted = profile;
  std::sort(sorted.begin(), sorted.end());
  const double floor = sorted[sorted.size() / 2];

  const auto apart = static_cast<std::ptrdiff_t>(kApartMetres / shape.rangeStepMetres);
  for (auto peak = profile.begin() + apart; profile.end() - peak > apart; ++peak) {
    if (*peak < kPeakToMedian * floor || peak != std::max_element(peak - apart, peak + apart)) continue;
    const auto sampler = static_cast<std::size_t>(peak - profile.begin());
    std::printf("%.2f m  %.0f dB\n", shape.rangeMetres(sampler), 20 * std::log10(*peak / floor));
  }
} catch (const pulsekit3::Error &error) {
  std::fprintf(stderr, "%s\n%s", error.text(), error.trace().c_str());
  return 1;
}
