// Tests a board as it comes from production; the exit code tells whether it passed.
#include <algorithm>
#include <cstdio>
#include <numeric>

#include "pulsekit3.hpp"

using Bytes = std::vector<std::uint8_t>;
using pulsekit3::Radar;

constexpr std::uint32_t kScratch = 0xE000;  // a block of the flash, given back as it was

static bool registersKeep(Radar &radar) {
  const std::uint64_t before = radar.readRegister(0x31, 3);
  bool kept = true;
  for (const std::uint64_t value : {0x000000u, 0xFFFFFFu, 0xA5C35Au}) {
    radar.writeRegister(0x31, 3, value);
    kept = kept && radar.readRegister(0x31, 3) == value;
  }
  radar.writeRegister(0x31, 3, before);
  return kept;
}

static bool flashKeeps(Radar &radar) {
  const Bytes before = radar.readFlash(kScratch, 4096);
  Bytes pattern(4096);
  std::iota(pattern.begin(), pattern.end(), std::uint8_t{0});
  radar.writeFlash(kScratch, pattern);
  const bool kept = radar.readFlash(kScratch, 4096) == pattern;
  radar.writeFlash(kScratch, before);
  return kept;
}

static bool startsAgain(Radar &radar) {
  radar.powerOff();
  radar.powerOn();
  return radar.state() == pulsekit3::State::open && radar["ChipID"] == 777;
}

static bool levelsAreRight(Radar &radar) {
  const std::vector<double> levels = radar.frame();
  const auto [least, most] = std::minmax_element(levels.begin(), levels.end());
  return *least > 40 && *most < 60 && *least < *most;
}

static bool samplesInTime(Radar &radar) {
  const double nominal = radar["SamplesPerSecond"];
  radar.calibrate();
  return std::abs(radar["SamplesPerSecond"] / nominal - 1) < 0.05;
}

int main() try {
  Radar radar = pulsekit3::openRadar();
  std::printf("board %s\n", radar.boardInfo().name.c_str());
  const std::pair<const char *, bool (*)(Radar &)> tests[] = {{"registers keep what is written", registersKeep},
                                                              {"flash keeps what is written", flashKeeps},
                                                              {"starts again after power off", startsAgain},
                                                              {"levels lie around the middle", levelsAreRight},
                                                              {"samples at the right rate", samplesInTime}};
  int failures = 0;
  for (const auto &[name, passes] : tests) {
    const bool passed = passes(radar);
    std::printf("%s  %s\n", passed ? "ok  " : "FAIL", name);
    failures += !passed;
  }
  std::printf("%d of %d failed\n", failures, static_cast<int>(std::size(tests)));
  return failures > 0;
} catch (const pulsekit3::Error &error) {
  std::fprintf(stderr, "%s\n%s", error.text(), error.trace().c_str());
  return 1;
}
