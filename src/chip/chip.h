/*
 * The chip layer: the registry of chip models, the chip handle with its table of operations, detection by chip ID.
 * A handle belongs to the library handle that it was created on and shares that handle's error record. Free it with
 * chipFree. Operations take the library handle (access) where register back-ends call them, the chip handle elsewhere.
 */
#ifndef PULSEKIT3_CHIP_H
#define PULSEKIT3_CHIP_H

#include <stdint.h>

#include "../support/vars.h"
#include "Pulsekit3.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ChipHandle ChipHandle;

struct ChipOperations {
  int32_t (*InitChip)(ChipHandle *chip);
  int32_t (*ReadRegister)(QTX_Handle *access, uint8_t address, uint32_t byte_count, uint64_t *value);
  int32_t (*WriteRegister)(QTX_Handle *access, uint8_t address, int32_t byte_count, uint64_t value);
  int32_t (*ReadMemory)(QTX_Handle *access, uint8_t address, uint32_t byte_count, uint8_t *buffer);
  int32_t (*ExecuteAction)(QTX_Handle *access, uint8_t action);
  int32_t (*CaptureFrame)(ChipHandle *chip, uint32_t *frame, int32_t capacity, uint64_t option);
  int32_t (*NormalizeFrameDouble)(ChipHandle *chip, const uint32_t *raw, double *normalized, int32_t count);
  int32_t (*NormalizeFrameFloat)(ChipHandle *chip, const uint32_t *raw, float *normalized, int32_t count);
  int32_t (*calculateCDF_Size)(ChipHandle *chip, uint32_t *width, uint32_t *lines);
  int32_t (*getCDF)(ChipHandle *chip, uint32_t *table, int32_t capacity);
  int32_t (*getTimingMeasurementResults)(ChipHandle *chip, double *results, int32_t capacity);
  int32_t (*measurementSaveDataToFlash)(ChipHandle *chip, uint32_t block);
  int32_t (*measurementLoadDataFromFlash)(ChipHandle *chip, uint32_t block);
};

struct ChipHandle {
  const char *name;
  uint16_t chip_id; /* as read from the hardware at creation; 0 when that failed */
  VariableSet *variables;
  QTX_Handle *access;
  struct ChipOperations operations;
  void *timing_record;
  void *saved_delays;
  uint32_t sweep_idle; /* 0 while a sweep that was started in advance waits to be read */
  uint32_t initializing;
  QTX_StackTrace *error_state;
  /* Private from here on; a record that a host has made itself ends above (own_records.h). */
  uint32_t prepared_elsewhere; /* 1: the timing record's preparation was loaded with it, not made on this hardware */
  int32_t lost_poll;           /* the code of a read of a measurement's status that failed */
};

QTX_API int32_t chipListSupportedChips(char *buffer, int32_t size);
QTX_API const char *chipIdToChipName(uint16_t id);
/* Creates a handle for the model; reads the chip ID and touches nothing else. Codes: 769. */
QTX_API int32_t chipInitHandle(ChipHandle **out, QTX_StackTrace **error_state, QTX_Handle *access, const char *name);
/* Brings the chip to its defaults. */
QTX_API int32_t chipInitChip(ChipHandle *chip);
/* Frees the handle and clears the slot; frees the record too when one is given. */
QTX_API int32_t chipFree(ChipHandle **chip, QTX_StackTrace **error_state_or_null);
/* Writes the connected model's name (room for 64 characters), or "Unknown". *out is null afterwards. */
QTX_API int32_t chipGetConnectedChipName(ChipHandle **out, QTX_StackTrace **error_state, QTX_Handle *access,
                                         char *name);
QTX_API int32_t chipListVariables(ChipHandle *chip, char *buffer, int32_t size);
QTX_API int32_t chipListActions(ChipHandle *chip, char *buffer, int32_t size);

#ifdef __cplusplus
}

/* For the driver to forget what followed from settings that are back at their defaults now. */
void chipSettingsReset(ChipHandle *chip);
/* Until no sweep runs, as every register write of an open radar does. A handle that no driver has made is idle. Codes:
   1537, 1538, those of the read. */
int32_t chipWaitUntilIdle(ChipHandle *chip);
#endif

#endif
