#include "libusb_provider.h"

#include <libusb.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <system_error>
#include <vector>

#include "../../../../platform/platform.h"
#include "channel.h"
#include "events.h"
#include "ports.h"

namespace pulsekit::d2xx::usb {

namespace {

constexpr uint8_t kModeReset = 0, kModeMpsse = 2;
constexpr uint32_t kTransferStep = 64, kLargestTransfer = 65536;

// Everything there is of a process: the open channels and the two lists that D2XX keeps.
class Provider {
 public:
  explicit Provider(libusb_context *context) : events_(context), ports_(context) {}

  std::shared_ptr<Channel> channel(FT_HANDLE handle);
  FT_STATUS close(FT_HANDLE handle);
  FT_STATUS open(const void *arg, uint32_t flags, FT_HANDLE *out);
  FT_STATUS listNumber(uint32_t *count);
  FT_STATUS listByIndex(uintptr_t index, void *target, uint32_t what);
  FT_STATUS listAll(void *targets, uint32_t *count, uint32_t what);
  FT_STATUS createNodes(uint32_t *count);
  FT_STATUS nodes(FT_Node *target, uint32_t *count);
  std::string describe(bool detaches);

 private:
  FT_HANDLE handleOf(const Port &port);
  std::vector<Port> find();
  FT_STATUS putName(const Port &port, void *target, uint32_t what);
  FT_Node nodeOf(const Port &port);
  FT_STATUS openFirst(const std::vector<Port> &ports, FT_HANDLE *out);

  Events events_;

  std::mutex open_mutex_;
  std::map<uintptr_t, std::shared_ptr<Channel>> open_;

  // Held around looking for ports and opening them; taken before open_mutex_.
  std::mutex ports_mutex_;
  Ports ports_;
  std::vector<Port> names_;
  std::vector<FT_Node> nodes_;
  bool names_listed_ = false, nodes_listed_ = false;
};

// ---- The process's provider ----

std::atomic<Provider *> the_provider;
std::atomic<int64_t> its_process;
std::mutex start_mutex;

// A child of a fork has its own: its threads and its place in the conversations with the bridges are its parent's.
// Never ended: a host may close devices while the process ends, with channels open too.
Provider *provider(const char **reason) {
  const int64_t process = platform::processNumber();
  if (its_process == process) return the_provider;
  const std::lock_guard guard(start_mutex);
  if (its_process == process) return the_provider;
  libusb_context *context = nullptr;
  *reason = "this system has no USB";
  if (!platform::hasUsb()) return nullptr;
  const SignalsBlocked blocked;  // for libusb's own thread
  const int error = libusb_init(&context);
  *reason = libusb_strerror(static_cast<libusb_error>(error));
  if (error) return nullptr;
  the_provider = new Provider(context);
  its_process = process;
  return the_provider;
}

// No exception leaves the table.
template <typename Body>
FT_STATUS guarded(Body body) noexcept {
  try {
    const char *reason = "";
    Provider *all = provider(&reason);
    return all ? body(*all) : FT_STATUS{FT_INSUFFICIENT_RESOURCES};
  } catch (const std::bad_alloc &) {
    return FT_INSUFFICIENT_RESOURCES;
  } catch (const std::system_error &) {
    return FT_INSUFFICIENT_RESOURCES;
  }
}

template <typename Body>
FT_STATUS onChannel(FT_HANDLE handle, Body body) noexcept {
  return guarded([&](Provider &all) -> FT_STATUS {
    const std::shared_ptr<Channel> channel = all.channel(handle);
    return channel ? body(*channel) : FT_STATUS{FT_INVALID_HANDLE};
  });
}

// ---- Handles ----

// Never given out twice, also not to the child of a fork: an old handle stays invalid.
std::atomic<uintptr_t> next_handle = 0x1000;

std::shared_ptr<Channel> Provider::channel(FT_HANDLE handle) {
  const std::lock_guard guard(open_mutex_);
  const auto found = open_.find(reinterpret_cast<uintptr_t>(handle));
  return found == open_.end() ? nullptr : found->second;
}

FT_HANDLE Provider::handleOf(const Port &port) {
  const std::lock_guard guard(open_mutex_);
  for (const auto &[value, channel] : open_) {
    if (channel->port().is(port)) return reinterpret_cast<FT_HANDLE>(value);
  }
  return nullptr;
}

FT_STATUS Provider::close(FT_HANDLE handle) {
  std::shared_ptr<Channel> channel;
  {
    const std::lock_guard guard(open_mutex_);
    const auto found = open_.find(reinterpret_cast<uintptr_t>(handle));
    if (found == open_.end()) return FT_INVALID_HANDLE;
    channel = std::move(found->second);
    open_.erase(found);
  }
  channel->close();
  return FT_OK;
}

// ---- Finding and opening ----

std::vector<Port> Provider::find() {
  return ports_.find([this](const Port &port) { return handleOf(port) != nullptr; });
}

FT_STATUS statusOf(int error) {
  switch (error) {
    case LIBUSB_SUCCESS:
      return FT_OK;
    case LIBUSB_ERROR_NO_DEVICE:
      return FT_DEVICE_NOT_FOUND;
    case LIBUSB_ERROR_NO_MEM:
      return FT_INSUFFICIENT_RESOURCES;
    default:
      return FT_DEVICE_NOT_OPENED;
  }
}

bool isNamed(const Port &port, const void *arg, uint32_t flags) {
  if (flags == FT_OPEN_BY_SERIAL_NUMBER) return port.serial == static_cast<const char *>(arg);
  if (flags == FT_OPEN_BY_DESCRIPTION) return port.description == static_cast<const char *>(arg);
  return port.location == reinterpret_cast<uintptr_t>(arg);
}

// The first channel goes by the bridge's own serial number, too.
bool isNamedBare(const Port &port, const void *arg, uint32_t flags) {
  if (flags != FT_OPEN_BY_SERIAL_NUMBER || !port.lettered || port.channel != 0) return false;
  const std::string bare = static_cast<const char *>(arg);
  return !bare.empty() && port.serial == bare + port.letter();
}

FT_STATUS Provider::openFirst(const std::vector<Port> &ports, FT_HANDLE *out) {
  FT_STATUS status = FT_DEVICE_NOT_FOUND;
  for (const Port &port : ports) {
    status = FT_DEVICE_NOT_OPENED;
    if (handleOf(port)) continue;
    int error = LIBUSB_SUCCESS;
    std::shared_ptr<Channel> channel = Channel::open(events_, port, &error);
    status = statusOf(error);
    if (!channel) continue;
    const uintptr_t value = next_handle++;
    const std::lock_guard guard(open_mutex_);
    open_[value] = std::move(channel);
    *out = reinterpret_cast<FT_HANDLE>(value);
    return FT_OK;
  }
  return status;
}

FT_STATUS Provider::open(const void *arg, uint32_t flags, FT_HANDLE *out) {
  const std::lock_guard guard(ports_mutex_);
  std::vector<Port> ports = ports_.names();
  const bool any = std::any_of(ports.begin(), ports.end(), [&](const Port &port) { return isNamed(port, arg, flags); });
  std::erase_if(ports,
                [&](const Port &port) { return any ? !isNamed(port, arg, flags) : !isNamedBare(port, arg, flags); });
  return openFirst(ports, out);
}

// ---- Lists ----

void copyText(void *target, const std::string &text) { std::memcpy(target, text.c_str(), text.size() + 1); }

// Serial number, description or location; nothing of a port that is in use.
FT_STATUS Provider::putName(const Port &port, void *target, uint32_t what) {
  const bool in_use = port.fault || handleOf(port);
  if (what == FT_OPEN_BY_LOCATION) {
    const uint32_t location = in_use ? 0 : port.location;
    std::memcpy(target, &location, sizeof location);
  } else {
    copyText(target, in_use ? "" : what == FT_OPEN_BY_SERIAL_NUMBER ? port.serial : port.description);
  }
  return in_use ? FT_DEVICE_NOT_OPENED : FT_OK;
}

FT_STATUS Provider::listNumber(uint32_t *count) {
  if (!count) return FT_INVALID_PARAMETER;
  const std::lock_guard guard(ports_mutex_);
  names_ = find();
  names_listed_ = true;
  *count = static_cast<uint32_t>(names_.size());
  return FT_OK;
}

FT_STATUS Provider::listByIndex(uintptr_t index, void *target, uint32_t what) {
  const std::lock_guard guard(ports_mutex_);
  if (!names_listed_) names_ = find();
  names_listed_ = true;
  if (index >= names_.size()) return FT_DEVICE_NOT_FOUND;
  return target ? putName(names_[index], target, what) : FT_STATUS{FT_INVALID_PARAMETER};
}

FT_STATUS Provider::listAll(void *targets, uint32_t *count, uint32_t what) {
  if (!targets) return FT_INVALID_PARAMETER;
  const std::lock_guard guard(ports_mutex_);
  names_ = find();
  names_listed_ = true;
  uint32_t number = 0;
  for (const Port &port : names_) {
    void *target = what == FT_OPEN_BY_LOCATION ? static_cast<void *>(static_cast<uint32_t *>(targets) + number)
                                               : static_cast<char **>(targets)[number];
    if (!target) break;  // the end of the caller's texts
    putName(port, target, what);
    ++number;
  }
  if (count) *count = number;
  return FT_OK;
}

FT_Node Provider::nodeOf(const Port &port) {
  FT_Node node{};
  if (port.fault) {
    node.Flags = FT_FLAGS_OPENED;
    node.Type = FT_DEVICE_UNKNOWN;
    return node;
  }
  node.Handle = handleOf(port);
  node.Flags = (port.high_speed ? uint32_t{FT_FLAGS_HISPEED} : 0) | (node.Handle ? uint32_t{FT_FLAGS_OPENED} : 0);
  node.Type = port.type;
  node.ID = port.id;
  node.LocId = port.location;
  copyText(node.SerialNumber, port.serial);
  copyText(node.Description, port.description);
  return node;
}

FT_STATUS Provider::createNodes(uint32_t *count) {
  if (!count) return FT_INVALID_PARAMETER;
  const std::lock_guard guard(ports_mutex_);
  names_ = find();
  names_listed_ = true;
  nodes_.clear();
  for (const Port &port : names_) nodes_.push_back(nodeOf(port));
  nodes_listed_ = true;
  *count = static_cast<uint32_t>(nodes_.size());
  return FT_OK;
}

FT_STATUS Provider::nodes(FT_Node *target, uint32_t *count) {
  const std::lock_guard guard(ports_mutex_);
  if (!nodes_listed_) return FT_DEVICE_LIST_NOT_READY;
  if (!count || (!target && !nodes_.empty())) return FT_INVALID_PARAMETER;
  std::copy(nodes_.begin(), nodes_.end(), target);
  *count = static_cast<uint32_t>(nodes_.size());
  return FT_OK;
}

std::string Provider::describe(bool detaches) {
  const std::lock_guard guard(ports_mutex_);
  return usb::describe(
      find(), [this](const Port &port) { return handleOf(port) != nullptr; }, detaches);
}

// ---- The table ----

FT_STATUS close(FT_HANDLE handle) {
  return guarded([&](Provider &all) { return all.close(handle); });
}

FT_STATUS read(FT_HANDLE handle, void *buffer, uint32_t count, uint32_t *got) {
  return onChannel(handle, [&](Channel &channel) -> FT_STATUS {
    if (!got) return FT_INVALID_PARAMETER;
    *got = 0;
    if (!buffer && count > 0) return FT_IO_ERROR;
    return channel.read(static_cast<uint8_t *>(buffer), count, got);
  });
}

FT_STATUS write(FT_HANDLE handle, const void *buffer, uint32_t count, uint32_t *written) {
  return onChannel(handle, [&](Channel &channel) -> FT_STATUS {
    if (!written) return FT_INVALID_PARAMETER;
    *written = 0;
    if (!buffer && count > 0) return FT_IO_ERROR;
    return channel.write(static_cast<const uint8_t *>(buffer), count, written);
  });
}

FT_STATUS resetDevice(FT_HANDLE handle) {
  return onChannel(handle, [](Channel &channel) { return channel.reset(); });
}

FT_STATUS setTimeouts(FT_HANDLE handle, uint32_t read_ms, uint32_t write_ms) {
  return onChannel(handle, [&](Channel &channel) { return channel.setTimeouts(read_ms, write_ms); });
}

FT_STATUS getQueueStatus(FT_HANDLE handle, uint32_t *count) {
  return onChannel(handle,
                   [&](Channel &channel) { return count ? channel.queued(count) : FT_STATUS{FT_INVALID_PARAMETER}; });
}

FT_STATUS openEx(const void *arg, uint32_t flags, FT_HANDLE *out) {
  const bool by_text = flags == FT_OPEN_BY_SERIAL_NUMBER || flags == FT_OPEN_BY_DESCRIPTION;
  if (!out || (!by_text && flags != FT_OPEN_BY_LOCATION) || (by_text && !arg)) return FT_INVALID_PARAMETER;
  *out = nullptr;
  return guarded([&](Provider &all) { return all.open(arg, flags, out); });
}

FT_STATUS listDevices(void *arg1, void *arg2, uint32_t flags) {
  const uint32_t how = flags & (FT_LIST_NUMBER_ONLY | FT_LIST_BY_INDEX | FT_LIST_ALL);
  const uint32_t what = flags & ~how;
  return guarded([&](Provider &all) -> FT_STATUS {
    if (how == FT_LIST_NUMBER_ONLY) return all.listNumber(static_cast<uint32_t *>(arg1));
    const bool one = what == FT_OPEN_BY_SERIAL_NUMBER || what == FT_OPEN_BY_DESCRIPTION || what == FT_OPEN_BY_LOCATION;
    if (one && how == FT_LIST_BY_INDEX) return all.listByIndex(reinterpret_cast<uintptr_t>(arg1), arg2, what);
    if (one && how == FT_LIST_ALL) return all.listAll(arg1, static_cast<uint32_t *>(arg2), what);
    return FT_INVALID_PARAMETER;
  });
}

FT_STATUS setLatencyTimer(FT_HANDLE handle, uint8_t ms) {
  return onChannel(handle,
                   [&](Channel &channel) { return ms ? channel.setLatency(ms) : FT_STATUS{FT_INVALID_PARAMETER}; });
}

FT_STATUS setBitMode(FT_HANDLE handle, uint8_t mask, uint8_t mode) {
  return onChannel(handle, [&](Channel &channel) {
    const bool known = mode == kModeReset || (mode == kModeMpsse && channel.port().hasMpsse());
    return known ? channel.setBitMode(mask, mode) : FT_STATUS{FT_NOT_SUPPORTED};
  });
}

bool isTransferSize(uint32_t size) {
  return size >= kTransferStep && size <= kLargestTransfer && size % kTransferStep == 0;
}

FT_STATUS setUsbParameters(FT_HANDLE handle, uint32_t in, uint32_t out) {
  return onChannel(handle, [&](Channel &channel) {
    const bool fine = isTransferSize(in) && isTransferSize(out);
    return fine ? channel.setTransferSizes(in, out) : FT_STATUS{FT_INVALID_PARAMETER};
  });
}

FT_STATUS createDeviceInfoList(uint32_t *count) {
  return guarded([&](Provider &all) { return all.createNodes(count); });
}

FT_STATUS getDeviceInfoList(FT_Node *nodes, uint32_t *count) {
  return guarded([&](Provider &all) { return all.nodes(nodes, count); });
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

const FTx232H_D2XX *table(const char **reason) {
  try {
    return provider(reason) ? &kTable : nullptr;
  } catch (const std::bad_alloc &) {
    *reason = "out of memory";
    return nullptr;
  }
}

std::string describePorts(bool detaches) {
  const char *reason = "";
  Provider *all = provider(&reason);
  return all ? all->describe(detaches) : "";
}

}  // namespace pulsekit::d2xx::usb
