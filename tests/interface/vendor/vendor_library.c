/* A library with the vendor's names and one bridge. A call through the wrong slot is an invalid parameter. */
#include <string.h>

#include "FTx232H_D2XX.h"

#ifdef _WIN32
#define EXPORT /* FTD2XX.def does it */
#else
#define EXPORT __attribute__((visibility("default")))
#endif
#define CHECK(condition) \
  if (!(condition)) return FT_INVALID_PARAMETER

static int opened, answered, configured;

EXPORT FT_STATUS FT_OpenEx(const void *serial, uint32_t flags, FT_HANDLE *out) {
  CHECK(flags == FT_OPEN_BY_SERIAL_NUMBER && strcmp(serial, "VENDOR01") == 0);
  opened = 1;
  *out = &opened;
  return FT_OK;
}

EXPORT FT_STATUS FT_Close(FT_HANDLE handle) {
  CHECK(handle == &opened && answered);
  opened = 0;
  return FT_OK;
}

EXPORT FT_STATUS FT_Read(FT_HANDLE handle, void *buffer, uint32_t count, uint32_t *got) {
  CHECK(handle == &opened && count == 2);
  memcpy(buffer, "\x20\x00", 2);
  answered = 1;
  *got = 2;
  return FT_OK;
}

EXPORT FT_STATUS FT_Write(FT_HANDLE handle, const void *buffer, uint32_t count, uint32_t *written) {
  CHECK(handle == &opened && (*(const uint8_t *)buffer & 0x80) != 0);
  *written = count;
  return FT_OK;
}

EXPORT FT_STATUS FT_ResetDevice(FT_HANDLE handle) {
  CHECK(handle == &opened && !configured);
  return FT_OK;
}

EXPORT FT_STATUS FT_SetTimeouts(FT_HANDLE handle, uint32_t read_ms, uint32_t write_ms) {
  CHECK(handle == &opened && read_ms == 5000 && write_ms == 1000);
  configured = 1;
  return FT_OK;
}

EXPORT FT_STATUS FT_GetQueueStatus(FT_HANDLE handle, uint32_t *count) {
  static int calls;
  CHECK(handle == &opened);
  /* Empty while connecting. */
  *count = ++calls > 2 ? 2 : 0;
  return FT_OK;
}

EXPORT FT_STATUS FT_ListDevices(void *arg1, void *arg2, uint32_t flags) {
  if (flags == FT_LIST_NUMBER_ONLY) {
    *(uint32_t *)arg1 = 1;
    return FT_OK;
  }
  CHECK(arg1 == 0);
  strcpy(arg2, "VENDOR01");
  return FT_OK;
}

EXPORT FT_STATUS FT_SetLatencyTimer(FT_HANDLE handle, uint8_t ms) {
  CHECK(handle == &opened && ms == 2);
  return FT_OK;
}

EXPORT FT_STATUS FT_SetBitMode(FT_HANDLE handle, uint8_t mask, uint8_t mode) {
  CHECK(handle == &opened && mask == 0 && (mode == 0 || mode == 2));
  /* Its own function, not the simulator's that the program is linked with. */
  CHECK(FT_SetLatencyTimer(handle, 2) == FT_OK);
  return FT_OK;
}

EXPORT FT_STATUS FT_SetUSBParameters(FT_HANDLE handle, uint32_t in_size, uint32_t out_size) {
  CHECK(handle == &opened && in_size == 65536 && out_size == 65536);
  return FT_OK;
}

EXPORT FT_STATUS FT_CreateDeviceInfoList(uint32_t *count) {
  *count = 1;
  return FT_OK;
}

#ifndef CRIPPLED
EXPORT FT_STATUS FT_GetDeviceInfoList(FT_Node *nodes, uint32_t *count) {
  CHECK(*count == 1);
  memset(nodes, 0, sizeof *nodes);
  return FT_OK;
}
#endif
