// The driver of the first-generation chips: register, memory and action access. Its sources are compiled once for each
// model, with CHIP_MODEL set to the model's name; CHIP(Name) is the model's function of that name.
#pragma once

#include <cstdint>

#include "../../support/QTX_Handle.h"
#include "../chip.h"
#include "../model.h"

#ifndef CHIP_MODEL
#define CHIP_MODEL QTX3400
#endif

// ---- Handle ----
const char *CHIP(Name)();
int32_t CHIP(InitHandle)(ChipHandle **out, QTX_StackTrace **error_state, QTX_Handle *access);
int32_t CHIP(FreeHandle)(ChipHandle **chip, QTX_StackTrace **error_state_or_null);
int32_t CHIP(InitChip)(ChipHandle *chip);

// ---- Bus; registers have 1 to 8 bytes, those of 3 travel as 4 ----
int32_t CHIP(ReadRegister)(QTX_Handle *access, uint8_t address, uint32_t byte_count, uint64_t *value);
int32_t CHIP(ReadRegister_local)(QTX_Handle *access, uint8_t address, uint32_t byte_count, uint64_t *value);
int32_t CHIP(WriteRegister)(QTX_Handle *access, uint8_t address, int32_t byte_count, uint64_t value);
int32_t CHIP(ReadMemory)(QTX_Handle *access, uint8_t address, uint32_t byte_count, uint8_t *buffer);
int32_t CHIP(ExecuteAction)(QTX_Handle *access, uint8_t action);
int32_t CHIP(ReadChipId)(QTX_Handle *access);
int32_t CHIP(EmptyPipeLine)(QTX_Handle *access);
int32_t CHIP(waitUntilIdle)(ChipHandle *chip);

// ---- Frames; how these chips are swept is not known: code 4 ----
int32_t CHIP(CaptureFrame)(ChipHandle *chip, uint32_t *frame, int32_t capacity, uint64_t option);
int32_t CHIP(NormalizeFrameDouble)(ChipHandle *chip, const uint32_t *raw, double *normalized, int32_t count);
int32_t CHIP(NormalizeFrameFloat)(ChipHandle *chip, const uint32_t *raw, float *normalized, int32_t count);

// ---- Generated from the model's description ----
int32_t CHIP_VARS(InitHandle)(VariableSet **out, QTX_StackTrace **error_state);
void CHIP_VARS(FreeHandle)(VariableSet **set);
