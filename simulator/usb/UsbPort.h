// The two bulk endpoints of a channel: what the host has submitted, in order, and the packets between it and the chip.
#pragma once

#include <deque>

#include "bridge/UsbChannel.h"
#include "host/Bench.h"
#include "usb/Transfer.h"

namespace pulsekit::simulator {

class UsbPort : public PacketSink {
 public:
  static constexpr uint8_t kModemStatus[] = {0x32, 0x60};  // ahead of the data of every packet

  UsbPort(Bench &bench, Device &device, size_t channel);
  ~UsbPort() override;
  UsbPort(const UsbPort &) = delete;
  UsbPort &operator=(const UsbPort &) = delete;

  // The channel's packets come here from now on, or go to nobody.
  void connect();
  void disconnect();

  // The transfer belongs to the caller, who keeps it until it has ended or was taken back.
  void submit(Transfer &transfer);
  // Of one that has not ended. What had arrived by then stays in it.
  void takeBack(Transfer &transfer);
  // The host has collected one that had ended.
  void collected(const Transfer &transfer);

  // Moves on what can be; the channel works off what it has got up to a time. kNever: until it has an answer for the
  // host, or nothing to do.
  void work(uint64_t limit, uint64_t outLimit);
  // Whether the channel was left in the middle of something that only needs time.
  bool busy() const { return busy_; }

  // Ends an empty transfer from the device with the status bytes alone. The chip does that whenever its latency timer
  // finds nothing; here real time counts, lest an idle host moves the simulated one.
  void answerIdle(Transfer::RealTime::time_point now);
  Transfer::RealTime::time_point idleDue() const;

  UsbChannel *channel() const { return channel_; }
  uint8_t latency() const;
  void setLatency(uint8_t milliseconds);

  bool ready() const override { return !in_.empty(); }
  bool partlyFilled() const override { return !in_.empty() && !in_.front()->bytes.empty(); }
  bool underWay() const override { return underWay_ > 0; }
  void packet(const uint8_t *bytes, size_t count, uint64_t nanoseconds) override;

 private:
  bool sendOut(uint64_t limit);
  void endIn(uint64_t nanoseconds, int failure);

  Bench &bench_;
  Device &device_;
  UsbChannel *const channel_;  // null: no MPSSE
  uint8_t latency_ = 16;       // of a channel without MPSSE
  std::deque<Transfer *> out_, in_;
  uint64_t outFree_ = 0;     // when the last transfer to the device had ended
  uint64_t outArrives_ = 0;  // when the first of out_ has crossed the bus; 0 while it has not begun
  size_t underWay_ = 0;
  bool busy_ = false;
  Transfer::RealTime::time_point lastPacket_{};
};

}  // namespace pulsekit::simulator
