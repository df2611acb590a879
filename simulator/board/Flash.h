// A 16 MiB serial NOR flash with a one-time-programmable area.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/Clock.h"
#include "base/Faults.h"
#include "base/SpiDevice.h"

namespace pulsekit::simulator {

class Flash : public SpiDevice {
 public:
  static constexpr uint32_t kSize = 16u << 20;
  static constexpr uint32_t kSectorSize = 4096;
  static constexpr uint32_t kPageSize = 256;
  static constexpr uint32_t kOtpSize = 256;

  explicit Flash(Clock &clock);

  void select() override;
  void deselect() override;
  uint8_t send() override;
  void receive(uint8_t byte) override;
  void exchange(const uint8_t *in, uint8_t *out, size_t count) override;

  // Back to the state after switching on; an erase or program under way has already had its effect.
  void resetVolatileState();
  // What the line reads while this part does not drive it: 0x00 or 0xFF.
  void setIdleByte(uint8_t byte) { idle_ = byte; }
  // Time that passes with every status read that finds the flash busy.
  void setPollPause(uint64_t nanoseconds) { pollPause_ = nanoseconds; }

  void setStayBusy(bool on);
  Countdown &eraseFault() { return eraseFault_; }
  Countdown &programFault() { return programFault_; }

  void read(uint32_t address, uint8_t *bytes, size_t count) const;
  void write(uint32_t address, const uint8_t *bytes, size_t count);
  std::array<uint8_t, kOtpSize> &otp() { return otp_; }

 private:
  using Sector = std::array<uint8_t, kSectorSize>;

  void settle();
  uint8_t status();
  uint8_t dataByte();
  Sector &sector(uint32_t address);
  void execute();
  void start(uint64_t duration);
  void erase(uint32_t address, uint32_t size, uint64_t duration);
  void programPage();
  void programOtp();

  Clock &clock_;
  std::vector<std::unique_ptr<Sector>> sectors_;  // an absent one is erased
  std::array<uint8_t, kOtpSize> otp_;

  bool writeEnabled_ = false;
  bool failed_ = false;
  bool operating_ = false;
  bool stayBusy_ = false;
  bool stuck_ = false;
  uint64_t busyUntil_ = 0;
  uint64_t pollPause_ = 0;
  uint8_t idle_ = 0;
  Countdown eraseFault_, programFault_;

  // The frame under way.
  bool selected_ = false;
  bool ignored_ = false;
  bool sawBusy_ = false;
  uint8_t opcode_ = 0;
  uint32_t taken_ = 0;  // bytes received in this frame
  uint32_t address_ = 0;
  uint32_t answered_ = 0;
  std::array<uint8_t, kPageSize> page_{};
  std::array<bool, kPageSize> pageFilled_{};
};

}  // namespace pulsekit::simulator
