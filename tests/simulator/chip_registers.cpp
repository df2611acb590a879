// The chip's bus protocol and register file, seen from the bus.
#include <random>

#include "chip/RegisterFile.h"
#include "chip_bus.h"
#include "transcript.h"

using namespace pulsekit::simulator;

namespace {

using Bytes = std::vector<uint8_t>;
using pulsekit::test::format;

class ChipRegisters : public pulsekit::test::Told {
 protected:
  ChipBus bus{"QTX3701"};
};

TEST_F(ChipRegisters, OfEachModel) {
  for (const char *model : {"QTX3400", "QTX3500", "QTX3701", "QTX3702"}) {
    DO_FOR(model, ChipBus(model).transfer({2, 2}, 2));
    const bool second = std::string(model) == "QTX3701";
    for (uint8_t address = 0; address < 0x80 && (second || std::string(model) == "QTX3400"); ++address) {
      ChipBus one(model);
      const auto value = [&] { return static_cast<unsigned long long>(one.chip->registerValue(address)); };
      const auto at_start = value();
      one.write(address, 8, ~uint64_t{0});
      const auto with_ones = value();
      one.write(address, 8, 0);
      if (at_start || with_ones + 1 > 1)
        say(format("%02x: %llx, ones %llx, zeros %llx", address, at_start, with_ones, value()));
    }
  }
  for (const char *none : {"QTX3701x", ""}) EXPECT_EQ(ChipBus(none).chip, nullptr);
}

TEST_F(ChipRegisters, OverTheBus) {
  const auto send = [&](const Bytes &bytes) { return bus.transfer(bytes, 0), bus.read(0x3C, 2); };
  say("a write cut short changes nothing, bytes past the count are nobody's, count 0 is an action");
  DO(send({0xBC, 2, 0x34}), send({0xBC, 2, 0x34, 0x12, 0xFF}), send({0xBC, 0, 0xFF, 0xFF}));
  say("without power it answers nothing and forgets");
  bus.chip->setPower(false);
  DO((bus.chip->select(), bus.chip->drivesDataLine()), (bus.chip->deselect(), bus.read(1, 1)), send({0xBC, 2, 7, 7}),
     (bus.chip->setPower(true), bus.read(0x3C, 2)), bus.chip->drivesDataLine());
  say("stuck bits and a foreign ID survive that");
  const auto stick = [&](uint64_t mask, uint64_t bits) {
    bus.chip->stickBits(0x3B, mask, bits);
    bus.chip->setPower(false);
    bus.chip->setPower(true);
    bus.write(0x3B, 4, 0x2003A);
    return bus.read(0x3B, 4);
  };
  DO(bus.chip->setChipId(0x1234), stick(0x0F, 0x05), bus.transfer({2, 2}, 2), stick(0, 0));
  say("what is withdrawn waits for nothing");
  RegisterFile file(Generation::second);
  DO(file.setLater(0x47, 1, 1, 900, 0), file.updatesToCome(), file.set(0x47, 1, 0, 0), file.updatesToCome());
  say("the first generation sends the most significant byte first");
  ChipBus first("QTX3400");
  DO(first.transfer({0xC0, 4, 0x00, 0x12, 0x34, 0x56}, 0), first.chip->registerValue(0x40),
     first.transfer({0x40, 4}, 4), first.transfer({0x40, 2}, 2));
}

// Whatever is written and triggered, a status says only what it can say and a frame holds no more hits than pulses.
TEST_F(ChipRegisters, KeepTheirBoundsUnderRandomUse) {
  for (const char *model : {"QTX3701", "QTX3400"}) {
    ChipBus chip_bus(model);
    std::mt19937_64 random(11);
    for (int i = 0; i < 3000; ++i) {
      const uint64_t bits = random();
      const auto address = static_cast<uint8_t>(bits & 0x7F);
      const auto count = static_cast<uint8_t>(bits >> 8 & 0x0F);
      if (bits & 0x1000) chip_bus.write(address, count, random() >> (bits >> 16 & 0x3F));
      if (bits & 0x2000) chip_bus.act(static_cast<uint8_t>(bits >> 24 & 0x7F));
      chip_bus.clock.advance(bits >> 32 & 0xFFFFFF);
      chip_bus.transfer({address, count}, 40);
    }
    EXPECT_EQ(chip_bus.chip->registerValue(0x00), 0u) << model;
    EXPECT_EQ(chip_bus.chip->registerValue(0x01), 0xFFu) << model;
    EXPECT_EQ(chip_bus.chip->registerValue(0x47) & ~uint64_t{0x8001}, 0u) << model;

    chip_bus.chip->setPower(false);
    chip_bus.chip->setPower(true);
    EXPECT_EQ(chip_bus.chip->registerValue(0x47), 0u) << model;
    for (uint8_t action : Bytes{17, 93}) chip_bus.act(action);
    chip_bus.clock.advance(10'000'000);
    chip_bus.act(15);
    const Bytes image = model == std::string("QTX3701") ? chip_bus.memory(1024) : chip_bus.transfer({0x20, 124}, 124);
    for (size_t k = 0; k < image.size(); k += 4)
      ASSERT_LE(image[k] + 0x100 * image[k + 1] + 0x10000 * image[k + 2], 204'800) << model << " sampler " << k / 4;
  }
}

}  // namespace
