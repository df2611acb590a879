/*
 * The module layer: the registry of radar module boards, the module handle with its operations, detection by the board
 * name that the board's flash holds. A handle belongs to the library handle (owner) that it was created on and shares
 * that handle's error record. Free it with moduleFree.
 */
#ifndef PULSEKIT3_MODULE_H
#define PULSEKIT3_MODULE_H

#include <stdint.h>

#include "../support/vars.h"
#include "Pulsekit3.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ModuleHandle ModuleHandle;

struct ModuleHandle {
  const char *driver_name;
  char board_name[128]; /* as the flash holds it, once InitModule has run */
  QTX_Handle *owner;
  VariableSet *variables; /* null for the "DEFAULT" board */
  int32_t (*InitModule)(ModuleHandle *module);
  int32_t (*FreeHandle)(ModuleHandle **module, QTX_StackTrace **error_state_or_null);
  int32_t (*ReadBoardInfo)(ModuleHandle *module, uint8_t *buffer, int32_t length);
  int32_t (*ProgramBoardInfo)(ModuleHandle *module, const uint8_t *buffer, int32_t length);
  int32_t (*ReadFlashMemory)(ModuleHandle *module, uint32_t address, uint8_t *buffer, int32_t length);
  int32_t (*WriteFlashMemory)(ModuleHandle *module, uint32_t address, const uint8_t *buffer, uint32_t length);
  QTX_StackTrace *error_state;
  /* Private from here on; a record that a host has made itself ends above (own_records.h). */
  int32_t owns_error_state; /* 1 when there was no record to share */
};

QTX_API int32_t moduleListSupportedModules(char *buffer, int32_t size);
/* Creates a handle for the board; does not touch the hardware. Codes: 513. */
QTX_API int32_t moduleInitHandle(ModuleHandle **out, QTX_StackTrace **error_state, QTX_Handle *owner, const char *name);
/* Powers the board up, reads its name, applies its variables. */
QTX_API int32_t moduleInitModule(ModuleHandle *module);
/* Frees the handle and clears the slot; frees the record too when one is given. */
QTX_API int32_t moduleFree(ModuleHandle **module, QTX_StackTrace **error_state_or_null);
/* Powers the connected board up as one board after the other until one finds its own name in the flash. Writes that
   name (room for 64 characters), or "Unknown". The code for an unknown board is that of the last attempt. *out, the
   owner's module slot (the pins follow the driver that it holds), is null afterwards. */
QTX_API int32_t moduleGetConnectedModuleName(ModuleHandle **out, QTX_StackTrace **error_state, QTX_Handle *owner,
                                             char *name);
QTX_API int32_t moduleListVariables(ModuleHandle *module, char *buffer, int32_t size);
QTX_API int32_t moduleListActions(ModuleHandle *module, char *buffer, int32_t size);

#ifdef __cplusplus
}
#endif

#endif
