// Small things that the simulator's tests share.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Pulsekit3Simulator.h"

namespace simtest {

using Bytes = std::vector<uint8_t>;

// A bench with one radar, its first channel open in MPSSE mode at 30 MHz with the radar board switched on.
class Bench : public ::testing::Test {
 protected:
  void SetUp() override { QTXSim_Reset(); }
  void TearDown() override { QTXSim_Reset(); }

  static const FTx232H_D2XX &d2xx() { return *QTXSim_D2XX(); }

  void plugIn(const char *board = "QTX-K245", const char *chip = nullptr, int32_t bridge = QTXSIM_FT232H) {
    device = QTXSim_AddRadar("FT0001AB", "Radar", bridge, board, chip);
    ASSERT_EQ(0, device);
  }

  void open(const char *serial = "FT0001AB") {
    ASSERT_EQ(FT_OK, d2xx().OpenEx(serial, FT_OPEN_BY_SERIAL_NUMBER, &handle));
    ASSERT_EQ(FT_OK, d2xx().SetUSBParameters(handle, 65536, 65536));
    ASSERT_EQ(FT_OK, d2xx().SetTimeouts(handle, 5000, 1000));
    ASSERT_EQ(FT_OK, d2xx().SetLatencyTimer(handle, 2));
    ASSERT_EQ(FT_OK, d2xx().SetBitMode(handle, 0, 0));
    ASSERT_EQ(FT_OK, d2xx().SetBitMode(handle, 0, 2));
  }

  // Clock, data-out, both chip selects and power are outputs; the board is on.
  void powerUp() { write({0x8A, 0x86, 0, 0, 0x80, 0xFE, 0x3B, 0x82, 0xFF, 0x00}); }

  void plugInAndPowerUp(const char *board = "QTX-K245", const char *chip = nullptr) {
    plugIn(board, chip);
    open();
    powerUp();
  }

  void write(const Bytes &bytes) {
    uint32_t written = 0;
    ASSERT_EQ(FT_OK, d2xx().Write(handle, bytes.data(), static_cast<uint32_t>(bytes.size()), &written));
    ASSERT_EQ(bytes.size(), written);
  }

  uint32_t queued() {
    uint32_t count = 0;
    EXPECT_EQ(FT_OK, d2xx().GetQueueStatus(handle, &count));
    return count;
  }

  Bytes read(size_t count) {
    Bytes bytes(count);
    uint32_t got = 0;
    EXPECT_EQ(FT_OK, d2xx().Read(handle, bytes.data(), static_cast<uint32_t>(count), &got));
    bytes.resize(got);
    return bytes;
  }

  Bytes exchange(const Bytes &commands, size_t answer) {
    write(commands);
    return read(answer);
  }

  // One chip-select frame: sends bytes, then reads some.
  Bytes frame(int pin, const Bytes &out, size_t in) {
    const auto low = static_cast<uint8_t>(0xFE & ~(1 << pin));
    Bytes commands = {0x80, low, 0x3B};
    if (!out.empty()) {
      const size_t last = out.size() - 1;
      commands.insert(commands.end(), {0x11, static_cast<uint8_t>(last), static_cast<uint8_t>(last >> 8)});
      commands.insert(commands.end(), out.begin(), out.end());
    }
    if (in > 0) {
      commands.insert(commands.end(), {0x20, static_cast<uint8_t>(in - 1), static_cast<uint8_t>((in - 1) >> 8)});
    }
    commands.insert(commands.end(), {0x80, 0xFE, 0x3B, 0x87});
    return exchange(commands, in);
  }
  Bytes flashFrame(const Bytes &out, size_t in = 0) { return frame(4, out, in); }

  int32_t device = -1;
  FT_HANDLE handle = nullptr;
};

}  // namespace simtest
