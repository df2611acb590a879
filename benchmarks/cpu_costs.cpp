// What the jobs of a host cost the processor, the simulated bench included. Pauses end at once.
#include <benchmark/benchmark.h>

#include "radar.h"

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

}  // namespace
}  // namespace pulsekit::benchmark

int main(int argc, char **argv) {
  using pulsekit::benchmark::Job;
  for (const Job &job : pulsekit::benchmark::jobs()) {
    benchmark::RegisterBenchmark(job.name, [&job](benchmark::State &state) { pulsekit::benchmark::run(state, job); });
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
