#include "../platform/platform.h"
#include "QTX_Handle.h"
#include "trace.h"

using namespace pulsekit;

// The same on every platform, under the path that field engineers know it by.
static constexpr const char kSource[] = "src/platform/x86_windows_gcc/QTX_register";

int32_t QTX_registerFunction(QTX_Handle *handle) {
  return origin(handle ? handle->error : nullptr, HERE_AT(27), kNoSuchFunctionId);
}
