#include "serialFlash.h"

#include <algorithm>
#include <array>
#include <memory>
#include <new>
#include <span>

#include "../../support/handle_state.h"
#include "../../support/trace.h"

namespace {

using namespace pulsekit;

constexpr const char kSource[] = "src/module/common/serialFlash";

enum Opcode : uint8_t {
  kPageProgram = 0x02,
  kWriteDisable = 0x04,
  kReadStatus = 0x05,
  kWriteEnable = 0x06,
  kFastRead = 0x0b,
  kEraseBlock = 0x20,
  kEraseChip = 0x60,
  kReadOtp = 0x77,
  kProgramOtp = 0x9b,
};

enum StatusBit : uint8_t { kBusy = 0x01, kWriteFailed = 0x20 };

constexpr uint32_t kPageSize = 256;
constexpr uint32_t kAddressSpace = 1u << 24;
constexpr uint32_t kTransferLimit = 65536;
constexpr uint32_t kHeaderSize = 4;  // opcode and address

constexpr int32_t kBoardNameOffset = 0, kBoardNameSize = 31;
constexpr int32_t kBoardIdOffset = 32, kBoardIdSize = 32;
constexpr int32_t kBoardTextCapacity = 32;

constexpr const char kMisaligned[] = "Address is not aligned at 256Byte boundaries";
constexpr const char kOutsideFlash[] = "Address is outside the flash";

// The flash on one SPI channel. `at` is the function of this file that runs: failures are traced in its name.
class Flash {
 public:
  Flash(InterfaceHandle *bridge, uint32_t channel, TracePoint at) : bridge_(bridge), channel_(channel), at_(at) {}

  int32_t fail(int32_t code, std::string_view message = {}) const { return origin(record(), at_, code, message); }
  int32_t pass(int32_t code) const { return code == kSuccess ? code : passThrough(record(), at_, code); }

  int32_t transfer(std::span<const uint8_t> out, uint8_t *in = nullptr, uint32_t in_count = 0) const {
    if (!bridge_ || !bridge_->SendReceiveSPI) return fail(kInterfaceNotInitialized);
    return pass(bridge_->SendReceiveSPI(bridge_, channel_, out.data(), static_cast<int32_t>(out.size()), in, in_count,
                                        SPI_MODE_EXECUTE));
  }

  int32_t send(Opcode opcode, uint32_t answer_count = 0) const {
    const uint8_t command[] = {opcode};
    uint8_t answer = 0;
    return transfer(command, &answer, answer_count);
  }

  // What could not be sent stays in the bridge's batch and would go out with the next pin command: a transfer of its
  // own takes the batch's place. The failure that led here is the one to report.
  void discardUnsent() const {
    const QTX_StackTrace failure = record() ? *record() : QTX_StackTrace{};
    uint8_t ignored = 0;
    readStatus(&ignored);
    if (record()) *record() = failure;
  }

  int32_t cancelCheck() const { return bridge_ ? pulsekit::cancelCheck(bridge_->owner) : int32_t{kSuccess}; }

  int32_t readStatus(uint8_t *status) const {
    const uint8_t command[] = {kReadStatus};
    return transfer(command, status, 1);
  }

 private:
  QTX_StackTrace *record() const { return bridge_ ? interfaceErrorRecord(bridge_) : nullptr; }

  InterfaceHandle *bridge_;
  uint32_t channel_;
  TracePoint at_;
};

struct WriteCycle {
  ErrorCode failure;
  int32_t polls;
  uint32_t disable_answer = 0;               // bytes read behind the closing write disable
  const uint8_t *busy_instead_of = nullptr;  // the byte that tells "busy" in place of the status
};

constexpr WriteCycle kEraseCycle{.failure = kFlashErase, .polls = 200};
constexpr WriteCycle kProgramCycle{.failure = kFlashProgram, .polls = 500, .disable_answer = 1};

int32_t write(const Flash &flash, std::span<const uint8_t> command, const WriteCycle &cycle) {
  if (int32_t code = flash.send(kWriteEnable)) return code;
  if (int32_t code = flash.transfer(command)) {
    if (code == kInterfaceWrite) flash.discardUnsent();
    return code;
  }

  uint8_t status = 0;
  const uint8_t &busy = cycle.busy_instead_of ? *cycle.busy_instead_of : status;
  int32_t polls = cycle.polls;
  int32_t ended = kSuccess;
  do {
    --polls;
    QTX_sleep_ms(1);
    if (int32_t code = flash.readStatus(&status)) return code;
    if ((busy & kBusy) == 0) break;
    // The flash goes on with a cycle that nobody waits for, so a cancel waits for its end as long as it may.
    if (int32_t code = flash.cancelCheck()) {
      if (ended != kSuccess) break;
      ended = code;
    }
  } while (polls > 0);

  if (int32_t code = flash.readStatus(&status)) return code;
  // Only the record tells of a failed cycle: what counts for the caller is that the flash is locked again.
  if (polls == 0 || (status & kWriteFailed) != 0) flash.fail(cycle.failure);
  if (int32_t code = flash.send(kWriteDisable, cycle.disable_answer)) return code;
  if (ended == kSuccess) return kSuccess;
  return flash.fail(ended, (status & kBusy) != 0 ? "The flash is still busy" : "");
}

void putHeader(uint8_t *header, Opcode opcode, uint32_t address) {
  header[0] = opcode;
  header[1] = static_cast<uint8_t>(address >> 16);
  header[2] = static_cast<uint8_t>(address >> 8);
  header[3] = static_cast<uint8_t>(address);
}

bool insideFlash(uint32_t address, uint32_t length) {
  return address < kAddressSpace && length <= kAddressSpace - address;
}

int32_t eraseBlock(const Flash &flash, uint32_t address) {
  if (!insideFlash(address, 1)) return flash.fail(kError, kOutsideFlash);
  uint8_t command[kHeaderSize];
  putHeader(command, kEraseBlock, address);
  return write(flash, command, kEraseCycle);
}

std::unique_ptr<uint8_t[]> allocate(uint32_t size) {
  return std::unique_ptr<uint8_t[]>(new (std::nothrow) uint8_t[size]());
}

// Clears padding from `last` down to `first`, up to the first other byte.
template <typename IsPadding>
void trim(char *text, int32_t last, int32_t first, IsPadding isPadding) {
  for (int32_t i = last; i >= first && isPadding(static_cast<uint8_t>(text[i])); --i) text[i] = '\0';
}

}  // namespace

extern "C" {

int32_t sflashEraseChip(InterfaceHandle *bridge, uint32_t channel) {
  const uint8_t command[] = {kEraseChip};
  return write(Flash(bridge, channel, HERE), command, kEraseCycle);
}

void sFlashErase4kBlock(InterfaceHandle *bridge, uint32_t channel, uint32_t address) {
  eraseBlock(Flash(bridge, channel, HERE), address);
}

int32_t sflashWritePage(InterfaceHandle *bridge, uint32_t channel, uint32_t address, const uint8_t *data,
                        uint32_t length) {
  const Flash flash(bridge, channel, HERE);
  if (length > kPageSize) return flash.fail(kBufferTooSmall);
  if (!insideFlash(address, length)) return flash.fail(kError, kOutsideFlash);
  if (!data && length > 0) return flash.fail(kError);

  std::array<uint8_t, kHeaderSize + kPageSize> command;
  putHeader(command.data(), kPageProgram, address);
  std::copy_n(data, length, command.data() + kHeaderSize);
  return write(flash, std::span(command).first(kHeaderSize + length), kProgramCycle);
}

int32_t sflashReadBuffer(InterfaceHandle *bridge, uint32_t channel, uint32_t address, uint8_t *dest, int32_t length) {
  const Flash flash(bridge, channel, HERE);
  if (!insideFlash(address, static_cast<uint32_t>(std::max(length, 0)))) return flash.fail(kError, kOutsideFlash);
  if (length < 0) return flash.fail(kBufferTooSmall);
  if (!dest && length > 0) return flash.fail(kError);

  uint8_t command[kHeaderSize + 1] = {};  // the last byte is the dummy that fast reading needs
  putHeader(command, kFastRead, address);
  return flash.transfer(command, dest, static_cast<uint32_t>(length));
}

int32_t sflashWriteMemory(InterfaceHandle *bridge, uint32_t channel, uint32_t address, const uint8_t *data,
                          uint32_t length) {
  const Flash flash(bridge, channel, HERE);
  if (address % kPageSize != 0) return flash.fail(kError, kMisaligned);
  if (!insideFlash(address, length)) return flash.fail(kError, kOutsideFlash);
  if (!data && length > 0) return flash.fail(kError);

  // Nothing tells of an erase that failed but the pages that can't be programmed.
  constexpr TracePoint kErasing{"sFlashErase4kBlock", kSource, __LINE__};
  const int32_t erased = eraseBlock(Flash(bridge, channel, kErasing), address);
  if (endsWait(erased)) return flash.pass(erased);
  for (uint32_t offset = 0; offset < length; offset += kPageSize) {
    if (int32_t code = flash.cancelCheck()) return flash.fail(code, "Only a part has been written");
    const uint32_t count = std::min(length - offset, kPageSize);
    if (int32_t code = sflashWritePage(bridge, channel, address + offset, data + offset, count))
      return flash.pass(code);
  }
  return kSuccess;
}

int32_t sflashReadMemory(InterfaceHandle *bridge, uint32_t channel, uint32_t address, uint8_t *dest, int32_t length) {
  const Flash flash(bridge, channel, HERE);
  if (address % kPageSize != 0) return flash.fail(kError, kMisaligned);
  return flash.pass(sflashReadBuffer(bridge, channel, address, dest, length));
}

int32_t sflashProgramOtpRegister(InterfaceHandle *bridge, uint32_t channel, int32_t offset, const uint8_t *data,
                                 uint32_t length) {
  const Flash flash(bridge, channel, HERE);
  if (length == 0) return kSuccess;
  if (length > kTransferLimit - kHeaderSize) return flash.fail(kBufferTooSmall);
  if (!insideFlash(static_cast<uint32_t>(offset), length)) return flash.fail(kError, kOutsideFlash);
  if (!data) return flash.fail(kError);

  const std::unique_ptr<uint8_t[]> command = allocate(kHeaderSize + length);
  if (!command) return flash.fail(kOutOfMemory);
  putHeader(command.get(), kProgramOtp, static_cast<uint32_t>(offset));
  std::copy_n(data, length, command.get() + kHeaderSize);

  WriteCycle cycle = kProgramCycle;
  cycle.busy_instead_of = data;  // an odd first byte uses up all polls, an even one the first
  return write(flash, std::span(command.get(), kHeaderSize + length), cycle);
}

int32_t sflashReadOtpRegister(InterfaceHandle *bridge, uint32_t channel, uint32_t offset, uint8_t *dest,
                              int32_t length) {
  const Flash flash(bridge, channel, HERE);
  const uint32_t count = static_cast<uint32_t>(length);
  if (!insideFlash(offset, std::min(count, kTransferLimit))) return flash.fail(kError, kOutsideFlash);
  if (count > kTransferLimit) return flash.fail(kBufferTooSmall);
  if (!dest && count > 0) return flash.fail(kError);

  const std::unique_ptr<uint8_t[]> answer = allocate(count);
  if (!answer) return flash.fail(kOutOfMemory);
  uint8_t command[kHeaderSize + 2] = {};
  putHeader(command, kReadOtp, offset);
  if (int32_t code = flash.transfer(command, answer.get(), count)) return code;
  std::copy_n(answer.get(), count, dest);
  return kSuccess;
}

int32_t sflashGetBoardName(InterfaceHandle *bridge, uint32_t channel, char *dest, int32_t size) {
  const Flash flash(bridge, channel, HERE);
  if (size < kBoardTextCapacity) return flash.fail(kBufferTooSmall);
  if (!dest) return flash.fail(kError);
  uint8_t *bytes = reinterpret_cast<uint8_t *>(dest);
  if (int32_t code = sflashReadOtpRegister(bridge, channel, kBoardNameOffset, bytes, kBoardNameSize)) {
    return flash.pass(code);
  }
  trim(dest, kBoardNameSize - 2, 0, [](uint8_t byte) { return byte == 0 || byte == ' ' || byte == 0xff; });
  return kSuccess;
}

int32_t sflashGetBoardID(InterfaceHandle *bridge, uint32_t channel, char *dest, int32_t size) {
  const Flash flash(bridge, channel, HERE);
  if (size < kBoardTextCapacity) return flash.fail(kBufferTooSmall);
  if (!dest) return flash.fail(kError);
  uint8_t *bytes = reinterpret_cast<uint8_t *>(dest);
  if (int32_t code = sflashReadOtpRegister(bridge, channel, kBoardIdOffset, bytes, kBoardIdSize)) {
    return flash.pass(code);
  }
  trim(dest, kBoardIdSize - 1, 1, [](uint8_t byte) { return byte == 0 || byte == ' '; });
  return kSuccess;
}

int32_t sflashTest(InterfaceHandle *bridge, uint32_t channel) {
  constexpr uint32_t kTestAddress = 0xf000;
  constexpr int32_t kOtpSize = 128;
  const Flash flash(bridge, channel, HERE);

  std::array<uint8_t, kOtpSize> otp;
  sflashReadOtpRegister(bridge, channel, 0, otp.data(), kOtpSize);
  if (int32_t code = sflashEraseChip(bridge, channel)) return flash.pass(code);

  std::array<uint8_t, kPageSize> page;
  for (uint32_t i = 0; i < kPageSize; ++i) page[i] = static_cast<uint8_t>(255 - i);
  if (int32_t code = sflashWritePage(bridge, channel, 0, page.data(), kPageSize)) return flash.pass(code);
  if (int32_t code = sflashReadBuffer(bridge, channel, 0, page.data(), kPageSize)) return flash.pass(code);

  std::array<uint8_t, 4096> block;
  for (uint32_t i = 0; i < block.size(); ++i) block[i] = static_cast<uint8_t>(i);
  if (int32_t code = sflashWriteMemory(bridge, channel, kTestAddress, block.data(), block.size())) {
    return flash.pass(code);
  }
  std::array<uint8_t, block.size()> answer = {};
  if (int32_t code = sflashReadMemory(bridge, channel, kTestAddress, answer.data(), answer.size())) {
    return flash.pass(code);
  }
  return answer == block ? static_cast<int32_t>(kSuccess) : flash.fail(kFlashAccess);
}

}  // extern "C"
