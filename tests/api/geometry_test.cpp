// What settings mean for a frame, which can't give a good one, and what a calibration leaves behind.
#include "Pulsekit3_settings.h"
#include "bench.h"

namespace pulsekit::test {
namespace {

class Geometry : public Bench {
 protected:
  Geometry() { cancelAtWrites(handle); }
  std::string geometry() {
    QTX_FrameGeometry g{};
    g.size = sizeof g;
    const int32_t code = QTX_GetFrameGeometry(handle, &g);
    frame_time = g.frame_time;
    return format(
        "%d: %u samplers, range %.10g + %.10g m, time %.10g + %.10g s, sweep %.10g s, pulses %.10g Hz, to %.10g m",
        code, g.samplers, g.first_range, g.range_step, g.first_time, g.time_step, g.sweep_time, g.pulse_rate,
        g.unambiguous_range);
  }
  std::string findings(int32_t size = 2000) {
    std::vector<char> text(2000);
    int32_t count = -1;
    const int32_t code = QTX_CheckSettings(handle, text.data(), size, &count);
    return format("%d, %d: ", code, count) + text.data();
  }
  // s: what a single capture takes on the simulated bus.
  double captured() {
    std::vector<uint32_t> frame(4096);
    EXPECT_EQ(QTX_GetFrameRaw(handle, frame.data(), frame.size()), 0);
    const uint64_t begin = QTXSim_Nanoseconds();
    EXPECT_EQ(QTX_GetFrameRaw(handle, frame.data(), frame.size()), 0);
    return static_cast<double>(QTXSim_Nanoseconds() - begin) * 1e-9;
  }
  double frame_time = 0;
};

TEST_F(Geometry, FollowsFromTheSettings) {
  DO(open(), geometry(), set("FrameStitch=4 Downsampling=1 PRFDivide=7 MClkDiv=1 Iterations=1"), geometry(),
     set("SamplesPerSecond=0"), geometry());
  for (const char *changed : {"", "SPIClockFrequency=30MHz", "PipeLining=1", "FrameStitch=4", "PulsesPerStep=200"}) {
    open();
    EXPECT_EQ(set(changed), 0);
    const double took = captured();
    geometry();
    EXPECT_NEAR(frame_time, took, took / 10) << changed;
  }
  QTX_CloseRadar(handle);
  QTX_FrameGeometry empty{};
  int32_t count = 7;
  DO(geometry(), QTX_GetFrameGeometry(nullptr, &empty), QTX_GetFrameGeometry(handle, nullptr),
     QTX_GetFrameGeometry(handle, &empty), QTX_CheckSettings(handle, nullptr, 0, &count),
     QTX_CheckSettings(handle, nullptr, 10, &count), QTX_Calibrate(nullptr, -1), QTX_Calibrate(handle, -1),
     QTX_Calibrate(handle, -2));
}

TEST_F(Geometry, NamesSettingsThatGiveNoGoodFrame) {
  for (const char *changed :
       {"", "MClkEnable=0", "MClkSource=1", "ClockFrequency=0", "DACMin=8000 DACMax=7999", "DACStepFine=0",
        "Iterations=0", "PulsesPerStep=0", "DACOverride=1", "SignalOverride=1", "BytesPerCounter=2",
        "BytesPerCounter=2 CounterMSb=15", "CounterMSb=0 CounterLSb=8", "SamplesPerSecond=0", "DelayMediumTune=6e-11",
        "OffsetDistanceFromReference=1", "RadarModulePower=PowerOff"}) {
    open();
    DO_FOR(changed, set(changed), findings());
  }
  DO(findings(8));
}

// The window stands where it is asked to, within half a medium step, whatever came before.
TEST_F(Geometry, CalibrationPutsTheWindowWhereTheSettingsSay) {
  ASSERT_EQ(open(), 0);
  const std::function<int32_t()> befores[] = {
      [] { return 0; }, [&] { return QTX_PowerOffRadar(handle) + QTX_PowerOnRadar(handle); },
      [] { return QTXSim_PowerCycle(0); }, [&] { return QTX_TimingMeasurementLoadDataFromFlash(handle, 5); }};
  for (const auto &before : befores) {
    ASSERT_EQ(before(), 0);
    ASSERT_EQ(QTX_Calibrate(handle, 5), 0) << description();
    EXPECT_EQ(findings(), "0, 0: ");
    double delay = 0, window = 0, asked = 0;
    EXPECT_EQ(QTX_VarGetValueAsFloat_ByName(handle, "FrameOffsetDelayTime_LiveRead", &delay), 0);
    EXPECT_EQ(QTX_VarGetValueAsFloat_ByName(handle, "SampleDelay", &asked), 0);
    EXPECT_EQ(QTXSim_TrueWindowStart(0, &window), 0);
    EXPECT_NEAR(delay, asked, 25e-12);
    EXPECT_NEAR(window, asked, 60e-12);
  }
  const auto kept = settings(handle);
  EXPECT_EQ(QTX_Calibrate(handle, 4096), 1);
  writes_left = 2000;
  EXPECT_EQ(QTX_Calibrate(handle, -1), 1537);
  EXPECT_EQ(settings(handle), kept);
  EXPECT_EQ(findings(), "0, 0: ");
  double before = 0, now = 0;
  QTXSim_TrueWindowStart(0, &before);
  QTXSim_FailCall("Read", 9000, 1, 4);
  EXPECT_EQ(QTX_Calibrate(handle, -1), 264) << "a poll that failed";
  QTXSim_TrueWindowStart(0, &now);
  EXPECT_EQ(now, before);
  QTXSim_SetReferenceClock(0, 0);
  EXPECT_NE(QTX_Calibrate(handle, -1), 0);
  EXPECT_EQ(settings(handle), kept);
}

}  // namespace
}  // namespace pulsekit::test
