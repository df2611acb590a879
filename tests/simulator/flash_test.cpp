#include "bench.h"

namespace simtest {

class FlashTest : public Bench {
 protected:
  void SetUp() override {
    Bench::SetUp();
    plugInAndPowerUp();
  }

  void finish() { QTXSim_Advance(1'000'000'000); }
  uint8_t status() { return flashFrame({0x05}, 1).at(0); }
  void erase(uint32_t address) {
    flashFrame({0x06});
    flashFrame({0x20, uint8_t(address >> 16), uint8_t(address >> 8), uint8_t(address)});
    finish();
  }
  void program(uint8_t opcode, uint32_t address, const Bytes &data) {
    Bytes frame = {opcode, uint8_t(address >> 16), uint8_t(address >> 8), uint8_t(address)};
    frame.insert(frame.end(), data.begin(), data.end());
    flashFrame({0x06});
    flashFrame(frame);
    finish();
  }
  Bytes content(uint32_t address, size_t count) {
    return flashFrame({0x0B, uint8_t(address >> 16), uint8_t(address >> 8), uint8_t(address), 0}, count);
  }
};

TEST_F(FlashTest, Identification_IsThatOfACommonPart) {
  EXPECT_EQ((Bytes{0xEF, 0x40, 0x18}), flashFrame({0x9F}, 3));
  EXPECT_EQ((Bytes{0xEF, 0x17}), flashFrame({0x90, 0, 0, 0}, 2));
  EXPECT_EQ((Bytes{0x17, 0xEF}), flashFrame({0x90, 0, 0, 1}, 2));
  EXPECT_EQ((Bytes{0x17}), flashFrame({0xAB, 0, 0, 0}, 1));
}

TEST_F(FlashTest, Program_OnlyClearsBits_EraseSetsThem) {
  program(0x02, 0x001000, {0xF0, 0x3C});
  program(0x02, 0x001000, {0x3F, 0xFF});
  EXPECT_EQ((Bytes{0x30, 0x3C, 0xFF}), content(0x1000, 3));
  program(0x02, 0x002000, {0x00});
  erase(0x001FFF);
  EXPECT_EQ((Bytes{0xFF, 0xFF}), content(0x1000, 2));
  EXPECT_EQ((Bytes{0x00}), content(0x2000, 1)) << "the neighbouring sector was erased too";
  program(0x02, 0xFFFFFE, {1, 2, 3, 4});  // wraps inside its page
  EXPECT_EQ((Bytes{3, 4, 0xFF}), content(0xFFFF00, 3));
  EXPECT_EQ((Bytes{1, 2, 0xFF}), flashFrame({0x03, 0xFF, 0xFF, 0xFE}, 3)) << "a read goes on at the start";
}

TEST_F(FlashTest, WithoutWriteEnableOrItsLength_NothingChanges) {
  flashFrame({0x02, 0, 0, 0, 0x00});
  finish();
  program(0x02, 0x10, {0x12});
  flashFrame({0x02, 0, 0, 1, 0x00});  // the latch fell with the program before
  flashFrame({0x06});
  for (const Bytes &wrongLength : {Bytes{0x20, 0, 0}, Bytes{0x20, 0, 0, 0, 0}, Bytes{0x60, 0}}) flashFrame(wrongLength);
  flashFrame({0x04});
  flashFrame({0x20, 0, 0, 0});
  finish();
  flashFrame({0x06});
  QTXSim_Advance(1000);
  QTXSim_PowerCycle(device);
  EXPECT_EQ(0x00, status()) << "the latch falls with the power";
  EXPECT_EQ((Bytes{0xFF, 0xFF}), content(0, 2));
  EXPECT_EQ((Bytes{0x12}), content(0x10, 1));
}

TEST_F(FlashTest, Status_ShowsLatchBusyAndTheirEnd) {
  EXPECT_EQ(0x00, status());
  flashFrame({0x06});
  EXPECT_EQ(0x02, status());
  flashFrame({0x20, 0, 0, 0});
  EXPECT_EQ(0x03, status());
  EXPECT_EQ((Bytes{0x00}), flashFrame({0x0B, 0, 0, 0, 0}, 1)) << "a busy flash answers nothing but its status";
  finish();
  EXPECT_EQ(0x00, status());
}

struct Duration {
  Bytes command;
  uint64_t least, most;  // microseconds
};

TEST_F(FlashTest, Operations_TakeTheirTime) {
  for (const Duration &row : {Duration{{0x20, 0, 0, 0}, 44'000, 47'000}, Duration{{0xD8, 0, 0, 0}, 59'000, 62'000},
                              Duration{{0x60}, 90'000, 101'500}, Duration{{0xC7}, 90'000, 101'500},
                              Duration{{0x02, 0, 0, 0, 1}, 500, 2'000}, Duration{{0x9B, 0, 0, 0, 1}, 250, 2'000}}) {
    flashFrame({0x06});
    flashFrame(row.command);
    const uint64_t start = QTXSim_Nanoseconds();
    int polls = 0;
    while ((status() & 1) != 0) ++polls;
    EXPECT_LT(polls, 200) << "a driver gives up after 200 polls";
    const uint64_t took = (QTXSim_Nanoseconds() - start) / 1000;
    EXPECT_GE(took, row.least) << int{row.command[0]};
    EXPECT_LE(took, row.most) << int{row.command[0]};
  }
}

TEST_F(FlashTest, Erase_CoversWhatItsCommandSays) {
  const uint32_t places[] = {0x00FFFF, 0x010000, 0x01FFFF, 0x020000, 0xFFFFFF};
  const auto fill = [&] {
    for (uint32_t place : places) {
      const uint8_t zero = 0;
      ASSERT_EQ(0, QTXSim_FlashWrite(device, place, &zero, 1));
    }
  };
  const auto erased = [&] {
    std::string text;
    for (uint32_t place : places) {
      uint8_t byte = 0;
      EXPECT_EQ(0, QTXSim_FlashRead(device, place, &byte, 1));
      text += byte == 0xFF ? '1' : '0';
    }
    return text;
  };
  fill();
  for (const bool chip : {false, true}) {
    flashFrame({0x06});
    flashFrame(chip ? Bytes{0xC7} : Bytes{0xD8, 0x01, 0x23, 0x45});
    finish();
    EXPECT_EQ(chip ? "11111" : "01100", erased());
  }
}

TEST_F(FlashTest, Otp_HoldsTheBoardNameAndItsBitsOnlyClear) {
  const Bytes name = flashFrame({0x77, 0, 0, 0, 0, 0}, 33);
  EXPECT_STREQ("QTX-K245", reinterpret_cast<const char *>(name.data()));
  EXPECT_EQ(0x00, name[31]);
  EXPECT_EQ(0xFF, name[32]) << "no board identification is programmed";
  program(0x9B, 32, {0x5A, 0xFF});
  program(0x9B, 32, {0xFF, 0x0F});
  flashFrame({0x06});
  flashFrame({0x60});
  finish();
  EXPECT_EQ((Bytes{0x5A, 0x0F, 0xFF}), flashFrame({0x77, 0, 0, 32, 0, 0}, 3));
}

TEST_F(FlashTest, ScheduledFailures_SetTheErrorBitAndChangeNothing) {
  ASSERT_EQ(0, QTXSim_FlashFailProgram(device, 2, 1));
  program(0x02, 0, {0x11});
  EXPECT_EQ(0x00, status());
  program(0x02, 1, {0x22});
  EXPECT_EQ(0x20, status());
  program(0x02, 2, {0x33});
  EXPECT_EQ(0x00, status());
  EXPECT_EQ((Bytes{0x11, 0xFF, 0x33}), content(0, 3));
  ASSERT_EQ(0, QTXSim_FlashFailErase(device, 1, 1));
  erase(0);
  EXPECT_EQ(0x20, status());
  EXPECT_EQ((Bytes{0x11}), content(0, 1));
}

TEST_F(FlashTest, StayBusy_EndsOnlyWhenSwitchedOff) {
  QTXSim_FlashStayBusy(device, 1);
  erase(0);
  EXPECT_EQ(0x03, status());
  QTXSim_FlashStayBusy(device, 0);
  EXPECT_EQ(0x00, status());
}

TEST_F(FlashTest, WithoutPowerOrFlash_TheLineIdles) {
  for (int32_t level : {0, 1}) {
    const Bytes idle(3, level ? 0xFF : 0x00);
    QTXSim_SetIdleLevel(device, level);
    QTXSim_FlashPresent(device, 0);
    EXPECT_EQ(idle, flashFrame({0x9F}, 3));
    QTXSim_FlashPresent(device, 1);
    write({0x80, 0xDE, 0x3B});  // power low
    const Bytes identify = {0x80, 0xCE, 0x3B, 0x11, 0, 0, 0x9F, 0x20, 2, 0, 0x80, 0xDE, 0x3B, 0x87};
    EXPECT_EQ(idle, exchange(identify, 3));
    write({0x80, 0xFE, 0x1B});  // power not driven
    EXPECT_EQ(0, QTXSim_PinLevel(device, 5));
    const Bytes undriven = {0x80, 0xEE, 0x1B, 0x11, 0, 0, 0x9F, 0x20, 2, 0, 0x80, 0xFE, 0x1B, 0x87};
    EXPECT_EQ(idle, exchange(undriven, 3));
    powerUp();
    EXPECT_EQ((Bytes{0xEF, 0x40, 0x18}), flashFrame({0x9F}, 3));
  }
}

}  // namespace simtest
