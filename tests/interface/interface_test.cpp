// The layer above the driver: names, handles, the lock and the default handle.
#include <atomic>
#include <thread>

#include "bridge_fixture.h"

namespace {

class InterfaceLayer : public BridgeTest {
 protected:
  // Creates a second handle on the same library handle and frees it again.
  int32_t create(const char *name, std::string *type = nullptr) {
    InterfaceHandle *handle = nullptr;
    const int32_t code = interfaceInitHandle(&handle, &radar->error, radar, name, &radar->open);
    EXPECT_EQ(handle != nullptr, code == 0);
    if (type && handle) *type = handle->type_name;
    interfaceFreeHandle(&handle, nullptr);
    EXPECT_EQ(handle, nullptr);
    return code;
  }
};

int32_t failingSetup(QTX_Handle *) { return 5; }
int32_t succeedingSetup(QTX_Handle *) { return 0; }

}  // namespace

TEST(InterfaceList, FitsExactly) {
  char text[32] = "x";
  EXPECT_EQ(interfaceListSupportedInterfaces(text, 17), 2);
  EXPECT_EQ(interfaceListSupportedInterfaces(text, 18), 0);
  EXPECT_STREQ(text, "FTx232H (FTx232H)");
  EXPECT_EQ(interfaceListSupportedInterfaces(text, 0), 2);
  EXPECT_EQ(interfaceListSupportedInterfaces(nullptr, 18), 1);
}

TEST_F(InterfaceLayer, HandleIsCreatedForTheDriverWhoseNameBeginsTheText) {
  for (const char *name : {"FTx232H", kDevice, "FTx232Hand any other text"}) {
    std::string type;
    EXPECT_EQ(create(name, &type), 0) << name;
    EXPECT_EQ(type, "FTx232H");
  }
  std::string type;
  EXPECT_EQ(create("DEFAULT", &type), 0);
  EXPECT_EQ(type, "DEFAULT");
  for (const char *name : {"", "FTx232", "ftx232h", " FTx232H", "LAST", "DEFAULT!x"}) {
    SCOPED_TRACE(name);
    expectFailure(create(name), 268, "Unknown interface name", {"interfaceInitHandle"});
  }
  expectFailure(create(nullptr), 1, "", {"interfaceInitHandle"});
}

TEST_F(InterfaceLayer, ReleaseWantsTheExactName) {
  connect();
  InterfaceHandle copy = *bridge;
  bridge->type_name = kDevice;
  EXPECT_EQ(interfaceFreeHandle(&radar->interface_handle, nullptr), 0);
  EXPECT_EQ(d2xx.open_handles, 1) << "the driver's part was not released";
  InterfaceHandle *driver_part = &copy;
  EXPECT_EQ(FTx232H_FreeHandle(&driver_part, nullptr), 0);
  EXPECT_EQ(FTx232H_FreeHandle(&driver_part, nullptr), 0) << "a second time";
  EXPECT_EQ(d2xx.open_handles, 0);
}

TEST_F(InterfaceLayer, DefaultHandleAnswersEverything) {
  open("DEFAULT");
  uint32_t value = 0;
  char text[8];
  expectFailure(interfaceConnect(bridge, kDevice), 269, "", {"interfaceConnect"});
  expectFailure(interfaceIO_SetValue(bridge, 5, 1), 269, "", {"interfaceIO_SetValue"});
  expectFailure(interfaceIO_SetDirection(bridge, 5, 1, 1), 269, "", {"interfaceIO_SetDirection"});
  expectFailure(interfaceIO_GetValue(bridge, 5, &value), 269, "", {"interfaceIO_GetValue"});
  expectFailure(interfaceListVariables(bridge, text, sizeof text), 269, "", {"interfaceListVariables"});
  expectFailure(interfaceListActions(bridge, text, sizeof text), 269, "", {"interfaceListActions"});
  EXPECT_EQ(interfaceDisconnect(bridge), 0);
  EXPECT_EQ(interfaceLock(bridge), 0);
  EXPECT_EQ(interfaceUnlock(bridge), 0);
}

TEST_F(InterfaceLayer, MissingHandlesAndArguments) {
  char text[8];
  uint32_t value = 0;
  InterfaceHandle *none = nullptr;
  for (int32_t code :
       {interfaceInitInterface(nullptr), interfaceConnect(nullptr, kDevice), interfaceDisconnect(nullptr),
        interfaceIO_SetValue(nullptr, 5, 1), interfaceIO_SetDirection(nullptr, 5, 1, 1),
        interfaceIO_GetValue(nullptr, 5, &value), interfaceLock(nullptr), interfaceUnlock(nullptr)}) {
    EXPECT_EQ(code, 269);
  }
  EXPECT_EQ(interfaceListVariables(nullptr, text, 8), 1);
  EXPECT_EQ(interfaceListActions(nullptr, text, 8), 1);
  EXPECT_EQ(interfaceFreeHandle(nullptr, nullptr), 1);
  EXPECT_EQ(interfaceFreeHandle(&none, nullptr), 0);
  EXPECT_EQ(interfaceInitHandle(nullptr, nullptr, radar, "FTx232H", nullptr), 1);
  EXPECT_EQ(interfaceListConnectedInterfaces(nullptr, text, 8), 1025);
  EXPECT_EQ(FTx232H_InitHandle(nullptr, nullptr, nullptr), 1);
  EXPECT_EQ(FTx232H_InitHandle(&none, nullptr, nullptr), 269);
  EXPECT_EQ(FTx232H_FreeHandle(nullptr, nullptr), 1);
  EXPECT_EQ(FTx232H_FreeHandle(&none, nullptr), 0);
  expectFailure(interfaceConnect(bridge, nullptr), 1, "", {"interfaceConnect"});
  expectFailure(interfaceConnect(bridge, "COM1"), 260, "Could not find device type", {"interfaceConnect"});
  EXPECT_EQ(d2xx.calls, Names{});
}

TEST_F(InterfaceLayer, HandleWithoutALibraryHandle) {
  QTX_StackTrace *record = nullptr;
  QTX_StackTraceInit(&record, nullptr);
  InterfaceHandle *handle = nullptr;
  ASSERT_EQ(interfaceInitHandle(&handle, &record, nullptr, "FTx232H", nullptr), 0);
  EXPECT_EQ(interfaceIO_SetValue(handle, 0, 1), 262);
  EXPECT_EQ(record->code, 262);
  EXPECT_EQ(interfaceFreeHandle(&handle, &record), 0);
  EXPECT_EQ(record, nullptr) << "freed with the handle";

  ASSERT_EQ(interfaceInitHandle(&handle, nullptr, nullptr, "FTx232H", nullptr), 0);
  EXPECT_EQ(interfaceConnect(handle, "FTx232H!(nobody)"), 260) << "without any record";
  EXPECT_EQ(interfaceFreeHandle(&handle, nullptr), 0);
}

TEST_F(InterfaceLayer, RecordGivenAtCreationIsTheOneThatIsWritten) {
  QTX_StackTrace *record = nullptr;
  QTX_StackTraceInit(&record, nullptr);
  InterfaceHandle *handle = nullptr;
  ASSERT_EQ(interfaceInitHandle(&handle, &record, radar, "DEFAULT", nullptr), 0);
  handle->SetIO = [](InterfaceHandle *, uint32_t, uint32_t) { return 262; };
  EXPECT_EQ(interfaceIO_SetValue(handle, 5, 1), 262);
  EXPECT_EQ(functionsOf(record), Names{"interfaceIO_SetValue"});
  EXPECT_EQ(functionsOf(radar->error), Names{});
  EXPECT_EQ(interfaceFreeHandle(&handle, &record), 0);
}

// A host's own record ends in front of the private fields: what stands there is neither read nor written.
TEST_F(InterfaceLayer, HandleThatAHostHasMadeIsUsedUpToItsEnd) {
  InterfaceHandle handle{};
  int32_t something_else = 0;
  handle.self = bridge;
  handle.lock = &something_else;
  handle.error_state = reinterpret_cast<QTX_StackTrace *>(&something_else);
  handle.connected = 7;
  handle.ConnectDevice = [](InterfaceHandle *, void **, const char *) { return 0; };
  handle.DisconnectDevice = [](InterfaceHandle *, void *) { return 266; };
  EXPECT_EQ(interfaceLock(&handle), 0);
  EXPECT_EQ(interfaceConnect(&handle, kDevice), 0);
  EXPECT_STREQ(handle.type_name, "FTx232H");
  EXPECT_EQ(interfaceDisconnect(&handle), 266);
  EXPECT_EQ(interfaceUnlock(&handle), 0);
  EXPECT_EQ(handle.connected, 7);
  EXPECT_EQ(something_else, 0);

  handle.owner = radar;
  radar->error->code = 261;
  radar->error->trace[0] = '\0';
  EXPECT_EQ(interfaceDisconnect(&handle), 261) << "the code in the owner's record";
  EXPECT_EQ(functionsOf(radar->error), Names{"interfaceDisconnect"});
}

TEST_F(InterfaceLayer, ReleaseLeavesAHostsOwnConnectionAlone) {
  open("DEFAULT");
  int32_t of_the_host = 5;
  bridge->ConnectDevice = [](InterfaceHandle *handle, void **connection, const char *) {
    *connection = const_cast<int32_t *>(static_cast<const int32_t *>(handle->pin_map));
    return 0;
  };
  bridge->pin_map = &of_the_host;
  EXPECT_EQ(interfaceConnect(bridge, kDevice), 0);
  EXPECT_EQ(bridge->connection, &of_the_host);
  EXPECT_EQ(interfaceFreeHandle(&radar->interface_handle, nullptr), 0);
  EXPECT_EQ(of_the_host, 5);
}

TEST_F(InterfaceLayer, SetupOfTheHostRunsWithTheHandle) {
  radar->spare = reinterpret_cast<void *>(succeedingSetup);
  EXPECT_EQ(create("FTx232H"), 0);
  radar->spare = reinterpret_cast<void *>(failingSetup);
  radar->error->trace[0] = '\0';
  EXPECT_EQ(create("FTx232H"), 5);
  EXPECT_EQ(functionsOf(radar->error), Names{"interfaceInitHandle"});
}

TEST_F(InterfaceLayer, ListingLeavesTheSlotEmpty) {
  char text[512];
  const auto listing = [&](uint32_t size) { return interfaceListConnectedInterfaces(radar, text, size); };
  EXPECT_EQ(listing(sizeof text), 0) << "releases the unconnected handle in the slot first";
  EXPECT_STREQ(text, kDevice);
  EXPECT_EQ(radar->interface_handle, nullptr);
  EXPECT_EQ(listing(30), 0);
  expectFailure(listing(29), 2, "", {"interfaceListConnectedInterfaces"});
  EXPECT_EQ(radar->interface_handle, nullptr);
  d2xx.devices.clear();
  EXPECT_EQ(listing(sizeof text), 0) << "a driver that can't list contributes nothing";
  EXPECT_STREQ(text, "");

  radar->spare = reinterpret_cast<void *>(failingSetup);
  expectFailure(listing(sizeof text), 258, "FTx232H", {"interfaceListConnectedInterfaces"});
  EXPECT_EQ(radar->interface_handle, nullptr);
  radar->spare = nullptr;
  expectFailure(listing(0), 2, "", {"interfaceListConnectedInterfaces"});
  expectFailure(interfaceListConnectedInterfaces(radar, nullptr, 9), 1, "", {"interfaceListConnectedInterfaces"});
}

TEST_F(InterfaceLayer, ListingLeavesAnOpenRadarAlone) {
  connect();
  char text[512];
  expectFailure(interfaceListConnectedInterfaces(radar, text, sizeof text), 1, "A radar is open on this handle",
                {"interfaceListConnectedInterfaces"});
  EXPECT_EQ(interfaceIO_SetValue(bridge, 5, 1), 0);
}

TEST_F(InterfaceLayer, VariablesAndActions) {
  char text[64];
  EXPECT_EQ(interfaceListVariables(bridge, text, sizeof text), 0);
  EXPECT_STREQ(text, "SPIClockFrequency,SPIToggleSlaveSelectEnable");
  EXPECT_EQ(interfaceListActions(bridge, text, UINT32_MAX), 0);
  EXPECT_STREQ(text, "InterfaceReset");
  EXPECT_EQ(interfaceListVariables(bridge, text, 10), 2);
  connect();
  EXPECT_EQ(varActionTrigger(bridge->variables, varActionNamed(bridge->variables, "InterfaceReset")), 0);
  EXPECT_EQ(varSetValue_ByName(bridge->variables, "SPIToggleSlaveSelectEnable", 2), 1286);
  EXPECT_EQ(d2xx.calls, Names{});
}

TEST_F(InterfaceLayer, LockIsRecursiveAndKeepsOthersOut) {
  EXPECT_EQ(interfaceUnlock(bridge), 0) << "without holding it";
  EXPECT_EQ(interfaceLock(bridge), 0);
  EXPECT_EQ(interfaceLock(bridge), 0);
  EXPECT_EQ(interfaceUnlock(bridge), 0);
  std::atomic<bool> entered = false;
  std::thread other([&] {
    interfaceLock(bridge);
    entered = true;
    interfaceUnlock(bridge);
  });
  QTX_sleep_ms(20);
  EXPECT_FALSE(entered);
  interfaceUnlock(bridge);
  other.join();
  EXPECT_TRUE(entered);
}
