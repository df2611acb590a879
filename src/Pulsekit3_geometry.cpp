// What the settings mean for a frame, and calibration.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "Pulsekit3_settings.h"
#include "calls.h"
#include "chip/sweeps.h"
#include "interface/program.h"
#include "support/numbers.h"

using namespace pulsekit;

static constexpr const char kSource[] = "src/Pulsekit3_geometry";

namespace {

constexpr double kSpeedOfLight = 299792458;  // m/s

// What a single capture spends on USB transfers for one sweep, as measured: a plain one, one whose window is moved, one
// that has been swept before it is asked for.
constexpr double kPlainTransfers = 1.2e-3, kMovedTransfers = 3.8e-3, kPipelinedTransfers = 0.8e-3;

struct Call {
  ChipHandle *chip = nullptr;
  const chip::SweepDriver *driver = nullptr;
};

// 770 without a chip, 4 for one that takes no frames.
int32_t findDriver(const QTX_Handle *handle, TracePoint at, Call &call) {
  if (int32_t code = checkChip(handle, at, &ChipOperations::CaptureFrame)) return code;
  call = {handle->chip, chip::sweepDriverOf(handle->chip)};
  if (call.driver) return kSuccess;
  return origin(handle->error, at, kNotImplemented, "Frames are not implemented for this chip");
}

double stored(VariableSet *set, const char *name) {
  const Variable *variable = varNamed(set, name);
  if (!variable) return 0;
  return variable->flags & VAR_FLAG_FLOAT ? bitsToDouble(variable->value) : static_cast<double>(variable->value);
}

double singleCapture(const QTX_Handle *handle, VariableSet *set, double sweep_seconds) {
  const double stitch = std::max(stored(set, "FrameStitch"), 1.0);
  const double samplers = stored(set, "SamplersPerFrame") / stitch;
  const double read_out = 8 * samplers * stored(set, "BytesPerCounter") / spiClock(handle->interface_handle);
  const double moved = stitch > 1 ? kMovedTransfers - kPlainTransfers : 0;
  if (stored(set, "PipeLining") != 0) return stitch * (std::max(sweep_seconds, read_out) + kPipelinedTransfers + moved);
  return stitch * (sweep_seconds + read_out + kPlainTransfers + moved);
}

void checkPower(const QTX_Handle *handle, chip::Findings &findings) {
  VariableSet *set = handle->module ? handle->module->variables : nullptr;
  const Variable *power = set ? varNamed(set, "RadarModulePower") : nullptr;
  const char *text = power ? sym_to_str(set, static_cast<int32_t>(power->value)) : nullptr;
  if (text && std::strcmp(text, "PowerOff") == 0) {
    findings.add("RadarModulePower", "the radar is switched off", "start it anew with QTX_PowerOnRadar");
  }
}

// What could not be kept is not measured first. 514 without a module that has a flash, 1 for a block outside of it.
int32_t checkBlock(const QTX_Handle *handle, TracePoint at, int32_t block) {
  constexpr double kFlashSize = 1 << 24;  // as far as addresses reach
  if (int32_t code = checkModule(handle, at, &ModuleHandle::variables)) return code;
  const double end = (block + 1.0) * stored(handle->module->variables, "FlashBlockSize");
  return end <= kFlashSize ? int32_t{kSuccess} : origin(handle->error, at, kError, "There is no such block");
}

}  // namespace

extern "C" {

int32_t QTX_GetFrameGeometry(QTX_Handle *handle, QTX_FrameGeometry *geometry) {
  if (int32_t code = checkCall(handle, HERE, geometry)) return code;
  if (geometry->size < sizeof *geometry) {
    return origin(handle->error, HERE, kError, "The geometry's size is too small");
  }
  Call call;
  if (int32_t code = findDriver(handle, HERE, call)) return code;
  if (int32_t code = checkInterface(handle, HERE, &InterfaceHandle::SendReceiveSPI)) return code;
  VariableSet *set = call.chip->variables;
  const double rate = stored(set, "SamplesPerSecond");
  if (!(rate > 0)) return origin(handle->error, HERE, kNotPossible, "SamplesPerSecond is 0");

  const chip::SweepTiming timing = call.driver->timing(set);
  constexpr double metres = kSpeedOfLight / 2;  // a second of delay
  geometry->samplers = static_cast<uint32_t>(stored(set, "SamplersPerFrame"));
  geometry->first_time = stored(set, "SampleDelay");
  geometry->time_step = std::exp2(stored(set, "Downsampling")) / rate;
  geometry->first_range = geometry->first_time * metres;
  geometry->range_step = geometry->time_step * metres;
  geometry->sweep_time = timing.sweep_seconds * std::max(stored(set, "FrameStitch"), 1.0);
  geometry->frame_time = singleCapture(handle, set, timing.sweep_seconds);
  geometry->pulse_rate = timing.pulse_rate;
  geometry->unambiguous_range = timing.pulse_rate > 0 ? metres / timing.pulse_rate : 0;
  return kSuccess;
}

int32_t QTX_CheckSettings(QTX_Handle *handle, char *text, int32_t size, int32_t *count) try {
  if (int32_t code = checkCall(handle, HERE, count)) return code;
  *count = 0;
  if (!text && size > 0) return origin(handle->error, HERE, kError);
  Call call;
  if (int32_t code = findDriver(handle, HERE, call)) return code;
  chip::Findings findings;
  checkPower(handle, findings);
  call.driver->check(call.chip, findings);
  *count = findings.count();
  if (!text || size <= 0) return kSuccess;
  text[0] = '\0';
  if (findings.text().size() >= static_cast<size_t>(size)) return origin(handle->error, HERE, kBufferTooSmall);
  std::memcpy(text, findings.text().c_str(), findings.text().size() + 1);
  return kSuccess;
} catch (const std::bad_alloc &) {
  return origin(handle->error, HERE, kOutOfMemory);
}

int32_t QTX_Calibrate(QTX_Handle *handle, int32_t store_block) try {
  const CallScope scope(handle);
  if (int32_t code = checkCall(handle, HERE)) return code;
  if (store_block < -1) return origin(handle->error, HERE, kError, "There is no such block");
  Call call;
  if (int32_t code = findDriver(handle, HERE, call)) return code;
  if (int32_t code = checkInterface(handle, HERE, &InterfaceHandle::SendReceiveSPI)) return code;
  if (int32_t code = checkNoStream(handle, HERE)) return code;
  if (int32_t code = store_block < 0 ? int32_t{kSuccess} : checkBlock(handle, HERE, store_block)) return code;
  if (int32_t code = call.driver->calibrate(call.chip)) return passThrough(handle->error, HERE, scope.result(code));
  if (store_block < 0) return scope.result(kSuccess);
  if (int32_t code = QTX_TimingMeasurementSaveDataToFlash(handle, static_cast<uint32_t>(store_block))) {
    return passThrough(handle->error, HERE, code);
  }
  return kSuccess;
} catch (const std::bad_alloc &) {
  return origin(handle->error, HERE, kOutOfMemory);
}

}  // extern "C"
