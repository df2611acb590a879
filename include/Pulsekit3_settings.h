/*
 * Settings in groups, and what they mean for a frame.
 *
 * Conventions are those of Pulsekit3.h. Values are 64-bit words as QTX_VarGetValue_ByName gives them: integers, the bits
 * of a double, the symbol number of an enumeration's item.
 */
#ifndef PULSEKIT3_SETTINGS_H
#define PULSEKIT3_SETTINGS_H

#include "Pulsekit3.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A variable whose value has moved. */
typedef struct QTX_Change {
  char name[64];
  uint64_t before, after;
  uint32_t type;      /* as of QTX_VarGetType_ByName: 2048 integer, 4096 float, 8 enumeration */
  uint32_t automatic; /* 1: it follows its automatic value now */
} QTX_Change;

/* Sets names[i] to values[i], in this order, as `count` calls of QTX_VarSetValue_ByString would, but at one go: everything
   is checked before anything changes, and each register of the chip that changes is written once and read back. Variables
   of chip, module and bridge may be mixed. Numbers must be numbers: a decimal integer for an integer variable, "abc",
   "12x" or an empty text are 1286.
   changes gets the variables that have moved, those too that follow others: the chip's in evaluation order, then the
   module's, then the bridge's. *change_count: entries there is room for; afterwards how many have moved. With changes null
   and *change_count 0 none are written; with too little room nothing is set and the code is 2.
   After a failure everything is as it was, as far as the radar still takes it:
     1283, 1285, 1286  the message names the variable, nothing has been written
     1281              a register does not keep its value: the message names it, the old settings have been written back
     1537, 1538        cancelled, or waited too long for the end of a sweep
   and those of the bridge. DCOTargetFrequency is tuned where it stands in the order, which takes writes of its own. */
QTX_API int32_t QTX_VarsSetMany(QTX_Handle *handle, const char *const *names, const char *const *values, uint32_t count,
                                QTX_Change *changes, uint32_t *change_count);

#ifdef __cplusplus
}
#endif

#endif
