// Waits end when they are cancelled or last too long, and leave the radar as it was; radars come and go; advice.
#include <atomic>
#include <thread>

#include "bench.h"

namespace pulsekit::test {
namespace {

class Control : public Bench {
 protected:
  Control() { cancelAtWrites(handle); }

  std::string state() {
    int32_t value = -1;
    const int32_t code = QTX_RadarState(handle, &value);
    return format("%d, %d", code, value);
  }
  std::string advice(int32_t of) {
    char text[1024] = "?";
    EXPECT_EQ(QTX_GetErrorAdvice(handle, text, sizeof text), 0);
    return std::to_string(of) + " " + text;
  }
  int32_t getFrame() { return QTX_GetFrameRaw(handle, frame.data(), frame.size()); }

  // Runs the call while another thread cancels it.
  static int32_t fromAnotherThread(QTX_Handle *of, const std::function<int32_t()> &run) {
    std::atomic<bool> done = false;
    std::thread other([&] {
      for (; !done; std::this_thread::yield()) QTX_Cancel(of);
    });
    const int32_t code = run();
    done = true;
    other.join();
    return code;
  }

  std::vector<uint32_t> frame = std::vector<uint32_t>(4096);
};

TEST_F(Control, ACancelAtAnyWriteLeavesTheRadarAsItWas) {
  std::vector<uint32_t> cdf(256 * 8);
  int64_t frequency = 200'000'000;
  const struct {
    const char *what;
    uint32_t step;
    std::function<int32_t()> run;
  } cases[] = {
      {"stitched frame", 1, [&] { return getFrame(); }},
      {"CDF", 1, [&] { return QTX_GetCDF(handle, cdf.data(), static_cast<int32_t>(cdf.size())); }},
      {"flash", 1, [&] { return QTX_VarsSaveToFlash(handle); }},
      {"frequency", 1, [&] { return QTX_VarSetIntValue_ByName(handle, "DCOTargetFrequency", ++frequency); }},
      {"calibration", 5003, [&] { return QTX_ExecuteAction_ByName(handle, "MeasureAll"); }},
  };
  ASSERT_EQ(open(), 0);
  ASSERT_EQ(set("FrameStitch=3 PipeLining=1 DACStepFine=1024 Iterations=200"), 0);
  ASSERT_EQ(getFrame(), 0);
  for (const auto &c : cases) {
    ASSERT_EQ(c.run(), 0) << c.what << description();
    const auto before = settings(handle);
    int cancelled = 0;
    for (uint32_t nth = 1;; nth += c.step) {
      SCOPED_TRACE(c.what + std::to_string(nth));
      writes_left = nth;
      const int32_t code = c.run();
      const bool done = writes_left > 0;
      writes_left = 0;
      ASSERT_TRUE(code == 0 || code == 1537) << description();
      if (done) break;
      cancelled += code == 1537;
      ASSERT_TRUE(c.step > 1 || c.what == std::string("frequency") || settings(handle) == before);
      ASSERT_EQ(QTXSim_PinLevel(0, 14), 1);
      ASSERT_EQ(getFrame(), 0) << description();
    }
    EXPECT_GT(cancelled, 1) << c.what;
  }
}

TEST_F(Control, AWaitThatWouldNeverEndEndsAtTheLimitOrByACancel) {
  DO(open(), QTX_PowerOffRadar(handle), QTXSim_SetIdleLevel(0, 1), QTX_SetWaitLimit(handle, -1),
     QTX_SetWaitLimit(handle, 3));
  tells_pauses = false;
  DO(advice(set("Iterations=7")), QTX_SetWaitLimit(handle, 0));
  QTX_Cancel(handle);  // nothing is in progress
  EXPECT_EQ(fromAnotherThread(handle, [&] { return getFrame(); }), 1537);
  DO(QTXSim_SetIdleLevel(0, 0), QTX_PowerOnRadar(handle), getFrame());
}

TEST_F(Control, RadarsThatComeAndGoAreTold) {
  say("a radar is lost until it is closed");
  DO(state(), open(), state(), QTXSim_Unplug(0), advice(getFrame()), state(), QTXSim_Replug(0), state(),
     QTX_CloseRadar(handle), state(), open());
  Other watcher;
  const auto changed = [&] { return QTX_WaitForRadarChange(watcher, 0); };
  say("the first call looks only; what is held elsewhere hides its name");
  DO(changed(), add("FT0002"), changed(), QTXSim_SetHeld(1, 1), changed(), QTX_CloseRadar(handle), changed(),
     QTXSim_SetHeld(1, 0), QTXSim_Unplug(0), add("FT0003"), changed());
  EXPECT_EQ(fromAnotherThread(watcher, [&] { return QTX_WaitForRadarChange(watcher, -1); }), 1537);
  FTx232H_D2XX none{};
  FTx232H_SetD2XX(&none);
  DO(changed());
}

TEST_F(Control, AdviceSaysWhatToDo) {
  ASSERT_EQ(open(), 0);
  Other other;
  char list[4];
  uint64_t value = 0;
  DO(advice(set("iteration=1")), advice(QTX_ExecuteAction_ByName(handle, "MesureAll")), advice(set("Downsampling=4")),
     advice(QTX_VarSetFloatValue_ByName(handle, "ZoomMax", 100.5)), advice(set("RadarModulePower=poweron")),
     advice(QTX_VarSetIntValue_ByName(handle, "SPIClockFrequency", -1)), advice(set("ChipID=1")),
     advice(QTX_GetFrameRaw(handle, frame.data(), 255)), advice(QTX_ListRadarModules(handle, list, sizeof list)),
     advice(QTX_VarsLoadFromFlash(handle)), advice(QTX_TimingMeasurementLoadDataFromFlash(handle, 3)),
     advice(QTX_VarsLoadFromFile(handle, "/nowhere/settings")),
     QTX_OpenRadar(other, (device() + "!QTX-K245!QTX3701").c_str()),
     advice(QTX_OpenRadar(handle, "FTx232H!Serial No: (NONE)!QTX-K245!QTX3701")), advice(open("!QTX-K24!QTX3701")),
     advice(open("!QTX-K245!QTX9")), advice(QTX_RegisterRead(handle, 1, 1, &value)), QTXSim_SetHeld(0, 1),
     advice(open()));
  DO((open(), QTX_GetErrorAdvice(handle, list, sizeof list)), list);
}

}  // namespace
}  // namespace pulsekit::test
