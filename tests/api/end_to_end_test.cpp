// What hosts do with a radar, from listing it to reopening it.
#include <algorithm>
#include <cmath>

#include "bench.h"
#include "files.h"

namespace pulsekit::test {
namespace {

struct Kind {
  const char *board, *chip;
};

void PrintTo(const Kind &kind, std::ostream *stream) { *stream << kind.board << " " << kind.chip; }

// A value that differs from the present one and is allowed.
bool change(QTX_Handle *handle, const std::string &name, uint64_t value) {
  uint64_t min = 0, max = 0;
  uint32_t writable = 0, automatic = 0, type = 0;
  EXPECT_EQ(QTX_VarGetIntProperties_ByName(handle, name.c_str(), &min, &max, &writable, &automatic), 0);
  EXPECT_EQ(QTX_VarGetType_ByName(handle, name.c_str(), &type), 0);
  if (type == VAR_FLAG_FLOAT) return false;
  if (type == VAR_FLAG_ENUM) {
    int64_t index = 0;
    EXPECT_EQ(QTX_VarGetIntValue_ByName(handle, name.c_str(), &index), 0);
    return max > 0 && QTX_VarSetIntValue_ByName(handle, name.c_str(), index ? index - 1 : 1) == 0;
  }
  return QTX_VarSetIntValue_ByName(handle, name.c_str(), static_cast<int64_t>(value < max ? value + 1 : min)) == 0;
}

class EndToEnd : public Bench, public testing::WithParamInterface<Kind> {
 protected:
  EndToEnd() {
    number = addRadar("FT0001AB", GetParam().board, GetParam().chip);
    here = connection(GetParam().board, GetParam().chip);
  }

  void open() { ASSERT_EQ(QTX_OpenRadar(radar, here.c_str()), 0) << description(radar); }

  // Changes what can be changed one by one without moving anything else, as a host that tunes its radar does.
  void changeSettings() {
    int32_t changed = 0;
    for (const char *name : {"PulsesPerStep", "Iterations", "DACMin", "DACMax", "MCLK_RFBoardSelect", "PipeLining"}) {
      uint64_t value = 0;
      if (QTX_VarGetValue_ByName(radar, name, &value) == 0) changed += change(radar, name, value);
    }
    EXPECT_GE(changed, 5);
  }

  int32_t number;
  std::string here;
  Folder folder;
  Radar radar;
};

TEST_P(EndToEnd, ListsOpensAndReopens) {
  char text[256];
  ASSERT_EQ(QTX_ListRadarModules(radar, text, sizeof text), 0);
  EXPECT_EQ(text, here);
  for (int i = 0; i < 2; ++i) {
    open();
    EXPECT_STREQ(radar->module->board_name, GetParam().board);
    EXPECT_STREQ(radar->chip->name, GetParam().chip);
    EXPECT_EQ(QTX_CloseRadar(radar), 0);
  }
}

TEST_P(EndToEnd, EveryListedVariableHasATypeAndEveryVisibleOneCanBeRead) {
  open();
  const std::vector<std::string> names = variables(radar);
  EXPECT_GT(names.size(), 100u);
  for (const std::string &name : names) {
    uint32_t type = 0;
    EXPECT_EQ(QTX_VarGetType_ByName(radar, name.c_str(), &type), 0) << name;
    EXPECT_TRUE(type == VAR_FLAG_INT || type == VAR_FLAG_FLOAT || type == VAR_FLAG_ENUM) << name;
    uint64_t min = 0, max = 0, value = 0;
    uint32_t writable = 0, automatic = 0;
    if (QTX_VarGetIntProperties_ByName(radar, name.c_str(), &min, &max, &writable, &automatic) != 0) continue;
    EXPECT_EQ(QTX_VarGetValue_ByName(radar, name.c_str(), &value), 0) << name << description(radar);
  }
}

TEST_P(EndToEnd, ASettingReachesTheChipAndComesBackByEveryOperation) {
  open();
  const struct {
    const char *what;
    int32_t code;
  } ways[] = {{"word", QTX_VarSetValue_ByName(radar, "Iterations", 3)},
              {"integer", QTX_VarSetIntValue_ByName(radar, "Iterations", 4)},
              {"text", QTX_VarSetValue_ByString(radar, "Iterations", "5")},
              {"double", QTX_VarSetValueAsFloat_ByName(radar, "Iterations", 6.4)}};
  for (const auto &way : ways) EXPECT_EQ(way.code, 0) << way.what << description(radar);
  uint64_t word = 0;
  int64_t integer = 0;
  double real = 0;
  EXPECT_EQ(QTX_VarGetValue_ByName(radar, "Iterations", &word), 0);
  EXPECT_EQ(QTX_VarGetIntValue_ByName(radar, "Iterations", &integer), 0);
  EXPECT_EQ(QTX_VarGetValueAsFloat_ByName(radar, "Iterations", &real), 0);
  EXPECT_EQ(word, 6u);
  EXPECT_EQ(integer, 6);
  EXPECT_EQ(real, 6.0);
}

TEST_P(EndToEnd, NamesThatNobodyHasAreRefusedByEveryOperation) {
  open();
  const std::string longest(10000, 'n');
  for (const std::string &name : {std::string(), std::string("iterations"), std::string("ITERATIONS"), longest}) {
    const char *text = name.c_str();
    uint64_t word = 77, min = 0, max = 0;
    int64_t integer = 77;
    double real = 77;
    uint32_t items[4], type = 77, writable = 0, automatic = 0;
    int32_t count = 4;
    char symbol[8] = "?";
    const int32_t codes[] = {QTX_VarSetValue_ByName(radar, text, 1),
                             QTX_VarSetFloatValue_ByName(radar, text, 1),
                             QTX_VarSetIntValue_ByName(radar, text, 1),
                             QTX_VarSetIntValue_ByName(radar, text, 0x7fffffff),
                             QTX_VarSetValue_ByString(radar, text, "1"),
                             QTX_VarSetValueAsFloat_ByName(radar, text, 1),
                             QTX_VarGetValue_ByName(radar, text, &word),
                             QTX_VarGetIntValue_ByName(radar, text, &integer),
                             QTX_VarGetEnumValue_ByName(radar, text, &word),
                             QTX_VarGetFloatValue_ByName(radar, text, &word),
                             QTX_VarGetValueAsFloat_ByName(radar, text, &real),
                             QTX_VarGetEnumsItems_ByName(radar, text, items, &count),
                             QTX_VarGetType_ByName(radar, text, &type),
                             QTX_VarGetIntProperties_ByName(radar, text, &min, &max, &writable, &automatic),
                             QTX_VarGetFloatProperties_ByName(radar, text, &min, &max, &writable, &automatic),
                             QTX_VarGetSymbolString(radar, text, 1, symbol, sizeof symbol)};
    for (const int32_t code : codes) EXPECT_EQ(code, 1283) << name.substr(0, 20);
    EXPECT_EQ(std::string(radar->error->message), name.substr(0, 255));
    EXPECT_EQ(QTX_ExecuteAction_ByName(radar, text), 1284);
    EXPECT_EQ(word, 77u);
    EXPECT_EQ(integer, 77);
    EXPECT_EQ(real, 77);
    EXPECT_EQ(type, 77u);
    EXPECT_STREQ(symbol, "?");
  }
}

TEST_P(EndToEnd, SavedSettingsComeBackFromAFile) {
  open();
  changeSettings();
  const auto saved = settings(radar);
  const std::string path = folder.file("settings.txt");
  ASSERT_EQ(QTX_VarsSaveToFile(radar, path.c_str()), 0) << description(radar);
  EXPECT_EQ(QTX_VarsResetAllToDefault(radar), 0) << description(radar);
  EXPECT_NE(settings(radar), saved);
  EXPECT_EQ(QTX_VarsLoadFromFile(radar, path.c_str()), 0) << description(radar);
  EXPECT_EQ(settings(radar), saved);
}

TEST_P(EndToEnd, SavedSettingsComeBackFromFlashAfterAPowerCycle) {
  open();
  changeSettings();
  const auto saved = settings(radar);
  ASSERT_EQ(QTX_VarsSaveToFlash(radar), 0) << description(radar);
  ASSERT_EQ(QTX_CloseRadar(radar), 0);
  QTXSim_PowerCycle(number);
  open();
  EXPECT_NE(settings(radar), saved);
  EXPECT_EQ(QTX_VarsLoadFromFlash(radar), 0) << description(radar);
  EXPECT_EQ(settings(radar), saved);
}

TEST_P(EndToEnd, ErasedFlashHoldsNoSettings) {
  open();
  const auto before = settings(radar);
  EXPECT_EQ(QTX_VarsLoadFromFlash(radar), 5);
  EXPECT_NE(description(radar).find("Values in Flash are invalid"), std::string::npos);
  EXPECT_EQ(settings(radar), before);
}

TEST_P(EndToEnd, FlashMemoryHoldsWhatIsWrittenAndRefusesOtherAddresses) {
  open();
  std::vector<uint8_t> data(300), back(300);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7);
  EXPECT_EQ(QTX_ModuleWriteFlashMemory(radar, 0x2000, data.data(), 300), 0);
  EXPECT_EQ(QTX_ModuleReadFlashMemory(radar, 0x2000, back.data(), 300), 0);
  EXPECT_EQ(back, data);
  EXPECT_EQ(QTX_ModuleReadFlashMemory(radar, 0x2080, back.data(), 300), 1);
  EXPECT_NE(description(radar).find("Address is not aligned at 256Byte boundaries"), std::string::npos);
  EXPECT_EQ(QTX_ModuleWriteFlashMemory(radar, 0x2080, data.data(), 300), 1);
  EXPECT_EQ(back, data);
}

INSTANTIATE_TEST_SUITE_P(Kinds, EndToEnd,
                         testing::Values(Kind{"QTX-K245", "QTX3701"}, Kind{"QTX-K265", "QTX3702"},
                                         Kind{"QTX-K225E", "QTX3400"}, Kind{"QTX-K235", "QTX3500"}));

class SecondGeneration : public Bench {
 protected:
  SecondGeneration() {
    addRadar();
    EXPECT_EQ(QTX_OpenRadar(radar, connection().c_str()), 0) << description(radar);
    int64_t samplers = 0;
    EXPECT_EQ(QTX_VarGetIntValue_ByName(radar, "SamplersPerFrame", &samplers), 0);
    length = static_cast<size_t>(samplers);
  }

  Radar radar;
  size_t length = 0;
};

TEST_F(SecondGeneration, FramesComeInEveryFormAndFillNoMoreThanTheFrame) {
  std::vector<uint32_t> raw(length + 1, 7);
  std::vector<double> doubles(length + 1, -7);
  std::vector<float> floats(length + 1, -7);
  EXPECT_EQ(QTX_GetFrameRaw(radar, raw.data(), length), 0) << description(radar);
  EXPECT_EQ(QTX_GetFrameNormalized(radar, doubles.data(), static_cast<int64_t>(length)), 0);
  EXPECT_EQ(QTX_GetFrameNormalizedFloat(radar, floats.data(), int64_t{1} << 40, 0), 0);
  EXPECT_EQ(raw[length], 7u);
  EXPECT_EQ(doubles[length], -7.0);
  EXPECT_EQ(floats[length], -7.0f);
  for (size_t i = 0; i < length; ++i) {
    EXPECT_GE(doubles[i], 0.0);
    EXPECT_LE(doubles[i], 100.0);
    EXPECT_NEAR(static_cast<double>(floats[i]), doubles[i], 5.0);
  }
}

TEST_F(SecondGeneration, AFrameThatDoesNotFitIsRefused) {
  std::vector<uint32_t> raw(length, 7);
  std::vector<double> doubles(length, -7);
  for (const int64_t capacity : {int64_t{0}, int64_t{-1}, int64_t{1}, static_cast<int64_t>(length) - 1}) {
    const uint64_t raw_capacity = static_cast<uint64_t>(std::max<int64_t>(capacity, 0));
    EXPECT_EQ(QTX_GetFrameRaw(radar, raw.data(), raw_capacity), 2) << capacity;
    EXPECT_EQ(QTX_GetFrameNormalized(radar, doubles.data(), capacity), 2) << capacity;
  }
  EXPECT_EQ(raw, std::vector<uint32_t>(length, 7));
  EXPECT_EQ(doubles, std::vector<double>(length, -7));
}

TEST_F(SecondGeneration, AFullFrameLogLeavesTheRadarUsable) {
  std::vector<double> frame(length, -7);
  ASSERT_EQ(QTX_FrameLoggingStart(radar, "/dev/full", 0x02, 6), 0);
  radar->frame_log_flags = 0x22;
  EXPECT_EQ(QTX_GetFrameNormalized(radar, frame.data(), static_cast<int64_t>(length)), 1);
  EXPECT_GE(frame[0], 0.0);
  EXPECT_EQ(QTX_FrameLoggingStop(radar), 1);
  EXPECT_EQ(QTX_GetFrameNormalized(radar, frame.data(), static_cast<int64_t>(length)), 0);
}

TEST_F(SecondGeneration, ValuesOutsideTheRangeChangeNothing) {
  const auto before = settings(radar);
  for (const auto &[name, setting] : before) {
    uint64_t min = 0, max = 0;
    uint32_t writable = 0, automatic = 0, type = 0;
    ASSERT_EQ(QTX_VarGetIntProperties_ByName(radar, name.c_str(), &min, &max, &writable, &automatic), 0);
    ASSERT_EQ(QTX_VarGetType_ByName(radar, name.c_str(), &type), 0);
    // The widest integers take the bits of any double.
    if (max < bits(std::nan("")) || type == VAR_FLAG_FLOAT) {
      EXPECT_EQ(QTX_VarSetFloatValue_ByName(radar, name.c_str(), std::nan("")), 1286) << name;
    }
    EXPECT_EQ(QTX_VarSetIntValue_ByName(radar, name.c_str(), -1), 1286) << name;
    if (type == VAR_FLAG_INT) {
      EXPECT_EQ(QTX_VarSetValue_ByName(radar, name.c_str(), max + 1), 1286) << name;
    }
    if (type == VAR_FLAG_ENUM) {
      EXPECT_EQ(QTX_VarSetIntValue_ByName(radar, name.c_str(), static_cast<int64_t>(max) + 1), 1286) << name;
      EXPECT_EQ(QTX_VarSetValue_ByString(radar, name.c_str(), "no such item"), 1286) << name;
    }
  }
  EXPECT_EQ(settings(radar), before);
}

TEST_F(SecondGeneration, TheSamplerDistributionIsComputed) {
  for (const auto &[name, value] : {std::pair{"DACMin", 4000}, std::pair{"DACMax", 4100}}) {
    ASSERT_EQ(QTX_VarSetIntValue_ByName(radar, name, value), 0);
  }
  uint32_t width = 0, lines = 0;
  ASSERT_EQ(QTX_CalculateCDF_Size(radar, &width, &lines), 0);
  ASSERT_GT(width * lines, 0u);
  std::vector<uint32_t> table(size_t{width} * lines);
  EXPECT_EQ(QTX_GetCDF(radar, table.data(), static_cast<int32_t>(table.size())), 0) << description(radar);
  EXPECT_EQ(QTX_GetCDF(radar, table.data(), static_cast<int32_t>(table.size()) - 1), 2);
}

TEST_F(SecondGeneration, TheTimingMeasurementIsKeptInFlash) {
  std::vector<double> before(579), after(579);
  EXPECT_EQ(QTX_TimingMeasurementLoadDataFromFlash(radar, 3), 5);
  EXPECT_EQ(QTX_ExecuteAction_ByName(radar, "MeasureSampleDelayLines"), 0) << description(radar);
  EXPECT_EQ(QTX_TimingMeasurementResults(radar, before.data(), 579), 0);
  EXPECT_EQ(QTX_TimingMeasurementSaveDataToFlash(radar, 3), 0) << description(radar);
  ASSERT_EQ(QTX_CloseRadar(radar), 0);
  ASSERT_EQ(QTX_OpenRadar(radar, connection().c_str()), 0);
  EXPECT_EQ(QTX_TimingMeasurementResults(radar, after.data(), 579), 0);
  EXPECT_NE(after, before);
  EXPECT_EQ(QTX_TimingMeasurementLoadDataFromFlash(radar, 3), 0) << description(radar);
  EXPECT_EQ(QTX_TimingMeasurementResults(radar, after.data(), 579), 0);
  EXPECT_EQ(after, before);
  EXPECT_EQ(QTX_TimingMeasurementResults(radar, after.data(), 514), 2);
}

TEST_F(SecondGeneration, ACalibrationComesBackFromAFileAsItWasSaved) {
  const Folder folder;
  const auto save = [&](const std::string &path) {
    EXPECT_EQ(QTX_VarsSaveToFile(radar, path.c_str()), 0);
    const std::string text = contents(path);
    return text.substr(text.find('\n'));
  };
  ASSERT_EQ(QTX_ExecuteAction_ByName(radar, "MeasureAll"), 0) << description(radar);
  const std::string saved = save(folder.file("first"));
  EXPECT_EQ(QTX_PowerOffRadar(radar), 0);
  EXPECT_EQ(QTX_PowerOnRadar(radar), 0);
  EXPECT_EQ(QTX_VarsLoadFromFile(radar, folder.file("first").c_str()), 0) << description(radar);
  EXPECT_EQ(save(folder.file("second")), saved);
}

TEST_F(SecondGeneration, TheInterfaceLogRecordsTransfers) {
  Folder folder;
  const std::string path = folder.file("spi.log");
  EXPECT_EQ(QTX_InterfaceLogComment(radar, "too early"), 271);
  EXPECT_EQ(QTX_InterfaceLogging(radar, 1, folder.file("missing/spi.log").c_str()), 272);
  ASSERT_EQ(QTX_InterfaceLogging(radar, 1, path.c_str()), 0);
  ASSERT_EQ(QTX_InterfaceLogging(radar, 3, nullptr), 0);
  EXPECT_EQ(QTX_InterfaceLogComment(radar, "iterations"), 0);
  EXPECT_EQ(QTX_RegisterWrite(radar, 0x31, 3, 40), 0);
  EXPECT_EQ(QTX_InterfaceLogging(radar, 2, nullptr), 0);
  const std::string text = contents(path);
  EXPECT_EQ(text.find("iterations\n"), 0u);
  EXPECT_NE(text.find("W\tB1 03 28 00 00 \n"), std::string::npos) << text;
}

}  // namespace
}  // namespace pulsekit::test
