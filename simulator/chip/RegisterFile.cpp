#include "chip/RegisterFile.h"

#include <algorithm>

namespace pulsekit::simulator {

namespace {

constexpr uint64_t bits(unsigned count) { return count >= 64 ? ~uint64_t{0} : (uint64_t{1} << count) - 1; }

constexpr bool kReadOnly = true;
constexpr bool kWritable = false;

constexpr RegisterRow kSecondGeneration[] = {
    {0x00, 1, bits(8), 0x00, kReadOnly},
    {0x01, 1, bits(8), 0xFF, kReadOnly},
    {0x02, 2, bits(16), 0, kReadOnly},
    {0x03, 1, bits(4), 1 << 3, kWritable},
    {0x21, 2, bits(12), 31 << 7, kWritable},
    {0x26, 1, bits(1), 0, kWritable},
    {0x2a, 1, bits(4), 0, kWritable},
    {0x31, 3, bits(24), 20, kWritable},
    {0x32, 2, bits(16), 10, kWritable},
    {0x33, 2, bits(16), 1, kWritable},
    {0x34, 2, bits(16), 1, kWritable},
    {0x35, 2, bits(16), 0, kWritable},
    {0x36, 2, bits(16), 0, kWritable},
    {0x37, 2, bits(16), 0, kWritable},
    {0x38, 1, bits(4), 1, kWritable},
    {0x39, 2, bits(13), 8184, kWritable},
    {0x3a, 2, bits(13), 0, kWritable},
    {0x3b, 4, bits(26), 8 << 13 | 8, kWritable},
    {0x3c, 2, bits(16), 10, kWritable},
    {0x47, 1, bits(1), 0, kReadOnly},
    {0x50, 1, bits(6), 5, kWritable},
    {0x51, 2, bits(14), 0, kWritable},
    {0x58, 5, bits(36), 10 << 20 | 216 << 10 | 1 << 5 | 1 << 2, kWritable},
    {0x59, 4, bits(32), 10000, kWritable},
    {0x5a, 4, bits(32), 21100, kWritable},
    {0x5b, 4, bits(32), 0, kReadOnly},
    {0x5c, 2, bits(11), 0, kReadOnly},
    {0x60, 1, bits(8), 1, kWritable},
    {0x61, 1, bits(7), 63 << 1 | 1, kWritable},
    {0x62, 1, bits(8), 0, kWritable},
    {0x64, 3, bits(20), 0x90000, kWritable},
    {0x6a, 1, bits(6), 0, kWritable},
    {0x6b, 1, bits(6), 0, kWritable},
    {0x6c, 1, bits(6), 0, kWritable},
    {0x6d, 8, bits(63), 0, kWritable},
    {0x6e, 1, bits(4), 0, kWritable},
    {0x6f, 1, bits(6), 0, kWritable},
    {0x70, 8, bits(63), 0, kWritable},
    {0x71, 1, bits(6), 8 << 2 | 2, kWritable},
    {0x76, 1, bits(2), 0, kWritable},
    {0x77, 5, bits(40), 0, kReadOnly},
    {0x78, 5, bits(40), 0, kReadOnly},
    {0x79, 5, bits(40), 0, kReadOnly},
    {0x7a, 5, bits(40), 0, kReadOnly},
    {0x7c, 2, bits(11), 30 << 3 | 1 << 2, kWritable},
    {0x7d, 5, bits(40), 0, kReadOnly},
    {0x7e, 5, bits(40), 65535, kWritable},
    {0x7f, 1, bits(1), 0, kReadOnly},
};

// The first generation has its own sweep status; its other registers hold whatever they are given, starting from the
// second generation's values where both have the register.
constexpr RegisterRow kFirstGeneration[] = {
    {0x00, 1, bits(8), 0x00, kReadOnly},
    {0x01, 1, bits(8), 0xFF, kReadOnly},
    {0x02, 2, bits(16), 0, kReadOnly},
    {0x47, 2, bits(16), 0, kReadOnly},
};

}  // namespace

RegisterFile::RegisterFile(Generation generation) {
  for (const RegisterRow &row : kSecondGeneration) rows_[row.address] = row;
  if (generation == Generation::first) {
    for (RegisterRow &row : rows_) row = {row.address, 8, bits(64), row.readOnly ? 0 : row.reset, kWritable};
    for (const RegisterRow &row : kFirstGeneration) rows_[row.address] = row;
  }
  reset();
}

void RegisterFile::reset() {
  later_.clear();
  for (size_t address = 0; address < rows_.size(); ++address) values_[address] = rows_[address].reset;
}

uint64_t RegisterFile::value(uint8_t address, uint64_t now) const {
  uint64_t value = values_[address & 0x7F];
  for (const Later &later : later_)
    if (later.address == address && later.due <= now) value = (value & ~later.mask) | later.value;
  const Stuck &stuck = stuck_[address & 0x7F];
  return (value & ~stuck.mask) | stuck.value;
}

uint64_t RegisterFile::field(uint8_t address, unsigned high, unsigned low, uint64_t now) const {
  return value(address, now) >> low & bits(high - low + 1);
}

void RegisterFile::write(uint8_t address, uint64_t value, unsigned bytes, uint64_t now) {
  const RegisterRow &row = rows_[address & 0x7F];
  if (row.readOnly) return;
  set(address, row.fields & bits(8 * std::min<unsigned>(bytes, row.bytes)), value, now);
}

void RegisterFile::set(uint8_t address, uint64_t mask, uint64_t value, uint64_t now) {
  settle(now);
  for (Later &later : later_) {
    if (later.address != address) continue;
    later.mask &= ~mask;
    later.value &= ~mask;
  }
  std::erase_if(later_, [](const Later &later) { return later.mask == 0; });
  uint64_t &stored = values_[address & 0x7F];
  stored = (stored & ~mask) | (value & mask);
}

void RegisterFile::setLater(uint8_t address, uint64_t mask, uint64_t value, uint64_t due, uint64_t now) {
  settle(now);
  later_.push_back({address, mask, value & mask, due});
  std::stable_sort(later_.begin(), later_.end(), [](const Later &a, const Later &b) { return a.due < b.due; });
}

void RegisterFile::stick(uint8_t address, uint64_t mask, uint64_t value) {
  stuck_[address & 0x7F] = {mask, value & mask};
}

void RegisterFile::settle(uint64_t now) {
  auto due = later_.begin();
  for (; due != later_.end() && due->due <= now; ++due) {
    uint64_t &stored = values_[due->address];
    stored = (stored & ~due->mask) | due->value;
  }
  later_.erase(later_.begin(), due);
}

}  // namespace pulsekit::simulator
