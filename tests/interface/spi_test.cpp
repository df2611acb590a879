// SPI transfers: commands, modes, bounds and what a failure leaves behind.
#include "bridge_fixture.h"

namespace {

constexpr char kOutsideChannels[] = "FTx232H - Trying to use an SPI channel outside the legal range";

// What selects and deselects pin 3 and pin 4 with all other pins as after the connection.
#define SELECT_3 "80 F6 0B 82 FF 00"
#define DESELECT_3 "80 FE 0B 82 FF 00"
#define SELECT_4 "80 EE 0B 82 FF 00"
#define DESELECT_4 "80 FE 0B 82 FF 00"

class Spi : public BridgeTest {
 protected:
  Spi() { connect(); }

  int32_t transfer(const Bytes &out, uint8_t *in, uint32_t in_count, int32_t mode = SPI_MODE_EXECUTE,
                   uint32_t channel = 0) {
    return bridge->SendReceiveSPI(bridge, channel, out.data(), static_cast<int32_t>(out.size()), in, in_count, mode);
  }

  int32_t bits(const Bytes &out, int32_t out_bits, uint8_t *in, int32_t in_bits, uint32_t flags = 0x100) {
    return bridge->SendReceiveBitsSPI(bridge, 0, out.data(), out_bits, in, in_bits, flags);
  }

  void expectEmptyBatch() {
    EXPECT_EQ(connection().output_count, 0u);
    EXPECT_EQ(connection().pending_read_count, 0u);
  }
};

}  // namespace

TEST_F(Spi, OneTransferIsOneWriteAndOneRead) {
  d2xx.replies = {{0x34, 0x12}};
  uint8_t in[2] = {};
  EXPECT_EQ(transfer({0x02, 0x02}, in, 2), 0);
  EXPECT_EQ(in[0], 0x34);
  EXPECT_EQ(in[1], 0x12);
  EXPECT_EQ(d2xx.calls, (Names{"Write " SELECT_3 " 11 01 00 02 02 20 01 00 " DESELECT_3 " 87", "Read 2"}));

  d2xx.forget();
  EXPECT_EQ(transfer({0x90}, nullptr, 0, SPI_MODE_EXECUTE, 1), 0);
  EXPECT_EQ(transfer({}, nullptr, 0), 0);
  EXPECT_EQ(d2xx.calls,
            (Names{"Write " SELECT_4 " 11 00 00 90 " DESELECT_4 " 87", "Write " SELECT_3 " " DESELECT_3 " 87"}));
}

TEST_F(Spi, QueuedTransfersShareOneWriteAndOneRead) {
  uint8_t in[6] = {};
  EXPECT_EQ(transfer({0xA1}, nullptr, 2, SPI_MODE_QUEUE), 0);
  EXPECT_EQ(transfer({0xA2}, nullptr, 3, SPI_MODE_QUEUE), 0);
  EXPECT_EQ(d2xx.calls, Names{});
  d2xx.replies = {{1, 2, 3, 4, 5, 6}};
  EXPECT_EQ(transfer({0xA3}, in, 1), 0);
  ASSERT_EQ(d2xx.writes.size(), 1u);
  EXPECT_EQ(d2xx.writes[0].size(), 3u * (6 + 4 + 3 + 6 + 1));
  EXPECT_EQ(Bytes(in, in + 6), (Bytes{1, 2, 3, 4, 5, 6}));
  expectEmptyBatch();
}

TEST_F(Spi, CollectingSendsTheBatchAndReadsWhatIsPending) {
  uint8_t in[3] = {};
  EXPECT_EQ(transfer({0xA1}, nullptr, 3, SPI_MODE_QUEUE), 0);
  d2xx.replies = {{7, 8, 9}};
  EXPECT_EQ(transfer({0xA2}, in, 3, SPI_MODE_COLLECT), 0);
  EXPECT_EQ(d2xx.calls, (Names{"Write " SELECT_3 " 11 00 00 A1 20 02 00 " DESELECT_3 " 87 " SELECT_3
                               " 11 00 00 A2 " DESELECT_3 " 87",
                               "Read 3"}))
      << "no read command of its own";
  EXPECT_EQ(Bytes(in, in + 3), (Bytes{7, 8, 9}));
}

TEST_F(Spi, CollectingIntoTooSmallABufferCanBeRepeated) {
  uint8_t in[4] = {};
  EXPECT_EQ(transfer({0xA1}, nullptr, 4, SPI_MODE_QUEUE), 0);
  expectFailure(transfer({}, in, 3, SPI_MODE_COLLECT), 2, "", {"FTx232H_SendReceiveSPI"});
  EXPECT_EQ(connection().pending_read_count, 0u);
  EXPECT_EQ(d2xx.calls, Names{});
  d2xx.replies = {{7, 8, 9, 10}};
  EXPECT_EQ(transfer({}, in, 4, SPI_MODE_COLLECT), 0);
  EXPECT_EQ(Bytes(in, in + 4), (Bytes{7, 8, 9, 10}));
  EXPECT_EQ(d2xx.writes.size(), 1u);
}

TEST_F(Spi, ExecutingWithNothingPendingDropsUnsentBytes) {
  d2xx.fail("Write", 1, FT_IO_ERROR);
  expectFailure(transfer({1, 2, 3}, nullptr, 0), 265, "FTx232H - Could not write data to device",
                {"SendBytesToDevice", "FTx232H_SendReceiveSPI"});
  EXPECT_GT(connection().output_count, 0u);
  d2xx.forget();
  EXPECT_EQ(transfer({0x90}, nullptr, 0), 0);
  EXPECT_EQ(d2xx.calls, Names{"Write " SELECT_3 " 11 00 00 90 " DESELECT_3 " 87"});
}

TEST_F(Spi, LargestTransfersAndOneByteMore) {
  Bytes data(65537, 0x5A);
  d2xx.replies = {Bytes(65536, 0xC3)};
  Bytes in(131072);
  EXPECT_EQ(transfer(Bytes(65536, 0x11), in.data(), 65536), 0);
  EXPECT_EQ(Bytes(in.begin(), in.begin() + 65536), Bytes(65536, 0xC3));
  EXPECT_EQ(in[65536], 0);
  EXPECT_EQ(connection().output_count, 0u);
  size_t sent = 0;
  for (const Bytes &write : d2xx.writes) sent += write.size();
  EXPECT_EQ(sent, 65536u + 6 + 3 + 3 + 6 + 1);
  d2xx.forget();

  const Names trace = {"FTx232H_SendReceiveSPI"};
  expectFailure(transfer(data, in.data(), 0), 2, "", trace);
  expectFailure(transfer({}, in.data(), 65537), 2, "", trace);
  expectFailure(transfer({}, in.data(), 65537, SPI_MODE_QUEUE), 2, "", trace);
  expectFailure(transfer({}, in.data(), 131072, SPI_MODE_COLLECT), 2, "", trace);

  EXPECT_EQ(transfer({}, nullptr, 65536, SPI_MODE_QUEUE), 0);
  expectFailure(transfer({}, nullptr, 65536, SPI_MODE_QUEUE), 2, "", trace);
  expectEmptyBatch();
  EXPECT_EQ(transfer({}, nullptr, 65536, SPI_MODE_QUEUE), 0);
  EXPECT_EQ(transfer({}, nullptr, 65535, SPI_MODE_QUEUE), 0) << "as much as the input buffer holds";
  expectFailure(transfer({}, in.data(), 1), 2, "", trace);
  expectEmptyBatch();

  int queued = 0;
  while (transfer(Bytes(60000, 1), nullptr, 0, SPI_MODE_QUEUE) == 0) ++queued;
  EXPECT_EQ(queued, 4);
  expectEmptyBatch();
  EXPECT_EQ(d2xx.calls, Names{});
}

TEST_F(Spi, RefusedTransfersSendNothingAndLeaveNoAnswerPending) {
  uint8_t in[4] = {};
  const uint8_t out[4] = {};
  struct Case {
    const char *what;
    std::function<int32_t()> run;
    int32_t code;
    const char *message;
  };
  const Case cases[] = {
      {"channel 2", [&] { return transfer({1}, in, 1, SPI_MODE_EXECUTE, 2); }, 262, kOutsideChannels},
      {"channel -1", [&] { return transfer({1}, in, 1, SPI_MODE_QUEUE, 0xFFFFFFFF); }, 262, kOutsideChannels},
      {"no bytes out", [&] { return bridge->SendReceiveSPI(bridge, 0, nullptr, 4, in, 0, SPI_MODE_QUEUE); }, 1, ""},
      {"no room for bytes in", [&] { return bridge->SendReceiveSPI(bridge, 0, out, 4, nullptr, 0, 1); }, 1, ""},
      {"mode 3", [&] { return transfer({1}, in, 1, 3); }, 1, ""},
      {"mode -1", [&] { return transfer({1}, in, 1, -1); }, 1, ""},
  };
  for (const Case &test : cases) {
    SCOPED_TRACE(test.what);
    ASSERT_EQ(transfer({0xA1}, nullptr, 100, SPI_MODE_QUEUE), 0);
    const uint32_t queued = connection().output_count;
    expectFailure(test.run(), test.code, test.message, {"FTx232H_SendReceiveSPI"});
    EXPECT_EQ(connection().output_count, queued);
    EXPECT_EQ(connection().pending_read_count, 0u);
  }
  expectFailure(bridge->SendReceiveBitsSPI(bridge, 2, out, 8, in, 8, 0), 262, kOutsideChannels,
                {"FTx232H_SendReceiveBitsSPI"});
  EXPECT_EQ(d2xx.calls, Names{});
  EXPECT_EQ(connection().pin_states, 0xFFFE) << "chip selects stay high";
}

TEST_F(Spi, FailedTransferNeverMakesTheNextOneCopyMore) {
  uint8_t in[4] = {9, 9, 9, 9};
  const char *write_failed = "FTx232H - Could not write data to device";
  d2xx.fail("Write", 1, FT_IO_ERROR);
  expectFailure(transfer({1}, in, 4), 265, write_failed, {"SendBytesToDevice", "FTx232H_SendReceiveSPI"});
  EXPECT_EQ(connection().pending_read_count, 0u);
  d2xx.fail("GetQueueStatus", 1, FT_IO_ERROR);
  expectFailure(transfer({1}, in, 4), 263, "", {"ReadInQueue", "FTx232H_SendReceiveSPI"});
  EXPECT_EQ(connection().pending_read_count, 0u);

  d2xx.lost_in_read = 1;
  d2xx.replies = {{1, 2, 3, 4}};
  expectFailure(transfer({1}, in, 4), 264, "FTx232H - Could not read from device",
                {"ReadInQueue", "FTx232H_SendReceiveSPI"});
  d2xx.lost_in_read = 0;
  EXPECT_EQ(Bytes(in, in + 4), (Bytes{9, 9, 9, 9})) << "nothing of a broken answer";

  d2xx.replies = {{5, 6}};
  EXPECT_EQ(transfer({1}, in, 2), 0);
  EXPECT_EQ(Bytes(in, in + 4), (Bytes{5, 6, 9, 9}));
}

TEST_F(Spi, BitTransfers) {
  uint8_t in[2] = {};
  const auto written = [this] {
    std::string text = d2xx.calls.empty() ? "" : d2xx.calls[0];
    d2xx.forget();
    return text;
  };
  d2xx.replies = {{0xAA, 0xB0}, {0xAA, 0xB0}, {0x55}, {0x07}};
  EXPECT_EQ(bits({0xB0, 0xB1}, 12, in, 12), 0);
  EXPECT_EQ(written(), "Write " SELECT_3 " 31 00 00 B0 33 03 B1 " DESELECT_3 " 87");
  EXPECT_EQ(Bytes(in, in + 2), (Bytes{0xAA, 0xB0}));
  EXPECT_EQ(bits({0xB0, 0xB1}, 12, in, 9, 0), 0);
  EXPECT_EQ(written(), "Write " SELECT_3 " 34 00 00 B0 36 03 B1 " DESELECT_3 " 87");

  EXPECT_EQ(varSetValue_ByName(bridge->variables, "SPIToggleSlaveSelectEnable", 0), 0);
  EXPECT_EQ(bits({0xB0}, 8, in, 8), 0);
  EXPECT_EQ(written(), "Write 31 00 00 B0 87");
  EXPECT_EQ(bits({0xB0}, 3, in, 1, 0xFFFFFEFF), 0);
  EXPECT_EQ(written(), "Write 36 02 B0 87") << "only one bit of the flags counts";
}

TEST_F(Spi, BitTransferFailures) {
  uint8_t in[4] = {};
  const Names trace = {"FTx232H_SendReceiveBitsSPI"};
  const uint8_t out = 0;
  expectFailure(bridge->SendReceiveBitsSPI(bridge, 2, &out, 8, in, 8, 0), 262, kOutsideChannels, trace);
  expectFailure(bridge->SendReceiveBitsSPI(bridge, 0, nullptr, 8, in, 8, 0), 1, "", trace);
  expectFailure(bridge->SendReceiveBitsSPI(bridge, 0, &out, 8, nullptr, 8, 0), 1, "", trace);
  expectFailure(bridge->SendReceiveBitsSPI(bridge, 0, &out, 65536 * 8 + 1, in, 8, 0), 2, "", trace);
  expectFailure(bridge->SendReceiveBitsSPI(bridge, 0, &out, 8, in, INT32_MAX, 0), 2, "", trace);
  EXPECT_EQ(d2xx.calls, Names{});

  d2xx.replies = {{9, 9}};
  expectFailure(bits({1, 2}, 12, in, 0), 265, "FTx232H - Failed writing data to the SPI bus", trace);
  EXPECT_EQ(d2xx.writes.size(), 1u) << "the bits were sent";
  EXPECT_TRUE(d2xx.queue.empty()) << "their answer would be the next transfer's";
  d2xx.fail("Write", 1, FT_IO_ERROR);
  expectFailure(bits({1}, 8, in, 8), 265, "FTx232H - Could not write data to device",
                {"SendBytesToDevice", "FTx232H_SendReceiveBitsSPI"});
  d2xx.fail("GetQueueStatus", 1, FT_IO_ERROR);
  expectFailure(bits({1}, 8, in, 8), 264, "FTx232H - Failed reading data from SPI bus", trace);
  EXPECT_EQ(connection().pending_read_count, 0u);
}

TEST_F(Spi, ClockDivisorFollowsTheSetting) {
  const char *settings[] = {"30MHz", "15MHz", "10MHz", "7.5MHz", "6MHz", "5MHz", "4.28MHz"};
  Names expected;
  for (size_t i = 0; i < std::size(settings); ++i) {
    EXPECT_EQ(varSetValue_ByString(bridge->variables, "SPIClockFrequency", settings[i]), 0);
    expected.push_back("Write 86 0" + std::to_string(i) + " 00");
  }
  EXPECT_EQ(d2xx.calls, expected);

  d2xx.fail("Write", 1, FT_IO_ERROR);
  expectFailure(setSPIClockFrequency(radar, 0x1234), 265, "FTx232H - Could not write data to device",
                {"SendBytesToDevice", "setSPIClockFrequency"});
  EXPECT_EQ(d2xx.calls.back(), "Write 86 34 12");
}

TEST_F(Spi, ClockSettingWithoutAConnectionIsKeptForNothing) {
  EXPECT_EQ(interfaceDisconnect(bridge), 0);
  d2xx.forget();
  EXPECT_EQ(setSPIClockFrequency(radar, 1), 0);
  EXPECT_EQ(setSPIClockFrequency(nullptr, 1), 0);
  EXPECT_EQ(d2xx.calls, Names{});
}
