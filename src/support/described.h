// What the code that is generated from descriptions/ builds on: the constant tables of one description, the variable
// set made of them, values as formulas read them, and checked register access.
#pragma once

#include <cstdint>

#include "QTX_Handle.h"
#include "trace.h"
#include "vars.h"

namespace pulsekit {

struct Description {
  const char *name;
  int32_t count;
  const Variable *variables;
  const VarOrder *order;
  int32_t action_count;
  const VarAction *actions;
  int32_t max_symbol;
  const char *const *symbols;
};

// Creates a set with its own copies of the templates; it shares the record in *error_state. Codes: 1, 7.
int32_t createVariableSet(const Description &description, VariableSet **out, QTX_StackTrace **error_state);
// Frees the set and clears the slot. The record stays: it belongs to the library handle.
void freeVariableSet(VariableSet **set);

// Both store their argument in the result slot of a callback and return the slot.
uint64_t *int_to_value(int64_t value, uint64_t *result);
uint64_t *float_to_value(double value, uint64_t *result);

// The value of the variable with that index: integer or item index (-1 when it can't be read), and float.
int64_t integerOf(VariableSet *set, int32_t index);
double floatOf(VariableSet *set, int32_t index);

// Arithmetic of formulas, defined for every operand.
int64_t truncated(double value);
int64_t shiftedLeft(int64_t value, int64_t count);
int64_t shiftedRight(int64_t value, int64_t count);

struct RegisterBus {
  int32_t (*read)(QTX_Handle *owner, uint8_t address, uint32_t byte_count, uint64_t *value);
  int32_t (*write)(QTX_Handle *owner, uint8_t address, int32_t byte_count, uint64_t value);
};

// The part of a register's value that the variable with that index contributes.
uint64_t registerField(VariableSet *set, int32_t index, uint64_t mask, int shift);
// Writes the register and reads it back; 1281 when it then holds something else.
int32_t writeVerified(const RegisterBus &bus, VariableSet *set, TracePoint at, uint8_t address, int32_t byte_count,
                      uint64_t value);
// The whole register; 0 when it can't be read, the error record says so then.
uint64_t readWhole(const RegisterBus &bus, VariableSet *set, TracePoint at, uint8_t address, uint32_t byte_count);

}  // namespace pulsekit
