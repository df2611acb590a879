#include "board/Flash.h"

#include <algorithm>
#include <cstring>

namespace pulsekit::simulator {

namespace {

enum Opcode : uint8_t {
  kPageProgram = 0x02,
  kRead = 0x03,
  kWriteDisable = 0x04,
  kReadStatus = 0x05,
  kWriteEnable = 0x06,
  kFastRead = 0x0B,
  kEraseSector = 0x20,
  kEraseChip = 0x60,
  kReadOtp = 0x77,
  kManufacturer = 0x90,
  kProgramOtp = 0x9B,
  kIdentify = 0x9F,
  kSignature = 0xAB,
  kEraseChipToo = 0xC7,
  kEraseBlock = 0xD8,
};

enum Status : uint8_t { kBusy = 0x01, kWriteEnabled = 0x02, kFailed = 0x20 };

constexpr uint8_t kIdentity[] = {0xEF, 0x40, 0x18};
constexpr uint8_t kDeviceId = 0x17;

constexpr uint64_t kMicrosecond = 1000;
constexpr uint64_t kMillisecond = 1000 * kMicrosecond;
constexpr uint64_t kPageTime = 700 * kMicrosecond;
constexpr uint64_t kOtpTime = 500 * kMicrosecond;
constexpr uint64_t kSectorTime = 45 * kMillisecond;
constexpr uint64_t kBlockTime = 60 * kMillisecond;
constexpr uint64_t kChipTime = 100 * kMillisecond;
constexpr uint32_t kBlockSize = 64u << 10;

// Opcode, address and dummy bytes: what comes before the data. 0 for an opcode that this part doesn't know.
uint32_t headerLength(uint8_t opcode) {
  switch (opcode) {
    case kWriteEnable:
    case kWriteDisable:
    case kReadStatus:
    case kEraseChip:
    case kEraseChipToo:
    case kIdentify:
      return 1;
    case kRead:
    case kPageProgram:
    case kEraseSector:
    case kEraseBlock:
    case kProgramOtp:
    case kManufacturer:
    case kSignature:
      return 4;
    case kFastRead:
      return 5;
    case kReadOtp:
      return 6;
    default:
      return 0;
  }
}

}  // namespace

Flash::Flash(Clock &clock) : clock_(clock), sectors_(kSize / kSectorSize) { otp_.fill(0xFF); }

void Flash::resetVolatileState() {
  writeEnabled_ = false;
  failed_ = false;
  stuck_ = false;
  operating_ = false;
}

void Flash::setStayBusy(bool on) {
  stayBusy_ = on;
  if (!on) stuck_ = false;
}

void Flash::settle() {
  if (!operating_ || stuck_ || clock_.nanoseconds() < busyUntil_) return;
  operating_ = false;
  writeEnabled_ = false;
}

void Flash::select() {
  settle();
  selected_ = true;
  ignored_ = false;
  sawBusy_ = false;
  taken_ = 0;
  address_ = 0;
  answered_ = 0;
  pageFilled_.fill(false);
}

void Flash::deselect() {
  if (!selected_) return;
  selected_ = false;
  if (sawBusy_) clock_.advance(pollPause_);
  if (taken_ > 0 && !ignored_) execute();
}

uint8_t Flash::send() {
  if (taken_ == 0 || ignored_ || taken_ < headerLength(opcode_)) return idle_;
  return dataByte();
}

uint8_t Flash::dataByte() {
  const uint32_t index = answered_++;
  switch (opcode_) {
    case kReadStatus:
      return status();
    case kIdentify:
      return kIdentity[index % sizeof kIdentity];
    case kSignature:
      return kDeviceId;
    case kManufacturer:
      return ((index + address_) & 1) == 0 ? kIdentity[0] : kDeviceId;
    case kRead:
    case kFastRead: {
      uint8_t byte = 0;
      read(address_ + index, &byte, 1);
      return byte;
    }
    case kReadOtp:
      return otp_[(address_ + index) % kOtpSize];
    default:
      return idle_;
  }
}

uint8_t Flash::status() {
  settle();
  sawBusy_ = sawBusy_ || operating_;
  return static_cast<uint8_t>((operating_ ? kBusy : 0) | (writeEnabled_ ? kWriteEnabled : 0) |
                              (failed_ && !operating_ ? kFailed : 0));
}

void Flash::receive(uint8_t byte) {
  if (taken_ == 0) {
    opcode_ = byte;
    ignored_ = headerLength(byte) == 0 || (operating_ && byte != kReadStatus);
  } else if (taken_ < 4) {
    address_ = (address_ << 8 | byte) & (kSize - 1);
  } else if (opcode_ == kPageProgram || opcode_ == kProgramOtp) {
    const size_t column = (address_ + taken_ - 4) % kPageSize;
    page_[column] = byte;
    pageFilled_[column] = true;
  }
  ++taken_;
}

void Flash::exchange(const uint8_t *in, uint8_t *out, size_t count) {
  const bool reading = (opcode_ == kRead || opcode_ == kFastRead) && taken_ >= headerLength(opcode_) && !ignored_;
  if (taken_ == 0 || !reading) return SpiDevice::exchange(in, out, count);
  read(address_ + answered_, out, count);
  answered_ += static_cast<uint32_t>(count);
  taken_ += static_cast<uint32_t>(count);
}

void Flash::execute() {
  // A command whose frame is too long or too short by a byte is not carried out.
  const bool exact = taken_ == headerLength(opcode_);
  switch (opcode_) {
    case kWriteEnable:
      writeEnabled_ = writeEnabled_ || exact;
      break;
    case kWriteDisable:
      writeEnabled_ = false;
      break;
    case kEraseSector:
      if (exact) erase(address_, kSectorSize, kSectorTime);
      break;
    case kEraseBlock:
      if (exact) erase(address_, kBlockSize, kBlockTime);
      break;
    case kEraseChip:
    case kEraseChipToo:
      if (exact) erase(0, kSize, kChipTime);
      break;
    case kPageProgram:
      if (taken_ > 4) programPage();
      break;
    case kProgramOtp:
      if (taken_ > 4) programOtp();
      break;
    default:
      break;
  }
}

void Flash::start(uint64_t duration) {
  operating_ = true;
  stuck_ = stayBusy_;
  busyUntil_ = clock_.nanoseconds() + duration;
}

void Flash::erase(uint32_t address, uint32_t size, uint64_t duration) {
  if (!writeEnabled_) return;
  start(duration);
  failed_ = eraseFault_.strikes();
  if (failed_) return;
  const uint32_t first = address / size * size / kSectorSize;
  std::for_each_n(sectors_.begin() + first, size / kSectorSize, [](auto &entry) { entry.reset(); });
}

void Flash::programPage() {
  if (!writeEnabled_) return;
  start(kPageTime);
  failed_ = programFault_.strikes();
  if (failed_) return;
  Sector &target = sector(address_);
  const uint32_t page = address_ % kSectorSize / kPageSize * kPageSize;
  for (uint32_t i = 0; i < kPageSize; ++i) {
    if (pageFilled_[i]) target[page + i] &= page_[i];
  }
}

void Flash::programOtp() {
  if (!writeEnabled_) return;
  start(kOtpTime);
  failed_ = programFault_.strikes();
  if (failed_) return;
  for (uint32_t i = 0; i < kOtpSize; ++i) {
    if (pageFilled_[i]) otp_[i] &= page_[i];
  }
}

Flash::Sector &Flash::sector(uint32_t address) {
  std::unique_ptr<Sector> &entry = sectors_[address % kSize / kSectorSize];
  if (!entry) {
    entry = std::make_unique<Sector>();
    entry->fill(0xFF);
  }
  return *entry;
}

void Flash::read(uint32_t address, uint8_t *bytes, size_t count) const {
  while (count > 0) {
    address %= kSize;
    const uint32_t offset = address % kSectorSize;
    const size_t run = std::min<size_t>(count, kSectorSize - offset);
    const std::unique_ptr<Sector> &entry = sectors_[address / kSectorSize];
    if (entry) {
      std::memcpy(bytes, entry->data() + offset, run);
    } else {
      std::memset(bytes, 0xFF, run);
    }
    address += static_cast<uint32_t>(run);
    bytes += run;
    count -= run;
  }
}

void Flash::write(uint32_t address, const uint8_t *bytes, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    sector(address + static_cast<uint32_t>(i))[(address + i) % kSectorSize] = bytes[i];
  }
}

}  // namespace pulsekit::simulator
