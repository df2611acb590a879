// Waits end when they are cancelled or last too long, and leave the radar as it was; radars come and go; advice.
#include <atomic>
#include <functional>
#include <thread>

#include "Pulsekit3_control.h"
#include "bench.h"

namespace pulsekit::test {
namespace {

class Control : public Bench {
 protected:
  Control() { cancelAtWrites(radar); }

  void open() { ASSERT_EQ(QTX_OpenRadar(radar, connection().c_str()), 0) << description(radar); }
  int32_t set(const char *name, const char *text) { return QTX_VarSetValue_ByString(radar, name, text); }
  int32_t state() {
    int32_t value = -1;
    EXPECT_EQ(QTX_RadarState(radar, &value), 0);
    return value;
  }
  std::string advice() {
    char text[1024] = "?";
    EXPECT_EQ(QTX_GetErrorAdvice(radar, text, sizeof text), 0);
    return text;
  }

  // Runs the call while another thread cancels it.
  static int32_t fromAnotherThread(QTX_Handle *handle, const std::function<int32_t()> &run) {
    std::atomic<bool> done = false;
    std::thread other([&] {
      for (; !done; std::this_thread::yield()) QTX_Cancel(handle);
    });
    const int32_t code = run();
    done = true;
    other.join();
    return code;
  }

  int32_t number = addRadar();
  Radar radar;
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
      {"stitched frame", 1, [&] { return QTX_GetFrameRaw(radar, frame.data(), frame.size()); }},
      {"CDF", 1, [&] { return QTX_GetCDF(radar, cdf.data(), static_cast<int32_t>(cdf.size())); }},
      {"flash", 1, [&] { return QTX_VarsSaveToFlash(radar); }},
      {"frequency", 1, [&] { return QTX_VarSetIntValue_ByName(radar, "DCOTargetFrequency", ++frequency); }},
      {"calibration", 5003, [&] { return QTX_ExecuteAction_ByName(radar, "MeasureAll"); }},
  };
  open();
  for (const char *stitch : {"FrameStitch=3", "PipeLining=1", "DACStepFine=1024", "Iterations=200"}) {
    const std::string text = stitch;
    ASSERT_EQ(set(text.substr(0, text.find('=')).c_str(), text.substr(text.find('=') + 1).c_str()), 0);
  }
  ASSERT_EQ(QTX_GetFrameRaw(radar, frame.data(), frame.size()), 0);
  for (const auto &c : cases) {
    ASSERT_EQ(c.run(), 0) << c.what << description(radar);
    const auto before = settings(radar);
    int cancelled = 0;
    for (uint32_t nth = 1;; nth += c.step) {
      writes_left = nth;
      const int32_t code = c.run();
      const bool done = writes_left > 0;
      writes_left = 0;
      ASSERT_TRUE(code == 0 || code == 1537) << c.what << nth << description(radar);
      if (done) break;
      cancelled += code == 1537;
      if (c.step == 1 && c.what != std::string("frequency")) {
        ASSERT_EQ(settings(radar), before) << c.what << nth;
      }
      ASSERT_EQ(QTXSim_PinLevel(number, 14), 1) << c.what << nth;
      ASSERT_EQ(QTX_GetFrameRaw(radar, frame.data(), frame.size()), 0) << c.what << nth << description(radar);
    }
    EXPECT_GT(cancelled, 1) << c.what;
  }
}

TEST_F(Control, AWaitThatWouldNeverEndEndsAtTheLimitOrByACancel) {
  open();
  ASSERT_EQ(QTX_PowerOffRadar(radar), 0);
  QTXSim_SetIdleLevel(number, 1);
  EXPECT_EQ(QTX_SetWaitLimit(radar, -1), 1);
  ASSERT_EQ(QTX_SetWaitLimit(radar, 3), 0);
  EXPECT_EQ(set("Iterations", "7"), 1538);
  EXPECT_NE(advice().find("QTX_PowerOnRadar"), std::string::npos) << advice();
  ASSERT_EQ(QTX_SetWaitLimit(radar, 0), 0);
  QTX_Cancel(radar);  // nothing is in progress
  EXPECT_EQ(fromAnotherThread(radar, [&] { return QTX_GetFrameRaw(radar, frame.data(), frame.size()); }), 1537);
  QTXSim_SetIdleLevel(number, 0);
  EXPECT_EQ(QTX_PowerOnRadar(radar), 0) << description(radar);
  EXPECT_EQ(QTX_GetFrameRaw(radar, frame.data(), frame.size()), 0) << description(radar);
}

TEST_F(Control, ARadarIsLostUntilItIsClosed) {
  EXPECT_EQ(state(), QTX_RADAR_CLOSED);
  open();
  EXPECT_EQ(state(), QTX_RADAR_OPEN);
  QTXSim_Unplug(number);
  EXPECT_EQ(QTX_GetFrameRaw(radar, frame.data(), frame.size()), 265);
  EXPECT_NE(advice().find("gone"), std::string::npos) << advice();
  EXPECT_EQ(state(), QTX_RADAR_LOST);
  QTXSim_Replug(number);
  EXPECT_EQ(state(), QTX_RADAR_LOST);
  EXPECT_EQ(QTX_CloseRadar(radar), 0);
  EXPECT_EQ(state(), QTX_RADAR_CLOSED);
}

TEST_F(Control, RadarsThatComeAndGoAreTold) {
  open();
  Radar watcher;
  const auto changed = [&] { return QTX_WaitForRadarChange(watcher, 0); };
  EXPECT_EQ(changed(), 1538);  // the first call looks only
  const int32_t second = addRadar("FT0002");
  EXPECT_EQ(changed(), 0);
  QTXSim_SetHeld(second, 1);  // elsewhere, which hides its name
  EXPECT_EQ(changed(), 1538);
  QTX_CloseRadar(radar);
  EXPECT_EQ(changed(), 1538);
  QTXSim_SetHeld(second, 0);
  QTXSim_Unplug(number);
  addRadar("FT0003");
  EXPECT_EQ(changed(), 0);
  EXPECT_EQ(fromAnotherThread(watcher, [&] { return QTX_WaitForRadarChange(watcher, -1); }), 1537);
  FTx232H_D2XX none{};
  FTx232H_SetD2XX(&none);
  EXPECT_EQ(changed(), 259);
}

TEST_F(Control, AdviceSaysWhatToDo) {
  open();
  Radar other;
  char list[4];
  uint64_t value = 0;
  const struct {
    std::function<int32_t()> fail;
    int32_t code;
    const char *advice;
  } cases[] = {
      {[&] { return set("iteration", "1"); }, 1283, "Did you mean Iterations?"},
      {[&] { return QTX_ExecuteAction_ByName(radar, "MesureAll"); }, 1284, "Did you mean MeasureAll?"},
      {[&] { return set("Downsampling", "4"); }, 1286, "Downsampling can't be 4: it takes whole numbers from 0 to 3"},
      {[&] { return QTX_VarSetFloatValue_ByName(radar, "ZoomMax", 100.5); }, 1286, "ZoomMax can't be 100.5"},
      {[&] { return set("RadarModulePower", "poweron"); }, 1286, "did you mean PowerOn?"},
      {[&] { return QTX_VarSetIntValue_ByName(radar, "SPIClockFrequency", -1); }, 1286,
       "SPIClockFrequency can't be -1"},
      {[&] { return set("ChipID", "1"); }, 1285, "ChipID is what the radar tells"},
      {[&] { return QTX_GetFrameRaw(radar, frame.data(), 255); }, 2, "A frame has 256 entries"},
      {[&] { return QTX_ListRadarModules(radar, list, sizeof list); }, 1, "Close it first"},
      {[&] { return QTX_VarsLoadFromFlash(radar); }, 5, "QTX_VarsSaveToFlash"},
      {[&] { return QTX_TimingMeasurementLoadDataFromFlash(radar, 3); }, 5, "QTX_Calibrate"},
      {[&] { return QTX_VarsLoadFromFile(radar, "/nowhere/settings"); }, 6, "/nowhere/settings can't be read"},
      {[&] { return QTX_OpenRadar(radar, connection().c_str()) + QTX_OpenRadar(other, connection().c_str()); }, 260,
       ""},
      {[&] { return QTX_OpenRadar(radar, "FTx232H!Serial No: (NONE)!QTX-K245!QTX3701"); }, 260, "attached: FT0001AB"},
      {[&] { return QTX_OpenRadar(radar, (device() + "!QTX-K24!QTX3701").c_str()); }, 0, "Did you mean QTX-K245"},
      {[&] { return QTX_OpenRadar(radar, (device() + "!QTX-K245!QTX9").c_str()); }, 769, "QTX3701"},
      {[&] { return QTX_RegisterRead(radar, 1, 1, &value); }, 770, "QTX_OpenRadar"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(c.fail(), c.code) << c.advice << description(radar);
    EXPECT_NE(advice().find(c.advice), std::string::npos) << advice();
  }
  QTXSim_SetHeld(number, 1);
  EXPECT_EQ(QTX_OpenRadar(radar, connection().c_str()), 260);
  EXPECT_NE(advice().find("Another program"), std::string::npos) << advice();
  EXPECT_EQ(QTX_GetErrorAdvice(radar, list, sizeof list), 2);
  EXPECT_EQ(std::string(list), "Ano");
}

}  // namespace
}  // namespace pulsekit::test
