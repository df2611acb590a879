// Register, memory and action transactions of both generations as they go over the wire.
#include <gtest/gtest.h>

#include "FakeRadar.h"
#include "support/QTX_ErrorCodes.h"

using namespace pulsekit;

namespace {

// A chip handle that nothing has been written through.
class Access : public ::testing::TestWithParam<const char *> {
 protected:
  explicit Access(ByteOrder order) : radar(order) {
    EXPECT_EQ(chipInitHandle(&radar.handle.chip, &radar.handle.error, &radar.handle, GetParam()), 0) << radar.trace();
    radar.log.clear();
  }

  ChipOperations &chip() { return radar.handle.chip->operations; }
  std::string function(const std::string &name) const { return std::string(GetParam()) + "_" + name; }
  std::string frame(const std::string &name) const {
    return function(name) + " in src/chip/" + GetParam() + "/" + GetParam() + ":";
  }

  // What every model refuses, and that a refusal sends nothing.
  void expectRefusals() {
    uint64_t value = 99;
    uint8_t byte = 0;
    QTX_Handle *handle = &radar.handle;
    EXPECT_EQ(chip().ReadRegister(handle, 2, 9, &value), kBufferTooSmall);
    EXPECT_EQ(value, 0u);
    EXPECT_EQ(chip().WriteRegister(handle, 2, 9, 0), kError);
    EXPECT_EQ(chip().ExecuteAction(handle, 128), kError);
    EXPECT_EQ(chip().ReadRegister(handle, 2, 2, nullptr), kError);
    EXPECT_EQ(chip().ReadMemory(handle, 0x20, 2, nullptr), kError);
    EXPECT_EQ(chip().ReadRegister(nullptr, 2, 2, &value), kRadarNotInitialized);
    EXPECT_EQ(chip().WriteRegister(nullptr, 2, 2, 0), kRadarNotInitialized);
    EXPECT_EQ(chip().ExecuteAction(nullptr, 1), kRadarNotInitialized);
    EXPECT_EQ(chip().ReadMemory(nullptr, 0x20, 1, &byte), kRadarNotInitialized);
    EXPECT_EQ(radar.log, Log{});

    handle->interface_handle = nullptr;
    EXPECT_EQ(chip().ReadRegister(handle, 2, 2, &value), kInterfaceNotInitialized);
    EXPECT_EQ(chip().WriteRegister(handle, 2, 2, 0), kInterfaceNotInitialized);
    EXPECT_EQ(chip().ExecuteAction(handle, 1), kInterfaceNotInitialized);
    EXPECT_EQ(chip().ReadMemory(handle, 0x20, 4, &byte), kInterfaceNotInitialized);
    EXPECT_EQ(handle->error->code, kInterfaceNotInitialized);
    EXPECT_NE(radar.trace().find("   at: " + frame("ReadMemory")), std::string::npos) << radar.trace();
  }

  void expectFailuresPassedOn() {
    uint64_t value = 99;
    uint8_t bytes[300];
    radar.fault = [](const std::string &) { return kInterfaceTimeout; };
    const std::pair<const char *, std::function<int32_t()>> calls[] = {
        {"ReadRegister", [&] { return chip().ReadRegister(&radar.handle, 2, 2, &value); }},
        {"WriteRegister", [&] { return chip().WriteRegister(&radar.handle, 2, 2, 1); }},
        {"ReadMemory", [&] { return chip().ReadMemory(&radar.handle, 0x20, sizeof bytes, bytes); }},
        {"ExecuteAction", [&] { return chip().ExecuteAction(&radar.handle, 15); }},
    };
    for (const auto &[name, call] : calls) {
      radar.handle.error->trace[0] = '\0';
      EXPECT_EQ(call(), kInterfaceTimeout) << name;
      EXPECT_EQ(std::string(radar.handle.error->trace).rfind("   at: " + frame(name), 0), 0u) << radar.trace();
      EXPECT_EQ(radar.lock_depth, 0) << name;
    }
    EXPECT_EQ(value, 0u);
  }

  // Writes wait for the end of the sweep while a radar is open, and only then.
  void expectPolling(const std::string &written) {
    const auto write = [&] { return chip().WriteRegister(&radar.handle, 0x10, 2, 0x1234); };
    radar.busy_polls = 3;
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(radar.log, Log{written});

    radar.log.clear();
    radar.open = 1;
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(radar.log, (Log{"47 02 <2", "47 02 <2", "47 02 <2", "47 02 <2", written}));
    EXPECT_EQ(radar.lock_depth, 0);

    radar.log.clear();
    radar.fault = [](const std::string &line) { return line == "47 02 <2" ? kInterfaceTimeout : kSuccess; };
    EXPECT_EQ(write(), kInterfaceTimeout);
    EXPECT_EQ(radar.log, Log{});
    EXPECT_EQ(radar.lock_depth, 0);
    const std::string trace = radar.handle.error->trace;
    EXPECT_NE(trace.find(frame("ReadRegister_local")), std::string::npos) << trace;
    EXPECT_NE(trace.find("from: " + frame("WriteRegister")), std::string::npos) << trace;

    radar.bridge.shared_status = nullptr;
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(radar.log, Log{written});
  }

  FakeRadar radar;
};

class SecondGeneration : public Access {
 protected:
  SecondGeneration() : Access(ByteOrder::kLeastFirst) {}
};

class FirstGeneration : public Access {
 protected:
  FirstGeneration() : Access(ByteOrder::kMostFirst) {
    radar.busy_status = 0x8000;
    radar.idle_status = 0x7fff;
  }
};

INSTANTIATE_TEST_SUITE_P(Models, SecondGeneration, ::testing::Values("QTX3701", "QTX3702"),
                         [](const auto &model) { return std::string(model.param); });
INSTANTIATE_TEST_SUITE_P(Models, FirstGeneration, ::testing::Values("QTX3400", "QTX3500"),
                         [](const auto &model) { return std::string(model.param); });

TEST_P(SecondGeneration, FramesTransactionsLeastSignificantByteFirst) {
  QTX_Handle *handle = &radar.handle;
  uint64_t value = 0;
  std::vector<uint8_t> memory(1024);
  radar.registers[2] = 0x0309;
  radar.registers[0x6d] = 0x7766554433221100;
  radar.memory[1023] = 0xab;

  EXPECT_EQ(chip().ReadRegister(handle, 2, 2, &value), 0);
  EXPECT_EQ(value, 0x0309u);
  EXPECT_EQ(chip().ReadRegister(handle, 0xed, 8, &value), 0);
  EXPECT_EQ(value, 0x7766554433221100u);
  EXPECT_EQ(chip().WriteRegister(handle, 0x10, 2, 0x1234), 0);
  EXPECT_EQ(chip().WriteRegister(handle, 0x31, 3, 0xff123456), 0);
  EXPECT_EQ(chip().WriteRegister(handle, 0x10, 0, 0x1234), 0);
  EXPECT_EQ(chip().WriteRegister(handle, 0x10, -5, 0x1234), 1);
  EXPECT_EQ(chip().WriteRegister(handle, 0x6d, 8, 0x0102030405060708), 0);
  EXPECT_EQ(chip().ExecuteAction(handle, 93), 0);
  EXPECT_EQ(chip().ReadMemory(handle, 0x20, 1024, memory.data()), 0);
  EXPECT_EQ(memory[1023], 0xab);
  EXPECT_EQ(radar.log, (Log{"02 02 <2", "6d 08 <8", "90 02 34 12", "b1 03 56 34 12", "90 00",
                            "ed 08 08 07 06 05 04 03 02 01", "dd 00", "20 7f <1024"}));
  EXPECT_FALSE(radar.unlocked_access);
  EXPECT_EQ(radar.lock_depth, 0);
}

TEST_P(FirstGeneration, FramesTransactionsMostSignificantByteFirstAndWidensThreeBytes) {
  QTX_Handle *handle = &radar.handle;
  uint64_t value = 0;
  radar.registers[2] = 0x0305;
  radar.registers[0x31] = 0x89abcdef;

  EXPECT_EQ(chip().ReadRegister(handle, 2, 2, &value), 0);
  EXPECT_EQ(value, 0x0305u);
  EXPECT_EQ(chip().ReadRegister(handle, 0x31, 3, &value), 0);
  EXPECT_EQ(value, 0x89abcdefu);
  EXPECT_EQ(chip().ReadRegister(handle, 0x31, 0, &value), 0);
  EXPECT_EQ(value, 0u);
  EXPECT_EQ(chip().WriteRegister(handle, 0x10, 3, 0x123456), 0);
  EXPECT_EQ(chip().WriteRegister(handle, 0x10, 2, 0xff1234), 0);
  EXPECT_EQ(chip().WriteRegister(handle, 0x10, 8, 0x0102030405060708), 0);
  EXPECT_EQ(chip().ExecuteAction(handle, 93), 0);
  EXPECT_EQ(radar.log, (Log{"02 02 <2", "31 04 <4", "31 00", "90 04 00 12 34 56", "90 02 12 34",
                            "90 08 01 02 03 04 05 06 07 08", "dd 00"}));
  EXPECT_FALSE(radar.unlocked_access);
  EXPECT_EQ(radar.lock_depth, 0);
}

TEST_P(FirstGeneration, ReadsMemoryInBurstsThatShareOneRoundTrip) {
  const struct {
    uint32_t length;
    Log log;
  } cases[] = {
      {300, {"20 7f <127 queue", "20 ff <127 queue", "20 ae <46 queue", " <300 collect"}},
      {127, {"20 7f <127 queue", " <127 collect"}},
      {128, {"20 7f <127 queue", " <128 collect"}},
      {129, {"20 7f <127 queue", "20 82 <2 queue", " <129 collect"}},
      {2, {"20 02 <2 queue", " <2 collect"}},
      {1, {" <1 collect"}},
  };
  for (size_t i = 0; i < radar.memory.size(); ++i) radar.memory[i] = static_cast<uint8_t>(i);
  for (const auto &c : cases) {
    radar.log.clear();
    std::vector<uint8_t> buffer(c.length);
    EXPECT_EQ(chip().ReadMemory(&radar.handle, 0x20, c.length, buffer.data()), 0);
    EXPECT_EQ(radar.log, c.log) << c.length;
    EXPECT_EQ(buffer.back(), static_cast<uint8_t>(c.length - 1));
    EXPECT_EQ(radar.lock_depth, 0);
  }
}

TEST_P(FirstGeneration, StopsReadingMemoryAtABurstThatCannotBeQueued) {
  uint8_t buffer[300];
  radar.fault = [](const std::string &line) { return line == "20 ff <127 queue" ? kBufferTooSmall : kSuccess; };
  EXPECT_EQ(chip().ReadMemory(&radar.handle, 0x20, sizeof buffer, buffer), kBufferTooSmall);
  EXPECT_EQ(radar.log, Log{"20 7f <127 queue"});
  EXPECT_EQ(radar.lock_depth, 0);
}

TEST_P(SecondGeneration, RefusesWhatTheBusCannotCarry) { expectRefusals(); }
TEST_P(FirstGeneration, RefusesWhatTheBusCannotCarry) { expectRefusals(); }
TEST_P(SecondGeneration, PassesBridgeFailuresOn) { expectFailuresPassedOn(); }
TEST_P(FirstGeneration, PassesBridgeFailuresOn) { expectFailuresPassedOn(); }
TEST_P(SecondGeneration, WritesWaitForTheSweepOnceARadarIsOpen) { expectPolling("90 02 34 12"); }
TEST_P(FirstGeneration, WritesWaitForTheSweepOnceARadarIsOpen) { expectPolling("90 02 12 34"); }

}  // namespace
