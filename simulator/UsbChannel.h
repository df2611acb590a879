// One channel of a bridge as the USB sees it: FIFOs both ways, packets, latency timer; behind them the MPSSE.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Clock.h"
#include "Faults.h"
#include "Mpsse.h"
#include "Pins.h"
#include "Recorder.h"

namespace pulsekit::simulator {

// The host's side of the IN endpoint.
class PacketSink {
 public:
  virtual ~PacketSink() = default;
  // Whether a transfer is waiting for packets.
  virtual bool ready() const = 0;
  // Whether one has packets but has not ended yet.
  virtual bool partlyFilled() const = 0;
  // Data of one packet, without the modem-status bytes. A packet that is not full ends the transfer.
  virtual void packet(const uint8_t *bytes, size_t count, uint64_t nanoseconds) = 0;
};

class UsbChannel : public AnswerSink {
 public:
  static constexpr size_t kPacketData = 510;  // 512 less the modem-status bytes
  static constexpr uint64_t kTransferTime = 125'000;
  static constexpr uint8_t kModeReset = 0, kModeMpsse = 2;

  UsbChannel(Clock &clock, Recorder &recorder, int32_t device, size_t fifoSize, bool highBank);

  // Null: nobody collects, answers stay in the FIFO.
  void setHost(PacketSink *host) { host_ = host; }
  void reset();  // as after plugging in

  // Bytes arriving from the host; returns how many found room.
  size_t write(const uint8_t *bytes, size_t count);
  // Goes on with commands that had to wait, and sends what the latency timer lets go.
  void service();
  // When the latency timer will send something to the host; UINT64_MAX: nothing is due.
  uint64_t nextPacket() const;

  void purgeFifos();
  void setLatency(uint8_t milliseconds) { latency_ = milliseconds; }
  void setMode(uint8_t mask, uint8_t mode);

  Pins &pins() { return pins_; }
  const Mpsse &mpsse() const { return mpsse_; }

  void loseAnswer(uint32_t after, uint32_t count) { loss_.schedule(after + 1, count); }
  void corruptAnswer(uint32_t after, uint8_t mask);
  void clearFaults();

  size_t space() override;
  void push(const uint8_t *bytes, size_t count) override;
  void flush() override;
  uint64_t patience() const override { return latency_ * uint64_t{1'000'000}; }

 private:
  void queue(uint8_t byte);
  void sendFullPackets();
  void sendShortPacket(uint64_t nanoseconds);
  void run();

  Clock &clock_;
  const size_t fifoSize_;
  PacketSink *host_ = nullptr;
  Pins pins_;
  Mpsse mpsse_;
  uint8_t mode_ = kModeReset;
  uint8_t latency_ = 16;

  std::vector<uint8_t> toHost_, fromHost_;
  uint64_t waitingSince_ = 0;  // oldest byte in toHost_, or the last packet of an unfinished transfer

  Countdown loss_, corruption_;
  uint8_t corruptionMask_ = 0;
};

}  // namespace pulsekit::simulator
