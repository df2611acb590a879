// Random numbers that are the same on every platform for the same seed.
#pragma once

#include <cstdint>

namespace pulsekit::simulator {

class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed) {}

  uint64_t bits();
  double uniform();                                               // [0, 1)
  double spread() { return 2 * uniform() - 1; }                   // [-1, 1)
  double normal();                                                // mean 0, standard deviation 1
  double normalCount(double mean, double variance, double most);  // a whole number from 0 to most
  double binomial(double trials, double probability);

 private:
  uint64_t state_;
  double spare_ = 0;
  bool hasSpare_ = false;
};

}  // namespace pulsekit::simulator
