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
constexpr uint8_t kSendNothing = kSendImmediate;

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

// A device that could not be closed when its connection was given up.
struct LeftDevice {
  FTx232H_D2XX d2xx;
  FT_HANDLE handle;
  char serial[kSerialSize];
  std::unique_ptr<LeftDevice> next;
};

std::mutex left_devices_mutex;
std::unique_ptr<LeftDevice> left_devices;

bool sameLibrary(const FTx232H_D2XX &a, const FTx232H_D2XX &b) { return a.OpenEx == b.OpenEx && a.Close == b.Close; }

void leaveDevice(const FTx232H_Connection &connection) {
  std::unique_ptr<LeftDevice> device(new (std::nothrow) LeftDevice{connection.d2xx, connection.device_handle, {}, {}});
  if (!device) return;
  std::memcpy(device->serial, connection.serial, sizeof device->serial);
  const std::lock_guard guard(left_devices_mutex);
  device->next = std::move(left_devices);
  left_devices = std::move(device);
}

// Removes the devices that the condition holds for. True when there were any.
template <typename Condition>
bool removeLeftDevices(Condition isGone) {
  const std::lock_guard guard(left_devices_mutex);
  bool removed = false;
  for (std::unique_ptr<LeftDevice> *device = &left_devices; *device;) {
    if (!isGone(**device)) {
      device = &(*device)->next;
      continue;
    }
    *device = std::move((*device)->next);
    removed = true;
  }
  return removed;
}

Outcome openDevice(FTx232H_Connection &connection) {
  connection.d2xx = d2xx::current();
  const auto open = [&connection] {
    return connection.d2xx.OpenEx(connection.serial, FT_OPEN_BY_SERIAL_NUMBER, &connection.device_handle) == FT_OK;
  };
  connection.open = open() || (closeLeftDevices(connection.d2xx, connection.serial) && open());
  if (!connection.open) {
    connection.d2xx = d2xx::unavailable();
    return {kInterfaceOpen, kSerialMessage};
  }
  // A handle that is given out anew no longer stands for a device that was left.
  removeLeftDevices([&connection](const LeftDevice &device) {
    return sameLibrary(device.d2xx, connection.d2xx) && device.handle == connection.device_handle;
  });
  return {};
}

// Bridges settle their device list when it is read. It says how much the device takes ahead.
Outcome readDeviceList(FTx232H_Connection &connection) {
  // For what a host that uses the bridge library itself lists between the two calls.
  constexpr size_t kSpareNodes = 32;
  const FTx232H_D2XX &d2xx = connection.d2xx;
  const Outcome failed{kInterfaceList, "FTx232H - Could not create list of connected FT-devices"};
  const std::lock_guard guard(deviceListMutex());
  uint32_t count = 0;
  if (d2xx.CreateDeviceInfoList(&count)) return failed;
  const uint32_t room = count;
  const std::unique_ptr<FT_Node[]> nodes(new (std::nothrow) FT_Node[size_t{room} + kSpareNodes]{});
  if (!nodes) return {kOutOfMemory};
  if (d2xx.GetDeviceInfoList(nodes.get(), &count)) return failed;
  for (uint32_t i = 0; i < std::min(room, count); ++i) {
    const bool same = std::strncmp(nodes[i].SerialNumber, connection.serial, sizeof nodes[i].SerialNumber) == 0;
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
  interfaceNoteConnection(bridge, false);
  if (connection && connection->open && connection->d2xx.Close(connection->device_handle)) leaveDevice(*connection);
}

bool closeLeftDevices(const FTx232H_D2XX &d2xx, const char *serial) {
  return removeLeftDevices([&](const LeftDevice &device) {
    const bool wanted = sameLibrary(device.d2xx, d2xx) && (!serial || std::strcmp(device.serial, serial) == 0);
    return wanted && device.d2xx.Close(device.handle) == FT_OK;
  });
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

  if (!findSerial(connection_string, connection->serial)) {
    return origin(record, HERE, kInterfaceOpen, kSerialMessage);
  }
  if (Outcome step = openDevice(*connection); step.code) return origin(record, HERE, step.code, step.message);
  if (Outcome step = readDeviceList(*connection); step.code) return origin(record, HERE, step.code, step.message);
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
  interfaceNoteConnection(bridge, true);
  return kSuccess;
}

int32_t FTx232H_Probe(InterfaceHandle *bridge) {
  FTx232H_Connection *connection = connectionOf(bridge);
  if (!connection) return FT_INVALID_HANDLE;
  uint32_t count = 0;
  FT_STATUS status = connection->d2xx.GetQueueStatus(connection->device_handle, &count);
  if (status == FT_OK) status = connection->d2xx.Write(connection->device_handle, &kSendNothing, 1, &count);
  return static_cast<int32_t>(status);
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
