// What settings mean for a frame, which can't give a good one, and what a calibration leaves behind.
#include <cmath>
#include <cstring>

#include "Pulsekit3_settings.h"
#include "bench.h"

namespace pulsekit::test {
namespace {

using Settings = std::vector<std::pair<const char *, const char *>>;

class Geometry : public Bench {
 protected:
  Geometry() {
    addRadar();
    cancelAtWrites(radar);
  }
  void open(const std::string &chip = "QTX3701") {
    ASSERT_EQ(QTX_OpenRadar(radar, connection("QTX-K245", chip).c_str()), 0);
  }
  void set(const Settings &settings) {
    for (const auto &[name, text] : settings) ASSERT_EQ(QTX_VarSetValue_ByString(radar, name, text), 0) << name;
  }
  QTX_FrameGeometry geometry() {
    QTX_FrameGeometry result{};
    result.size = sizeof result;
    EXPECT_EQ(QTX_GetFrameGeometry(radar, &result), 0) << description(radar);
    return result;
  }
  std::string findings(int32_t size = 2000) {
    std::vector<char> text(2000);
    int32_t count = -1;
    EXPECT_EQ(QTX_CheckSettings(radar, text.data(), size, &count), 0) << description(radar);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), count);
    return text.data();
  }
  // s: what a single capture takes on the simulated bus.
  double captured() {
    std::vector<uint32_t> frame(4096);
    EXPECT_EQ(QTX_GetFrameRaw(radar, frame.data(), frame.size()), 0);
    const uint64_t begin = QTXSim_Nanoseconds();
    EXPECT_EQ(QTX_GetFrameRaw(radar, frame.data(), frame.size()), 0);
    return static_cast<double>(QTXSim_Nanoseconds() - begin) * 1e-9;
  }
  Radar radar;
};

TEST_F(Geometry, FollowsFromTheSettings) {
  open();
  const QTX_FrameGeometry plain = geometry();
  EXPECT_EQ(plain.samplers, 256u);
  EXPECT_NEAR(plain.first_range, 0.2, 1e-9);
  EXPECT_NEAR(plain.first_time, 0.2 * 2 / 299792458, 1e-20);
  EXPECT_NEAR(plain.time_step, 1 / 36e9, 1e-20);
  EXPECT_NEAR(plain.range_step, 299792458 / 2 / 36e9, 1e-12);
  EXPECT_NEAR(plain.sweep_time, (10 * (1024 * 20 + 1 + 1023) + 10) / 100e6, 1e-12);
  EXPECT_NEAR(plain.pulse_rate, 100e6, 1e-3);
  EXPECT_NEAR(plain.unambiguous_range, 1.49896229, 1e-9);

  set({{"FrameStitch", "4"}, {"Downsampling", "1"}, {"PRFDivide", "7"}, {"MClkDiv", "1"}, {"Iterations", "1"}});
  const QTX_FrameGeometry other = geometry();
  EXPECT_EQ(other.samplers, 512u);
  EXPECT_NEAR(other.time_step, 2 / 36e9, 1e-20);
  EXPECT_NEAR(other.sweep_time, 4 * (1024 * 20 * 7 + 1 + 1023 + 10) / 50e6, 1e-12);
  EXPECT_NEAR(other.pulse_rate, 50e6 / 7, 1e-3);
}

TEST_F(Geometry, FrameTimeIsThatOfASingleCaptureWithinATenth) {
  for (const Settings &settings : {Settings{},
                                   {{"SPIClockFrequency", "30MHz"}},
                                   {{"PipeLining", "1"}},
                                   {{"FrameStitch", "4"}, {"PipeLining", "0"}},
                                   {{"PulsesPerStep", "200"}}}) {
    open();
    set(settings);
    const double took = captured();
    EXPECT_NEAR(geometry().frame_time, took, took / 10) << (settings.empty() ? "" : settings[0].first);
    QTX_CloseRadar(radar);
  }
}

TEST_F(Geometry, RefusesWhatHasNone) {
  QTX_FrameGeometry short_one{};
  int32_t count = 7;
  EXPECT_EQ(QTX_GetFrameGeometry(nullptr, &short_one), 1025);
  EXPECT_EQ(QTX_GetFrameGeometry(radar, nullptr), 1);
  EXPECT_EQ(QTX_GetFrameGeometry(radar, &short_one), 1);
  short_one.size = sizeof short_one;
  EXPECT_EQ(QTX_GetFrameGeometry(radar, &short_one), 770);
  EXPECT_EQ(QTX_CheckSettings(radar, nullptr, 0, &count), 770);
  EXPECT_EQ(QTX_CheckSettings(radar, nullptr, 10, &count), 1);
  EXPECT_EQ(QTX_Calibrate(nullptr, -1), 1025);
  EXPECT_EQ(QTX_Calibrate(radar, -1), 770);
  EXPECT_EQ(QTX_Calibrate(radar, -2), 1);
  open();
  set({{"SamplesPerSecond", "0"}});
  EXPECT_EQ(QTX_GetFrameGeometry(radar, &short_one), 1541);
}

TEST_F(Geometry, NamesSettingsThatGiveNoGoodFrame) {
  const std::vector<std::pair<Settings, const char *>> cases = {
      {{}, ""},
      {{{"MClkEnable", "0"}}, "MClkEnable: the master clock is off"},
      {{{"MClkSource", "1"}}, "MClkSource: "},
      {{{"ClockFrequency", "0"}}, "ClockFrequency: "},
      {{{"DACMin", "8000"}, {"DACMax", "7999"}}, "DACMin: it is above DACMax"},
      {{{"DACStepFine", "0"}}, "DACStepFine: it is 0"},
      {{{"Iterations", "0"}}, "Iterations: it is 0"},
      {{{"PulsesPerStep", "0"}}, "PulsesPerStep: it is 0"},
      {{{"DACOverride", "1"}}, "DACOverride: "},
      {{{"SignalOverride", "1"}}, "SignalOverride: "},
      {{{"BytesPerCounter", "2"}}, "BytesPerCounter: counters of 32 bits (CounterLSb to CounterMSb) are not 2 bytes"},
      {{{"BytesPerCounter", "2"}, {"CounterMSb", "15"}},
       "CounterMSb: counters go up to 204800 and wrap round at 65536"},
      {{{"CounterMSb", "0"}, {"CounterLSb", "8"}}, "CounterMSb: it is below CounterLSb"},
      {{{"SamplesPerSecond", "0"}}, "SamplesPerSecond: "},
      {{{"DelayMediumTune", "6e-11"}}, "SampleDelay: the window stands where other delay steps"},
      {{{"OffsetDistanceFromReference", "1"}}, "PRFDivide: the frame ends 13782 ps after a pulse"},
      {{{"RadarModulePower", "PowerOff"}}, "RadarModulePower: the radar is switched off"},
  };
  for (const auto &[settings, expected] : cases) {
    open();
    set(settings);
    const std::string found = findings();
    EXPECT_EQ(found.substr(0, std::strlen(expected)), expected) << found;
    EXPECT_EQ(found.empty(), settings.empty()) << found;
    QTX_CloseRadar(radar);
  }
  open();
  set({{"Iterations", "0"}});
  char tiny[8];
  int32_t count = 0;
  EXPECT_EQ(QTX_CheckSettings(radar, tiny, sizeof tiny, &count), 2);
  EXPECT_EQ(count, 1);
}

// The window stands where it is asked to, within half a medium step, whatever came before.
TEST_F(Geometry, CalibrationPutsTheWindowWhereTheSettingsSay) {
  open();
  for (const char *before : {"", "power cycle", "silent loss of power", "loaded record"}) {
    if (*before == 's') QTXSim_PowerCycle(0);
    if (*before == 'p') {
      ASSERT_EQ(QTX_PowerOffRadar(radar) || QTX_PowerOnRadar(radar), 0);
    }
    if (*before == 'l') {
      ASSERT_EQ(QTX_TimingMeasurementLoadDataFromFlash(radar, 5), 0);
    }
    ASSERT_EQ(QTX_Calibrate(radar, 5), 0) << before << description(radar);
    EXPECT_EQ(findings(), "") << before;
    double delay = 0, window = 0, asked = 0;
    EXPECT_EQ(QTX_VarGetValueAsFloat_ByName(radar, "FrameOffsetDelayTime_LiveRead", &delay), 0);
    EXPECT_EQ(QTX_VarGetValueAsFloat_ByName(radar, "SampleDelay", &asked), 0);
    EXPECT_NEAR(delay, asked, 25e-12) << before;
    EXPECT_EQ(QTXSim_TrueWindowStart(0, &window), 0);
    EXPECT_NEAR(window, asked, 60e-12) << before;
  }
  const auto kept = settings(radar);
  writes_left = 2000;
  EXPECT_EQ(QTX_Calibrate(radar, -1), 1537);
  EXPECT_EQ(settings(radar), kept);
  EXPECT_EQ(findings(), "");
  QTXSim_SetReferenceClock(0, 0);
  EXPECT_NE(QTX_Calibrate(radar, -1), 0);
  EXPECT_EQ(settings(radar), kept);
}

}  // namespace
}  // namespace pulsekit::test
