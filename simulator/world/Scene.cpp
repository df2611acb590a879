#include "world/Scene.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace pulsekit::simulator {

namespace {

constexpr double kSpeedOfLight = 299792458;
constexpr double kNearest = 0.05;  // metres; nearer than this an echo grows no further
constexpr double kReach = 6;       // of a pulse, in widths of its envelope

void addPulse(const Pulse &pulse, const SamplingWindow &window, double delay, double amplitude,
              std::vector<double> &levels) {
  if (!std::isfinite(delay)) return;
  const double reach = kReach * pulse.width;
  const double count = static_cast<double>(levels.size());
  const double first = std::ceil((delay - reach - window.start) / window.interval);
  const double last = std::floor((delay + reach - window.start) / window.interval);
  const size_t end = static_cast<size_t>(std::clamp(last + 1, 0.0, count));
  for (size_t k = static_cast<size_t>(std::clamp(first, 0.0, count)); k < end; ++k)
    levels[k] += amplitude * pulse.at(window.start + static_cast<double>(k) * window.interval - delay);
}

}  // namespace

double Reflector::rangeAt(double seconds) const {
  if (motion == Motion::speed) return range + speed * seconds;
  if (motion == Motion::breathing) return range + amplitude * std::sin(2 * std::numbers::pi * rate * seconds);
  return range;
}

double Pulse::at(double time) const {
  const double widths = time / width;
  return std::exp(-0.5 * widths * widths) * std::cos(2 * std::numbers::pi * centre * time);
}

// 5.25 to 11.25 GHz, with bandwidths (at a tenth of the power) that grow from 1.4 to 3.2 GHz.
Pulse pulseOf(unsigned pgSelect) {
  const double bandwidth = 1.4e9 + 0.12e9 * pgSelect;
  return {5.25e9 + 0.4e9 * pgSelect, std::sqrt(std::numbers::ln10) / (std::numbers::pi * bandwidth)};
}

bool Scene::still() const {
  return std::all_of(reflectors.begin(), reflectors.end(),
                     [](const Reflector &each) { return each.motion == Reflector::Motion::still; });
}

void Scene::receive(const Pulse &pulse, const SamplingWindow &window, double seconds,
                    std::vector<double> &levels) const {
  std::fill(levels.begin(), levels.end(), kMidScale);
  addPulse(pulse, window, 0, directCoupling, levels);
  for (const Reflector &reflector : reflectors) {
    const double range = std::fabs(reflector.rangeAt(seconds));
    const double nearest = std::max(range, kNearest);
    addPulse(pulse, window, 2 * range / kSpeedOfLight, reflector.strength / (nearest * nearest), levels);
  }
}

Scene defaultScene() {
  Scene scene;
  scene.noise = 40;
  scene.directCoupling = 500;
  scene.reflectors.push_back({.range = 0.75, .strength = 300});
  return scene;
}

const char *sceneFault(const Scene &scene) {
  const auto finite = [](double value) { return std::isfinite(value); };
  if (!finite(scene.noise) || scene.noise < 0) return "noise must be 0 or more";
  if (!finite(scene.directCoupling)) return "direct_coupling must be a number";
  for (const std::optional<double> &time : {scene.unpluggedAt, scene.pluggedAt}) {
    if (time && !(*time >= 0 && *time < 1e9)) return "unplugged_at and plugged_at must be seconds from 0 to 1e9";
  }
  for (const Reflector &reflector : scene.reflectors) {
    if (!finite(reflector.range) || reflector.range < 0) return "range must be 0 or more";
    if (!finite(reflector.strength)) return "strength must be a number";
    if (!finite(reflector.speed)) return "speed must be a number";
    if (!finite(reflector.amplitude)) return "amplitude must be a number";
    if (!finite(reflector.rate)) return "rate must be a number";
  }
  return nullptr;
}

}  // namespace pulsekit::simulator
