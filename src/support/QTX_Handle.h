/* The library handle. The host owns it; while a radar is open it owns the handles of the three layers, which reach each
   other and the shared error record through it. */
#ifndef PULSEKIT3_QTX_HANDLE_H
#define PULSEKIT3_QTX_HANDLE_H

#include <stdint.h>
#include <stdio.h>

#include "Pulsekit3.h"

struct ChipHandle;
struct InterfaceHandle;
struct ModuleHandle;
struct QTX_StackTrace;

/* The fields of a connection string; interface_connection is "<interface>!<device>". */
struct ConnectionInfo {
  char interface_name[64], interface_connection[256], module_name[64], chip_name[64];
};

struct QTX_Handle {
  char connection_string[256]; /* not terminated when the string has 256 characters or more */
  struct ConnectionInfo *connection_info;
  struct InterfaceHandle *interface_handle;
  void *spare;
  struct ChipHandle *chip;
  struct ModuleHandle *module;
  struct QTX_StackTrace *error;
  int32_t open; /* set once a radar has been opened, never cleared: register writes wait for the sweep then */
  FILE *frame_log;
  int32_t frame_log_flags, frame_log_precision;
};

#endif
