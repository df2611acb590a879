#include "chip/ChipClocks.h"

namespace pulsekit::simulator {

double ChipClocks::oscillator() const {
  const bool enabled = registers.field(0x58, 9, 9, now);
  if (!enabled) return 0;
  // The tuner's finding counts once it has one.
  const bool tunerEnabled = registers.field(0x58, 4, 4, now);
  const uint64_t tuned = registers.field(0x5c, 10, 2, now);
  const uint64_t configuration = tunerEnabled && tuned ? tuned : registers.field(0x58, 18, 10, now);
  const double frequency = truth.oscillatorFrequency(static_cast<unsigned>(configuration));
  return registers.field(0x58, 19, 19, now) ? frequency / 2 : frequency;
}

double ChipClocks::master() const {
  const bool enabled = registers.field(0x58, 5, 5, now);
  if (!enabled) return 0;
  const double source = registers.field(0x58, 8, 8, now) ? oscillator() : reference;
  return source / static_cast<double>(1u << registers.field(0x58, 7, 6, now));
}

double ChipClocks::measurement() const {
  const bool enabled = registers.field(0x58, 0, 0, now);
  if (!enabled) return 0;
  return registers.field(0x58, 2, 2, now) ? oscillator() : reference;
}

double ChipClocks::samplerDelay() const {
  const uint64_t fine = registers.field(0x6a, 2, 2, now) ? registers.value(0x6d, now) : 0;
  const double chain = truth.sampler.delay(registers.field(0x6b, 5, 0, now), registers.field(0x6c, 5, 0, now), fine);
  const bool staggered = registers.field(0x61, 0, 0, now);
  const double clock = master();
  if (!staggered || clock <= 0) return chain;
  return chain + static_cast<double>(registers.field(0x62, 7, 0, now)) / clock;
}

double ChipClocks::sendPulseDelay() const {
  const uint64_t fine = registers.field(0x6a, 1, 1, now) ? registers.value(0x70, now) : 0;
  return truth.sendPulse.delay(registers.field(0x6e, 3, 0, now), registers.field(0x6f, 5, 0, now), fine);
}

double ChipClocks::windowStart() const { return samplerDelay() - sendPulseDelay(); }

}  // namespace pulsekit::simulator
