// Loading the vendor's library. Each test needs a process of its own, with the library that its name says on the path.
#include <gtest/gtest.h>

#include "interface/FTx232H/FTx232H.h"
#include "support/QTX_Handle.h"

namespace {

class VendorLibrary : public ::testing::Test {
 protected:
  VendorLibrary() {
    EXPECT_EQ(QTX_InitHandle(&radar), 0);
    EXPECT_EQ(interfaceInitHandle(&radar->interface_handle, &radar->error, radar, "FTx232H", nullptr), 0);
    bridge = radar->interface_handle;
  }
  ~VendorLibrary() override {
    interfaceFreeHandle(&radar->interface_handle, nullptr);
    QTX_FreeHandle(&radar);
  }

  QTX_Handle *radar = nullptr;
  InterfaceHandle *bridge = nullptr;
  char list[64] = "";
};

}  // namespace

TEST_F(VendorLibrary, Complete) {
  EXPECT_EQ(FTx232H_ListDevices(bridge, list, sizeof list), 0);
  EXPECT_STREQ(list, "FTx232H!Serial No: (VENDOR01)");
  EXPECT_EQ(interfaceConnect(bridge, list), 0) << radar->error->message;
  uint32_t value = 0;
  EXPECT_EQ(interfaceIO_GetValue(bridge, 5, &value), 0);
  EXPECT_EQ(value, 1u);
  EXPECT_EQ(interfaceDisconnect(bridge), 0);
}

TEST_F(VendorLibrary, Crippled) {
  EXPECT_EQ(FTx232H_ListDevices(bridge, list, sizeof list), 259);
  EXPECT_STREQ(radar->error->message, "FTx232H - Could not create list of connected FT-devices");
  EXPECT_EQ(interfaceConnect(bridge, "FTx232H!Serial No: (VENDOR01)"), 260);
  EXPECT_EQ(interfaceListConnectedInterfaces(radar, list, sizeof list), 0);
  EXPECT_STREQ(list, "");
}
