// Bus operations written down in place of being made: what back-ends of settings want to write is collected from the
// drivers as they are, merged and sent as one program.
#pragma once

#include <cstdint>
#include <vector>

#include "interface.h"
#include "program.h"

namespace pulsekit {

class BusRecording {
 public:
  // A frame written to a channel, or a pin. One that is read back holds the frame that reads it.
  struct Operation {
    bool is_pin;
    uint32_t target, level;
    std::vector<uint8_t> out, read_back;
    const uint8_t *data() const { return out.data() + kHeaderSize; }
    size_t dataSize() const { return out.size() - kHeaderSize; }
  };

  // From now until `stop` or the end of the scope, transfers and pins of this thread on the handle are written down.
  // A register that has been written reads as written, everything else as zeros.
  explicit BusRecording(InterfaceHandle *bridge);
  ~BusRecording() { stop(); }
  BusRecording(const BusRecording &) = delete;
  BusRecording &operator=(const BusRecording &) = delete;
  void stop();

  const std::vector<Operation> &operations() const { return operations_; }

 private:
  static constexpr size_t kHeaderSize = 2;  // register and length

  static int32_t sendReceive(InterfaceHandle *bridge, uint32_t channel, const uint8_t *out, int32_t out_count,
                             uint8_t *in, uint32_t in_count, int32_t mode);
  static int32_t setIO(InterfaceHandle *bridge, uint32_t pin, uint32_t value);
  Operation *written(uint32_t channel, uint8_t address);

  InterfaceHandle *bridge_;
  decltype(InterfaceHandle::SendReceiveSPI) send_receive_;
  decltype(InterfaceHandle::SetIO) set_io_;
  BusRecording *outer_;
  std::vector<Operation> operations_;
};

}  // namespace pulsekit
