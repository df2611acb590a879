// Boards and their flash on the simulated bench: what they put on the wire, and what becomes of failures.
#include "module/module.h"

#include "bridge.h"
#include "module/common/serialFlash.h"

namespace pulsekit::test {
namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint32_t kFlash = 1;

Bytes counting(size_t count) {
  Bytes bytes(count);
  for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<uint8_t>(i + 1);
  return bytes;
}

class Module : public Bridge {
 protected:
  Module() { kinds = QTXSIM_EVENT_SPI | QTXSIM_EVENT_PIN; }
  ~Module() override { moduleFree(&radar->module, nullptr); }

  // A bench with this board on it, connected but not powered; the handle is for the driver of that name.
  void plugIn(const char *board) {
    moduleFree(&radar->module, nullptr);
    clearBench();
    ASSERT_EQ(QTXSim_AddRadar("FT0001AB", "Radar", QTXSIM_FT232H, board, "QTX3701"), 0);
    open("FTx232H");
    ASSERT_EQ(connect(), 0);
    watchLock();
  }
  void create(const char *board) {
    plugIn(board);
    ASSERT_EQ(moduleInitHandle(&radar->module, &radar->error, radar, board), 0);
    module = radar->module;
  }
  void start(const char *board) {
    create(board);
    ASSERT_EQ(moduleInitModule(module), 0);
  }
  // With the lock that the functions of the flash want to be held; transfers from the n-th on fail.
  void startFlash() {
    start("QTX-K225");
    bridge->Lock(bridge);
  }
  std::string detect(QTX_Handle *owner) {
    char name[64] = "";
    const int32_t code = moduleGetConnectedModuleName(&owner->module, &owner->error, owner, name);
    EXPECT_EQ(owner->module, nullptr);
    return std::to_string(code) + " " + name;
  }
  std::string stored(uint32_t address, uint32_t count) {
    Bytes bytes(count);
    QTXSim_FlashRead(0, address, bytes.data(), count);
    size_t used = count;
    while (used > 0 && bytes[used - 1] == 0xff) --used;
    return hex(bytes.data(), std::min<size_t>(used, 4)) + format(" %zu", used);
  }

  ModuleHandle *module = nullptr;
  Bytes data = counting(70000), answer = Bytes(70000, 0x55);
};

TEST_F(Module, PowersUpInOrderReadsTheNameAndAppliesTheSettings) {
  for (const char *board : {"QTX-K225", "QTX-K265", "DEFAULT"}) {
    DO(create(board), module->driver_name, module->board_name, module->variables, module->error_state == radar->error,
       moduleInitModule(module), module->board_name, module->InitModule(module));
    atEveryWrite(
        board, [&] { create(board); }, [&] { return moduleInitModule(module); },
        [&] { return " " + show(module->board_name); });
    plugIn("");
    moduleInitHandle(&radar->module, &radar->error, radar, board);
    DO(moduleInitModule(radar->module));
  }
  for (const char *name : {"QTX-K225E", "QTX-K235", "QTX-K235E", "QTX-K245", "QTX-K245E"})
    DO_FOR(name, (create(name), module->driver_name));
  moduleFree(&radar->module, nullptr);
  for (const char *name : {"qtx-k225", "QTX-K225 ", "QTX-K22", "LAST", "", "Unknown", "default"}) {
    DO_FOR(name, moduleInitHandle(&radar->module, &radar->error, radar, name), radar->module);
  }
}

TEST_F(Module, VariablesAndActionsDriveTheirPins) {
  char text[256];
  for (const char *board : {"QTX-K245", "QTX-K265"}) {
    start(board);
    VariableSet *set = module->variables;
    uint64_t now = 0;
    const auto put = [&](const char *name, const char *to) { return varSetValue_ByString(set, name, to); };
    const auto pulse = [&] { return varActionTrigger(set, varActionNamed(set, "ClockPulseOut")); };
    DO(put("RadarModulePower", "PowerOff"), put("RadarModulePower", "PowerOn"), put("MCLK_RFBoardSelect", "External"),
       put("MCLK_RFBoardSelect", "OnBoard"), put("AddressOfVariableStorage", "4096"), put("FlashBlockSize", "1"),
       pulse());
    for (const char *name : {"BoardVersion", "AddressOfVariableStorage", "FlashBlockSize"})
      DO(varGetValue_ByName(set, name, &now), now);
    say("a failing pin is no failure of a variable, but one of an action");
    DO((QTXSim_FailCall("Write", 1, 1, 4), put("RadarModulePower", "PowerOff")), put("MCLK_RFBoardSelect", "External"));
    atEveryWrite(
        "pulse", [&] { start(board), set = module->variables; }, pulse);
    DO(moduleListVariables(module, text, 256), text, moduleListActions(module, text, 256), text);
  }
}

TEST_F(Module, BoardInformationAndFlashMemory) {
  for (const char *board : {"QTX-K225", "QTX-K265", "DEFAULT"}) {
    start(board);
    for (int32_t length : {200, 128, 40, 0, -1}) {
      DO_FOR(length, module->ReadBoardInfo(module, answer.data(), length),
             module->ProgramBoardInfo(module, data.data() + 1, length));
    }
    EXPECT_EQ(answer[128], 0x55);
    DO(module->ReadBoardInfo(module, nullptr, 8), module->ProgramBoardInfo(module, nullptr, 8),
       module->ReadFlashMemory(module, 0x80, answer.data(), 4), module->WriteFlashMemory(module, 0x80, data.data(), 4),
       module->WriteFlashMemory(module, 0xf000, data.data(), 4),
       module->ReadFlashMemory(module, 0xf000, answer.data(), 4));
    say("without the parts of the bridge that they need");
    bridge->SetIO = nullptr;
    bridge->SendReceiveSPI = nullptr;
    DO(moduleInitModule(module), module->ReadBoardInfo(module, answer.data(), 4),
       module->ProgramBoardInfo(module, data.data(), 4));
    bridge->SetIO_Direction = nullptr;
    DO(moduleInitModule(module));
    radar->interface_handle = nullptr;
    DO(moduleInitModule(module), module->ReadBoardInfo(module, answer.data(), 4), moduleFree(&radar->module, nullptr));
    radar->interface_handle = bridge;
    say("without an owner");
    ModuleHandle *alone = nullptr;
    QTX_StackTrace *shared = nullptr;
    QTX_StackTraceInit(&shared, nullptr);
    DO(moduleInitHandle(&alone, nullptr, nullptr, board), moduleInitModule(alone), alone->error_state->code,
       moduleFree(&alone, nullptr), alone, moduleInitHandle(&alone, nullptr, nullptr, board),
       moduleFree(&alone, &alone->error_state), moduleInitHandle(&alone, &shared, nullptr, board),
       moduleFree(&alone, &shared), shared);
  }
}

TEST_F(Module, MissingArguments) {
  char text[256];
  for (int32_t size : {161, 160, 20, 1, 0, -1}) {
    std::memset(text, '~', sizeof text);
    DO_FOR(size, moduleListSupportedModules(text, size), std::string(text, 256).substr(0, 256).find('~'));
  }
  DO(moduleListSupportedModules(text, 161), text, moduleListSupportedModules(nullptr, 100));
  start("DEFAULT");
  DO(moduleListVariables(module, text, 64), moduleListActions(module, text, 64), moduleListVariables(nullptr, text, 64),
     moduleListActions(nullptr, text, 64), (module->InitModule = nullptr, moduleInitModule(module)),
     moduleInitModule(nullptr), moduleInitHandle(nullptr, &radar->error, radar, "DEFAULT"),
     moduleFree(nullptr, nullptr), moduleFree(&radar->module, nullptr), moduleFree(&radar->module, nullptr),
     moduleInitHandle(&module, &radar->error, radar, nullptr),
     moduleGetConnectedModuleName(nullptr, &radar->error, radar, text),
     moduleGetConnectedModuleName(&module, &radar->error, radar, nullptr),
     moduleGetConnectedModuleName(&module, nullptr, nullptr, text), text);
}

TEST_F(Module, EachBoardIsDetectedByItsName) {
  for (const char *name : {"QTX-K225", "QTX-K225E", "QTX-K265", "QTX-K235E  ", "QTX-K2", "qtx-k225", "DEFAULT", ""}) {
    plugIn(name);
    kinds = QTXSIM_EVENT_SPI;
    DO_FOR(name, detect(radar), QTXSim_Calls("Write"));
  }
  for (int32_t idle : {0, 1})
    DO_FOR("no flash", (plugIn("QTX-K225"), QTXSim_FlashPresent(0, 0), QTXSim_SetIdleLevel(0, idle), detect(radar)));
  DO_FOR("a lost answer", (plugIn("QTX-K245"), QTXSim_LoseAnswer(0, 10, 5), detect(radar)));
  for (uint32_t nth : {1, 6, 7, 49, 54, 65, 69}) {
    DO_FOR(nth, (plugIn("QTX-K2"), QTXSim_FailCall("Write", nth, 1, 4), kinds = 0, detect(radar)));
  }
  for (uint32_t call : {1u, 7u, 20u}) DO_FOR(call, (plugIn("QTX-K265"), QTXSim_UnplugAtCall(0, call), detect(radar)));
}

TEST_F(Module, FlashOperations) {
  startFlash();
  InterfaceHandle *b = bridge;
  char text[40] = "";
  const auto block = [&](uint32_t address) { return sFlashErase4kBlock(bridge, kFlash, address), 0; };
  DO(sflashEraseChip(b, 1), block(0x123456), sflashWritePage(b, 1, 0xabcd00, data.data(), 256),
     sflashWritePage(b, 1, 0xff, data.data(), 1), sflashProgramOtpRegister(b, 1, 32, data.data() + 1, 3),
     sflashProgramOtpRegister(b, 1, 32, data.data(), 0), sflashReadBuffer(b, 1, 0xabcd80, answer.data(), 7),
     sflashReadMemory(b, 1, 0xf000, answer.data(), 3), sflashReadOtpRegister(b, 1, 31, answer.data(), 5),
     sflashGetBoardName(b, 1, text, 32), text, sflashGetBoardID(b, 1, text, 32), hex(text, 33), sflashTest(b, 1));
  for (uint32_t length : {0, 1, 255, 256, 257, 300, 4096}) {
    answer.assign(70000, 0x55);
    for (uint32_t beside : {0xefffu, 0xf000u, 0x10000u}) QTXSim_FlashWrite(0, beside, data.data(), 1);
    DO_FOR(length, sflashWriteMemory(b, 1, 0xf000, data.data(), length), stored(0xefff, 1), stored(0xf000, 4096),
           stored(0x10000, 1), sflashReadMemory(b, 1, 0xf000, answer.data(), static_cast<int32_t>(length)));
    EXPECT_TRUE(std::equal(answer.begin(), answer.begin() + length, data.begin()));
    EXPECT_EQ(answer[length], 0x55) << length;
  }
  say("what fails is told in the record only");
  const struct {
    const char *name;
    std::function<void()> arrange;
  } faults[] = {{"error bit", [&] { QTXSim_FlashFailErase(0, 1, 1), QTXSim_FlashFailProgram(0, 1, 1); }},
                {"busy", [&] { QTXSim_FlashStayBusy(0, 1); }},
                {"missing, low", [&] { QTXSim_FlashPresent(0, 0); }},
                {"missing, high", [&] { QTXSim_FlashPresent(0, 0), QTXSim_SetIdleLevel(0, 1); }}};
  for (const auto &fault : faults) {
    startFlash();
    fault.arrange();
    DO_FOR(fault.name, sflashEraseChip(bridge, 1), block(0), sflashWritePage(bridge, 1, 0, data.data(), 16),
           sflashProgramOtpRegister(bridge, 1, 40, data.data() + 1, 4),
           sflashProgramOtpRegister(bridge, 1, 40, data.data(), 4),
           sflashWriteMemory(bridge, 1, 0xf000, data.data(), 600));
    QTXSim_ClearFaults();
    QTXSim_SetIdleLevel(0, 0);
    DO_FOR("later", sflashWriteMemory(bridge, 1, 0xf000, data.data(), 600), stored(0xf000, 4096));
  }
  for (uint32_t nth : {1, 2, 5, 18, 19})
    DO_FOR(nth, (startFlash(), QTXSim_FlashFailProgram(0, nth, 1), kinds = 0, sflashTest(bridge, 1)));
}

TEST_F(Module, PollsEndWhereTheyShould) {
  static uint32_t busy_polls;  // answers that say busy
  startFlash();
  bridge->SendReceiveSPI = [](InterfaceHandle *b, uint32_t channel, const uint8_t *out, int32_t out_count, uint8_t *in,
                              uint32_t in_count, int32_t mode) {
    if (out[0] != 0x05) return driver.SendReceiveSPI(b, channel, out, out_count, in, in_count, mode);
    in[0] = busy_polls > 0 ? (--busy_polls, uint8_t{1}) : uint8_t{0};
    return 0;
  };
  for (const auto &row : {std::pair{0u, true}, {2u, true}, {198u, true}, {199u, true}, {498u, false}, {499u, false}}) {
    busy_polls = row.first;
    DO_FOR(row.first, row.second ? sflashEraseChip(bridge, 1) : sflashWritePage(bridge, 1, 0, data.data(), 16),
           busy_polls);
  }
  DO((busy_polls = 1000, sflashProgramOtpRegister(bridge, 1, 0, data.data(), 4)), busy_polls);
}

TEST_F(Module, EveryTransferOfTheFlashCanFail) {
  char text[32];
  const struct {
    const char *name;
    std::function<int32_t()> run;
  } operations[] = {{"erase chip", [&] { return sflashEraseChip(bridge, 1); }},
                    {"erase block", [&] { return sFlashErase4kBlock(bridge, 1, 0), 0; }},
                    {"page", [&] { return sflashWritePage(bridge, 1, 0, data.data(), 16); }},
                    {"memory", [&] { return sflashWriteMemory(bridge, 1, 0, data.data(), 300); }},
                    {"OTP", [&] { return sflashProgramOtpRegister(bridge, 1, 40, data.data() + 1, 2); }},
                    {"read", [&] { return sflashReadMemory(bridge, 1, 0, answer.data(), 16); }},
                    {"read OTP", [&] { return sflashReadOtpRegister(bridge, 1, 0, answer.data(), 64); }},
                    {"name", [&] { return sflashGetBoardName(bridge, 1, text, 32); }},
                    {"ID", [&] { return sflashGetBoardID(bridge, 1, text, 32); }}};
  for (const auto &operation : operations)
    atEveryWrite(
        operation.name, [&] { startFlash(); }, operation.run, [&] { return format(" %d", answer[0]); });
  // Of the self-test only the steps: its busy polls are many.
  for (uint32_t nth : {1, 2, 104, 107, 109, 112, 230})
    DO_FOR(nth, (startFlash(), QTXSim_FailCall("Write", nth, 1, 4), kinds = 0, sflashTest(bridge, 1)));
}

TEST_F(Module, NamesLoseTheirPadding) {
  const std::string nul(1, '\0');
  startFlash();
  char text[40] = "";
  for (const auto &[name, fill] : {std::pair<std::string, char>{"", '\xff'},
                                   {"", '\0'},
                                   {"", ' '},
                                   {"QTX-K225", '\xff'},
                                   {"QTX-K265", ' '},
                                   {"A B" + nul + "\xff ", '\xff'},
                                   {" A" + nul + "B", ' '},
                                   {std::string(32, 'x'), 'x'}}) {
    std::string otp = name;
    otp.resize(32, fill);
    for (uint32_t offset : {0u, 32u}) QTXSim_OtpWrite(0, offset, reinterpret_cast<const uint8_t *>(otp.data()), 32);
    std::memset(text, 'U', sizeof text);
    kinds = 0;
    DO_FOR(show(otp), sflashGetBoardName(bridge, 1, text, 32), std::string(text, 33),
           sflashGetBoardID(bridge, 1, text, 32), std::string(text, 33));
  }
}

TEST_F(Module, FlashRefusesBadInput) {
  startFlash();
  char text[32];
  uint8_t *in = answer.data();
  const uint8_t *out = data.data();
  const auto erase = [](InterfaceHandle *b, uint32_t address) { return sFlashErase4kBlock(b, 1, address), 0; };
  for (InterfaceHandle *b : {bridge, static_cast<InterfaceHandle *>(nullptr)}) {
    DO(sflashReadMemory(b, 1, 0x80, in, 1), sflashWriteMemory(b, 1, 0x1001, out, 1),
       sflashReadMemory(b, 1, 0x1000000, in, 1), sflashReadMemory(b, 1, 0xffff00, in, 257),
       sflashReadOtpRegister(b, 1, 0xffffff, in, 2), sflashWriteMemory(b, 1, 0x1000000, out, 1),
       sflashWriteMemory(b, 1, 0xffff00, out, 257), erase(b, 0xf1000000), sflashWritePage(b, 1, 0xffffff, out, 2),
       sflashReadBuffer(b, 1, 0x1000000, in, 0), sflashProgramOtpRegister(b, 1, -1, out, 1),
       sflashWritePage(b, 1, 0, out, 257), sflashProgramOtpRegister(b, 1, 0, out, 65533),
       sflashReadOtpRegister(b, 1, 0, in, 65537), sflashReadOtpRegister(b, 1, 0, in, -1),
       sflashReadOtpRegister(b, 1, 0x1000000, in, 1), sflashReadMemory(b, 1, 0, in, -2147483647),
       sflashReadMemory(b, 1, 0, in, 65537), sflashGetBoardName(b, 1, text, 31), sflashGetBoardID(b, 1, text, -32),
       sflashGetBoardName(b, 1, nullptr, 32), sflashGetBoardID(b, 1, nullptr, 32),
       sflashWriteMemory(b, 1, 0, nullptr, 1), sflashWritePage(b, 1, 0, nullptr, 1),
       sflashProgramOtpRegister(b, 1, 0, nullptr, 1), sflashReadBuffer(b, 1, 0, nullptr, 1),
       sflashReadOtpRegister(b, 1, 0, nullptr, 1));
  }
  EXPECT_EQ(answer, Bytes(70000, 0x55));
  DO(sflashReadMemory(bridge, 1, 0, in, 65536), sflashEraseChip(nullptr, 1),
     (bridge->SendReceiveSPI = nullptr, sflashReadMemory(bridge, 1, 0, in, 8)));
  EXPECT_EQ(answer[65536], 0x55);
}

}  // namespace
}  // namespace pulsekit::test
