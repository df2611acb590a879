// The table of D2XX functions over the bench, with D2XX's own rules.
#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "base/System.h"
#include "host/Bench.h"

namespace pulsekit::simulator {

namespace {

constexpr uint32_t kLargestTransfer = 65536;
constexpr uint32_t kTransferStep = 64;

std::string hex(uint32_t value) {
  static constexpr char digits[] = "0123456789ABCDEF";
  std::string text = "0x";
  for (int shift = 28; shift >= 0; shift -= 4) text += digits[value >> shift & 15];
  return text;
}

template <typename... Numbers>
std::string line(const char *name, Numbers... numbers) {
  std::string text = name;
  ((text += ' ' + std::to_string(numbers)), ...);
  return text;
}

HostPort *portOf(FT_HANDLE handle) {
  auto found = bench().handles.find(reinterpret_cast<uintptr_t>(handle));
  return found == bench().handles.end() ? nullptr : found->second.get();
}

Event callEvent(Function function, const HostPort *port) {
  Event event;
  event.kind = function == Function::GetQueueStatus ? QTXSIM_EVENT_POLL : QTXSIM_EVENT_CALL;
  if (port) event.device = port->device().number;
  return event;
}

// Everything that surrounds a call: lock, time, count, record, scheduled failures. body(value) does the rest.
template <typename Describe, typename Body>
FT_STATUS call(Function function, FT_HANDLE handle, Describe describe, Body body) {
  auto lock = lockBench();
  Bench &all = bench();
  all.beginCall(function);
  Event event = callEvent(function, portOf(handle));
  uint64_t number = 0;
  if (all.recorder().wants(event.kind)) {
    describe(event);
    number = all.recorder().add(std::move(event), all.clock());
  }
  uint32_t value = 0;
  FT_STATUS status = all.scheduledFailure(function);
  if (status == FT_OK) status = body(value);
  all.recorder().complete(number, status, value);
  const uint64_t rest = all.endCall();
  lock.unlock();
  if (rest > 0) sleepFor(rest);
  return status;
}

template <typename Body>
FT_STATUS globalCall(Function function, const std::string &text, Body body) {
  return call(
      function, nullptr, [&](Event &event) { event.text = text; }, [&](uint32_t &) { return body(); });
}

// body(port) runs for a handle that is open and whose device is still there.
template <typename Describe, typename Body>
FT_STATUS portCall(Function function, FT_HANDLE handle, Describe describe, Body body) {
  return call(function, handle, describe, [&](uint32_t &value) -> FT_STATUS {
    HostPort *port = portOf(handle);
    if (!port) return FT_INVALID_HANDLE;
    if (port->gone()) return FT_IO_ERROR;
    return body(*port, value);
  });
}

void spendTransfer(uint64_t &counter) {
  ++counter;
  bench().clock().advance(UsbChannel::kTransferTime);
}

// The channel when a control request has reached it; null for one without MPSSE.
UsbChannel *requested(const HostPort &port) {
  spendTransfer(bench().counts().control_transfers);
  if (port.channel()) port.channel()->runTo(bench().clock().nanoseconds());
  return port.channel();
}

uint64_t timeLimit(uint64_t timeout) {
  const uint64_t now = bench().clock().nanoseconds();
  return timeout == kNever ? kNever : now + timeout;
}

FT_STATUS close(FT_HANDLE handle) {
  return call(
      Function::Close, handle, [](Event &event) { event.text = "Close"; },
      [&](uint32_t &) -> FT_STATUS {
        return bench().handles.erase(reinterpret_cast<uintptr_t>(handle)) == 1 ? FT_OK : FT_INVALID_HANDLE;
      });
}

FT_STATUS read(FT_HANDLE handle, void *buffer, uint32_t count, uint32_t *got) {
  return portCall(
      Function::Read, handle, [&](Event &event) { event.text = line("Read", count); },
      [&](HostPort &port, uint32_t &) -> FT_STATUS {
        if (!got) return FT_INVALID_PARAMETER;
        *got = 0;
        if (!buffer && count > 0) return FT_IO_ERROR;
        Clock &clock = bench().clock();
        const uint64_t limit = timeLimit(port.readTimeout());
        auto *bytes = static_cast<uint8_t *>(buffer);
        for (;;) {
          *got += static_cast<uint32_t>(port.take(bytes + *got, count - *got));
          port.looksOn = *got > 0;
          if (*got == count) return FT_OK;
          if (port.waitForMore(limit)) continue;
          // Nothing is on its way. Without a time-out this would be for ever: then it ends at once.
          if (limit != kNever) clock.reach(limit);
          return FT_OK;
        }
      });
}

uint32_t writeTransfers(HostPort &port, const uint8_t *bytes, uint32_t count) {
  QTXSim_Statistics &counts = bench().counts();
  Clock &clock = bench().clock();
  const uint64_t limit = timeLimit(port.writeTimeout());
  uint32_t total = 0;
  while (total < count) {
    const uint32_t length = std::min(count - total, port.outTransferSize());
    spendTransfer(counts.out_transfers);
    size_t taken = length;
    if (UsbChannel *channel = port.channel()) {
      taken = channel->write(bytes + total, length, clock, std::max(limit, clock.nanoseconds()));
    }
    total += static_cast<uint32_t>(taken);
    counts.bytes_out += taken;
    if (taken == length) continue;
    // Without a time-out this would be for ever: then it ends at once.
    if (limit != kNever) clock.reach(limit);
    break;
  }
  return total;
}

FT_STATUS write(FT_HANDLE handle, const void *buffer, uint32_t count, uint32_t *written) {
  const auto *bytes = static_cast<const uint8_t *>(buffer);
  const auto describe = [&](Event &event) {
    event.text = "Write";
    if (bytes) event.out.assign(bytes, bytes + count);
    event.outBits = static_cast<uint32_t>(event.out.size() * 8);
  };
  return portCall(Function::Write, handle, describe, [&](HostPort &port, uint32_t &value) -> FT_STATUS {
    if (!written) return FT_INVALID_PARAMETER;
    *written = 0;
    if (!buffer && count > 0) return FT_IO_ERROR;
    port.looksOn = false;
    Device &device = port.device();
    const bool isShort = device.shortWrite.strikes();
    *written = writeTransfers(port, bytes, isShort ? std::min(count, device.shortWriteAccepts) : count);
    value = *written;
    return FT_OK;
  });
}

FT_STATUS resetDevice(FT_HANDLE handle) {
  return portCall(
      Function::ResetDevice, handle, [](Event &event) { event.text = "ResetDevice"; },
      [](HostPort &port, uint32_t &) -> FT_STATUS {
        if (UsbChannel *channel = requested(port)) channel->purgeFifos();
        return FT_OK;
      });
}

FT_STATUS setTimeouts(FT_HANDLE handle, uint32_t readMilliseconds, uint32_t writeMilliseconds) {
  return portCall(
      Function::SetTimeouts, handle,
      [&](Event &event) { event.text = line("SetTimeouts", readMilliseconds, writeMilliseconds); },
      [&](HostPort &port, uint32_t &) -> FT_STATUS {
        port.setTimeouts(readMilliseconds, writeMilliseconds);
        return FT_OK;
      });
}

FT_STATUS getQueueStatus(FT_HANDLE handle, uint32_t *count) {
  return portCall(
      Function::GetQueueStatus, handle, [](Event &event) { event.text = "GetQueueStatus"; },
      [&](HostPort &port, uint32_t &) -> FT_STATUS {
        if (!count) return FT_INVALID_PARAMETER;
        // Who polls waits for what is on its way.
        if (!std::exchange(port.looksOn, false)) port.waitForMore(kNever);
        *count = static_cast<uint32_t>(port.available());
        return FT_OK;
      });
}

FT_STATUS setLatencyTimer(FT_HANDLE handle, uint8_t milliseconds) {
  return portCall(
      Function::SetLatencyTimer, handle, [&](Event &event) { event.text = line("SetLatencyTimer", milliseconds); },
      [&](HostPort &port, uint32_t &) -> FT_STATUS {
        if (milliseconds == 0) return FT_INVALID_PARAMETER;
        if (UsbChannel *channel = requested(port)) channel->setLatency(milliseconds);
        return FT_OK;
      });
}

FT_STATUS setBitMode(FT_HANDLE handle, uint8_t mask, uint8_t mode) {
  return portCall(
      Function::SetBitMode, handle, [&](Event &event) { event.text = line("SetBitMode", mask, mode); },
      [&](HostPort &port, uint32_t &) -> FT_STATUS {
        const bool known = mode == UsbChannel::kModeReset || (mode == UsbChannel::kModeMpsse && port.channel());
        if (!known) return FT_NOT_SUPPORTED;
        if (UsbChannel *channel = requested(port)) channel->setMode(mask, mode);
        return FT_OK;
      });
}

bool isTransferSize(uint32_t size) {
  return size >= kTransferStep && size <= kLargestTransfer && size % kTransferStep == 0;
}

FT_STATUS setUsbParameters(FT_HANDLE handle, uint32_t in, uint32_t out) {
  return portCall(
      Function::SetUSBParameters, handle, [&](Event &event) { event.text = line("SetUSBParameters", in, out); },
      [&](HostPort &port, uint32_t &) -> FT_STATUS {
        if (!isTransferSize(in) || !isTransferSize(out)) return FT_INVALID_PARAMETER;
        port.setTransferSizes(in, out);
        return FT_OK;
      });
}

// ---- Finding and opening -------------------------------------------------------------------------------------------

bool isOpenHere(const PortName &name) {
  const auto &handles = bench().handles;
  return std::any_of(handles.begin(), handles.end(), [&](const auto &entry) {
    return !entry.second->gone() && &entry.second->device() == name.device &&
           entry.second->channelIndex() == name.channel;
  });
}

bool isInUse(const PortName &name) { return name.device->held || isOpenHere(name); }

bool matches(const PortName &name, const void *arg, uint32_t flags) {
  switch (flags) {
    case FT_OPEN_BY_SERIAL_NUMBER:
      return name.serial == static_cast<const char *>(arg);
    case FT_OPEN_BY_DESCRIPTION:
      return name.description == static_cast<const char *>(arg);
    default:
      return name.location == reinterpret_cast<uintptr_t>(arg);
  }
}

FT_STATUS openNamed(const void *arg, uint32_t flags, FT_HANDLE *out) {
  const std::vector<PortName> names = bench().ports();
  FT_STATUS status = FT_DEVICE_NOT_FOUND;
  for (const PortName &name : names) {
    if (!matches(name, arg, flags)) continue;
    status = FT_DEVICE_NOT_OPENED;
    if (isInUse(name)) continue;
    *out = bench().openPort(*name.device, name.channel);
    return FT_OK;
  }
  return status;
}

FT_STATUS openEx(const void *arg, uint32_t flags, FT_HANDLE *out) {
  const bool byText = flags == FT_OPEN_BY_SERIAL_NUMBER || flags == FT_OPEN_BY_DESCRIPTION;
  const bool known = byText || flags == FT_OPEN_BY_LOCATION;
  std::string what =
      byText && arg ? static_cast<const char *>(arg) : hex(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(arg)));
  return globalCall(Function::OpenEx, "OpenEx " + what + ' ' + std::to_string(flags), [&]() -> FT_STATUS {
    if (!out || !known || (byText && !arg)) return FT_INVALID_PARAMETER;
    *out = nullptr;
    return openNamed(arg, flags, out);
  });
}

void copyText(void *target, const std::string &text) { std::memcpy(target, text.c_str(), text.size() + 1); }

// One name of the list: serial number or description, empty where the device is in use, or location.
FT_STATUS putName(const PortName &name, void *target, uint32_t what) {
  if (!target) return FT_INVALID_PARAMETER;
  const bool inUse = isInUse(name);
  if (what == FT_OPEN_BY_LOCATION) {
    const uint32_t location = inUse ? 0 : name.location;
    std::memcpy(target, &location, sizeof location);
  } else {
    copyText(target, inUse ? "" : what == FT_OPEN_BY_SERIAL_NUMBER ? name.serial : name.description);
  }
  return inUse ? FT_DEVICE_NOT_OPENED : FT_OK;
}

void buildNames() {
  bench().names = bench().ports();
  bench().namesBuilt = true;
}

FT_STATUS listNumber(void *count) {
  if (!count) return FT_INVALID_PARAMETER;
  buildNames();
  const auto number = static_cast<uint32_t>(bench().names.size());
  std::memcpy(count, &number, sizeof number);
  return FT_OK;
}

FT_STATUS listByIndex(uintptr_t index, void *target, uint32_t what) {
  if (!bench().namesBuilt) buildNames();
  if (index >= bench().names.size()) return FT_DEVICE_NOT_FOUND;
  return putName(bench().names[index], target, what);
}

FT_STATUS listAll(void *targets, void *count, uint32_t what) {
  if (!targets) return FT_INVALID_PARAMETER;
  buildNames();
  uint32_t number = 0;
  for (const PortName &name : bench().names) {
    void *target = what == FT_OPEN_BY_LOCATION ? static_cast<void *>(static_cast<uint32_t *>(targets) + number)
                                               : static_cast<char **>(targets)[number];
    if (!target) break;
    putName(name, target, what);
    ++number;
  }
  if (count) std::memcpy(count, &number, sizeof number);
  return FT_OK;
}

FT_STATUS listDevices(void *arg1, void *arg2, uint32_t flags) {
  const uint32_t how = flags & (FT_LIST_NUMBER_ONLY | FT_LIST_BY_INDEX | FT_LIST_ALL);
  const uint32_t what = flags & ~how;
  const auto index = reinterpret_cast<uintptr_t>(arg1);
  std::string text = "ListDevices ";
  if (how == FT_LIST_BY_INDEX) text += std::to_string(index) + ' ';
  return globalCall(Function::ListDevices, text + hex(flags), [&]() -> FT_STATUS {
    if (how == FT_LIST_NUMBER_ONLY) return listNumber(arg1);
    const bool one = what == FT_OPEN_BY_SERIAL_NUMBER || what == FT_OPEN_BY_DESCRIPTION || what == FT_OPEN_BY_LOCATION;
    if (!one) return FT_INVALID_PARAMETER;
    if (how == FT_LIST_BY_INDEX) return listByIndex(index, arg2, what);
    if (how == FT_LIST_ALL) return listAll(arg1, arg2, what);
    return FT_INVALID_PARAMETER;
  });
}

FT_Node nodeOf(const PortName &name) {
  FT_Node node{};
  if (name.device->held) {
    node.Flags = FT_FLAGS_OPENED;
    node.Type = FT_DEVICE_UNKNOWN;
    return node;
  }
  node.Flags = FT_FLAGS_HISPEED;
  node.Type = name.device->type;
  node.ID = name.device->id;
  node.LocId = name.location;
  copyText(node.SerialNumber, name.serial);
  copyText(node.Description, name.description);
  for (const auto &[value, port] : bench().handles) {
    if (port->gone() || &port->device() != name.device || port->channelIndex() != name.channel) continue;
    node.Flags |= FT_FLAGS_OPENED;
    node.Handle = reinterpret_cast<FT_HANDLE>(value);
  }
  return node;
}

FT_STATUS createDeviceInfoList(uint32_t *count) {
  return globalCall(Function::CreateDeviceInfoList, "CreateDeviceInfoList", [&]() -> FT_STATUS {
    if (!count) return FT_INVALID_PARAMETER;
    buildNames();
    std::vector<FT_Node> &nodes = bench().nodes;
    nodes.clear();
    std::transform(bench().names.begin(), bench().names.end(), std::back_inserter(nodes), nodeOf);
    bench().nodesBuilt = true;
    *count = static_cast<uint32_t>(nodes.size());
    return FT_OK;
  });
}

FT_STATUS getDeviceInfoList(FT_Node *target, uint32_t *count) {
  return globalCall(Function::GetDeviceInfoList, "GetDeviceInfoList", [&]() -> FT_STATUS {
    if (!bench().nodesBuilt) return FT_DEVICE_LIST_NOT_READY;
    const std::vector<FT_Node> &nodes = bench().nodes;
    if (!count || (!target && !nodes.empty())) return FT_INVALID_PARAMETER;
    std::copy(nodes.begin(), nodes.end(), target);
    *count = static_cast<uint32_t>(nodes.size());
    return FT_OK;
  });
}

constexpr FTx232H_D2XX kTable = {close,
                                 read,
                                 write,
                                 resetDevice,
                                 setTimeouts,
                                 getQueueStatus,
                                 openEx,
                                 listDevices,
                                 setLatencyTimer,
                                 setBitMode,
                                 setUsbParameters,
                                 createDeviceInfoList,
                                 getDeviceInfoList};

}  // namespace

}  // namespace pulsekit::simulator

extern "C" const FTx232H_D2XX *QTXSim_D2XX(void) { return &pulsekit::simulator::kTable; }
