#include "chip/ChipTruth.h"

#include <algorithm>

#include "base/Random.h"

namespace pulsekit::simulator {

namespace {

// Nominal values and what one specimen, and one element within it, may be off.
constexpr double kCoarse = 1.25e-9;
constexpr double kMedium = 42e-12;
constexpr double kFine = 1.5e-12;
constexpr double kProcessSpread = 0.05;
constexpr double kCoarseSpread = 0.03;
constexpr double kMediumSpread = 0.08;
constexpr double kFineSpread = 0.10;

constexpr double kSamplesPerSecond = 36e9;
constexpr double kLeastSamplingError = 0.02;
constexpr double kSamplingErrorSpread = 0.02;

constexpr double kInsertionDelay = 1.9e-9;
constexpr double kPulseGeneratorDelay = 1.1e-9;

constexpr double kOscillatorBase = 60e6;
constexpr double kOscillatorStep = 0.7e6;

template <size_t n>
void fill(std::array<double, n> &elements, double nominal, double elementSpread, Random &random) {
  for (double &element : elements) element = nominal * (1 + elementSpread * random.spread());
}

DelayChain makeChain(double process, Random &random) {
  DelayChain chain;
  fill(chain.coarse, kCoarse * process, kCoarseSpread, random);
  fill(chain.medium, kMedium * process, kMediumSpread, random);
  fill(chain.fine, kFine * process, kFineSpread, random);
  return chain;
}

template <size_t n>
double sum(const std::array<double, n> &elements, uint64_t count) {
  double total = 0;
  for (size_t i = 0; i < std::min<uint64_t>(count, n); ++i) total += elements[i];
  return total;
}

}  // namespace

double DelayChain::delay(uint64_t coarseSetting, uint64_t mediumSetting, uint64_t fineSetting) const {
  return sum(coarse, coarseSetting) + sum(medium, mediumSetting) + sum(fine, fineSetting);
}

double ChipTruth::oscillatorFrequency(unsigned configuration) const {
  return oscillatorSpeed * (kOscillatorBase + kOscillatorStep * configuration);
}

ChipTruth makeTruth(uint64_t seed) {
  Random random(seed);
  ChipTruth truth;
  const double process = 1 + kProcessSpread * random.spread();
  const double samplingError = kLeastSamplingError + kSamplingErrorSpread * random.uniform();
  truth.samplesPerSecond = kSamplesPerSecond * (random.uniform() < 0.5 ? 1 - samplingError : 1 + samplingError);
  truth.sampler = makeChain(process, random);
  truth.sendPulse = makeChain(process, random);
  truth.insertionDelay = kInsertionDelay * process;
  truth.pulseGeneratorDelay = kPulseGeneratorDelay * process;
  truth.oscillatorSpeed = 1 + kProcessSpread * random.spread();
  return truth;
}

}  // namespace pulsekit::simulator
