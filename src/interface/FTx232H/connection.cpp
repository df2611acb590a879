#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "../../support/trace.h"
#include "../../support/vars.h"
#include "D2XX/provider.h"
#include "FTx232H_private.h"

using namespace pulsekit;

static constexpr const char kSource[] = "src/interface/FTx232H/FTx232H";

namespace {

// D2XX has at most 15 characters.
constexpr size_t kSerialSize = 64;

// Clock low, everything else high; the clock, data out and chip select 0 are outputs.
constexpr uint16_t kInitialDirections = 0x000B;
constexpr uint16_t kInitialStates = 0xFFFE;
constexpr uint16_t kChipSelect0 = 1 << 3;

constexpr uint32_t kTransferSize = 65536;
constexpr uint32_t kReadTimeoutMs = 5000;
constexpr uint32_t kWriteTimeoutMs = 1000;
constexpr uint8_t kLatencyMs = 2;
constexpr uint8_t kBitModeReset = 0;
constexpr uint8_t kBitModeMpsse = 2;
constexpr uint32_t kSettleMs = 20;

constexpr char kSerialMessage[] = "FTx232H - Check if serial number is correct";

// A step of the connection that failed, for the record of the function that runs the steps; code 0 is success.
struct Outcome {
  int32_t code = kSuccess;
  const char *message = "";
};

// The text between the first "(" and the next ")". False when it is longer than any serial number.
bool findSerial(const char *connection_string, char (&serial)[kSerialSize]) {
  serial[0] = '\0';
  const char *begin = std::strchr(connection_string, '(');
  if (!begin) return true;
  ++begin;
  const size_t length = std::strcspn(begin, ")");
  if (length >= kSerialSize) return false;
  std::memcpy(serial, begin, length);
  serial[length] = '\0';
  return true;
}

Outcome openDevice(FTx232H_Connection &connection, const char *serial) {
  connection.d2xx = d2xx::current();
  if (connection.d2xx.OpenEx(serial, FT_OPEN_BY_SERIAL_NUMBER, &connection.device_handle)) {
    connection.d2xx = d2xx::unavailable();
    return {kInterfaceOpen, kSerialMessage};
  }
  connection.open = true;
  return {};
}

// Bridges settle their device list when it is read. It says how much the device takes ahead.
Outcome readDeviceList(FTx232H_Connection &connection, const char *serial) {
  const FTx232H_D2XX &d2xx = connection.d2xx;
  const Outcome failed{kInterfaceList, "FTx232H - Could not create list of connected FT-devices"};
  uint32_t count = 0;
  if (d2xx.CreateDeviceInfoList(&count)) return failed;
  const uint32_t room = count;
  const std::unique_ptr<FT_Node[]> nodes(new (std::nothrow) FT_Node[size_t{room} + 1]{});
  if (!nodes) return {kOutOfMemory};
  if (d2xx.GetDeviceInfoList(nodes.get(), &count)) return failed;
  for (uint32_t i = 0; i < std::min(room, count); ++i) {
    const bool same = std::strncmp(nodes[i].SerialNumber, serial, sizeof nodes[i].SerialNumber) == 0;
    if (same || nodes[i].Handle == connection.device_handle) connection.programs.fifo = fifoOf(nodes[i].Type);
  }
  return {};
}

Outcome configureDevice(InterfaceHandle *bridge) {
  const FTx232H_D2XX &d2xx = connectionOf(bridge)->d2xx;
  FT_HANDLE device = connectionOf(bridge)->device_handle;
  if (ResetUSBDevicePurgeUSBInputBuffer(bridge)) {
    return {kInterfaceInit, "FTx232H - Could not reset the input buffer"};
  }
  if (d2xx.SetUSBParameters(device, kTransferSize, kTransferSize)) {
    return {kInterfaceInit, "FTx232H - Could not set the USB buffer size"};
  }
  if (d2xx.SetTimeouts(device, kReadTimeoutMs, kWriteTimeoutMs)) {
    return {kInterfaceInit, "FTx232H - Could not set the read and write timeouts"};
  }
  if (d2xx.SetLatencyTimer(device, kLatencyMs)) {
    return {kInterfaceInit, "FTx232H - Could not set the latency timer"};
  }
  if (d2xx.SetBitMode(device, 0, kBitModeReset)) {
    return {kInterfaceInit, "FTx232H - Could not reset the bitmode"};
  }
  if (d2xx.SetBitMode(device, 0, kBitModeMpsse)) {
    return {kInterfaceInit, "FTx232H - Could not set the bitmode to MPSSE mode"};
  }
  QTX_sleep_ms(kSettleMs);
  return {};
}

int32_t sendAlone(InterfaceHandle *bridge, std::initializer_list<uint8_t> commands) {
  FTx232H_Connection &connection = *connectionOf(bridge);
  connection.output_count = 0;
  appendOutput(connection, commands);
  return SendBytesToDevice(bridge);
}

int32_t sendAllPins(InterfaceHandle *bridge) {
  connectionOf(bridge)->output_count = 0;
  appendPinCommands(*connectionOf(bridge));
  return SendBytesToDevice(bridge);
}

int32_t sendLowPins(InterfaceHandle *bridge) {
  const FTx232H_Connection &connection = *connectionOf(bridge);
  return sendAlone(bridge, {kSetLowPins, static_cast<uint8_t>(connection.pin_states),
                            static_cast<uint8_t>(connection.pin_directions)});
}

int32_t pulseChipSelect(InterfaceHandle *bridge) {
  FTx232H_Connection &connection = *connectionOf(bridge);
  connection.pin_states = static_cast<uint16_t>(connection.pin_states & ~kChipSelect0);
  if (int32_t code = sendLowPins(bridge)) return code;
  connection.pin_states |= kChipSelect0;
  return sendLowPins(bridge);
}

}  // namespace

FTx232H_Connection *createConnection() {
  auto *connection = new (std::nothrow) FTx232H_Connection{};
  if (connection) connection->d2xx = d2xx::unavailable();
  return connection;
}

void destroyConnection(InterfaceHandle *bridge) {
  const std::unique_ptr<FTx232H_Connection> connection(connectionOf(bridge));
  bridge->connection = nullptr;
  if (connection) endPrograms(*connection, kInterfaceNotInitialized, "");
  if (connection && connection->open) connection->d2xx.Close(connection->device_handle);
}

int32_t FTx232H_ConnectDevice(InterfaceHandle *bridge, void **connection_slot, const char *connection_string) {
  QTX_StackTrace *record = interfaceErrorRecord(bridge);
  if (!connection_slot || !connection_string) return origin(record, HERE, kError);
  auto *connection = static_cast<FTx232H_Connection *>(*connection_slot);
  if (!connection || connection->open) {
    return origin(record, HERE, kInterfaceOpen, "FTx232H - A handle connects only once");
  }
  connection->pin_directions = kInitialDirections;
  connection->pin_states = kInitialStates;
  connection->bytes_read = connection->output_count = connection->chunk_length = connection->bytes_written = 0;
  connection->total_written = connection->queue_count = connection->pending_read_count = 0;
  connection->programs.fifo = kSmallestFifo;

  char serial[kSerialSize];
  if (!findSerial(connection_string, serial)) return origin(record, HERE, kInterfaceOpen, kSerialMessage);
  if (Outcome step = openDevice(*connection, serial); step.code) return origin(record, HERE, step.code, step.message);
  if (Outcome step = readDeviceList(*connection, serial); step.code)
    return origin(record, HERE, step.code, step.message);
  if (Outcome step = configureDevice(bridge); step.code) return origin(record, HERE, step.code, step.message);

  if (sendAllPins(bridge)) {
    return origin(record, HERE, kIoSet, "FTx232H - Could not set the correct state on the IO-pins");
  }
  // A bridge without one of these says so with the next command.
  sendAlone(bridge, {kSetDivisor, 0, 0});
  sendAlone(bridge, {kLoopbackOff});
  sendAlone(bridge, {kPrescalerOff});
  if (int32_t code = pulseChipSelect(bridge)) return passThrough(record, HERE, code);
  if (int32_t code = sendAlone(bridge, {kSendImmediate})) return passThrough(record, HERE, code);
  QTX_sleep_ms(kSettleMs);
  if (ResetInQueue(bridge)) return origin(record, HERE, kInterfaceInit, "FTx232H - Could not reset the input buffer");
  if (int32_t code = varsInit(bridge->variables)) return passThrough(record, HERE, code);
  return kSuccess;
}

int32_t FTx232H_DisconnectDevice(InterfaceHandle *bridge, void *connection_block) {
  auto *connection = static_cast<FTx232H_Connection *>(connection_block);
  if (connection && connection->open) {
    settlePrograms(bridge);
    if (connection->d2xx.Close(connection->device_handle)) {
      return origin(interfaceErrorRecord(bridge), HERE, kInterfaceDisconnect,
                    "FTx232H - Could not disconnect the device interface");
    }
    connection->open = false;
  }
  destroyConnection(bridge);
  return kSuccess;
}
