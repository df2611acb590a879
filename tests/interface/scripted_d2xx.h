// D2XX functions that note every call and answer what a test wants, down to the status of each call.
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "interface/FTx232H/D2XX/FTx232H_D2XX.h"

class ScriptedD2xx {
 public:
  ScriptedD2xx() {
    active() = this;
    FTx232H_SetD2XX(table());
  }
  ~ScriptedD2xx() { FTx232H_SetD2XX(nullptr); }
  ScriptedD2xx(const ScriptedD2xx &) = delete;
  ScriptedD2xx &operator=(const ScriptedD2xx &) = delete;

  struct Device {
    std::string serial;
    bool held = false;
  };

  std::vector<Device> devices = {{"FT0001AB"}};
  std::vector<std::string> calls;  // "Write 80 FE 0B", up to 64 bytes; not GetQueueStatus
  std::vector<std::vector<uint8_t>> writes;
  std::deque<std::vector<uint8_t>> replies;  // the next one arrives after each Write that ends in "send immediate"
  std::deque<uint8_t> queue;
  std::deque<uint32_t> accepted;  // of the next Writes; all bytes when empty
  uint32_t polls = 0;
  uint32_t lost_in_read = 0;  // bytes that each Read falls short
  int open_handles = 0;

  // The nth call from now of a function returns the status and does nothing.
  void fail(const std::string &function, int nth, FT_STATUS status) { failures_[function] = {nth, status}; }

  void forget() {
    calls.clear();
    writes.clear();
    polls = 0;
  }

  static const FTx232H_D2XX *table() {
    static const FTx232H_D2XX functions = {
        [](FT_HANDLE) { return active()->close(); },
        [](FT_HANDLE, void *buffer, uint32_t count, uint32_t *got) { return active()->read(buffer, count, got); },
        [](FT_HANDLE, const void *buffer, uint32_t count, uint32_t *written) {
          return active()->write(static_cast<const uint8_t *>(buffer), count, written);
        },
        [](FT_HANDLE) { return active()->noted("ResetDevice", ""); },
        [](FT_HANDLE, uint32_t read, uint32_t write) { return active()->noted("SetTimeouts", numbers(read, write)); },
        [](FT_HANDLE, uint32_t *count) { return active()->queueStatus(count); },
        [](const void *arg, uint32_t flags, FT_HANDLE *out) {
          return active()->open(static_cast<const char *>(arg), flags, out);
        },
        [](void *arg1, void *arg2, uint32_t flags) { return active()->list(arg1, arg2, flags); },
        [](FT_HANDLE, uint8_t ms) { return active()->noted("SetLatencyTimer", " " + std::to_string(ms)); },
        [](FT_HANDLE, uint8_t mask, uint8_t mode) { return active()->noted("SetBitMode", numbers(mask, mode)); },
        [](FT_HANDLE, uint32_t in, uint32_t out) { return active()->noted("SetUSBParameters", numbers(in, out)); },
        [](uint32_t *count) {
          *count = static_cast<uint32_t>(active()->devices.size());
          return active()->noted("CreateDeviceInfoList", "");
        },
        [](FT_Node *, uint32_t *count) { return active()->noted("GetDeviceInfoList", " " + std::to_string(*count)); }};
    return &functions;
  }

 private:
  struct Failure {
    int nth;
    FT_STATUS status;
  };

  static ScriptedD2xx *&active() {
    static ScriptedD2xx *instance = nullptr;
    return instance;
  }

  static std::string numbers(uint32_t a, uint32_t b) { return " " + std::to_string(a) + " " + std::to_string(b); }

  FT_STATUS outcome(const std::string &function) {
    const auto failure = failures_.find(function);
    if (failure == failures_.end() || --failure->second.nth != 0) return FT_OK;
    return failure->second.status;
  }

  FT_STATUS noted(const std::string &function, const std::string &arguments) {
    calls.push_back(function + arguments);
    return outcome(function);
  }

  FT_STATUS open(const std::string &serial, uint32_t flags, FT_HANDLE *out) {
    if (FT_STATUS status = noted("OpenEx", " " + serial + " " + std::to_string(flags))) return status;
    for (const Device &device : devices) {
      if (device.serial != serial) continue;
      if (device.held) return FT_DEVICE_NOT_OPENED;
      *out = this;
      ++open_handles;
      return FT_OK;
    }
    return FT_DEVICE_NOT_FOUND;
  }

  FT_STATUS close() {
    const FT_STATUS status = noted("Close", "");
    if (!status) --open_handles;
    return status;
  }

  FT_STATUS read(void *buffer, uint32_t count, uint32_t *got) {
    if (FT_STATUS status = noted("Read", " " + std::to_string(count))) return status;
    const size_t available = std::min<size_t>(count, queue.size());
    *got = static_cast<uint32_t>(available - std::min<size_t>(available, lost_in_read));
    std::copy_n(queue.begin(), *got, static_cast<uint8_t *>(buffer));
    queue.erase(queue.begin(), queue.begin() + static_cast<std::ptrdiff_t>(available));
    return FT_OK;
  }

  FT_STATUS write(const uint8_t *bytes, uint32_t count, uint32_t *written) {
    std::string text;
    for (uint32_t i = 0; i < count && i < 64; ++i) {
      char hexadecimal[4];
      std::snprintf(hexadecimal, sizeof hexadecimal, " %02X", bytes[i]);
      text += hexadecimal;
    }
    writes.emplace_back(bytes, bytes + count);
    if (FT_STATUS status = noted("Write", text)) return status;
    *written = count;
    if (!accepted.empty()) {
      *written = std::min(count, accepted.front());
      accepted.pop_front();
    }
    if (count > 0 && bytes[count - 1] == 0x87 && !replies.empty()) {
      queue.insert(queue.end(), replies.front().begin(), replies.front().end());
      replies.pop_front();
    }
    return FT_OK;
  }

  FT_STATUS queueStatus(uint32_t *count) {
    ++polls;
    *count = static_cast<uint32_t>(queue.size());
    return outcome("GetQueueStatus");
  }

  FT_STATUS list(void *arg1, void *arg2, uint32_t flags) {
    if (FT_STATUS status = outcome("ListDevices")) return status;
    if (flags == FT_LIST_NUMBER_ONLY) {
      *static_cast<uint32_t *>(arg1) = static_cast<uint32_t>(devices.size());
      return FT_OK;
    }
    const Device &device = devices.at(reinterpret_cast<uintptr_t>(arg1));
    if (device.held) return FT_DEVICE_NOT_OPENED;
    std::strcpy(static_cast<char *>(arg2), flags & FT_OPEN_BY_SERIAL_NUMBER ? device.serial.c_str() : "Bridge");
    return FT_OK;
  }

  std::map<std::string, Failure> failures_;
};
