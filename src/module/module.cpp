#include "module.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include "../interface/interface.h"
#include "../support/QTX_Handle.h"
#include "../support/list.h"
#include "../support/trace.h"
#include "common/board.h"

const char *QTX_K2x5_Name();
const char *QTX_K265_Name();
int32_t QTX_K2x5_InitHandle(ModuleHandle **out, QTX_StackTrace **error_state, QTX_Handle *owner);
int32_t QTX_K265_InitHandle(ModuleHandle **out, QTX_StackTrace **error_state, QTX_Handle *owner);

namespace {

using namespace pulsekit;

constexpr const char kSource[] = "src/module/module";
constexpr const char kDefaultName[] = "DEFAULT";
constexpr const char kUnknownName[] = "Unknown";
constexpr size_t kNameCapacity = 64;

const char *moduleDefaultName() { return kDefaultName; }

struct Board {
  const char *name;
  const char *(*driverName)();
  int32_t (*create)(ModuleHandle **out, QTX_StackTrace **error_state, QTX_Handle *owner);
};

constexpr Board kBoards[] = {
    {"QTX-K225", QTX_K2x5_Name, QTX_K2x5_InitHandle}, {"QTX-K225E", QTX_K2x5_Name, QTX_K2x5_InitHandle},
    {"QTX-K235", QTX_K2x5_Name, QTX_K2x5_InitHandle}, {"QTX-K235E", QTX_K2x5_Name, QTX_K2x5_InitHandle},
    {"QTX-K245", QTX_K2x5_Name, QTX_K2x5_InitHandle}, {"QTX-K245E", QTX_K2x5_Name, QTX_K2x5_InitHandle},
    {"QTX-K265", QTX_K265_Name, QTX_K265_InitHandle}, {kDefaultName, moduleDefaultName, nullptr},
};

const Board *boardNamed(std::string_view name) {
  for (const Board &board : kBoards) {
    if (name == board.name) return &board;
  }
  return nullptr;
}

// Boards of no known name get the pins of the most common ones and time enough for any of them.
int32_t moduleDefaultInitModule(ModuleHandle *module) {
  BoardPins pins = kPinsOfK2x5;
  pins.power_up_ms = 100;
  return onBridge(*module, HERE, &InterfaceHandle::SetIO_Direction,
                  [&](InterfaceHandle *bridge) { return powerUp(bridge, pins, OnFailure::kGoOn); });
}

int32_t moduleDefaultReadBoardInfo(ModuleHandle *module, uint8_t *buffer, int32_t length) {
  return onBridge(*module, HERE, &InterfaceHandle::SendReceiveSPI,
                  [&](InterfaceHandle *bridge) { return readBoardInfo(bridge, buffer, length); });
}

int32_t moduleDefaultProgramBoardInfo(ModuleHandle *module, const uint8_t *buffer, int32_t length) {
  return onBridge(*module, HERE, &InterfaceHandle::SendReceiveSPI,
                  [&](InterfaceHandle *bridge) { return programBoardInfo(bridge, buffer, length); });
}

int32_t moduleDefaultReadFlashMemory(ModuleHandle *module, uint32_t, uint8_t *, int32_t) {
  return origin(module->error_state, HERE, kNotImplemented);
}

int32_t moduleDefaultWriteFlashMemory(ModuleHandle *module, uint32_t, const uint8_t *, uint32_t) {
  return origin(module->error_state, HERE, kNotImplemented);
}

void fillEmptySlots(ModuleHandle &module) {
  if (!module.InitModule) module.InitModule = moduleDefaultInitModule;
  if (!module.ReadBoardInfo) module.ReadBoardInfo = moduleDefaultReadBoardInfo;
  if (!module.ProgramBoardInfo) module.ProgramBoardInfo = moduleDefaultProgramBoardInfo;
  if (!module.ReadFlashMemory) module.ReadFlashMemory = moduleDefaultReadFlashMemory;
  if (!module.WriteFlashMemory) module.WriteFlashMemory = moduleDefaultWriteFlashMemory;
}

int32_t createDefault(ModuleHandle **out, QTX_StackTrace **error_state, QTX_Handle *owner) {
  return createBoardHandle(out, error_state, owner, kDefaultName);
}

QTX_StackTrace *recordIn(QTX_StackTrace **error_state) { return error_state ? *error_state : nullptr; }

void putName(char *name, const char *text) { std::snprintf(name, kNameCapacity, "%s", text); }

// The pins and channels that the bridge has remembered may be those of another driver.
void forgetPinMaps(const QTX_Handle *owner) {
  if (!owner || !owner->interface_handle) return;
  owner->interface_handle->pin_map = nullptr;
  owner->interface_handle->spi_channel_map = nullptr;
}

}  // namespace

const char *moduleDriverName(const ModuleHandle *module) { return module->driver_name; }

extern "C" {

int32_t moduleListSupportedModules(char *buffer, int32_t size) {
  if (!buffer) return kError;
  if (size <= 0) return kBufferTooSmall;
  buffer[0] = '\0';
  for (const Board &board : kBoards) {
    if (int32_t code = appendDriver(buffer, size, board.name, board.driverName())) return code;
  }
  return kSuccess;
}

int32_t moduleInitHandle(ModuleHandle **out, QTX_StackTrace **error_state, QTX_Handle *owner, const char *name) {
  QTX_StackTrace *record = recordIn(error_state);
  if (out) *out = nullptr;
  if (!out || !name) return origin(record, HERE, kError);
  const Board *board = boardNamed(name);
  if (!board) return origin(record, HERE, kUnknownModule, "Unknown module name");
  const auto create = board->create ? board->create : createDefault;
  if (int32_t code = create(out, error_state, owner)) return passThrough(record, HERE, code);
  fillEmptySlots(**out);
  return kSuccess;
}

int32_t moduleInitModule(ModuleHandle *module) {
  if (!module) return kModuleNotInitialized;
  if (!module->InitModule) return origin(module->error_state, HERE, kModuleNotInitialized);
  forgetPinMaps(module->owner);
  if (int32_t code = module->InitModule(module)) return passThrough(module->error_state, HERE, code);
  return kSuccess;
}

int32_t moduleFree(ModuleHandle **module, QTX_StackTrace **error_state_or_null) {
  if (!module) return kError;
  if (!*module) {
    QTX_StackTraceFree(error_state_or_null);
    return kSuccess;
  }
  if (!(*module)->FreeHandle) {
    freeBoardHandle(module, error_state_or_null);
    return kSuccess;
  }
  QTX_StackTrace *record = (*module)->error_state;
  if (int32_t code = (*module)->FreeHandle(module, error_state_or_null)) return passThrough(record, HERE, code);
  return kSuccess;
}

int32_t moduleGetConnectedModuleName(ModuleHandle **out, QTX_StackTrace **error_state, QTX_Handle *owner, char *name) {
  QTX_StackTrace *record = recordIn(error_state);
  if (name) putName(name, kUnknownName);
  if (!out || !name) return origin(record, HERE, kError);

  int32_t last = kSuccess;
  for (const Board &board : kBoards) {
    if (int32_t code = moduleInitHandle(out, error_state, owner, board.name)) {
      moduleFree(out, nullptr);
      return passThrough(record, HERE, code);
    }
    last = moduleInitModule(*out);
    const bool found = last == kSuccess && std::strcmp((*out)->board_name, board.name) == 0;
    moduleFree(out, nullptr);
    if (last == kOutOfMemory) break;
    if (!found) continue;
    putName(name, board.name);
    return kSuccess;
  }
  // The code of the last attempt: a board that can't even be powered up makes the detection fail.
  return last == kSuccess ? last : passThrough(record, HERE, last);
}

int32_t moduleListVariables(ModuleHandle *module, char *buffer, int32_t size) {
  if (!module) return kError;
  if (!module->variables) return origin(module->error_state, HERE, kModuleNotInitialized);
  return varListVariables(module->variables, buffer, size);
}

int32_t moduleListActions(ModuleHandle *module, char *buffer, int32_t size) {
  if (!module) return kError;
  if (!module->variables) return origin(module->error_state, HERE, kModuleNotInitialized);
  return varListActions(module->variables, buffer, size);
}

}  // extern "C"
