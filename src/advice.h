// What a failed call was about, for QTX_GetErrorAdvice: the error record tells what failed, but not with which value.
#pragma once

#include <cstdint>
#include <string_view>

#include "Pulsekit3.h"

namespace pulsekit {

// Remembers the subject of the failure that the handle's record holds: a variable's or action's name and the value as
// given, a connection string, a path. Nothing is remembered for code 0. Returns the code.
int32_t failedWith(const QTX_Handle *handle, int32_t code, std::string_view name, std::string_view value = {}) noexcept;
int32_t failedWith(const QTX_Handle *handle, int32_t code, const char *name, int64_t value) noexcept;
int32_t failedWith(const QTX_Handle *handle, int32_t code, const char *name, double value) noexcept;

}  // namespace pulsekit
