#include <algorithm>
#include <cstring>

#include "../../support/QTX_Handle.h"
#include "../../support/trace.h"
#include "../../support/vars.h"
#include "FTx232H_private.h"

using namespace pulsekit;

static constexpr const char kSource[] = "src/interface/FTx232H/FTx232H";

namespace {

// What the 16-bit length field of one shift command can say.
constexpr size_t kMaximumTransfer = 65536;
constexpr size_t kShiftHeaderLength = 3;
constexpr uint32_t kOutOnFallingEdge = 0x100;
constexpr char kChannelMessage[] = "FTx232H - Trying to use an SPI channel outside the legal range";

struct Transfer {
  const uint8_t *out;
  size_t out_count;
  uint8_t *in;
  uint32_t in_count;
  int32_t mode;
};

void dropBatch(FTx232H_Connection &connection) { connection.output_count = connection.pending_read_count = 0; }

void select(FTx232H_Connection &connection, int32_t chip_select) {
  connection.pin_states = static_cast<uint16_t>(connection.pin_states & ~(1u << chip_select));
  appendPinCommands(connection);
}

void deselect(FTx232H_Connection &connection, int32_t chip_select) {
  connection.pin_states = static_cast<uint16_t>(connection.pin_states | (1u << chip_select));
  appendPinCommands(connection);
}

void appendShift(FTx232H_Connection &connection, uint8_t command, size_t count) {
  const size_t field = count - 1;
  appendOutput(connection, {command, static_cast<uint8_t>(field), static_cast<uint8_t>(field >> 8)});
}

bool clocksIn(const Transfer &transfer) { return transfer.mode != SPI_MODE_COLLECT && transfer.in_count > 0; }

size_t commandLength(const Transfer &transfer) {
  return 2 * kPinCommandsLength + 1 + (transfer.out_count > 0 ? kShiftHeaderLength + transfer.out_count : 0) +
         (clocksIn(transfer) ? kShiftHeaderLength : 0);
}

// Makes room for the transfer's commands and its answer; what fits no batch empties it.
int32_t reserve(FTx232H_Connection &connection, const Transfer &transfer, size_t answer) {
  const bool fits = transfer.out_count <= kMaximumTransfer &&
                    (!clocksIn(transfer) || transfer.in_count <= kMaximumTransfer) &&
                    answer <= sizeof connection.input_buffer && reserveOutput(connection, commandLength(transfer));
  if (fits) return kSuccess;
  dropBatch(connection);
  return kBufferTooSmall;
}

// Takes the transfer's answer into the pending count; the code of a transfer that can't be done.
int32_t admit(FTx232H_Connection &connection, const Transfer &transfer) {
  if (transfer.mode < SPI_MODE_QUEUE || transfer.mode > SPI_MODE_COLLECT) return kError;
  if (transfer.out_count > 0 && !transfer.out) return kError;
  const bool collects = transfer.mode == SPI_MODE_COLLECT;
  if (collects && transfer.in_count < connection.pending_read_count) return kBufferTooSmall;
  const size_t answer = collects ? transfer.in_count : size_t{connection.pending_read_count} + transfer.in_count;
  if (transfer.mode != SPI_MODE_QUEUE && answer > 0 && !transfer.in) return kError;

  if (transfer.mode == SPI_MODE_EXECUTE && connection.pending_read_count == 0) connection.output_count = 0;
  if (int32_t code = reserve(connection, transfer, answer)) return code;
  connection.pending_read_count = static_cast<uint32_t>(answer);
  return kSuccess;
}

void appendTransfer(FTx232H_Connection &connection, int32_t chip_select, const Transfer &transfer) {
  select(connection, chip_select);
  if (transfer.out_count > 0) {
    appendShift(connection, kWriteBytes, transfer.out_count);
    appendOutput(connection, transfer.out, transfer.out_count);
  }
  if (clocksIn(transfer)) appendShift(connection, kReadBytes, transfer.in_count);
  deselect(connection, chip_select);
  appendOutput(connection, {kSendImmediate});
}

void appendBits(FTx232H_Connection &connection, const uint8_t *out, size_t bits, uint32_t flags) {
  const bool falling = (flags & kOutOnFallingEdge) != 0;
  const size_t bytes = bits / 8;
  const size_t rest = bits % 8;
  if (bytes > 0) {
    appendShift(connection, falling ? kExchangeBytesFallingOut : kExchangeBytesRisingOut, bytes);
    appendOutput(connection, out, bytes);
  }
  if (rest > 0) {
    const uint8_t command = falling ? kExchangeBitsFallingOut : kExchangeBitsRisingOut;
    appendOutput(connection, {command, static_cast<uint8_t>(rest - 1), out[bytes]});
  }
}

// Copies the pending answer out of the input buffer.
size_t takeAnswer(FTx232H_Connection &connection, uint8_t *in) {
  const size_t count = connection.pending_read_count;
  std::memcpy(in, connection.input_buffer, count);
  connection.pending_read_count = 0;
  return count;
}

size_t countOf(int32_t given) { return static_cast<size_t>(std::max(given, 0)); }

size_t bytesFor(size_t bits) { return (bits + 7) / 8; }

}  // namespace

int32_t FTx232H_SendReceiveSPI(InterfaceHandle *bridge, uint32_t channel, const uint8_t *out, int32_t out_count,
                               uint8_t *in, uint32_t in_count, int32_t mode) {
  QTX_StackTrace *record = interfaceErrorRecord(bridge);
  FTx232H_Connection *connection = connectionOf(bridge);
  if (!connection) return origin(record, HERE, kInterfaceNotInitialized);
  const Transfer transfer{out, countOf(out_count), in, in_count, mode};

  // Whatever is refused or fails, no answer stays pending: the next transfer would copy more than its caller asked for.
  const auto failed = [connection](int32_t code) {
    connection->pending_read_count = 0;
    return code;
  };
  const int32_t chip_select = FTx232H_ID_to_SPIchannel(bridge->owner, static_cast<int32_t>(channel));
  if (!isBridgePin(chip_select)) return failed(origin(record, HERE, kIoRead, kChannelMessage));
  if (int32_t code = settlePrograms(bridge)) return failed(passThrough(record, HERE, code));
  if (int32_t code = admit(*connection, transfer)) return failed(origin(record, HERE, code));
  appendTransfer(*connection, chip_select, transfer);
  if (mode == SPI_MODE_QUEUE) return kSuccess;

  if (SendBytesToDevice(bridge)) return failed(passThrough(record, HERE, kInterfaceWrite));
  logWrittenBytes(bridge, out, transfer.out_count);
  if (connection->pending_read_count == 0) return kSuccess;
  if (int32_t code = ReadInQueue(bridge, connection->pending_read_count))
    return failed(passThrough(record, HERE, code));
  logReadBytes(bridge, in, takeAnswer(*connection, in));
  return kSuccess;
}

int32_t FTx232H_SendReceiveBitsSPI(InterfaceHandle *bridge, uint32_t channel, const uint8_t *out, int32_t out_bits,
                                   uint8_t *in, int32_t in_bits, uint32_t flags) {
  QTX_StackTrace *record = interfaceErrorRecord(bridge);
  FTx232H_Connection *connection = connectionOf(bridge);
  if (!connection) return origin(record, HERE, kInterfaceNotInitialized);
  connection->pending_read_count = 0;
  const int32_t chip_select = FTx232H_ID_to_SPIchannel(bridge->owner, static_cast<int32_t>(channel));
  if (!isBridgePin(chip_select)) return origin(record, HERE, kIoRead, kChannelMessage);
  if (int32_t code = settlePrograms(bridge)) return passThrough(record, HERE, code);
  connection->output_count = 0;

  const size_t bits = countOf(out_bits);
  const size_t answer = bytesFor(countOf(in_bits));
  if ((bits > 0 && !out) || (answer > 0 && !in)) return origin(record, HERE, kError);
  if (bytesFor(bits) > kMaximumTransfer || answer > kMaximumTransfer) return origin(record, HERE, kBufferTooSmall);
  uint64_t toggles_select = 0;
  if (int32_t code = varGetValue_ByName(bridge->variables, "SPIToggleSlaveSelectEnable", &toggles_select)) {
    return passThrough(record, HERE, code);
  }

  connection->pending_read_count = static_cast<uint32_t>(answer);
  if (toggles_select == 1) select(*connection, chip_select);
  appendBits(*connection, out, bits, flags);
  if (toggles_select == 1) deselect(*connection, chip_select);
  appendOutput(*connection, {kSendImmediate});

  if (int32_t code = SendBytesToDevice(bridge)) {
    connection->pending_read_count = 0;
    return passThrough(record, HERE, code);
  }
  logWrittenBits(bridge, out, bytesFor(bits));
  if (answer == 0) {
    // The bits clocked in all the same are nobody's answer.
    if (bits > 0) ReadInQueue(bridge, static_cast<uint32_t>(bytesFor(bits)));
    return origin(record, HERE, kInterfaceWrite, "FTx232H - Failed writing data to the SPI bus");
  }
  if (ReadInQueue(bridge, connection->pending_read_count)) {
    connection->pending_read_count = 0;
    return origin(record, HERE, kInterfaceRead, "FTx232H - Failed reading data from SPI bus");
  }
  logExchangedBits(bridge, in, takeAnswer(*connection, in));
  return kSuccess;
}

int32_t setSPIClockFrequency(QTX_Handle *owner, int16_t divisor) {
  InterfaceHandle *bridge = owner ? owner->interface_handle : nullptr;
  FTx232H_Connection *connection = bridge ? connectionOf(bridge) : nullptr;
  if (!connection) return kSuccess;
  QTX_StackTrace *record = interfaceErrorRecord(bridge);
  const InterfaceLock lock(bridge);
  if (int32_t code = settlePrograms(bridge)) return passThrough(record, HERE, code);
  if (!reserveOutput(*connection, 3)) return origin(record, HERE, kBufferTooSmall);
  appendOutput(*connection, {kSetDivisor, static_cast<uint8_t>(divisor), static_cast<uint8_t>(divisor >> 8)});
  if (int32_t code = SendBytesToDevice(bridge)) return passThrough(record, HERE, code);
  connection->clock_divisor = static_cast<uint16_t>(divisor);
  return kSuccess;
}
