// A library handle whose bridge records what the chip drivers do to it and answers like a chip that keeps what is
// written to its registers.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "chip/chip.h"
#include "interface/interface.h"
#include "support/QTX_Handle.h"
#include "support/numbers.h"

namespace pulsekit {

enum class ByteOrder { kLeastFirst, kMostFirst };

class FakeRadar {
 public:
  explicit FakeRadar(ByteOrder order = ByteOrder::kLeastFirst) : order_(order) {
    QTX_StackTraceInit(&handle.error, nullptr);
    bridge.owner = &handle;
    bridge.error_state = handle.error;
    bridge.reserved = this;
    bridge.shared_status = &open;
    bridge.SendReceiveSPI = [](InterfaceHandle *b, uint32_t channel, const uint8_t *out, int32_t out_count, uint8_t *in,
                               uint32_t in_count,
                               int32_t mode) { return of(b)->exchange(channel, out, out_count, in, in_count, mode); };
    bridge.SetIO = [](InterfaceHandle *b, uint32_t pin, uint32_t level) { return of(b)->setPin(pin, level); };
    bridge.GetIO = [](InterfaceHandle *b, uint32_t pin, uint32_t *level) { return of(b)->getPin(pin, level); };
    bridge.Lock = [](InterfaceHandle *b) { return of(b)->locked(1); };
    bridge.Unlock = [](InterfaceHandle *b) { return of(b)->locked(-1); };
    handle.interface_handle = &bridge;
  }
  ~FakeRadar() {
    if (handle.chip) chipFree(&handle.chip, nullptr);
    QTX_StackTraceFree(&handle.error);
  }
  FakeRadar(const FakeRadar &) = delete;
  FakeRadar &operator=(const FakeRadar &) = delete;

  // Creates the chip handle and starts it; what that does to the bus is forgotten.
  void start(const char *model) {
    ASSERT_EQ(chipInitHandle(&handle.chip, &handle.error, &handle, model), 0) << trace();
    ASSERT_EQ(chipInitChip(handle.chip), 0) << trace();
    log.clear();
    unlocked_access = false;
  }

  // ---- Variables of the chip ----
  Variable *variable(const char *name) { return varNamed(handle.chip->variables, name); }
  int32_t set(const char *name, int64_t value) { return varSetIntValue(handle.chip->variables, variable(name), value); }
  int32_t setReal(const char *name, double value) {
    return varSetFloatValue(handle.chip->variables, variable(name), value);
  }
  int64_t get(const char *name) { return varGetValue_Real(handle.chip->variables, variable(name)); }
  double getReal(const char *name) { return bitsToDouble(variable(name)->value); }
  bool isAutomatic(const char *name) { return variable(name)->flags & VAR_FLAG_AUTO; }

  // The log without polls, reads of registers, and locks: what changes something.
  std::vector<std::string> changes() const {
    std::vector<std::string> result;
    for (const std::string &line : log) {
      if (line.find(" <") == line.npos) result.push_back(line);
    }
    return result;
  }
  std::string trace() const { return std::string(handle.error->message) + "\n" + handle.error->trace; }

  QTX_Handle handle{};
  InterfaceHandle bridge{};
  int32_t open = 0;  // what register writes look at

  // One line an operation: the bytes sent, "<n" for n bytes received and "queue" or "collect"; "pin 500 = 0"; "pin 7
  // ?".
  std::vector<std::string> log;
  std::array<uint64_t, 128> registers{};
  std::map<uint8_t, uint64_t> stuck_low;  // bits of a register that never get set
  std::vector<uint8_t> memory = std::vector<uint8_t>(4096);
  std::map<uint32_t, uint32_t> pins;
  int busy_polls = 0;  // that many reads of the sweep status say that the chip sweeps
  // Asked before each transfer with its bytes as text: a code makes the transfer fail.
  std::function<int32_t(const std::string &)> fault = [](const std::string &) { return 0; };
  std::function<void(uint8_t)> on_action = [](uint8_t) {};
  int lock_depth = 0;
  bool unlocked_access = false;

 private:
  static FakeRadar *of(InterfaceHandle *b) { return static_cast<FakeRadar *>(b->reserved); }

  int32_t locked(int change) {
    lock_depth += change;
    return 0;
  }

  int32_t exchange(uint32_t channel, const uint8_t *out, int32_t out_count, uint8_t *in, uint32_t in_count,
                   int32_t mode) {
    if (lock_depth == 0) unlocked_access = true;
    std::string line;
    char text[16];
    for (int32_t i = 0; i < out_count; ++i) {
      std::snprintf(text, sizeof text, "%s%02x", i > 0 ? " " : "", out[i]);
      line += text;
    }
    if (in_count > 0) line += " <" + std::to_string(in_count);
    if (mode == SPI_MODE_QUEUE) line += " queue";
    if (mode == SPI_MODE_COLLECT) line += " collect";
    if (channel != 0) line += " on channel " + std::to_string(channel);
    if (const int32_t code = fault(line)) return code;
    log.push_back(line);
    if (mode == SPI_MODE_QUEUE) return 0;  // nothing is answered before it is collected
    if (out_count < 2) {
      if (in) std::memcpy(in, memory.data(), in_count);
      return 0;
    }
    const uint8_t address = out[0] & 0x7f;
    if (out[0] & 0x80) {
      write(address, out + 2, static_cast<size_t>(out_count - 2));
    } else if (in && out[1] == 0x7f) {
      std::memcpy(in, memory.data(), in_count);
    } else if (in) {
      read(address, in, in_count);
    }
    return 0;
  }

  size_t place(size_t i, size_t count) const { return order_ == ByteOrder::kLeastFirst ? i : count - 1 - i; }

  void write(uint8_t address, const uint8_t *data, size_t count) {
    if (count == 0) return on_action(address);
    uint64_t value = 0;
    for (size_t i = 0; i < count; ++i) value |= uint64_t{data[i]} << 8 * place(i, count);
    registers[address] = value & ~stuck_low[address];
  }

  void read(uint8_t address, uint8_t *data, size_t count) {
    uint64_t value = registers[address];
    if (address == 0x47) value = busy_polls > 0 ? busy_polls--, busy_status : idle_status;
    for (size_t i = 0; i < count; ++i) data[i] = static_cast<uint8_t>(value >> 8 * place(i, count));
  }

  int32_t setPin(uint32_t pin, uint32_t level) {
    if (lock_depth == 0) unlocked_access = true;
    log.push_back("pin " + std::to_string(pin) + " = " + std::to_string(level));
    pins[pin] = level;
    return pin_code;
  }

  int32_t getPin(uint32_t pin, uint32_t *level) {
    if (lock_depth == 0) unlocked_access = true;
    log.push_back("pin " + std::to_string(pin) + " ?");
    *level = pins[pin];
    return pin_code;
  }

  ByteOrder order_;

 public:
  uint64_t busy_status = 0x0001, idle_status = 0xfffe;  // of the second generation
  int32_t pin_code = 0;
};

using Log = std::vector<std::string>;

}  // namespace pulsekit
