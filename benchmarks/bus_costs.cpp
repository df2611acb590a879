// What the jobs of a host cost on the bus, counted and modelled by the simulated bench: the same on every machine.
#include <cstdio>

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

}  // namespace
}  // namespace pulsekit::benchmark

int main() {
  std::puts(
      "| job                             | calls |  out |   in |  bytes |  bytes |  SPI ms |   bus ms |  pauses |");
  std::puts(
      "|                                 |       |      |      |    out |     in |         |          |      ms |");
  std::puts("|---|---|---|---|---|---|---|---|---|");
  for (const pulsekit::benchmark::Job &job : pulsekit::benchmark::jobs()) pulsekit::benchmark::measure(job);
  return 0;
}
