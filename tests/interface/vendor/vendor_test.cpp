// Loading a bridge library. Each test needs a process of its own, with the library that its name says on the path or
// named by the environment.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "interface/FTx232H/FTx232H.h"
#include "support/QTX_Handle.h"

namespace {

std::string variable(const char *name) {
  const char *value = std::getenv(name);
  return value ? value : "";
}

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

// What the environment names decides alone: with EXPECTED_LIST empty nothing is found, although the vendor's is there.
TEST_F(VendorLibrary, Named) {
  const std::string expected = variable("EXPECTED_LIST");
  EXPECT_EQ(FTx232H_ListDevices(bridge, list, sizeof list), expected.empty() ? 259 : 0);
  EXPECT_EQ(list, expected);
  char text[512];
  EXPECT_EQ(FTx232H_DescribeBridgeLibraries(text, sizeof text), 0);
  const std::string start = variable("PULSEKIT3_BRIDGE_LIBRARY") + " (PULSEKIT3_BRIDGE_LIBRARY): ";
  EXPECT_EQ(text, start + variable("EXPECTED_REPORT") + '\n');
  EXPECT_EQ(FTx232H_DescribeBridgeLibraries(text, 8), 2);
  EXPECT_EQ(text, start.substr(0, 7));
}

// The library's own way is next, where the machine that runs this has a USB.
TEST_F(VendorLibrary, Refused) {
  char text[512];
  EXPECT_EQ(FTx232H_DescribeBridgeLibraries(text, sizeof text), 0);
  const std::string report = text;
  EXPECT_EQ(report.find(variable("EXPECTED_REPORT")), 0u) << report;
  if (report.find("in use") == report.npos) {
    EXPECT_EQ(FTx232H_ListDevices(bridge, list, sizeof list), 259);
    EXPECT_STREQ(radar->error->message, "FTx232H - Could not create list of connected FT-devices");
  }
  EXPECT_EQ(interfaceConnect(bridge, "FTx232H!Serial No: (VENDOR01)"), 260);
  EXPECT_EQ(interfaceListConnectedInterfaces(radar, list, sizeof list), 0);
  EXPECT_STREQ(list, "");
}
