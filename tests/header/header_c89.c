/* Compiles the public headers as strict C89 and uses it, so that a declaration that C can't take breaks the build. */
#include "Pulsekit3.h"
#include "Pulsekit3_control.h"
#include "Pulsekit3_settings.h"
#include "Pulsekit3_stream.h"

int32_t header_c89(QTX_Handle **handle, char *buffer);

int32_t header_c89(QTX_Handle **handle, char *buffer) {
  int32_t code = QTX_InitHandle(handle);
  if (code != 0) return code;
  QTX_GetErrorDescription(*handle, buffer, 256, QTX_DebugLevel);
  return QTX_FreeHandle(handle);
}
