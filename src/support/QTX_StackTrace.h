/* The error record of a library handle: the code, detail and call trace of the last failure. Sub-handles share the
   record of their library handle. */
#ifndef PULSEKIT3_QTX_STACKTRACE_H
#define PULSEKIT3_QTX_STACKTRACE_H

#include <stdint.h>

#include "Pulsekit3.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct QTX_StackTrace {
  int32_t code;
  char message[256];
  char trace[2048];
} QTX_StackTrace;

/* Creates an empty record in the slot, or shares *existing. The slot is null when memory is short. */
QTX_API void QTX_StackTraceInit(QTX_StackTrace **record_slot, QTX_StackTrace **existing);

/* Frees the record and clears the slot. Only its creator frees a shared record. */
QTX_API void QTX_StackTraceFree(QTX_StackTrace **record_slot);

/* Writes the description of code (0: of the record's own), cut at size - 1 characters. Returns 0, 1 for no buffer. */
QTX_API int32_t QTX_ErrorDescription(QTX_StackTrace *record, char *buffer, int32_t size, int32_t code);

#ifdef __cplusplus
}
#endif

#endif
