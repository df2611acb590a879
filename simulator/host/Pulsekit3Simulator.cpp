// The C functions: find the part of the bench and forward.
#include "Pulsekit3Simulator.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "chip/ChipTruth.h"
#include "host/Bench.h"
#include "world/Scene.h"

using namespace pulsekit::simulator;

namespace {

constexpr int32_t kDone = 0, kRefused = -1;

// The bench as it is now.
Bench &present() {
  bench().catchUp();
  return bench();
}

// Runs body on what `find` gets from the device; refuses where that is null.
template <typename Find, typename Body>
int32_t on(int32_t number, Find find, Body body) {
  auto lock = lockBench();
  Device *device = present().device(number);
  auto *part = device ? find(*device) : nullptr;
  return part ? body(*part) : kRefused;
}

Device *whole(Device &device) { return &device; }
Pins *pinsOf(Device &device) { return &device.channels[0]->pins(); }
Board *boardOf(Device &device) { return device.board(); }
Flash *flashOf(Device &device) { return device.board() ? &device.board()->flash() : nullptr; }
RadarChip *chipOf(Device &device) { return device.board() ? device.board()->chip() : nullptr; }

bool fits(const void *bytes, uint32_t offset, uint32_t count, uint32_t size) {
  return bytes && offset <= size && count <= size - offset;
}

bool isPin(int32_t pin) { return pin >= 0 && pin < 16; }

int32_t setScene(int32_t device, Scene scene) {
  if (sceneFault(scene)) return kRefused;
  on(device, whole, [&](Device &it) {
    if (scene.unpluggedAt) bench().plugAt(it, *scene.unpluggedAt, false);
    if (scene.pluggedAt) bench().plugAt(it, *scene.pluggedAt, true);
    return kDone;
  });
  return on(device, chipOf, [&](RadarChip &chip) {
    chip.setScene(std::make_shared<Scene>(std::move(scene)));
    return kDone;
  });
}

template <size_t n>
int32_t copyElement(const std::array<double, n> &elements, uint32_t element, double *seconds) {
  if (!seconds || element >= n) return kRefused;
  *seconds = elements[element];
  return kDone;
}

int32_t schedule(Countdown &fault, uint32_t nth, uint32_t times) {
  if (nth == 0 || times == 0) return kRefused;
  fault.schedule(nth, times);
  return kDone;
}

}  // namespace

// ---- Bench and devices ---------------------------------------------------------------------------------------------

void QTXSim_Reset(void) {
  auto lock = lockBench();
  resetBench();
}

int32_t QTXSim_AddRadar(const char *serial, const char *description, int32_t bridge, const char *board,
                        const char *chip) {
  if (!serial) return kRefused;
  auto lock = lockBench();
  return bench().addDevice(serial, description ? description : "", bridge, board, chip);
}

int32_t QTXSim_SetHeld(int32_t device, int32_t held) {
  return on(device, whole, [&](Device &it) {
    it.held = held != 0;
    return kDone;
  });
}

int32_t QTXSim_Unplug(int32_t device) {
  return on(device, whole, [](Device &it) {
    bench().unplug(it);
    return kDone;
  });
}

int32_t QTXSim_Replug(int32_t device) {
  return on(device, whole, [](Device &it) {
    bench().replug(it);
    return kDone;
  });
}

int32_t QTXSim_PowerCycle(int32_t device) {
  return on(device, boardOf, [](Board &board) {
    board.powerCycle();
    return kDone;
  });
}

// ---- Time ----------------------------------------------------------------------------------------------------------

int32_t QTXSim_SetTime(int32_t mode) {
  if (mode < QTXSIM_TIME_DETERMINISTIC || mode > QTXSIM_TIME_REAL) return kRefused;
  auto lock = lockBench();
  present().setTimeMode(mode);
  return kDone;
}

uint64_t QTXSim_Nanoseconds(void) {
  auto lock = lockBench();
  return bench().clock().nanoseconds();
}

void QTXSim_Advance(uint64_t nanoseconds) {
  auto lock = lockBench();
  bench().clock().advance(nanoseconds);
}

// ---- Faults --------------------------------------------------------------------------------------------------------

int32_t QTXSim_FailCall(const char *function, uint32_t nth, uint32_t times, uint32_t status) {
  if (!function) return kRefused;
  auto lock = lockBench();
  return bench().failCall(function, nth, times, status) ? kDone : kRefused;
}

int32_t QTXSim_UnplugAtCall(int32_t device, uint32_t nth) {
  return on(device, whole, [&](Device &it) {
    if (nth == 0) return kRefused;
    bench().unplugAtCall(it, nth);
    return kDone;
  });
}

int32_t QTXSim_ShortWrite(int32_t device, uint32_t nth, uint32_t accepted) {
  return on(device, whole, [&](Device &it) {
    it.shortWriteAccepts = accepted;
    return schedule(it.shortWrite, nth, 1);
  });
}

int32_t QTXSim_LoseAnswer(int32_t device, uint32_t after, uint32_t count) {
  return on(device, whole, [&](Device &it) {
    if (count == 0) return kRefused;
    it.channels[0]->loseAnswer(after, count);
    return kDone;
  });
}

int32_t QTXSim_CorruptAnswer(int32_t device, uint32_t after, uint8_t mask) {
  return on(device, whole, [&](Device &it) {
    it.channels[0]->corruptAnswer(after, mask);
    return kDone;
  });
}

int32_t QTXSim_InsertAnswer(int32_t device, const uint8_t *bytes, uint32_t count) {
  return on(device, whole, [&](Device &it) {
    if (!bytes) return kRefused;
    for (auto &[value, port] : bench().handles) {
      if (&port->device() != &it || port->channelIndex() != 0 || port->gone()) continue;
      port->insert(bytes, count);
      return kDone;
    }
    it.insertedAnswer.insert(it.insertedAnswer.end(), bytes, bytes + count);
    return kDone;
  });
}

int32_t QTXSim_FlashFailErase(int32_t device, uint32_t nth, uint32_t times) {
  return on(device, flashOf, [&](Flash &flash) { return schedule(flash.eraseFault(), nth, times); });
}

int32_t QTXSim_FlashFailProgram(int32_t device, uint32_t nth, uint32_t times) {
  return on(device, flashOf, [&](Flash &flash) { return schedule(flash.programFault(), nth, times); });
}

int32_t QTXSim_FlashStayBusy(int32_t device, int32_t on_) {
  return on(device, flashOf, [&](Flash &flash) {
    flash.setStayBusy(on_ != 0);
    return kDone;
  });
}

int32_t QTXSim_FlashPresent(int32_t device, int32_t present) {
  return on(device, boardOf, [&](Board &board) {
    board.setFlashPresent(present != 0);
    return kDone;
  });
}

int32_t QTXSim_ChipStickBits(int32_t device, uint8_t address, uint64_t mask, uint64_t value) {
  return on(device, chipOf, [&](RadarChip &chip) {
    chip.stickBits(address, mask, value);
    return kDone;
  });
}

void QTXSim_ClearFaults(void) {
  auto lock = lockBench();
  present().clearFaults();
}

// ---- Pins ----------------------------------------------------------------------------------------------------------

int32_t QTXSim_PinLevel(int32_t device, int32_t pin) {
  return on(device, pinsOf, [&](Pins &pins) { return isPin(pin) ? pins.levels() >> pin & 1 : kRefused; });
}

int32_t QTXSim_PinIsOutput(int32_t device, int32_t pin) {
  return on(device, pinsOf, [&](Pins &pins) { return isPin(pin) ? pins.directions() >> pin & 1 : kRefused; });
}

int32_t QTXSim_DrivePin(int32_t device, int32_t pin, int32_t level) {
  return on(device, whole, [&](Device &it) {
    if (!isPin(pin) || level < -1 || level > 1) return kRefused;
    it.channels[0]->pins().driveFromOutside(pin, level);
    return kDone;
  });
}

int32_t QTXSim_SetIdleLevel(int32_t device, int32_t level) {
  return on(device, pinsOf, [&](Pins &pins) {
    if (level < 0 || level > 1) return kRefused;
    pins.setIdleLevel(level == 1);
    return kDone;
  });
}

// ---- Flash and chip ------------------------------------------------------------------------------------------------

int32_t QTXSim_FlashRead(int32_t device, uint32_t address, uint8_t *bytes, uint32_t count) {
  return on(device, flashOf, [&](Flash &flash) {
    if (!fits(bytes, address, count, Flash::kSize)) return kRefused;
    flash.read(address, bytes, count);
    return kDone;
  });
}

int32_t QTXSim_FlashWrite(int32_t device, uint32_t address, const uint8_t *bytes, uint32_t count) {
  return on(device, flashOf, [&](Flash &flash) {
    if (!fits(bytes, address, count, Flash::kSize)) return kRefused;
    flash.write(address, bytes, count);
    return kDone;
  });
}

int32_t QTXSim_OtpRead(int32_t device, uint32_t offset, uint8_t *bytes, uint32_t count) {
  return on(device, flashOf, [&](Flash &flash) {
    if (!fits(bytes, offset, count, Flash::kOtpSize)) return kRefused;
    std::copy_n(flash.otp().begin() + offset, count, bytes);
    return kDone;
  });
}

int32_t QTXSim_OtpWrite(int32_t device, uint32_t offset, const uint8_t *bytes, uint32_t count) {
  return on(device, flashOf, [&](Flash &flash) {
    if (!fits(bytes, offset, count, Flash::kOtpSize)) return kRefused;
    std::copy_n(bytes, count, flash.otp().begin() + offset);
    return kDone;
  });
}

int32_t QTXSim_ChipRegister(int32_t device, uint8_t address, uint64_t *value) {
  return on(device, chipOf, [&](RadarChip &chip) {
    if (!value) return kRefused;
    *value = chip.registerValue(address);
    return kDone;
  });
}

int32_t QTXSim_SetChipRegister(int32_t device, uint8_t address, uint64_t value) {
  return on(device, chipOf, [&](RadarChip &chip) {
    chip.setRegisterValue(address, value);
    return kDone;
  });
}

int32_t QTXSim_SetChipId(int32_t device, uint16_t id) {
  return on(device, chipOf, [&](RadarChip &chip) {
    chip.setChipId(id);
    return kDone;
  });
}

// ---- Scene and truth -----------------------------------------------------------------------------------------------

int32_t QTXSim_SetScene(int32_t device, const QTXSim_Reflector *reflectors, uint32_t count, double direct_coupling,
                        double noise) {
  if (!reflectors && count > 0) return kRefused;
  Scene scene;
  scene.directCoupling = direct_coupling;
  scene.noise = noise;
  for (uint32_t i = 0; i < count; ++i) {
    const QTXSim_Reflector &from = reflectors[i];
    if (from.motion < QTXSIM_STILL || from.motion > QTXSIM_BREATHING) return kRefused;
    scene.reflectors.push_back({.range = from.range,
                                .strength = from.strength,
                                .motion = static_cast<Reflector::Motion>(from.motion),
                                .speed = from.speed,
                                .amplitude = from.amplitude,
                                .rate = from.rate});
  }
  return setScene(device, std::move(scene));
}

int32_t QTXSim_LoadScene(int32_t device, const char *path, char *error, uint32_t size) {
  if (!path) return kRefused;
  std::string message;
  std::optional<Scene> scene = readScene(path, message);
  if (scene && setScene(device, std::move(*scene)) == kDone) return kDone;
  if (scene) message = "there is no such radar";
  if (error && size > 0) std::snprintf(error, size, "%s", message.c_str());
  return kRefused;
}

int32_t QTXSim_TrueDelayElement(int32_t device, int32_t grain, uint32_t element, double *seconds) {
  return on(device, chipOf, [&](RadarChip &chip) {
    const DelayChain &chain = chip.truth().sampler;
    if (grain == QTXSIM_COARSE) return copyElement(chain.coarse, element, seconds);
    if (grain == QTXSIM_MEDIUM) return copyElement(chain.medium, element, seconds);
    return grain == QTXSIM_FINE ? copyElement(chain.fine, element, seconds) : kRefused;
  });
}

int32_t QTXSim_TrueSamplesPerSecond(int32_t device, double *rate) {
  return on(device, chipOf, [&](RadarChip &chip) {
    if (!rate) return kRefused;
    *rate = chip.truth().samplesPerSecond;
    return kDone;
  });
}

int32_t QTXSim_TrueWindowStart(int32_t device, double *seconds) {
  return on(device, chipOf, [&](RadarChip &chip) {
    if (!seconds) return kRefused;
    *seconds = chip.windowStart();
    return kDone;
  });
}

int32_t QTXSim_TrueLevels(int32_t device, double *levels, uint32_t count) {
  return on(device, chipOf, [&](RadarChip &chip) {
    const std::vector<double> all = chip.levels();
    if (!levels || count > all.size()) return kRefused;
    std::copy_n(all.begin(), count, levels);
    return kDone;
  });
}

int32_t QTXSim_SetReferenceClock(int32_t device, double hertz) {
  if (!std::isfinite(hertz) || hertz < 0) return kRefused;
  return on(device, chipOf, [&](RadarChip &chip) {
    chip.setReferenceClock(hertz);
    return kDone;
  });
}

// ---- Statistics and record -----------------------------------------------------------------------------------------

int32_t QTXSim_GetStatistics(QTXSim_Statistics *statistics) {
  if (!statistics) return kRefused;
  auto lock = lockBench();
  *statistics = present().statistics();
  return kDone;
}

void QTXSim_ResetStatistics(void) {
  auto lock = lockBench();
  present().resetStatistics();
}

uint64_t QTXSim_Calls(const char *function) {
  if (!function) return 0;
  auto lock = lockBench();
  return bench().calls(function);
}

void QTXSim_SetRecording(uint32_t kinds) {
  auto lock = lockBench();
  present().recorder().setKinds(kinds);
}

void QTXSim_ClearRecord(void) {
  auto lock = lockBench();
  present().recorder().clear();
}

uint32_t QTXSim_RecordCount(void) {
  auto lock = lockBench();
  return static_cast<uint32_t>(present().recorder().events().size());
}

int32_t QTXSim_RecordEvent(uint32_t index, QTXSim_Event *event) {
  if (!event) return kRefused;
  auto lock = lockBench();
  const auto &events = present().recorder().events();
  if (index >= events.size()) return kRefused;
  const Event &from = events[index];
  *event = {from.kind,
            from.device,
            from.nanoseconds,
            from.status,
            from.value,
            from.output,
            from.level,
            from.outBits > 0 ? from.out.data() : nullptr,
            from.inBits > 0 ? from.in.data() : nullptr,
            from.outBits,
            from.inBits};
  return kDone;
}

const char *QTXSim_RecordText(uint32_t kinds) {
  static std::string text;
  auto lock = lockBench();
  text = present().recorder().text(kinds);
  return text.c_str();
}
