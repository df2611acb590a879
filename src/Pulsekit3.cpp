#include "Pulsekit3.h"

#include <cstring>
#include <memory>
#include <new>

#include "Pulsekit3_radars.h"
#include "chip/chip.h"
#include "interface/interface.h"
#include "module/module.h"
#include "support/QTX_Handle.h"
#include "support/QTX_StackTrace.h"
#include "support/handle_state.h"
#include "support/trace.h"
#include "support/vars.h"

using namespace pulsekit;

namespace {

constexpr char kVersion[] = "3.3.0~RC1";
constexpr char kName[] = "Pulsekit3";

}  // namespace

extern "C" {

int32_t QTX_DebugLevel = 0;

/* ---- Identity and lists ---- */

int32_t QTX_InitHandle(QTX_Handle **handle_out) {
  if (!handle_out) return kError;
  *handle_out = nullptr;
  std::unique_ptr<QTX_Handle> handle(new (std::nothrow) QTX_Handle{});
  std::unique_ptr<ConnectionInfo> info(new (std::nothrow) ConnectionInfo{});
  if (!handle || !info) return kOutOfMemory;
  QTX_StackTraceInit(&handle->error, nullptr);
  if (!handle->error) return kOutOfMemory;
  if (!createHandleState(handle.get())) {
    QTX_StackTraceFree(&handle->error);
    return kOutOfMemory;
  }
  handle->connection_info = info.release();
  *handle_out = handle.release();
  return kSuccess;
}

int32_t QTX_FreeHandle(QTX_Handle **handle_slot) {
  if (!handle_slot || !*handle_slot) return kSuccess;
  QTX_Handle *handle = *handle_slot;
  *handle_slot = nullptr;
  // One that has been freed already, or a host's own, is left alone.
  if (!destroyHandleState(handle)) return kSuccess;
  releaseLeftInterface(handle);
  QTX_StackTraceFree(&handle->error);
  delete handle->connection_info;
  if (handle->frame_log) std::fclose(handle->frame_log);
  delete handle;
  return kSuccess;
}

int32_t QTX_Version(char *buffer, int32_t size) {
  if (!buffer) return kError;
  if (size <= 12) return kBufferTooSmall;
  std::strcpy(buffer, "3.3.0~RC1 (x64)");
  return kSuccess;
}

int32_t QTX_Name(char *buffer, int32_t size) {
  if (!buffer) return kError;
  if (size <= 9) return kBufferTooSmall;
  std::strcpy(buffer, kName);
  return kSuccess;
}

const char *QTX_SupportVersion(void) { return kVersion; }

const char *QTX_SupportName(void) { return kName; }

char QTX_ConnectionStringDelimiter1(void) { return '!'; }

char QTX_ConnectionStringDelimiter2(void) { return '#'; }

char QTX_ListDelimiter(void) { return ','; }

int32_t QTX_ListSupportedChips(char *buffer, int32_t size) { return chipListSupportedChips(buffer, size); }

int32_t QTX_ListSupportedModules(char *buffer, int32_t size) { return moduleListSupportedModules(buffer, size); }

int32_t QTX_ListSupportedInterfaces(char *buffer, int32_t size) {
  return interfaceListSupportedInterfaces(buffer, size);
}

int32_t QTX_VarTypeIsFloat(uint16_t type) { return (type & VAR_FLAG_FLOAT) != 0; }

int32_t QTX_VarTypeIsInt(uint16_t type) { return (type & VAR_FLAG_INT) != 0; }

int32_t QTX_VarTypeIsEnum(uint16_t type) { return (type & VAR_FLAG_ENUM) != 0; }

int32_t QTX_GetErrorDescription(QTX_Handle *handle, char *buffer, int32_t size, int32_t code) {
  return QTX_ErrorDescription(handle ? handle->error : nullptr, buffer, size, code);
}

}  // extern "C"
