#include "chip/RadarChip.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "base/Random.h"
#include "chip/ChipClocks.h"
#include "chip/ChipTruth.h"
#include "chip/MeasurementUnit.h"
#include "chip/RegisterFile.h"
#include "chip/SamplerArray.h"
#include "world/Scene.h"

namespace pulsekit::simulator {

namespace {

struct Model {
  std::string_view name;
  uint16_t id;
  Generation generation;
  unsigned samplers;
};

constexpr Model kModels[] = {
    {"QTX3400", 0x305, Generation::first, 512},
    {"QTX3500", 0x306, Generation::first, 512},
    {"QTX3701", 0x309, Generation::second, 256},
    {"QTX3702", 0x308, Generation::second, 256},
};

constexpr uint8_t kChipId = 0x02;
constexpr uint8_t kSamplerMemory = 0x20;
constexpr uint8_t kSweepStatus = 0x47;

enum Action : uint8_t {
  kLoadOutputBuffer = 15,
  kResetCounters = 17,
  kStartMeasurement = 20,
  kCalibrateOscillator = 33,
  kClearFrequencyResult = 35,
  kStopMeasurement = 76,
  kStartSweep = 93,
  kResetSweepController = 99,
};

constexpr double kReferenceClock = 100e6;
constexpr uint64_t kNoiseStream = 0x6E6F697365;  // keeps the noise apart from the spread of the specimen

constexpr uint8_t kWriteBit = 0x80;
constexpr uint8_t kMemoryRead = 0x7F;
constexpr uint8_t kContinueBurst = 0x80;

class SimulatedChip final : public RadarChip {
 public:
  SimulatedChip(const Model &model, Clock &clock, uint64_t seed)
      : generation_(model.generation),
        id_(model.id),
        clock_(clock),
        truth_(makeTruth(seed)),
        registers_(model.generation),
        random_(seed ^ kNoiseStream),
        measurement_(registers_, random_),
        samplers_(model.samplers, random_) {
    samplers_.setScene(std::make_shared<Scene>(defaultScene()), now());
    reset();
  }

  void select() override {
    selected_ = true;
    position_ = 0;
  }

  void deselect() override { selected_ = false; }

  uint8_t send() override {
    if (!drivesDataLine() || position_ < 2) return 0;
    const size_t index = position_ - 2;
    if (transaction_ == Transaction::readMemory) return memoryByte(memoryPointer_ + index);
    if (transaction_ != Transaction::readRegister) return 0;
    const size_t place = generation_ == Generation::first ? count_ - 1 - index : index;
    return place < 8 ? static_cast<uint8_t>(value_ >> (8 * place)) : uint8_t{0};
  }

  void receive(uint8_t byte) override {
    if (!powered_ || !selected_) return;
    if (position_ == 0) header_ = byte;
    if (position_ == 1) begin(byte);
    if (position_ >= 2 && transaction_ == Transaction::writeRegister) takeData(byte, position_ - 2);
    ++position_;
  }

  // Frames are read in one go.
  void exchange(const uint8_t *in, uint8_t *out, size_t count) override {
    const bool reading = drivesDataLine() && position_ >= 2 && transaction_ == Transaction::readMemory;
    if (!reading || memoryPointer_ >= memory_.size()) return SpiDevice::exchange(in, out, count);
    const size_t start = std::min(memoryPointer_ + position_ - 2, memory_.size());
    const size_t stored = std::min(count, memory_.size() - start);
    std::copy_n(memory_.begin() + static_cast<std::ptrdiff_t>(start), stored, out);
    std::fill(out + stored, out + count, uint8_t{0});
    position_ += count;
  }

  void setPower(bool on) override {
    if (on && !powered_) reset();
    powered_ = on;
  }

  bool drivesDataLine() const override { return powered_ && selected_; }

  void setScene(std::shared_ptr<const Scene> scene) override {
    if (scene) samplers_.setScene(std::move(scene), now());
  }

  void setReferenceClock(double frequency) override { reference_ = frequency; }

  uint64_t registerValue(uint8_t address) const override { return registers_.value(address, now()); }

  void setRegisterValue(uint8_t address, uint64_t value) override {
    registers_.set(address, ~uint64_t{0}, value, now());
  }

  void stickBits(uint8_t address, uint64_t mask, uint64_t value) override { registers_.stick(address, mask, value); }

  void setChipId(uint16_t id) override {
    id_ = id;
    registers_.set(kChipId, 0xFFFF, id_, now());
  }

  const ChipTruth &truth() const override { return truth_; }

  double windowStart() const override { return clocks().windowStart(); }

  std::vector<double> levels() const override { return samplers_.levels(clocks()); }

 private:
  enum class Transaction { none, readRegister, writeRegister, readMemory };

  uint64_t now() const { return clock_.nanoseconds(); }

  ChipClocks clocks() const { return {registers_, truth_, reference_, now()}; }

  void reset() {
    registers_.reset();
    registers_.set(kChipId, 0xFFFF, id_, now());
    samplers_.reset();
    memory_.clear();
    memoryPointer_ = 0;
    position_ = 0;
    transaction_ = Transaction::none;
  }

  // The header is complete. What is read is what stands there now, however long the transfer takes.
  void begin(uint8_t count) {
    const uint8_t address = header_ & ~kWriteBit;
    count_ = count;
    value_ = 0;
    if (header_ & kWriteBit) {
      transaction_ = count == 0 ? Transaction::none : Transaction::writeRegister;
      if (count == 0) act(address);
      return;
    }
    if (const std::optional<size_t> start = memoryStart(address, count)) {
      transaction_ = Transaction::readMemory;
      memoryPointer_ = *start;
      return;
    }
    transaction_ = Transaction::readRegister;
    value_ = registers_.value(address, now());
  }

  // Where a read of memory begins; nothing for the read of a register.
  std::optional<size_t> memoryStart(uint8_t address, uint8_t count) {
    if (generation_ == Generation::second) {
      if (count != kMemoryRead) return std::nullopt;
      return address - size_t{kSamplerMemory};  // below the memory wraps far past its end
    }
    if (address != kSamplerMemory) return std::nullopt;
    const size_t start = count & kContinueBurst ? burstEnd_ : 0;
    burstEnd_ = start + (count & ~kContinueBurst);
    return start;
  }

  uint8_t memoryByte(size_t index) const { return index < memory_.size() ? memory_[index] : uint8_t{0}; }

  // A write takes effect with its last byte, so that one cut short changes nothing.
  void takeData(uint8_t byte, size_t index) {
    if (index >= count_) return;
    if (generation_ == Generation::first) {
      value_ = value_ << 8 | byte;
    } else if (index < 8) {
      value_ |= uint64_t{byte} << (8 * index);
    }
    if (index + 1 == count_) registers_.write(header_ & ~kWriteBit, value_, count_, now());
  }

  void act(uint8_t action) {
    switch (action) {
      case kLoadOutputBuffer:
        samplers_.image(registers_, now(), memory_);
        break;
      case kResetCounters:
        samplers_.clear(now());
        break;
      case kStartSweep:
        startSweep();
        break;
      case kResetSweepController:
        samplers_.stopSweep(now());
        registers_.set(kSweepStatus, sweepingBit(), 0, now());
        break;
      default:
        if (generation_ == Generation::second) measure(action);
    }
  }

  void measure(uint8_t action) {
    if (action == kStartMeasurement) measurement_.start(clocks());
    if (action == kStopMeasurement) measurement_.stop(now());
    if (action == kCalibrateOscillator) measurement_.calibrateOscillator(clocks());
    if (action == kClearFrequencyResult) measurement_.clearFrequency(now());
  }

  uint64_t sweepingBit() const { return generation_ == Generation::first ? 1 << 15 : 1; }

  void startSweep() {
    const uint64_t end = samplers_.startSweep(clocks());
    registers_.set(kSweepStatus, sweepingBit(), sweepingBit(), now());
    registers_.setLater(kSweepStatus, sweepingBit(), 0, end, now());
  }

  const Generation generation_;
  uint16_t id_;
  Clock &clock_;
  const ChipTruth truth_;
  double reference_ = kReferenceClock;
  RegisterFile registers_;
  Random random_;
  MeasurementUnit measurement_;
  SamplerArray samplers_;
  bool powered_ = false;

  bool selected_ = false;
  size_t position_ = 0;  // bytes since the chip was selected
  uint8_t header_ = 0;
  unsigned count_ = 0;
  Transaction transaction_ = Transaction::none;
  uint64_t value_ = 0;

  std::vector<uint8_t> memory_;
  size_t memoryPointer_ = 0;
  size_t burstEnd_ = 0;
};

}  // namespace

std::unique_ptr<RadarChip> makeRadarChip(std::string_view model, Clock &clock, uint64_t seed) {
  for (const Model &known : kModels)
    if (known.name == model) return std::make_unique<SimulatedChip>(known, clock, seed);
  return nullptr;
}

}  // namespace pulsekit::simulator
