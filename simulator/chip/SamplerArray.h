// The samplers of a chip with their counters, and the sweep that fills them.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "base/Random.h"
#include "chip/ChipClocks.h"
#include "chip/RegisterFile.h"
#include "chip/Sweep.h"
#include "world/Scene.h"

namespace pulsekit::simulator {

// Hits are drawn only when somebody asks for the counters.
class SamplerArray {
 public:
  SamplerArray(unsigned samplers, Random &random) : random_(random), levels_(samplers), counters_(samplers) {}

  void reset();
  void setScene(std::shared_ptr<const Scene> scene, uint64_t now);

  uint64_t startSweep(const ChipClocks &clocks);  // the time at which it ends
  void stopSweep(uint64_t now);
  void clear(uint64_t now);  // the counters; a sweep goes on

  // The mean level at every sampler now.
  std::vector<double> levels(const ChipClocks &clocks) const;

  // The counters as sampler memory shows them.
  void image(const RegisterFile &registers, uint64_t now, std::vector<uint8_t> &image);

 private:
  void countUpTo(uint64_t now);
  double sceneSeconds(uint64_t time) const;

  Random &random_;
  std::shared_ptr<const Scene> scene_;
  uint64_t sceneSince_ = 0;

  std::optional<Sweep> sweep_;
  Pulse pulse_{};
  SamplingWindow window_{};
  bool levelsStand_ = false;  // nothing moves, and nothing changed since they were worked out

  std::vector<double> levels_;
  std::vector<uint32_t> counters_;
};

}  // namespace pulsekit::simulator
