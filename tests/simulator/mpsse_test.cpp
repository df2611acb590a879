#include "bench.h"

namespace simtest {

namespace {

constexpr uint32_t kWire = QTXSIM_EVENT_SPI | QTXSIM_EVENT_CLOCK | QTXSIM_EVENT_ODD | QTXSIM_EVENT_PIN;

}  // namespace

class MpsseTest : public Bench {
 protected:
  void SetUp() override {
    Bench::SetUp();
    plugInAndPowerUp();
    QTXSim_ClearRecord();
  }
};

// ---- What each command answers and does ----------------------------------------------------------------------------

struct Command {
  const char *name;
  Bytes bytes;
  Bytes answer;
  const char *record;  // of the wire
};

class MpsseCommand : public MpsseTest, public ::testing::WithParamInterface<Command> {};

TEST_P(MpsseCommand, AnswersAndActs) {
  const Command &command = GetParam();
  Bytes bytes = command.bytes;
  bytes.push_back(0x87);
  EXPECT_EQ(command.answer, exchange(bytes, command.answer.size()));
  EXPECT_EQ(0u, queued());
  EXPECT_STREQ(command.record, QTXSim_RecordText(kWire));
}

// The data line idles low, data-out is high, the clock idles low.
INSTANTIATE_TEST_SUITE_P(
    Commands, MpsseCommand,
    ::testing::Values(
        Command{"WriteBytes", {0x11, 1, 0, 0x13, 0x80}, {}, "SPI - > 13 80\n"},
        Command{"WriteBytesLsbFirst", {0x19, 1, 0, 0x13, 0x80}, {}, "SPI - > C8 01\n"},
        Command{"WriteBits", {0x13, 2, 0xB0}, {}, "SPI - > A0/3\n"},
        Command{"WriteBitsLsbFirst", {0x1B, 2, 0x05}, {}, "SPI - > A0/3\n"},
        Command{"WriteRisingEdge", {0x10, 0, 0, 0x13}, {}, "SPI - > 13\n"},
        Command{"ReadBytes", {0x20, 1, 0}, {0, 0}, "SPI - < 00 00\n"},
        Command{"ReadBits", {0x22, 6}, {0}, "SPI - < 00/7\n"},
        Command{"LoopbackBytes", {0x84, 0x31, 1, 0, 0x13, 0xA4}, {0x13, 0xA4}, "Loopback 01\nSPI - > 13 A4 < 13 A4\n"},
        Command{"LoopbackBytesOtherEdges", {0x84, 0x34, 0, 0, 0x13}, {0x13}, "Loopback 01\nSPI - > 13 < 13\n"},
        Command{"LoopbackBytesLsbFirst", {0x84, 0x39, 0, 0, 0x13}, {0x13}, "Loopback 01\nSPI - > C8 < C8\n"},
        Command{"LoopbackBits", {0x84, 0x33, 2, 0xB0}, {0x05}, "Loopback 01\nSPI - > A0/3 < A0/3\n"},
        Command{"LoopbackEightBits", {0x84, 0x33, 7, 0xC5}, {0xC5}, "Loopback 01\nSPI - > C5 < C5\n"},
        Command{"LoopbackBitsOtherEdges", {0x84, 0x36, 2, 0xB0}, {0x05}, "Loopback 01\nSPI - > A0/3 < A0/3\n"},
        Command{"LoopbackBitsLsbFirst", {0x84, 0x3B, 2, 0x05}, {0xA0}, "Loopback 01\nSPI - > A0/3 < A0/3\n"},
        Command{"LoopbackReadsTheHeldDataOut", {0x84, 0x20, 0, 0}, {0xFF}, "Loopback 01\nSPI - < FF\n"},
        Command{"LoopbackOff", {0x84, 0x85, 0x31, 0, 0, 0x13}, {0}, "Loopback 01\nLoopback 00\nSPI - > 13 < 00\n"},
        Command{"DataOutKeepsItsLastBit", {0x11, 0, 0, 0xFE, 0x81}, {0xF8}, "SPI - > FE\n"},
        Command{"TwelveBits",
                {0x80, 0xF6, 0x3B, 0x31, 0, 0, 0x12, 0x33, 3, 0x34, 0x80, 0xFE, 0x3B},
                {0, 0},
                "SPI 3 > 12 30/4 < 00 00/4\n"},
        Command{"SelectWithoutClock", {0x80, 0xF6, 0x3B, 0x80, 0xFE, 0x3B}, {}, "SPI 3\n"},
        Command{"SetAndReadLowPins", {0x80, 0xE8, 0x3B, 0x81}, {0xE8}, ""},
        Command{"SetAndReadHighPins", {0x82, 0x40, 0xC0, 0x83}, {0x7F}, "Pin 14 out 1\nPin 15 out 0\n"},
        Command{"Divisor", {0x86, 0x34, 0x12}, {}, "Clock 6436\n"},
        Command{"SlowBase", {0x8B, 0x86, 1, 0}, {}, "Clock 6000000\nClock 3000000\n"},
        Command{"FastBase", {0x8B, 0x8A}, {}, "Clock 6000000\nClock 30000000\n"},
        Command{"ClockBits", {0x8E, 7, 0x8F, 0, 1}, {}, ""}, Command{"WaitForAHighPin", {0x88, 0x81}, {0xFA}, ""},
        Command{"SwitchesWithoutAnEffectHere", {0x8C, 0x8D, 0x96, 0x97}, {}, ""},
        Command{"BadCommand", {0xAA, 0x40, 0x81}, {0xFA, 0xAA, 0xFA, 0x40, 0xFA}, "BadCommand AA\nBadCommand 40\n"},
        Command{"BadCommandZero", {0x00, 0x0F}, {0xFA, 0x00, 0xFA, 0x0F}, "BadCommand 00\nBadCommand 0F\n"}),
    [](const auto &each) { return each.param.name; });

// ---- Edges and bit orders against a real device --------------------------------------------------------------------

struct Access {
  const char *name;
  Bytes send, fetch;
  Bytes answer;
  uint8_t idleClock = 0;
};

class FlashAccess : public MpsseTest, public ::testing::WithParamInterface<Access> {};

TEST_P(FlashAccess, GetsTheIdentification) {
  const Access &access = GetParam();
  const auto high = static_cast<uint8_t>(0xFE | access.idleClock), low = static_cast<uint8_t>(0xEE | access.idleClock);
  Bytes commands = {0x80, high, 0x3B, 0x80, low, 0x3B};
  commands.insert(commands.end(), access.send.begin(), access.send.end());
  commands.insert(commands.end(), access.fetch.begin(), access.fetch.end());
  commands.insert(commands.end(), {0x80, high, 0x3B, 0x87});
  EXPECT_EQ(access.answer, exchange(commands, access.answer.size()));
}

const Bytes kIdentity = {0xEF, 0x40, 0x18};

INSTANTIATE_TEST_SUITE_P(
    Ways, FlashAccess,
    ::testing::Values(
        Access{"ReadRisingEdge", {0x11, 0, 0, 0x9F}, {0x20, 2, 0}, kIdentity},
        Access{"ReadFallingEdge", {0x11, 0, 0, 0x9F}, {0x24, 2, 0}, kIdentity},
        Access{"BothWays", {0x31, 3, 0, 0x9F, 0, 0, 0}, {}, {0, 0xEF, 0x40, 0x18}},
        Access{"LsbFirst", {0x19, 0, 0, 0xF9}, {0x28, 2, 0}, {0xF7, 0x02, 0x18}},
        Access{"CommandInPiecesOfBits", {0x13, 2, 0x9F, 0x13, 4, 0xF8}, {0x20, 2, 0}, kIdentity},
        Access{"AnswerInPiecesOfBits", {0x11, 0, 0, 0x9F}, {0x22, 2, 0x20, 0, 0, 0x22, 4}, {0x07, 0x7A, 0x00}},
        Access{"BytesAcrossByteBorders", {0x13, 3, 0x90, 0x11, 0, 0, 0xF0}, {0x22, 3, 0x22, 7}, {0x0F, 0x40}},
        Access{"WriteRisingEdge_SeesTheBitBefore", {0x10, 0, 0, 0x9F}, {0x20, 0, 0}, {0}},
        // Sent one bit early; data-out is low before. 0x80 is an address in the unprogrammed part.
        Access{"WriteRisingEdge_CarriesBitsAcrossBytes",
               {0x80, 0xEC, 0x3B, 0x10, 5, 0, 0xEE, 0x00, 0x01, 0x00, 0x00, 0x00},
               {0x20, 0, 0},
               {0xFF}},
        Access{"WriteRisingEdge_ClockIdlesHigh", {0x10, 0, 0, 0x9F}, {0x20, 2, 0}, kIdentity, 1}),
    [](const auto &each) { return each.param.name; });

TEST_F(MpsseTest, IncompleteByte_IsLostWithItsFrame) {
  write({0x80, 0xEE, 0x3B, 0x13, 6, 0x9F, 0x80, 0xFE, 0x3B});
  EXPECT_EQ(kIdentity, flashFrame({0x9F}, 3));
}

TEST_F(MpsseTest, ChipSelectThatIsNotDriven_FloatsHigh) {
  const Bytes commands = {0x80, 0xEE, 0x2B, 0x11, 0, 0, 0x9F, 0x20, 2, 0, 0x80, 0xFE, 0x3B, 0x87};
  EXPECT_EQ((Bytes{0, 0, 0}), exchange(commands, 3));
  EXPECT_EQ(kIdentity, flashFrame({0x9F}, 3));
}

TEST_F(MpsseTest, IdleLevel_IsWhatNobodyDrives) {
  EXPECT_EQ((Bytes{0x00, 0x00}), exchange({0x22, 4, 0x2A, 4, 0x87}, 2));
  QTXSim_SetIdleLevel(device, 1);
  EXPECT_EQ((Bytes{0x1F, 0xF8, 0xFF}), exchange({0x22, 4, 0x2A, 4, 0x20, 0, 0, 0x87}, 3));
}

TEST_F(MpsseTest, BitModeReset_LeavesAHalfReceivedCommand) {
  write({0x11, 0xFF, 0xFF, 0x01});
  write({0x81, 0x87});
  EXPECT_EQ(0u, queued()) << "these bytes belong to the write";
  ASSERT_EQ(FT_OK, d2xx().ResetDevice(handle));
  write({0x81, 0x87});
  EXPECT_EQ(0u, queued()) << "emptying the FIFOs does not end a command";
  ASSERT_EQ(FT_OK, d2xx().SetBitMode(handle, 0, 0));
  write({0x81, 0x87});
  EXPECT_EQ(0u, queued()) << "a bridge in reset interprets nothing";
  ASSERT_EQ(FT_OK, d2xx().SetBitMode(handle, 0, 2));
  QTXSim_ClearRecord();
  EXPECT_EQ((Bytes{0xDB}), exchange({0x81, 0x86, 0, 0, 0x87}, 1)) << "all pins float, power is off";
  EXPECT_STREQ("Clock 6000000\n", QTXSim_RecordText(QTXSIM_EVENT_CLOCK)) << "the slow base is back";
}

// ---- Splitting -----------------------------------------------------------------------------------------------------

// Every command, with answers whose order would show a mistake.
const Bytes kEverything = {
    0x8A, 0x86, 0x01, 0x00, 0x85, 0x80, 0xEE, 0x3B, 0x82, 0xFF, 0x40,        // clock, flash selected
    0x11, 0x00, 0x00, 0x9F, 0x20, 0x02, 0x00, 0x80, 0xFE, 0x3B,              // its identification
    0x80, 0xEE, 0x3B, 0x13, 0x03, 0x90, 0x13, 0x03, 0xF0, 0x22, 0x07,        // the same in bits
    0x24, 0x01, 0x00, 0x80, 0xFE, 0x3B, 0x80, 0xEE, 0x3B,                    //
    0x19, 0x00, 0x00, 0xF9, 0x28, 0x01, 0x00, 0x2A, 0x03, 0x80, 0xFE, 0x3B,  // least significant bit first
    0x84, 0x80, 0xF6, 0x3B, 0x31, 0x03, 0x00, 0x12, 0x87, 0x8A, 0x56,        // data that looks like commands
    0x34, 0x00, 0x00, 0x99, 0x33, 0x04, 0xA8, 0x36, 0x02, 0x60, 0x39,        //
    0x01, 0x00, 0x13, 0x37, 0x3B, 0x02, 0x05, 0x85, 0x80, 0xFE, 0x3B,        //
    0x81, 0x83, 0x88, 0x80, 0xDE, 0x3B, 0x89, 0x80, 0xFE, 0x3B, 0x8B,        // pins
    0x8E, 0x03, 0x8F, 0x01, 0x00, 0x8C, 0x8D, 0x96, 0x97, 0xAB, 0x87,        // clock alone, a bad command
};
constexpr size_t kEverythingAnswers = 3 + 1 + 2 + 2 + 1 + 4 + 1 + 1 + 1 + 2 + 1 + 2 + 2;

class MpsseSplit : public Bench {
 protected:
  struct Result {
    Bytes answer;
    std::string wire;
    bool operator==(const Result &other) const { return answer == other.answer && wire == other.wire; }
  };

  Result run(const Bytes &commands, const std::vector<size_t> &cuts) {
    QTXSim_Reset();
    plugInAndPowerUp();
    QTXSim_ClearRecord();
    size_t from = 0;
    for (size_t cut : cuts) {
      write(Bytes(commands.begin() + from, commands.begin() + cut));
      from = cut;
    }
    write(Bytes(commands.begin() + from, commands.end()));
    uint32_t count = queued();
    for (uint32_t before = ~0u; count != before; count = queued()) before = count;
    return {read(count), QTXSim_RecordText(kWire)};
  }
};

TEST_F(MpsseSplit, AnyPosition_GivesTheSame) {
  const Result whole = run(kEverything, {});
  ASSERT_EQ(kEverythingAnswers, whole.answer.size());
  std::vector<size_t> cuts;
  for (size_t cut = 1; cut < kEverything.size(); ++cut) {
    EXPECT_EQ(whole, run(kEverything, {cut})) << "cut at " << cut;
    cuts.push_back(cut);
  }
  EXPECT_EQ(whole, run(kEverything, cuts)) << "every byte on its own";
}

}  // namespace simtest
