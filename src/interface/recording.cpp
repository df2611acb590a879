#include "recording.h"

#include <algorithm>
#include <new>

#include "../support/QTX_ErrorCodes.h"

namespace pulsekit {

namespace {

constexpr uint8_t kWrite = 0x80;  // in the first byte of a frame
thread_local BusRecording *current = nullptr;

}  // namespace

BusRecording::BusRecording(InterfaceHandle *bridge)
    : bridge_(bridge), send_receive_(bridge->SendReceiveSPI), set_io_(bridge->SetIO), outer_(current) {
  bridge->SendReceiveSPI = sendReceive;
  bridge->SetIO = setIO;
  current = this;
}

void BusRecording::stop() {
  if (!bridge_) return;
  bridge_->SendReceiveSPI = send_receive_;
  bridge_->SetIO = set_io_;
  bridge_ = nullptr;
  current = outer_;
}

BusRecording::Operation *BusRecording::written(uint32_t channel, uint8_t address) {
  for (Operation &operation : operations_) {
    const bool same = !operation.is_pin && operation.target == channel && operation.dataSize() > 0;
    if (same && operation.out[0] == address) return &operation;
  }
  return nullptr;
}

int32_t BusRecording::sendReceive(InterfaceHandle *, uint32_t channel, const uint8_t *out, int32_t out_count,
                                  uint8_t *in, uint32_t in_count, int32_t) try {
  const size_t count = static_cast<size_t>(std::max(out_count, 0));
  if (count < kHeaderSize) return kError;
  Operation *earlier = current->written(channel, out[0] | kWrite);
  if (in_count > 0) {
    std::fill_n(in, in_count, uint8_t{0});
    if (!earlier || earlier->dataSize() != in_count) return kSuccess;
    std::copy_n(earlier->data(), in_count, in);
    earlier->read_back.assign(out, out + count);
    return kSuccess;
  }
  // Every field is packed as it is now, so the last write of a register is as good in the first one's place.
  if (earlier && count > kHeaderSize) {
    earlier->out.assign(out, out + count);
  } else {
    current->operations_.push_back({false, channel, 0, {out, out + count}, {}});
  }
  return kSuccess;
} catch (const std::bad_alloc &) {
  return kOutOfMemory;
}

int32_t BusRecording::setIO(InterfaceHandle *, uint32_t pin, uint32_t value) try {
  current->operations_.push_back({true, pin, value, {}, {}});
  return kSuccess;
} catch (const std::bad_alloc &) {
  return kOutOfMemory;
}

}  // namespace pulsekit
