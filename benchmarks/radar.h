// A simulated radar for the benchmarks, and the jobs that both of them measure.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "Pulsekit3.h"
#include "Pulsekit3Simulator.h"
#include "Pulsekit3_stream.h"
#include "interface/FTx232H/FTx232H.h"

namespace pulsekit::benchmark {

constexpr char kConnection[] = "FTx232H!Serial No: (FT0001AB)!QTX-K245!QTX3701";

inline void plugIn() {
  QTXSim_Reset();
  QTXSim_SetRecording(0);
  QTXSim_AddRadar("FT0001AB", "Radar", QTXSIM_FT232H, "QTX-K245", "QTX3701");
  FTx232H_SetD2XX(QTXSim_D2XX());
}

class Radar {
 public:
  Radar() {
    plugIn();
    require(QTX_InitHandle(&handle));
  }
  ~Radar() {
    QTX_CloseRadar(handle);
    QTX_FreeHandle(&handle);
    FTx232H_SetD2XX(nullptr);
    std::remove(path.c_str());
  }
  Radar(const Radar &) = delete;
  Radar &operator=(const Radar &) = delete;

  // A benchmark of calls that fail measures nothing.
  void require(int32_t code) {
    if (code == 0) return;
    char text[4096];
    QTX_GetErrorDescription(handle, text, sizeof text, code);
    std::fprintf(stderr, "%s\n", text);
    std::exit(1);
  }

  QTX_Handle *handle = nullptr;
  std::vector<uint32_t> raw = std::vector<uint32_t>(4096);
  std::vector<double> normalized = std::vector<double>(4096);
  std::string path = "benchmark-settings.txt";
  int64_t toggle = 0;
};

struct Job {
  const char *name;
  bool open;  // whether the radar is open while it runs
  std::function<int32_t(Radar &)> run;
  std::function<int32_t(Radar &)> prepare = [](Radar &) { return 0; };  // once, before the first run
  std::function<int32_t(Radar &)> restore = nullptr;                    // after each run, not measured
};

inline int32_t open(Radar &radar) { return QTX_OpenRadar(radar.handle, kConnection); }
inline int32_t close(Radar &radar) { return QTX_CloseRadar(radar.handle); }

inline int32_t set(Radar &radar, const char *name, int64_t value) {
  return QTX_VarSetIntValue_ByName(radar.handle, name, value);
}

inline int32_t setText(Radar &radar, const char *name, const char *text) {
  return QTX_VarSetValue_ByString(radar.handle, name, text);
}

inline int32_t get(Radar &radar, const char *name) {
  uint64_t value = 0;
  return QTX_VarGetValue_ByName(radar.handle, name, &value);
}

// What is there of a stream, at most four frames.
inline int32_t stream(Radar &radar, uint32_t &count, uint32_t most = 4, QTX_FrameInfo *last = nullptr) {
  QTX_FrameInfo infos[4] = {};
  const int32_t code = QTX_StreamRead(radar.handle, radar.raw.data(), radar.raw.size(), infos, most, &count, 1000);
  if (last && count > 0) *last = infos[count - 1];
  return code;
}

// One threshold only, so that the table has one line.
inline int32_t chooseOneLine(Radar &radar) {
  if (int32_t code = set(radar, "DACMin", 4000)) return code;
  return set(radar, "DACMax", 4000);
}

inline int32_t save(Radar &radar) { return QTX_VarsSaveToFile(radar.handle, radar.path.c_str()); }
inline int32_t load(Radar &radar) { return QTX_VarsLoadFromFile(radar.handle, radar.path.c_str()); }

inline const std::vector<Job> &jobs() {
  static const std::vector<Job> all = {
      {"list radars (one)", false,
       [](Radar &r) {
         char text[512];
         return QTX_ListRadarModules(r.handle, text, sizeof text);
       }},
      {"open", false, open, [](Radar &) { return 0; }, close},
      {"close", true, close, [](Radar &) { return 0; }, open},
      {"get by name, stored", true, [](Radar &r) { return get(r, "PulsesPerStep"); }},
      {"get by name, from the chip", true, [](Radar &r) { return get(r, "ChipID"); }},
      {"set by name, unchanged", true, [](Radar &r) { return set(r, "PulsesPerStep", 40); },
       [](Radar &r) { return set(r, "PulsesPerStep", 40); }},
      {"set by name, with register", true, [](Radar &r) { return set(r, "PulsesPerStep", 40 + (r.toggle ^= 1)); }},
      {"set the sample delay", true,
       [](Radar &r) { return QTX_VarSetFloatValue_ByName(r.handle, "SampleDelay", (r.toggle ^= 1) ? 20e-9 : 40e-9); }},
      {"action", true, [](Radar &r) { return QTX_ExecuteAction_ByName(r.handle, "ResetCounters"); }},
      {"raw frame", true, [](Radar &r) { return QTX_GetFrameRaw(r.handle, r.raw.data(), r.raw.size()); }},
      {"normalized frame", true, [](Radar &r) { return QTX_GetFrameNormalized(r.handle, r.normalized.data(), 4096); }},
      {"raw frame, pipelined", true, [](Radar &r) { return QTX_GetFrameRaw(r.handle, r.raw.data(), r.raw.size()); },
       [](Radar &r) { return set(r, "PipeLining", 1); }},
      {"raw frame, streamed", true,
       [](Radar &r) {
         uint32_t count = 0;
         return stream(r, count, 1);
       },
       [](Radar &r) { return QTX_StreamStart(r.handle, nullptr); }},
      {"CDF line", true, [](Radar &r) { return QTX_GetCDF(r.handle, r.raw.data(), 4096); }, chooseOneLine},
      {"settings to file", true, save},
      {"settings from file, unchanged", true, load, save},
      {"settings from file, after reset", true, load,
       [](Radar &r) {
         if (int32_t code = set(r, "PulsesPerStep", 41)) return code;
         if (int32_t code = save(r)) return code;
         return QTX_VarsResetAllToDefault(r.handle);
       },
       [](Radar &r) { return QTX_VarsResetAllToDefault(r.handle); }},
      {"reset all settings", true, [](Radar &r) { return QTX_VarsResetAllToDefault(r.handle); }},
      {"settings to flash", true, [](Radar &r) { return QTX_VarsSaveToFlash(r.handle); }},
      {"settings from flash", true, [](Radar &r) { return QTX_VarsLoadFromFlash(r.handle); },
       [](Radar &r) { return QTX_VarsSaveToFlash(r.handle); }},
      {"4 KiB to flash", true,
       [](Radar &r) {
         const std::vector<uint8_t> data(4096, 0x5a);
         return QTX_ModuleWriteFlashMemory(r.handle, 0x10000, data.data(), 4096);
       }},
  };
  return all;
}

}  // namespace pulsekit::benchmark
