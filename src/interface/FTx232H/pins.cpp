// Pins and SPI channels: from the identifiers that callers use to the sixteen pins of the bridge.
#include <cstring>

#include "../../support/QTX_Handle.h"
#include "../../support/trace.h"
#include "FTx232H_private.h"

using namespace pulsekit;

static constexpr const char kSource[] = "src/interface/FTx232H/FTx232H";

namespace {

constexpr int32_t kFirstSymbolicPin = 500;
constexpr int32_t kNone = -1;

struct IdToPin {
  int32_t id, pin;
};

constexpr IdToPin kPinsOfK2x5[] = {{500, 14}, {1100, 7}, {1101, 0}, {1102, 1},  {1103, 2}, {1104, 3},
                                   {1105, 6}, {1106, 4}, {1107, 5}, {1108, 14}, {1109, 7}, {kNone, kNone}};
constexpr IdToPin kPinsOfK265[] = {{500, 14}, {1200, 7}, {1201, 0}, {1202, 1},  {1203, 2}, {1204, 3},
                                   {1205, 6}, {1206, 4}, {1207, 5}, {1208, 14}, {1209, 7}, {kNone, kNone}};
constexpr IdToPin kChannelsOfK2x5[] = {{0, 3}, {1, 4}, {kNone, kNone}};
constexpr IdToPin kChannelsOfK265[] = {{0, 3}, {1, 4}, {kNone, kNone}};
constexpr IdToPin kNothing[] = {{kNone, kNone}};

struct ModulePins {
  const char *module_driver;
  const IdToPin *pins, *channels;
};

constexpr ModulePins kModules[] = {
    {"DEFAULT", kPinsOfK2x5, kChannelsOfK2x5},
    {"QTX_K2x5", kPinsOfK2x5, kChannelsOfK2x5},
    {"QTX_K265", kPinsOfK265, kChannelsOfK265},
};
constexpr ModulePins kUnknownModulePins = {"", kNothing, kNothing};

const ModulePins &pinsOfModule(const QTX_Handle *owner) {
  const char *name = owner && owner->module ? moduleDriverName(owner->module) : kModules[0].module_driver;
  for (const ModulePins &module : kModules) {
    if (name && std::strcmp(module.module_driver, name) == 0) return module;
  }
  return kUnknownModulePins;
}

// The table of the owner's module, remembered by the owner's interface handle.
const IdToPin *chosenTable(const QTX_Handle *owner, const void *InterfaceHandle::*remembered,
                           const IdToPin *ModulePins::*table) {
  InterfaceHandle *bridge = owner ? owner->interface_handle : nullptr;
  if (!bridge) return pinsOfModule(owner).*table;
  if (!(bridge->*remembered)) bridge->*remembered = pinsOfModule(owner).*table;
  return static_cast<const IdToPin *>(bridge->*remembered);
}

int32_t pinIn(const IdToPin *table, int32_t id) {
  for (; table->id != kNone; ++table) {
    if (table->id == id) return table->pin;
  }
  return kNone;
}

uint16_t withBit(uint16_t word, int32_t bit, uint32_t value) {
  return static_cast<uint16_t>((word & ~(1u << bit)) | (value << bit));
}

int32_t sendPins(InterfaceHandle *bridge) {
  appendPinCommands(*connectionOf(bridge));
  return SendBytesToDevice(bridge);
}

}  // namespace

int32_t FTx232H_ID_to_pin(QTX_Handle *owner, int32_t id) {
  if (id <= 0) return kNone;
  if (id < kFirstSymbolicPin) return id;
  return pinIn(chosenTable(owner, &InterfaceHandle::pin_map, &ModulePins::pins), id);
}

int32_t FTx232H_ID_to_SPIchannel(QTX_Handle *owner, int32_t id) {
  return pinIn(chosenTable(owner, &InterfaceHandle::spi_channel_map, &ModulePins::channels), id);
}

int32_t FTx232H_SetIO(InterfaceHandle *bridge, uint32_t pin, uint32_t value) {
  QTX_StackTrace *record = interfaceErrorRecord(bridge);
  FTx232H_Connection *connection = connectionOf(bridge);
  if (!connection) return origin(record, HERE, kInterfaceNotInitialized);
  const int32_t bit = FTx232H_ID_to_pin(bridge->owner, static_cast<int32_t>(pin));
  if (!isBridgePin(bit)) {
    return origin(record, HERE, kIoRead, "FTx232H - Trying to set the value of an IO pin outside the legal range");
  }
  if (int32_t code = settlePrograms(bridge)) return passThrough(record, HERE, code);
  if (!reserveOutput(*connection, kPinCommandsLength)) return origin(record, HERE, kBufferTooSmall);
  connection->pin_states = withBit(connection->pin_states, bit, value);
  if (int32_t code = sendPins(bridge)) return passThrough(record, HERE, code);
  return kSuccess;
}

int32_t FTx232H_SetIO_Direction(InterfaceHandle *bridge, uint32_t pin, uint32_t direction, uint32_t value) {
  QTX_StackTrace *record = interfaceErrorRecord(bridge);
  FTx232H_Connection *connection = connectionOf(bridge);
  if (!connection) return origin(record, HERE, kInterfaceNotInitialized);
  const int32_t bit = FTx232H_ID_to_pin(bridge->owner, static_cast<int32_t>(pin));
  if (!isBridgePin(bit)) {
    return origin(record, HERE, kIoRead, "FTx232H - Trying to set the value of an IO pin outside the legal range");
  }
  if (int32_t code = settlePrograms(bridge)) return passThrough(record, HERE, code);
  if (!reserveOutput(*connection, kPinCommandsLength)) return origin(record, HERE, kBufferTooSmall);
  connection->pin_directions = withBit(connection->pin_directions, bit, direction);
  connection->pin_states = withBit(connection->pin_states, bit, value);
  if (int32_t code = sendPins(bridge)) return passThrough(record, HERE, code);
  return kSuccess;
}

int32_t FTx232H_GetIO(InterfaceHandle *bridge, uint32_t pin, uint32_t *value) {
  QTX_StackTrace *record = interfaceErrorRecord(bridge);
  FTx232H_Connection *connection = connectionOf(bridge);
  if (!connection) return origin(record, HERE, kInterfaceNotInitialized);
  if (!value) return origin(record, HERE, kError);
  const int32_t bit = FTx232H_ID_to_pin(bridge->owner, static_cast<int32_t>(pin));
  if (!isBridgePin(bit)) {
    return origin(record, HERE, kIoRead, "FTx232H - Trying to read the status of an IO pin outside the legal range");
  }
  if (int32_t code = settlePrograms(bridge)) return passThrough(record, HERE, code);
  if (!reserveOutput(*connection, 3)) return origin(record, HERE, kBufferTooSmall);
  appendOutput(*connection, {kGetLowPins, kGetHighPins, kSendImmediate});
  if (int32_t code = SendBytesToDevice(bridge)) return passThrough(record, HERE, code);
  if (int32_t code = ReadInQueue(bridge, 2)) return passThrough(record, HERE, code);
  // The levels seen also become the levels that the next pin command drives.
  connection->pin_states = static_cast<uint16_t>(connection->input_buffer[0] | (connection->input_buffer[1] << 8));
  *value = (connection->pin_states >> bit) & 1u;
  return kSuccess;
}
