// A library handle whose bridge clocks bytes straight into a simulated chip, a fixed time each transfer.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ChipTruth.h"
#include "Clock.h"
#include "RadarChip.h"
#include "Scene.h"
#include "chip/QTX3701/QTX3701-timing.h"
#include "chip/chip.h"
#include "interface/interface.h"
#include "support/QTX_Handle.h"

namespace pulsekit {

class SimulatedRadar {
 public:
  explicit SimulatedRadar(uint64_t seed) : chip(simulator::makeRadarChip("QTX3701", clock, seed)) {
    chip->setPower(true);
    QTX_StackTraceInit(&handle.error, nullptr);
    bridge.owner = &handle;
    bridge.reserved = this;
    bridge.shared_status = &handle.open;
    bridge.SendReceiveSPI = [](InterfaceHandle *b, uint32_t, const uint8_t *out, int32_t out_count, uint8_t *in,
                               uint32_t in_count, int32_t) {
      static_cast<SimulatedRadar *>(b->reserved)->exchange(out, out_count, in, in_count);
      return 0;
    };
    bridge.SetIO = [](InterfaceHandle *, uint32_t, uint32_t) { return 0; };
    handle.interface_handle = &bridge;
  }
  ~SimulatedRadar() {
    if (handle.chip) chipFree(&handle.chip, nullptr);
    QTX_StackTraceFree(&handle.error);
  }
  SimulatedRadar(const SimulatedRadar &) = delete;
  SimulatedRadar &operator=(const SimulatedRadar &) = delete;

  void open() {
    ASSERT_EQ(chipInitHandle(&handle.chip, &handle.error, &handle, "QTX3701"), 0) << trace();
    ASSERT_EQ(chipInitChip(handle.chip), 0) << trace();
    handle.open = 1;
  }

  int32_t act(const char *action) { return varActionTrigger(variables(), varActionNamed(variables(), action)); }
  int32_t set(const char *name, int64_t value) {
    return varSetIntValue(variables(), varNamed(variables(), name), value);
  }
  int32_t setReal(const char *name, double value) {
    return varSetFloatValue(variables(), varNamed(variables(), name), value);
  }
  double real(const char *name) {
    uint64_t slot = 0;
    EXPECT_EQ(varGetValue_ByName(variables(), name, &slot), 0) << name;
    return bitsToDouble(slot);
  }
  std::vector<double> frame() {
    std::vector<uint32_t> raw(256);
    std::vector<double> normalized(raw.size());
    const ChipOperations &operations = handle.chip->operations;
    EXPECT_EQ(operations.CaptureFrame(handle.chip, raw.data(), 256, 0), 0) << trace();
    EXPECT_EQ(operations.NormalizeFrameDouble(handle.chip, raw.data(), normalized.data(), 256), 0);
    return normalized;
  }
  VariableSet *variables() const { return handle.chip->variables; }
  const chip::TimingRecord &record() const {
    return *static_cast<const chip::TimingRecord *>(handle.chip->timing_record);
  }
  std::string trace() const { return std::string(handle.error->message) + "\n" + handle.error->trace; }

  simulator::Clock clock;
  std::unique_ptr<simulator::RadarChip> chip;
  QTX_Handle handle{};
  InterfaceHandle bridge{};

 private:
  static constexpr uint64_t kTransfer = 125'000, kByte = 533;  // nanoseconds

  void exchange(const uint8_t *out, int32_t out_count, uint8_t *in, uint32_t in_count) {
    clock.advance(in_count > 0 ? 2 * kTransfer : kTransfer);
    chip->select();
    for (int32_t i = 0; i < out_count; ++i) {
      chip->send();
      chip->receive(out[i]);
      clock.advance(kByte);
    }
    for (uint32_t i = 0; i < in_count; ++i) {
      const uint8_t byte = chip->send();
      chip->receive(0);
      if (in) in[i] = byte;
      clock.advance(kByte);
    }
    chip->deselect();
  }
};

}  // namespace pulsekit
