// The exported functions: what they hand on and to whom, variables and actions by name, texts in buffers of any size.
#include <cmath>
#include <limits>

#include "host.h"

namespace pulsekit::test {
namespace {

// What the last called operation was given, and what it answers.
struct Call {
  int32_t answer = 0;
  std::vector<uint64_t> arguments;
} call;

template <typename... Arguments>
int32_t note(Arguments... arguments) {
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

uint64_t wide;
uint32_t word, width, lines, table[4];
int64_t integer;
int32_t count = 4;
uint8_t in[4];
const uint8_t out[4] = {};
double real, results[600];

class Calls : public Radar {
 protected:
  Calls() {
    chip = handle->chip, module = handle->module, bridge = handle->interface_handle;
    real_chip = chip->operations, real_bridge = *bridge, real_module = *module;
    call = {};
  }
  ~Calls() override { restore(); }
  void restore() {
    handle->chip = chip, handle->module = module, handle->interface_handle = bridge;
    chip->operations = real_chip, *bridge = real_bridge, *module = real_module;
  }
  void record() {
    chip->operations = {note, note, note, note, note, note, note, note, note, note, note, note, note};
    bridge->SetIO = note, bridge->SetIO_Direction = note, bridge->GetIO = note, bridge->SendReceiveSPI = note,
    bridge->SendReceiveBitsSPI = note;
    bridge->InterfaceLogging = note, bridge->InterfaceLogComment = note;
    module->ReadFlashMemory = note, module->WriteFlashMemory = note, module->ReadBoardInfo = note,
    module->ProgramBoardInfo = note;
  }
  std::string arguments() {
    const std::pair<const void *, const char *> known[] = {
        {handle, "handle"}, {chip, "chip"},   {module, "module"}, {bridge, "bridge"},
        {&wide, "&wide"},   {&word, "&word"}, {&width, "&width"}, {&lines, "&lines"},
        {table, "table"},   {in, "in"},       {out, "out"},       {results, "results"}};
    std::string list = "(";
    for (uint64_t argument : std::exchange(call.arguments, {})) {
      std::string name = argument > 0xffff ? "pointer" : std::to_string(argument);
      for (const auto &[pointer, its_name] : known) {
        if (reinterpret_cast<uintptr_t>(pointer) == argument) name = its_name;
      }
      list += (list.size() > 1 ? ", " : "") + name;
    }
    return list + ")";
  }
  // The call with operations that succeed and fail, without the operation, without its layer, without a handle.
  void forward(const char *name, const std::function<int32_t(QTX_Handle *)> &run) {
    std::string line = name;
    const auto tell = [&](QTX_Handle *on) { line += "; " + result([&] { return run(on); }); };
    record();
    tell(handle);
    line += arguments();
    call.answer = 264;
    tell(handle);
    call = {};
    chip->operations = {};
    *module = {}, *bridge = {};
    bridge->owner = module->owner = handle;
    module->error_state = handle->error;
    tell(handle);
    handle->chip = nullptr, handle->module = nullptr, handle->interface_handle = nullptr;
    tell(handle);
    restore();
    tell(nullptr);
    say(line);
  }

  ChipHandle *chip;
  ModuleHandle *module;
  InterfaceHandle *bridge;
  ChipOperations real_chip;
  InterfaceHandle real_bridge;
  ModuleHandle real_module;
};

#define FORWARD(expression) forward(#expression, [&](QTX_Handle *h) { return expression; })

TEST_F(Calls, AreHandedOnUnchanged) {
  FORWARD(QTX_RegisterRead(h, 0x31, 3, &wide));
  FORWARD(QTX_RegisterWrite(h, 0x31, 3, 40));
  FORWARD(QTX_TimingMeasurementResults(h, results, 579));
  FORWARD(QTX_TimingMeasurementSaveDataToFlash(h, 3));
  FORWARD(QTX_TimingMeasurementLoadDataFromFlash(h, 4));
  FORWARD(QTX_CalculateCDF_Size(h, &width, &lines));
  FORWARD(QTX_GetCDF(h, table, 4));
  FORWARD(QTX_IO_SetValue(h, 500, 1));
  FORWARD(QTX_IO_SetDirection(h, 500, 1, 0));
  FORWARD(QTX_IO_GetValue(h, 500, &word));
  FORWARD(QTX_SPI_SendReceive(h, 1, out, 4, in, 3));
  FORWARD(QTX_SPI_SendReceiveBits(h, 1, out, 12, in, 9, 0x100));
  FORWARD(QTX_InterfaceLogging(h, 3, nullptr));
  FORWARD(QTX_InterfaceLogComment(h, "text"));
  FORWARD(QTX_ModuleReadFlashMemory(h, 0xf000, in, 4));
  FORWARD(QTX_ModuleWriteFlashMemory(h, 0xf000, out, 4));
  FORWARD(QTX_ModuleReadBoardInfo(h, in, 4));
  FORWARD(QTX_ModuleProgramBoardInfo(h, out, 4));
  FORWARD(QTX_GetFrameRaw(h, table, 4));
  FORWARD(QTX_GetFrameNormalizedDouble(h, results, 4, 7));
  FORWARD(QTX_GetFrameNormalized(h, results, 4));
}

TEST_F(Calls, NullArgumentsReachNoLayer) {
  record();
  for (QTX_Handle *h : {handle, static_cast<QTX_Handle *>(nullptr)}) {
    DO(QTX_VarSetValue_ByName(h, nullptr, 1), QTX_VarSetFloatValue_ByName(h, nullptr, 1),
       QTX_VarSetIntValue_ByName(h, nullptr, 1), QTX_VarSetValue_ByString(h, "Iterations", nullptr),
       QTX_VarSetValueAsFloat_ByName(h, nullptr, 1), QTX_VarGetValue_ByName(h, "Iterations", nullptr),
       QTX_VarGetIntValue_ByName(h, nullptr, &integer), QTX_VarGetEnumValue_ByName(h, "Iterations", nullptr),
       QTX_VarGetFloatValue_ByName(h, "Iterations", nullptr), QTX_VarGetValueAsFloat_ByName(h, nullptr, &real),
       QTX_VarGetEnumsItems_ByName(h, "Chip", nullptr, &count), QTX_VarGetType_ByName(h, "Iterations", nullptr),
       QTX_VarGetIntProperties_ByName(h, "Iterations", &wide, &wide, nullptr, &word),
       QTX_VarGetFloatProperties_ByName(h, "Iterations", nullptr, &wide, &word, &word),
       QTX_VarGetSymbolString(h, "Chip", 1, nullptr, 9), QTX_ExecuteAction_ByName(h, nullptr),
       QTX_ListVariables(h, nullptr, 100), QTX_ListActions(h, nullptr, 100), QTX_ListRadarModules(h, nullptr, 100),
       QTX_GetFrameRaw(h, nullptr, 4), QTX_GetFrameNormalizedDouble(h, nullptr, 4, 0),
       QTX_GetFrameNormalized(h, nullptr, 4), QTX_GetFrameNormalizedFloat(h, nullptr, 4, 0),
       QTX_CalculateCDF_Size(h, &width, nullptr), QTX_GetCDF(h, nullptr, 4), QTX_FrameLoggingStart(h, nullptr, 0x11, 3),
       QTX_FrameLoggingStop(nullptr), QTX_VarsSaveToFile(h, nullptr), QTX_VarsLoadFromFile(h, nullptr),
       QTX_VarsSaveToFlash(nullptr), QTX_VarsLoadFromFlash(nullptr), QTX_VarsResetAllToDefault(nullptr),
       QTX_ModuleReadFlashMemory(h, 0, nullptr, 4), QTX_ModuleWriteFlashMemory(h, 0, nullptr, 4),
       QTX_RegisterRead(h, 1, 1, nullptr), QTX_IO_GetValue(h, 1, nullptr), QTX_SPI_SendReceive(h, 1, nullptr, 1, in, 1),
       QTX_SPI_SendReceiveBits(h, 1, out, 1, nullptr, 1, 0), QTX_InterfaceLogging(h, 1, nullptr),
       QTX_InterfaceLogComment(h, nullptr), QTX_TimingMeasurementResults(h, nullptr, 579));
  }
  EXPECT_TRUE(call.arguments.empty());
}

// A text of every size that matters: what fits, what does not, and nothing behind the buffer.
template <typename Write>
std::string atSizes(Write write_text, std::initializer_list<int32_t> sizes) {
  std::string all;
  for (int32_t size : sizes) {
    std::vector<char> buffer(300, '?');
    const int32_t code = write_text(buffer.data(), size);
    const size_t written = std::string(buffer.begin(), buffer.end()).find('?');
    all += format("%d: %d ", size, code) +
           std::string(buffer.begin(), buffer.begin() + static_cast<ptrdiff_t>(written)).c_str() +
           format(" (%zu) ", written);
  }
  return all;
}

TEST_F(Calls, TextsNeedTheRoomThatTheyState) {
  const auto symbol = [&](uint32_t number) {
    return [this, number](char *to, int32_t size) {
      return QTX_VarGetSymbolString(handle, "RadarModulePower", number, to, size);
    };
  };
  const auto on = static_cast<uint32_t>(str_to_sym(module->variables, "PowerOn"));
  handle->connection_info->chip_name[0] = 'U', std::strcpy(handle->connection_info->chip_name, "Unknown");
  DO(atSizes(QTX_Version, {13, 12, 0, -1, 256}), atSizes(QTX_Name, {10, 9, 0, -1, 256}),
     atSizes(QTX_ListSupportedChips, {72, 71, 0, -1, 256}), atSizes(QTX_ListSupportedModules, {161, 160, 0, -1, 256}),
     atSizes(QTX_ListSupportedInterfaces, {18, 17, 0, -1}), QTX_Version(nullptr, 99), QTX_Name(nullptr, 99),
     atSizes(symbol(on), {8, 7, 2, 0, -1}), atSizes(symbol(1000), {16}), atSizes(symbol(~0u), {16}),
     atSizes([&](char *to, int32_t size) { return QTX_ListVariables(handle, to, size); },
             {134, 133, 132, 50, 46, 45, 44, 43, 1, 0, -1}),
     atSizes([&](char *to, int32_t size) { return QTX_ListActions(handle, to, size); }, {32, 29, 28, 1}));
  std::strcpy(handle->connection_info->module_name, "Unknown");
  DO(atSizes([&](char *to, int32_t size) { return QTX_ListVariables(handle, to, size); }, {256}));
  std::strcpy(handle->connection_info->module_name, "QTX-K245");
  std::strcpy(handle->connection_info->chip_name, "QTX3701");
  const auto list = [&] {
    return atSizes([&](char *to, int32_t size) { return QTX_ListVariables(handle, to, size); }, {256});
  };
  DO((handle->chip = nullptr, list()));
  VariableSet *of_module = std::exchange(module->variables, nullptr), *of_bridge = bridge->variables;
  DO(list(), (bridge->variables = nullptr, list()), (handle->interface_handle = nullptr, list()));
  module->variables = of_module, bridge->variables = of_bridge;
}

class Variables : public Radar {
 protected:
  std::string all(const char *name) {
    uint64_t min = 77, max = 77;
    uint32_t writable = 77, automatic = 77, items[8] = {}, type = 77;
    int32_t capacity = 8;
    wide = 77, integer = 77, real = 77;
    std::string line;
    const auto add_code = [&](int32_t code) {
      line += std::to_string(code) + (code && code != 1286 ? " {" + shortTrace(handle->error->trace) + "} " : " ");
    };
    add_code(QTX_VarGetValue_ByName(handle, name, &wide));
    line += std::to_string(wide) + " ";
    add_code(QTX_VarGetIntValue_ByName(handle, name, &integer));
    line += std::to_string(integer) + " ";
    add_code(QTX_VarGetEnumValue_ByName(handle, name, &wide));
    add_code(QTX_VarGetFloatValue_ByName(handle, name, &wide));
    add_code(QTX_VarGetValueAsFloat_ByName(handle, name, &real));
    line += show(real) + " ";
    add_code(QTX_VarGetEnumsItems_ByName(handle, name, items, &capacity));
    line += format("%d %u ", capacity, items[0]);
    add_code(QTX_VarGetType_ByName(handle, name, &type));
    line += format("%u ", type);
    add_code(QTX_VarGetIntProperties_ByName(handle, name, &min, &max, &writable, &automatic));
    line += std::to_string(min) + ".." + std::to_string(max) + format(" %u %u ", writable, automatic);
    add_code(QTX_VarGetFloatProperties_ByName(handle, name, &min, &max, &writable, &automatic));
    return line;
  }
  std::string set(const char *name, double number) {
    const int32_t code = QTX_VarSetValueAsFloat_ByName(handle, name, number);
    return std::to_string(code) + values({name});
  }
};

TEST_F(Variables, OfEveryKindReadInEveryWay) {
  for (const char *name : {"Iterations", "SampleDelay", "Chip", "RadarModulePower", "FMeasResult",
                           "MCLKFrequency_LiveRead", "SPIClockFrequency", "iterations", "", "FlashBlockSize"})
    DO_FOR(name, all(name));
  named("Iterations").flags &= ~uint32_t{VAR_FLAG_VISIBLE};
  named("RadarModulePower").flags &= ~uint32_t{VAR_FLAG_VISIBLE};
  for (const char *name : {"Iterations", "RadarModulePower"}) DO_FOR(name, all(name));
  for (uint32_t extra : std::initializer_list<uint32_t>{
           0, VAR_FLAG_READ_ONLY, VAR_FLAG_LIVE_READ, VAR_FLAG_KEEP_ON_RESET, VAR_FLAG_NO_AUTO_VALUE, VAR_FLAG_AUTO}) {
    named("PulsesPerStep").flags = VAR_FLAG_VISIBLE | VAR_FLAG_INT | extra;
    uint32_t writable = 9, automatic = 9;
    DO_FOR(format("%x", extra),
           QTX_VarGetIntProperties_ByName(handle, "PulsesPerStep", &wide, &wide, &writable, &automatic), writable,
           automatic);
  }
  const std::string endless(10'000, 'n');
  DO(QTX_VarSetValue_ByName(handle, endless.c_str(), 1), QTX_ExecuteAction_ByName(handle, "StartSweep"),
     QTX_ExecuteAction_ByName(handle, "startSweep"), QTX_ExecuteAction_ByName(handle, "ClockPulseOut"),
     QTX_ExecuteAction_ByName(handle, "InterfaceReset"),
     (QTXSim_FailCall("Write", 1, 1, 4), QTX_ExecuteAction_ByName(handle, "StartSweep")));
  say("the chip first, then the module, then the interface");
  VariableSet *chip_set = handle->chip->variables;
  handle->chip->variables = handle->module->variables;
  DO(QTX_VarSetIntValue_ByName(handle, "AddressOfVariableStorage", 5),
     QTX_VarGetValue_ByName(handle, "Iterations", &wide));
  handle->chip->variables = chip_set;
}

TEST_F(Variables, SetInEveryWay) {
  const double infinite = std::numeric_limits<double>::infinity(), nan = std::numeric_limits<double>::quiet_NaN();
  DO(QTX_VarSetValue_ByName(handle, "Iterations", 3), QTX_VarSetIntValue_ByName(handle, "Iterations", 4),
     QTX_VarSetValue_ByString(handle, "Iterations", "5"), QTX_VarSetFloatValue_ByName(handle, "SampleDelay", 1e-9),
     QTX_VarSetIntValue_ByName(handle, "RadarModulePower", 1),
     QTX_VarSetIntValue_ByName(handle, "MCLK_RFBoardSelect", 1),
     values({"Iterations", "SampleDelay", "MCLK_RFBoardSelect"}));
  DO(set("Iterations", 2.5), set("Iterations", 2.4999), set("Iterations", -0.4), set("Iterations", 6.4),
     set("SampleDelay", 0.25), set("MCLK_RFBoardSelect", 0.5), set("MCLK_RFBoardSelect", 0.49), set("Iterations", -0.5),
     set("Iterations", 65535.5), set("Iterations", 4294967301.0), set("Iterations", infinite), set("Iterations", nan),
     set("MCLK_RFBoardSelect", 1.5), set("MCLK_RFBoardSelect", -1), set("SampleDelay", infinite),
     set("DCOTargetFrequency", 4294967295.0));
  DO(QTX_VarSetValue_ByName(handle, "Iterations", 65536), QTX_VarSetValue_ByName(handle, "MCLK_RFBoardSelect", 0),
     QTX_VarSetIntValue_ByName(handle, "Iterations", -1), QTX_VarSetIntValue_ByName(handle, "MCLK_RFBoardSelect", 2),
     QTX_VarSetIntValue_ByName(handle, "MCLK_RFBoardSelect", -1),
     QTX_VarSetIntValue_ByName(handle, "MCLK_RFBoardSelect", 0x100000001),
     QTX_VarSetFloatValue_ByName(handle, "SampleDelay", 1.1), QTX_VarSetFloatValue_ByName(handle, "SampleDelay", nan),
     QTX_VarSetValue_ByString(handle, "Iterations", "65536"),
     QTX_VarSetValue_ByString(handle, "MCLK_RFBoardSelect", "1"),
     QTX_VarSetValue_ByString(handle, "MCLK_RFBoardSelect", ""), QTX_VarSetIntValue_ByName(handle, "Chip", 1));
  for (const char *name : {"Iterations", "MCLK_RFBoardSelect"})
    DO_FOR(name, QTX_VarSetIntValue_ByName(handle, name, 1), QTX_VarSetIntValue_ByName(handle, name, 0x7fffffff),
           values({name}));
  named("TMSamples").flags &= ~uint32_t{VAR_FLAG_INT};
  DO(set("TMSamples", 1), (QTXSim_FailCall("Write", 1, 1, 4), QTX_VarSetIntValue_ByName(handle, "Iterations", 6)),
     description().substr(0, 120));
}

}  // namespace
}  // namespace pulsekit::test
