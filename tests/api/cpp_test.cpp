// What the C++ header adds to the C functions: conversions, ownership, ranges.
#include <array>

#include "host.h"
#include "pulsekit3.hpp"

namespace pulsekit::test {
namespace {

struct CppHeader : testing::Test {
  CppHeader() {
    QTXSim_Reset();
    QTXSim_SetRecording(0);
    QTXSim_AddRadar("FT0001AB", "Radar", QTXSIM_FT232H, "QTX-K245", "QTX3701");
    FTx232H_SetD2XX(QTXSim_D2XX());
  }
  ~CppHeader() override { FTx232H_SetD2XX(nullptr); }

  template <typename Call>
  static int32_t codeOf(Call call) {
    try {
      call();
    } catch (const pulsekit3::Error &error) {
      return error.code();
    }
    return 0;
  }
};

TEST_F(CppHeader, NumbersOfEveryKindSuitOrAreRefused) {
  pulsekit3::Radar radar = pulsekit3::openRadar("FT0001AB");
  const auto set = [&](const char *name, auto value) { return radar[name].trySet(value); };
  const int32_t codes[] = {set("PulsesPerStep", 2.5),      set("PulsesPerStep", std::nan("")),
                           set("PulsesPerStep", 1e300),    set("PulsesPerStep", "4O"),
                           set("SPDFT", ~uint64_t{0}),     set("PulsesPerStep", int64_t{-1} << 40),
                           set("SampleDelay", 1e-9f),      set("SampleDelay", 1),
                           set("SPDFT", int64_t{1} << 62), set("SPIClockFrequency", "nix"),
                           set("MClkEnable", true),        set("SampleDelay", pulsekit3::automatic)};
  const int32_t bad = 1286, wanted[] = {bad, bad, bad, bad, bad, bad, 0, 0, 0, bad, 0, 0};
  EXPECT_TRUE(std::equal(std::begin(codes), std::end(codes), wanted)) << testing::PrintToString(codes);
  EXPECT_EQ(radar["SPDFT"].as<int64_t>(), int64_t{1} << 62);
  EXPECT_EQ(codeOf([&] { radar["SPDFT"].as<int32_t>(); }), bad);
  EXPECT_EQ(radar.set({{"SPIClockFrequency", "30MHz"}, {"SampleDelay", 2e-9}}).back().before, 1);
  EXPECT_EQ(radar["PulsesPerStep"], 20);
}

TEST_F(CppHeader, WhatOutlivesTheRadarAnswersCodes) {
  auto radar = std::make_unique<pulsekit3::Radar>(pulsekit3::openRadar());
  pulsekit3::Radar moved = std::move(*radar);
  EXPECT_EQ(codeOf([&] { radar->samplers(); }), 1025);
  const pulsekit3::Variable pulses = moved["PulsesPerStep"];
  const pulsekit3::Canceller canceller = moved.canceller();
  auto first = moved.stream(), other = std::move(first);
  EXPECT_EQ(codeOf([&] { first.next(); }), 1539);
  EXPECT_GT(other.next()[0], 0);
  *radar = std::move(moved);
  radar.reset();
  canceller.cancel();
  EXPECT_EQ(codeOf([&] { pulses.value(); }), 1283);
  EXPECT_NE(codeOf([&] {
              for (int i = 0; i < 100; ++i) other.next();
            }),
            0);
  EXPECT_EQ(QTXSim_Calls("OpenEx"), QTXSim_Calls("Close"));
}

TEST_F(CppHeader, StreamsGrowStopAndShowGaps) {
  pulsekit3::Radar radar = pulsekit3::openRadar();
  QTXSim_SetTime(QTXSIM_TIME_HOST);  // the bridge goes on while the host is away
  std::array<float, 256> levels{};
  radar.frame(levels);
  EXPECT_NEAR(levels[255], 50, 1);
  uint64_t frames = 0, lost = 0, entries = 0;
  auto stream = radar.stream<uint32_t>(200, 1);
  for (const auto &frame : stream) {
    lost += frame.lost();
    entries = std::max<uint64_t>(entries, frame.size());
    EXPECT_EQ(frame.number(), frames + lost);
    if (++frames == 100) stream.stop();
    if (frames == 20) radar["FrameStitch"] = 8;
    for (const uint64_t now = QTX_timestamp_us(); frames < 4 && QTX_timestamp_us() < now + 30'000;) continue;
  }
  EXPECT_EQ(frames, 100u);
  EXPECT_EQ(entries, 2048u);
  EXPECT_GT(lost, 0u);
}

TEST_F(CppHeader, ErrorsTellTextAndTrace) {
  pulsekit3::Radar radar = pulsekit3::openRadar();
  try {
    radar["Pulses"].set(1);
    FAIL();
  } catch (const pulsekit3::Error &error) {
    EXPECT_STREQ(error.what(), "ERROR 0x503: Unknown variable - Pulses");
    EXPECT_EQ(error.trace().find("   at: "), 0u) << error.trace();
  }
  EXPECT_NE(radar.advice().find("PulsesPerStep"), std::string::npos);
  EXPECT_EQ(codeOf([] { pulsekit3::openRadar("other"); }), 260);
  radar["DACStepFine"] = 0;
  const auto findings = radar.checkSettings();
  ASSERT_FALSE(findings.empty());
  EXPECT_EQ(findings[0].name, "DACStepFine");
  EXPECT_FALSE(findings[0].remedy.empty());
}

}  // namespace
}  // namespace pulsekit::test
