// Handles of the interface layer: names, listing, connecting, the default handle, the lock, the log.
#include <atomic>
#include <thread>

#include "bridge.h"
#include "module/module.h"

namespace pulsekit::test {
namespace {

class Connection : public Bridge {
 protected:
  std::string listed(uint32_t size = 512) {
    std::string text(size + 1, '~');
    const int32_t code = FTx232H_ListDevices(bridge, text.data(), size);
    EXPECT_EQ(text[size], '~');
    return std::to_string(code) + " " + (text[0] == '~' ? "untouched" : text.substr(0, size).c_str());
  }
  std::string connected(uint32_t size = 512) {
    std::string text(size + 1, '~');
    const int32_t code = interfaceListConnectedInterfaces(radar, text.data(), size);
    EXPECT_EQ(text[size], '~');
    EXPECT_TRUE(radar->interface_handle == nullptr || interfaceHasDevice(bridge));
    return std::to_string(code) + " " + (text[0] == '~' ? "untouched" : text.substr(0, size).c_str());
  }
  // Creates a second handle on the same library handle and frees it again.
  std::string created(const char *name) {
    InterfaceHandle *handle = nullptr;
    const int32_t code = interfaceInitHandle(&handle, &radar->error, radar, name, &radar->open);
    const std::string type = handle ? handle->type_name : "nothing";
    EXPECT_EQ(interfaceFreeHandle(&handle, nullptr), 0);
    return std::to_string(code) + " " + type;
  }
  void add(const char *serial, int32_t bridge_kind = QTXSIM_FT232H) {
    QTXSim_AddRadar(serial, "Bridge", bridge_kind, nullptr, nullptr);
  }
  void hold(int32_t device) { QTXSim_SetHeld(device, 1); }
};

TEST_F(Connection, BringUpToTheByte) {
  DO(connect(), bridge->type_name, bridge->connected, connect(), interfaceConnect(bridge, nullptr),
     interfaceConnect(bridge, "COM1"), bridge->GetIO(bridge, 1101, &value), value, interfaceDisconnect(bridge),
     bridge->connection, bridge->connected, interfaceDisconnect(bridge), connect());
  open("FTx232H");
  const uint8_t stale[] = {1, 2, 3};
  QTXSim_InsertAnswer(0, stale, 3);
  DO(connect(), FTx232H_InitHandle(&bridge, &radar->error, radar), connect());
  say("a table that is installed later is for later connections");
  DO(FTx232H_SetD2XX(nullptr), bridge->SetIO(bridge, 1107, 1), interfaceDisconnect(bridge), listed(),
     FTx232H_SetD2XX(QTXSim_D2XX()));
}

TEST_F(Connection, EveryFailingStep) {
  for (const char *call : {"OpenEx", "CreateDeviceInfoList", "GetDeviceInfoList", "ResetDevice", "GetQueueStatus",
                           "SetUSBParameters", "SetTimeouts", "SetLatencyTimer", "SetBitMode", "Write", "Read"}) {
    for (uint32_t nth = 1;; ++nth) {
      open("FTx232H");
      const uint8_t stale = 1;
      QTXSim_InsertAnswer(0, &stale, 1);
      QTXSim_FailCall(call, nth, 1, FT_IO_ERROR);
      kinds = 0;
      const uint64_t before = QTXSim_Calls(call), closed = QTXSim_Calls("Close");
      DO_FOR(format("%s %u", call, nth), connect(), bridge->connected, QTXSim_Calls("Close") - closed);
      QTXSim_ClearFaults();
      if (QTXSim_Calls(call) - before < nth) break;
    }
  }
  open("FTx232H");
  FTx232H_D2XX table = *QTXSim_D2XX();
  for (auto clear :
       {+[](FTx232H_D2XX &t) { t.Read = nullptr; }, +[](FTx232H_D2XX &t) { t.GetDeviceInfoList = nullptr; },
        +[](FTx232H_D2XX &t) { t = {}, t.ListDevices = QTXSim_D2XX()->ListDevices; }}) {
    open("FTx232H");
    clear(table);
    FTx232H_SetD2XX(&table);
    DO_FOR("a table with empty slots", listed(), interfaceConnect(bridge, kDevice),
           connection().d2xx.Close(connection().device_handle), bridge->GetIO(bridge, 1101, &value));
    connection().open = false;
  }
}

TEST_F(Connection, SerialNumbers) {
  const std::string endless(10'000, 'A');
  for (const std::string &text : {std::string("FTx232H"), std::string("FTx232H!FT0001AB"),
                                  std::string("FTx232H!Serial No: ()"), std::string("FTx232H!Serial No: (FT0001AC)"),
                                  std::string("FTx232H!Serial No: (unclosed"), "FTx232H" + endless}) {
    DO_FOR(text.substr(0, 40), connect(text.c_str()));
  }
  DO(interfaceConnect(bridge, ("FTx232H!(" + endless + ")").c_str()),
     connect(("FTx232H" + endless + "(FT0001AB)(x)").c_str()));
}

TEST_F(Connection, ClosingAndOperationsWithoutADevice) {
  uint8_t byte = 0;
  DO(bridge->SetIO(bridge, 5, 1), interfaceDisconnect(bridge), interfaceDisconnect(bridge),
     bridge->SendReceiveSPI(bridge, 0, &byte, 1, &byte, 1, 1),
     bridge->SendReceiveBitsSPI(bridge, 0, &byte, 8, &byte, 8, 0), bridge->SetIO(bridge, 5, 1),
     bridge->SetIO_Direction(bridge, 5, 1, 1), bridge->GetIO(bridge, 5, &value), setSPIClockFrequency(radar, 1),
     setSPIClockFrequency(nullptr, 1), bridge->ConnectDevice(bridge, &bridge->connection, nullptr),
     bridge->ConnectDevice(bridge, nullptr, kDevice));
  fresh("Close");
  DO(interfaceDisconnect(bridge), bridge->connection, bridge->connected, interfaceDisconnect(bridge));
  say("a device that could not be closed is closed when it is in the way");
  for (int round : {1, 2}) {
    fresh("Close");
    DO_FOR(round, open("FTx232H"), round == 1 ? std::to_string(connect()) : listed());
  }
  say("the layer notices what is released behind its back");
  fresh();
  DO(bridge->DisconnectDevice(bridge, bridge->connection), interfaceHasDevice(bridge));
  fresh();
  DO(FTx232H_FreeHandle(&bridge, nullptr), interfaceHasDevice(bridge));
}

TEST_F(Connection, Listing) {
  DO(listed(), listed(31), listed(32), listed(0), FTx232H_ListDevices(bridge, nullptr, 9),
     FTx232H_ListDevices(nullptr, nullptr, 9));
  add("FT0002", QTXSIM_FT2232H);
  DO(listed(), listed(61), listed(62), connected(), connected(88), connected(89));
  for (uint32_t nth = 1; nth <= 4; ++nth) {
    QTXSim_FailCall("ListDevices", nth, 1, FT_IO_ERROR);
    DO_FOR(nth, (open("FTx232H"), listed()), connected());
    QTXSim_ClearFaults();
  }
  QTXSim_FailCall("ListDevices", 2, 1, FT_DEVICE_NOT_OPENED);
  DO((open("FTx232H"), listed()));

  say("open devices are known from the registry");
  QTXSim_Reset();
  for (const char *serial : {"A", "B", "C", "D"}) add(serial);
  for (int32_t device : {0, 2, 3}) hold(device);
  int entries[17];
  DO(FTx232H_AddDeviceInfoEntry(entries, "One", "FT1"),
     FTx232H_AddDeviceInfoEntry(entries + 1, "Two", std::string(10'000, 'S').c_str()), listed());
  for (int i = 4; i < 20; ++i) add(std::to_string(i).c_str()), hold(i);
  DO(listed(2048).size(), FTx232H_DeleteDeviceInfoEntry(entries), FTx232H_DeleteDeviceInfoEntry(entries),
     FTx232H_DeleteDeviceInfoEntry(entries + 1));
  for (int i = 0; i < 16; ++i) EXPECT_EQ(FTx232H_AddDeviceInfoEntry(entries + i, "", "s"), 0);
  DO(FTx232H_AddDeviceInfoEntry(entries + 16, "", "s"),
     (open("FTx232H"), FTx232H_AddDeviceInfoEntry(entries + 16, "", "s")));
  for (int i = 0; i < 16; ++i) EXPECT_EQ(FTx232H_DeleteDeviceInfoEntry(entries + i), 0);

  QTXSim_Reset();
  DO(listed(), connected());
}

TEST_F(Connection, HandlesByName) {
  for (const char *name : {"FTx232H", kDevice, "FTx232Hand any other text", "DEFAULT", "", "FTx232", "ftx232h",
                           " FTx232H", "LAST", "DEFAULT!x"}) {
    DO_FOR(name, created(name));
  }
  char text[64] = "x";
  DO(created(nullptr), interfaceListSupportedInterfaces(text, 17), interfaceListSupportedInterfaces(text, 18), text,
     interfaceListSupportedInterfaces(text, 0), interfaceListSupportedInterfaces(nullptr, 18),
     interfaceListVariables(bridge, text, 64), text, interfaceListVariables(bridge, text, 10),
     interfaceListActions(bridge, text, 4294967295), text);
  say("a host's own setup");
  radar->spare = reinterpret_cast<void *>(+[](QTX_Handle *) { return 0; });
  DO(created("FTx232H"), connected(), connected(0), interfaceListConnectedInterfaces(radar, nullptr, 9));
  radar->spare = reinterpret_cast<void *>(+[](QTX_Handle *) { return 5; });
  DO(created("FTx232H"), connected(), radar->interface_handle);
  radar->spare = nullptr;
  fresh();
  DO(connected(), interfaceIO_SetValue(bridge, 1107, 1));

  say("without handles and arguments");
  InterfaceHandle *none = nullptr;
  DO(interfaceInitInterface(nullptr), interfaceConnect(nullptr, kDevice), interfaceDisconnect(nullptr),
     interfaceIO_SetValue(nullptr, 5, 1), interfaceIO_SetDirection(nullptr, 5, 1, 1),
     interfaceIO_GetValue(nullptr, 5, &value), interfaceLock(nullptr), interfaceUnlock(nullptr),
     interfaceListVariables(nullptr, text, 8), interfaceListActions(nullptr, text, 8),
     interfaceFreeHandle(nullptr, nullptr), interfaceFreeHandle(&none, nullptr),
     interfaceInitHandle(nullptr, nullptr, radar, "FTx232H", nullptr),
     interfaceListConnectedInterfaces(nullptr, text, 8), FTx232H_InitHandle(nullptr, nullptr, nullptr),
     FTx232H_InitHandle(&none, nullptr, nullptr), FTx232H_FreeHandle(nullptr, nullptr),
     FTx232H_FreeHandle(&none, nullptr));
}

TEST_F(Connection, DefaultHandleAndHostsOwn) {
  open("DEFAULT");
  char text[8];
  DO(interfaceConnect(bridge, kDevice), interfaceIO_SetValue(bridge, 5, 1), interfaceIO_SetDirection(bridge, 5, 1, 1),
     interfaceIO_GetValue(bridge, 5, &value), interfaceListVariables(bridge, text, 8),
     interfaceListActions(bridge, text, 8), interfaceDisconnect(bridge), interfaceLock(bridge),
     interfaceUnlock(bridge));
  int32_t of_the_host = 5;
  bridge->ConnectDevice = [](InterfaceHandle *handle, void **slot, const char *) {
    *slot = const_cast<void *>(handle->pin_map);
    return 0;
  };
  bridge->pin_map = &of_the_host;
  DO(interfaceConnect(bridge, kDevice), bridge->connection, interfaceFreeHandle(&radar->interface_handle, nullptr),
     of_the_host);

  // A host's own record ends in front of the private fields: what stands there is neither read nor written.
  open("FTx232H");
  InterfaceHandle own{};
  own.lock = &of_the_host;
  own.error_state = reinterpret_cast<QTX_StackTrace *>(&of_the_host);
  own.connected = 7;
  own.ConnectDevice = [](InterfaceHandle *, void **, const char *) { return 0; };
  own.DisconnectDevice = [](InterfaceHandle *, void *) { return 266; };
  DO(interfaceLock(&own), interfaceConnect(&own, kDevice), own.type_name, interfaceDisconnect(&own),
     interfaceUnlock(&own), own.connected, of_the_host, (own.owner = radar, interfaceDisconnect(&own)));

  say("a handle without a library handle keeps to the record that it was given");
  QTX_StackTrace *record = nullptr;
  QTX_StackTraceInit(&record, nullptr);
  InterfaceHandle *handle = nullptr;
  watched = record;
  DO(interfaceInitHandle(&handle, &record, radar, "DEFAULT", nullptr),
     (
         handle->SetIO = [](InterfaceHandle *, uint32_t, uint32_t) { return 262; }, interfaceIO_SetValue(handle, 5, 1)),
     interfaceFreeHandle(&handle, nullptr), interfaceInitHandle(&handle, &record, nullptr, "FTx232H", nullptr),
     interfaceIO_SetValue(handle, 0, 1));
  watched = nullptr;
  DO(interfaceFreeHandle(&handle, &record), record, handle,
     interfaceInitHandle(&handle, nullptr, nullptr, "FTx232H", nullptr), interfaceConnect(handle, "FTx232H!(nobody)"),
     interfaceFreeHandle(&handle, nullptr));

  say("releasing wants the exact name, and may be repeated");
  fresh();
  InterfaceHandle copy = *bridge, *driver_part = &copy;
  bridge->type_name = kDevice;
  DO(interfaceFreeHandle(&radar->interface_handle, nullptr), FTx232H_FreeHandle(&driver_part, nullptr), copy.variables,
     FTx232H_FreeHandle(&driver_part, nullptr));
}

TEST_F(Connection, LockIsRecursiveAndKeepsOthersOut) {
  EXPECT_EQ(interfaceUnlock(bridge), 0) << "without holding it";
  for (int i = 0; i < 2; ++i) EXPECT_EQ(interfaceLock(bridge), 0);
  EXPECT_EQ(interfaceUnlock(bridge), 0);
  std::atomic<bool> entered = false;
  std::thread other([&] {
    interfaceLock(bridge);
    entered = true;
    interfaceUnlock(bridge);
  });
  for (const uint64_t now = QTX_timestamp_us(); QTX_timestamp_us() < now + 20'000;) EXPECT_FALSE(entered);
  interfaceUnlock(bridge);
  other.join();
  EXPECT_TRUE(entered);
}

TEST_F(Connection, Log) {
  Folder folder;
  const std::string path = folder.file("interface.log");
  const auto mode = [&](int32_t next) { return bridge->InterfaceLogging(bridge, next, path.c_str()); };
  const auto comment = [&](const char *text) { return bridge->InterfaceLogComment(bridge, text); };
  const auto transfer = [&](std::vector<uint8_t> out, uint32_t in_count) {
    uint8_t in[16];
    return bridge->SendReceiveSPI(bridge, 0, out.data(), static_cast<int32_t>(out.size()), in, in_count, 1);
  };
  const uint8_t out[] = {0xB0, 0x0F};
  uint8_t in[2];
  fresh();
  kinds = 0;
  DO(mode(2), mode(3), comment("nowhere"), comment(nullptr), mode(1),
     std::string(bridge->log_file_name) == path.substr(0, 8), comment("early"), transfer({1}, 0), mode(3),
     transfer({0x90, 2, 3, 4}, 0), transfer({2, 2}, 2), transfer({}, 1),
     bridge->SendReceiveBitsSPI(bridge, 0, out, 12, in, 12, 0x100), comment("reset %s"), mode(0), transfer({0xEE}, 1),
     comment("unheard"), mode(3), transfer({1}, 0), mode(2), textOf(path), bridge->log_file_name, mode(2), mode(1),
     mode(3), comment("first"), mode(1), mode(3), comment("second"), (open("FTx232H"), textOf(path)));
  for (const std::string &name : {folder.file("no/log"), std::string(10'000, 'n'), folder.file("")}) {
    DO_FOR("unwritable", bridge->InterfaceLogging(bridge, 1, name.c_str()), bridge->log_file);
  }
  DO(bridge->InterfaceLogging(bridge, 1, nullptr));
}

}  // namespace
}  // namespace pulsekit::test
