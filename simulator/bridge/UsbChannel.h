// One channel of a bridge as the USB sees it: FIFOs both ways, packets, latency timer; behind them the MPSSE, which
// works on its own clock. Nothing happens by itself: whoever looks at a channel lets it work up to the time of looking.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/Clock.h"
#include "base/Faults.h"
#include "base/Recorder.h"
#include "bridge/Mpsse.h"
#include "bridge/Pins.h"

namespace pulsekit::simulator {

// The host's side of the IN endpoint.
class PacketSink {
 public:
  virtual ~PacketSink() = default;
  // Whether a transfer is waiting for packets.
  virtual bool ready() const = 0;
  // Whether one has packets but has not ended yet.
  virtual bool partlyFilled() const = 0;
  // Whether one has ended that has not reached the host.
  virtual bool underWay() const = 0;
  // Data of one packet, without the modem-status bytes. A packet that is not full ends the transfer.
  virtual void packet(const uint8_t *bytes, size_t count, uint64_t nanoseconds) = 0;
};

class UsbChannel : public AnswerSink {
 public:
  static constexpr size_t kPacketData = 510;  // 512 less the modem-status bytes
  static constexpr uint64_t kTransferTime = 125'000;
  static constexpr uint8_t kModeReset = 0, kModeMpsse = 2;

  UsbChannel(uint64_t now, Recorder &recorder, int32_t device, size_t fifoSize, bool highBank);

  // The engine's clock. It stands still where a command is under way, and goes ahead of time only in a flash's pause.
  Clock &clock() { return clock_; }

  // Null: nobody collects, answers stay in the FIFO.
  void setHost(PacketSink *host);
  void reset();  // as after plugging in

  // Works up to a time; beyond it nothing has happened yet. Whether something goes on by itself after that.
  bool runTo(uint64_t nanoseconds);
  // Works until a transfer to the host is under way, or there is nothing to do, or until a time.
  void runToAnswer(uint64_t limit);
  // Bytes that arrive from the host now. Lets the host's time pass until the FIFO has taken them, at most until
  // `limit`; returns how many it took.
  size_t write(const uint8_t *bytes, size_t count, Clock &host, uint64_t limit);

  void purgeFifos();
  void purgeFromHost() { drop(waiting()); }
  void purgeToHost() {
    toHost_.clear();
    flushed_ = false;
  }
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
  // Works until a time, or until the first `most` bytes of the FIFO from the host are used up.
  Progress work(uint64_t until, size_t most, bool toAnswer);
  size_t waiting() const { return fromHost_.size() - head_; }
  void drop(size_t used);

  // When the latency timer will send something to the host.
  uint64_t nextPacket() const;
  void queue(uint8_t byte);
  void sendFullPackets();
  void sendShortPacket(uint64_t nanoseconds);

  Clock clock_;
  const size_t fifoSize_;
  PacketSink *host_ = nullptr;
  Pins pins_;
  Mpsse mpsse_;
  uint8_t mode_ = kModeReset;
  uint8_t latency_ = 16;

  std::vector<uint8_t> fromHost_;  // from head_ on
  size_t head_ = 0;
  std::vector<uint8_t> toHost_;
  uint64_t waitingSince_ = 0;  // oldest byte in toHost_, or the last packet of an unfinished transfer
  bool answered_ = false;      // something happened to toHost_
  bool flushed_ = false;       // toHost_ shall leave as soon as the host takes it

  Countdown loss_, corruption_;
  uint8_t corruptionMask_ = 0;
};

}  // namespace pulsekit::simulator
