// What the drivers of all chip models share: the handle, SPI transactions, settings by name.
#pragma once

#include <cstddef>
#include <cstdint>

#include "../interface/interface.h"
#include "../support/QTX_Handle.h"
#include "../support/trace.h"
#include "chip.h"

namespace pulsekit::chip {

constexpr int32_t kMaxRegisterBytes = 8;
constexpr uint32_t kChipChannel = 0;  // of the SPI bus
constexpr uint8_t kWrite = 0x80;      // in the first byte of a command; actions are writes of no data
constexpr uint8_t kChipIdRegister = 0x02;
constexpr uint8_t kSweepStatusRegister = 0x47;  // 2 bytes

// ---- Handle ----
struct Driver {
  int32_t (*create_variables)(VariableSet **, QTX_StackTrace **);
  void (*free_variables)(VariableSet **);
  int32_t (*read_chip_id)(QTX_Handle *);
  ChipOperations operations;
  size_t timing_record_size, saved_delays_size;
};

// All or nothing: *out is null after a failure, of which only a missing library handle and short memory are possible.
int32_t createHandle(ChipHandle **out, QTX_StackTrace **error_state, QTX_Handle *access, const Driver &driver,
                     TracePoint at);
int32_t freeHandle(ChipHandle **slot, QTX_StackTrace **error_state_or_null, const Driver &driver);

// ---- Bus ----
// The bridge that the library handle reaches its chip through, or null.
InterfaceHandle *bridgeOf(const QTX_Handle *access);

// One chip-select frame on the chip's channel. `at` is the driver's function that sends it, which goes to the trace
// when it fails. The caller holds the bridge's lock.
int32_t transfer(QTX_Handle *access, TracePoint at, const uint8_t *out, int32_t out_count, uint8_t *in,
                 uint32_t in_count, int32_t mode = SPI_MODE_EXECUTE);

// The bytes of a register's value on the bus.
enum ByteOrder { kLeastSignificantFirst, kMostSignificantFirst };

// A register of at most 8 bytes, whose value is 0 after a failure. The caller holds the lock.
int32_t readRegister(QTX_Handle *access, TracePoint at, uint8_t address, uint32_t byte_count, ByteOrder order,
                     uint64_t *value);

// Code 1 for a length that no register has.
int32_t checkWriteLength(QTX_Handle *access, TracePoint at, int32_t byte_count);

// Reads the sweep status until the bit is clear. Codes: 1537, 1538, those of the read.
using ReadRegisterFunction = int32_t (*)(QTX_Handle *, uint8_t, uint32_t, uint64_t *);
int32_t waitUntilIdle(QTX_Handle *access, QTX_StackTrace *record, TracePoint at, ReadRegisterFunction read,
                      uint64_t sweeping_bit);

// A register write: sends the frame, once the sweep has ended when a radar is open.
int32_t writeWhenIdle(QTX_Handle *access, TracePoint at, ReadRegisterFunction read_while_locked, uint64_t sweeping_bit,
                      const uint8_t *frame, int32_t length);

int32_t strobe(QTX_Handle *access, TracePoint at, uint8_t action);

// Behind a wait that was ended: `putInOrder` runs, whatever it meets stays out of the record. Returns the code.
template <typename PutInOrder>
int32_t afterEndedWait(QTX_StackTrace *record, int32_t code, PutInOrder putInOrder) {
  QTX_StackTrace failure{};
  if (record) failure = *record;
  putInOrder();
  if (record) *record = failure;
  return code;
}

// The next capture starts a sweep of its own.
int32_t forgetStartedSweep(QTX_Handle *access, TracePoint at);

// ---- Variables by name ----
uint64_t setting(VariableSet *set, const char *name);  // as stored; 0 for an unknown one
double realSetting(VariableSet *set, const char *name);
inline int64_t integerSetting(VariableSet *set, const char *name) { return static_cast<int64_t>(setting(set, name)); }
int32_t setInteger(VariableSet *set, const char *name, int64_t value);
int32_t setReal(VariableSet *set, const char *name, double value);
int32_t trigger(VariableSet *set, const char *action);

}  // namespace pulsekit::chip
