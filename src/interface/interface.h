/*
 * The interface layer: the registry of bridge drivers, the interface handle with its operations and its lock. A handle
 * belongs to a library handle (owner) and writes into the error record that it is given, normally the owner's. The lock
 * is recursive and may be left without being held; callers hold it for one bus sequence.
 *
 * Order of calls: interfaceInitHandle, interfaceInitInterface, interfaceConnect, operations, interfaceDisconnect,
 * interfaceFreeHandle. A handle connects once.
 */
#ifndef PULSEKIT3_INTERFACE_H
#define PULSEKIT3_INTERFACE_H

#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
#include <string>
#include <vector>
#endif

#include "../support/vars.h"
#include "Pulsekit3.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct InterfaceHandle InterfaceHandle;

/* How a byte transfer shares a USB round trip with others. */
enum {
  SPI_MODE_QUEUE = 0,   /* append to the batch, send nothing */
  SPI_MODE_EXECUTE = 1, /* append, send, read all pending answers */
  SPI_MODE_COLLECT = 2  /* send the batch, read all pending answers into the caller's buffer */
};

struct InterfaceHandle {
  const char *type_name; /* the driver's registry name or "DEFAULT" */
  QTX_Handle *owner;
  void *connection; /* the driver's connection block */
  char driver_name[32];
  const void *pin_map, *spi_channel_map; /* chosen on first use by the module's driver name */
  char log_file_name[256];
  FILE *log_file;
  int32_t log_mode;
  int32_t *shared_status; /* the owner's open flag: not 0 makes register writes wait for the sweep */
  VariableSet *variables;
  int32_t (*InitInterface)(InterfaceHandle *bridge);
  int32_t (*ListDevices)(InterfaceHandle *bridge, char *out, uint32_t size);
  int32_t (*ConnectDevice)(InterfaceHandle *bridge, void **connection, const char *connection_string);
  int32_t (*DisconnectDevice)(InterfaceHandle *bridge, void *connection);
  int32_t (*SendReceiveSPI)(InterfaceHandle *bridge, uint32_t channel, const uint8_t *out, int32_t out_count,
                            uint8_t *in, uint32_t in_count, int32_t mode);
  int32_t (*SendReceiveBitsSPI)(InterfaceHandle *bridge, uint32_t channel, const uint8_t *out, int32_t out_bits,
                                uint8_t *in, int32_t in_bits, uint32_t flags);
  int32_t (*SetIO)(InterfaceHandle *bridge, uint32_t pin, uint32_t value);
  int32_t (*SetIO_Direction)(InterfaceHandle *bridge, uint32_t pin, uint32_t direction, uint32_t value);
  int32_t (*GetIO)(InterfaceHandle *bridge, uint32_t pin, uint32_t *value);
  void *reserved;
  int32_t (*Lock)(InterfaceHandle *bridge);
  int32_t (*Unlock)(InterfaceHandle *bridge);
  int32_t (*InterfaceLogging)(InterfaceHandle *bridge, int32_t mode, const char *file_name);
  int32_t (*InterfaceLogComment)(InterfaceHandle *bridge, const char *text);
  /* Private from here on; a record that a host has made itself ends above (own_records.h). */
  void *lock;
  QTX_StackTrace *error_state;
  int32_t connected;    /* 1 between interfaceConnect and interfaceDisconnect */
  const void *programs; /* what the driver offers beyond its slots (program.h), or null */
  /* Whether the device is still there, or null; 0 or the bridge library's status. */
  int32_t (*Probe)(struct InterfaceHandle *bridge);
};

QTX_API int32_t interfaceListSupportedInterfaces(char *out, int32_t size);
/* Creates a handle for the driver whose name begins the given name. "DEFAULT" is a handle without a driver. Codes: 268.
 */
QTX_API int32_t interfaceInitHandle(InterfaceHandle **bridge, QTX_StackTrace **record, QTX_Handle *owner,
                                    const char *name, int32_t *shared_status);
QTX_API int32_t interfaceInitInterface(InterfaceHandle *bridge);
/* Frees the handle and clears the slot; frees the record too when one is given. Closes the device and the log. */
QTX_API int32_t interfaceFreeHandle(InterfaceHandle **bridge, QTX_StackTrace **record_or_null);
/* Connection strings of all devices of all drivers, separated by '#'. Uses the owner's interface slot meanwhile. */
QTX_API int32_t interfaceListConnectedInterfaces(QTX_Handle *owner, char *out, uint32_t size);
QTX_API int32_t interfaceConnect(InterfaceHandle *bridge, const char *connection_string);
QTX_API int32_t interfaceDisconnect(InterfaceHandle *bridge);
QTX_API int32_t interfaceListVariables(InterfaceHandle *bridge, char *out, uint32_t size);
QTX_API int32_t interfaceListActions(InterfaceHandle *bridge, char *out, uint32_t size);
QTX_API int32_t interfaceIO_SetValue(InterfaceHandle *bridge, uint32_t pin, uint32_t value);
QTX_API int32_t interfaceIO_SetDirection(InterfaceHandle *bridge, uint32_t pin, uint32_t direction, uint32_t value);
QTX_API int32_t interfaceIO_GetValue(InterfaceHandle *bridge, uint32_t pin, uint32_t *value);
QTX_API int32_t interfaceLock(InterfaceHandle *bridge);
QTX_API int32_t interfaceUnlock(InterfaceHandle *bridge);

#ifdef __cplusplus
}

/* The record that failures on this handle go to: the one given at creation, else the owner's. */
QTX_StackTrace *interfaceErrorRecord(const InterfaceHandle *bridge);
namespace pulsekit {
struct ProgramOperations;
}
const pulsekit::ProgramOperations *interfacePrograms(const InterfaceHandle *bridge);
/* Whether the layer has made the handle: one that a host has made itself lacks the private fields. */
bool interfaceIsOurs(const InterfaceHandle *bridge);
bool interfaceHasDevice(const InterfaceHandle *bridge);
/* A driver tells when its device is connected and when no longer, whoever has called it. */
void interfaceNoteConnection(InterfaceHandle *bridge, bool connected);
/* Whether the connected device still answers. */
bool interfaceAnswers(InterfaceHandle *bridge);

/* A device as the lists of the drivers' libraries show it. */
struct PresentDevice {
  std::string serial; /* empty where the list does not tell, as for one that another program has open */
  bool open, open_here;
};
/* All devices that are attached, whoever has them open; opens nothing. Codes: 259. Throws when memory is short. */
int32_t interfacePresentDevices(QTX_StackTrace *record, std::vector<PresentDevice> *devices);
/* The driver that a module handle runs, by which pins and channels are chosen; the module layer answers. */
const char *moduleDriverName(const struct ModuleHandle *module);

/* Holds the handle's lock for a scope; a null handle is fine. */
class InterfaceLock {
 public:
  explicit InterfaceLock(InterfaceHandle *bridge) : bridge_(bridge && bridge->Lock ? bridge : nullptr) {
    if (bridge_) bridge_->Lock(bridge_);
  }
  ~InterfaceLock() {
    if (bridge_ && bridge_->Unlock) bridge_->Unlock(bridge_);
  }
  InterfaceLock(const InterfaceLock &) = delete;
  InterfaceLock &operator=(const InterfaceLock &) = delete;

 private:
  InterfaceHandle *bridge_;
};
#endif

#endif
