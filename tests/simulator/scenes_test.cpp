// Scenes as text and through the C functions, and the truth of a chip that looks at one.
#include <cmath>

#include "bench.h"
#include "world/Scene.h"

namespace simtest {
namespace {

class Scenes : public Bench {
 protected:
  Scenes() { restart("QTX-K245", "QTX3701"); }

  static std::string parsed(const std::string &text) {
    std::string error;
    const auto scene = pulsekit::simulator::parseScene(text, "room", error);
    if (!scene) return error;
    std::string shown = format("noise %g coupling %.0f", scene->noise, scene->directCoupling);
    for (const auto &r : scene->reflectors)
      shown += format(" [%g at %g, %g, %g, %g]", r.strength, r.rangeAt(0), r.rangeAt(1), r.rangeAt(2), r.rangeAt(10));
    return shown;
  }
  std::vector<double> levels() {
    std::vector<double> values(256);
    EXPECT_EQ(QTXSim_TrueLevels(device, values.data(), 256), 0);
    return values;
  }
  // The counters of one default sweep, as they come over the bus.
  std::vector<double> sweep() {
    for (uint8_t action : Bytes{17, 93}) frame(3, {uint8_t(0x80 | action), 0}, 0);
    EXPECT_EQ(frame(3, {0x47, 2}, 2)[0], 1);
    QTXSim_Advance(10'000'000);
    EXPECT_EQ(frame(3, {0x47, 2}, 2)[0], 0);
    frame(3, {0x80 | 15, 0}, 0);
    const Bytes image = frame(3, {0x20, 0x7F}, 1024);
    std::vector<double> counts;
    for (size_t k = 0; k < 1024; k += 4)
      counts.push_back(image[k] + 0x100 * image[k + 1] + 0x10000 * image[k + 2] + 0x1000000 * image[k + 3]);
    return counts;
  }
};

TEST_F(Scenes, AsTexts) {
  const std::string still = "[[reflector]]\nrange = 1\nstrength = 90.0\n";
  for (const std::string &text :
       {std::string(),
        std::string("noise = 12\ndirect_coupling = -9007199254740995\n[[reflector]]\nrange = 0.8\n"
                    "strength = 200"),
        still + "motion = \"speed\"\nspeed = -0.5\n" + still + "motion = \"breathing\"\namplitude = 0.004\nrate = 0.25",
        still + "motion = \"still\"", std::string("noise = -1"), std::string("noise = nan"),
        std::string("\nnoise = \"loud\""), std::string("\n\nnoize = 1"), std::string("reflector = 1"),
        std::string("reflector = [1]"), std::string("[[reflector]]\nstrength = 1"),
        std::string("[[reflector]]\nrange = -1\nstrength = 1"), still + "speed = 1", still + "motion = \"speed\"",
        still + "motion = \"dance\"", std::string("noise = 1 # \xC3\xA9\n\"'\" = 1\n\xC3\xA9 = 1"),
        std::string("a = \"\"\"\xC3\xA9\"\"\"\"\n#\nb = '\\'\xC3\xA9"), std::string("'\xC3\xA9' = \"\\\"\xC3\xA9\"")})
    DO_FOR(show(text), parsed(text));
  EXPECT_EQ(parsed("noise = ").rfind("room: line 1: ", 0), 0u);
}

TEST_F(Scenes, AsFilesAndStructures) {
  const pulsekit::test::Folder folder;
  char error[64] = "";
  const auto load = [&](const std::string &name, uint32_t size = sizeof error) {
    const int32_t code = QTXSim_LoadScene(device, name.c_str(), error, size);
    const std::string text = error;
    return std::to_string(code) + " " + text.substr(text.rfind('/') + 1);
  };
  const auto file = [&](const std::string &text) { return pulsekit::test::write("scene.toml", text), "scene.toml"; };
  DO(load(file("direct_coupling = 700.0\n")), levels()[0], load(file("direct_coupling = 1.0\nnoise = true\n")),
     QTXSim_LoadScene(device, "scene.toml", nullptr, 0), levels()[0], load("none"), load("none", 5), load("."),
     QTXSim_LoadScene(device, nullptr, error, 9), std::remove("scene.toml"));
  const double nan = std::nan("");
  const auto set = [&](const QTXSim_Reflector &reflector, double coupling = 0, double noise = 0, int32_t on = 0) {
    return QTXSim_SetScene(on, &reflector, 1, coupling, noise);
  };
  DO(set({-1, 1, QTXSIM_STILL, 0, 0, 0}), set({1, 1, 3, 0, 0, 0}), set({1, 1, QTXSIM_STILL, 0, 0, 0}, nan),
     set({1, 1, QTXSIM_STILL, 0, 0, 0}, 0, -1), set({1, 1, QTXSIM_STILL, 0, 0, 0}, 0, 0, 1),
     QTXSim_SetScene(device, nullptr, 1, 0, 0), levels()[0], QTXSim_SetScene(device, nullptr, 0, 0, 0), levels()[0]);
}

TEST_F(Scenes, FramesShowWhatTheSceneSends) {
  const QTXSim_Reflector reflectors[] = {{0.4, 60, QTXSIM_STILL, 0, 0, 0}, {0.7, 100, QTXSIM_SPEED, 1e-4, 0, 0}};
  ASSERT_EQ(QTXSim_SetScene(device, reflectors, 2, 300, 10), 0);
  const std::vector<double> counts = sweep(), truth = levels();
  for (size_t k = 0; k < 256; ++k) EXPECT_NEAR(counts[k] * 8 / 200, truth[k], 6) << "sampler " << k;
  EXPECT_GT(*std::max_element(truth.begin(), truth.end()), 4096 + 250);
  const double infinite = HUGE_VAL;
  say("without a clock nothing sweeps");
  DO(QTXSim_SetReferenceClock(device, 0), frame(3, {0x80 | 93, 0}, 0), frame(3, {0x47, 2}, 2),
     QTXSim_SetReferenceClock(device, -1), QTXSim_SetReferenceClock(device, infinite));
}

TEST_F(Scenes, TruthFollowsTheSerialNumber) {
  const int32_t other = QTXSim_AddRadar("FT0002", "", QTXSIM_FT232H, "QTX-K245", "QTX3701");
  double first = 0, second = 0;
  DO(QTXSim_TrueSamplesPerSecond(device, &first), QTXSim_TrueSamplesPerSecond(other, &second), first, second);
  for (int32_t grain = QTXSIM_COARSE; grain <= QTXSIM_FINE + 1; ++grain) {
    for (uint32_t element : {62, 63, 64}) DO_FOR(grain, QTXSim_TrueDelayElement(device, grain, element, &first), first);
    DO(QTXSim_TrueDelayElement(device, grain, 0, nullptr));
  }
  frame(3, {0x80 | 0x6B, 1, 1}, 0);
  QTXSim_Advance(1000);
  DO(QTXSim_TrueWindowStart(device, &first), QTXSim_TrueDelayElement(device, QTXSIM_COARSE, 0, &second),
     first == second);
}

}  // namespace
}  // namespace simtest
