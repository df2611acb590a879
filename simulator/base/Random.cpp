#include "base/Random.h"

#include <algorithm>
#include <cmath>

namespace pulsekit::simulator {

// SplitMix64
uint64_t Random::bits() {
  state_ += 0x9E3779B97F4A7C15;
  uint64_t mixed = state_;
  mixed = (mixed ^ mixed >> 30) * 0xBF58476D1CE4E5B9;
  mixed = (mixed ^ mixed >> 27) * 0x94D049BB133111EB;
  return mixed ^ mixed >> 31;
}

double Random::uniform() { return static_cast<double>(bits() >> 11) * 0x1p-53; }

// The polar method yields two at a time.
double Random::normal() {
  if (hasSpare_) {
    hasSpare_ = false;
    return spare_;
  }
  double x, y, square;
  do {
    x = spread();
    y = spread();
    square = x * x + y * y;
  } while (square >= 1 || square == 0);
  const double scale = std::sqrt(-2 * std::log(square) / square);
  spare_ = y * scale;
  hasSpare_ = true;
  return x * scale;
}

double Random::normalCount(double mean, double variance, double most) {
  return std::clamp(std::round(mean + normal() * std::sqrt(variance)), 0.0, most);
}

double Random::binomial(double trials, double probability) {
  if (trials <= 0 || probability <= 0) return 0;
  if (probability >= 1) return trials;
  if (probability > 0.5) return trials - binomial(trials, 1 - probability);
  const double mean = trials * probability;
  if (mean > 10) return normalCount(mean, mean * (1 - probability), trials);

  // Inversion: walk the distribution until it has swallowed the random number.
  double left = uniform();
  double weight = std::exp(trials * std::log1p(-probability));
  const double odds = probability / (1 - probability);
  double hits = 0;
  while (left > weight && hits < trials && weight > 0) {
    left -= weight;
    ++hits;
    weight *= odds * (trials - hits + 1) / hits;
  }
  return hits;
}

}  // namespace pulsekit::simulator
