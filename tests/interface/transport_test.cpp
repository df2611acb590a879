// The byte pipe: batches out in chunks, answers in by polling.
#include <numeric>

#include "bridge_fixture.h"

namespace {

constexpr char kWriteFailed[] = "FTx232H - Could not write data to device";
constexpr char kReadFailed[] = "FTx232H - Could not read from device";

class Transport : public BridgeTest {
 protected:
  Transport() { connect(); }

  void fillBatch(uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) AddByteToOutputBuffer(bridge, static_cast<uint8_t>(i * 7), i == 0);
  }

  void queueBytes(size_t count) { d2xx.queue.assign(count, 0x5A); }

  std::vector<size_t> writeSizes() const {
    std::vector<size_t> sizes;
    for (const Bytes &write : d2xx.writes) sizes.push_back(write.size());
    return sizes;
  }

  Bytes written() const {
    Bytes all;
    for (const Bytes &write : d2xx.writes) all.insert(all.end(), write.begin(), write.end());
    return all;
  }
};

}  // namespace

TEST_F(Transport, BatchesGoOutInChunksOf4096) {
  const std::pair<uint32_t, std::vector<size_t>> cases[] = {
      {1, {1}}, {4096, {4096}}, {4097, {4096, 1}}, {12288, {4096, 4096, 4096}}, {12290, {4096, 4096, 4096, 2}}};
  for (const auto &[count, sizes] : cases) {
    d2xx.forget();
    fillBatch(count);
    const Bytes batch(connection().output_buffer, connection().output_buffer + count);
    EXPECT_EQ(SendBytesToDevice(bridge), 0);
    EXPECT_EQ(writeSizes(), sizes);
    EXPECT_EQ(written(), batch);
    EXPECT_EQ(connection().output_count, 0u);
  }
}

TEST_F(Transport, ShortChunkIsContinuedWhereItEnded) {
  fillBatch(5000);
  const Bytes batch(connection().output_buffer, connection().output_buffer + 5000);
  d2xx.accepted = {100, 4096};
  EXPECT_EQ(SendBytesToDevice(bridge), 0);
  EXPECT_EQ(writeSizes(), (std::vector<size_t>{4096, 4096, 804}));
  EXPECT_EQ(Bytes(d2xx.writes[1].begin(), d2xx.writes[1].begin() + 10),
            Bytes(batch.begin() + 100, batch.begin() + 110));
}

TEST_F(Transport, FailedWriteKeepsTheBatch) {
  for (uint32_t count : {10u, 5000u}) {
    fillBatch(count);
    d2xx.fail("Write", count > 4096 ? 2 : 1, FT_IO_ERROR);
    expectFailure(SendBytesToDevice(bridge), 265, kWriteFailed, {"SendBytesToDevice"});
    EXPECT_EQ(connection().output_count, count);
  }
}

TEST_F(Transport, DeviceThatTakesNothingEndsTheWrite) {
  fillBatch(5000);
  d2xx.accepted = {4096, 0};
  expectFailure(SendBytesToDevice(bridge), 265, kWriteFailed, {"SendBytesToDevice"});
  EXPECT_EQ(d2xx.writes.size(), 2u);
}

TEST_F(Transport, FullBatchTakesNoMoreBytes) {
  connection().output_count = sizeof connection().output_buffer - 1;
  EXPECT_EQ(AddByteToOutputBuffer(bridge, 1, 0), 0);
  expectFailure(AddByteToOutputBuffer(bridge, 2, 0), 2, "", {"AddByteToOutputBuffer"});
  EXPECT_EQ(connection().output_count, 0u);
}

TEST_F(Transport, ReadTakesTheExpectedBytes) {
  d2xx.queue = {1, 2, 3};
  EXPECT_EQ(ReadInQueue(bridge, 3), 0);
  EXPECT_EQ(Bytes(connection().input_buffer, connection().input_buffer + 3), (Bytes{1, 2, 3}));
  EXPECT_EQ(d2xx.polls, 1u);
}

TEST_F(Transport, ReadFailures) {
  struct Case {
    const char *what;
    uint32_t expected;
    std::function<void()> arrange;
    int32_t code;
    const char *message;
    Names trace;
  };
  const Case cases[] = {
      {"nothing expected, nothing there", 0, [] {}, 263, "", {"ReadInQueue"}},
      {"queue status fails", 3, [this] { d2xx.fail("GetQueueStatus", 1, FT_IO_ERROR); }, 263, "", {"ReadInQueue"}},
      {"queue status fails later",
       3,
       [this] { d2xx.fail("GetQueueStatus", 40, FT_IO_ERROR); },
       263,
       "",
       {"ReadInQueue"}},
      {"read fails",
       3,
       [this] {
         queueBytes(3);
         d2xx.fail("Read", 1, FT_IO_ERROR);
       },
       264,
       kReadFailed,
       {"ReadBytesFromDevice", "ReadInQueue"}},
      {"read is short",
       3,
       [this] {
         queueBytes(3);
         d2xx.lost_in_read = 1;
       },
       264,
       kReadFailed,
       {"ReadInQueue"}},
      {"more than the buffer holds", sizeof(FTx232H_Connection::input_buffer) + 1, [] {}, 2, "", {"ReadInQueue"}},
  };
  for (const Case &test : cases) {
    SCOPED_TRACE(test.what);
    d2xx.queue.clear();
    d2xx.polls = 0;
    test.arrange();
    expectFailure(ReadInQueue(bridge, test.expected), test.code, test.message, test.trace);
    EXPECT_LE(d2xx.polls, 40u) << "the wait goes on after a failure";
    d2xx.lost_in_read = 0;
  }
}

TEST_F(Transport, QueueThatHoldsTooMuchTimesOutAndIsDrained) {
  // More than the input buffer, which draining may not overrun.
  queueBytes(200'000);
  connection().pending_read_count = 5;
  expectFailure(ReadInQueue(bridge, 2), 263,
                "FTx232H - Timeout waiting for data: Got 200000 bytes, waiting for 2 bytes (Timeout counter: 100000)",
                {"waitForBytesRecieved", "ReadInQueue"});
  EXPECT_EQ(connection().pending_read_count, 0u);
  EXPECT_TRUE(d2xx.queue.empty());
  EXPECT_EQ(d2xx.polls, 100'002u) << "the first, 100000 while waiting, one to drain";

  queueBytes(2);
  EXPECT_EQ(ReadInQueue(bridge, 2), 0) << "the next answer is read";
}

TEST_F(Transport, DrainThatFailsLeavesTheTimeOutInTheRecord) {
  queueBytes(3);
  d2xx.fail("Read", 1, FT_IO_ERROR);
  expectFailure(ReadInQueue(bridge, 2), 263,
                "FTx232H - Timeout waiting for data: Got 3 bytes, waiting for 2 bytes (Timeout counter: 100000)",
                {"waitForBytesRecieved", "ReadInQueue"});
}

TEST_F(Transport, ResetPurgesTheQueue) {
  queueBytes(10);
  EXPECT_EQ(ResetUSBDevicePurgeUSBInputBuffer(bridge), 0);
  EXPECT_EQ(d2xx.calls, (Names{"ResetDevice", "Read 10"}));
  d2xx.forget();
  EXPECT_EQ(ResetInQueue(bridge), 0);
  EXPECT_EQ(d2xx.calls, Names{}) << "an empty queue needs no read";
  d2xx.fail("ResetDevice", 1, FT_IO_ERROR);
  EXPECT_EQ(ResetUSBDevicePurgeUSBInputBuffer(bridge), FT_IO_ERROR);
  d2xx.fail("GetQueueStatus", 1, FT_INVALID_HANDLE);
  EXPECT_EQ(ResetInQueue(bridge), FT_INVALID_HANDLE);
}
