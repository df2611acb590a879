#include "chip/Sweep.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "base/Clock.h"
#include "world/Scene.h"

namespace pulsekit::simulator {

namespace {

constexpr double kFar = 8;             // standard deviations beyond which a threshold is never missed or met
constexpr double kNormalVariance = 6;  // from here on the normal limit stands for the sum of the steps

double atLeastOne(uint64_t value) { return static_cast<double>(std::max<uint64_t>(value, 1)); }

double chanceAbove(double threshold, double level, double noise) {
  if (noise <= 0) return level > threshold ? 1 : 0;
  return 0.5 * std::erfc((threshold - level) / noise * (std::numbers::sqrt2 / 2));
}

// The integrals of the normal distribution function P and of P(1 - P) from minus infinity to u.
struct Integrals {
  double chance, variance;
};

Integrals integrals(double u) {
  if (u < -kFar) return {0, 0};
  if (u > kFar) return {u, std::numbers::inv_sqrtpi};
  const double density = std::exp(-0.5 * u * u) * (std::numbers::inv_sqrtpi / std::numbers::sqrt2);
  const double chance = 0.5 * std::erfc(-u * (std::numbers::sqrt2 / 2));
  return {u * chance + density,
          u * chance * (1 - chance) + density * (1 - 2 * chance) + std::numbers::inv_sqrtpi * 0.5 * std::erfc(-u)};
}

struct Moments {
  double mean, variance;
};

// The DAC glides from code to code, so a step's threshold is the middle between its own code and the next.
double thresholdOf(const SweepSettings &settings, double step) {
  return settings.dacMin + settings.dacStep * (step + 0.5);
}

// With steps closer than the noise is wide, the sum over the steps is an integral.
Moments denseMoments(const SweepSettings &settings, const SweepPart &part, double trials, double level, double noise) {
  const double first = settings.dacMin + settings.dacStep * part.firstStep;
  const double end = settings.dacMin + settings.dacStep * part.endStep;
  const Integrals high = integrals((level - first) / noise);
  const Integrals low = integrals((level - end) / noise);
  const double scale = trials * noise / settings.dacStep;
  return {scale * (high.chance - low.chance), scale * (high.variance - low.variance)};
}

// Steps below firstOpen are certain to be exceeded, those from endOpen on certain not to be.
struct OpenSteps {
  double first, end;
};

OpenSteps openSteps(const SweepSettings &settings, const SweepPart &part, double level, double noise) {
  const double below = (level - kFar * noise - settings.dacMin) / settings.dacStep - 0.5;
  const double above = (level + kFar * noise - settings.dacMin) / settings.dacStep - 0.5;
  return {std::clamp(std::floor(below), part.firstStep, part.endStep),
          std::clamp(std::ceil(above) + 1, part.firstStep, part.endStep)};
}

Moments sparseMoments(const SweepSettings &settings, const SweepPart &part, double trials, double level, double noise) {
  const OpenSteps open = openSteps(settings, part, level, noise);
  Moments moments = {trials * (open.first - part.firstStep), 0};
  for (double step = open.first; step < open.end; ++step) {
    const double chance = chanceAbove(thresholdOf(settings, step), level, noise);
    moments.mean += trials * chance;
    moments.variance += trials * chance * (1 - chance);
  }
  return moments;
}

double drawStepByStep(const SweepSettings &settings, const SweepPart &part, double trials, double level, double noise,
                      Random &random) {
  const OpenSteps open = openSteps(settings, part, level, noise);
  double hits = trials * (open.first - part.firstStep);
  for (double step = open.first; step < open.end; ++step)
    hits += random.binomial(trials, chanceAbove(thresholdOf(settings, step), level, noise));
  return hits;
}

double drawPulses(const SweepSettings &settings, const SweepPart &part, double trials, double level, double noise,
                  Random &random) {
  if (trials <= 0) return 0;
  const double most = trials * (part.endStep - part.firstStep);
  if (settings.fixedComparator) return *settings.fixedComparator ? most : 0;
  if (settings.fixedThreshold) return random.binomial(most, chanceAbove(*settings.fixedThreshold, level, noise));
  const Moments moments = noise >= settings.dacStep ? denseMoments(settings, part, trials, level, noise)
                                                    : sparseMoments(settings, part, trials, level, noise);
  if (moments.variance >= kNormalVariance) return random.normalCount(moments.mean, moments.variance, most);
  return drawStepByStep(settings, part, trials, level, noise, random);
}

}  // namespace

SweepSettings readSweepSettings(const ChipClocks &clocks) {
  const auto field = [&](uint8_t address, unsigned high, unsigned low) {
    return clocks.registers.field(address, high, low, clocks.now);
  };
  const auto number = [&](uint8_t address, unsigned high) { return static_cast<double>(field(address, high, 0)); };

  SweepSettings settings{};
  settings.iterations = number(0x3c, 15);
  settings.pulsesPerStep = number(0x31, 23);
  settings.dacMin = number(0x3a, 12);
  settings.dacStep = atLeastOne(field(0x3b, 12, 0));
  const double dacMax = number(0x39, 12);
  settings.steps = dacMax < settings.dacMin ? 0 : std::floor((dacMax - settings.dacMin) / settings.dacStep) + 1;
  settings.turnsAround = field(0x38, 0, 0);
  if (field(0x51, 13, 13)) settings.fixedThreshold = number(0x51, 12);
  if (field(0x2a, 3, 3)) settings.fixedComparator = field(0x2a, 2, 2);

  // Undivided sampling of divided sending sees the pulse only now and then.
  const double divider = atLeastOne(field(0x60, 7, 0));
  const bool sampleEvery = field(0x26, 0, 0);
  const bool sendEvery = field(0x50, 4, 4);
  settings.signalShare = sampleEvery && !sendEvery ? 1 / divider : 1;

  const double clock = clocks.master();
  if (clock <= 0 || settings.steps <= 0) return settings;
  const double pulse = sampleEvery ? 1 : divider;
  const double regular = number(0x34, 15) + number(0x37, 15);
  const double perIteration = settings.steps * settings.pulsesPerStep * pulse + number(0x33, 15) + number(0x36, 15) +
                              (settings.steps - 1) * regular;
  const double periods = number(0x32, 15) + settings.iterations * perIteration + number(0x35, 15);
  if (settings.iterations > 0 && settings.pulsesPerStep > 0) settings.seconds = periods / clock;
  return settings;
}

double drawHits(const SweepSettings &settings, const SweepPart &part, double level, double noise, Random &random) {
  const double pulses = part.iterations * settings.pulsesPerStep;
  const double sent = std::floor(pulses * settings.signalShare);
  return drawPulses(settings, part, sent, level, noise, random) +
         drawPulses(settings, part, pulses - sent, kMidScale, noise, random);
}

Sweep::Sweep(const SweepSettings &settings, uint64_t start)
    : settings_(settings), start_(start), end_(start + nanosecondsOf(settings.seconds)) {}

double Sweep::stepsDoneAt(uint64_t now) const {
  const double total = settings_.seconds > 0 ? settings_.iterations * settings_.steps : 0;
  if (now >= end_) return total;
  return std::floor(total * static_cast<double>(now - start_) / static_cast<double>(end_ - start_));
}

std::vector<SweepPart> Sweep::advance(uint64_t now, uint64_t &middle) {
  const double total = std::max(settings_.iterations * settings_.steps, 1.0);
  const double first = done_;
  done_ = stepsDoneAt(now);
  middle = start_ + static_cast<uint64_t>(static_cast<double>(end_ - start_) * (first + done_) / (2 * total));

  std::vector<SweepPart> parts;
  if (done_ <= first) return parts;
  const double steps = settings_.steps;
  double iteration = std::floor(first / steps);
  const double last = std::floor(done_ / steps);
  const double begun = first - iteration * steps;
  if (iteration == last) {
    appendSteps(iteration, begun, done_ - last * steps, parts);
    return parts;
  }
  if (begun > 0) appendSteps(iteration++, begun, steps, parts);
  if (last > iteration) parts.push_back({last - iteration, 0, steps});
  appendSteps(last, 0, done_ - last * steps, parts);
  return parts;
}

void Sweep::appendSteps(double iteration, double first, double last, std::vector<SweepPart> &parts) const {
  if (last <= first) return;
  const bool down = settings_.turnsAround && std::fmod(iteration, 2) == 1;
  if (down) {
    parts.push_back({1, settings_.steps - last, settings_.steps - first});
  } else {
    parts.push_back({1, first, last});
  }
}

}  // namespace pulsekit::simulator
