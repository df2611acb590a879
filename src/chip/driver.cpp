#include "driver.h"

#include <cstdlib>
#include <memory>
#include <new>
#include <optional>

#include "../support/handle_state.h"
#include "../support/numbers.h"
#include "../support/own_records.h"
#include "sweeps.h"

namespace pulsekit::chip {

namespace {

struct Freer {
  const Driver *driver;
  void operator()(ChipHandle *chip) const {
    if (chip->variables) driver->free_variables(&chip->variables);
    std::free(chip->timing_record);
    std::free(chip->saved_delays);
    removeOwnRecord(chip);
    delete chip;
  }
};

// Zeroed; null for a size of 0.
bool allocate(void **block, size_t size) {
  *block = size > 0 ? std::calloc(1, size) : nullptr;
  return *block || size == 0;
}

}  // namespace

int32_t createHandle(ChipHandle **out, QTX_StackTrace **error_state, QTX_Handle *access, const Driver &driver,
                     TracePoint at) {
  if (!out || !error_state) return kError;
  *out = nullptr;
  if (!access) return origin(*error_state, at, kRadarNotInitialized);
  std::unique_ptr<ChipHandle, Freer> chip(new (std::nothrow) ChipHandle{}, Freer{&driver});
  if (!chip || !addOwnRecord(chip.get())) return origin(*error_state, at, kOutOfMemory);
  QTX_StackTraceInit(&chip->error_state, error_state);
  chip->access = access;
  chip->initializing = 1;
  if (int32_t code = driver.create_variables(&chip->variables, error_state)) return passThrough(*error_state, at, code);
  chip->variables->owner = access;
  chip->operations = driver.operations;
  chip->chip_id = static_cast<uint16_t>(driver.read_chip_id(access));
  chip->sweep_idle = 1;
  if (!allocate(&chip->timing_record, driver.timing_record_size) ||
      !allocate(&chip->saved_delays, driver.saved_delays_size)) {
    return origin(*error_state, at, kOutOfMemory);
  }
  chip->initializing = 0;
  *out = chip.release();
  return kSuccess;
}

int32_t freeHandle(ChipHandle **slot, QTX_StackTrace **error_state_or_null, const Driver &driver) {
  if (!slot) return kError;
  if (*slot && isOwnRecord(*slot)) Freer{&driver}(*slot);
  *slot = nullptr;
  QTX_StackTraceFree(error_state_or_null);
  return kSuccess;
}

InterfaceHandle *bridgeOf(const QTX_Handle *access) { return access ? access->interface_handle : nullptr; }

int32_t transfer(QTX_Handle *access, TracePoint at, const uint8_t *out, int32_t out_count, uint8_t *in,
                 uint32_t in_count, int32_t mode) {
  if (!access) return kRadarNotInitialized;
  InterfaceHandle *bridge = bridgeOf(access);
  if (!bridge || !bridge->SendReceiveSPI) return origin(access->error, at, kInterfaceNotInitialized);
  if (int32_t code = bridge->SendReceiveSPI(bridge, kChipChannel, out, out_count, in, in_count, mode)) {
    return passThrough(access->error, at, code);
  }
  return kSuccess;
}

int32_t readRegister(QTX_Handle *access, TracePoint at, uint8_t address, uint32_t byte_count, ByteOrder order,
                     uint64_t *value) {
  if (!access) return kRadarNotInitialized;
  if (!value) return origin(access->error, at, kError);
  *value = 0;
  if (byte_count > kMaxRegisterBytes) {
    return origin(access->error, at, kBufferTooSmall, "A register has at most 8 bytes");
  }
  const uint8_t command[] = {static_cast<uint8_t>(address & ~kWrite), static_cast<uint8_t>(byte_count)};
  uint8_t answer[kMaxRegisterBytes] = {};
  if (int32_t code = transfer(access, at, command, sizeof command, answer, byte_count)) return code;
  for (uint32_t i = 0; i < byte_count; ++i) {
    *value = *value << 8 | answer[order == kMostSignificantFirst ? i : byte_count - 1 - i];
  }
  return kSuccess;
}

int32_t checkWriteLength(QTX_Handle *access, TracePoint at, int32_t byte_count) {
  if (byte_count > kMaxRegisterBytes) return origin(access->error, at, kError, "A register has at most 8 bytes");
  if (byte_count < 0) return origin(access->error, at, kError, "A register has no negative length");
  return kSuccess;
}

int32_t waitUntilIdle(QTX_Handle *access, QTX_StackTrace *record, TracePoint at, ReadRegisterFunction read,
                      uint64_t sweeping_bit) {
  std::optional<Deadline> deadline;
  for (;;) {
    uint64_t status = 0;
    if (int32_t code = read(access, kSweepStatusRegister, 2, &status)) return passThrough(record, at, code);
    if ((status & sweeping_bit) == 0) return kSuccess;
    if (!deadline) deadline.emplace(access);
    if (int32_t code = waitCheck(access, *deadline)) {
      return origin(record, at, code, "Waiting for the end of a sweep");
    }
  }
}

int32_t writeWhenIdle(QTX_Handle *access, TracePoint at, ReadRegisterFunction read_while_locked, uint64_t sweeping_bit,
                      const uint8_t *frame, int32_t length) {
  InterfaceHandle *bridge = bridgeOf(access);
  InterfaceLock lock(bridge);
  if (bridge && bridge->shared_status && *bridge->shared_status) {
    if (int32_t code = waitUntilIdle(access, access->error, at, read_while_locked, sweeping_bit)) return code;
  }
  CommandLog::note(frame, static_cast<size_t>(length));
  return transfer(access, at, frame, length, nullptr, 0);
}

int32_t strobe(QTX_Handle *access, TracePoint at, uint8_t action) {
  if (!access) return kRadarNotInitialized;
  if (action >= kWrite) return origin(access->error, at, kError, "This action never reaches the chip");
  const uint8_t frame[] = {static_cast<uint8_t>(action | kWrite), 0};
  CommandLog::note(frame, sizeof frame);
  InterfaceLock lock(bridgeOf(access));
  return transfer(access, at, frame, sizeof frame, nullptr, 0);
}

int32_t forgetStartedSweep(QTX_Handle *access, TracePoint at) {
  if (!access) return kRadarNotInitialized;
  if (!access->chip) return origin(access->error, at, kChipNotInitialized);
  access->chip->sweep_idle = 1;
  return kSuccess;
}

uint64_t setting(VariableSet *set, const char *name) {
  const Variable *variable = varNamed(set, name);
  return variable ? variable->value : 0;
}

double realSetting(VariableSet *set, const char *name) { return bitsToDouble(setting(set, name)); }

int32_t setInteger(VariableSet *set, const char *name, int64_t value) {
  return varSetIntValue(set, varNamed(set, name), value);
}

int32_t setReal(VariableSet *set, const char *name, double value) {
  return varSetFloatValue(set, varNamed(set, name), value);
}

int32_t trigger(VariableSet *set, const char *action) { return varActionTrigger(set, varActionNamed(set, action)); }

}  // namespace pulsekit::chip
