#include "QTX3400.h"

#include "../driver.h"

using namespace pulsekit;
using namespace pulsekit::chip;

static constexpr const char kSource[] = "src/chip/" CHIP_NAME "/" CHIP_NAME;

namespace {

constexpr uint64_t kSweeping = 0x8000;     // in the sweep status
constexpr uint32_t kLongestBurst = 127;    // bytes of sampler memory under one command
constexpr uint8_t kContinuedBurst = 0x80;  // in the length byte of every burst after the first
constexpr size_t kTimingRecordSize = 3032;

// Three-byte registers are four bytes wide on the bus.
template <typename Count>
Count widened(Count byte_count) {
  return byte_count == 3 ? 4 : byte_count;
}

}  // namespace

// ---- Bus ----

int32_t CHIP(ReadRegister)(QTX_Handle *access, uint8_t address, uint32_t byte_count, uint64_t *value) {
  InterfaceLock lock(bridgeOf(access));
  return readRegister(access, HERE, address, widened(byte_count), kMostSignificantFirst, value);
}

int32_t CHIP(ReadRegister_local)(QTX_Handle *access, uint8_t address, uint32_t byte_count, uint64_t *value) {
  return readRegister(access, HERE, address, widened(byte_count), kMostSignificantFirst, value);
}

int32_t CHIP(WriteRegister)(QTX_Handle *access, uint8_t address, int32_t byte_count, uint64_t value) {
  if (!access) return kRadarNotInitialized;
  if (int32_t code = checkWriteLength(access, HERE, byte_count)) return code;
  byte_count = widened(byte_count);
  uint8_t frame[2 + kMaxRegisterBytes] = {static_cast<uint8_t>(address | kWrite), static_cast<uint8_t>(byte_count)};
  for (int32_t i = byte_count; i > 0; --i, value >>= 8) frame[1 + i] = static_cast<uint8_t>(value);
  return writeWhenIdle(access, HERE, CHIP(ReadRegister_local), kSweeping, frame, 2 + byte_count);
}

int32_t CHIP(ReadMemory)(QTX_Handle *access, uint8_t address, uint32_t byte_count, uint8_t *buffer) {
  if (!access) return kRadarNotInitialized;
  if (!buffer) return origin(access->error, HERE, kError);
  InterfaceLock lock(bridgeOf(access));
  uint8_t command[] = {static_cast<uint8_t>(address & ~kWrite), kLongestBurst};
  uint32_t rest = byte_count;
  for (; rest > kLongestBurst; rest -= kLongestBurst) {
    uint8_t *place = buffer + (byte_count - rest);
    if (int32_t code = transfer(access, HERE, command, sizeof command, place, kLongestBurst, SPI_MODE_QUEUE)) {
      return code;
    }
    command[1] = kContinuedBurst | kLongestBurst;
  }
  // A single byte can't be had: the chip has no burst of one.
  if (rest > 1) {
    command[1] = static_cast<uint8_t>((command[1] & kContinuedBurst) | rest);
    uint8_t *place = buffer + (byte_count - rest);
    if (int32_t code = transfer(access, HERE, command, sizeof command, place, rest, SPI_MODE_QUEUE)) return code;
  }
  return transfer(access, HERE, nullptr, 0, buffer, byte_count, SPI_MODE_COLLECT);
}

int32_t CHIP(ExecuteAction)(QTX_Handle *access, uint8_t action) { return strobe(access, HERE, action); }

int32_t CHIP(ReadChipId)(QTX_Handle *access) {
  uint64_t id = 0;
  CHIP(ReadRegister)(access, kChipIdRegister, 2, &id);
  return static_cast<int32_t>(id);
}

int32_t CHIP(EmptyPipeLine)(QTX_Handle *access) { return forgetStartedSweep(access, HERE); }

int32_t CHIP(waitUntilIdle)(ChipHandle *chip) {
  return waitUntilIdle(chip->access, chip->error_state, HERE, CHIP(ReadRegister), kSweeping);
}

// ---- Frames ----

int32_t CHIP(CaptureFrame)(ChipHandle *chip, uint32_t *, int32_t, uint64_t) {
  if (!chip) return kChipNotInitialized;
  return origin(chip->error_state, HERE, kNotImplemented, "CaptureFrame is not implemented for this chip");
}

int32_t CHIP(NormalizeFrameDouble)(ChipHandle *chip, const uint32_t *, double *, int32_t) {
  if (!chip) return kChipNotInitialized;
  return origin(chip->error_state, HERE, kNotImplemented, "NormalizeFrameDouble is not implemented for this chip");
}

int32_t CHIP(NormalizeFrameFloat)(ChipHandle *chip, const uint32_t *, float *, int32_t) {
  if (!chip) return kChipNotInitialized;
  return origin(chip->error_state, HERE, kNotImplemented, "NormalizeFrameFloat is not implemented for this chip");
}

// ---- Handle ----

int32_t CHIP(InitChip)(ChipHandle *chip) {
  if (!chip) return kChipNotInitialized;
  // The first access only wakes the chip's SPI logic.
  uint64_t ignored = 0;
  CHIP(ReadRegister_local)(chip->access, 0, 1, &ignored);
  if (int32_t code = varsInit(chip->variables)) return passThrough(chip->error_state, HERE, code);
  chip->sweep_idle = 1;
  return kSuccess;
}

static constexpr Driver kDriver = {
    .create_variables = CHIP_VARS(InitHandle),
    .free_variables = CHIP_VARS(FreeHandle),
    .read_chip_id = CHIP(ReadChipId),
    .operations =
        {
            .InitChip = CHIP(InitChip),
            .ReadRegister = CHIP(ReadRegister),
            .WriteRegister = CHIP(WriteRegister),
            .ReadMemory = CHIP(ReadMemory),
            .ExecuteAction = CHIP(ExecuteAction),
            .CaptureFrame = CHIP(CaptureFrame),
            .NormalizeFrameDouble = CHIP(NormalizeFrameDouble),
            .NormalizeFrameFloat = CHIP(NormalizeFrameFloat),
            .calculateCDF_Size = nullptr,
            .getCDF = nullptr,
            .getTimingMeasurementResults = nullptr,
            .measurementSaveDataToFlash = nullptr,
            .measurementLoadDataFromFlash = nullptr,
        },
    .timing_record_size = kTimingRecordSize,
    .saved_delays_size = 0,
};

const char *CHIP(Name)() { return CHIP_NAME; }

int32_t CHIP(InitHandle)(ChipHandle **out, QTX_StackTrace **error_state, QTX_Handle *access) {
  return createHandle(out, error_state, access, kDriver, HERE);
}

int32_t CHIP(FreeHandle)(ChipHandle **chip, QTX_StackTrace **error_state_or_null) {
  return freeHandle(chip, error_state_or_null, kDriver);
}
