#include "QTX_K2x5.h"

#include <string_view>

#include "../../support/trace.h"
#include "../common/board.h"
#include "../common/serialFlash.h"

#define MODULE_TEXT(text) #text
#define MODULE_TEXT_OF(text) MODULE_TEXT(text)

namespace {

using namespace pulsekit;

constexpr const char kDriverName[] = MODULE_TEXT_OF(MODULE_DRIVER);
constexpr const char kSource[] = "src/module/" MODULE_TEXT_OF(MODULE_DRIVER) "/" MODULE_TEXT_OF(MODULE_DRIVER);

constexpr uint32_t kClockPulseMs = 30;

constexpr const BoardPins &kPins = std::string_view(kDriverName) == "QTX_K265" ? kPinsOfK265 : kPinsOfK2x5;

}  // namespace

const char *MODULE(Name)() { return kDriverName; }

int32_t MODULE(InitHandle)(ModuleHandle **out, QTX_StackTrace **error_state, QTX_Handle *owner) {
  if (int32_t code = createBoardHandle(out, error_state, owner, kDriverName)) {
    return origin(error_state ? *error_state : nullptr, HERE, code);
  }
  ModuleHandle &module = **out;
  if (int32_t code =
          MODULE_EXPAND(MODULE_EXPAND(vars, MODULE_DRIVER), InitHandle)(&module.variables, &module.error_state)) {
    passThrough(module.error_state, HERE, code);
    MODULE(FreeHandle)(out, nullptr);
    return code;
  }
  module.variables->owner = owner;
  module.InitModule = MODULE(InitModule);
  module.FreeHandle = MODULE(FreeHandle);
  module.ReadBoardInfo = MODULE(ReadBoardInfo);
  module.ProgramBoardInfo = MODULE(ProgramBoardInfo);
  module.ReadFlashMemory = MODULE(ReadFlashMemory);
  module.WriteFlashMemory = MODULE(WriteFlashMemory);
  return kSuccess;
}

int32_t MODULE(FreeHandle)(ModuleHandle **module, QTX_StackTrace **error_state_or_null) {
  MODULE_EXPAND(MODULE_EXPAND(vars, MODULE_DRIVER), FreeHandle)(&(*module)->variables);
  freeBoardHandle(module, error_state_or_null);
  return kSuccess;
}

int32_t MODULE(InitModule)(ModuleHandle *module) {
  const auto switchOn = [](InterfaceHandle *bridge) { return powerUp(bridge, kPins, OnFailure::kStop); };
  if (int32_t code = onBridge(*module, HERE, &InterfaceHandle::SetIO_Direction, switchOn)) return code;
  if (int32_t code = MODULE(ReadModuleId)(module, module->board_name, sizeof module->board_name)) {
    return passThrough(module->error_state, HERE, code);
  }
  if (int32_t code = varsInit(module->variables)) return passThrough(module->error_state, HERE, code);
  return kSuccess;
}

int32_t MODULE(SetIO)(QTX_Handle *owner, uint32_t pin, uint32_t level) {
  return onBridge(owner, owner ? owner->error : nullptr, HERE, &InterfaceHandle::SetIO,
                  [&](InterfaceHandle *bridge) { return bridge->SetIO(bridge, pin, level); });
}

int32_t MODULE(ClockPulseOut)(QTX_Handle *owner) {
  return onBridge(owner, owner ? owner->error : nullptr, HERE, &InterfaceHandle::SetIO, [&](InterfaceHandle *) {
    MODULE(SetIO)(owner, kPins.clock_output, 1);
    QTX_sleep_ms(kClockPulseMs);
    return MODULE(SetIO)(owner, kPins.clock_output, 0);
  });
}

int32_t MODULE(ReadModuleId)(ModuleHandle *module, char *buffer, int32_t size) {
  const auto readName = [&](InterfaceHandle *bridge) {
    return sflashGetBoardName(bridge, kFlashChannel, buffer, size);
  };
  if (int32_t code = onBridge(*module, HERE, &InterfaceHandle::SendReceiveSPI, readName)) return code;
  if (buffer[0] == '\0') return origin(module->error_state, HERE, kUnknownModule, "Could not read Radar Module ID");
  return kSuccess;
}

int32_t MODULE(ReadBoardInfo)(ModuleHandle *module, uint8_t *buffer, int32_t length) {
  return onBridge(*module, HERE, &InterfaceHandle::SendReceiveSPI,
                  [&](InterfaceHandle *bridge) { return readBoardInfo(bridge, buffer, length); });
}

int32_t MODULE(ProgramBoardInfo)(ModuleHandle *module, const uint8_t *buffer, int32_t length) {
  return onBridge(*module, HERE, &InterfaceHandle::SendReceiveSPI,
                  [&](InterfaceHandle *bridge) { return programBoardInfo(bridge, buffer, length); });
}

int32_t MODULE(ReadFlashMemory)(ModuleHandle *module, uint32_t address, uint8_t *buffer, int32_t length) {
  return onBridge(*module, HERE, &InterfaceHandle::SendReceiveSPI, [&](InterfaceHandle *bridge) {
    return sflashReadMemory(bridge, kFlashChannel, address, buffer, length);
  });
}

int32_t MODULE(WriteFlashMemory)(ModuleHandle *module, uint32_t address, const uint8_t *buffer, uint32_t length) {
  return onBridge(*module, HERE, &InterfaceHandle::SendReceiveSPI, [&](InterfaceHandle *bridge) {
    return sflashWriteMemory(bridge, kFlashChannel, address, buffer, length);
  });
}
