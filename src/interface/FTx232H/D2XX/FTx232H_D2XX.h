/*
 * The bridge library behind the driver. The driver calls D2XX only through this table, so that the vendor's library, an
 * own one and a simulated bridge are interchangeable at run time. Types and values are D2XX's own.
 */
#ifndef PULSEKIT3_FTX232H_D2XX_H
#define PULSEKIT3_FTX232H_D2XX_H

#include <stdint.h>

#include "Pulsekit3.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef void *FT_HANDLE;    /* a channel of a bridge that was opened */
typedef uint32_t FT_STATUS; /* FT_OK or why a call failed */

enum {
  FT_OK = 0,
  FT_INVALID_HANDLE = 1,
  FT_DEVICE_NOT_FOUND = 2,
  FT_DEVICE_NOT_OPENED = 3,
  FT_IO_ERROR = 4,
  FT_INSUFFICIENT_RESOURCES = 5,
  FT_INVALID_PARAMETER = 6,
  FT_NOT_SUPPORTED = 17,
  FT_DEVICE_LIST_NOT_READY = 19
};

/* Flags of OpenEx and ListDevices: which text or number names the device, and how many are asked for. */
#define FT_OPEN_BY_SERIAL_NUMBER 1u
#define FT_OPEN_BY_DESCRIPTION 2u
#define FT_OPEN_BY_LOCATION 4u
#define FT_LIST_NUMBER_ONLY 0x80000000u
#define FT_LIST_BY_INDEX 0x40000000u
#define FT_LIST_ALL 0x20000000u

/* Device types and flags of a node. */
enum { FT_DEVICE_UNKNOWN = 3, FT_DEVICE_2232H = 6, FT_DEVICE_4232H = 7, FT_DEVICE_232H = 8 };
enum { FT_FLAGS_OPENED = 1, FT_FLAGS_HISPEED = 2 };

/* A channel of an attached bridge. One that another process has open shows as type 3 with empty texts. */
typedef struct FT_Node {
  uint32_t Flags;        /* FT_FLAGS_... */
  uint32_t Type;         /* FT_DEVICE_... */
  uint32_t ID;           /* USB vendor << 16 | product */
  uint32_t LocId;        /* where it is plugged in */
  char SerialNumber[16]; /* with the channel's letter where the bridge has several */
  char Description[64];  /* likewise */
  FT_HANDLE Handle;      /* null unless this process has it open */
} FT_Node;

/* The functions, each with D2XX's own rules. */
typedef struct FTx232H_D2XX {
  /* Closes a handle; succeeds after the device is gone, too. */
  FT_STATUS (*Close)(FT_HANDLE handle);
  /* Blocks until count bytes are there or the read time-out is over, which is FT_OK with *got short, even 0. */
  FT_STATUS (*Read)(FT_HANDLE handle, void *buffer, uint32_t count, uint32_t *got);
  /* Likewise with the write time-out and *written. */
  FT_STATUS (*Write)(FT_HANDLE handle, const void *buffer, uint32_t count, uint32_t *written);
  /* Empties the FIFOs of the channel in both directions. */
  FT_STATUS (*ResetDevice)(FT_HANDLE handle);
  /* Milliseconds; 0: for ever. */
  FT_STATUS (*SetTimeouts)(FT_HANDLE handle, uint32_t read_ms, uint32_t write_ms);
  /* Bytes that can be read at once; never touches the wire. */
  FT_STATUS (*GetQueueStatus)(FT_HANDLE handle, uint32_t *count);
  /* Opens by FT_OPEN_BY_...; a location is passed in the pointer. */
  FT_STATUS (*OpenEx)(const void *arg, uint32_t flags, FT_HANDLE *out);
  /* Number, names or locations of the devices; an index is passed in the pointer. */
  FT_STATUS (*ListDevices)(void *arg1, void *arg2, uint32_t flags);
  /* Milliseconds, from 1 on, after which a bridge sends an answer that does not fill a packet. */
  FT_STATUS (*SetLatencyTimer)(FT_HANDLE handle, uint8_t ms);
  /* mask: output pins; mode: 0 reset, 2 MPSSE. */
  FT_STATUS (*SetBitMode)(FT_HANDLE handle, uint8_t mask, uint8_t mode);
  /* Sizes of USB transfers: multiples of 64 from 64 to 65536. */
  FT_STATUS (*SetUSBParameters)(FT_HANDLE handle, uint32_t in_size, uint32_t out_size);
  /* Looks for devices and keeps what it found for the next function. */
  FT_STATUS (*CreateDeviceInfoList)(uint32_t *count);
  /* Writes all nodes of that list, as many as CreateDeviceInfoList said, whatever *count says. */
  FT_STATUS (*GetDeviceInfoList)(FT_Node *nodes, uint32_t *count);
} FTx232H_D2XX;

/* Installs the table (copied) for the whole process; null goes back to the default. Devices that are open keep the
   table they were opened with. An empty slot answers FT_NOT_SUPPORTED. Returns 0. */
QTX_API int32_t FTx232H_SetD2XX(const FTx232H_D2XX *functions);

/*
 * Without a table of the host the library loads one, when a bridge is listed or opened for the first time in the
 * process: the one that the environment variable PULSEKIT3_BRIDGE_LIBRARY names and no other, else the vendor's
 * (libftd2xx.so; FTD2XX.dll on Windows), else, except on Windows, it works the bridges by itself through libusb-1.0,
 * which "libusb" names in the environment variable. A library must export the thirteen functions as FT_Close,
 * FT_Read, ...: if one is missing it is refused as a whole. A library may also export const char
 * *FTx232H_LibraryFault(void); which is asked once after loading: null, or the reason why it can't serve, which refuses
 * it.
 */

/* Writes which library serves or why none does, a line for each that was looked for: "<library>: loaded\n",
   "<library>: not loaded: <the system's reason>\n", "<library>: refused: <reason>\n", "libusb-1.0: in use\n", or
   "table of the host (FTx232H_SetD2XX): in use\n". Loads the library where that is still to be done. Returns 0, 1 for
   no buffer, or 2 when the text was cut at size - 1 characters. Any thread may call it. */
QTX_API int32_t FTx232H_DescribeBridgeLibraries(char *text, int32_t size);

/* Writes a line for each channel of each bridge that the system shows on the USB, usable or not: place, channel, IDs,
   serial number ("?" where it can't be read), state, and, where it can't be used, cause and remedy:
     "usb 1-2.4 A 0403:6010 FT0001ABA: ready\n"
     "usb 1-2.4 B 0403:6010 FT0001ABB: busy: flashrom (1234) has it open: end that program\n"
   States: "ready", "open in this program", "no rights", "busy", "wrong driver" (as long as the kernel makes a serial
   port of it the vendor's library can't use it), "no MPSSE", "no answer". Nothing is written where a table of the host
   or a library that the environment names serves, on Windows, and where libusb is not built in. Reads the bridges that
   are not open. Returns 0, 1 for no buffer, 2 when the text was cut at size - 1 characters, or 7. Any thread may call
   it. */
QTX_API int32_t FTx232H_DescribePorts(char *text, int32_t size);

#ifdef __cplusplus
}
#endif

#endif
