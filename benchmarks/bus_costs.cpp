// What the jobs of a host cost on the bus, counted and modelled by the simulated bench: the same on every machine.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Pulsekit3_settings.h"
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

// ---- Settings in groups --------------------------------------------------------------------------------------------

struct Texts {
  std::vector<std::string> names, values;
};

// Whole-number settings of the radar, at most so many, each with another value than it has.
Texts otherValues(Radar &radar, size_t most) {
  if (most == 1) return {{"PulsesPerStep"}, {"21"}};
  std::string list(16384, '\0');
  radar.require(QTX_ListVariables(radar.handle, list.data(), static_cast<int32_t>(list.size())));
  std::istringstream names(list.c_str());
  Texts texts;
  for (std::string name; texts.names.size() < most && std::getline(names, name, QTX_ListDelimiter());) {
    uint64_t min = 0, max = 0;
    uint32_t type = 0, writable = 0, automatic = 0;
    int64_t value = 0;
    const bool tunes = name == "DCOTargetFrequency" || name == "RadarModulePower";
    if (tunes || QTX_VarGetType_ByName(radar.handle, name.c_str(), &type) ||
        !QTX_VarTypeIsInt(static_cast<uint16_t>(type)))
      continue;
    if (QTX_VarGetIntProperties_ByName(radar.handle, name.c_str(), &min, &max, &writable, &automatic)) continue;
    if (!writable || QTX_VarGetIntValue_ByName(radar.handle, name.c_str(), &value)) continue;
    texts.names.push_back(name);
    texts.values.push_back(std::to_string(value < static_cast<int64_t>(max) ? value + 1 : value - 1));
  }
  return texts;
}

QTXSim_Statistics costOfSetting(size_t most, bool together, size_t &count) {
  Radar radar;
  radar.require(open(radar));
  const Texts texts = otherValues(radar, most);
  count = texts.names.size();
  std::vector<const char *> names, values;
  for (size_t i = 0; i < count; ++i) {
    names.push_back(texts.names[i].c_str());
    values.push_back(texts.values[i].c_str());
  }
  QTXSim_ResetStatistics();
  uint32_t changes = 0;
  if (together) {
    radar.require(
        QTX_VarsSetMany(radar.handle, names.data(), values.data(), static_cast<uint32_t>(count), nullptr, &changes));
  } else {
    for (size_t i = 0; i < count; ++i) radar.require(setText(radar, names[i], values[i]));
  }
  QTXSim_Statistics cost{};
  QTXSim_GetStatistics(&cost);
  return cost;
}

void printGroups() {
  std::puts("| settings | single: out |   in |  bus ms | group: out |   in |  bus ms |");
  std::puts("|---|---|---|---|---|---|---|");
  for (const size_t most : {size_t{1}, size_t{10}, SIZE_MAX}) {
    size_t count = 0;
    const QTXSim_Statistics single = costOfSetting(most, false, count), group = costOfSetting(most, true, count);
    std::printf("| %8zu | %11llu | %4llu | %7.2f | %10llu | %4llu | %7.2f |\n", count,
                static_cast<unsigned long long>(single.out_transfers),
                static_cast<unsigned long long>(single.in_transfers), milliseconds(single.nanoseconds),
                static_cast<unsigned long long>(group.out_transfers),
                static_cast<unsigned long long>(group.in_transfers), milliseconds(group.nanoseconds));
  }
}

}  // namespace
}  // namespace pulsekit::benchmark

int main() {
  pulsekit::benchmark::printJobs();
  std::puts("");
  pulsekit::benchmark::printRates();
  std::puts("");
  pulsekit::benchmark::printGroups();
  return 0;
}
