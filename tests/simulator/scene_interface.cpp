// Scenes and chip truth through the C functions.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>

#include "bench.h"

namespace {

class SceneInterface : public simtest::Bench {
 protected:
  void SetUp() override {
    Bench::SetUp();
    plugInAndPowerUp("QTX-K245", "QTX3701");
  }

  double level(uint32_t sampler) {
    double levels[256];
    EXPECT_EQ(QTXSim_TrueLevels(device, levels, 256), 0);
    return levels[sampler];
  }

  // The counters of one default sweep, as they come over the bus.
  std::vector<double> sweep() {
    const int chip = 3;
    frame(chip, {0x80 | 17, 0}, 0);
    frame(chip, {0x80 | 93, 0}, 0);
    EXPECT_EQ(frame(chip, {0x47, 2}, 2)[0], 1);
    QTXSim_Advance(10'000'000);
    EXPECT_EQ(frame(chip, {0x47, 2}, 2)[0], 0);
    frame(chip, {0x80 | 15, 0}, 0);
    const simtest::Bytes image = frame(chip, {0x20, 0x7F}, 1024);
    std::vector<double> counts;
    for (size_t k = 0; k < 1024; k += 4)
      counts.push_back(image[k] + 0x100 * image[k + 1] + 0x10000 * image[k + 2] + 0x1000000 * image[k + 3]);
    return counts;
  }
};

TEST_F(SceneInterface, FramesShowWhatTheSceneSends) {
  const QTXSim_Reflector reflectors[] = {{0.4, 60, QTXSIM_STILL, 0, 0, 0}, {0.7, 100, QTXSIM_SPEED, 1e-4, 0, 0}};
  ASSERT_EQ(QTXSim_SetScene(device, reflectors, 2, 300, 10), 0);
  const std::vector<double> counts = sweep();
  double levels[256];
  ASSERT_EQ(QTXSim_TrueLevels(device, levels, 256), 0);
  double highest = 0;
  for (size_t k = 0; k < 256; ++k) {
    EXPECT_NEAR(counts[k] * 8 / 200, levels[k], 6) << "sampler " << k;
    highest = std::max(highest, levels[k]);
  }
  EXPECT_GT(highest, 4096 + 250);
}

TEST_F(SceneInterface, RefusesWhatNoSceneHolds) {
  const double before = level(0);
  const QTXSim_Reflector good = {1, 1, QTXSIM_STILL, 0, 0, 0};
  QTXSim_Reflector backwards = good, dancing = good;
  backwards.range = -1;
  dancing.motion = 3;
  EXPECT_EQ(QTXSim_SetScene(device, &backwards, 1, 0, 0), -1);
  EXPECT_EQ(QTXSim_SetScene(device, &dancing, 1, 0, 0), -1);
  EXPECT_EQ(QTXSim_SetScene(device, nullptr, 1, 0, 0), -1);
  EXPECT_EQ(QTXSim_SetScene(device, &good, 1, NAN, 0), -1);
  EXPECT_EQ(QTXSim_SetScene(device, &good, 1, 0, -1), -1);
  EXPECT_EQ(QTXSim_SetScene(device + 1, &good, 1, 0, 0), -1);
  EXPECT_EQ(level(0), before);
  EXPECT_EQ(QTXSim_SetScene(device, nullptr, 0, 0, 0), 0);
  EXPECT_EQ(level(0), 4096);
}

TEST_F(SceneInterface, LoadsAFileAndSaysWhatIsWrongWithIt) {
  const std::string path = testing::TempDir() + "pulsekit_scene.toml";
  std::ofstream(path) << "direct_coupling = 700.0\n";
  char error[64] = "";
  EXPECT_EQ(QTXSim_LoadScene(device, path.c_str(), error, sizeof error), 0);
  EXPECT_EQ(level(0), 4096 + 700);
  EXPECT_STREQ(error, "");

  std::ofstream(path) << "direct_coupling = 1.0\nnoise = true\n";
  EXPECT_EQ(QTXSim_LoadScene(device, path.c_str(), nullptr, 0), -1);
  char wide[512];
  EXPECT_EQ(QTXSim_LoadScene(device, path.c_str(), wide, sizeof wide), -1);
  EXPECT_EQ(std::string(wide), path + ": line 2: 'noise' must be a number");
  EXPECT_EQ(level(0), 4096 + 700);
  std::remove(path.c_str());
  EXPECT_EQ(QTXSim_LoadScene(device, "none", error, 5), -1);
  EXPECT_STREQ(error, "none");
  EXPECT_EQ(QTXSim_LoadScene(device, nullptr, error, sizeof error), -1);
}

TEST_F(SceneInterface, TruthFollowsTheSerialNumber) {
  const int32_t other = QTXSim_AddRadar("FT0002", "", QTXSIM_FT232H, "QTX-K245", "QTX3701");
  double first = 0, second = 0;
  EXPECT_EQ(QTXSim_TrueSamplesPerSecond(device, &first), 0);
  EXPECT_EQ(QTXSim_TrueSamplesPerSecond(other, &second), 0);
  EXPECT_NE(first, second);
  EXPECT_NEAR(first, 36e9, 0.04 * 36e9);

  const double nominal[] = {1.25e-9, 42e-12, 1.5e-12};
  const uint32_t elements[] = {63, 63, 64};
  for (int32_t grain = QTXSIM_COARSE; grain <= QTXSIM_FINE; ++grain) {
    double seconds = 0;
    EXPECT_EQ(QTXSim_TrueDelayElement(device, grain, elements[grain] - 1, &seconds), 0);
    EXPECT_NEAR(seconds, nominal[grain], 0.2 * nominal[grain]);
    EXPECT_EQ(QTXSim_TrueDelayElement(device, grain, elements[grain], &seconds), -1);
    EXPECT_EQ(QTXSim_TrueDelayElement(device, grain, 0, nullptr), -1);
  }
  EXPECT_EQ(QTXSim_TrueDelayElement(device, 3, 0, &first), -1);

  frame(3, {0x80 | 0x6B, 1, 1}, 0);
  QTXSim_Advance(1000);
  double start = 0, element = 0;
  EXPECT_EQ(QTXSim_TrueWindowStart(device, &start), 0);
  EXPECT_EQ(QTXSim_TrueDelayElement(device, QTXSIM_COARSE, 0, &element), 0);
  EXPECT_EQ(start, element);
}

TEST_F(SceneInterface, WithoutAClockNothingSweeps) {
  ASSERT_EQ(QTXSim_SetReferenceClock(device, 0), 0);
  frame(3, {0x80 | 93, 0}, 0);
  EXPECT_EQ(frame(3, {0x47, 2}, 2)[0], 0);
  EXPECT_EQ(QTXSim_SetReferenceClock(device, -1), -1);
  EXPECT_EQ(QTXSim_SetReferenceClock(device, INFINITY), -1);
}

}  // namespace
