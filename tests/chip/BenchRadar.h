// A library handle with a chip on the simulated bench, connected and powered, without a module driver.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "Pulsekit3Simulator.h"
#include "chip/chip.h"
#include "interface/FTx232H/FTx232H.h"
#include "support/QTX_Handle.h"
#include "support/numbers.h"

namespace pulsekit {

class BenchRadar : public ::testing::Test {
 protected:
  ~BenchRadar() override {
    if (handle) {
      if (handle->chip) chipFree(&handle->chip, nullptr);
      if (handle->interface_handle) {
        interfaceDisconnect(handle->interface_handle);
        interfaceFreeHandle(&handle->interface_handle, nullptr);
      }
      QTX_FreeHandle(&handle);
    }
    FTx232H_SetD2XX(nullptr);
    QTXSim_Reset();
  }

  void plugIn(const char *model) {
    constexpr uint32_t kPowerPin = 5;
    QTXSim_Reset();
    ASSERT_EQ(QTXSim_AddRadar("FT0001AB", "Radar", QTXSIM_FT232H, "QTX-K245", model), 0);
    FTx232H_SetD2XX(QTXSim_D2XX());
    ASSERT_EQ(QTX_InitHandle(&handle), 0);
    ASSERT_EQ(interfaceInitHandle(&handle->interface_handle, &handle->error, handle, "FTx232H", &handle->open), 0);
    ASSERT_EQ(interfaceInitInterface(handle->interface_handle), 0);
    ASSERT_EQ(interfaceConnect(handle->interface_handle, "FTx232H!Serial No: (FT0001AB)"), 0) << trace();
    ASSERT_EQ(interfaceIO_SetDirection(handle->interface_handle, kPowerPin, 1, 1), 0) << trace();
  }
  void createChip(const char *model) {
    ASSERT_EQ(chipInitHandle(&handle->chip, &handle->error, handle, model), 0) << trace();
  }
  void start(const char *model) {
    plugIn(model);
    createChip(model);
    ASSERT_EQ(chipInitChip(handle->chip), 0) << trace();
  }

  int32_t set(const char *name, int64_t value) {
    VariableSet *set = handle->chip->variables;
    return varSetIntValue(set, varNamed(set, name), value);
  }
  int32_t chooseClock(const char *text) {
    return varSetValue_ByString(handle->interface_handle->variables, "SPIClockFrequency", text);
  }
  std::string trace() const { return std::string(handle->error->message) + "\n" + handle->error->trace; }

  static QTXSim_Statistics statistics() {
    QTXSim_Statistics result{};
    QTXSim_GetStatistics(&result);
    return result;
  }

  QTX_Handle *handle = nullptr;
};

}  // namespace pulsekit
