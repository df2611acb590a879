/* The test bed as a library that programs load when they need it, since it needs umockdev. */
#ifndef PULSEKIT3_USB_LIBRARY_H
#define PULSEKIT3_USB_LIBRARY_H

#ifdef __cplusplus
extern "C" {
#endif

/* Shows the bench's bridges to programs that are started after this, and sets their environment for it (UMOCKDEV_DIR,
   LD_PRELOAD). Null, or what is wrong. */
typedef const char *(*QTXUsb_StartFunction)(void);
/* Takes them away again. */
typedef void (*QTXUsb_StopFunction)(void);

#define QTXUSB_START "QTXUsb_Start"
#define QTXUSB_STOP "QTXUsb_Stop"

#ifdef __cplusplus
}
#endif

#endif
