#include "chip/SamplerArray.h"

#include <algorithm>
#include <utility>

namespace pulsekit::simulator {

namespace {

Pulse pulseSelected(const ChipClocks &clocks) {
  return pulseOf(static_cast<unsigned>(clocks.registers.field(0x50, 3, 0, clocks.now)));
}

SamplingWindow samplingWindow(const ChipClocks &clocks) {
  return {clocks.windowStart(), 1 / clocks.truth.samplesPerSecond};
}

}  // namespace

void SamplerArray::reset() {
  sweep_.reset();
  std::fill(counters_.begin(), counters_.end(), 0);
}

void SamplerArray::setScene(std::shared_ptr<const Scene> scene, uint64_t now) {
  countUpTo(now);
  scene_ = std::move(scene);
  levelsStand_ = false;
  sceneSince_ = now;
}

uint64_t SamplerArray::startSweep(const ChipClocks &clocks) {
  countUpTo(clocks.now);
  sweep_.emplace(readSweepSettings(clocks), clocks.now);
  const Pulse pulse = pulseSelected(clocks);
  const SamplingWindow window = samplingWindow(clocks);
  levelsStand_ = levelsStand_ && pulse == pulse_ && window == window_;
  pulse_ = pulse;
  window_ = window;
  return sweep_->end();
}

void SamplerArray::stopSweep(uint64_t now) {
  countUpTo(now);
  sweep_.reset();
}

void SamplerArray::clear(uint64_t now) {
  uint64_t middle = 0;
  if (sweep_) sweep_->advance(now, middle);
  std::fill(counters_.begin(), counters_.end(), 0);
}

void SamplerArray::countUpTo(uint64_t now) {
  if (!sweep_) return;
  uint64_t middle = 0;
  const std::vector<SweepPart> parts = sweep_->advance(now, middle);
  if (parts.empty()) return;

  if (!levelsStand_) scene_->receive(pulse_, window_, sceneSeconds(middle), levels_);
  levelsStand_ = scene_->still();
  for (size_t k = 0; k < counters_.size(); ++k)
    for (const SweepPart &part : parts) {
      const double hits = drawHits(sweep_->settings(), part, levels_[k], scene_->noise, random_);
      counters_[k] += static_cast<uint32_t>(static_cast<uint64_t>(hits));  // wraps as 32 flip-flops do
    }
}

double SamplerArray::sceneSeconds(uint64_t time) const {
  return static_cast<double>(time - std::min(time, sceneSince_)) * 1e-9;
}

std::vector<double> SamplerArray::levels(const ChipClocks &clocks) const {
  std::vector<double> levels(counters_.size());
  scene_->receive(pulseSelected(clocks), samplingWindow(clocks), sceneSeconds(clocks.now), levels);
  return levels;
}

// Of every group of samplers the first; of every counter the bits from CounterLSb to CounterMSb, in whole bytes.
void SamplerArray::image(const RegisterFile &registers, uint64_t now, std::vector<uint8_t> &image) {
  countUpTo(now);
  const size_t group = size_t{1} << registers.field(0x21, 1, 0, now);
  const uint64_t low = registers.field(0x21, 6, 2, now);
  const uint64_t high = registers.field(0x21, 11, 7, now);
  const uint64_t width = high >= low ? high - low + 1 : 0;
  const uint64_t bytes = std::max<uint64_t>((width + 7) / 8, 1);

  image.resize(counters_.size() / group * bytes);
  uint8_t *out = image.data();
  for (size_t k = 0; k < counters_.size(); k += group) {
    const uint64_t value = uint64_t{counters_[k]} >> low & ((uint64_t{1} << width) - 1);
    for (uint64_t byte = 0; byte < bytes; ++byte) *out++ = static_cast<uint8_t>(value >> (8 * byte));
  }
}

}  // namespace pulsekit::simulator
