// All models: every variable and action with its bytes, handles, detection, register and memory access.
#include <set>

#include "radar.h"

namespace pulsekit::test {
namespace {

class Models : public Radar, public testing::WithParamInterface<const char *> {
 protected:
  // Name, kind, range or items, value at start, and what setting the ends and the automatic value sends.
  std::string line(int32_t i) {
    Variable &v = variables->variables[i];
    const char *name = varGetName_ByNumber(variables, i);
    std::string text = format("%s %x", name, v.flags & ~uint32_t{VAR_FLAG_VISIBLE});
    for (const uint32_t *item = v.items; *item; ++item) {
      text += std::string(item == v.items ? " {" : ",") + sym_to_str(variables, static_cast<int32_t>(*item));
    }
    if (*v.items) text += "}";
    const bool is_real = v.flags & VAR_FLAG_FLOAT;
    if (is_real) text += " " + show(bitsToDouble(v.min)) + ".." + show(bitsToDouble(v.max));
    if (v.flags & VAR_FLAG_INT) text += format(" %llu..%llu", ull(v.min), ull(v.max));
    if (v.flags & (VAR_FLAG_LIVE_READ | VAR_FLAG_FROM_BACKEND)) return text + " reads " + read(name);
    text += " = " + value_of(name);
    uint64_t ends[] = {v.min, v.max, VAR_AUTO};
    if (*v.items) ends[0] = v.items[0], ends[1] = v.items[varGetEnumsLength(variables, &v) - 1];
    for (uint64_t next : ends) {
      text += "; " + result([&] { return varSetValue(variables, &v, next); });
    }
    return text;
  }
  static unsigned long long ull(uint64_t number) { return number; }
  // As it is, and with all bits of all registers set.
  std::string read(const char *name) {
    std::string text = result([&] { return get(name); });
    for (uint32_t address = 0; address < 128; ++address) {
      uint64_t before = 0;
      QTXSim_ChipRegister(0, static_cast<uint8_t>(address), &before);
      if (address != 0x58 && address != 0x60) QTXSim_SetChipRegister(0, static_cast<uint8_t>(address), ~uint64_t{0});
      saved[address] = before;
    }
    if (named(name)->flags & VAR_FLAG_FROM_BACKEND) text += ", " + std::to_string(get(name));
    for (uint32_t address = 0; address < 128; ++address)
      QTXSim_SetChipRegister(0, static_cast<uint8_t>(address), saved[address]);
    return text;
  }
  // The lines of a model; what names the model itself does so as "MODEL".
  std::vector<std::string> dump(const std::string &model) {
    start(model.c_str());
    std::vector<std::string> lines = {
        format("%s %s, %d symbols", variables->name, variables->version, variables->max_symbol)};
    for (int32_t i = 0; i < variables->count; ++i) {
      lines.push_back(format("%d ", variables->order[i].level) +
                      varGetName_ByNumber(variables, variables->order[i].index));
    }
    for (int32_t i = 0; i < variables->count; ++i) lines.push_back(line(i));
    for (int32_t i = 0; i < variables->action_count; ++i) {
      const char *name = sym_to_str(variables, static_cast<int32_t>(variables->actions[i].name));
      set("CoarseTuneMeasureMax", 1);
      const std::string text = result([&] { return act(name); });
      const auto transfers = std::count(text.begin(), text.end(), ',');
      lines.push_back(std::string("action ") + name + ": " + text.substr(0, 160) +
                      (text.size() > 160 ? format(" ... %td", transfers) : ""));
      QTXSim_Advance(1'000'000'000);
    }
    for (std::string &text : lines) {
      for (size_t at; (at = text.find(model)) != text.npos;) text.replace(at, model.size(), "MODEL");
    }
    return lines;
  }
  uint64_t saved[128];
};

INSTANTIATE_TEST_SUITE_P(All, Models, testing::Values("QTX3400", "QTX3500", "QTX3701", "QTX3702"),
                         [](const auto &model) { return std::string(model.param); });

// The second model of each generation tells only what the first one has not.
TEST_P(Models, EveryVariableAndActionOnTheWire) {
  const std::string model = GetParam();
  const bool second = model == "QTX3500" || model == "QTX3702";
  std::multiset<std::string> known;
  if (second) {
    for (const std::string &text : dump(model == "QTX3500" ? "QTX3400" : "QTX3701")) known.insert(text);
  }
  for (const std::string &text : dump(model)) {
    const auto found = known.find(text);
    if (found == known.end()) say(text);
    if (found != known.end()) known.erase(found);
  }
  for (const std::string &text : known) say("not " + text);
  std::set<std::string> texts;
  for (int32_t i = 0; i <= variables->max_symbol; ++i) EXPECT_TRUE(texts.insert(sym_to_str(variables, i)).second) << i;
}

TEST_P(Models, HandlesStartAndDetection) {
  const char *model = GetParam();
  DO(create(model), chip->name, chip->chip_id, chip->access == radar, variables->owner == radar, chip->sweep_idle,
     chip->initializing);
  chip->sweep_idle = 0;
  DO(chipInitChip(chip));
  DO(chip->sweep_idle, act("EmptyPipeLine"));
  const bool first = std::string(model) == "QTX3400" || std::string(model) == "QTX3701";  // of its generation
  const auto nothing = [] { return std::string(); };
  if (first)
    atEveryWrite(
        "start", [&] { create(model); }, [&] { return chipInitChip(chip); }, nothing, 36);
  char name[64];
  chipFree(&radar->chip, nullptr);
  const auto detect = [&] { return chipGetConnectedChipName(&radar->chip, &radar->error, radar, name); };
  DO(detect(), name, radar->chip, (QTXSim_SetChipId(0, 0x123), detect()), name,
     (QTXSim_FailCall("Write", 1, 9, 4), detect()), name);
  QTXSim_ClearFaults();
  for (uint32_t id : {0x305, 0x306, 0x308, 0x309}) {
    create(model);
    QTXSim_SetChipId(0, static_cast<uint16_t>(id));
    DO_FOR(format("%x", id), (kinds = 0, chipInitChip(chip)), value_of("Chip"),
           chipIdToChipName(static_cast<uint16_t>(id)));
  }
  ChipHandle *other = nullptr;
  QTX_StackTrace *own = nullptr;
  QTX_StackTraceInit(&own, nullptr);
  unlocked = 0;  // the first read of a start takes no lock
  DO(chipInitHandle(&other, &own, radar, model), other->variables->variables != variables->variables,
     chipFree(&other, &own), own, other);
  std::vector<char> text(8192);
  DO(chipListActions(chip, text.data(), 8192), text.data(), chipListVariables(chip, text.data(), 20), text.data(),
     chipListVariables(chip, text.data(), 8192), text.data());
}

TEST_P(Models, Access) {
  const char *model = GetParam();
  create(model);
  uint64_t wide = 99;
  std::vector<uint8_t> memory(1024);
  const auto read = [&](uint8_t address, uint32_t count) {
    return operations->ReadRegister(radar, address, count, &wide);
  };
  const auto write = [&](uint8_t address, int32_t count, uint64_t number) {
    return operations->WriteRegister(radar, address, count, number);
  };
  DO(read(2, 2), wide, write(0x32, 2, 0x1234), read(0xb2, 2), wide, write(0x64, 3, 0xff123456), read(0x64, 3), wide,
     write(0x6d, 8, 0x0102030405060708), read(0x6d, 8), wide, write(0x10, 0, 1), write(0x10, -5, 1), read(0x31, 0),
     wide, operations->ExecuteAction(radar, 93));
  QTXSim_Advance(1'000'000'000);
  for (uint32_t length : {300, 127, 128, 129, 2, 1, 1024}) {
    kinds = QTXSIM_EVENT_CALL;
    DO_FOR(length, operations->ReadMemory(radar, 0x20, length, memory.data()));
  }
  kinds = QTXSIM_EVENT_SPI;
  say("refusals send nothing");
  DO(read(2, 9), wide, write(2, 9, 0), operations->ExecuteAction(radar, 128),
     operations->ReadRegister(radar, 2, 2, nullptr), operations->ReadMemory(radar, 0x20, 2, nullptr),
     operations->ReadRegister(nullptr, 2, 2, &wide), operations->WriteRegister(nullptr, 2, 2, 0),
     operations->ExecuteAction(nullptr, 1), operations->ReadMemory(nullptr, 0x20, 1, memory.data()));
  radar->interface_handle = nullptr;
  DO(read(2, 2), write(2, 2, 0), operations->ExecuteAction(radar, 1),
     operations->ReadMemory(radar, 0x20, 4, memory.data()), chipInitChip(chip));
  radar->interface_handle = bridge;
  say("writes wait for the sweep once a radar is open");
  for (int32_t opened : {0, 1}) {
    radar->open = opened;
    operations->ExecuteAction(radar, 93);
    QTXSim_Advance(1'000'000'000);
    operations->ExecuteAction(radar, 93);
    const std::string text = result([&] { return write(0x32, 2, 0x1234); });
    EXPECT_EQ(text.find(" x") != text.npos, opened == 1) << text;
    QTXSim_Advance(1'000'000'000);
    DO(write(0x32, 2, 0x1234));
  }
  const auto prepare = [&] { create(model), radar->open = 1; };
  atEveryWrite(
      "read", prepare, [&] { return read(2, 2); }, [&] { return format(" %llu", ull(wide)); });
  atEveryWrite("write", prepare, [&] { return write(0x32, 2, 1); });
  atEveryWrite("act", prepare, [&] { return operations->ExecuteAction(radar, 15); });
  atEveryWrite("memory", prepare, [&] { return operations->ReadMemory(radar, 0x20, 300, memory.data()); });
  bridge->shared_status = nullptr;
  DO(write(0x10, 2, 1));
}

TEST_P(Models, OperationsThatAreMissing) {
  create(GetParam());
  uint32_t words[2] = {};
  double number = 0;
  float single = 0;
  radar->interface_handle = nullptr;
  DO(operations->calculateCDF_Size(chip, words, nullptr), operations->getCDF(chip, nullptr, 2),
     operations->getTimingMeasurementResults(chip, &number, 1), operations->measurementSaveDataToFlash(chip, 0),
     operations->measurementLoadDataFromFlash(chip, 0), operations->CaptureFrame(chip, words, 2, 0),
     operations->NormalizeFrameDouble(chip, nullptr, &number, 1),
     operations->NormalizeFrameFloat(chip, nullptr, &single, 1));
  radar->interface_handle = bridge;
}

TEST_F(Models, Layer) {
  char text[100];
  for (int32_t size : {72, 71, 54, 18, 17, 1, 0}) {
    std::memset(text, '#', sizeof text);
    DO_FOR(size, chipListSupportedChips(text, size), std::string(text, 100).substr(0, 80));
  }
  create("QTX3701");
  ChipHandle *other = nullptr;
  for (const char *name : {"qtx3701", "LAST", ""})
    DO_FOR(name, chipInitHandle(&other, &radar->error, radar, name), other);
  DO(chipListSupportedChips(nullptr, 72), chipIdToChipName(0),
     chipInitHandle(&other, &radar->error, nullptr, "QTX3701"), chipInitHandle(&other, &radar->error, radar, nullptr),
     chipInitHandle(nullptr, &radar->error, radar, "QTX3701"), chipInitHandle(&other, nullptr, radar, "QTX3701"),
     chipInitChip(nullptr), chipFree(&other, nullptr), chipFree(nullptr, nullptr),
     chipGetConnectedChipName(&other, &radar->error, nullptr, text),
     chipGetConnectedChipName(&other, &radar->error, radar, nullptr), chipListVariables(nullptr, text, 100),
     chipListActions(nullptr, text, 100));
  chip->name = "QTX9999";
  DO(chipFree(&radar->chip, nullptr), radar->chip);
  chip->name = "QTX3701";
  VariableSet *kept = std::exchange(chip->variables, nullptr);
  DO(chipListVariables(chip, text, 100), chipListActions(chip, text, 100));
  chip->variables = kept;
}

class SecondGeneration : public Radar {};

TEST_F(SecondGeneration, DependentsFailuresAndVerification) {
  start();
  const auto real_edge = [&](const char *name, double number) { return setReal(name, number); };
  DO(real_edge("ZoomMin", 50), real_edge("ZoomMax", 50), set("DACStep", 16), set("FrameStitch", 4),
     set("BytesPerCounter", 2), set("Downsampling", 2), get("SamplersPerFrame"), get("BytesPerFrame"),
     real_edge("SamplesPerSecond", 18e9), real("FrameSize"), real_edge("OffsetDistanceFromReference", 1.5),
     values({"SampleDelayFromReference", "SampleDelay", "SDCT", "SDMT", "SDFT", "StaggeredPRFDelay"}),
     real_edge("SampleDelayToReference", 1e-9), values({"SampleDelay", "SDCT", "SDMT", "SDFT", "StaggeredPRFDelay"}),
     set("DACMin", 100), real_edge("ZoomMin", 40), set("DACMin", VAR_AUTO));
  atEveryWrite(
      "a change with dependents", [&] { start(); }, [&] { return setReal("SampleDelay", 25.7e-9); },
      [&] {
        return values({"SampleDelay", "SDCT", "SDMT", "SDFT", "StaggeredPRFDelay"});
      });
  start();
  QTXSim_ChipStickBits(0, 0x3b, uint64_t{1} << 13, 0);
  DO(set("DACStepCoarse", 9), get("DACStepCoarse"));
  uint64_t wide = 1;
  QTXSim_FailCall("Write", 1, 1, 4);
  DO(varGetValue(variables, named("FMeasResult"), &wide), wide,
     (QTXSim_SetChipRegister(0, 0x31, 77), get("PulsesPerStep")));
  say("live reads measure and are not kept");
  DO(set("MClkDiv", 2), get("MCLKFrequency_LiveRead"), set("StaggeredPRFDelay", 3),
     real("FrameOffsetDelayTime_LiveRead"), set("TimingMeasurementRawValue", 9),
     real("TimingMeasurementValue_LiveRead"), get("TimingMeasurementRawValue"), named("MCLKFrequency_LiveRead")->value);
  for (uint64_t divider = 0; divider < 9; ++divider) {
    named("MClkDiv")->value = divider;
    DO_FOR(static_cast<int64_t>(divider), QTX3701_MCLK_frequency(variables));
  }
  named("MClkEnable")->value = 0;
  DO(QTX3701_MCLK_frequency(variables), QTX3701_MCLK_frequency(nullptr));
}

}  // namespace
}  // namespace pulsekit::test
