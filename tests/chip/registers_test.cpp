// What variables of the second generation put on the wire: start-up, bit fields, dependents, verification.
#include <gtest/gtest.h>

#include "FakeRadar.h"
#include "support/QTX_ErrorCodes.h"

using namespace pulsekit;

namespace {

std::string hex(uint64_t value, int bytes) {
  std::string text;
  char byte[8];
  for (int i = 0; i < bytes; ++i, value >>= 8) {
    std::snprintf(byte, sizeof byte, " %02x", static_cast<unsigned>(value & 0xff));
    text += byte;
  }
  return text;
}

std::string written(int address, int bytes, uint64_t value) {
  return hex(static_cast<uint64_t>(address | 0x80), 1).substr(1) + hex(static_cast<uint64_t>(bytes), 1) +
         hex(value, bytes);
}

std::string verified(int address, int bytes) {
  return hex(static_cast<uint64_t>(address), 1).substr(1) + hex(static_cast<uint64_t>(bytes), 1) + " <" +
         std::to_string(bytes);
}

struct Field {
  const char *name;
  int high, low;
};

struct Register {
  int address, bytes;
  uint64_t at_start;
  std::vector<Field> fields;
};

const std::vector<Register> kRegisters = {
    {0x03, 1, 0x08, {{"MISOHiZEnable", 3, 3}, {"AsyncOutput", 2, 0}}},
    {0x21, 2, 0x0f80, {{"CounterMSb", 11, 7}, {"CounterLSb", 6, 2}, {"Downsampling", 1, 0}}},
    {0x26, 1, 0, {{"SampleEveryPulse", 0, 0}}},
    {0x2a, 1, 0, {{"SignalOverride", 3, 3}, {"SignalOverrideVal", 2, 2}, {"SICEnable", 1, 1}, {"VthOutEnable", 0, 0}}},
    {0x31, 3, 20, {{"PulsesPerStep", 23, 0}}},
    {0x32, 2, 10, {{"DACFirstIterationSetupTime", 15, 0}}},
    {0x33, 2, 1, {{"DACFirstStepSetupTime", 15, 0}}},
    {0x34, 2, 1, {{"DACRegularStepSetupTime", 15, 0}}},
    {0x35, 2, 0, {{"DACLastIterationHoldTime", 15, 0}}},
    {0x36, 2, 0, {{"DACLastStepHoldTime", 15, 0}}},
    {0x37, 2, 0, {{"DACRegularStepHoldTime", 15, 0}}},
    {0x38,
     1,
     0x01,
     {{"SweepInterleavingEnable", 3, 3}, {"SweepPhase", 2, 2}, {"Reserved", 1, 1}, {"AutoBidirEnable", 0, 0}}},
    {0x39, 2, 8184, {{"DACMax", 12, 0}}},
    {0x3a, 2, 0, {{"DACMin", 12, 0}}},
    {0x3b, 4, 0x10008, {{"DACStepCoarse", 25, 13}, {"DACStepFine", 12, 0}}},
    {0x3c, 2, 10, {{"Iterations", 15, 0}}},
    {0x50, 1, 0x05, {{"BiasOverride", 5, 5}, {"SendEveryPulse", 4, 4}, {"PGSelect", 3, 0}}},
    {0x51, 2, 0, {{"DACOverride", 13, 13}, {"DACOverrideVal", 12, 0}}},
    {0x58,
     5,
     0xa36024,
     {{"DCOTunerWaitCycles", 35, 20},
      {"DCOOutputDiv", 19, 19},
      {"DCOConfigVal", 18, 10},
      {"DCOEnable", 9, 9},
      {"MClkSource", 8, 8},
      {"MClkDiv", 7, 6},
      {"MClkEnable", 5, 5},
      {"DCOTunerEnable", 4, 4},
      {"FMeasEnable", 3, 3},
      {"MeasClkSource", 2, 2},
      {"MClkMeasMode", 1, 1},
      {"MeasClkEnable", 0, 0}}},
    {0x59, 4, 10000, {{"FMeasNumCycles", 31, 0}}},
    {0x5a, 4, 21100, {{"DCOTarget", 31, 0}}},
    {0x60, 1, 1, {{"PRFDivide", 7, 0}}},
    {0x61, 1, 0x7f, {{"LFSRBitEnable", 6, 1}, {"StaggeredPRFEnable", 0, 0}}},
    {0x62, 1, 0, {{"StaggeredPRFDelay", 7, 0}}},
    {0x64, 3, 0x90000, {{"LFSRTaps", 19, 0}}},
    {0x6a,
     1,
     0,
     {{"MClkShaper", 5, 5},
      {"SPDShaper", 4, 4},
      {"SDShaper", 3, 3},
      {"SDFTEnable", 2, 2},
      {"SPDFTEnable", 1, 1},
      {"FTCtrl", 0, 0}}},
    {0x6b, 1, 1, {{"SDCT", 5, 0}}},
    {0x6c, 1, 2, {{"SDMT", 5, 0}}},
    {0x6d, 8, 0, {{"SDFT", 62, 0}}},
    {0x6e, 1, 0, {{"SPDCT", 3, 0}}},
    {0x6f, 1, 0, {{"SPDMT", 5, 0}}},
    {0x70, 8, 0, {{"SPDFT", 62, 0}}},
    {0x71, 1, 0x22, {{"SDCTEnable", 5, 2}, {"SPDCTEnable", 1, 0}}},
    {0x76, 1, 0, {{"ClkOutEnable", 1, 1}, {"ClkOutSource", 0, 0}}},
    {0x7c,
     2,
     0xf4,
     {{"SWMeasClkSignalOverride", 10, 10},
      {"SWWaitCycles", 9, 3},
      {"SWMeasEnable", 2, 2},
      {"SWSweepMode", 1, 1},
      {"SDLMeasEnable", 0, 0}}},
    {0x7e, 5, 65535, {{"SWMeasTargetCycles", 39, 0}}},
};

uint64_t ones(const Field &field) { return ~uint64_t{0} >> (63 - (field.high - field.low)); }

class Registers : public ::testing::Test {
 protected:
  void SetUp() override { radar.start("QTX3701"); }
  FakeRadar radar;
};

class RegisterFields : public Registers, public ::testing::WithParamInterface<Register> {};

INSTANTIATE_TEST_SUITE_P(SecondGeneration, RegisterFields, ::testing::ValuesIn(kRegisters), [](const auto &test) {
  return "Register" + hex(static_cast<uint64_t>(test.param.address), 1).substr(1);
});

TEST_P(RegisterFields, TravelAloneAndTogetherInTheirBits) {
  const Register &r = GetParam();
  EXPECT_EQ(radar.registers[static_cast<size_t>(r.address)], r.at_start);
  for (const Field &field : r.fields) ASSERT_EQ(radar.set(field.name, 0), 0) << field.name << radar.trace();
  EXPECT_EQ(radar.registers[static_cast<size_t>(r.address)], 0u);

  const auto expectWrite = [&](const Field &field, uint64_t value) {
    Log expected = {written(r.address, r.bytes, value), verified(r.address, r.bytes)};
    if (r.address == 0x62) expected.push_back("ad 00");  // a new delay restarts the staggering
    EXPECT_EQ(radar.log, expected) << field.name;
  };
  for (const Field &field : r.fields) {
    radar.log.clear();
    ASSERT_EQ(radar.set(field.name, static_cast<int64_t>(ones(field))), 0) << field.name << radar.trace();
    expectWrite(field, ones(field) << field.low);
    ASSERT_EQ(radar.set(field.name, 0), 0);
  }
  uint64_t together = 0;
  for (const Field &field : r.fields) {
    radar.log.clear();
    ASSERT_EQ(radar.set(field.name, static_cast<int64_t>(ones(field))), 0) << field.name;
    together |= ones(field) << field.low;
    expectWrite(field, together);
  }
}

// One verified write a variable, registers of several variables as often as they have variables.
TEST(StartUp, WritesEveryVariableOnceInTheOrderOfDependencies) {
  const int level_1[] = {0x03, 0x03, 0x26, 0x21, 0x21, 0x21, 0x58, 0x58, 0x58, 0x58, 0x58, 0x58, 0x58,
                         0x58, 0x58, 0x58, 0x58, 0x58, 0x59, 0x5a, 0x6e, 0x6f, 0x64, 0x6a, 0x6a, 0x6a,
                         0x6a, 0x6a, 0x6a, 0x70, 0x76, 0x76, 0x60, 0x71, 0x71, 0x61, 0x61, 0x7e, 0x7c,
                         0x7c, 0x7c, 0x7c, 0x7c, 0x50, 0x50, 0x50, 0x3c, 0x31, 0x37, 0x32, 0x38, 0x38,
                         0x38, 0x38, 0x33, 0x34, 0x35, 0x3b, 0x36, 0x2a, 0x2a, 0x2a, 0x2a, 0x51, 0x51};
  const int level_2[] = {0x39, 0x3a, 0x3b};
  const int level_4[] = {0x6b, 0x6c, 0x6d, 0x62};
  std::map<int, const Register *> registers;
  size_t variables = 0;
  for (const Register &r : kRegisters) {
    registers[r.address] = &r;
    variables += r.fields.size();
  }
  Log expected;
  size_t writes = 0;
  const auto expect = [&](int address) {
    const Register &r = *registers.at(address);
    expected.push_back(written(address, r.bytes, r.at_start));
    expected.push_back(verified(address, r.bytes));
    ++writes;
  };
  for (int address : level_1) expect(address);
  for (int address : level_2) expect(address);
  for (int address : level_4) expect(address);
  expected.push_back("ad 00");
  EXPECT_EQ(writes, variables);

  for (const char *model : {"QTX3701", "QTX3702"}) {
    FakeRadar radar;
    ASSERT_EQ(chipInitHandle(&radar.handle.chip, &radar.handle.error, &radar.handle, model), 0);
    radar.handle.chip->sweep_idle = 0;
    radar.log.clear();
    ASSERT_EQ(chipInitChip(radar.handle.chip), 0) << radar.trace();
    EXPECT_EQ(radar.handle.chip->sweep_idle, 1u);
    // The first read, twice 14 readouts and the chip's name (values, then automatic values), 72 writes with their
    // read-backs, two actions.
    ASSERT_EQ(radar.log.size(), 1u + 2 * (14 + 1) + 2 * 72 + 2);
    const auto writing = radar.log.end() - static_cast<std::ptrdiff_t>(expected.size());
    EXPECT_EQ(Log(writing, radar.log.end()), expected) << model;
    EXPECT_EQ(Log(radar.log.begin(), radar.log.begin() + 2), (Log{"00 01 <1", "e3 00"}));
    // Before the first write only readouts are asked for their first values.
    for (auto line = radar.log.begin() + 2; line != writing; ++line) EXPECT_NE(line->find('<'), line->npos) << *line;
  }
}

TEST(StartUp, OfTheFirstGenerationOnlyReads) {
  for (const char *model : {"QTX3400", "QTX3500"}) {
    FakeRadar radar(ByteOrder::kMostFirst);
    ASSERT_EQ(chipInitHandle(&radar.handle.chip, &radar.handle.error, &radar.handle, model), 0);
    radar.handle.chip->sweep_idle = 0;
    radar.log.clear();
    ASSERT_EQ(chipInitChip(radar.handle.chip), 0) << radar.trace();
    EXPECT_EQ(radar.log.front(), "00 01 <1");
    EXPECT_EQ(radar.changes(), Log{});
    EXPECT_EQ(radar.handle.chip->sweep_idle, 1u);
  }
}

TEST(StartUp, SurvivesAFailingFirstReadButNoOther) {
  FakeRadar radar;
  ASSERT_EQ(chipInitHandle(&radar.handle.chip, &radar.handle.error, &radar.handle, "QTX3701"), 0);
  radar.fault = [](const std::string &line) { return line == "00 01 <1" ? kInterfaceTimeout : kSuccess; };
  EXPECT_EQ(chipInitChip(radar.handle.chip), 0);

  for (const char *failing : {"e3 00", "b1 03 14 00 00", "31 03 <3"}) {
    radar.fault = [&](const std::string &line) { return line == failing ? kInterfaceTimeout : kSuccess; };
    EXPECT_EQ(chipInitChip(radar.handle.chip), kInterfaceTimeout) << failing;
    EXPECT_NE(radar.trace().find("from: QTX3701_InitChip in src/chip/QTX3701/QTX3701:"), std::string::npos);
    EXPECT_EQ(radar.lock_depth, 0);
  }
}

struct Edge {
  const char *variable;
  double value;
  Log changes;
  std::map<std::string, double> dependents;
};

std::ostream &operator<<(std::ostream &out, const Edge &edge) { return out << edge.variable << " = " << edge.value; }

class Edges : public Registers, public ::testing::WithParamInterface<Edge> {
 protected:
  double value(const std::string &name) {
    const Variable *variable = radar.variable(name.c_str());
    return variable->flags & VAR_FLAG_FLOAT ? bitsToDouble(variable->value) : static_cast<double>(variable->value);
  }
};

// At 100 MHz a delay is whole clock periods of 10 ns, then steps of 1.25 ns, then steps of 42 ps.
Log delayWrites(int periods, int coarse, int medium) {
  return {written(0x6b, 1, static_cast<uint64_t>(coarse)), written(0x6c, 1, static_cast<uint64_t>(medium)),
          written(0x6d, 8, 0), written(0x62, 1, static_cast<uint64_t>(periods)), "ad 00"};
}

INSTANTIATE_TEST_SUITE_P(
    SecondGeneration, Edges,
    ::testing::Values(Edge{"ZoomMin", 50, {"ba 02 ff 0f"}, {{"DACMin", 4095}}},
                      Edge{"ZoomMax", 50, {"b9 02 ff 0f"}, {{"DACMax", 4095}}},
                      Edge{"DACStep", 16, {"bb 04 10 00 01 00"}, {{"DACStepFine", 16}}},
                      Edge{"FrameStitch", 4, {}, {{"SamplersPerFrame", 1024}, {"BytesPerFrame", 4096}}},
                      Edge{"BytesPerCounter", 2, {}, {{"SamplersPerFrame", 256}, {"BytesPerFrame", 512}}},
                      Edge{"Downsampling", 2, {"a1 02 82 0f"}, {{"SamplersPerFrame", 64}, {"BytesPerFrame", 256}}},
                      Edge{"SamplesPerSecond", 18e9, {}, {{"FrameSize", 256 / 18e9}}},
                      Edge{"OffsetDistanceFromReference",
                           1.5,
                           delayWrites(1, 0, 0),
                           {{"SampleDelayFromReference", 3 / 299792458.0},
                            {"SampleDelay", 3 / 299792458.0},
                            {"StaggeredPRFDelay", 1}}},
                      Edge{"SampleDelayToReference",
                           1e-9,
                           delayWrites(0, 1, 25),
                           {{"SampleDelay", 1e-9 + 0.4 / 299792458.0}, {"SDCT", 1}, {"SDMT", 25}}}));

TEST_P(Edges, TravelToTheHardware) {
  const Edge &edge = GetParam();
  const Variable *source = radar.variable(edge.variable);
  ASSERT_EQ(source->flags & VAR_FLAG_FLOAT ? radar.setReal(edge.variable, edge.value)
                                           : radar.set(edge.variable, static_cast<int64_t>(edge.value)),
            0)
      << radar.trace();
  EXPECT_EQ(radar.changes(), edge.changes);
  for (const auto &[name, expected] : edge.dependents) EXPECT_DOUBLE_EQ(value(name), expected) << name;
}

TEST_F(Registers, AFixedDependentStays) {
  ASSERT_EQ(radar.set("DACMin", 100), 0);
  radar.log.clear();
  EXPECT_EQ(radar.setReal("ZoomMin", 50), 0);
  EXPECT_EQ(radar.log, Log{});
  EXPECT_EQ(radar.get("DACMin"), 100);
  EXPECT_EQ(radar.set("DACMin", VAR_AUTO), 0);
  EXPECT_EQ(radar.changes(), Log{"ba 02 ff 0f"});
}

TEST_F(Registers, ABitThatDoesNotStickFailsTheWriteAndKeepsTheValue) {
  radar.stuck_low[0x3b] = uint64_t{1} << 13;
  EXPECT_EQ(radar.set("DACStepCoarse", 9), kVariableWrite);
  EXPECT_STREQ(radar.handle.error->message, "Write value not present when reading register.");
  EXPECT_EQ(radar.get("DACStepCoarse"), 9);
  const std::string trace = radar.handle.error->trace;
  EXPECT_EQ(trace.rfind("   at: spi_QTX3701_setreg_0x3b_59 in src/chip/QTX3701/QTX3701-registers-autogen:", 0), 0u)
      << trace;
}

TEST_F(Registers, EmptyPipeLineForgetsTheSweepThatWasStartedInAdvance) {
  radar.handle.chip->sweep_idle = 0;
  VariableSet *set = radar.handle.chip->variables;
  EXPECT_EQ(varActionTrigger(set, varActionNamed(set, "EmptyPipeLine")), 0);
  EXPECT_EQ(radar.handle.chip->sweep_idle, 1u);
  EXPECT_EQ(radar.log, Log{});
}

}  // namespace
