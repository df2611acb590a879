/*
 * The SPI NOR flash of a module board with its one-time-programmable (OTP) register. Addresses and lengths are bytes;
 * pages have 256, erase blocks 4096. The caller holds the interface's lock for the whole operation.
 *
 * A write cycle that times out or that the flash reports as failed leaves 641 (programming) or 642 (erasing) in the
 * interface's error record; the returned code is that of the closing write-disable transfer. A failing transfer ends
 * the operation with its code.
 *
 * Code 1: no buffer, or an address beyond 24 bits. Code 2: a negative length, or more than 65536 bytes at once.
 */
#ifndef PULSEKIT3_SERIALFLASH_H
#define PULSEKIT3_SERIALFLASH_H

#include <stdint.h>

#include "../../interface/interface.h"
#include "Pulsekit3.h"

#ifdef __cplusplus
extern "C" {
#endif

QTX_API int32_t sflashEraseChip(InterfaceHandle *bridge, uint32_t channel);
QTX_API void sFlashErase4kBlock(InterfaceHandle *bridge, uint32_t channel, uint32_t address);
/* One page of at most 256 bytes (else 2); behind the end of a page the flash goes on at the page's start. */
QTX_API int32_t sflashWritePage(InterfaceHandle *bridge, uint32_t channel, uint32_t address, const uint8_t *data,
                                uint32_t length);
QTX_API int32_t sflashReadBuffer(InterfaceHandle *bridge, uint32_t channel, uint32_t address, uint8_t *dest,
                                 int32_t length);
/* Erases the one block that holds address, then programs page after page. Code 1 unless address is a multiple of 256.
 */
QTX_API int32_t sflashWriteMemory(InterfaceHandle *bridge, uint32_t channel, uint32_t address, const uint8_t *data,
                                  uint32_t length);
QTX_API int32_t sflashReadMemory(InterfaceHandle *bridge, uint32_t channel, uint32_t address, uint8_t *dest,
                                 int32_t length);
QTX_API int32_t sflashProgramOtpRegister(InterfaceHandle *bridge, uint32_t channel, int32_t offset, const uint8_t *data,
                                         uint32_t length);
QTX_API int32_t sflashReadOtpRegister(InterfaceHandle *bridge, uint32_t channel, uint32_t offset, uint8_t *dest,
                                      int32_t length);
/* Board name and board ID from the OTP register, 31 and 32 bytes, padding at the end cleared; size at least 32, else 2.
   A terminator behind a text of full length is the caller's. */
QTX_API int32_t sflashGetBoardName(InterfaceHandle *bridge, uint32_t channel, char *dest, int32_t size);
QTX_API int32_t sflashGetBoardID(InterfaceHandle *bridge, uint32_t channel, char *dest, int32_t size);
/* Destroys the content of the flash. Code 640 when what was written does not come back. */
QTX_API int32_t sflashTest(InterfaceHandle *bridge, uint32_t channel);

#ifdef __cplusplus
}
#endif

#endif
