// A host with a radar on the simulated bench, through the shared library.
#pragma once

#include <bit>
#include <initializer_list>

#include "Pulsekit3.h"
#include "Pulsekit3Simulator.h"
#include "chip/chip.h"
#include "interface/interface.h"
#include "module/module.h"
#include "support/QTX_Handle.h"
#include "transcript.h"

namespace pulsekit::test {

inline uint64_t bits(double value) { return std::bit_cast<uint64_t>(value); }

inline std::string device(const std::string &serial = "FT0001AB") { return "FTx232H!Serial No: (" + serial + ")"; }

class Host : public Told {
 protected:
  Host() {
    QTXSim_Reset();
    QTXSim_SetRecording(0);
    FTx232H_SetD2XX(QTXSim_D2XX());
    EXPECT_EQ(QTX_InitHandle(&handle), 0);
    watched = handle->error;
  }
  ~Host() override {
    QTX_FrameLoggingStop(handle);
    EXPECT_EQ(QTX_CloseRadar(handle), 0);
    QTX_FreeHandle(&handle);
    FTx232H_SetD2XX(nullptr);
  }

  static int32_t add(const char *serial = "FT0001AB", const char *board = "QTX-K245", const char *chip = "QTX3701") {
    return QTXSim_AddRadar(serial, "Radar", QTXSIM_FT232H, board, chip);
  }
  int32_t open(const std::string &layers = "!QTX-K245!QTX3701") {
    return QTX_OpenRadar(handle, (device() + layers).c_str());
  }
  std::string description() {
    char text[4096];
    QTX_GetErrorDescription(handle, text, sizeof text, 0);
    return text;
  }
  Variable &named(const char *name) {
    Variable *found = varNamed(handle->chip->variables, name);
    return found ? *found : *varNamed(handle->module->variables, name);
  }
  std::string values(std::initializer_list<const char *> names) {
    std::string text;
    for (const char *name : names) {
      const Variable &v = named(name);
      text += std::string(" ") + name + "=" +
              (v.flags & VAR_FLAG_FLOAT ? show(std::bit_cast<double>(v.value)) : std::to_string(v.value));
      text += v.flags & VAR_FLAG_AUTO ? " auto" : "";
    }
    return text;
  }
  // The operation with the plug pulled at each call of the bridge in turn; the radar can be closed and opened again.
  // The outermost frame is told, of this many calls only every other one is tried.
  void atEveryCall(const std::string &title, const std::function<void()> &prepare,
                   const std::function<int32_t()> &operation, uint32_t step = 1) {
    inRuns(title, 10'000, [&](uint32_t nth, bool *reached) {
      prepare();
      QTXSim_ResetStatistics();
      QTXSim_UnplugAtCall(0, nth * step);
      const int32_t code = operation();
      const std::string text = code >= 263 && code <= 265 ? "263 to 265" : std::to_string(code),
                        trace = shortTrace(handle->error->trace);
      QTXSim_Statistics spent{};
      QTXSim_GetStatistics(&spent);
      *reached = spent.calls >= nth * step;
      QTXSim_ClearFaults();
      QTXSim_Replug(0);
      EXPECT_EQ(QTX_CloseRadar(handle), 0);
      return text + " " + (*reached ? trace.substr(trace.rfind("< ") + 1) : "");
    });
    EXPECT_EQ(open(), 0);
    EXPECT_EQ(QTX_CloseRadar(handle), 0);
  }

  QTX_Handle *handle = nullptr;
};

// With the radar open.
class Radar : public Host {
 protected:
  Radar() {
    add();
    EXPECT_EQ(open(), 0) << description();
  }
};

}  // namespace pulsekit::test
