#include "usb/UsbDevice.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>

namespace pulsekit::simulator {

namespace {

constexpr const char *kKernelDriver = "ftdi_sio";
constexpr const char *kOtherProcess = "usbfs";

enum StandardRequest : uint8_t { kGetStatus = 0, kGetDescriptor = 6, kGetConfiguration = 8 };
enum VendorRequest : uint8_t {
  kReset = 0x00,
  kModemControl = 0x01,
  kFlowControl = 0x02,
  kBaudRate = 0x03,
  kLineFormat = 0x04,
  kModemStatus = 0x05,
  kEventCharacter = 0x06,
  kErrorCharacter = 0x07,
  kSetLatency = 0x09,
  kGetLatency = 0x0A,
  kBitMode = 0x0B,
  kReadPins = 0x0C,
  kReadEeprom = 0x90,
};
enum DescriptorType : uint8_t { kDeviceDescriptor = 1, kConfigurationDescriptor = 2, kStringDescriptor = 3 };
enum String : uint8_t { kLanguages, kManufacturer, kProduct, kSerial };

constexpr uint8_t kToHost = 0x80, kKind = 0x60, kVendor = 0x40;
constexpr size_t kDeviceDescriptorSize = 18;
constexpr size_t kRequestSize = 8;

uint16_t little(const uint8_t *bytes) { return static_cast<uint16_t>(bytes[0] | bytes[1] << 8); }

void add16(std::vector<uint8_t> &to, uint32_t value) {
  to.insert(to.end(), {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)});
}

uint32_t revision(const Device &device) {
  return device.type == FT_DEVICE_2232H ? 0x0700 : device.type == FT_DEVICE_4232H ? 0x0800 : 0x0900;
}

std::vector<uint8_t> stringDescriptor(const Device &device, uint8_t which) {
  static constexpr uint32_t kEnglish = 0x0409;
  std::string_view text;
  if (which == kManufacturer) text = "Simulated";
  if (which == kProduct) text = device.description;
  if (which == kSerial) text = device.serial;
  std::vector<uint8_t> bytes{0, kStringDescriptor};
  if (which == kLanguages) add16(bytes, kEnglish);
  for (const char c : text) add16(bytes, static_cast<uint8_t>(c));
  bytes[0] = static_cast<uint8_t>(bytes.size());
  return which <= kSerial ? bytes : std::vector<uint8_t>();
}

std::vector<uint8_t> descriptor(const Device &device, uint8_t type, uint8_t index) {
  if (type == kStringDescriptor) return stringDescriptor(device, index);
  const std::vector<uint8_t> all = UsbDevice::descriptors(device);
  const auto split = all.begin() + kDeviceDescriptorSize;
  if (type == kDeviceDescriptor) return {all.begin(), split};
  return type == kConfigurationDescriptor ? std::vector<uint8_t>(split, all.end()) : std::vector<uint8_t>();
}

}  // namespace

UsbDevice::UsbDevice(Bench &bench, Device &device)
    : bench_(bench), device_(device), interfaces_(device.channels.size()) {
  for (size_t i = 0; i < device.channels.size(); ++i) ports_.push_back(std::make_unique<UsbPort>(bench, device, i));
}

std::vector<uint8_t> UsbDevice::descriptors(const Device &device) {
  static constexpr uint8_t kHalfAmpere = 250;
  const auto interfaces = static_cast<uint8_t>(device.channels.size());
  std::vector<uint8_t> bytes{kDeviceDescriptorSize, kDeviceDescriptor, 0x00, 0x02, 0, 0, 0, 64};
  add16(bytes, device.id >> 16);
  add16(bytes, device.id);
  add16(bytes, revision(device));
  bytes.insert(bytes.end(), {kManufacturer, kProduct, kSerial, 1});

  bytes.insert(bytes.end(), {9, kConfigurationDescriptor});
  add16(bytes, 9 + interfaces * (9 + 2 * 7));
  bytes.insert(bytes.end(), {interfaces, 1, 0, 0x80, kHalfAmpere});
  for (uint8_t i = 0; i < interfaces; ++i) {
    bytes.insert(bytes.end(), {9, 4, i, 0, 2, 0xFF, 0xFF, 0xFF, kProduct});
    for (const int address : {0x81 + 2 * i, 0x02 + 2 * i}) {
      bytes.insert(bytes.end(), {7, 5, static_cast<uint8_t>(address), 2, 0x00, 0x02, 0});
    }
  }
  return bytes;
}

// ---- Interfaces ----------------------------------------------------------------------------------------------------

int UsbDevice::claim(uint32_t interface, Owner owner, bool pushDriverAside) {
  if (interface >= interfaces_.size()) return pushDriverAside ? EINVAL : ENOENT;
  Interface &it = interfaces_[interface];
  if (it.owner == owner) return 0;
  if (it.owner || device_.held || bench_.scheduledFailure(Function::OpenEx) != FT_OK) return EBUSY;
  if (it.driverBound && !pushDriverAside) return EBUSY;
  it = {.driverBound = false, .owner = owner};
  ports_[interface]->connect();
  return 0;
}

int UsbDevice::release(uint32_t interface, Owner owner) {
  if (interface >= interfaces_.size() || interfaces_[interface].owner != owner) return EINVAL;
  interfaces_[interface].owner = nullptr;
  ports_[interface]->disconnect();
  return 0;
}

void UsbDevice::releaseAll(Owner owner) {
  for (uint32_t i = 0; i < interfaces_.size(); ++i) release(i, owner);
}

int UsbDevice::detachDriver(uint32_t interface) {
  if (interface >= interfaces_.size()) return EINVAL;
  if (!driver(interface)) return ENODATA;
  if (driver(interface) == kOtherProcess) return EBUSY;
  interfaces_[interface] = {.driverBound = false, .owner = nullptr};
  return 0;
}

int UsbDevice::attachDriver(uint32_t interface) {
  if (interface >= interfaces_.size()) return EINVAL;
  if (driver(interface)) return EBUSY;
  interfaces_[interface].driverBound = true;
  return 0;
}

void UsbDevice::reset() {
  for (const auto &port : ports_) {
    if (port->channel()) port->channel()->reset();
  }
}

const char *UsbDevice::driver(uint32_t interface) const {
  if (interface >= interfaces_.size()) return nullptr;
  const Interface &it = interfaces_[interface];
  if (it.owner || device_.held) return kOtherProcess;
  return it.driverBound ? kKernelDriver : nullptr;
}

// ---- Transfers -----------------------------------------------------------------------------------------------------

UsbPort *UsbDevice::portOf(uint8_t endpoint) {
  const size_t number = endpoint & 0x7F;
  const bool in = (endpoint & kToHost) != 0;
  if (number == 0 || in != (number % 2 == 1)) return nullptr;
  const size_t index = (number - 1) / 2;
  return index < ports_.size() ? ports_[index].get() : nullptr;
}

int UsbDevice::submit(Transfer &transfer, Owner owner) {
  transfer.submitted = bench_.clock().nanoseconds();
  if (transfer.endpoint == 0) {
    control(transfer);
    return 0;
  }
  UsbPort *port = portOf(transfer.endpoint);
  if (!port) return ENOENT;
  const size_t interface = ((transfer.endpoint & 0x7Fu) - 1) / 2;
  if (interfaces_[interface].owner != owner) return EBUSY;
  if (!transfer.in() && bench_.scheduledFailure(Function::Write) != FT_OK) {
    transfer.finish(transfer.submitted + UsbChannel::kTransferTime, EPROTO);
    return 0;
  }
  port->submit(transfer);
  return 0;
}

void UsbDevice::takeBack(Transfer &transfer) {
  if (UsbPort *port = portOf(transfer.endpoint)) port->takeBack(transfer);
}

void UsbDevice::collected(const Transfer &transfer) {
  if (UsbPort *port = portOf(transfer.endpoint)) port->collected(transfer);
}

// ---- Control requests ----------------------------------------------------------------------------------------------

void UsbDevice::control(Transfer &transfer) {
  controlFree_ = std::max(transfer.submitted, controlFree_) + UsbChannel::kTransferTime;
  const bool vendor = transfer.bytes.size() >= kRequestSize && (transfer.bytes[0] & kKind) == kVendor;
  const bool known =
      transfer.bytes.size() >= kRequestSize && (vendor ? vendorRequest(transfer) : standardRequest(transfer));
  if (vendor) ++bench_.counts().control_transfers;
  transfer.finish(controlFree_, known ? 0 : EPIPE);
}

bool UsbDevice::standardRequest(Transfer &transfer) {
  const uint8_t *request = transfer.bytes.data();
  std::vector<uint8_t> answer;
  if (request[1] == kGetDescriptor) answer = descriptor(device_, request[3], request[2]);
  if (request[1] == kGetStatus) answer = {0, 0};
  if (request[1] == kGetConfiguration) answer = {1};
  if ((request[0] & kToHost) == 0 || answer.empty()) return false;
  transfer.done = std::min<size_t>({answer.size(), little(request + 6), transfer.length});
  transfer.bytes.resize(kRequestSize);
  transfer.bytes.insert(transfer.bytes.end(), answer.begin(),
                        answer.begin() + static_cast<std::ptrdiff_t>(transfer.done));
  return true;
}

bool UsbDevice::vendorRequest(Transfer &transfer) {
  const uint8_t *bytes = transfer.bytes.data();
  const uint8_t request = bytes[1];
  // Channels count from 1; bridges with a single one take 0, too.
  const size_t index = bytes[4] == 0 ? 0 : bytes[4] - size_t{1};
  if (index >= ports_.size()) return false;
  UsbPort &port = *ports_[index];
  if (port.channel()) port.channel()->runTo(controlFree_);
  if ((bytes[0] & kToHost) == 0) return vendorWrite(port, request, little(bytes + 2));

  std::vector<uint8_t> answer;
  if (request == kGetLatency) answer = {port.latency()};
  if (request == kModemStatus) answer = {UsbPort::kModemStatus[0], UsbPort::kModemStatus[1]};
  if (request == kReadPins && port.channel()) answer = {static_cast<uint8_t>(port.channel()->pins().levels())};
  if (request == kReadEeprom) answer = {0xFF, 0xFF};  // there is none
  if (answer.empty()) return false;
  transfer.done = std::min<size_t>({answer.size(), little(bytes + 6), transfer.length});
  transfer.bytes.resize(kRequestSize);
  transfer.bytes.insert(transfer.bytes.end(), answer.begin(),
                        answer.begin() + static_cast<std::ptrdiff_t>(transfer.done));
  return true;
}

bool UsbDevice::vendorWrite(UsbPort &port, uint8_t request, uint16_t value) {
  const auto low = static_cast<uint8_t>(value), high = static_cast<uint8_t>(value >> 8);
  UsbChannel *channel = port.channel();
  switch (request) {
    case kReset:
      if (bench_.scheduledFailure(Function::ResetDevice) != FT_OK || value > 2) return false;
      if (channel && value != 2) channel->purgeFromHost();
      if (channel && value != 1) channel->purgeToHost();
      return true;
    case kSetLatency:
      if (bench_.scheduledFailure(Function::SetLatencyTimer) != FT_OK || low == 0) return false;
      port.setLatency(low);
      return true;
    case kBitMode:
      if (bench_.scheduledFailure(Function::SetBitMode) != FT_OK) return false;
      if (high != UsbChannel::kModeReset && high != UsbChannel::kModeMpsse) return false;
      if (channel) channel->setMode(low, high);
      return true;
    case kModemControl:
    case kFlowControl:
    case kBaudRate:
    case kLineFormat:
    case kEventCharacter:
    case kErrorCharacter:
      return true;  // of the serial port, where nothing listens
    default:
      return false;
  }
}

}  // namespace pulsekit::simulator
