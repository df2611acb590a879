// The exported functions that hand one call on: arguments arrive unchanged, failures carry the function's trace point,
// and nothing is called when a part of the radar is missing.
#include <functional>

#include "fakes.h"

namespace pulsekit::test {
namespace {

// What the last called operation was given, and what it answers.
struct Call {
  int32_t answer = 0;
  std::vector<uint64_t> arguments;
} call;

template <typename... Arguments>
int32_t record(Arguments... arguments) {
  const auto word = [](auto value) {
    if constexpr (std::is_pointer_v<decltype(value)>) {
      return reinterpret_cast<uintptr_t>(value);
    } else {
      return static_cast<uint64_t>(value);
    }
  };
  call.arguments = {static_cast<uint64_t>(word(arguments))...};
  return call.answer;
}

class PassThrough : public testing::Test {
 protected:
  PassThrough() {
    call = {};
    radar.chip.operations = {record, record, record, record, record, record, record,
                             record, record, record, record, record, record};
    radar.bridge.SetIO = record;
    radar.bridge.SetIO_Direction = record;
    radar.bridge.GetIO = record;
    radar.bridge.SendReceiveSPI = record;
    radar.bridge.SendReceiveBitsSPI = record;
    radar.bridge.InterfaceLogging = record;
    radar.bridge.InterfaceLogComment = record;
    radar.module.ReadFlashMemory = record;
    radar.module.WriteFlashMemory = record;
  }

  FakeRadar radar;
  QTX_Handle *handle = radar.library;
};

enum class Layer { kChip, kModule, kInterface };

struct Forwarded {
  const char *name;
  int point;  // 0: the layer's trace is left alone
  Layer layer;
  std::function<int32_t(QTX_Handle *)> run;
  std::vector<uint64_t> arguments;  // after the layer's own handle
};

uint64_t address(const void *pointer) { return reinterpret_cast<uintptr_t>(pointer); }

uint64_t value;
uint32_t level, width, lines, table[4];
uint8_t in[4];
const uint8_t out[4] = {};
double results[600];

std::vector<Forwarded> forwarded() {
  return {
      {"QTX_RegisterRead",
       2253,
       Layer::kChip,
       [](QTX_Handle *h) { return QTX_RegisterRead(h, 0x31, 3, &value); },
       {0x31, 3, address(&value)}},
      {"QTX_RegisterWrite",
       2266,
       Layer::kChip,
       [](QTX_Handle *h) { return QTX_RegisterWrite(h, 0x31, 3, 40); },
       {0x31, 3, 40}},
      {"QTX_TimingMeasurementResults",
       0,
       Layer::kChip,
       [](QTX_Handle *h) { return QTX_TimingMeasurementResults(h, results, 579); },
       {address(results), 579}},
      {"QTX_TimingMeasurementSaveDataToFlash",
       2375,
       Layer::kChip,
       [](QTX_Handle *h) { return QTX_TimingMeasurementSaveDataToFlash(h, 3); },
       {3}},
      {"QTX_TimingMeasurementLoadDataFromFlash",
       2388,
       Layer::kChip,
       [](QTX_Handle *h) { return QTX_TimingMeasurementLoadDataFromFlash(h, 4); },
       {4}},
      {"QTX_CalculateCDF_Size",
       1408,
       Layer::kChip,
       [](QTX_Handle *h) { return QTX_CalculateCDF_Size(h, &width, &lines); },
       {address(&width), address(&lines)}},
      {"QTX_GetCDF", 1419, Layer::kChip, [](QTX_Handle *h) { return QTX_GetCDF(h, table, 4); }, {address(table), 4}},
      {"QTX_IO_SetValue", 2279, Layer::kInterface, [](QTX_Handle *h) { return QTX_IO_SetValue(h, 500, 1); }, {500, 1}},
      {"QTX_IO_SetDirection",
       2292,
       Layer::kInterface,
       [](QTX_Handle *h) { return QTX_IO_SetDirection(h, 500, 1, 0); },
       {500, 1, 0}},
      {"QTX_IO_GetValue",
       2305,
       Layer::kInterface,
       [](QTX_Handle *h) { return QTX_IO_GetValue(h, 500, &level); },
       {500, address(&level)}},
      {"QTX_SPI_SendReceive",
       2318,
       Layer::kInterface,
       [](QTX_Handle *h) { return QTX_SPI_SendReceive(h, 1, out, 4, in, 3); },
       {1, address(out), 4, address(in), 3, 1}},
      {"QTX_SPI_SendReceiveBits",
       2331,
       Layer::kInterface,
       [](QTX_Handle *h) { return QTX_SPI_SendReceiveBits(h, 1, out, 12, in, 9, 0x100); },
       {1, address(out), 12, address(in), 9, 0x100}},
      {"QTX_InterfaceLogging",
       2344,
       Layer::kInterface,
       [](QTX_Handle *h) { return QTX_InterfaceLogging(h, 3, nullptr); },
       {3, 0}},
      {"QTX_InterfaceLogComment",
       2357,
       Layer::kInterface,
       [](QTX_Handle *h) { return QTX_InterfaceLogComment(h, "text"); },
       {}},
      {"QTX_ModuleReadFlashMemory",
       1586,
       Layer::kModule,
       [](QTX_Handle *h) { return QTX_ModuleReadFlashMemory(h, 0xf000, in, 4); },
       {0xf000, address(in), 4}},
      {"QTX_ModuleWriteFlashMemory",
       1599,
       Layer::kModule,
       [](QTX_Handle *h) { return QTX_ModuleWriteFlashMemory(h, 0xf000, out, 4); },
       {0xf000, address(out), 4}},
  };
}

TEST_F(PassThrough, ArgumentsArriveUnchanged) {
  for (const Forwarded &function : forwarded()) {
    call.arguments.clear();
    EXPECT_EQ(function.run(handle), 0) << function.name;
    ASSERT_FALSE(call.arguments.empty()) << function.name;
    if (function.arguments.empty()) continue;
    call.arguments.erase(call.arguments.begin());
    EXPECT_EQ(call.arguments, function.arguments) << function.name;
  }
}

TEST_F(PassThrough, RegistersAreReachedThroughTheLibraryHandleAndTheRestThroughTheLayers) {
  QTX_RegisterRead(handle, 1, 1, &value);
  EXPECT_EQ(call.arguments[0], address(handle));
  QTX_GetCDF(handle, table, 4);
  EXPECT_EQ(call.arguments[0], address(&radar.chip));
  QTX_IO_SetValue(handle, 500, 1);
  EXPECT_EQ(call.arguments[0], address(&radar.bridge));
}

TEST_F(PassThrough, FailuresKeepTheirCodeAndGetATracePoint) {
  for (const Forwarded &function : forwarded()) {
    std::strcpy(handle->error->trace, "   at: layer in src/layer:1");
    call.answer = 264;
    EXPECT_EQ(function.run(handle), 264) << function.name;
    std::string expected = "   at: layer in src/layer:1";
    if (function.point) {
      expected += std::string("\r\n   from: ") + function.name + " in src/Pulsekit3:" + std::to_string(function.point);
    }
    EXPECT_EQ(handle->error->trace, expected) << function.name;
  }
}

TEST_F(PassThrough, AMissingLayerIsNamedByItsCode) {
  const int32_t codes[] = {770, 514, 269};
  for (const Forwarded &function : forwarded()) {
    EXPECT_EQ(function.run(nullptr), 1025) << function.name;
    Library closed;
    EXPECT_EQ(function.run(closed), codes[static_cast<int>(function.layer)]) << function.name;
    EXPECT_NE(description(closed).find(std::string("   at: ") + function.name + " in src/Pulsekit3:"),
              std::string::npos);
  }
}

TEST_F(PassThrough, ALayerWithoutTheOperationCountsAsMissing) {
  radar.chip.operations = {};
  radar.module.ReadFlashMemory = nullptr;
  radar.module.WriteFlashMemory = nullptr;
  const InterfaceHandle empty{};
  radar.bridge = empty;
  const int32_t codes[] = {770, 514, 269};
  for (const Forwarded &function : forwarded()) {
    EXPECT_EQ(function.run(handle), codes[static_cast<int>(function.layer)]) << function.name;
  }
  EXPECT_EQ(QTX_GetFrameRaw(handle, table, 4), 770);
  EXPECT_EQ(QTX_GetFrameNormalized(handle, results, 4), 770);
  EXPECT_EQ(QTX_ModuleReadBoardInfo(handle, in, 4), 514);
  EXPECT_EQ(QTX_PowerOnRadar(handle), 1283) << "the power comes first";
  radar.module_set.add("RadarModulePower", VAR_FLAG_INT);
  EXPECT_EQ(QTX_PowerOnRadar(handle), 514);
}

struct NullArgument {
  const char *name;
  std::function<int32_t(QTX_Handle *)> run;
};

TEST_F(PassThrough, NullArgumentsAreCode1AndReachNoLayer) {
  int64_t integer = 0;
  double real = 0;
  uint32_t word = 0;
  uint64_t wide = 0;
  int32_t count = 4;
  const NullArgument cases[] = {
      {"QTX_VarSetValue_ByName", [](QTX_Handle *h) { return QTX_VarSetValue_ByName(h, nullptr, 1); }},
      {"QTX_VarSetFloatValue_ByName", [](QTX_Handle *h) { return QTX_VarSetFloatValue_ByName(h, nullptr, 1); }},
      {"QTX_VarSetIntValue_ByName", [](QTX_Handle *h) { return QTX_VarSetIntValue_ByName(h, nullptr, 1); }},
      {"QTX_VarSetValue_ByString", [](QTX_Handle *h) { return QTX_VarSetValue_ByString(h, "Count", nullptr); }},
      {"QTX_VarSetValueAsFloat_ByName", [](QTX_Handle *h) { return QTX_VarSetValueAsFloat_ByName(h, nullptr, 1); }},
      {"QTX_VarGetValue_ByName", [](QTX_Handle *h) { return QTX_VarGetValue_ByName(h, "Count", nullptr); }},
      {"QTX_VarGetIntValue_ByName", [&](QTX_Handle *h) { return QTX_VarGetIntValue_ByName(h, nullptr, &integer); }},
      {"QTX_VarGetEnumValue_ByName", [](QTX_Handle *h) { return QTX_VarGetEnumValue_ByName(h, "Count", nullptr); }},
      {"QTX_VarGetFloatValue_ByName", [](QTX_Handle *h) { return QTX_VarGetFloatValue_ByName(h, "Count", nullptr); }},
      {"QTX_VarGetValueAsFloat_ByName",
       [&](QTX_Handle *h) { return QTX_VarGetValueAsFloat_ByName(h, nullptr, &real); }},
      {"QTX_VarGetEnumsItems_ByName",
       [&](QTX_Handle *h) { return QTX_VarGetEnumsItems_ByName(h, "Count", nullptr, &count); }},
      {"QTX_VarGetType_ByName", [](QTX_Handle *h) { return QTX_VarGetType_ByName(h, "Count", nullptr); }},
      {"QTX_VarGetIntProperties_ByName",
       [&](QTX_Handle *h) { return QTX_VarGetIntProperties_ByName(h, "Count", &wide, &wide, nullptr, &word); }},
      {"QTX_VarGetFloatProperties_ByName",
       [&](QTX_Handle *h) { return QTX_VarGetFloatProperties_ByName(h, "Count", nullptr, &wide, &word, &word); }},
      {"QTX_VarGetSymbolString", [](QTX_Handle *h) { return QTX_VarGetSymbolString(h, "Count", 1, nullptr, 9); }},
      {"QTX_ExecuteAction_ByName", [](QTX_Handle *h) { return QTX_ExecuteAction_ByName(h, nullptr); }},
      {"QTX_ListVariables", [](QTX_Handle *h) { return QTX_ListVariables(h, nullptr, 100); }},
      {"QTX_ListActions", [](QTX_Handle *h) { return QTX_ListActions(h, nullptr, 100); }},
      {"QTX_ListRadarModules", [](QTX_Handle *h) { return QTX_ListRadarModules(h, nullptr, 100); }},
      {"QTX_OpenRadar", [](QTX_Handle *h) { return QTX_OpenRadar(h, nullptr); }},
      {"QTX_GetFrameRaw", [](QTX_Handle *h) { return QTX_GetFrameRaw(h, nullptr, 4); }},
      {"QTX_GetFrameNormalizedDouble", [](QTX_Handle *h) { return QTX_GetFrameNormalizedDouble(h, nullptr, 4, 0); }},
      {"QTX_GetFrameNormalized", [](QTX_Handle *h) { return QTX_GetFrameNormalized(h, nullptr, 4); }},
      {"QTX_GetFrameNormalizedFloat", [](QTX_Handle *h) { return QTX_GetFrameNormalizedFloat(h, nullptr, 4, 0); }},
      {"QTX_CalculateCDF_Size", [](QTX_Handle *h) { return QTX_CalculateCDF_Size(h, &width, nullptr); }},
      {"QTX_GetCDF", [](QTX_Handle *h) { return QTX_GetCDF(h, nullptr, 4); }},
      {"QTX_FrameLoggingStart", [](QTX_Handle *h) { return QTX_FrameLoggingStart(h, nullptr, 0x11, 3); }},
      {"QTX_VarsSaveToFile", [](QTX_Handle *h) { return QTX_VarsSaveToFile(h, nullptr); }},
      {"QTX_VarsLoadFromFile", [](QTX_Handle *h) { return QTX_VarsLoadFromFile(h, nullptr); }},
      {"QTX_ModuleReadFlashMemory", [](QTX_Handle *h) { return QTX_ModuleReadFlashMemory(h, 0, nullptr, 4); }},
      {"QTX_ModuleWriteFlashMemory", [](QTX_Handle *h) { return QTX_ModuleWriteFlashMemory(h, 0, nullptr, 4); }},
      {"QTX_ModuleReadBoardInfo", [](QTX_Handle *h) { return QTX_ModuleReadBoardInfo(h, nullptr, 4); }},
      {"QTX_ModuleProgramBoardInfo", [](QTX_Handle *h) { return QTX_ModuleProgramBoardInfo(h, nullptr, 4); }},
      {"QTX_RegisterRead", [](QTX_Handle *h) { return QTX_RegisterRead(h, 1, 1, nullptr); }},
      {"QTX_IO_GetValue", [](QTX_Handle *h) { return QTX_IO_GetValue(h, 1, nullptr); }},
      {"QTX_SPI_SendReceive", [](QTX_Handle *h) { return QTX_SPI_SendReceive(h, 1, nullptr, 1, in, 1); }},
      {"QTX_SPI_SendReceiveBits", [](QTX_Handle *h) { return QTX_SPI_SendReceiveBits(h, 1, out, 1, nullptr, 1, 0); }},
      {"QTX_InterfaceLogging", [](QTX_Handle *h) { return QTX_InterfaceLogging(h, 1, nullptr); }},
      {"QTX_InterfaceLogComment", [](QTX_Handle *h) { return QTX_InterfaceLogComment(h, nullptr); }},
      {"QTX_TimingMeasurementResults", [](QTX_Handle *h) { return QTX_TimingMeasurementResults(h, nullptr, 579); }},
  };
  for (const NullArgument &function : cases) {
    const bool lists =
        std::string(function.name).find("QTX_ListV") == 0 || std::string(function.name) == "QTX_ListActions";
    EXPECT_EQ(function.run(nullptr), lists ? 1 : 1025) << function.name;
    EXPECT_EQ(function.run(handle), 1) << function.name;
    EXPECT_EQ(handle->error->trace, std::string("   at: ") + function.name +
                                        " in src/Pulsekit3:" + std::string(std::strrchr(handle->error->trace, ':') + 1))
        << function.name;
    EXPECT_TRUE(call.arguments.empty()) << function.name;
  }
  EXPECT_EQ(handle->frame_log, nullptr);
}

}  // namespace
}  // namespace pulsekit::test
