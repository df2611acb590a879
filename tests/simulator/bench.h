// Small things that the simulator's tests share.
#pragma once

#include <algorithm>
#include <utility>

#include "Pulsekit3Simulator.h"
#include "transcript.h"

namespace simtest {

using pulsekit::test::format;
using pulsekit::test::show;
using Bytes = std::vector<uint8_t>;

inline Bytes operator+(Bytes one, const Bytes &other) { return one.insert(one.end(), other.begin(), other.end()), one; }

// A bench with one radar, its first channel open in MPSSE mode at 30 MHz with the radar board switched on.
class Bench : public pulsekit::test::Told {
 protected:
  Bench() { QTXSim_Reset(); }
  ~Bench() override { QTXSim_Reset(); }

  // What was recorded, or what it cost.
  std::string events() override {
    QTXSim_Statistics cost{};
    EXPECT_EQ(QTXSim_GetStatistics(&cost), 0);
    std::string text = kinds ? QTXSim_RecordText(kinds) : "";
    QTXSim_ClearRecord();
    QTXSim_ResetStatistics();
    if (!text.empty()) text.pop_back();
    std::replace(text.begin(), text.end(), '\n', ',');
    if (!tells_costs || cost.nanoseconds == 0) return text;
    using ull = unsigned long long;
    return text + pulsekit::test::format("out %llu in %llu, %llu ns, clock %llu ns", ull{cost.out_transfers},
                                         ull{cost.in_transfers}, ull{cost.nanoseconds}, ull{cost.spi_nanoseconds});
  }

  static const FTx232H_D2XX &d2xx() { return *QTXSim_D2XX(); }

  void plugIn(const char *board = "QTX-K245", const char *chip = nullptr, int32_t bridge = QTXSIM_FT232H) {
    ASSERT_EQ(device = QTXSim_AddRadar("FT0001AB", "Radar", bridge, board, chip), 0);
  }
  static FT_STATUS openBy(const void *what, uint32_t flags, FT_HANDLE *opened) {
    return d2xx().OpenEx(what, flags, opened);
  }
  void bitModes() {
    for (uint8_t mode : Bytes{0, 2}) ASSERT_EQ(FT_OK, d2xx().SetBitMode(handle, 0, mode));
  }
  void open(const char *serial = "FT0001AB") {
    ASSERT_EQ(FT_OK, openBy(serial, FT_OPEN_BY_SERIAL_NUMBER, &handle));
    ASSERT_EQ(FT_OK, d2xx().SetUSBParameters(handle, 65536, 65536));
    ASSERT_EQ(FT_OK, d2xx().SetTimeouts(handle, 5000, 1000));
    ASSERT_EQ(FT_OK, d2xx().SetLatencyTimer(handle, 2));
    bitModes();
  }

  // Clock, data-out, both chip selects and power are outputs; the board is on.
  void powerUp() { write({0x8A, 0x86, 0, 0, 0x80, 0xFE, 0x3B, 0x82, 0xFF, 0x00}); }

  // A fresh bench.
  void restart(const char *board = "QTX-K245", const char *chip = nullptr) {
    QTXSim_Reset();
    plugIn(board, chip);
    open();
    powerUp();
    QTXSim_ClearRecord();
    QTXSim_ResetStatistics();
  }

  // How much of it was taken.
  uint32_t write(const Bytes &bytes) {
    uint32_t written = 0;
    EXPECT_EQ(FT_OK, d2xx().Write(handle, bytes.data(), static_cast<uint32_t>(bytes.size()), &written));
    return written;
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
    const auto length = [](size_t count) { return Bytes{uint8_t(count - 1), uint8_t((count - 1) >> 8)}; };
    return exchange(Bytes{0x80, low, 0x3B} + (out.empty() ? Bytes{} : Bytes{0x11} + length(out.size()) + out) +
                        (in == 0 ? Bytes{} : Bytes{0x20} + length(in)) + Bytes{0x80, 0xFE, 0x3B, 0x87},
                    in);
  }
  Bytes flashFrame(const Bytes &out, size_t in = 0) { return frame(4, out, in); }

  uint32_t kinds = 0;
  bool tells_costs = false;
  int32_t device = -1;
  FT_HANDLE handle = nullptr;
};

}  // namespace simtest
