// Scenes as text.
#include <gtest/gtest.h>

#include "world/Scene.h"

using namespace pulsekit::simulator;

namespace {

TEST(SceneFile, HoldsNoiseCouplingAndReflectors) {
  std::string error;
  const auto scene = parseScene(R"(
    noise = 12
    direct_coupling = -9007199254740995
    [[reflector]]
    range = 0.8
    strength = 200
    [[reflector]]
    range = 1.5
    strength = 90.0
    motion = "speed"
    speed = -0.5
    [[reflector]]
    range = 1.1
    strength = 40
    motion = "breathing"
    amplitude = 0.004
    rate = 0.25
  )",
                                "room", error);
  ASSERT_TRUE(scene) << error;
  EXPECT_EQ(scene->noise, 12);
  EXPECT_EQ(scene->directCoupling, -9007199254740996);
  ASSERT_EQ(scene->reflectors.size(), 3u);
  EXPECT_EQ(scene->reflectors[0].strength, 200);
  EXPECT_DOUBLE_EQ(scene->reflectors[0].rangeAt(10), 0.8);
  EXPECT_DOUBLE_EQ(scene->reflectors[1].rangeAt(2), 0.5);
  EXPECT_DOUBLE_EQ(scene->reflectors[2].rangeAt(1), 1.104);
}

TEST(SceneFile, AnEmptyOneIsAnEmptyRoom) {
  std::string error;
  const auto scene = parseScene("", "room", error);
  ASSERT_TRUE(scene) << error;
  EXPECT_TRUE(scene->reflectors.empty());
  EXPECT_EQ(scene->noise, 0);
}

TEST(SceneFile, FaultsNameTheirPlace) {
  struct Row {
    const char *text, *error;
  };
  const Row rows[] = {
      {"noise = -1", "room: noise must be 0 or more"},
      {"noise = nan", "room: noise must be 0 or more"},
      {"\nnoise = \"loud\"", "room: line 2: 'noise' must be a number"},
      {"\n\nnoize = 1", "room: line 3: unknown key 'noize'"},
      {"reflector = 1", "room: line 1: 'reflector' must be written as [[reflector]]"},
      {"reflector = [1]", "room: line 1: 'reflector' must be written as [[reflector]]"},
      {"[[reflector]]\nstrength = 1", "room: line 1: 'range' is missing"},
      {"[[reflector]]\nrange = -1\nstrength = 1", "room: range must be 0 or more"},
      {"[[reflector]]\nrange = 1\nstrength = 1\nspeed = 1", "room: line 4: unknown key 'speed'"},
      {"[[reflector]]\nrange = 1\nstrength = 1\nmotion = \"speed\"", "room: line 1: 'speed' is missing"},
      {"[[reflector]]\nrange = 1\nstrength = 1\nmotion = \"dance\"",
       "room: line 4: 'motion' must be \"still\", \"speed\" or \"breathing\""},
      {"noise = 1 # \xC3\xA9\n\"'\" = 1\n\xC3\xA9 = 1",
       "room: line 3: only comments and texts may hold characters beyond ASCII"},
      {"a = \"\"\"\xC3\xA9\"\"\"\"\n#\nb = '\\'\xC3\xA9",
       "room: line 3: only comments and texts may hold characters beyond ASCII"},
      {"'\xC3\xA9' = \"\\\"\xC3\xA9\"", "room: line 1: unknown key '\xC3\xA9'"},
  };
  for (const Row &row : rows) {
    std::string error;
    EXPECT_FALSE(parseScene(row.text, "room", error)) << row.text;
    EXPECT_EQ(error, row.error);
  }
  std::string error;
  EXPECT_FALSE(parseScene("noise = ", "room", error));
  EXPECT_EQ(error.rfind("room: line 1: ", 0), 0u) << error;
  EXPECT_FALSE(readScene("no such file", error));
  EXPECT_EQ(error, "no such file: cannot be read");
  EXPECT_FALSE(readScene(".", error));
  EXPECT_EQ(error, ".: cannot be read");
}

}  // namespace
