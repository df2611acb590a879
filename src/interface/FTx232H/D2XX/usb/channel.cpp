#include "channel.h"

#include <algorithm>
#include <cstring>

#include "../../../../platform/platform.h"

namespace pulsekit::d2xx::usb {

namespace {

using namespace std::chrono_literals;

// Vendor requests; the index names the channel, from 1.
constexpr uint8_t kVendorRequestOut = 0x40;
constexpr uint8_t kRequestReset = 0x00, kRequestLatency = 0x09, kRequestBitMode = 0x0B;
constexpr uint16_t kResetAll = 0;
constexpr uint8_t kDefaultLatencyMs = 16;
constexpr unsigned kControlTimeoutMs = 1000;

constexpr uint32_t kStatusBytes = 2;    // at the start of each packet
constexpr uint32_t kLargestIn = 16384;  // the bridge's data shows when it is full at the latest
constexpr uint32_t kDefaultTransferSize = 4096;
constexpr size_t kRingLimit = size_t{1} << 20;  // with that much lying about nothing is fetched any more
constexpr uint32_t kErrorsInARow = 3;           // that are taken for disturbances of the line

constexpr int kOpenAttempts = 5;
constexpr uint32_t kOpenPauseMs = 20;

constexpr auto kLookWait = 200us;
constexpr auto kMoreExpected = 5ms;
constexpr auto kListening = 250ms;  // after the last call or the last data
constexpr auto kAnswerTime = 5ms;   // that an idle bridge takes besides its latency, at most

// What is about to change after plugging in, or while another process looks at its ports.
bool mayPass(int error) { return error == LIBUSB_ERROR_BUSY || error == LIBUSB_ERROR_ACCESS; }

class ActiveConfiguration {
 public:
  explicit ActiveConfiguration(libusb_device *device) : error_(libusb_get_active_config_descriptor(device, &all_)) {}
  ~ActiveConfiguration() { libusb_free_config_descriptor(all_); }
  ActiveConfiguration(const ActiveConfiguration &) = delete;
  ActiveConfiguration &operator=(const ActiveConfiguration &) = delete;
  int error() const { return error_; }
  const libusb_interface_descriptor *interface(uint8_t number) const {
    const bool exists = all_ && number < all_->bNumInterfaces && all_->interface[number].num_altsetting > 0;
    return exists ? all_->interface[number].altsetting : nullptr;
  }

 private:
  libusb_config_descriptor *all_ = nullptr;
  int error_;
};

}  // namespace

void Ring::append(const uint8_t *bytes, size_t count) {
  if (size_ == 0) head_ = 0;
  const size_t end = (head_ + size_) % capacity_;
  const size_t first = std::min(count, capacity_ - end);
  std::memcpy(bytes_.get() + end, bytes, first);
  std::memcpy(bytes_.get(), bytes + first, count - first);
  size_ += count;
}

void Ring::take(uint8_t *bytes, size_t count) {
  const size_t first = std::min(count, capacity_ - head_);
  std::memcpy(bytes, bytes_.get() + head_, first);
  std::memcpy(bytes + first, bytes_.get(), count - first);
  head_ = (head_ + count) % capacity_;
  size_ -= count;
}

// Around everything that a host calls: closing waits for the end of the last one.
class Channel::Call {
 public:
  explicit Call(Channel &channel) : lock(channel.mutex_), channel_(channel) { ++channel_.calls_; }
  ~Call() {
    if (!lock.owns_lock()) lock.lock();
    --channel_.calls_;
    if (channel_.closing_) channel_.changed_.notify_all();
  }
  Call(const Call &) = delete;
  Call &operator=(const Call &) = delete;

  std::unique_lock<std::mutex> lock;

 private:
  Channel &channel_;
};

// ---- Opening and closing ----

std::shared_ptr<Channel> Channel::open(Events &events, const Port &port, int *error) {
  const ActiveConfiguration configuration(port.device.get());
  const libusb_interface_descriptor *endpoints = configuration.interface(port.channel);
  const bool usable = endpoints && endpoints->bNumEndpoints >= 2;
  *error = usable || configuration.error() ? configuration.error() : LIBUSB_ERROR_NOT_SUPPORTED;
  if (!usable) return nullptr;

  DeviceHandle handle = claim(port, error);
  for (int attempt = 1; mayPass(*error) && attempt < kOpenAttempts; ++attempt) {
    platform::sleepMilliseconds(kOpenPauseMs);
    handle = claim(port, error);
  }
  if (!handle) return nullptr;

  auto channel = std::make_shared<Channel>(std::move(handle), events, port, *endpoints);
  events.start();
  channel->listening_ = true;
  FT_STATUS status = channel->control(kRequestReset, kResetAll);
  if (!status) status = channel->control(kRequestLatency, kDefaultLatencyMs);
  if (!status) {
    const std::lock_guard guard(channel->mutex_);
    channel->listen();
    status = channel->failure_;
  }
  if (!status) return channel;
  *error = LIBUSB_ERROR_IO;
  channel->close();
  return nullptr;
}

Channel::Channel(DeviceHandle handle, Events &events, const Port &port, const libusb_interface_descriptor &endpoints)
    : handle_(std::move(handle)),
      events_(events),
      port_(port),
      ring_(kRingLimit + kIncoming * kLargestIn),
      in_buffers_(new uint8_t[kIncoming * kLargestIn]),
      in_size_(kDefaultTransferSize),
      out_size_(kDefaultTransferSize),
      latency_ms_(kDefaultLatencyMs) {
  for (uint8_t i = 0; i < endpoints.bNumEndpoints; ++i) {
    const libusb_endpoint_descriptor &endpoint = endpoints.endpoint[i];
    const bool in = (endpoint.bEndpointAddress & LIBUSB_ENDPOINT_IN) != 0;
    (in ? in_endpoint_ : out_endpoint_) = endpoint.bEndpointAddress;
    if (in) packet_size_ = endpoint.wMaxPacketSize;
  }
  packet_size_ = std::clamp(packet_size_, kStatusBytes + 1, kLargestIn);
  out_.transfer.reset(libusb_alloc_transfer(0));
  bool allocated = out_.transfer != nullptr;
  for (size_t i = 0; i < in_.size(); ++i) {
    in_[i].transfer.reset(libusb_alloc_transfer(0));
    allocated = allocated && in_[i].transfer;
    if (!allocated) break;
    const auto received = [](libusb_transfer *transfer) {
      static_cast<Channel *>(transfer->user_data)->arrived(*transfer);
    };
    libusb_fill_bulk_transfer(in_[i].transfer.get(), handle_.get(), in_endpoint_, in_buffers_.get() + i * kLargestIn, 0,
                              received, this, 0);
  }
  if (!allocated) throw std::bad_alloc();
}

Channel::~Channel() { close(); }

void Channel::close() {
  std::unique_lock lock(mutex_);
  if (!handle_) return;
  closing_ = true;
  changed_.notify_all();
  for (Transfer &in : in_) {
    if (in.in_flight) libusb_cancel_transfer(in.transfer.get());
  }
  changed_.wait(lock, [this] { return receiving() == 0 && calls_ == 0; });
  const DeviceHandle handle = std::move(handle_);
  lock.unlock();
  // Gives the port back to the kernel's driver.
  libusb_release_interface(handle.get(), port_.channel);
  if (listening_) events_.stop();
}

// ---- Waiting ----

Channel::Deadline Channel::deadlineAfter(uint32_t ms) {
  if (ms == 0) return std::nullopt;
  return Clock::now() + std::chrono::milliseconds(ms);
}

// False: the time is over, or the channel is of no use any more.
template <typename Condition>
bool Channel::wait(std::unique_lock<std::mutex> &lock, const Deadline &deadline, Condition condition) {
  const auto over = [&] { return status() != FT_OK || condition(); };
  if (deadline) {
    changed_.wait_until(lock, *deadline, over);
  } else {
    changed_.wait(lock, over);
  }
  return status() == FT_OK && condition();
}

void Channel::fail(int error) {
  failure_ = error == LIBUSB_ERROR_NO_MEM ? FT_INSUFFICIENT_RESOURCES : FT_IO_ERROR;
  changed_.notify_all();
}

// ---- Receiving ----

size_t Channel::receiving() const {
  return static_cast<size_t>(std::count_if(in_.begin(), in_.end(), [](const Transfer &in) { return in.in_flight; }));
}

void Channel::listen() {
  listen_until_ = Clock::now() + kListening;
  feed();
}

// Asks for more with every transfer that is at hand.
void Channel::feed() {
  if (waiting_for_data_ == 0 && Clock::now() >= listen_until_) return;
  for (Transfer &in : in_) {
    if (restarting_ || status() || ring_.size() >= kRingLimit) return;
    if (in.in_flight) continue;
    in.transfer->length = static_cast<int>(in_size_);
    const int error = libusb_submit_transfer(in.transfer.get());
    in.in_flight = error == LIBUSB_SUCCESS;
    if (error == LIBUSB_ERROR_NO_MEM && receiving() > 0) return;
    if (error) fail(error);
  }
}

void Channel::strip(const libusb_transfer &transfer) {
  const auto length = static_cast<uint32_t>(transfer.actual_length);
  for (uint32_t at = 0; at < length; at += packet_size_) {
    const uint32_t packet = std::min(packet_size_, length - at);
    if (packet > kStatusBytes) ring_.append(transfer.buffer + at + kStatusBytes, packet - kStatusBytes);
  }
}

void Channel::arrived(libusb_transfer &transfer) noexcept {
  const std::lock_guard guard(mutex_);
  const auto in =
      std::find_if(in_.begin(), in_.end(), [&](const Transfer &one) { return one.transfer.get() == &transfer; });
  in->in_flight = false;
  const size_t before = ring_.size();
  strip(transfer);
  const bool good = transfer.status == LIBUSB_TRANSFER_COMPLETED || transfer.status == LIBUSB_TRANSFER_CANCELLED;
  errors_ = good ? 0 : errors_ + 1;
  if (transfer.status == LIBUSB_TRANSFER_NO_DEVICE || errors_ > kErrorsInARow) fail(LIBUSB_ERROR_IO);
  const bool data = ring_.size() > before;
  if (data) {
    more_expected_until_ = Clock::now() + kMoreExpected;
    listen();
  } else {
    feed();
  }
  ++arrivals_;
  if (data || restarting_ || waiting_for_arrival_ > 0 || status()) changed_.notify_all();
}

// Fetches what has left the bridge, and begins anew.
void Channel::restart(std::unique_lock<std::mutex> &lock, bool drop, uint32_t in_size) {
  if (!wait(lock, std::nullopt, [this] { return !restarting_; })) return;
  restarting_ = true;
  for (Transfer &in : in_) {
    if (in.in_flight) libusb_cancel_transfer(in.transfer.get());
  }
  changed_.wait(lock, [this] { return receiving() == 0; });
  if (drop) ring_.clear();
  in_size_ = in_size;
  restarting_ = false;
  listen();
  changed_.notify_all();
}

FT_STATUS Channel::read(uint8_t *bytes, uint32_t count, uint32_t *got) {
  Call call(*this);
  const Deadline deadline = deadlineAfter(read_timeout_);
  ++waiting_for_data_;
  listen();
  while (*got < count && !status()) {
    // What does not fit the ring comes in parts.
    const size_t part = std::min<size_t>(count - *got, kRingLimit / 2);
    const bool there = wait(call.lock, deadline, [&] { return ring_.size() >= part; });
    if (status()) break;
    const auto taken = static_cast<uint32_t>(std::min(part, ring_.size()));
    ring_.take(bytes + *got, taken);
    *got += taken;
    feed();
    if (!there) break;
  }
  --waiting_for_data_;
  last_look_ = ring_.size();
  return status();
}

FT_STATUS Channel::queued(uint32_t *count) {
  Call call(*this);
  const bool idle = receiving() == 0;
  listen();
  const Clock::time_point now = Clock::now();
  if (idle && ring_.size() == 0) {
    const uint32_t before = arrivals_;
    ++waiting_for_arrival_;
    wait(call.lock, now + std::chrono::milliseconds(latency_ms_) + kAnswerTime, [&] { return arrivals_ != before; });
    --waiting_for_arrival_;
  } else if (ring_.size() == last_look_ && now < more_expected_until_) {
    wait(call.lock, now + kLookWait, [this] { return ring_.size() != last_look_; });
  }
  last_look_ = ring_.size();
  *count = static_cast<uint32_t>(last_look_);
  return status();
}

// ---- Sending ----

void Channel::sent() noexcept {
  const std::lock_guard guard(mutex_);
  out_.in_flight = false;
  changed_.notify_all();
}

uint32_t Channel::send(std::unique_lock<std::mutex> &lock, const uint8_t *bytes, uint32_t count,
                       const Deadline &deadline, FT_STATUS *failure) {
  libusb_transfer *transfer = out_.transfer.get();
  const auto done = [](libusb_transfer *one) { static_cast<Channel *>(one->user_data)->sent(); };
  libusb_fill_bulk_transfer(transfer, handle_.get(), out_endpoint_, const_cast<uint8_t *>(bytes),
                            static_cast<int>(count), done, this, 0);
  if (int error = libusb_submit_transfer(transfer)) {
    *failure = error == LIBUSB_ERROR_NO_MEM ? FT_INSUFFICIENT_RESOURCES : FT_IO_ERROR;
    if (error == LIBUSB_ERROR_NO_DEVICE) fail(error);
    return 0;
  }
  out_.in_flight = true;
  listen();
  if (!wait(lock, deadline, [this] { return !out_.in_flight; }) && out_.in_flight) {
    libusb_cancel_transfer(transfer);
    changed_.wait(lock, [this] { return !out_.in_flight; });
  }
  if (transfer->status == LIBUSB_TRANSFER_NO_DEVICE) fail(LIBUSB_ERROR_NO_DEVICE);
  const bool good = transfer->status == LIBUSB_TRANSFER_COMPLETED || transfer->status == LIBUSB_TRANSFER_CANCELLED;
  if (!good) *failure = FT_IO_ERROR;
  return static_cast<uint32_t>(transfer->actual_length);
}

FT_STATUS Channel::write(const uint8_t *bytes, uint32_t count, uint32_t *written) {
  Call call(*this);
  const Deadline deadline = deadlineAfter(write_timeout_);
  if (!wait(call.lock, deadline, [this] { return !writing_; })) return status();
  writing_ = true;
  FT_STATUS failure = FT_OK;
  while (*written < count && !failure && !status()) {
    const uint32_t length = std::min(count - *written, out_size_);
    const uint32_t taken = send(call.lock, bytes + *written, length, deadline, &failure);
    *written += taken;
    if (taken < length) break;
  }
  writing_ = false;
  more_expected_until_ = Clock::now() + kMoreExpected;
  listen();
  changed_.notify_all();
  return failure && !status() ? failure : status();
}

// ---- Settings ----

FT_STATUS Channel::control(uint8_t request, uint16_t value) {
  Call call(*this);
  if (status()) return status();
  // Libusb's own waiting may call back.
  call.lock.unlock();
  const int error = libusb_control_transfer(handle_.get(), kVendorRequestOut, request, value,
                                            static_cast<uint16_t>(port_.channel + 1), nullptr, 0, kControlTimeoutMs);
  call.lock.lock();
  if (error == LIBUSB_ERROR_NO_DEVICE) fail(error);
  return error < 0 && !status() ? FT_STATUS{FT_IO_ERROR} : status();
}

FT_STATUS Channel::reset() {
  Call call(*this);
  call.lock.unlock();
  const FT_STATUS failure = control(kRequestReset, kResetAll);
  call.lock.lock();
  if (!failure) restart(call.lock, false, in_size_);
  return failure ? failure : status();
}

FT_STATUS Channel::setTimeouts(uint32_t read_ms, uint32_t write_ms) {
  const Call call(*this);
  read_timeout_ = read_ms;
  write_timeout_ = write_ms;
  return status();
}

FT_STATUS Channel::setLatency(uint8_t ms) {
  const FT_STATUS failure = control(kRequestLatency, ms);
  if (failure) return failure;
  const Call call(*this);
  latency_ms_ = ms;
  return status();
}

FT_STATUS Channel::setBitMode(uint8_t mask, uint8_t mode) {
  return control(kRequestBitMode, static_cast<uint16_t>(mode << 8 | mask));
}

FT_STATUS Channel::setTransferSizes(uint32_t in, uint32_t out) {
  Call call(*this);
  out_size_ = out;
  const uint32_t whole = (std::min(in, kLargestIn) + packet_size_ - 1) / packet_size_ * packet_size_;
  restart(call.lock, true, std::min(whole, kLargestIn / packet_size_ * packet_size_));
  return status();
}

}  // namespace pulsekit::d2xx::usb
