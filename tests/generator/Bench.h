// The driver that the generated code of the test description calls.
#pragma once

#include <cstdint>

#include "support/QTX_Handle.h"
#include "support/vars.h"

double bench_half(VariableSet *set, float value);
int64_t bench_add(QTX_Handle *owner, int16_t first, int64_t second);
int32_t bench_store(QTX_Handle *owner, uint32_t value);
int32_t bench_drivePin(QTX_Handle *owner, double level);
int32_t bench_ExecuteAction(QTX_Handle *owner, uint8_t action);
int32_t bench_ReadRegister(QTX_Handle *owner, uint8_t address, uint32_t byte_count, uint64_t *value);
int32_t bench_WriteRegister(QTX_Handle *owner, uint8_t address, int32_t byte_count, uint64_t value);
