// The chip's bus protocol and register file, seen from the bus.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "chip_bus.h"

using namespace pulsekit::simulator;

namespace {

using Bytes = std::vector<uint8_t>;

TEST(ChipModels, AnswerTheirIdInTheirByteOrder) {
  EXPECT_EQ(ChipBus("QTX3400").transfer({2, 2}, 2), (Bytes{0x03, 0x05}));
  EXPECT_EQ(ChipBus("QTX3500").transfer({2, 2}, 2), (Bytes{0x03, 0x06}));
  EXPECT_EQ(ChipBus("QTX3701").transfer({2, 2}, 2), (Bytes{0x09, 0x03}));
  EXPECT_EQ(ChipBus("QTX3702").transfer({2, 2}, 2), (Bytes{0x08, 0x03}));
  EXPECT_EQ(ChipBus("QTX3701x").chip, nullptr);
  EXPECT_EQ(ChipBus("").chip, nullptr);
}

TEST(ChipRegisters, SecondGenerationResetValuesAndFields) {
  struct Row {
    uint8_t address, bytes;
    uint64_t reset, fields;
  };
  const Row rows[] = {
      {0x03, 1, 0x08, 0x0F},       {0x21, 2, 0x0F80, 0x0FFF},        {0x31, 3, 20, 0xFFFFFF},
      {0x38, 1, 0x01, 0x0F},       {0x39, 2, 8184, 0x1FFF},          {0x3b, 4, 0x10008, 0x3FFFFFF},
      {0x51, 2, 0, 0x3FFF},        {0x58, 5, 0xA36024, 0xFFFFFFFFF}, {0x61, 1, 0x7F, 0x7F},
      {0x64, 3, 0x90000, 0xFFFFF}, {0x6d, 8, 0, 0x7FFFFFFFFFFFFFFF}, {0x71, 1, 0x22, 0x3F},
      {0x7c, 2, 0xF4, 0x7FF},      {0x7e, 5, 65535, 0xFFFFFFFFFF},
  };
  ChipBus bus("QTX3702");
  for (const Row &row : rows) {
    EXPECT_EQ(bus.read(row.address, row.bytes), row.reset) << "register " << int{row.address};
    bus.write(row.address, row.bytes, ~uint64_t{0});
    EXPECT_EQ(bus.read(row.address, 8), row.fields) << "register " << int{row.address};
    bus.write(row.address, row.bytes, 0);
    EXPECT_EQ(bus.read(row.address, row.bytes), 0u) << "register " << int{row.address};
  }
}

TEST(ChipRegisters, ReadOnlyAndAbsentRegistersIgnoreWrites) {
  ChipBus bus("QTX3701");
  for (uint8_t address : Bytes{0x00, 0x01, 0x02, 0x47, 0x5b, 0x5c, 0x77, 0x78, 0x79, 0x7a, 0x7d, 0x7f, 0x10, 0x7b}) {
    const uint64_t before = bus.read(address, 8);
    bus.write(address, 8, 0x5A5A5A5A5A5A5A5A);
    EXPECT_EQ(bus.read(address, 8), before) << "register " << int{address};
  }
  EXPECT_EQ(bus.read(0x00, 1), 0x00u);
  EXPECT_EQ(bus.read(0x01, 1), 0xFFu);
}

TEST(ChipRegisters, AWriteCutShortChangesNothing) {
  ChipBus bus("QTX3701");
  bus.transfer({0xBC, 2, 0x34}, 0);
  EXPECT_EQ(bus.read(0x3C, 2), 10u);
  bus.transfer({0xBC, 2, 0x34, 0x12, 0xFF}, 0);  // bytes past the count are nobody's
  EXPECT_EQ(bus.read(0x3C, 2), 0x1234u);
  bus.transfer({0x80 | 0x21, 0x00, 0xFF, 0xFF}, 0);
  EXPECT_EQ(bus.read(0x21, 2), 0x0F80u) << "count 0 is an action";
}

TEST(ChipRegisters, FirstGenerationSendsMostSignificantByteFirst) {
  ChipBus bus("QTX3400");
  bus.transfer({0x80 | 0x40, 4, 0x00, 0x12, 0x34, 0x56}, 0);
  EXPECT_EQ(bus.chip->registerValue(0x40), 0x123456u);
  EXPECT_EQ(bus.transfer({0x40, 4}, 4), (Bytes{0x00, 0x12, 0x34, 0x56}));
  EXPECT_EQ(bus.transfer({0x40, 2}, 2), (Bytes{0x34, 0x56}));
}

TEST(ChipPower, WithoutPowerItAnswersNothingAndForgets) {
  ChipBus bus("QTX3701");
  bus.write(0x3C, 2, 99);
  bus.chip->setPower(false);
  bus.chip->select();
  EXPECT_FALSE(bus.chip->drivesDataLine());
  bus.chip->deselect();
  EXPECT_EQ(bus.read(0x01, 1), 0u);
  bus.write(0x3C, 2, 77);
  bus.chip->setPower(true);
  EXPECT_EQ(bus.read(0x3C, 2), 10u);
  EXPECT_FALSE(bus.chip->drivesDataLine()) << "deselected";
}

TEST(ChipFaults, StuckBitsAndForeignIdSurviveAReset) {
  ChipBus bus("QTX3701");
  bus.chip->stickBits(0x3B, 0x0F, 0x05);
  bus.chip->setChipId(0x1234);
  bus.chip->setPower(false);
  bus.chip->setPower(true);
  bus.write(0x3B, 4, 0x2003A);
  EXPECT_EQ(bus.read(0x3B, 4), 0x20035u);
  EXPECT_EQ(bus.read(2, 2), 0x1234u);
  bus.chip->stickBits(0x3B, 0, 0);
  bus.write(0x3B, 4, 0x2003A);
  EXPECT_EQ(bus.read(0x3B, 4), 0x2003Au);
}

// Whatever is written and triggered, a status says only what it can say and a frame holds no more hits than pulses.
TEST(ChipUnderRandomUse, KeepsItsBounds) {
  for (const char *model : {"QTX3701", "QTX3400"}) {
    ChipBus bus(model);
    std::mt19937_64 random(11);
    for (int i = 0; i < 3000; ++i) {
      const uint64_t bits = random();
      const auto address = static_cast<uint8_t>(bits & 0x7F);
      const auto count = static_cast<uint8_t>(bits >> 8 & 0x0F);
      if (bits & 0x1000) bus.write(address, count, random() >> (bits >> 16 & 0x3F));
      if (bits & 0x2000) bus.act(static_cast<uint8_t>(bits >> 24 & 0x7F));
      bus.clock.advance(bits >> 32 & 0xFFFFFF);
      bus.transfer({address, count}, 40);
    }
    EXPECT_EQ(bus.chip->registerValue(0x00), 0u) << model;
    EXPECT_EQ(bus.chip->registerValue(0x01), 0xFFu) << model;
    EXPECT_EQ(bus.chip->registerValue(0x47) & ~uint64_t{0x8001}, 0u) << model;

    bus.chip->setPower(false);
    bus.chip->setPower(true);
    EXPECT_EQ(bus.chip->registerValue(0x47), 0u) << model;
    for (uint8_t action : Bytes{17, 93}) bus.act(action);
    bus.clock.advance(10'000'000);
    bus.act(15);
    const Bytes image = model == std::string("QTX3701") ? bus.memory(1024) : bus.transfer({0x20, 124}, 124);
    for (size_t k = 0; k < image.size(); k += 4)
      ASSERT_LE(image[k] + 0x100 * image[k + 1] + 0x10000 * image[k + 2], 204'800) << model << " sampler " << k / 4;
  }
}

}  // namespace
