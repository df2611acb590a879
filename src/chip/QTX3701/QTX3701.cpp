#include "QTX3701.h"

#include <algorithm>

#include "../../support/handle_state.h"
#include "../../support/numbers.h"
#include "../driver.h"
#include "QTX3701-frames.h"
#include "QTX3701-timing.h"

using namespace pulsekit;
using namespace pulsekit::chip;

static constexpr const char kSource[] = "src/chip/" CHIP_NAME "/" CHIP_NAME;

namespace {

constexpr uint64_t kQuickSweepPulses = 100;  // a step; longer sweeps are slept through before they are polled

}  // namespace

// ---- Bus ----

int32_t CHIP(ReadRegister)(QTX_Handle *access, uint8_t address, uint32_t byte_count, uint64_t *value) {
  InterfaceLock lock(bridgeOf(access));
  return readRegister(access, HERE, address, byte_count, kLeastSignificantFirst, value);
}

int32_t CHIP(ReadRegister_local)(QTX_Handle *access, uint8_t address, uint32_t byte_count, uint64_t *value) {
  return readRegister(access, HERE, address, byte_count, kLeastSignificantFirst, value);
}

int32_t CHIP(WriteRegister)(QTX_Handle *access, uint8_t address, int32_t byte_count, uint64_t value) {
  if (!access) return kRadarNotInitialized;
  if (int32_t code = checkWriteLength(access, HERE, byte_count)) return code;
  uint8_t frame[2 + kMaxRegisterBytes] = {static_cast<uint8_t>(address | kWrite), static_cast<uint8_t>(byte_count)};
  for (int32_t i = 0; i < byte_count; ++i, value >>= 8) frame[2 + i] = static_cast<uint8_t>(value);
  return writeWhenIdle(access, HERE, CHIP(ReadRegister_local), kSweeping, frame, 2 + byte_count);
}

int32_t CHIP(ReadMemory)(QTX_Handle *access, uint8_t address, uint32_t byte_count, uint8_t *buffer) {
  if (!access) return kRadarNotInitialized;
  if (!buffer) return origin(access->error, HERE, kError);
  const uint8_t command[] = {static_cast<uint8_t>(address & ~kWrite), kMemoryAccess};
  InterfaceLock lock(bridgeOf(access));
  return transfer(access, HERE, command, sizeof command, buffer, byte_count);
}

int32_t CHIP(ExecuteAction)(QTX_Handle *access, uint8_t action) { return strobe(access, HERE, action); }

int32_t CHIP(ReadChipId)(QTX_Handle *access) {
  uint64_t id = 0;
  CHIP(ReadRegister)(access, kChipIdRegister, 2, &id);
  return static_cast<int32_t>(id);
}

int32_t CHIP(EmptyPipeLine)(QTX_Handle *access) { return forgetStartedSweep(access, HERE); }

int32_t CHIP(waitForSweepFinished)(ChipHandle *chip) {
  if (!chip) return kChipNotInitialized;
  if (setting(chip->variables, "Iterations") * setting(chip->variables, "PulsesPerStep") > kQuickSweepPulses) {
    QTX_sleep_ms(1);
  }
  return waitUntilIdle(chip->access, chip->error_state, HERE, CHIP(ReadRegister), kSweeping);
}

// Without the pause for a sweep that is sure to run.
int32_t CHIP(waitUntilIdle)(ChipHandle *chip) {
  return waitUntilIdle(chip->access, chip->error_state, HERE, CHIP(ReadRegister), kSweeping);
}

int32_t CHIP(MCLK_frequency)(VariableSet *set) {
  if (!set || setting(set, "MClkEnable") == 0) return 0;
  const int32_t frequency = static_cast<int32_t>(setting(set, "ClockFrequency"));
  const uint64_t divider = setting(set, "MClkDiv");
  if (divider > 7) return frequency;
  return divider > 4 ? 0 : frequency / (1 << divider);
}

// ---- Frames ----

SweepExtent CHIP(sweepExtent)(VariableSet *set) {
  const uint64_t downsampling = static_cast<uint64_t>(varGetValue_Real(set, varNamed(set, "Downsampling")));
  return {static_cast<uint32_t>(setting(set, "SamplersOnChip") >> (downsampling & 63)),
          static_cast<uint32_t>(setting(set, "BytesPerCounter"))};
}

int32_t CHIP(setSweepPin)(const ChipHandle *chip, uint32_t level) {
  InterfaceHandle *bridge = bridgeOf(chip->access);
  InterfaceLock lock(bridge);
  return bridge && bridge->SetIO ? bridge->SetIO(bridge, kSweepPin, level) : int32_t{kSuccess};
}

FrameScale CHIP(frameScale)(VariableSet *set) {
  FrameScale scale;
  scale.step = setting(set, "DACStepFine");
  scale.pulses = setting(set, "Iterations") * setting(set, "PulsesPerStep");
  if (scale.step != 0) scale.offset = setting(set, "DACMin") * scale.pulses / scale.step;
  return scale;
}

int32_t CHIP(readCounters)(const ChipHandle *chip, SweepExtent extent, uint32_t *counters) {
  uint8_t image[kSamplerMemorySize];
  const uint32_t size = extent.samplers * extent.bytes_per_counter;
  if (size > sizeof image) return origin(chip->error_state, HERE, kBufferTooSmall);
  if (int32_t code = chip->operations.ReadMemory(chip->access, kSamplerMemory, size, image)) return code;
  decodeCounters(extent, image, counters);
  return kSuccess;
}

namespace {

void toggleSweepStartPin(const ChipHandle *chip) {
  InterfaceHandle *bridge = bridgeOf(chip->access);
  if (!bridge || !bridge->GetIO || !bridge->SetIO) return;
  InterfaceLock lock(bridge);
  uint32_t level = 0;
  bridge->GetIO(bridge, kSweepStartPin, &level);
  bridge->SetIO(bridge, kSweepStartPin, level == 0 ? 1 : 0);
}

int32_t startSweep(const ChipHandle *chip) {
  if (int32_t code = trigger(chip->variables, "ResetCounters")) return code;
  if (setting(chip->variables, "SignalStartOfSweep") == 1) toggleSweepStartPin(chip);
  return trigger(chip->variables, "StartSweep");
}

template <typename Real>
int32_t normalize(const ChipHandle *chip, TracePoint at, const uint32_t *raw, Real *normalized, int32_t count) {
  if (count > 0 && (!raw || !normalized)) return origin(chip->error_state, at, kError);
  const FrameScale scale = CHIP(frameScale)(chip->variables);
  if (scale.step == 0) return origin(chip->error_state, at, kIllegalValue, "DACStepFine is 0");
  normalizeCounters(scale, raw, normalized, static_cast<size_t>(std::max(count, 0)));
  return kSuccess;
}

}  // namespace

void CHIP(stopSweep)(ChipHandle *chip) {
  trigger(chip->variables, "ResetSweepController");
  CHIP(setSweepPin)(chip, 1);
  chip->sweep_idle = 1;
}

int32_t CHIP(CaptureFrame)(ChipHandle *chip, uint32_t *frame, int32_t capacity, uint64_t) {
  if (!chip) return kChipNotInitialized;
  QTX_StackTrace *record = chip->error_state;
  if (!frame) return origin(record, HERE, kError);
  VariableSet *set = chip->variables;
  const SamplingWindow window(set);
  const SweepExtent extent = CHIP(sweepExtent)(set);
  const uint64_t sweeps = setting(set, "FrameStitch");
  if (capacity < static_cast<int64_t>(sweeps * extent.samplers)) return origin(record, HERE, kBufferTooSmall);
  const bool pipelining = setting(set, "PipeLining") != 0;
  const auto giveUp = [&](int32_t code) {
    if (!endsWait(code)) return code;
    return afterEndedWait(record, code, [&] {
      CHIP(stopSweep)(chip);
      window.putBack();
    });
  };

  for (uint64_t sweep = 0; sweep < sweeps; ++sweep) {
    if (int32_t code = cancelCheck(chip->access)) return giveUp(origin(record, HERE, code));
    CHIP(setSweepPin)(chip, 0);
    if (!pipelining) chip->sweep_idle = 1;
    if (chip->sweep_idle == 1) {
      if (sweeps > 1) {
        if (int32_t code = window.moveTo(sweep)) return giveUp(passThrough(record, HERE, code));
      }
      if (int32_t code = startSweep(chip)) return passThrough(record, HERE, code);
      chip->sweep_idle = 0;
    }
    if (int32_t code = CHIP(waitForSweepFinished)(chip)) return giveUp(passThrough(record, HERE, code));
    if (int32_t code = trigger(set, "LoadOutputBuffer")) return passThrough(record, HERE, code);
    CHIP(setSweepPin)(chip, 1);
    if (pipelining) {
      // The next sweep runs while this one is read out; after the last it is the first one of the next frame.
      const bool last = sweep + 1 == sweeps;
      const int32_t moved = sweeps < 2 ? window.putBack() : last ? window.moveToStart() : window.moveTo(sweep + 1);
      if (moved) return giveUp(passThrough(record, HERE, moved));
      if (int32_t code = startSweep(chip)) return passThrough(record, HERE, code);
    }
    if (int32_t code = CHIP(readCounters)(chip, extent, frame + sweep * extent.samplers)) {
      return passThrough(record, HERE, code);
    }
  }
  if (int32_t code = window.putBack()) return giveUp(passThrough(record, HERE, code));
  return kSuccess;
}

int32_t CHIP(NormalizeFrameDouble)(ChipHandle *chip, const uint32_t *raw, double *normalized, int32_t count) {
  if (!chip) return kChipNotInitialized;
  return normalize(chip, HERE, raw, normalized, count);
}

int32_t CHIP(NormalizeFrameFloat)(ChipHandle *chip, const uint32_t *raw, float *normalized, int32_t count) {
  if (!chip) return kChipNotInitialized;
  return normalize(chip, HERE, raw, normalized, count);
}

// ---- Handle ----

int32_t CHIP(InitChip)(ChipHandle *chip) {
  if (!chip) return kChipNotInitialized;
  // The first access only brings the chip's SPI logic into a known state.
  uint64_t ignored = 0;
  CHIP(ReadRegister_local)(chip->access, 0, 1, &ignored);
  if (int32_t code = trigger(chip->variables, "ResetSweepController")) {
    return passThrough(chip->error_state, HERE, code);
  }
  CHIP(forgetPreparation)(chip);
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
            .calculateCDF_Size = CHIP(calculateCDF_Size),
            .getCDF = CHIP(getCDF),
            .getTimingMeasurementResults = CHIP(getTimingMeasurementResults),
            .measurementSaveDataToFlash = CHIP(measurementSaveDataToFlash),
            .measurementLoadDataFromFlash = CHIP(measurementLoadDataFromFlash),
        },
    .timing_record_size = sizeof(TimingRecord),
    .saved_delays_size = sizeof(SavedDelays),
};

const char *CHIP(Name)() { return CHIP_NAME; }

int32_t CHIP(InitHandle)(ChipHandle **out, QTX_StackTrace **error_state, QTX_Handle *access) {
  return createHandle(out, error_state, access, kDriver, HERE);
}

int32_t CHIP(FreeHandle)(ChipHandle **chip, QTX_StackTrace **error_state_or_null) {
  return freeHandle(chip, error_state_or_null, kDriver);
}
