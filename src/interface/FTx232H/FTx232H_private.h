// What the sources of the FTx232H driver share. Functions that take a bridge need its connection block, unless stated
// otherwise; failures go to the bridge's error record.
//
// MPSSE commands are collected in the block's output buffer (the batch) and sent together.
#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>
#include <mutex>
#include <vector>

#include "../program.h"
#include "FTx232H.h"

// D2XX has at most 15 characters.
constexpr size_t kSerialSize = 64;

// Bus programs on their way: ordered ones oldest first, the last `unsent` of them not yet written.
struct FTx232H_Flights {
  struct Flight {
    pulsekit::BusProgram *program;
    pulsekit::ProgramRun *run;
    uint32_t length, tail;  // bytes of its commands; of these behind the last one that answers
    uint32_t answer, got;   // bytes, the check bytes included
    uint64_t clocks;
    uint16_t states_before, states_after;
    uint8_t check[2];  // expected, under check_mask
    uint8_t check_mask;
    uint8_t arrived_check[2];
  };
  std::array<Flight, 128> flights;
  size_t first, count, unsent;
  std::vector<uint8_t> batch;  // commands of the unsent ones
  uint32_t ordered;            // bytes of the commands of all
  uint32_t tail;               // bytes behind the last answer that has arrived, which the bridge may hold yet
  uint32_t owed;               // answer bytes that are still to come
  uint32_t fifo;               // bytes that the bridge takes without being done with those before

  // What dropped programs have left behind, until it is cleared away.
  std::vector<uint8_t> rest;  // of commands that the bridge has in part
  uint32_t stale;             // answer bytes
  uint64_t stale_clocks;
  bool out_of_step;

  pulsekit::ProgramOwner *owner;
  bool owner_active;
};

struct FTx232H_Connection {
  FT_HANDLE device_handle;
  uint32_t bytes_read;
  uint32_t output_count;
  uint32_t chunk_length;
  uint32_t bytes_written;
  uint32_t total_written;
  uint32_t queue_count;         // bytes waiting in the device's receive queue
  uint32_t pending_read_count;  // bytes that the batch will return
  uint8_t input_buffer[131071];
  uint8_t output_buffer[262143];
  uint16_t pin_directions;  // 1 is an output; pins 0 to 7 are the low bank
  uint16_t pin_states;

  FTx232H_D2XX d2xx;  // the functions that the device was opened with
  char serial[kSerialSize];
  bool open;
  uint32_t clock_divisor;
  FTx232H_Flights programs;
};

inline FTx232H_Connection *connectionOf(const InterfaceHandle *bridge) {
  return static_cast<FTx232H_Connection *>(bridge->connection);
}

enum MpsseCommand : uint8_t {
  kWriteBytes = 0x11,  // most significant bit first, out on the falling edge
  kReadBytes = 0x20,   // in on the rising edge
  kExchangeBytesFallingOut = 0x31,
  kExchangeBitsFallingOut = 0x33,
  kExchangeBytesRisingOut = 0x34,
  kExchangeBitsRisingOut = 0x36,
  kSetLowPins = 0x80,
  kGetLowPins = 0x81,
  kSetHighPins = 0x82,
  kGetHighPins = 0x83,
  kLoopbackOff = 0x85,
  kSetDivisor = 0x86,
  kSendImmediate = 0x87,
  kPrescalerOff = 0x8A,
  kClockBits = 0x8E,  // without data
  kClockBytes = 0x8F
};

// ---- Transport ----
// False when `count` more bytes do not fit; the batch is emptied then.
bool reserveOutput(FTx232H_Connection &connection, size_t count);
// Appends to the batch; room has been reserved.
void appendOutput(FTx232H_Connection &connection, std::initializer_list<uint8_t> bytes);
void appendOutput(FTx232H_Connection &connection, const uint8_t *bytes, size_t count);
// The commands that drive all sixteen pins as the block has them: kPinCommandsLength bytes.
constexpr size_t kPinCommandsLength = 6;
void appendPinCommands(FTx232H_Connection &connection);

int32_t AddByteToOutputBuffer(InterfaceHandle *bridge, uint8_t byte, int32_t first);
// Writes the batch. It is empty afterwards, or unchanged after a failure. Codes: 265.
int32_t SendBytesToDevice(InterfaceHandle *bridge);
// One read of at most count bytes. Codes: 264.
int32_t ReadBytesFromDevice(InterfaceHandle *bridge, uint8_t *dest, uint32_t count, uint32_t *got);
// Both drain the receive queue and return a D2XX status or 264.
int32_t ResetUSBDevicePurgeUSBInputBuffer(InterfaceHandle *bridge);
int32_t ResetInQueue(InterfaceHandle *bridge);
// Polls until exactly the expected count is queued. Returns a D2XX status or 270.
int32_t waitForBytesRecieved(InterfaceHandle *bridge, uint32_t expected);
// Fills input_buffer with exactly the expected count. Codes: 2, 263, 264.
int32_t ReadInQueue(InterfaceHandle *bridge, uint32_t expected);

// ---- SPI and pins; these and the log work without a connection block too: 269 ----
int32_t FTx232H_SendReceiveSPI(InterfaceHandle *bridge, uint32_t channel, const uint8_t *out, int32_t out_count,
                               uint8_t *in, uint32_t in_count, int32_t mode);
int32_t FTx232H_SendReceiveBitsSPI(InterfaceHandle *bridge, uint32_t channel, const uint8_t *out, int32_t out_bits,
                                   uint8_t *in, int32_t in_bits, uint32_t flags);
int32_t FTx232H_SetIO(InterfaceHandle *bridge, uint32_t pin, uint32_t value);
int32_t FTx232H_SetIO_Direction(InterfaceHandle *bridge, uint32_t pin, uint32_t direction, uint32_t value);
int32_t FTx232H_GetIO(InterfaceHandle *bridge, uint32_t pin, uint32_t *value);
// The clock is 60 MHz / ((1 + divisor) * 2). Does nothing while the owner has no connection block.
int32_t setSPIClockFrequency(QTX_Handle *owner, int16_t divisor);

// A pin number or -1. The table depends on the owner's module; the owner's interface handle remembers the choice.
int32_t FTx232H_ID_to_pin(QTX_Handle *owner, int32_t id);
int32_t FTx232H_ID_to_SPIchannel(QTX_Handle *owner, int32_t id);
inline bool isBridgePin(int32_t pin) { return pin >= 0 && pin < 16; }

// ---- Bus programs ----
// Opens every other operation: waits for the programs in flight and clears away what failed ones have left. Their
// failures are their owners'. Codes: 1537, 1538; those of the bridge when it can't be brought back into step.
int32_t settlePrograms(InterfaceHandle *bridge);
// Ends the programs in flight with the code.
void endPrograms(FTx232H_Connection &connection, int32_t code, const char *message);
// The commands that let the clock run without data, and their length.
void FTx232H_appendPause(std::vector<uint8_t> &stream, uint64_t clocks);
size_t FTx232H_pauseLength(uint64_t clocks);
constexpr uint32_t kSmallestFifo = 1024;
uint32_t fifoOf(uint32_t device_type);

// ---- Connection ----
// A block that is not open: every D2XX call on it fails. Null when memory is short.
FTx232H_Connection *createConnection();
// Closes the device if it is open, and clears the pointer. A device that can't be closed is closed later, when it is in
// the way.
void destroyConnection(InterfaceHandle *bridge);
// Tries again to close the devices that could not be closed; all of the same library, or only the one with that serial
// number. True when one was closed.
bool closeLeftDevices(const FTx232H_D2XX &d2xx, const char *serial = nullptr);
int32_t FTx232H_ConnectDevice(InterfaceHandle *bridge, void **connection, const char *connection_string);
int32_t FTx232H_DisconnectDevice(InterfaceHandle *bridge, void *connection);
// Sends a command that does nothing: only a write finds out about every bridge that is gone. A D2XX status.
int32_t FTx232H_Probe(InterfaceHandle *bridge);

// ---- Process-wide device registry ----
// Held around everything that depends on the process's one list of devices, and around the registry.
std::mutex &deviceListMutex();
void clearDeviceInfoEntriesOnce();
int32_t FTx232H_AddDeviceInfoEntry(FT_HANDLE handle, const char *description, const char *serial);
int32_t FTx232H_DeleteDeviceInfoEntry(FT_HANDLE handle);

// ---- Interface log ----
int32_t FTx232H_InterfaceLogging(InterfaceHandle *bridge, int32_t mode, const char *file_name);
int32_t FTx232H_InterfaceLogComment(InterfaceHandle *bridge, const char *text);
void closeInterfaceLog(InterfaceHandle *bridge);
// Bytes as the log writes them; nothing is written unless a log is recording.
void logWrittenBytes(InterfaceHandle *bridge, const uint8_t *bytes, size_t count);
void logReadBytes(InterfaceHandle *bridge, const uint8_t *bytes, size_t count);
void logWrittenBits(InterfaceHandle *bridge, const uint8_t *bytes, size_t count);
void logExchangedBits(InterfaceHandle *bridge, const uint8_t *bytes, size_t count);
