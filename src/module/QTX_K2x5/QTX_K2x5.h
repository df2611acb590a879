// The driver of the radar module boards. Its sources are compiled once for each driver, with MODULE_DRIVER set to the
// driver's name; MODULE(Name) is the driver's function of that name.
#pragma once

#include <cstdint>

#include "../../support/QTX_Handle.h"
#include "../module.h"

#ifndef MODULE_DRIVER
#define MODULE_DRIVER QTX_K2x5
#endif
#define MODULE_PASTE(driver, name) driver##_##name
#define MODULE_EXPAND(driver, name) MODULE_PASTE(driver, name)
#define MODULE(name) MODULE_EXPAND(MODULE_DRIVER, name)

// ---- Handle ----
const char *MODULE(Name)();
int32_t MODULE(InitHandle)(ModuleHandle **out, QTX_StackTrace **error_state, QTX_Handle *owner);
int32_t MODULE(FreeHandle)(ModuleHandle **module, QTX_StackTrace **error_state_or_null);
// Powers the board up on its own clock, reads its name, writes its variables to the pins. Codes: 513 without a name.
int32_t MODULE(InitModule)(ModuleHandle *module);

// ---- Pins ----
int32_t MODULE(SetIO)(QTX_Handle *owner, uint32_t pin, uint32_t level);
// One pulse of 30 ms on the clock output.
int32_t MODULE(ClockPulseOut)(QTX_Handle *owner);

// ---- Flash ----
// The board name as the flash holds it; size at least 32.
int32_t MODULE(ReadModuleId)(ModuleHandle *module, char *buffer, int32_t size);
int32_t MODULE(ReadBoardInfo)(ModuleHandle *module, uint8_t *buffer, int32_t length);
int32_t MODULE(ProgramBoardInfo)(ModuleHandle *module, const uint8_t *buffer, int32_t length);
int32_t MODULE(ReadFlashMemory)(ModuleHandle *module, uint32_t address, uint8_t *buffer, int32_t length);
int32_t MODULE(WriteFlashMemory)(ModuleHandle *module, uint32_t address, const uint8_t *buffer, uint32_t length);

// ---- Generated from the driver's description ----
int32_t MODULE_EXPAND(MODULE_EXPAND(vars, MODULE_DRIVER), InitHandle)(VariableSet **out, QTX_StackTrace **error_state);
void MODULE_EXPAND(MODULE_EXPAND(vars, MODULE_DRIVER), FreeHandle)(VariableSet **set);
