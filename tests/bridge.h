// The bridge driver on the simulated bench: every call of a D2XX function is an event.
#pragma once

#include <utility>

#include "Pulsekit3Simulator.h"
#include "interface/FTx232H/FTx232H_private.h"
#include "support/QTX_Handle.h"
#include "transcript.h"

namespace pulsekit::test {

constexpr char kDevice[] = "FTx232H!Serial No: (FT0001AB)";

// The record of the bench in one line; long transfers are cut, repeated ones counted.
inline std::string benchEvents(uint32_t kinds) {
  QTXSim_Advance(100'000);  // what was sent last arrives
  std::string text = QTXSim_RecordText(kinds), joined;
  QTXSim_ClearRecord();
  size_t times = 1;
  for (size_t at = 0, end; (end = text.find('\n', at)) != text.npos; at = end + 1) {
    const std::string line = text.substr(at, end - at);
    if (text.compare(end + 1, line.size() + 1, line + "\n") == 0) {
      ++times;
      continue;
    }
    if (!joined.empty()) joined += ", ";
    joined += line.size() < 140 ? line : line.substr(0, 60) + format(" ... %zu", line.size() / 3);
    if (times > 1) joined += format(" x%zu", times);
    times = 1;
  }
  return joined;
}

class Bridge : public Told {
 protected:
  Bridge() {
    QTXSim_Reset();
    EXPECT_EQ(QTXSim_AddRadar("FT0001AB", "Radar", QTXSIM_FT232H, "QTX-K245", "QTX3701"), 0);
    FTx232H_SetD2XX(QTXSim_D2XX());
    EXPECT_EQ(QTX_InitHandle(&radar), 0);
    watched = radar->error;
    open("FTx232H");
  }
  ~Bridge() override {
    EXPECT_EQ(interfaceFreeHandle(&radar->interface_handle, nullptr), 0);
    EXPECT_EQ(std::exchange(unlocked, 0), 0);
    QTXSim_ClearFaults();
    FT_HANDLE other = nullptr;
    EXPECT_NE(QTXSim_D2XX()->OpenEx("FT0001AB", FT_OPEN_BY_SERIAL_NUMBER, &other), FT_DEVICE_NOT_OPENED) << "left open";
    QTX_FreeHandle(&radar);
    FTx232H_SetD2XX(nullptr);
    QTXSim_Reset();
  }
  std::string events() override { return benchEvents(kinds); }

  void open(const char *name) {
    interfaceFreeHandle(&radar->interface_handle, nullptr);
    ASSERT_EQ(interfaceInitHandle(&radar->interface_handle, &radar->error, radar, name, &radar->open), 0);
    bridge = radar->interface_handle;
    ASSERT_EQ(interfaceInitInterface(bridge), 0);
  }
  // An empty bench, nothing left open on the one before.
  void clearBench() {
    interfaceFreeHandle(&radar->interface_handle, nullptr);
    QTXSim_Reset();
  }
  int32_t connect(const char *device = kDevice) { return interfaceConnect(bridge, device); }
  // Connected anew, with a powered board, and the n-th of these calls from now fails.
  void fresh(const char *failing = nullptr, uint32_t nth = 1) {
    QTXSim_ClearFaults();
    open("FTx232H");
    ASSERT_EQ(connect(), 0);
    for (uint32_t pin : {1107, 1106}) ASSERT_EQ(interfaceIO_SetDirection(bridge, pin, 1, 1), 0);
    if (failing) QTXSim_FailCall(failing, nth, 1, FT_IO_ERROR);
  }

  // Each access to the bus from now on counts as unlocked unless the bridge's lock is held.
  void watchLock() {
    driver = *bridge;
    depth = 0;
    bridge->Lock = [](InterfaceHandle *b) { return ++depth, driver.Lock(b); };
    bridge->Unlock = [](InterfaceHandle *b) { return --depth, driver.Unlock(b); };
    bridge->SetIO = [](InterfaceHandle *b, uint32_t pin, uint32_t level) {
      return access(), driver.SetIO(b, pin, level);
    };
    bridge->SetIO_Direction = [](InterfaceHandle *b, uint32_t pin, uint32_t direction, uint32_t level) {
      return access(), driver.SetIO_Direction(b, pin, direction, level);
    };
    bridge->GetIO = [](InterfaceHandle *b, uint32_t pin, uint32_t *level) {
      return access(), driver.GetIO(b, pin, level);
    };
    bridge->SendReceiveSPI = [](InterfaceHandle *b, uint32_t channel, const uint8_t *out, int32_t out_count,
                                uint8_t *in, uint32_t in_count, int32_t mode) {
      access();
      return driver.SendReceiveSPI(b, channel, out, out_count, in, in_count, mode);
    };
  }

  // The operation with each of its writes failing in turn, runs of the same outcome in one line.
  void atEveryWrite(
      const std::string &title, const std::function<void()> &prepare, const std::function<int32_t()> &operation,
      const std::function<std::string()> &state = [] { return std::string(); }, uint32_t most = 1'000'000) {
    inRuns(title, most, [&](uint32_t nth, bool *reached) {
      prepare();
      QTXSim_FailCall("Write", nth, 1, FT_IO_ERROR);
      const uint64_t before = QTXSim_Calls("Write");
      const uint32_t wanted = std::exchange(kinds, 0);
      tells_pauses = false;
      std::string text = result([&] { return operation(); });
      text += state();
      kinds = wanted;
      tells_pauses = true;
      QTXSim_ClearFaults();
      *reached = QTXSim_Calls("Write") - before >= nth;
      return text;
    });
  }

  FTx232H_Connection &connection() { return *connectionOf(bridge); }
  std::string batch() {
    return format("out %u pending %u", connection().output_count, connection().pending_read_count);
  }

  QTX_Handle *radar = nullptr;
  InterfaceHandle *bridge = nullptr;
  uint32_t kinds = QTXSIM_EVENT_CALL | QTXSIM_EVENT_PIN;
  uint32_t value = 7;

  static inline int depth = 0, unlocked = 0;
  static inline InterfaceHandle driver{};  // the operations below those that watch

 private:
  static void access() { unlocked += depth <= 0; }
};

}  // namespace pulsekit::test
