// Settings in groups reach what single settings reach, with few transfers; what fails changes nothing.
#include <random>

#include "Pulsekit3_settings.h"
#include "bench.h"

namespace pulsekit::test {
namespace {

using Texts = std::vector<std::pair<std::string, std::string>>;

class SettingsGroup : public Bench {
 protected:
  SettingsGroup() {
    cancelAtWrites(handle);
    add("S");
    EXPECT_EQ(open() + QTX_OpenRadar(single, (device("S") + "!QTX-K245!QTX3701").c_str()), 0) << description();
  }

  int32_t setMany(const Texts &texts) {
    std::vector<const char *> names, values;
    for (const auto &[name, text] : texts) {
      names.push_back(name.c_str());
      values.push_back(text.c_str());
    }
    changes.resize(200);
    uint32_t count = 200;
    const int32_t code = QTX_VarsSetMany(handle, names.data(), values.data(), static_cast<uint32_t>(texts.size()),
                                         changes.data(), &count);
    changes.resize(code == 0 ? count : 0);
    return code;
  }

  static std::map<int, uint64_t> registers(int32_t number) {
    std::map<int, uint64_t> all;
    for (int address = 0; address < 128; ++address) {
      QTXSim_ChipRegister(number, static_cast<uint8_t>(address), &all[address]);
    }
    return all;
  }

  // A value for every setting: a random one in its range, or automatic.
  Texts randomTexts(std::mt19937_64 &random, size_t count) {
    const std::vector<std::string> names = variables(handle);
    Texts texts;
    while (texts.size() < count) {
      const std::string &name = names[random() % names.size()];
      uint64_t min = 0, max = 0;
      uint32_t type = 0, writable = 0, automatic = 0;
      EXPECT_EQ(QTX_VarGetType_ByName(handle, name.c_str(), &type), 0);
      EXPECT_EQ(QTX_VarGetIntProperties_ByName(handle, name.c_str(), &min, &max, &writable, &automatic), 0);
      // A radar without power takes nothing; tuning takes transfers of its own.
      if (!writable || name == "RadarModulePower" || name == "DCOTargetFrequency") continue;
      std::string text = "auto";
      if (random() % 4 != 0 && type == 4096) {
        const double low = std::bit_cast<double>(min), high = std::bit_cast<double>(max);
        text = std::to_string(low + (high - low) * static_cast<double>(random() % 1000) / 1000);
      } else if (random() % 4 != 0 && type == 2048) {
        text = std::to_string(min + random() % (max - min + 1));
      } else if (type == 8) {
        uint32_t items[16];
        int32_t item_count = 16;
        QTX_VarGetEnumsItems_ByName(handle, name.c_str(), items, &item_count);
        char item[64];
        QTX_VarGetSymbolString(handle, name.c_str(), items[random() % static_cast<uint32_t>(item_count)], item, 64);
        text = item;
      }
      texts.emplace_back(name, text);
    }
    return texts;
  }

  Other single;
  std::vector<QTX_Change> changes;
};

TEST_F(SettingsGroup, ReachesWhatSingleSettingsReach) {
  std::mt19937_64 random(7);
  for (const size_t count : {1u, 2u, 3u, 5u, 10u, 40u, 150u, 2u, 10u, 150u}) {
    const Texts texts = randomTexts(random, count);
    const auto before = settings(handle);
    QTXSim_ResetStatistics();
    ASSERT_EQ(setMany(texts), 0) << description();
    EXPECT_LE(QTXSim_Calls("Write"), 4u);
    EXPECT_LE(QTXSim_Calls("Read"), 2u);
    for (const auto &[name, text] : texts) {
      ASSERT_EQ(QTX_VarSetValue_ByString(single, name.c_str(), text.c_str()), 0) << name << text;
    }
    const auto after = settings(handle);
    EXPECT_EQ(after, settings(single));
    EXPECT_EQ(registers(0), registers(1));
    std::map<std::string, uint64_t> moved;
    for (const QTX_Change &change : changes) {
      const auto was = before.find(change.name);
      if (was == before.end()) continue;  // computed ones are no settings
      EXPECT_EQ(change.before, was->second.value) << change.name;
      EXPECT_EQ(change.automatic, after.at(change.name).automatic) << change.name;
      moved[change.name] = change.after;
    }
    for (const auto &[name, setting] : after) {
      EXPECT_EQ(moved.count(name) > 0, setting.value != before.at(name).value) << name;
      if (moved.count(name)) {
        EXPECT_EQ(moved[name], setting.value) << name;
      }
    }
  }
}

TEST_F(SettingsGroup, TunesTheOscillatorWhereItStands) {
  const Texts texts = {{"FMeasNumCycles", "100000"}, {"DCOTargetFrequency", "200000000"}, {"DCOTunerEnable", "0"}};
  ASSERT_EQ(setMany(texts), 0) << description();
  for (const auto &[name, text] : texts) QTX_VarSetValue_ByString(single, name.c_str(), text.c_str());
  auto mine = settings(handle), theirs = settings(single);
  EXPECT_NEAR(static_cast<double>(mine["DCOActualFrequency"].value), 2e8, 1e7);
  mine.erase("DCOActualFrequency"), theirs.erase("DCOActualFrequency");
  mine.erase("DCOTarget"), theirs.erase("DCOTarget");
  EXPECT_EQ(mine, theirs);
  EXPECT_EQ(changes.size(), 5u);
}

TEST_F(SettingsGroup, ChangesNothingWhenItFails) {
  const auto values = settings(handle);
  const auto chip = registers(0);
  for (const Texts &texts : {Texts{{"Iterations", "3"}, {"Iteration", "3"}},
                             {{"Iterations", "3"}, {"ChipID", "3"}},
                             {{"Iterations", "3"}, {"DACMin", "8192"}},
                             {{"Iterations", "3"}, {"DACMin", "12x"}},
                             {{"Iterations", ""}},
                             {{"ZoomMin", "1e"}},
                             {{"ZoomMin", "nan"}},
                             {{"RadarModulePower", "1"}},
                             {{"Iterations", "3"}, {"DACStep", "5"}, {"SampleDelay", "9e-9"}}}) {
    if (texts.size() == 3) QTXSim_ChipStickBits(0, 0x3b, 1, 0);
    DO_FOR(texts.back().first + "=" + texts.back().second, setMany(texts));
    EXPECT_EQ(settings(handle), values);
    EXPECT_EQ(registers(0), chip);
  }
  const char *const name = "Downsampling", *const text = "1";
  uint32_t count = 2;
  say("no room for what follows");
  DO(QTX_VarsSetMany(handle, &name, &text, 1, changes.data(), &count), count, settings(handle) == values,
     (count = 0, QTX_VarsSetMany(handle, &name, &text, 1, nullptr, &count)), count);
}

TEST_F(SettingsGroup, IsUndoneByACancelOrAFaultAtAnyCall) {
  const auto values = settings(handle);
  const auto chip = registers(0);
  const Texts texts = {
      {"SPIClockFrequency", "6MHz"}, {"MCLK_RFBoardSelect", "External"}, {"Iterations", "3"}, {"SampleDelay", "9e-9"}};
  for (const std::string function : {"Write", "Read", "GetQueueStatus", "Cancel"}) {
    for (uint32_t nth = 1;; ++nth) {
      function == "Cancel" ? void(writes_left = nth) : void(QTXSim_FailCall(function.c_str(), nth, 1, 4));
      const int32_t code = setMany(texts);
      writes_left = 0;
      QTXSim_ClearFaults();
      if (code == 0) break;
      EXPECT_EQ(settings(handle), values) << function << nth << description();
      EXPECT_EQ(registers(0), chip) << function << nth;
      EXPECT_EQ(QTXSim_PinLevel(0, 6), 0) << function << nth;
      ASSERT_LT(nth, 100u);
    }
    EXPECT_EQ(QTXSim_PinLevel(0, 6), 1) << function;
    EXPECT_EQ(set("SPIClockFrequency=auto MCLK_RFBoardSelect=auto Iterations=auto SampleDelay=auto"), 0);
    ASSERT_EQ(settings(handle), values);
  }
}

}  // namespace
}  // namespace pulsekit::test
