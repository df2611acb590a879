/* The driver of FT2232H, FT4232H and FT232H bridges in MPSSE mode: what the interface layer and hosts see of it. */
#ifndef PULSEKIT3_FTX232H_H
#define PULSEKIT3_FTX232H_H

#include <stdint.h>

#include "../interface.h"
#include "D2XX/FTx232H_D2XX.h"
#include "Pulsekit3.h"

#ifdef __cplusplus
extern "C" {
#endif

QTX_API const char *FTx232H_Name(void);
QTX_API int32_t FTx232H_InitHandle(InterfaceHandle **bridge, QTX_StackTrace **record, QTX_Handle *owner);
/* Safe to run twice: it clears every pointer that it frees. */
QTX_API int32_t FTx232H_FreeHandle(InterfaceHandle **bridge, QTX_StackTrace **record_or_null);
/* Connection strings of all bridges, separated by '#'. Codes: 2, 259, 267 (no bridge). */
QTX_API int32_t FTx232H_ListDevices(InterfaceHandle *bridge, char *out, uint32_t size);

#ifdef __cplusplus
}

extern const pulsekit::ProgramOperations FTx232H_Programs;

/* Appends what the bridge library's list shows. */
int32_t FTx232H_PresentDevices(QTX_StackTrace *record, std::vector<PresentDevice> *devices);
#endif

#endif
