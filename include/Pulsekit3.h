/*
 * Pulsekit3: control of impulse-radar sensors from a host program.
 *
 * Conventions
 *  1. Every function that can fail returns an int32_t error code; 0 is success. QTX_GetErrorDescription turns the last
 *     failure of a handle into a text with the path that the failure took through the library. A successful call does
 *     not clear that text.
 *  2. The caller owns every buffer. Sizes of texts are in characters including the terminator, sizes of arrays in
 *     entries, unless stated otherwise. A text that does not fit gives code 2.
 *  3. Text is 8-bit and NUL-terminated; names are case-sensitive. Paths of files are the system's own bytes; on Windows
 *     they are UTF-8, and one that is no UTF-8 is taken to be in the system's code page.
 *  4. A missing handle gives 1025, a missing chip 770, a missing module 514, a missing interface 269 and a
 *     null argument 1, unless stated otherwise. Nothing is written then. Names of variables and actions are unknown
 *     (1283, 1284) while the layer that has them is missing.
 *  5. A handle is used by one thread at a time. The library starts no thread of its own.
 *  6. No C++ exception leaves the library; failed allocations are code 7.
 */
#ifndef PULSEKIT3_H
#define PULSEKIT3_H

#include <stdint.h>

#if defined(_WIN32) && defined(PULSEKIT3_BUILD)
#define QTX_API __declspec(dllexport)
#elif defined(_WIN32)
#define QTX_API __declspec(dllimport)
#elif defined(__GNUC__)
#define QTX_API __attribute__((visibility("default")))
#else
#define QTX_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* One radar: at most one bridge, one module board and one chip. */
typedef struct QTX_Handle QTX_Handle;

/* For the host's own use; the library neither reads nor writes it. */
extern QTX_API int32_t QTX_DebugLevel;

/* ---- Identity and lists ----------------------------------------------------------------------------------------- */

/* Creates a handle with no radar open. Codes: 1 null slot, 7. Free it with QTX_FreeHandle. */
QTX_API int32_t QTX_InitHandle(QTX_Handle **handle_out);

/* Frees the handle and sets the slot to null; a null handle is fine. Close the radar first: of one that is open, only
   the memory of the handle itself comes back. What a failed open or close has left is released. */
QTX_API int32_t QTX_FreeHandle(QTX_Handle **handle_slot);

/* Writes "3.3.0~RC1 (x64)". Code 2 when size is 12 or less. The text takes 16 bytes whatever the size from 13 on. */
QTX_API int32_t QTX_Version(char *buffer, int32_t size);

/* Writes "Pulsekit3". Code 2 when size is 9 or less. */
QTX_API int32_t QTX_Name(char *buffer, int32_t size);

/* Version and name as constant texts. */
QTX_API const char *QTX_SupportVersion(void);
QTX_API const char *QTX_SupportName(void);

/* '!' between the fields of a connection string, '#' between connection strings, ',' between the entries of a list. */
QTX_API char QTX_ConnectionStringDelimiter1(void);
QTX_API char QTX_ConnectionStringDelimiter2(void);
QTX_API char QTX_ListDelimiter(void);

/* Supported drivers as "name (driver)" entries separated by ','. Code 2 when the text does not fit: the entries that
   fitted stay in the buffer. */
QTX_API int32_t QTX_ListSupportedChips(char *buffer, int32_t size);
QTX_API int32_t QTX_ListSupportedModules(char *buffer, int32_t size);
QTX_API int32_t QTX_ListSupportedInterfaces(char *buffer, int32_t size);

/* 1 when the type code (QTX_VarGetType_ByName) says float, integer, enumeration; else 0. */
QTX_API int32_t QTX_VarTypeIsFloat(uint16_t type);
QTX_API int32_t QTX_VarTypeIsInt(uint16_t type);
QTX_API int32_t QTX_VarTypeIsEnum(uint16_t type);

/* Writes "ERROR 0x<code>: <text> - <detail>" and the call trace, cut at size - 1 characters. A code of 0 means the
   handle's last failure. Without a handle only the text of the code is written. Returns 0, or 1 for a null buffer. */
QTX_API int32_t QTX_GetErrorDescription(QTX_Handle *handle, char *buffer, int32_t size, int32_t code);

/* The text of an error code; "NO ERROR MESSAGE AVAILABLE" for a code that does not exist. Never null. */
QTX_API const char *GetErrorMessage(int32_t code);

/* ---- Radars ----------------------------------------------------------------------------------------------------- */

/* Writes the connection strings of all attached radars, "<interface>!<device>!<module>!<chip>", separated by '#'.
   "Unknown" stands for what was not recognised or is held by another process. No radar is an empty text and success.
   The module boards are powered up on the way. A bridge of several ports counts with each of them: with more than ten
   ports attached the text stays empty. Codes: 1 a radar is open on this handle (the text is empty), 2, 7, codes of the
   bridge. */
QTX_API int32_t QTX_ListRadarModules(QTX_Handle *handle, char *buffer, uint32_t size);

/* Opens the radar that the connection string names. A module or chip field "Unknown" leaves that layer out. When only
   the chip fails to start, its code is returned and the radar stays open. A module name that does not exist closes the
   bridge again and returns the code of that, normally 0: the record tells. After any other failure close the handle, or
   open anew: a bridge that did not connect is released then. A radar that is still open on the handle is released
   first. Code 1025 for a null handle. */
QTX_API int32_t QTX_OpenRadar(QTX_Handle *handle, const char *connection_string);

/* Closes the radar; closing twice is fine. Code 1 for a null handle, 266 when the bridge can't be closed: call it
   again, or open a radar or free the handle, which try once more. A device that then still can't be closed is closed as
   soon as this process opens or lists it again. */
QTX_API int32_t QTX_CloseRadar(QTX_Handle *handle);

/* Switches the module's supply on, then starts module and chip anew; or off. Codes: 1283 without a module, 770 without
   a chip (once supply and module are on), those of the start. */
QTX_API int32_t QTX_PowerOnRadar(QTX_Handle *handle);
QTX_API int32_t QTX_PowerOffRadar(QTX_Handle *handle);

/* ---- Variables and actions -------------------------------------------------------------------------------------- */
/* A name is looked up in the chip, then the module, then the interface. A value travels as a 64-bit word: an unsigned
   integer, the bits of a double, or the symbol number of an enumeration item. The integer functions take and give item
   indices (from 0) instead of symbol numbers. 0x7FFFFFFF as a value puts a variable back to its automatic value.
   Setting writes the hardware at once, reads it back and then updates all automatic values that depend on it.
   Codes: 1283 unknown variable, 1284 unknown action (also while the chip or module that has it is not open), 1285 read
   only, 1286 illegal value, 1282 not visible, 1281 the chip did not keep the value, and those of the bridge. */
QTX_API int32_t QTX_VarSetValue_ByName(QTX_Handle *handle, const char *name, uint64_t value);
QTX_API int32_t QTX_VarSetFloatValue_ByName(QTX_Handle *handle, const char *name, double value);
QTX_API int32_t QTX_VarSetIntValue_ByName(QTX_Handle *handle, const char *name, int64_t value);
/* "auto", an item's text, or a number. Text that is no number counts as 0. */
QTX_API int32_t QTX_VarSetValue_ByString(QTX_Handle *handle, const char *name, const char *text);
/* Rounds to the nearest integer (halves away from zero) for integers and item indices. */
QTX_API int32_t QTX_VarSetValueAsFloat_ByName(QTX_Handle *handle, const char *name, double value);
QTX_API int32_t QTX_VarGetValue_ByName(QTX_Handle *handle, const char *name, uint64_t *value);
QTX_API int32_t QTX_VarGetIntValue_ByName(QTX_Handle *handle, const char *name, int64_t *value);
QTX_API int32_t QTX_VarGetEnumValue_ByName(QTX_Handle *handle, const char *name, uint64_t *value);
/* The bits of the double, unconverted. */
QTX_API int32_t QTX_VarGetFloatValue_ByName(QTX_Handle *handle, const char *name, uint64_t *double_bits);
/* Any variable as a double: integers converted, enumerations as item index. */
QTX_API int32_t QTX_VarGetValueAsFloat_ByName(QTX_Handle *handle, const char *name, double *value);
/* Symbol numbers of an enumeration's items. *count is the capacity on entry and the number of items on return. */
QTX_API int32_t QTX_VarGetEnumsItems_ByName(QTX_Handle *handle, const char *name, uint32_t *items, int32_t *count);
/* 2048 integer, 4096 float, 8 enumeration. */
QTX_API int32_t QTX_VarGetType_ByName(QTX_Handle *handle, const char *name, uint32_t *type);
/* Range (item indices, or bits of doubles; 0 and 0 when not visible: 1282); writable and automatic are 1 or 0. */
QTX_API int32_t QTX_VarGetIntProperties_ByName(QTX_Handle *handle, const char *name, uint64_t *min, uint64_t *max,
                                               uint32_t *writable, uint32_t *automatic);
QTX_API int32_t QTX_VarGetFloatProperties_ByName(QTX_Handle *handle, const char *name, uint64_t *min, uint64_t *max,
                                                 uint32_t *writable, uint32_t *automatic);
/* The text of a symbol number in the variable's set, "(invalid)" out of range. A text of size characters or more fills
   the buffer without a terminator. */
QTX_API int32_t QTX_VarGetSymbolString(QTX_Handle *handle, const char *name, uint32_t symbol, char *text, int32_t size);
QTX_API int32_t QTX_ExecuteAction_ByName(QTX_Handle *handle, const char *name);
/* Names of the interface, the module and the chip, in this order, separated by ','. The text ends with ',' when there
   is no chip. Code 2 when it does not fit; a text exactly as long as size passes, without a terminator. Code 1 for a
   null handle or a handle without an interface. */
QTX_API int32_t QTX_ListVariables(QTX_Handle *handle, char *text, int32_t size);
QTX_API int32_t QTX_ListActions(QTX_Handle *handle, char *text, int32_t size);

/* ---- Frames ----------------------------------------------------------------------------------------------------- */
/* A frame has "SamplersPerFrame" entries, sweep after sweep when several are stitched. The capacity counts entries;
   code 2 when it is too small for the frame. Entries past the frame are not touched. */

/* Sampler counters as they are. */
QTX_API int32_t QTX_GetFrameRaw(QTX_Handle *handle, uint32_t *frame, uint64_t capacity);
/* The level at each sampler in percent (0 to 100) of the threshold DAC's 8192 codes. option is handed to the chip. */
QTX_API int32_t QTX_GetFrameNormalizedDouble(QTX_Handle *handle, double *frame, int64_t capacity, uint64_t option);
QTX_API int32_t QTX_GetFrameNormalized(QTX_Handle *handle, double *frame, int64_t capacity);
QTX_API int32_t QTX_GetFrameNormalizedFloat(QTX_Handle *handle, float *frame, int64_t capacity, uint64_t option);
/* Size of the CDF table: width samplers by lines thresholds. */
QTX_API int32_t QTX_CalculateCDF_Size(QTX_Handle *handle, uint32_t *width, uint32_t *lines);
/* Counters of every sampler at every threshold from "DACMin" to "DACMax", line after line. */
QTX_API int32_t QTX_GetCDF(QTX_Handle *handle, uint32_t *table, int32_t capacity);

/* flags: 1 raw frames, 2 normalized frames, 0x10 text, 0x20 binary. precision: digits after the point in text; 8-byte
   values above 4 and 4-byte values otherwise in binary. docs/formats.md describes the files. path: convention 3.
   Codes: 6, 1. */
QTX_API int32_t QTX_FrameLoggingStart(QTX_Handle *handle, const char *path, int32_t flags, int32_t precision);
/* Code 1 when the file can't be closed or a frame could not be written to it in full. */
QTX_API int32_t QTX_FrameLoggingStop(QTX_Handle *handle);

/* ---- Settings file, flash, board information -------------------------------------------------------------------- */

/* The settings of module and chip as text (docs/formats.md). A failed save leaves an existing file as it was. Files
   "<path>.new-<number>-<number>" are the library's: the next save removes those that a save has left which did not live
   to its end. path: convention 3. Code 6 when the file can't be opened or written. */
QTX_API int32_t QTX_VarsSaveToFile(QTX_Handle *handle, const char *path);
/* Applies a settings file (path: convention 3) in its order. Code 1 when it named unknown variables: the others are
   set. */
QTX_API int32_t QTX_VarsLoadFromFile(QTX_Handle *handle, const char *path);
/* Puts every writable variable of module and chip back to its automatic value. */
QTX_API int32_t QTX_VarsResetAllToDefault(QTX_Handle *handle);
/* The settings record in the module's flash at "AddressOfVariableStorage", a variable of the module (0xF000 unless
   set). Its (variables of module and chip + 3) * 8 bytes must not cross a 4 KiB block: only the block that holds the
   address is erased. Code 5 when no valid record is there. */
QTX_API int32_t QTX_VarsSaveToFlash(QTX_Handle *handle);
QTX_API int32_t QTX_VarsLoadFromFlash(QTX_Handle *handle);
/* Raw flash; addresses are bytes and multiples of 256 (else 1). Writing erases the one 4 KiB block that holds address;
   lengths are bytes. */
QTX_API int32_t QTX_ModuleReadFlashMemory(QTX_Handle *handle, uint32_t address, uint8_t *buffer, int32_t length);
QTX_API int32_t QTX_ModuleWriteFlashMemory(QTX_Handle *handle, uint32_t address, const uint8_t *buffer,
                                           uint32_t length);
/* The board's one-time-programmable information: at most 128 bytes read, 64 programmed (longer requests are cut). Works
   without an open radar on the first one that is found; when that one's board can't be powered up, the code is that of
   disconnecting it, normally 0: the record tells. Bytes whose first one is odd, a name that begins with "Q" for one,
   are programmed like others, but take half a second and leave 641 in the record, with code 0. */
QTX_API int32_t QTX_ModuleReadBoardInfo(QTX_Handle *handle, uint8_t *buffer, int32_t length);
QTX_API int32_t QTX_ModuleProgramBoardInfo(QTX_Handle *handle, const uint8_t *buffer, int32_t length);

/* ---- Pass-through for diagnostics and production ---------------------------------------------------------------- */

/* A chip register of 1 to 8 bytes. */
QTX_API int32_t QTX_RegisterRead(QTX_Handle *handle, uint8_t address, uint32_t byte_count, uint64_t *value);
QTX_API int32_t QTX_RegisterWrite(QTX_Handle *handle, uint8_t address, int32_t byte_count, uint64_t value);
/* Pins: identifiers below 500 are bridge pins, from 500 on the module's own names for them. Levels and directions are
   0 or 1, 1 is output. Code 262 for an unknown pin. */
QTX_API int32_t QTX_IO_SetValue(QTX_Handle *handle, uint32_t pin, uint32_t value);
QTX_API int32_t QTX_IO_SetDirection(QTX_Handle *handle, uint32_t pin, uint32_t direction, uint32_t value);
QTX_API int32_t QTX_IO_GetValue(QTX_Handle *handle, uint32_t pin, uint32_t *value);
/* One SPI frame: out_count bytes out, then in_count bytes in (at most 65536 each). Channel 0 is the chip, 1 the flash.
 */
QTX_API int32_t QTX_SPI_SendReceive(QTX_Handle *handle, uint32_t channel, const uint8_t *out, int32_t out_count,
                                    uint8_t *in, uint32_t in_count);
/* Full-duplex bits; flag 0x100 sends on the falling edge. in_bits must not be 0: (in_bits + 7) / 8 bytes come back. */
QTX_API int32_t QTX_SPI_SendReceiveBits(QTX_Handle *handle, uint32_t channel, const uint8_t *out, int32_t out_bits,
                                        uint8_t *in, int32_t in_bits, uint32_t flags);
/* The log of SPI transfers: mode 1 opens the file (its name: convention 3), 3 records, 2 closes, others pause. Codes:
   272, 271. */
QTX_API int32_t QTX_InterfaceLogging(QTX_Handle *handle, int32_t mode, const char *file_name);
QTX_API int32_t QTX_InterfaceLogComment(QTX_Handle *handle, const char *text);
/* The calibration as 579 doubles (docs/formats.md). Code 2 when capacity is below 515; always pass room for 579. */
QTX_API int32_t QTX_TimingMeasurementResults(QTX_Handle *handle, double *results, int32_t capacity);
/* Keeps the calibration in flash block number block ("FlashBlockSize" bytes each). Codes: 1 for a block outside the
   flash, 5 when no valid calibration is there. */
QTX_API int32_t QTX_TimingMeasurementSaveDataToFlash(QTX_Handle *handle, uint32_t block);
QTX_API int32_t QTX_TimingMeasurementLoadDataFromFlash(QTX_Handle *handle, uint32_t block);

/* ---- Utilities --------------------------------------------------------------------------------------------------- */
/* They don't know the capacity of the buffers they are given: provide room. */

/* The low 32 bits of value as a signed number in base 2 to 36, else an empty text. 34 bytes are always enough. */
QTX_API char *QTX_itoa(int64_t value, char *buffer, int32_t base);
QTX_API char *QTX_intcat(char *text, uint32_t value, int32_t base);
QTX_API char *QTX_chrcat(char *text, char character);
/* Copies source without its leading blanks and tabs. */
QTX_API char *QTX_strltrim(char *destination, const char *source);
/* Splits text into max_fields buffers of max_length characters. Returns the number of fields; 0 when they don't fit,
   and for texts of less than two characters. */
QTX_API int32_t QTX_strsplit(const char *text, char **fields, int32_t max_fields, int32_t max_length, char delimiter);
/* Microseconds of a monotonic clock. */
QTX_API uint64_t QTX_timestamp_us(void);
/* UTC as "2013-05-17T09:04:31.042"; 24 bytes. */
QTX_API char *QTX_timestamp_string(char *buffer, int32_t ignored);
QTX_API int32_t QTX_sleep_ms(uint32_t milliseconds);

#ifdef __cplusplus
}
#endif

#endif
