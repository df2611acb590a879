// What range_profile and breathing share: a frame without its carrier.
#pragma once

#include <cmath>
#include <complex>
#include <numeric>
#include <vector>

using Echo = std::complex<double>;

constexpr double kPi = 3.14159265358979323846;
constexpr double kLightMetresPerSecond = 299792458;
constexpr double kCarrierHertz = 7.25e9;  // of the pulse that "PGSelect" 5, its automatic value, gives
constexpr double kForget = 0.85;          // from sampler to sampler: an echo is some 12 of them long

// Amplitude and phase of the echo at every sampler: the frame times a rotating phasor, smoothed over the length of a
// pulse by a filter that forgets, once forwards and once backwards.
template <typename Levels>
std::vector<Echo> baseband(const Levels &levels, double timeStepSeconds) {
  const double middle = std::accumulate(levels.begin(), levels.end(), 0.0) / static_cast<double>(levels.size());
  std::vector<Echo> echoes;
  for (const double level : levels) {
    const double phase = 2 * kPi * kCarrierHertz * timeStepSeconds * static_cast<double>(echoes.size());
    echoes.push_back((level - middle) * std::polar(1.0, -phase));
  }
  const auto smooth = [](Echo kept, Echo &echo) { return echo = kForget * kept + (1 - kForget) * echo; };
  Echo kept = 0;
  for (auto echo = echoes.begin(); echo != echoes.end(); ++echo) kept = smooth(kept, *echo);
  for (auto echo = echoes.rbegin(); echo != echoes.rend(); ++echo) kept = smooth(kept, *echo);
  return echoes;
}
