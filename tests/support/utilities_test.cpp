#include <gtest/gtest.h>

#include <array>
#include <clocale>
#include <cmath>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "Pulsekit3.h"
#include "platform/platform.h"
#include "support/numbers.h"

using namespace pulsekit;

TEST(Itoa, BasesSignsAndTheLowestNumber) {
  struct Case {
    int64_t value;
    int32_t base;
    const char *text;
  };
  const Case cases[] = {
      {0, 10, "0"},
      {-255, 16, "-ff"},
      {INT32_MIN, 10, "-2147483648"},
      {INT32_MIN, 2, "-10000000000000000000000000000000"},
      {35, 36, "z"},
      {-35, 36, "-z"},
      {1, 1, ""},
      {1, 37, ""},
      {1, 0, ""},
      {1, -10, ""},
      {0x123456789, 16, "23456789"},  // only the low 32 bits count
      {0xffffffff, 10, "-1"},
  };
  for (const Case &c : cases) {
    char text[40] = "not written";
    EXPECT_EQ(QTX_itoa(c.value, text, c.base), text);
    EXPECT_STREQ(text, c.text) << c.value << " in base " << c.base;
  }
  EXPECT_EQ(QTX_itoa(1, nullptr, 10), nullptr);
}

TEST(Append, NumbersAndCharacters) {
  char text[80] = "0x";
  EXPECT_STREQ(QTX_intcat(text, 1283, 16), "0x503");
  EXPECT_STREQ(QTX_chrcat(text, '!'), "0x503!");
  EXPECT_STREQ(QTX_intcat(text, 0x80000000u, 2), "0x503!-10000000000000000000000000000000");
  EXPECT_STREQ(QTX_intcat(text, 5, 99), text);
}

TEST(Trim, LeadingTabsAndBlanksOnly) {
  char text[20];
  EXPECT_STREQ(QTX_strltrim(text, "\t  abc "), "abc ");
  EXPECT_STREQ(QTX_strltrim(text, "\n abc"), "\n abc");
  EXPECT_STREQ(QTX_strltrim(text, " \t "), "");
  std::strcpy(text, "   in place");
  EXPECT_STREQ(QTX_strltrim(text, text), "in place");
}

TEST(Split, CountsAndLimits) {
  struct Case {
    const char *text;
    int32_t max_fields, max_length, count;
    std::vector<std::string> fields;
  };
  const Case cases[] = {
      {"a,b,c", 3, 8, 3, {"a", "b", "c"}},
      {"a,", 3, 8, 2, {"a", ""}},
      {",,", 3, 8, 3, {"", "", ""}},
      {"ab", 3, 8, 1, {"ab"}},
      {"a", 3, 8, 0, {"a"}},  // kept: a text of one character has no fields
      {",", 3, 8, 1, {"", ""}},
      {"", 3, 8, 0, {""}},
      {"a,b,c", 2, 8, 0, {}},
      {"abc", 3, 3, 0, {}},
      {"abc", 3, 4, 1, {"abc"}},
      {"abc", 0, 4, 0, {}},
      {"abc", 3, 0, 0, {}},
  };
  for (const Case &c : cases) {
    std::array<std::array<char, 9>, 3> buffers;
    for (auto &buffer : buffers) buffer.fill('~');
    char *fields[] = {buffers[0].data(), buffers[1].data(), buffers[2].data()};
    EXPECT_EQ(QTX_strsplit(c.text, fields, c.max_fields, c.max_length, ','), c.count) << c.text;
    for (size_t i = 0; i < c.fields.size(); ++i) EXPECT_EQ(c.fields[i], fields[i]) << c.text;
    for (auto &buffer : buffers) EXPECT_EQ(buffer[8], '~') << c.text;
  }
  EXPECT_EQ(QTX_strsplit(nullptr, nullptr, 3, 3, ','), 0);
}

TEST(Clock, RunsForwardsAndSleepsAtLeastAsLongAsAsked) {
  const uint64_t start = QTX_timestamp_us();
  EXPECT_EQ(QTX_sleep_ms(2), 0);
  EXPECT_GE(QTX_timestamp_us() - start, 2000u);
}

TEST(Timestamp, HasTheFormOfTheFrameLog) {
  std::array<char, 25> text;
  text.fill('~');
  EXPECT_EQ(QTX_timestamp_string(text.data(), 0), text.data());
  EXPECT_EQ(text[24], '~');
  int fields[7];
  char end = 0;
  ASSERT_EQ(std::strlen(text.data()), 23u);
  ASSERT_EQ(std::sscanf(text.data(), "%4d-%2d-%2dT%2d:%2d:%2d.%3d%c", &fields[0], &fields[1], &fields[2], &fields[3],
                        &fields[4], &fields[5], &fields[6], &end),
            7);
  EXPECT_GE(fields[0], 2024);
  EXPECT_LE(fields[1], 12);
  EXPECT_LE(fields[6], 999);
  EXPECT_EQ(QTX_timestamp_string(nullptr, 24), nullptr);
}

TEST(Lock, IsRecursiveAndMayBeLeftWithoutBeingHeld) {
  platform::Lock lock;
  lock.leave();
  lock.enter();
  lock.enter();
  bool entered = false;
  std::thread other([&] {
    lock.leave();  // not the owner: must not free it
    lock.enter();
    entered = true;
    lock.leave();
  });
  QTX_sleep_ms(5);
  EXPECT_FALSE(entered);
  lock.leave();
  lock.leave();
  other.join();
  EXPECT_TRUE(entered);
}

TEST(Numbers, IntegersReadAsLenientlyAsAtoiButInSixtyFourBits) {
  EXPECT_EQ(parseInteger("  42x"), 42u);
  EXPECT_EQ(parseInteger("+7"), 7u);
  EXPECT_EQ(parseInteger("-1"), UINT64_MAX);
  EXPECT_EQ(parseInteger("Auto"), 0u);
  EXPECT_EQ(parseInteger(""), 0u);
  EXPECT_EQ(parseInteger("9223372036854775807"), static_cast<uint64_t>(INT64_MAX));
  EXPECT_EQ(parseInteger("18446744073709551615"), UINT64_MAX);
  EXPECT_EQ(parseInteger("99999999999999999999999"), UINT64_MAX);
  EXPECT_EQ(parseInteger(" -18446744073709551615"), static_cast<uint64_t>(INT64_MIN));
}

TEST(Numbers, DoublesReadAsLenientlyAsAtof) {
  const char *const texts[] = {"1.5",   "-1.5e3", "+2",     "  7e-1x", "1.500000e+009", "",
                               "x",     "-",      "1e",     "0x1.8p1", "inf",           "-inf",
                               "1e999", "-1e999", "1e-999", "0x-5",    "-0x",           "0xinf",
                               ".5",    "1e-310", "5.",     "-abc",    "0.1e999"};
  for (const char *text : texts) EXPECT_EQ(doubleToBits(parseDouble(text)), doubleToBits(std::atof(text))) << text;
  EXPECT_TRUE(std::isnan(parseDouble("nan")));
  EXPECT_EQ(parseDouble("+-5"), 0.0);
}

TEST(Numbers, PrintAsPrintfDoes) {
  for (double value : {0.0, 1.5e9, -2.5e-300, 99.915, 1e300, 3.0 / 7, 4.2e-11}) {
    char text[400];
    std::snprintf(text, sizeof text, "%e", value);
    EXPECT_EQ(formatExponent(value), text);
    for (int precision : {0, 3, 17}) {
      std::snprintf(text, sizeof text, "%.*f", precision, value);
      EXPECT_EQ(formatFixed(value, precision), text);
    }
  }
  EXPECT_EQ(formatFixed(1.5, -3), "2");
  EXPECT_EQ(formatFixed(0.5, 2000).size(), 1002u);
}
