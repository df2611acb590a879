// What the jobs of a host cost on the bus, counted and modelled by the simulated bench: the same on every machine.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

#include "pauses.h"
#include "radar.h"

namespace pulsekit::benchmark {
namespace {

double milliseconds(uint64_t nanoseconds) { return static_cast<double>(nanoseconds) / 1e6; }

void measure(const Job &job) {
  Radar radar;
  if (job.open) radar.require(open(radar));
  radar.require(job.prepare(radar));
  radar.require(job.run(radar));  // the second run is the typical one
  if (job.restore) radar.require(job.restore(radar));
  QTXSim_ResetStatistics();
  const uint64_t pauses = pausedNanoseconds();
  radar.require(job.run(radar));
  QTXSim_Statistics cost{};
  QTXSim_GetStatistics(&cost);
  std::printf("| %-31s | %5llu | %4llu | %4llu | %6llu | %6llu | %7.2f | %8.2f | %7.0f |\n", job.name,
              static_cast<unsigned long long>(cost.calls), static_cast<unsigned long long>(cost.out_transfers),
              static_cast<unsigned long long>(cost.in_transfers), static_cast<unsigned long long>(cost.bytes_out),
              static_cast<unsigned long long>(cost.bytes_in), milliseconds(cost.spi_nanoseconds),
              milliseconds(cost.nanoseconds), milliseconds(pausedNanoseconds() - pauses));
}

void printJobs() {
  std::puts(
      "| job                             | calls |  out |   in |  bytes |  bytes |  SPI ms |   bus ms |  pauses |");
  std::puts(
      "|                                 |       |      |      |    out |     in |         |          |      ms |");
  std::puts("|---|---|---|---|---|---|---|---|---|");
  for (const Job &job : jobs()) measure(job);
}

// ---- Frames a second -----------------------------------------------------------------------------------------------

struct Mode {
  const char *name;
  std::vector<std::pair<const char *, const char *>> settings;
};

const Mode kModes[] = {{"default settings", {}},
                       {"short sweeps", {{"Iterations", "1"}, {"PulsesPerStep", "9"}}},
                       {"stitched 4-fold", {{"FrameStitch", "4"}}},
                       {"every 8th sampler", {{"Downsampling", "3"}}}};
constexpr const char *kClocks[] = {"6MHz", "15MHz", "30MHz"};
constexpr uint64_t kSecond = 1'000'000'000, kRounds = 10, kRound = kSecond / kRounds, kStop = kRound / 5;

void arrange(Radar &radar, const Mode &mode, const char *clock) {
  radar.require(open(radar));
  for (const auto &[name, text] : mode.settings) radar.require(setText(radar, name, text));
  radar.require(setText(radar, "SPIClockFrequency", clock));
}

double single(const Mode &mode, const char *clock, bool pipelined) {
  Radar radar;
  arrange(radar, mode, clock);
  radar.require(set(radar, "PipeLining", pipelined));
  radar.require(QTX_GetFrameRaw(radar.handle, radar.raw.data(), radar.raw.size()));
  const uint64_t start = QTXSim_Nanoseconds();
  constexpr int frames = 20;
  for (int i = 0; i < frames; ++i) {
    radar.require(QTX_GetFrameRaw(radar.handle, radar.raw.data(), radar.raw.size()));
  }
  return frames * static_cast<double>(kSecond) / static_cast<double>(QTXSim_Nanoseconds() - start);
}

struct Streamed {
  double rate;               // frames a second
  double sweeping, reading;  // seconds of a frame
  uint64_t lost;
};

Streamed streamed(const Mode &mode, const char *clock, uint64_t stop) {
  Radar radar;
  arrange(radar, mode, clock);
  radar.require(QTX_StreamStart(radar.handle, nullptr));
  QTX_FrameInfo last{};
  uint64_t frames = 0, start = QTXSim_Nanoseconds();
  const uint64_t begun = start;
  for (uint64_t round = 0; round <= kRounds; ++round) {
    if (round == 1) {  // as many frames wait for the host as in the end
      frames = 0;
      start = QTXSim_Nanoseconds();
    }
    while (QTXSim_Nanoseconds() < begun + (round + 1) * kRound - stop) {
      uint32_t count = 0;
      radar.require(stream(radar, count, 4, &last));
      frames += count;
    }
    QTXSim_Advance(stop);
  }
  const double passed = static_cast<double>(QTXSim_Nanoseconds() - start) / static_cast<double>(kSecond);
  QTX_StreamStatistics statistics{};
  statistics.size = sizeof statistics;
  radar.require(QTX_StreamStatus(radar.handle, &statistics));
  uint64_t stitches = 0, bytes = 0;
  radar.require(QTX_VarGetValue_ByName(radar.handle, "FrameStitch", &stitches));
  radar.require(QTX_VarGetValue_ByName(radar.handle, "BytesPerCounter", &bytes));
  return {static_cast<double>(frames) / passed, statistics.sweep_time * static_cast<double>(stitches),
          static_cast<double>(last.samplers * bytes * 8) / (std::atof(clock) * 1e6), statistics.lost};
}

void printRates() {
  std::puts(
      "| settings          |   SPI |  sweep | reading |  limit | single | pipelined | streamed |      | stops |      "
      "|");
  std::puts(
      "|                   |       |     ms |      ms |    1/s |    1/s |       1/s |      1/s |    % |   1/s | lost "
      "|");
  std::puts("|---|---|---|---|---|---|---|---|---|---|---|");
  letPausesPass(true);
  for (const Mode &mode : kModes) {
    for (const char *clock : kClocks) {
      const Streamed steady = streamed(mode, clock, 0), stopping = streamed(mode, clock, kStop);
      const double limit = 1 / std::max(steady.sweeping, steady.reading);
      std::printf("| %-17s | %5s | %6.3f | %7.3f | %6.1f | %6.1f | %9.1f | %8.1f | %4.1f | %5.1f | %4llu |\n",
                  mode.name, clock, steady.sweeping * 1e3, steady.reading * 1e3, limit, single(mode, clock, false),
                  single(mode, clock, true), steady.rate, steady.rate / limit * 100, stopping.rate,
                  static_cast<unsigned long long>(stopping.lost));
    }
  }
  letPausesPass(false);
}

}  // namespace
}  // namespace pulsekit::benchmark

int main() {
  pulsekit::benchmark::printJobs();
  std::puts("");
  pulsekit::benchmark::printRates();
  return 0;
}
