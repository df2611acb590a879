// A bridge that notes the transfers of a driver and answers as a flash would whose state a test sets by hand.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "interface/interface.h"
#include "support/QTX_Handle.h"

struct Transfer {
  uint32_t channel;
  std::vector<uint8_t> out;
  uint32_t in_count;
  int32_t mode;
};

class RecordingBridge {
 public:
  RecordingBridge() {
    owner.error = &record;
    owner.interface_handle = &handle;
    handle.owner = &owner;
    handle.error_state = &record;
    handle.connection = this;
    handle.SendReceiveSPI = sendReceive;
    handle.SetIO = setPin;
    handle.SetIO_Direction = configurePin;
    handle.Lock = [](InterfaceHandle *bridge) { return of(bridge).enter(1); };
    handle.Unlock = [](InterfaceHandle *bridge) { return of(bridge).enter(-1); };
  }

  // One word a transfer: opcode and the bytes up to the data in hexadecimal, "+n" data bytes sent, "?n" bytes read.
  std::string transcript() const {
    std::string text;
    for (const Transfer &transfer : transfers) text += (text.empty() ? "" : " ") + word(transfer);
    return text;
  }

  size_t count(uint8_t opcode) const {
    size_t found = 0;
    for (const Transfer &transfer : transfers) found += transfer.out.at(0) == opcode ? 1 : 0;
    return found;
  }

  InterfaceHandle handle = {};
  QTX_Handle owner = {};
  QTX_StackTrace record = {};
  std::vector<Transfer> transfers;
  std::string pins;              // "1107=1>" for a pin that is made an output, "1107=1" for a level
  std::deque<uint8_t> statuses;  // answers to status reads; the last one stays
  std::vector<uint8_t> content;  // answer to reads, then zeros
  size_t fail_at = SIZE_MAX;     // transfer that fails
  int32_t failure = 264;
  uint32_t failing_pin = 0;
  int32_t lock_depth = 0;
  bool unlocked_access = false;

 private:
  static RecordingBridge &of(InterfaceHandle *bridge) { return *static_cast<RecordingBridge *>(bridge->connection); }

  static std::string word(const Transfer &transfer) {
    const size_t header = transfer.out[0] == 0x02 || transfer.out[0] == 0x9b ? 4 : transfer.out.size();
    std::string text;
    for (size_t i = 0; i < header; ++i) {
      char byte[3];
      std::snprintf(byte, sizeof byte, "%02X", transfer.out.at(i));
      text += byte;
    }
    if (transfer.out.size() > header) text += "+" + std::to_string(transfer.out.size() - header);
    if (transfer.in_count > 0) text += "?" + std::to_string(transfer.in_count);
    return text;
  }

  int32_t enter(int32_t step) {
    lock_depth += step;
    return 0;
  }

  static int32_t sendReceive(InterfaceHandle *bridge, uint32_t channel, const uint8_t *out, int32_t out_count,
                             uint8_t *in, uint32_t in_count, int32_t mode) {
    RecordingBridge &self = of(bridge);
    if (self.lock_depth == 0) self.unlocked_access = true;
    self.transfers.push_back({channel, std::vector<uint8_t>(out, out + out_count), in_count, mode});
    if (self.transfers.size() - 1 == self.fail_at) return self.failure;
    for (uint32_t i = 0; i < in_count; ++i) in[i] = self.answer(out[0], i);
    return 0;
  }

  uint8_t answer(uint8_t opcode, uint32_t index) {
    if (opcode != 0x05) return index < content.size() ? content[index] : uint8_t{0};
    if (statuses.empty()) return 0;
    const uint8_t status = statuses.front();
    if (statuses.size() > 1) statuses.pop_front();
    return status;
  }

  static int32_t pinCall(InterfaceHandle *bridge, uint32_t pin, uint32_t value, const char *suffix) {
    RecordingBridge &self = of(bridge);
    if (self.lock_depth == 0) self.unlocked_access = true;
    self.pins += (self.pins.empty() ? "" : " ") + std::to_string(pin) + "=" + std::to_string(value) + suffix;
    return pin == self.failing_pin ? self.failure : 0;
  }
  static int32_t setPin(InterfaceHandle *bridge, uint32_t pin, uint32_t value) {
    return pinCall(bridge, pin, value, "");
  }
  static int32_t configurePin(InterfaceHandle *bridge, uint32_t pin, uint32_t direction, uint32_t value) {
    return pinCall(bridge, pin, value, direction == 1 ? ">" : "<");
  }
};
