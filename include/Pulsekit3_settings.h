/*
 * Settings in groups, and what they mean for a frame.
 *
 * Conventions are those of Pulsekit3.h. Values are 64-bit words as QTX_VarGetValue_ByName gives them: integers, the
 * bits of a double, the symbol number of an enumeration's item.
 */
#ifndef PULSEKIT3_SETTINGS_H
#define PULSEKIT3_SETTINGS_H

#include "Pulsekit3.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A variable whose value has moved. */
typedef struct QTX_Change {
  char name[64];      /* of the variable */
  uint64_t before;    /* its value word before */
  uint64_t after;     /* and now */
  uint32_t type;      /* as of QTX_VarGetType_ByName: 2048 integer, 4096 float, 8 enumeration */
  uint32_t automatic; /* 1: it follows its automatic value now */
} QTX_Change;

/* Sets names[i] to values[i], in this order, as `count` calls of QTX_VarSetValue_ByString would, but at one go:
   everything is checked before anything changes, and each register of the chip that changes is written once and read
   back. Variables of chip, module and bridge may be mixed. Numbers must be numbers: a decimal integer for an integer
   variable, "abc", "12x" or an empty text are 1286. changes gets the variables that have moved, those too that follow
   others: the chip's in evaluation order, then the module's, then the bridge's. *change_count: entries there is room
   for; afterwards how many have moved. With changes null and *change_count 0 none are written; with too little room
   nothing is set and the code is 2. DCOTargetFrequency is tuned where it stands in the order, which takes writes of its
   own.
   After a failure everything is as it was, as far as the radar still takes it. Codes, besides those of the bridge:
   - 1283, 1285, 1286: the message names the variable, nothing has been written
   - 1281: a register does not keep its value; the message names it, the old settings have been written back
   - 1537, 1538: cancelled, or waited too long for the end of a sweep */
QTX_API int32_t QTX_VarsSetMany(QTX_Handle *handle, const char *const *names, const char *const *values, uint32_t count,
                                QTX_Change *changes, uint32_t *change_count);

/* What the settings as they are mean for a frame. Nothing is read from the radar. */
typedef struct QTX_FrameGeometry {
  uint32_t size;            /* sizeof(QTX_FrameGeometry), filled in by the caller */
  uint32_t samplers;        /* entries of a frame */
  double first_time;        /* s after the pulse: entry k is the level at first_time + k * time_step */
  double time_step;         /* s */
  double first_range;       /* m: half the way that light goes in first_time */
  double range_step;        /* m */
  double sweep_time;        /* s: all sweeps of one frame; 0 where no sweep runs */
  double frame_time;        /* s: a frame as a single capture, USB transfers as they are on an idle bus */
  double pulse_rate;        /* Hz; 0 without a master clock */
  double unambiguous_range; /* m: echoes from farther away meet the next pulse; 0 without a master clock */
} QTX_FrameGeometry;

/* Codes: 1025, 1 (null, or size too small), 770, 4 (a chip that takes no frames), 269, 1541 (SamplesPerSecond is 0). */
QTX_API int32_t QTX_GetFrameGeometry(QTX_Handle *handle, QTX_FrameGeometry *geometry);

/* Writes the settings that can't give a good frame, one a line: "<name>: <what is wrong>: <remedy>\n", nothing where
   all is well; *findings tells how many. A null text with size 0 only counts. Nothing is read from the radar. Codes:
   1025, 1, 770, 4 (a chip that takes no frames), 2 (*findings is right all the same). */
QTX_API int32_t QTX_CheckSettings(QTX_Handle *handle, char *text, int32_t size, int32_t *findings);

/* Calibrates the delay lines and the sampling rate: switches the timing measurement on, runs the action MeasureAll, and
   puts the sampling window where the new results say. Takes seconds; QTX_Cancel ends it. The results are kept in block
   `store_block` of the board's flash (4 KiB each, see QTX_TimingMeasurementSaveDataToFlash); -1: they are not.
   A calibration that fails or is cancelled leaves settings and results as they were; one that is made but can't be
   written to the flash is in force.
   Codes: 1025, 1 (no such block), 770, 4, 269, 514 (no board to keep it on), 771 (nothing was measured), 1540, and
   those of measuring and of the flash. */
QTX_API int32_t QTX_Calibrate(QTX_Handle *handle, int32_t store_block);

#ifdef __cplusplus
}
#endif

#endif
