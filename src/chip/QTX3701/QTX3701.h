// The driver of the second-generation chips. Its sources are compiled once for each model, with CHIP_MODEL set to the
// model's name; CHIP(Name) is the model's function of that name.
#pragma once

#include <cstdint>

#include "../../support/QTX_Handle.h"
#include "../chip.h"
#include "../model.h"

#ifndef CHIP_MODEL
#define CHIP_MODEL QTX3701
#endif

// ---- Handle ----
const char *CHIP(Name)();
int32_t CHIP(InitHandle)(ChipHandle **out, QTX_StackTrace **error_state, QTX_Handle *access);
int32_t CHIP(FreeHandle)(ChipHandle **chip, QTX_StackTrace **error_state_or_null);
int32_t CHIP(InitChip)(ChipHandle *chip);

// ---- Bus; registers have 1 to 8 bytes ----
int32_t CHIP(ReadRegister)(QTX_Handle *access, uint8_t address, uint32_t byte_count, uint64_t *value);
int32_t CHIP(ReadRegister_local)(QTX_Handle *access, uint8_t address, uint32_t byte_count, uint64_t *value);
int32_t CHIP(WriteRegister)(QTX_Handle *access, uint8_t address, int32_t byte_count, uint64_t value);
int32_t CHIP(ReadMemory)(QTX_Handle *access, uint8_t address, uint32_t byte_count, uint8_t *buffer);
int32_t CHIP(ExecuteAction)(QTX_Handle *access, uint8_t action);
int32_t CHIP(ReadChipId)(QTX_Handle *access);
int32_t CHIP(EmptyPipeLine)(QTX_Handle *access);
int32_t CHIP(waitForSweepFinished)(ChipHandle *chip);
int32_t CHIP(waitUntilIdle)(ChipHandle *chip);

// ---- Frames ----
int32_t CHIP(CaptureFrame)(ChipHandle *chip, uint32_t *frame, int32_t capacity, uint64_t option);
int32_t CHIP(NormalizeFrameDouble)(ChipHandle *chip, const uint32_t *raw, double *normalized, int32_t count);
int32_t CHIP(NormalizeFrameFloat)(ChipHandle *chip, const uint32_t *raw, float *normalized, int32_t count);
int32_t CHIP(calculateCDF_Size)(ChipHandle *chip, uint32_t *width, uint32_t *lines);
int32_t CHIP(getCDF_Line)(ChipHandle *chip, int64_t dac_value, uint32_t *line, int32_t capacity);
int32_t CHIP(getCDF)(ChipHandle *chip, uint32_t *table, int32_t capacity);

// ---- Timing measurement; the set's owner is the library handle ----
int32_t CHIP(MCLK_frequency)(VariableSet *set);  // hertz, 0 when the master clock is off
int32_t CHIP(measureSampleDelayLines)(VariableSet *set);
int32_t CHIP(measureSaveAndResetDelays)(VariableSet *set);
int32_t CHIP(measureRestoreDelays)(VariableSet *set);
int32_t CHIP(measureRestoreAndReturn)(VariableSet *set, int32_t code);
int32_t CHIP(measureWait)(VariableSet *set);
int32_t CHIP(TMeasPrepare)(VariableSet *set);
int32_t CHIP(TMeasDisable)(VariableSet *set);
int32_t CHIP(TMeasStartMeasure)(VariableSet *set);
int32_t CHIP(TmeasUpdateSingleResult)(VariableSet *set, uint32_t kind);
int32_t CHIP(TMeasUpdateResults)(VariableSet *set);
double CHIP(measureTimingValue)(VariableSet *set);
int32_t CHIP(measureAllMediumTuneElements)(VariableSet *set);
int32_t CHIP(measureAllFineTuneElements)(VariableSet *set);
int32_t CHIP(measureAllCoarseTuneElements)(VariableSet *set);
int32_t CHIP(measureMediumTuneElement)(VariableSet *set, int32_t element);
int32_t CHIP(measureCoarseTuneElement)(VariableSet *set, int32_t element);
int32_t CHIP(measurementSetDCOFrequency)(VariableSet *set, uint32_t frequency);
// The settings that prepare the hardware are back at their defaults.
void CHIP(forgetPreparation)(ChipHandle *chip);
// Back-end of DCOTargetFrequency: 0 leaves a DCO alone that is off already, and while settings are restored the DCO is
// only tuned, where it and its tuner are on.
int32_t CHIP(writeDCOTargetFrequency)(VariableSet *set, int64_t frequency);
int64_t CHIP(measurementGetDCOFrequency)(VariableSet *set);
int32_t CHIP(measureSamplesPerSecond)(VariableSet *set);
int32_t CHIP(measurementAll)(VariableSet *set);

// ---- A delay in seconds as settings of the delay chains ----
int32_t CHIP(measurementGetFrameOffsetClockPeriods)(VariableSet *set, float delay);
int32_t CHIP(measurementGetFrameOffsetCoarseTune)(VariableSet *set, float delay);
int32_t CHIP(measurementGetFrameOffsetMediumTune)(VariableSet *set, float delay);
int64_t CHIP(measurementGetFrameOffsetFineTune)(VariableSet *set, float delay);  // 0 while SDFTEnable is 0
float CHIP(measurementGetDelayToFrameOffset)(VariableSet *set);

// ---- Timing record in the module's flash ----
int32_t CHIP(getTimingMeasurementResults)(ChipHandle *chip, double *results, int32_t capacity);
int32_t CHIP(measurementSaveDataToFlash)(ChipHandle *chip, uint32_t block);
int32_t CHIP(measurementLoadDataFromFlash)(ChipHandle *chip, uint32_t block);

// ---- Generated from the model's description ----
int32_t CHIP_VARS(InitHandle)(VariableSet **out, QTX_StackTrace **error_state);
void CHIP_VARS(FreeHandle)(VariableSet **set);
