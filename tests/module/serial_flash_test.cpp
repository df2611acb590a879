#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <numeric>

#include "module/common/serialFlash.h"
#include "recording_bridge.h"

namespace {

constexpr uint32_t kChannel = 1;

std::vector<uint8_t> countingBytes(size_t count, uint8_t first = 0) {
  std::vector<uint8_t> bytes(count);
  std::iota(bytes.begin(), bytes.end(), first);
  return bytes;
}

class SerialFlash : public ::testing::Test {
 protected:
  int32_t writePage(uint32_t length, uint32_t address = 0x1000) {
    return sflashWritePage(&bridge.handle, kChannel, address, data.data(), length);
  }
  int32_t writeMemory(uint32_t length, uint32_t address = 0x1000) {
    return sflashWriteMemory(&bridge.handle, kChannel, address, data.data(), length);
  }
  int32_t programOtp(uint32_t length, uint8_t first) {
    data[0] = first;
    return sflashProgramOtpRegister(&bridge.handle, kChannel, 32, data.data(), length);
  }
  bool traceNames(const char *function) const { return std::strstr(bridge.record.trace, function) != nullptr; }

  RecordingBridge bridge;
  std::vector<uint8_t> data = countingBytes(8192);
};

TEST_F(SerialFlash, EachOperationSendsItsOpcodes) {
  struct Case {
    const char *name;
    std::function<int32_t()> run;
    const char *transcript;
  };
  std::array<uint8_t, 128> answer;
  std::array<char, 64> text;
  InterfaceHandle *flash = &bridge.handle;
  const Case cases[] = {
      {"erase chip", [&] { return sflashEraseChip(flash, kChannel); }, "06 60 05?1 05?1 04"},
      {"erase block", [&] { return sFlashErase4kBlock(flash, kChannel, 0x123456), 0; }, "06 20123456 05?1 05?1 04"},
      {"page", [&] { return writePage(256, 0xabcd00); }, "06 02ABCD00+256 05?1 05?1 04?1"},
      {"short page", [&] { return writePage(1, 0xff); }, "06 020000FF+1 05?1 05?1 04?1"},
      {"OTP", [&] { return programOtp(3, 2); }, "06 9B000020+3 05?1 05?1 04?1"},
      {"OTP, nothing", [&] { return programOtp(0, 2); }, ""},
      {"read buffer", [&] { return sflashReadBuffer(flash, kChannel, 0x80, answer.data(), 7); }, "0B00008000?7"},
      {"read", [&] { return sflashReadMemory(flash, kChannel, 0xf000, answer.data(), 128); }, "0B00F00000?128"},
      {"read OTP", [&] { return sflashReadOtpRegister(flash, kChannel, 5, answer.data(), 9); }, "770000050000?9"},
      {"name", [&] { return sflashGetBoardName(flash, kChannel, text.data(), 32); }, "770000000000?31"},
      {"ID", [&] { return sflashGetBoardID(flash, kChannel, text.data(), 32); }, "770000200000?32"},
  };
  for (const Case &item : cases) {
    bridge.transfers.clear();
    EXPECT_EQ(item.run(), 0) << item.name;
    EXPECT_EQ(bridge.transcript(), item.transcript) << item.name;
    for (const Transfer &transfer : bridge.transfers) {
      EXPECT_EQ(transfer.mode, SPI_MODE_EXECUTE) << item.name;
      EXPECT_EQ(transfer.channel, kChannel) << item.name;
    }
  }
  EXPECT_EQ(bridge.record.code, 0);
}

TEST_F(SerialFlash, MemoryIsWrittenPageByPageIntoOneErasedBlock) {
  struct Case {
    uint32_t length;
    std::vector<uint32_t> pages;
  };
  const Case cases[] = {{0, {}},           {1, {1}},          {255, {255}},
                        {256, {256}},      {257, {256, 1}},   {300, {256, 44}},
                        {511, {256, 255}}, {512, {256, 256}}, {4096, std::vector<uint32_t>(16, 256)}};
  for (const Case &item : cases) {
    bridge.transfers.clear();
    EXPECT_EQ(writeMemory(item.length, 0x1f00), 0) << item.length;
    std::string expected = "06 20001F00 05?1 05?1 04";
    uint32_t address = 0x1f00;
    for (uint32_t page : item.pages) {
      char header[16];
      std::snprintf(header, sizeof header, "%06X", address);
      expected += std::string(" 06 02") + header + "+" + std::to_string(page) + " 05?1 05?1 04?1";
      address += page;
    }
    EXPECT_EQ(bridge.transcript(), expected) << item.length;

    std::vector<uint8_t> sent;
    for (const Transfer &transfer : bridge.transfers) {
      if (transfer.out[0] == 0x02) sent.insert(sent.end(), transfer.out.begin() + 4, transfer.out.end());
    }
    EXPECT_EQ(sent, countingBytes(item.length)) << item.length;
  }
}

TEST_F(SerialFlash, PollsUntilReadyAndTellsOfFailureInTheRecordOnly) {
  struct Case {
    const char *name;
    std::function<int32_t()> run;
    std::deque<uint8_t> statuses;
    size_t reads;  // polls and the final one
    int32_t recorded;
    const char *function;
  };
  const auto eraseChip = [&] { return sflashEraseChip(&bridge.handle, kChannel); };
  const auto eraseBlock = [&] { return sFlashErase4kBlock(&bridge.handle, kChannel, 0), 0; };
  const auto page = [&] { return writePage(16); };
  const auto readyAtPoll = [](size_t poll) {
    std::deque<uint8_t> statuses(poll - 1, 0x01);
    statuses.push_back(0);
    return statuses;
  };
  const Case cases[] = {
      {"erase, ready at once", eraseChip, {0}, 2, 0, ""},
      {"erase, ready at the third poll", eraseBlock, readyAtPoll(3), 4, 0, ""},
      {"erase, ready at the last poll but one", eraseChip, readyAtPoll(199), 200, 0, ""},
      {"erase, the last poll is too late", eraseChip, readyAtPoll(200), 201, 642, "sflashEraseChip"},
      {"erase, stays busy", eraseBlock, {0x01}, 201, 642, "sFlashErase4kBlock"},
      {"erase, flash missing with the line high", eraseChip, {0xff}, 201, 642, "sflashEraseChip"},
      {"erase, error bit", eraseChip, {0x21, 0x20}, 3, 642, "sflashEraseChip"},
      {"erase, error bit gone at the final read", eraseChip, {0x20, 0x00}, 2, 0, ""},
      {"page, error bit", page, {0x20}, 2, 641, "sflashWritePage"},
      {"page, stays busy", page, {0x01}, 501, 641, "sflashWritePage"},
      {"OTP, an even first byte polls once", [&] { return programOtp(4, 0xfe); }, {0x01}, 2, 0, ""},
      {"OTP, error bit", [&] { return programOtp(4, 0x50); }, {0x20}, 2, 641, "sflashProgramOtpRegister"},
      {"OTP, an odd first byte polls to the end",
       [&] { return programOtp(4, 'Q'); },
       {0x00},
       501,
       641,
       "sflashProgramOtpRegister"},
  };
  for (const Case &item : cases) {
    bridge.transfers.clear();
    bridge.record = {};
    std::strcpy(bridge.record.message, "of an earlier failure");
    bridge.statuses = item.statuses;
    EXPECT_EQ(item.run(), 0) << item.name;
    EXPECT_EQ(bridge.count(0x05), item.reads) << item.name;
    EXPECT_EQ(bridge.transfers.back().out[0], 0x04) << item.name;
    EXPECT_EQ(bridge.record.code, item.recorded) << item.name;
    const std::string trace = bridge.record.trace;
    if (item.recorded == 0) {
      EXPECT_EQ(trace, "") << item.name;
      continue;
    }
    EXPECT_STREQ(bridge.record.message, "") << item.name;
    EXPECT_TRUE(trace.starts_with(std::string("   at: ") + item.function + " in src/module/common/serialFlash:"))
        << item.name << trace;
  }
}

TEST_F(SerialFlash, FailingTransferEndsTheOperationWithItsCode) {
  struct Case {
    const char *name;
    std::function<int32_t()> run;
    size_t fail_at;
    const char *outermost;
  };
  std::array<uint8_t, 16> answer;
  std::array<char, 32> text;
  const auto page = [&] { return writePage(16); };
  const auto memory = [&] { return writeMemory(300); };
  const Case cases[] = {
      {"write enable", page, 0, "sflashWritePage"},
      {"command", page, 1, "sflashWritePage"},
      {"poll", page, 2, "sflashWritePage"},
      {"final status", page, 3, "sflashWritePage"},
      {"write disable", page, 4, "sflashWritePage"},
      {"erase chip", [&] { return sflashEraseChip(&bridge.handle, kChannel); }, 1, "sflashEraseChip"},
      {"OTP", [&] { return programOtp(2, 0); }, 1, "sflashProgramOtpRegister"},
      {"first page", memory, 6, "sflashWriteMemory"},
      {"last page", memory, 11, "sflashWriteMemory"},
      {"read", [&] { return sflashReadMemory(&bridge.handle, kChannel, 0, answer.data(), 16); }, 0, "sflashReadMemory"},
      {"name", [&] { return sflashGetBoardName(&bridge.handle, kChannel, text.data(), 32); }, 0, "sflashGetBoardName"},
      {"ID", [&] { return sflashGetBoardID(&bridge.handle, kChannel, text.data(), 32); }, 0, "sflashGetBoardID"},
  };
  for (const Case &item : cases) {
    bridge.transfers.clear();
    bridge.record = {};
    bridge.fail_at = item.fail_at;
    EXPECT_EQ(item.run(), bridge.failure) << item.name;
    EXPECT_EQ(bridge.transfers.size(), item.fail_at + 1) << item.name;
    const std::string trace = bridge.record.trace;
    const size_t last = trace.rfind(": s");
    EXPECT_NE(trace.find(std::string(item.outermost) + " in src/module/common/serialFlash:", last), trace.npos)
        << item.name << trace;
  }
}

// The bridge keeps what it could not send; the status read takes its place, so that nothing is programmed later.
TEST_F(SerialFlash, CommandThatCouldNotBeSentIsReplacedByAStatusRead) {
  bridge.failure = 265;
  bridge.fail_at = 1;
  EXPECT_EQ(programOtp(2, 0), 265);
  EXPECT_EQ(bridge.transcript(), "06 9B000020+2 05?1");
}

TEST_F(SerialFlash, WriteDisableDecidesTheCodeOfAFailedCycle) {
  bridge.statuses = {0x20};
  bridge.fail_at = 4;
  EXPECT_EQ(writePage(16), bridge.failure);
  EXPECT_EQ(bridge.record.code, 641);
}

TEST_F(SerialFlash, FailedPagesDoNotKeepTheOthersFromBeingWritten) {
  bridge.statuses = {0x20};
  EXPECT_EQ(writeMemory(600), 0);
  EXPECT_EQ(bridge.count(0x02), 3u);
  EXPECT_EQ(bridge.record.code, 641);
}

TEST_F(SerialFlash, BoardNameLosesItsPaddingUpToIndex29) {
  struct Case {
    const char *name;
    std::string stored;
    std::string expected;  // 31 bytes
  };
  const std::string nul(1, '\0');
  const auto padded = [](std::string text, char fill, size_t size = 31) {
    return text.append(size - text.size(), fill);
  };
  const Case cases[] = {
      {"erased", padded("", '\xff'), padded("", '\0', 30) + "\xff"},
      {"zeros", padded("", '\0'), padded("", '\0')},
      {"padded with ones", padded("QTX-K225", '\xff'), padded("QTX-K225", '\0', 30) + "\xff"},
      {"padded with blanks", padded("QTX-K265", ' '), padded("QTX-K265", '\0', 30) + " "},
      {"mixed padding", padded("A B" + nul + "\xff ", '\xff'), padded("A B", '\0', 30) + "\xff"},
      {"inner padding stays", padded(" A" + nul + "B", ' '), padded(" A" + nul + "B", '\0', 30) + " "},
      {"full length", std::string(31, 'x'), std::string(31, 'x')},
  };
  for (const Case &item : cases) {
    bridge.content.assign(item.stored.begin(), item.stored.end());
    std::string buffer(40, '\x55');
    EXPECT_EQ(sflashGetBoardName(&bridge.handle, kChannel, buffer.data(), 32), 0) << item.name;
    EXPECT_EQ(buffer, item.expected + std::string(9, '\x55')) << item.name;
  }
}

TEST_F(SerialFlash, BoardIdKeepsOnesAndItsFirstByte) {
  struct Case {
    std::string stored, expected;  // 32 bytes
  };
  const auto padded = [](std::string text, char fill) { return text.append(32 - text.size(), fill); };
  const Case cases[] = {{padded("SN 17", ' '), padded("SN 17", '\0')},
                        {padded("SN 17", '\xff'), padded("SN 17", '\xff')},
                        {padded("", ' '), padded(" ", '\0')},
                        {std::string(32, 'x'), std::string(32, 'x')}};
  for (const Case &item : cases) {
    bridge.content.assign(item.stored.begin(), item.stored.end());
    std::string buffer(40, '\x55');
    EXPECT_EQ(sflashGetBoardID(&bridge.handle, kChannel, buffer.data(), 32), 0);
    EXPECT_EQ(buffer, item.expected + std::string(8, '\x55'));
  }
}

TEST_F(SerialFlash, BadInputIsRefusedBeforeAnythingIsSent) {
  struct Case {
    const char *name;
    std::function<int32_t(InterfaceHandle *)> run;
    int32_t code;
    const char *message;
  };
  constexpr const char kMisaligned[] = "Address is not aligned at 256Byte boundaries";
  constexpr const char kOutside[] = "Address is outside the flash";
  std::vector<uint8_t> answer(70000, 0x55);
  std::array<char, 32> text;
  using B = InterfaceHandle *;
  const Case cases[] = {
      {"read, misaligned", [&](B b) { return sflashReadMemory(b, 1, 0x80, answer.data(), 1); }, 1, kMisaligned},
      {"write, misaligned", [&](B b) { return sflashWriteMemory(b, 1, 0x1001, data.data(), 1); }, 1, kMisaligned},
      {"read beyond 24 bits", [&](B b) { return sflashReadMemory(b, 1, 0x1000000, answer.data(), 1); }, 1, kOutside},
      {"read past the end", [&](B b) { return sflashReadMemory(b, 1, 0xffff00, answer.data(), 257); }, 1, kOutside},
      {"OTP read past the end", [&](B b) { return sflashReadOtpRegister(b, 1, 0xffffff, answer.data(), 2); }, 1,
       kOutside},
      {"write beyond 24 bits", [&](B b) { return sflashWriteMemory(b, 1, 0x1000000, data.data(), 1); }, 1, kOutside},
      {"write past the end", [&](B b) { return sflashWriteMemory(b, 1, 0xffff00, data.data(), 257); }, 1, kOutside},
      {"erase beyond 24 bits", [&](B b) { return sFlashErase4kBlock(b, 1, 0xf1000000), 1; }, 1, kOutside},
      {"OTP offset below 0", [&](B b) { return sflashProgramOtpRegister(b, 1, -1, data.data(), 1); }, 1, kOutside},
      {"page over 256", [&](B b) { return sflashWritePage(b, 1, 0, data.data(), 257); }, 2, ""},
      {"OTP over a transfer", [&](B b) { return sflashProgramOtpRegister(b, 1, 0, data.data(), 65533); }, 2, ""},
      {"OTP read over a transfer", [&](B b) { return sflashReadOtpRegister(b, 1, 0, answer.data(), 65537); }, 2, ""},
      {"OTP read below 0", [&](B b) { return sflashReadOtpRegister(b, 1, 0, answer.data(), -1); }, 2, ""},
      {"read below 0", [&](B b) { return sflashReadMemory(b, 1, 0, answer.data(), INT32_MIN); }, 2, ""},
      {"name buffer of 31", [&](B b) { return sflashGetBoardName(b, 1, text.data(), 31); }, 2, ""},
      {"ID buffer below 0", [&](B b) { return sflashGetBoardID(b, 1, text.data(), -32); }, 2, ""},
      {"no name buffer", [&](B b) { return sflashGetBoardName(b, 1, nullptr, 32); }, 1, ""},
      {"no ID buffer", [&](B b) { return sflashGetBoardID(b, 1, nullptr, 32); }, 1, ""},
      {"no data for memory", [&](B b) { return sflashWriteMemory(b, 1, 0, nullptr, 1); }, 1, ""},
      {"no data for a page", [&](B b) { return sflashWritePage(b, 1, 0, nullptr, 1); }, 1, ""},
      {"no data for OTP", [&](B b) { return sflashProgramOtpRegister(b, 1, 0, nullptr, 1); }, 1, ""},
      {"no read buffer", [&](B b) { return sflashReadBuffer(b, 1, 0, nullptr, 1); }, 1, ""},
      {"no OTP buffer", [&](B b) { return sflashReadOtpRegister(b, 1, 0, nullptr, 1); }, 1, ""},
  };
  for (const Case &item : cases) {
    bridge.record = {};
    EXPECT_EQ(item.run(&bridge.handle), item.code) << item.name;
    EXPECT_EQ(bridge.record.code, item.code) << item.name;
    EXPECT_STREQ(bridge.record.message, item.message) << item.name;
    EXPECT_TRUE(traceNames("in src/module/common/serialFlash:")) << item.name;
    item.run(nullptr);  // without a bridge it only has to survive
  }
  EXPECT_EQ(bridge.transcript(), "");
  EXPECT_EQ(answer, std::vector<uint8_t>(70000, 0x55));
}

TEST_F(SerialFlash, WithoutABridgeOrItsDriverThereIsCode269) {
  std::array<uint8_t, 8> answer;
  EXPECT_EQ(sflashReadMemory(nullptr, kChannel, 0, answer.data(), 8), 269);
  EXPECT_EQ(sflashEraseChip(nullptr, kChannel), 269);
  bridge.handle.SendReceiveSPI = nullptr;
  EXPECT_EQ(sflashReadMemory(&bridge.handle, kChannel, 0, answer.data(), 8), 269);
  EXPECT_EQ(bridge.record.code, 269);
}

TEST_F(SerialFlash, ReadsOfAFullTransferFillExactlyTheBuffer) {
  bridge.content = countingBytes(65536, 3);
  std::vector<uint8_t> answer(65537, 0x55);
  EXPECT_EQ(sflashReadMemory(&bridge.handle, kChannel, 0, answer.data(), 65536), 0);
  EXPECT_EQ(answer.back(), 0x55);
  answer.pop_back();
  EXPECT_EQ(answer, bridge.content);
}

TEST_F(SerialFlash, FailedReadLeavesTheBuffersAlone) {
  bridge.fail_at = 0;
  std::vector<uint8_t> answer(64, 0x55);
  EXPECT_EQ(sflashReadOtpRegister(&bridge.handle, kChannel, 0, answer.data(), 64), 264);
  EXPECT_EQ(answer, std::vector<uint8_t>(64, 0x55));
}

// It reads nothing but zeros, so the block that the test wrote never comes back.
TEST_F(SerialFlash, SelfTestNoticesWhatDoesNotComeBack) {
  EXPECT_EQ(sflashTest(&bridge.handle, kChannel), 640);
  EXPECT_EQ(bridge.record.code, 640);
  EXPECT_EQ(bridge.count(0x60), 1u);
  EXPECT_EQ(bridge.count(0x20), 1u);
  EXPECT_EQ(bridge.count(0x02), 17u);
  bridge.transfers.clear();
  bridge.fail_at = 0;  // the result of the first step does not count
  bridge.content = countingBytes(4096);
  EXPECT_EQ(sflashTest(&bridge.handle, kChannel), 0);
}

}  // namespace
