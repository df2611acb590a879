#include "interface.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "../platform/platform.h"
#include "../support/QTX_Handle.h"
#include "../support/list.h"
#include "../support/own_records.h"
#include "../support/trace.h"
#include "FTx232H/FTx232H.h"
#include "program.h"

using namespace pulsekit;

static constexpr const char kSource[] = "src/interface/interface";

namespace {

constexpr char kDefaultName[] = "DEFAULT";
constexpr size_t kDriverListSize = 1024;

struct Driver {
  const char *name;
  const char *(*displayName)();
  int32_t (*initHandle)(InterfaceHandle **, QTX_StackTrace **, QTX_Handle *);
  int32_t (*freeHandle)(InterfaceHandle **, QTX_StackTrace **);
  const ProgramOperations *programs;
  int32_t (*presentDevices)(QTX_StackTrace *, std::vector<PresentDevice> *);
};

constexpr Driver kDrivers[] = {
    {"FTx232H", FTx232H_Name, FTx232H_InitHandle, FTx232H_FreeHandle, &FTx232H_Programs, FTx232H_PresentDevices},
};

// The driver whose name begins the text, as the name of a connection string does.
const Driver *driverOf(const char *text) {
  for (const Driver &driver : kDrivers) {
    if (std::strncmp(driver.name, text, std::strlen(driver.name)) == 0) return &driver;
  }
  return nullptr;
}

const Driver *driverNamed(const char *name) {
  for (const Driver &driver : kDrivers) {
    if (name && std::strcmp(driver.name, name) == 0) return &driver;
  }
  return nullptr;
}

int32_t interfaceDefaultInitInterface(InterfaceHandle *) { return kSuccess; }

std::unique_ptr<platform::Lock> makeLock() noexcept try {
  return std::make_unique<platform::Lock>();
} catch (const std::bad_alloc &) {
  return nullptr;
}

platform::Lock *lockOf(const InterfaceHandle *bridge) {
  return interfaceIsOurs(bridge) ? static_cast<platform::Lock *>(bridge->lock) : nullptr;
}

InterfaceHandle *createHandle(QTX_StackTrace **record, QTX_Handle *owner, int32_t *shared_status) {
  std::unique_ptr<InterfaceHandle> bridge(new (std::nothrow) InterfaceHandle{});
  std::unique_ptr<platform::Lock> lock = makeLock();
  if (!bridge || !lock || !addOwnRecord(bridge.get())) return nullptr;
  if (record) QTX_StackTraceInit(&bridge->error_state, record);
  bridge->owner = owner;
  bridge->shared_status = shared_status;
  bridge->InitInterface = interfaceDefaultInitInterface;
  bridge->Lock = interfaceLock;
  bridge->Unlock = interfaceUnlock;
  bridge->lock = lock.release();
  return bridge.release();
}

void destroyHandle(InterfaceHandle **bridge) {
  InterfaceHandle *handle = *bridge;
  *bridge = nullptr;
  if (!interfaceIsOurs(handle)) return;
  const std::unique_ptr<platform::Lock> lock(lockOf(handle));
  if (lock) lock->leave();
  removeOwnRecord(handle);
  delete handle;
}

QTX_StackTrace *recordIn(QTX_StackTrace **slot) { return slot ? *slot : nullptr; }

// The code that the driver left in the record, where there is one.
int32_t recordedCode(const QTX_StackTrace *record, int32_t code) {
  return record && record->code != kSuccess ? record->code : code;
}

int32_t listed(InterfaceHandle *bridge, int32_t (*list)(VariableSet *, char *, int32_t), char *out, uint32_t size,
               TracePoint at) {
  if (!bridge) return kError;
  QTX_StackTrace *record = interfaceErrorRecord(bridge);
  if (!bridge->variables) return origin(record, at, kInterfaceNotInitialized);
  if (int32_t code = list(bridge->variables, out, static_cast<int32_t>(std::min<uint32_t>(size, INT32_MAX)))) {
    return passThrough(record, at, code);
  }
  return kSuccess;
}

// Appends the devices that one driver sees. A driver that can't list its devices contributes none.
bool appendDevices(InterfaceHandle *bridge, char *out, uint32_t size) {
  char devices[kDriverListSize] = "";
  if (!bridge->ListDevices || bridge->ListDevices(bridge, devices, sizeof devices) != kSuccess) return true;
  const size_t used = std::strlen(out);
  const char *separator = used > 0 ? "#" : "";
  if (used + std::strlen(separator) + std::strlen(devices) + 1 > size) return false;
  std::snprintf(out + used, size - used, "%s%s", separator, devices);
  return true;
}

}  // namespace

QTX_StackTrace *interfaceErrorRecord(const InterfaceHandle *bridge) {
  if (!bridge) return nullptr;
  if (interfaceIsOurs(bridge)) {
    if (bridge->error_state) return bridge->error_state;
  } else if (bridge->variables && bridge->variables->error_state) {
    return bridge->variables->error_state;
  }
  return bridge->owner ? bridge->owner->error : nullptr;
}

const ProgramOperations *interfacePrograms(const InterfaceHandle *bridge) {
  return bridge && interfaceIsOurs(bridge) ? static_cast<const ProgramOperations *>(bridge->programs) : nullptr;
}

bool interfaceIsOurs(const InterfaceHandle *bridge) { return isOwnRecord(bridge); }

bool interfaceHasDevice(const InterfaceHandle *bridge) {
  return bridge && interfaceIsOurs(bridge) && bridge->connected != 0;
}

void interfaceNoteConnection(InterfaceHandle *bridge, bool connected) {
  if (interfaceIsOurs(bridge)) bridge->connected = connected ? 1 : 0;
}

bool interfaceAnswers(InterfaceHandle *bridge) {
  const InterfaceLock lock(bridge);
  return interfaceHasDevice(bridge) && (!bridge->Probe || bridge->Probe(bridge) == kSuccess);
}

int32_t interfacePresentDevices(QTX_StackTrace *record, std::vector<PresentDevice> *devices) {
  devices->clear();
  for (const Driver &driver : kDrivers) {
    if (int32_t code = driver.presentDevices(record, devices)) return passThrough(record, HERE, code);
  }
  return kSuccess;
}

extern "C" {

int32_t interfaceListSupportedInterfaces(char *out, int32_t size) {
  if (!out) return kError;
  if (size <= 0) return kBufferTooSmall;
  out[0] = '\0';
  for (const Driver &driver : kDrivers) {
    if (int32_t code = appendDriver(out, size, driver.name, driver.displayName())) return code;
  }
  return kSuccess;
}

int32_t interfaceInitHandle(InterfaceHandle **bridge, QTX_StackTrace **record, QTX_Handle *owner, const char *name,
                            int32_t *shared_status) {
  if (!bridge || !name) return origin(recordIn(record), HERE, kError);
  *bridge = nullptr;
  const bool has_driver = std::strcmp(name, kDefaultName) != 0;
  const Driver *driver = has_driver ? driverOf(name) : nullptr;
  if (has_driver && !driver) return origin(recordIn(record), HERE, kInterfaceUnknown, "Unknown interface name");

  *bridge = createHandle(record, owner, shared_status);
  if (!*bridge) return origin(recordIn(record), HERE, kOutOfMemory);
  if (!has_driver) {
    (*bridge)->type_name = kDefaultName;
    return kSuccess;
  }
  if (int32_t code = driver->initHandle(bridge, record, owner)) {
    driver->freeHandle(bridge, nullptr);
    destroyHandle(bridge);
    return passThrough(recordIn(record), HERE, code);
  }
  (*bridge)->type_name = driver->name;
  (*bridge)->programs = driver->programs;

  if (!owner || !owner->spare) return kSuccess;
  const auto hostSetup = reinterpret_cast<int32_t (*)(QTX_Handle *)>(owner->spare);
  if (int32_t code = hostSetup(owner)) {
    interfaceFreeHandle(bridge, nullptr);
    return passThrough(recordIn(record), HERE, code);
  }
  return kSuccess;
}

int32_t interfaceInitInterface(InterfaceHandle *bridge) {
  if (!bridge) return kInterfaceNotInitialized;
  QTX_StackTrace *record = interfaceErrorRecord(bridge);
  bridge->pin_map = nullptr;
  bridge->spi_channel_map = nullptr;
  if (!bridge->InitInterface) return origin(record, HERE, kInterfaceNotInitialized);
  if (int32_t code = bridge->InitInterface(bridge)) return passThrough(record, HERE, code);
  return kSuccess;
}

int32_t interfaceFreeHandle(InterfaceHandle **bridge, QTX_StackTrace **record_or_null) {
  if (!bridge) return kError;
  const Driver *driver = *bridge ? driverNamed((*bridge)->type_name) : nullptr;
  if (driver) {
    if (int32_t code = driver->freeHandle(bridge, nullptr)) {
      return passThrough(interfaceErrorRecord(*bridge), HERE, code);
    }
  }
  if (record_or_null) QTX_StackTraceFree(record_or_null);
  if (*bridge) destroyHandle(bridge);
  return kSuccess;
}

int32_t interfaceListConnectedInterfaces(QTX_Handle *owner, char *out, uint32_t size) {
  if (!owner) return kRadarNotInitialized;
  if (!out) return origin(owner->error, HERE, kError);
  if (size == 0) return origin(owner->error, HERE, kBufferTooSmall);
  out[0] = '\0';
  InterfaceHandle **slot = &owner->interface_handle;
  if (interfaceHasDevice(*slot)) return origin(owner->error, HERE, kError, "A radar is open on this handle");
  interfaceFreeHandle(slot, nullptr);

  int32_t result = kSuccess;
  for (const Driver &driver : kDrivers) {
    int32_t not_open = 0;
    if (int32_t code = interfaceInitHandle(slot, &owner->error, owner, driver.name, &not_open)) {
      if (code == kOutOfMemory) return passThrough(owner->error, HERE, code);
      return origin(owner->error, HERE, kInterfaceInit, driver.name);
    }
    if (interfaceInitInterface(*slot)) {
      interfaceFreeHandle(slot, nullptr);
      return origin(owner->error, HERE, kInterfaceInit, driver.name);
    }
    const bool fits = appendDevices(*slot, out, size);
    result = driver.freeHandle(slot, nullptr);
    interfaceFreeHandle(slot, nullptr);
    if (!fits) return origin(owner->error, HERE, kBufferTooSmall);
  }
  return result;
}

int32_t interfaceConnect(InterfaceHandle *bridge, const char *connection_string) {
  if (!bridge) return kInterfaceNotInitialized;
  QTX_StackTrace *record = interfaceErrorRecord(bridge);
  if (!connection_string) return origin(record, HERE, kError);
  const Driver *driver = driverOf(connection_string);
  if (!driver) return origin(record, HERE, kInterfaceOpen, "Could not find device type");
  if (!bridge->ConnectDevice) return origin(record, HERE, kInterfaceNotInitialized);
  if (int32_t code = bridge->ConnectDevice(bridge, &bridge->connection, connection_string)) {
    passThrough(record, HERE, code);
    return recordedCode(record, code);
  }
  bridge->type_name = driver->name;
  interfaceNoteConnection(bridge, true);
  return kSuccess;
}

int32_t interfaceDisconnect(InterfaceHandle *bridge) {
  if (!bridge) return kInterfaceNotInitialized;
  if (!bridge->DisconnectDevice) return kSuccess;
  if (int32_t code = bridge->DisconnectDevice(bridge, bridge->connection)) {
    QTX_StackTrace *record = interfaceErrorRecord(bridge);
    passThrough(record, HERE, code);
    return recordedCode(record, code);
  }
  interfaceNoteConnection(bridge, false);
  return kSuccess;
}

int32_t interfaceListVariables(InterfaceHandle *bridge, char *out, uint32_t size) {
  return listed(bridge, varListVariables, out, size, HERE);
}

int32_t interfaceListActions(InterfaceHandle *bridge, char *out, uint32_t size) {
  return listed(bridge, varListActions, out, size, HERE);
}

int32_t interfaceIO_SetValue(InterfaceHandle *bridge, uint32_t pin, uint32_t value) {
  if (!bridge) return kInterfaceNotInitialized;
  QTX_StackTrace *record = interfaceErrorRecord(bridge);
  if (!bridge->SetIO) return origin(record, HERE, kInterfaceNotInitialized);
  if (int32_t code = bridge->SetIO(bridge, pin, value)) return passThrough(record, HERE, code);
  return kSuccess;
}

int32_t interfaceIO_SetDirection(InterfaceHandle *bridge, uint32_t pin, uint32_t direction, uint32_t value) {
  if (!bridge) return kInterfaceNotInitialized;
  QTX_StackTrace *record = interfaceErrorRecord(bridge);
  if (!bridge->SetIO_Direction) return origin(record, HERE, kInterfaceNotInitialized);
  if (int32_t code = bridge->SetIO_Direction(bridge, pin, direction, value)) return passThrough(record, HERE, code);
  return kSuccess;
}

int32_t interfaceIO_GetValue(InterfaceHandle *bridge, uint32_t pin, uint32_t *value) {
  if (!bridge) return kInterfaceNotInitialized;
  QTX_StackTrace *record = interfaceErrorRecord(bridge);
  if (!bridge->GetIO) return origin(record, HERE, kInterfaceNotInitialized);
  if (int32_t code = bridge->GetIO(bridge, pin, value)) return passThrough(record, HERE, code);
  return kSuccess;
}

int32_t interfaceLock(InterfaceHandle *bridge) {
  if (!bridge) return kInterfaceNotInitialized;
  if (platform::Lock *lock = lockOf(bridge)) lock->enter();
  return kSuccess;
}

int32_t interfaceUnlock(InterfaceHandle *bridge) {
  if (!bridge) return kInterfaceNotInitialized;
  if (platform::Lock *lock = lockOf(bridge)) lock->leave();
  return kSuccess;
}

}  // extern "C"
