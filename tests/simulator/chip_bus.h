// A radar chip under test and the transactions that its drivers make.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <vector>

#include "base/Clock.h"
#include "chip/RadarChip.h"

namespace pulsekit::simulator {

struct ChipBus {
  explicit ChipBus(const char *model, uint64_t seed = 1) : chip(makeRadarChip(model, clock, seed)) {
    if (chip) chip->setPower(true);
  }

  std::vector<uint8_t> transfer(const std::vector<uint8_t> &out, size_t in) {
    chip->select();
    for (uint8_t byte : out) {
      chip->send();
      chip->receive(byte);
    }
    std::vector<uint8_t> answer;
    for (size_t i = 0; i < in; ++i) {
      answer.push_back(chip->send());
      chip->receive(0);
    }
    chip->deselect();
    return answer;
  }

  // Second-generation byte order.
  void write(uint8_t address, uint8_t count, uint64_t value) {
    std::vector<uint8_t> out = {static_cast<uint8_t>(address | 0x80), count};
    for (int i = 0; i < count; ++i) out.push_back(i < 8 ? static_cast<uint8_t>(value >> (8 * i)) : uint8_t{0});
    transfer(out, 0);
  }
  uint64_t read(uint8_t address, uint8_t count) {
    uint64_t value = 0;
    const std::vector<uint8_t> answer = transfer({address, count}, count);
    for (size_t i = 0; i < answer.size() && i < 8; ++i) value |= uint64_t{answer[i]} << (8 * i);
    return value;
  }
  void act(uint8_t action) { transfer({static_cast<uint8_t>(action | 0x80), 0}, 0); }
  std::vector<uint8_t> memory(size_t bytes) { return transfer({0x20, 0x7F}, bytes); }

  Clock clock;
  std::unique_ptr<RadarChip> chip;
};

}  // namespace pulsekit::simulator
