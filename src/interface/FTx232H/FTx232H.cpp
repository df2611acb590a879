#include "FTx232H.h"

#include <cstring>

#include "../../support/trace.h"
#include "FTx232H-autogen.h"
#include "FTx232H_private.h"

using namespace pulsekit;

static constexpr const char kSource[] = "src/interface/FTx232H/FTx232H";

namespace {

constexpr char kDriverName[] = "FTx232H";

// Nothing to do: the layer has cleared what depends on the module.
int32_t FTx232H_InitInterface(InterfaceHandle *) { return kSuccess; }

void fillOperations(InterfaceHandle &bridge) {
  bridge.InitInterface = FTx232H_InitInterface;
  bridge.ListDevices = FTx232H_ListDevices;
  bridge.ConnectDevice = FTx232H_ConnectDevice;
  bridge.DisconnectDevice = FTx232H_DisconnectDevice;
  bridge.SendReceiveSPI = FTx232H_SendReceiveSPI;
  bridge.SendReceiveBitsSPI = FTx232H_SendReceiveBitsSPI;
  bridge.SetIO = FTx232H_SetIO;
  bridge.SetIO_Direction = FTx232H_SetIO_Direction;
  bridge.GetIO = FTx232H_GetIO;
  bridge.InterfaceLogging = FTx232H_InterfaceLogging;
  bridge.InterfaceLogComment = FTx232H_InterfaceLogComment;
  if (interfaceIsOurs(&bridge)) bridge.Probe = FTx232H_Probe;
}

// A handle that a host has given slots of its own holds nothing of this driver.
bool isDriven(const InterfaceHandle &bridge) { return std::strcmp(bridge.driver_name, kDriverName) == 0; }

}  // namespace

// Part of the driver's contract, without a use of their own.
int32_t QTX_IF_GetResult() { return kSuccess; }
int32_t QTX_IF_GetLastError() { return kSuccess; }
int32_t FTx232H_GetErrorDescription() { return kSuccess; }

extern "C" {

const char *FTx232H_Name(void) { return kDriverName; }

int32_t FTx232H_InitHandle(InterfaceHandle **bridge_slot, QTX_StackTrace **record, QTX_Handle *owner) {
  if (!bridge_slot) return kError;
  InterfaceHandle *bridge = *bridge_slot;
  if (!bridge) return origin(record ? *record : nullptr, HERE, kInterfaceNotInitialized);
  // A second time: the driver starts anew.
  if (isDriven(*bridge)) FTx232H_FreeHandle(bridge_slot, nullptr);
  if (record && interfaceIsOurs(bridge)) QTX_StackTraceInit(&bridge->error_state, record);
  bridge->owner = owner;
  std::memset(bridge->driver_name, 0, sizeof bridge->driver_name);
  std::memcpy(bridge->driver_name, kDriverName, sizeof kDriverName);

  QTX_StackTrace *shared = record && *record ? *record : interfaceErrorRecord(bridge);
  if (int32_t code = vars_FTx232H_InitHandle(&bridge->variables, &shared)) return passThrough(shared, HERE, code);
  bridge->variables->owner = owner;
  bridge->connection = createConnection();
  if (!bridge->connection) return origin(shared, HERE, kOutOfMemory);
  fillOperations(*bridge);
  clearDeviceInfoEntriesOnce();
  return kSuccess;
}

int32_t FTx232H_FreeHandle(InterfaceHandle **bridge_slot, QTX_StackTrace **record_or_null) {
  if (!bridge_slot) return kError;
  InterfaceHandle *bridge = *bridge_slot;
  if (bridge && isDriven(*bridge)) {
    vars_FTx232H_FreeHandle(&bridge->variables);
    destroyConnection(bridge);
    closeInterfaceLog(bridge);
  }
  if (bridge && interfaceIsOurs(bridge) && record_or_null && *record_or_null == bridge->error_state) {
    bridge->error_state = nullptr;
  }
  if (record_or_null) QTX_StackTraceFree(record_or_null);
  return kSuccess;
}

}  // extern "C"
