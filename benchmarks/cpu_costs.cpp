// What the jobs of a host cost the processor, the simulated bench included. Pauses end at once.
#include <benchmark/benchmark.h>

#include <cstring>

#include "radar.h"
#include "twins.h"

namespace pulsekit::benchmark {
namespace {

void run(::benchmark::State &state, const Job &job) {
  Radar radar;
  if (job.open) radar.require(open(radar));
  radar.require(job.prepare(radar));
  for (auto _ : state) {
    radar.require(job.run(radar));
    if (!job.restore) continue;
    state.PauseTiming();
    radar.require(job.restore(radar));
    state.ResumeTiming();
  }
}

void runTwin(::benchmark::State &state, const Twin &twin, bool header) {
  TwinBench bench(twin, header);
  for (auto _ : state) bench.run();
}

// For scripts/instructions: so many runs of one, and nothing else.
int runOne(const char *name, bool header, int count) {
  for (const Twin &twin : twins()) {
    if (std::strcmp(twin.name, name) != 0) continue;
    TwinBench bench(twin, header);
    for (int i = 0; i < count; ++i) bench.run();
    return 0;
  }
  return 1;
}

}  // namespace
}  // namespace pulsekit::benchmark

int main(int argc, char **argv) {
  using pulsekit::benchmark::Job, pulsekit::benchmark::Twin;
  if (argc == 2 && std::strcmp(argv[1], "--twins") == 0) {
    for (const Twin &twin : pulsekit::benchmark::twins()) std::puts(twin.name);
    return 0;
  }
  if (argc == 5 && std::strcmp(argv[1], "--run") == 0) {
    return pulsekit::benchmark::runOne(argv[2], std::strcmp(argv[3], "header") == 0, std::atoi(argv[4]));
  }
  for (const Job &job : pulsekit::benchmark::jobs()) {
    benchmark::RegisterBenchmark(job.name, [&job](benchmark::State &state) { pulsekit::benchmark::run(state, job); });
  }
  for (const Twin &twin : pulsekit::benchmark::twins()) {
    for (const bool header : {false, true}) {
      const std::string name = std::string(twin.name) + (header ? ", C++ header" : ", C");
      benchmark::RegisterBenchmark(name.c_str(), [&twin, header](benchmark::State &state) {
        pulsekit::benchmark::runTwin(state, twin, header);
      });
    }
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
