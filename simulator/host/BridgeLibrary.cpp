// The simulator as a bridge library: the D2XX functions under their own names, over a bench that the environment
// describes.
#include <algorithm>
#include <cstdio>
#include <iterator>
#include <string>
#include <string_view>

#include "base/System.h"
#include "host/Bench.h"
#include "world/Scene.h"

namespace {

using pulsekit::simulator::bench;
using pulsekit::simulator::environment;
using pulsekit::simulator::lockBench;
using pulsekit::simulator::readScene;
using pulsekit::simulator::Scene;
using pulsekit::simulator::SceneRadar;

struct TimeName {
  const char *name;
  int32_t mode;
};
constexpr TimeName kTimes[] = {
    {"real", QTXSIM_TIME_REAL}, {"host", QTXSIM_TIME_HOST}, {"deterministic", QTXSIM_TIME_DETERMINISTIC}};

constexpr const char *kSerial = "SIM00001";
constexpr std::string_view kBridges[] = {"FT232H", "FT2232H", "FT4232H"};  // QTXSIM_FT232H, ...

bool exists(int32_t device) {
  auto lock = lockBench();
  return bench().device(device) != nullptr;
}

// What is wrong with the environment; empty when nothing is.
struct Fault {
  char text[512] = "";
};

bool setTime(const std::string &name) {
  for (const TimeName &time : kTimes) {
    if (name == time.name) return QTXSim_SetTime(time.mode) == 0;
  }
  return false;
}

bool refuse(Fault &fault, const char *variable, const std::string &value, const char *accepted) {
  std::snprintf(fault.text, sizeof fault.text, "%s: %s is none of %s", variable, value.c_str(), accepted);
  return false;
}

bool addRadar(Fault &fault) {
  const std::string bridge = environment("PULSEKIT3_SIMULATED_BRIDGE", "FT232H");
  const auto *found = std::find(std::begin(kBridges), std::end(kBridges), bridge);
  if (found == std::end(kBridges)) {
    return refuse(fault, "PULSEKIT3_SIMULATED_BRIDGE", bridge, "FT232H, FT2232H, FT4232H");
  }
  const std::string chip = environment("PULSEKIT3_SIMULATED_CHIP", "QTX3701");
  const auto model = static_cast<int32_t>(found - std::begin(kBridges));
  const char *fitted = chip == "none" ? nullptr : chip.c_str();
  if (QTXSim_AddRadar(kSerial, "Simulated radar", model, "QTX-K245", fitted) >= 0) return true;
  return refuse(fault, "PULSEKIT3_SIMULATED_CHIP", chip, "QTX3400, QTX3500, QTX3701, QTX3702, none");
}

bool addRadar(const SceneRadar &radar) {
  const auto *bridge = std::find(std::begin(kBridges), std::end(kBridges), radar.bridge);
  if (bridge == std::end(kBridges)) return false;
  const auto text = [](const std::optional<std::string> &part) { return part ? part->c_str() : nullptr; };
  const int32_t device = QTXSim_AddRadar(radar.serial.c_str(), "Simulated radar",
                                         static_cast<int32_t>(bridge - kBridges), text(radar.board), text(radar.chip));
  return device >= 0 && QTXSim_SetHeld(device, radar.held) == 0;
}

std::string addRadars(const Scene &scene) {
  for (const SceneRadar &radar : scene.radars) {
    if (!addRadar(radar)) return "there can be no radar " + radar.serial + " like this";
  }
  return "";
}

// To all that have a chip to look with.
std::string show(const std::string &path) {
  char error[256] = "";
  for (int32_t device = 0; exists(device); ++device) {
    double rate = 0;
    const bool looks = QTXSim_TrueSamplesPerSecond(device, &rate) == 0;
    if (looks && QTXSim_LoadScene(device, path.c_str(), error, sizeof error) != 0) return error;
  }
  return "";
}

Fault arrange() {
  Fault fault;
  if (exists(0)) return fault;
  const std::string path = environment("PULSEKIT3_SCENE", "");
  std::string scene_fault;
  const std::optional<Scene> scene = path.empty() ? std::nullopt : readScene(path, scene_fault);
  if (scene && !scene->radars.empty()) {
    scene_fault = addRadars(*scene);
  } else if (!addRadar(fault)) {
    return fault;
  }
  // Nobody asks for the record; a long run would only fill memory with it.
  QTXSim_SetRecording(0);
  const std::string time = environment("PULSEKIT3_SIMULATED_TIME", "real");
  if (!setTime(time)) {
    refuse(fault, "PULSEKIT3_SIMULATED_TIME", time, "real, host, deterministic");
    return fault;
  }
  if (scene && scene_fault.empty()) scene_fault = show(path);
  if (!scene_fault.empty()) std::snprintf(fault.text, sizeof fault.text, "PULSEKIT3_SCENE: %s", scene_fault.c_str());
  return fault;
}

const Fault &arrangement() {
  static const Fault fault = arrange();
  return fault;
}

const FTx232H_D2XX &table() {
  arrangement();
  return *QTXSim_D2XX();
}

}  // namespace

extern "C" {

QTXSIM_API const char *FTx232H_LibraryFault(void) {
  const Fault &fault = arrangement();
  return fault.text[0] != '\0' ? fault.text : nullptr;
}

QTXSIM_API FT_STATUS FT_Close(FT_HANDLE handle) { return table().Close(handle); }

QTXSIM_API FT_STATUS FT_Read(FT_HANDLE handle, void *buffer, uint32_t count, uint32_t *got) {
  return table().Read(handle, buffer, count, got);
}

QTXSIM_API FT_STATUS FT_Write(FT_HANDLE handle, const void *buffer, uint32_t count, uint32_t *written) {
  return table().Write(handle, buffer, count, written);
}

QTXSIM_API FT_STATUS FT_ResetDevice(FT_HANDLE handle) { return table().ResetDevice(handle); }

QTXSIM_API FT_STATUS FT_SetTimeouts(FT_HANDLE handle, uint32_t read_ms, uint32_t write_ms) {
  return table().SetTimeouts(handle, read_ms, write_ms);
}

QTXSIM_API FT_STATUS FT_GetQueueStatus(FT_HANDLE handle, uint32_t *count) {
  return table().GetQueueStatus(handle, count);
}

QTXSIM_API FT_STATUS FT_OpenEx(const void *arg, uint32_t flags, FT_HANDLE *out) {
  return table().OpenEx(arg, flags, out);
}

QTXSIM_API FT_STATUS FT_ListDevices(void *arg1, void *arg2, uint32_t flags) {
  return table().ListDevices(arg1, arg2, flags);
}

QTXSIM_API FT_STATUS FT_SetLatencyTimer(FT_HANDLE handle, uint8_t ms) { return table().SetLatencyTimer(handle, ms); }

QTXSIM_API FT_STATUS FT_SetBitMode(FT_HANDLE handle, uint8_t mask, uint8_t mode) {
  return table().SetBitMode(handle, mask, mode);
}

QTXSIM_API FT_STATUS FT_SetUSBParameters(FT_HANDLE handle, uint32_t in_size, uint32_t out_size) {
  return table().SetUSBParameters(handle, in_size, out_size);
}

QTXSIM_API FT_STATUS FT_CreateDeviceInfoList(uint32_t *count) { return table().CreateDeviceInfoList(count); }

QTXSIM_API FT_STATUS FT_GetDeviceInfoList(FT_Node *nodes, uint32_t *count) {
  return table().GetDeviceInfoList(nodes, count);
}

}  // extern "C"
