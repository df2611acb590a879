/*
 * Waits that end, radars that come and go, and what to do about a failure.
 *
 * Conventions are those of Pulsekit3.h. Handles come from QTX_InitHandle: a handle record of the host's own making
 * can't be used here (1025).
 */
#ifndef PULSEKIT3_CONTROL_H
#define PULSEKIT3_CONTROL_H

#include "Pulsekit3.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The call in progress on the handle waits no longer (for a sweep, a measurement, the flash, a frame of a stream, a
   change of the list of radars) and returns 1537; a call that waits for nothing goes on. Without a call in progress
   nothing happens, and no later call is concerned. The one function that any thread and any signal handler may call
   while a call uses the handle; not while the handle is freed. What was cancelled is put in order before the call
   returns, which takes at most some 200 ms: a sweep is stopped, moved settings go back, a page or block of the flash
   that is being written is waited for. A setting whose register could not be written in time keeps its new value: set
   it to another value and back, or reset it. */
QTX_API int32_t QTX_Cancel(QTX_Handle *handle);

/* The longest time in milliseconds that one wait without a limit of its own may last: for the end of a sweep or of a
   measurement, and QTX_WaitForRadarChange with -1. The call returns 1538 then and has put things in order as after a
   cancel. 0, the default: no limit. Code 1: negative. */
QTX_API int32_t QTX_SetWaitLimit(QTX_Handle *handle, int32_t ms);

/* LOST: the radar is open, but its bridge is gone. It stays so when the bridge comes back: close the radar, open it
 * anew. */
enum { QTX_RADAR_CLOSED = 0, QTX_RADAR_OPEN = 1, QTX_RADAR_LOST = 2 };

/* Asks the bridge. */
QTX_API int32_t QTX_RadarState(QTX_Handle *handle, int32_t *state);

/* Returns 0 as soon as bridges have come or gone since the last call on this handle returned 0; the first call compares
   with the list that it finds. Opening and closing a radar is no change, and no open radar is disturbed, on this handle
   or another. timeout_ms: 0 looks once, -1 waits without limit. Codes: 259, 1537, 1538 no change in that time.
     while (QTX_WaitForRadarChange(handle, -1) == 0) QTX_ListRadarModules(handle, list, sizeof list); */
QTX_API int32_t QTX_WaitForRadarChange(QTX_Handle *handle, int32_t timeout_ms);

/* What a person can do about the last failure of the handle: the value and its limits, the nearest names, who holds the
   radar, which library is missing. One line without a line feed; empty where nothing is known or nothing has failed.
   May look at the list of bridges and ask an open one. size: in characters with the terminator, 1024 is always enough;
   a longer text is cut and gives 2. The error record stays as it is. */
QTX_API int32_t QTX_GetErrorAdvice(QTX_Handle *handle, char *text, int32_t size);

#ifdef __cplusplus
}
#endif

#endif
