// Random bytes for everything that takes input from outside. FUZZ_TARGET names one of the targets at the end of this
// file; a finding is a crash, a hang, or a rule that does not hold.
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <numeric>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "Pulsekit3Simulator.h"
#include "Pulsekit3_control.h"
#include "Pulsekit3_settings.h"
#include "Pulsekit3_stream.h"

namespace {

constexpr const char kGood[] = "FTx232H!Serial No: (FUZZ1)!QTX-K245!QTX3701";
constexpr uint32_t kSettingsAddress = 0xF000, kTimingAddress = 0x1000, kRecord = 0x1000;
constexpr int32_t kValueRefused = 1286;

void require(bool holds, const char *rule) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", rule);
  std::abort();
}

struct Input {
  std::string_view rest;

  template <typename T>
  T take() {
    T value{};
    const std::string taken = bytes(sizeof value);
    std::memcpy(&value, taken.data(), taken.size());
    return value;
  }
  std::string bytes(size_t count) {
    const std::string taken(rest.substr(0, count));
    rest.remove_prefix(taken.size());
    return taken;
  }
  std::string line() {
    const std::string taken = bytes(rest.find('\n'));
    bytes(1);
    return taken.c_str();
  }
};

std::string file(const std::string &text) {
  std::ofstream("input", std::ios::binary) << text;
  return "input";
}

// One radar for all inputs, each of which finds it with its default settings. Its clock makes long measurements short.
struct Radar {
  int32_t device = 0;
  QTX_Handle *handle = nullptr;
  std::vector<std::string> names;

  Radar() {
    FTx232H_SetD2XX(QTXSim_D2XX());
    QTXSim_SetRecording(0);
    device = QTXSim_AddRadar("FUZZ1", "Radar", QTXSIM_FT232H, "QTX-K245", "QTX3701");
    QTXSim_SetReferenceClock(device, 1e12);
    require(QTX_InitHandle(&handle) == 0 && QTX_OpenRadar(handle, kGood) == 0, "the radar opens");
    char list[20000];
    for (auto *read : {QTX_ListVariables, QTX_ListActions}) {
      require(read(handle, list, sizeof list) == 0, "a radar lists its names");
      std::stringstream stream(list);
      for (std::string name; std::getline(stream, name, ',');) names.push_back(name);
    }
  }
  ~Radar() {
    QTX_CloseRadar(handle);
    QTX_FreeHandle(&handle);
  }
};

Radar &radar() {
  static Radar one;
  require(QTX_VarsResetAllToDefault(one.handle) == 0, "settings can always be reset");
  return one;
}

void describe(QTX_Handle *handle, int32_t code) {
  char text[4096];
  require(QTX_GetErrorDescription(handle, text, sizeof text, code) == 0, "an error can be described");
}

void connection(Input input) {
  static const int32_t blank = [] {
    require(QTX_CloseRadar(radar().handle) == 0, "the radar closes");
    return QTXSim_AddRadar("FUZZ2", "Blank", QTXSIM_FT2232H, "", "QTX3400");
  }();
  const auto board = input.take<std::array<uint8_t, 16>>();
  QTXSim_OtpWrite(blank, 0, board.data(), board.size());
  QTX_Handle *handle = nullptr;
  require(QTX_InitHandle(&handle) == 0, "a handle is made");
  describe(handle, QTX_OpenRadar(handle, input.line().c_str()));
  require(QTX_CloseRadar(handle) == 0, "what was opened or not is closed");
  char list[2048];
  require(QTX_ListRadarModules(handle, list, sizeof list) == 0, "the radars are listed whatever their boards hold");
  require(QTX_OpenRadar(handle, kGood) == 0 && QTX_CloseRadar(handle) == 0, "a failed open loses nothing");
  QTX_FreeHandle(&handle);
}

void settingsFile(Input input) {
  QTX_Handle *handle = radar().handle;
  describe(handle, QTX_VarsLoadFromFile(handle, file(input.bytes(input.rest.size())).c_str()));
  const std::string path = file("");
  require(QTX_VarsSaveToFile(handle, path.c_str()) == 0, "settings can always be saved");
  require(QTX_VarsLoadFromFile(handle, path.c_str()) == 0, "what was saved loads");
}

// Sound records in which some words are changed, the checksum of the second made right again.
void flashRecords(Input input) {
  QTX_Handle *handle = radar().handle;
  static const std::vector<uint8_t> sound = [handle] {
    require(QTX_VarsSaveToFlash(handle) == 0 && QTX_TimingMeasurementSaveDataToFlash(handle, 1) == 0,
            "records are saved");
    std::vector<uint8_t> both(2 * kRecord);
    QTXSim_FlashRead(radar().device, kSettingsAddress, both.data(), kRecord);
    QTXSim_FlashRead(radar().device, kTimingAddress, both.data() + kRecord, kRecord);
    return both;
  }();
  std::vector<uint8_t> flash = sound;
  while (!input.rest.empty()) {
    const size_t place = input.take<uint16_t>() % (2 * kRecord - 8);
    const auto word = input.take<uint64_t>();
    std::memcpy(&flash[place], &word, sizeof word);
  }
  const uint8_t *timing = flash.data() + kRecord;
  const auto checksum = std::accumulate(timing, timing + 1296, uint32_t{0});
  std::memcpy(&flash[kRecord + 1300], &checksum, sizeof checksum);
  QTXSim_FlashWrite(radar().device, kSettingsAddress, flash.data(), kRecord);
  QTXSim_FlashWrite(radar().device, kTimingAddress, timing, kRecord);

  describe(handle, QTX_TimingMeasurementLoadDataFromFlash(handle, 1));
  describe(handle, QTX_VarsLoadFromFlash(handle));
  QTX_VarSetIntValue_ByName(handle, "SDFTEnable", 1);
  QTX_VarSetFloatValue_ByName(handle, "SampleDelay", 33e-9);
  std::vector<double> results(579);
  require(QTX_TimingMeasurementResults(handle, results.data(), 579) == 0, "any record has results");
}

int32_t set(QTX_Handle *handle, const char *name, uint8_t way, Input &input) {
  if (way % 4 == 0) return QTX_VarSetIntValue_ByName(handle, name, input.take<int64_t>());
  if (way % 4 == 1) return QTX_VarSetValueAsFloat_ByName(handle, name, input.take<double>());
  if (way % 4 == 2) return QTX_VarSetValue_ByName(handle, name, input.take<uint64_t>());
  return QTX_VarSetValue_ByString(handle, name, input.line().c_str());
}

void variables(Input input) {
  QTX_Handle *handle = radar().handle;
  static const std::vector<std::string> names = radar().names;
  while (!input.rest.empty()) {
    const auto way = input.take<uint8_t>();
    const std::string name = way & 0x80 ? input.line() : names[input.take<uint8_t>() % names.size()];
    uint64_t before = 0, after = 0;
    const int32_t known = QTX_VarGetValue_ByName(handle, name.c_str(), &before);
    const int32_t code = set(handle, name.c_str(), way, input);
    describe(handle, code);
    require(code != kValueRefused || QTX_VarGetValue_ByName(handle, name.c_str(), &after) != 0 || known != 0 ||
                std::memcmp(&before, &after, sizeof after) == 0,
            "a refused value changes nothing");
    double number = 0;
    uint32_t items[64];
    int32_t count = 64;
    QTX_VarGetValueAsFloat_ByName(handle, name.c_str(), &number);
    QTX_VarGetEnumsItems_ByName(handle, name.c_str(), items, &count);
    // Sweeps and measurements last as long as random settings make them.
    if (way & 0x40 && name != "StartSweep" && name[0] != 'M' && name[0] != 'T')
      QTX_ExecuteAction_ByName(handle, name.c_str());
  }
}

void bridgeCommands(Input input) {
  const FTx232H_D2XX &bridge = *QTXSim_D2XX();
  static const int32_t device = QTXSim_AddRadar("FUZZ3", "Bridge", QTXSIM_FT232H, "QTX-K245", "QTX3701");
  QTXSim_PowerCycle(device);
  FT_HANDLE handle = nullptr;
  require(bridge.OpenEx("FUZZ3", 1, &handle) == 0, "the bridge opens");
  bridge.SetTimeouts(handle, 10, 10);
  bridge.SetBitMode(handle, input.take<uint8_t>(), 0);
  bridge.SetBitMode(handle, 0, 2);
  while (!input.rest.empty()) {
    const std::string commands = input.bytes(1 + input.take<uint16_t>() % 4096);
    uint32_t count = 0, waiting = 0;
    require(bridge.Write(handle, commands.data(), static_cast<uint32_t>(commands.size()), &count) == 0 &&
                count <= commands.size(),
            "a bridge takes bytes");
    bridge.GetQueueStatus(handle, &waiting);
    std::vector<uint8_t> answer(waiting + 1);
    require(bridge.Read(handle, answer.data(), waiting + input.take<uint8_t>() % 2, &count) == 0 && count >= waiting,
            "what waits can be read");
  }
  require(bridge.Close(handle) == 0, "the bridge closes");
}

void scene(Input input) {
  const int32_t device = radar().device;
  char error[512] = "";
  const int32_t code = QTXSim_LoadScene(device, file(input.bytes(input.rest.size())).c_str(), error, sizeof error);
  require((code == 0) == (error[0] == 0), "a refused scene has a reason");
  std::vector<double> levels(256);
  require(QTXSim_TrueLevels(device, levels.data(), 256) == 0, "a scene has levels");
  for (const double level : levels) require(std::isfinite(level), "levels are numbers");
}

// Settings one by one and in groups, sweeps and streams in any order; each wait ends soon.
void stream(Input input) {
  QTX_Handle *handle = radar().handle;
  require(QTX_SetWaitLimit(handle, 20) == 0, "waits are limited");
  std::vector<double> frames(1 << 16);
  while (!input.rest.empty()) {
    const auto step = input.take<uint8_t>();
    const auto number = input.take<uint16_t>();
    const QTX_StreamOptions options = {sizeof options, step / 4u % 4, double(number % 256), number / 256u};
    static const std::vector<std::string> known = radar().names;
    const std::string name = known[number % known.size()], value = step & 1 ? input.line() : "auto";
    const char *const names[] = {name.c_str(), "PulsesPerStep"}, *const values[] = {value.c_str(), "7"};
    uint32_t count = 0;
    if (step % 4 == 0) describe(handle, QTX_StreamStart(handle, number % 3 ? nullptr : &options));
    if (step % 4 == 1) describe(handle, QTX_VarsSetMany(handle, names, values, 1 + step / 128, nullptr, &count));
    if (step % 4 == 2)
      describe(handle, QTX_StreamRead(handle, frames.data(), number, nullptr, step, &count, step % 20));
    if (step % 8 == 3) describe(handle, QTX_ExecuteAction_ByName(handle, "StartSweep"));
    if (step % 8 == 7) require(QTX_StreamStop(handle) == 0, "a stream can always be stopped");
  }
  require(QTX_StreamStop(handle) == 0 && QTX_PowerOnRadar(handle) == 0, "a radar can always be started anew");
}

constexpr struct {
  const char *name;
  void (*run)(Input);
} kTargets[] = {{"connection", connection}, {"settings", settingsFile}, {"flash", flashRecords},
                {"variables", variables},   {"bridge", bridgeCommands}, {"scene", scene},
                {"stream", stream}};

}  // namespace

// The simulated bench needs no pauses: this definition goes before the system's.
extern "C" __attribute__((visibility("default"))) int nanosleep(const timespec *, timespec *) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const char *wanted = std::getenv("FUZZ_TARGET");
  for (const auto &target : kTargets) {
    if (wanted && std::strcmp(wanted, target.name) == 0)
      return target.run({{reinterpret_cast<const char *>(data), size}}), 0;
  }
  std::fprintf(stderr, "FUZZ_TARGET names no target\n");
  std::exit(2);
}
