#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "../../support/trace.h"
#include "FTx232H_private.h"

using namespace pulsekit;

static constexpr const char kSource[] = "src/interface/FTx232H/FTx232H";

namespace {

constexpr uint32_t kChunkLength = 4096;
constexpr uint32_t kMaximumPolls = 99999;
constexpr uint32_t kPollsPerSleep = 100;
constexpr char kWriteMessage[] = "FTx232H - Could not write data to device";
constexpr char kReadMessage[] = "FTx232H - Could not read from device";

// Reads everything that is queued and forgets it.
int32_t drain(InterfaceHandle *bridge) {
  FTx232H_Connection &connection = *connectionOf(bridge);
  if (FT_STATUS status = connection.d2xx.GetQueueStatus(connection.device_handle, &connection.queue_count)) {
    return static_cast<int32_t>(status);
  }
  for (uint32_t left = connection.queue_count; left > 0; left -= std::min(left, connection.bytes_read)) {
    const uint32_t count = std::min<uint32_t>(left, sizeof connection.input_buffer);
    if (int32_t code = ReadBytesFromDevice(bridge, connection.input_buffer, count, &connection.bytes_read)) {
      return code;
    }
    if (connection.bytes_read == 0) break;
  }
  return kSuccess;
}

}  // namespace

bool reserveOutput(FTx232H_Connection &connection, size_t count) {
  if (count <= sizeof connection.output_buffer - connection.output_count) return true;
  connection.output_count = connection.pending_read_count = 0;
  return false;
}

void appendOutput(FTx232H_Connection &connection, const uint8_t *bytes, size_t count) {
  std::memcpy(connection.output_buffer + connection.output_count, bytes, count);
  connection.output_count += static_cast<uint32_t>(count);
}

void appendOutput(FTx232H_Connection &connection, std::initializer_list<uint8_t> bytes) {
  appendOutput(connection, bytes.begin(), bytes.size());
}

void appendPinCommands(FTx232H_Connection &connection) {
  const uint16_t states = connection.pin_states;
  const uint16_t directions = connection.pin_directions;
  appendOutput(connection, {kSetLowPins, static_cast<uint8_t>(states), static_cast<uint8_t>(directions), kSetHighPins,
                            static_cast<uint8_t>(states >> 8), static_cast<uint8_t>(directions >> 8)});
}

int32_t AddByteToOutputBuffer(InterfaceHandle *bridge, uint8_t byte, int32_t first) {
  FTx232H_Connection &connection = *connectionOf(bridge);
  if (first == 1) connection.output_count = 0;
  if (!reserveOutput(connection, 1)) return origin(interfaceErrorRecord(bridge), HERE, kBufferTooSmall);
  appendOutput(connection, {byte});
  return kSuccess;
}

int32_t SendBytesToDevice(InterfaceHandle *bridge) {
  QTX_StackTrace *record = interfaceErrorRecord(bridge);
  FTx232H_Connection &connection = *connectionOf(bridge);
  connection.chunk_length = connection.bytes_written = connection.total_written = 0;

  if (connection.output_count <= kChunkLength) {
    if (connection.d2xx.Write(connection.device_handle, connection.output_buffer, connection.output_count,
                              &connection.bytes_written)) {
      return origin(record, HERE, kInterfaceWrite, kWriteMessage);
    }
    connection.output_count = 0;
    return kSuccess;
  }

  while (connection.total_written < connection.output_count) {
    connection.chunk_length = std::min(kChunkLength, connection.output_count - connection.total_written);
    // A device that takes nothing would keep this loop going for ever.
    if (connection.d2xx.Write(connection.device_handle, connection.output_buffer + connection.total_written,
                              connection.chunk_length, &connection.bytes_written) ||
        connection.bytes_written == 0) {
      return origin(record, HERE, kInterfaceWrite, kWriteMessage);
    }
    connection.total_written += std::min(connection.bytes_written, connection.chunk_length);
  }
  connection.output_count = 0;
  return kSuccess;
}

int32_t ReadBytesFromDevice(InterfaceHandle *bridge, uint8_t *dest, uint32_t count, uint32_t *got) {
  FTx232H_Connection &connection = *connectionOf(bridge);
  dest[0] = 0;
  if (connection.d2xx.Read(connection.device_handle, dest, count, got)) {
    return origin(interfaceErrorRecord(bridge), HERE, kInterfaceRead, kReadMessage);
  }
  return kSuccess;
}

int32_t ResetInQueue(InterfaceHandle *bridge) {
  connectionOf(bridge)->bytes_read = 0;
  return drain(bridge);
}

int32_t ResetUSBDevicePurgeUSBInputBuffer(InterfaceHandle *bridge) {
  FTx232H_Connection &connection = *connectionOf(bridge);
  connection.bytes_read = 0;
  if (FT_STATUS status = connection.d2xx.ResetDevice(connection.device_handle)) return static_cast<int32_t>(status);
  return drain(bridge);
}

int32_t waitForBytesRecieved(InterfaceHandle *bridge, uint32_t expected) {
  FTx232H_Connection &connection = *connectionOf(bridge);
  FT_STATUS status = connection.d2xx.GetQueueStatus(connection.device_handle, &connection.queue_count);
  uint32_t counter = 0;
  // Equality on purpose: more bytes than expected are the answer to something else.
  while (!status && counter <= kMaximumPolls && connection.queue_count != expected) {
    ++counter;
    status = connection.d2xx.GetQueueStatus(connection.device_handle, &connection.queue_count);
    if (counter % kPollsPerSleep == 0) QTX_sleep_ms(1);
  }
  if (status || counter <= kMaximumPolls) return static_cast<int32_t>(status);

  char message[128];
  std::snprintf(message, sizeof message,
                "FTx232H - Timeout waiting for data: Got %" PRIu64 " bytes, waiting for %" PRId32
                " bytes (Timeout counter: %" PRIu32 ")",
                uint64_t{connection.queue_count}, static_cast<int32_t>(expected), counter);
  // Before the record is written, so that a failure in here does not take the place of the time-out.
  ResetInQueue(bridge);
  connection.pending_read_count = 0;
  return origin(interfaceErrorRecord(bridge), HERE, kInterfaceTimeout, message);
}

int32_t ReadInQueue(InterfaceHandle *bridge, uint32_t expected) {
  QTX_StackTrace *record = interfaceErrorRecord(bridge);
  FTx232H_Connection &connection = *connectionOf(bridge);
  if (expected > sizeof connection.input_buffer) return origin(record, HERE, kBufferTooSmall);
  connection.bytes_read = connection.queue_count = 0;

  const int32_t waited = waitForBytesRecieved(bridge, expected);
  if (waited == kInterfaceTimeout) {
    // One code on every path; the text goes on to tell of the time-out.
    if (record) record->code = kInterfaceStatus;
    return passThrough(record, HERE, kInterfaceStatus);
  }
  if (waited || connection.queue_count == 0) return origin(record, HERE, kInterfaceStatus);

  if (ReadBytesFromDevice(bridge, connection.input_buffer, connection.queue_count, &connection.bytes_read)) {
    return passThrough(record, HERE, kInterfaceRead);
  }
  if (connection.bytes_read != expected) return origin(record, HERE, kInterfaceRead, kReadMessage);
  return kSuccess;
}
