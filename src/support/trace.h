// The call trace. A function that detects a failure calls origin; a function that passes one on calls passThrough:
//   if (int32_t code = varSetValue(set, variable, value)) return passThrough(set->error_state, HERE, code);
// Both accept a missing record, both truncate at the record's capacities.
#pragma once

#include <cstdint>
#include <string_view>

#include "QTX_ErrorCodes.h"
#include "QTX_StackTrace.h"

namespace pulsekit {

struct TracePoint {
  const char *function;
  const char *source;  // path in the tree without extension
  int line;
};

// Starts a new trace at `at`, stores code and message, returns code.
int32_t origin(QTX_StackTrace *record, TracePoint at, int32_t code, std::string_view message = {});

// As origin, but leaves the message of an earlier failure in place.
int32_t originKeepingMessage(QTX_StackTrace *record, TracePoint at, int32_t code);

// Appends `at` to the trace and returns code.
int32_t passThrough(QTX_StackTrace *record, TracePoint at, int32_t code);

}  // namespace pulsekit

// The current place. Each source that uses it defines `kSource`, its path in the tree without extension.
#define HERE (::pulsekit::TracePoint{__func__, kSource, __LINE__})
// The current function at a trace point that stays what it is when the code moves: field engineers look it up.
#define HERE_AT(line) (::pulsekit::TracePoint{__func__, kSource, (line)})
