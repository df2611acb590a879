#include "usb/UsbBed.h"

#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <umockdev.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "host/Bench.h"
#include "usb/UsbNode.h"

namespace pulsekit::simulator {

namespace {

constexpr int kFirstNumber = 2, kNumbers = 126;  // of devices on a bus; the first is the hub
constexpr int kUsbMajor = 189;
constexpr int kMostMemory = 16 << 20;  // as the kernel allows
constexpr size_t kRequestSize = 8;     // ahead of the data of a control transfer
constexpr uint64_t kLongestWait = 3'600'000'000'000;
// Opening a read-only attribute for writing is refused to anyone.
constexpr const char *kRefusesWriters = "/sys/kernel/notes";

struct Unreference {
  void operator()(void *object) const { g_object_unref(object); }
};
using Data = std::unique_ptr<UMockdevIoctlData, Unreference>;

// A transfer and the memory of the host's request for it.
struct Urb : Transfer {
  Data data;
  bool control = false;

  usbdevfs_urb &fields() { return *reinterpret_cast<usbdevfs_urb *>(data->data); }
};

Data resolve(UMockdevIoctlData *data, size_t offset, size_t length) {
  GError *error = nullptr;
  Data found(umockdev_ioctl_data_resolve(data, offset, length, &error));
  g_clear_error(&error);
  return found;
}

std::string hexOf(const std::vector<uint8_t> &bytes) {
  static constexpr char digits[] = "0123456789ABCDEF";
  std::string text;
  for (const uint8_t byte : bytes) {
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

std::string padded(int number) {
  const std::string digits = std::to_string(number);
  return std::string(3 - std::min<size_t>(digits.size(), 3), '0') + digits;
}

std::string hexWord(uint32_t value) { return hexOf({static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)}); }

// Where a device is: numbers are given out once, as the kernel does until they run out.
struct Place {
  int bus, number, port;

  std::string name() const { return std::to_string(bus) + '-' + std::to_string(port); }
  std::string system() const { return "/sys/devices/pci0000:00/0000:00:14.0/usb" + std::to_string(bus) + '/' + name(); }
  std::string node() const { return "bus/usb/" + padded(bus) + '/' + padded(number); }
  int minor() const { return (bus - 1) * 128 + number - 1; }
};

// In umockdev's format.
std::string description(const Device &device, const Place &place) {
  const std::vector<uint8_t> descriptors = UsbDevice::descriptors(device);
  const std::string vendor = hexWord(device.id >> 16), product = hexWord(device.id);
  const auto attribute = [](const std::string &name, const std::string &value) {
    return "A: " + name + '=' + value + "\\n\n";
  };
  std::string text = "P: " + place.system().substr(4) + "\nN: " + place.node() + "=00\n";
  text += "E: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\nE: DRIVER=usb\nE: MAJOR=" + std::to_string(kUsbMajor) + '\n';
  text += "E: MINOR=" + std::to_string(place.minor()) + "\nE: DEVNAME=/dev/" + place.node() + '\n';
  text += "E: BUSNUM=" + padded(place.bus) + "\nE: DEVNUM=" + padded(place.number) + '\n';
  text += "E: ID_VENDOR_ID=" + vendor + "\nE: ID_MODEL_ID=" + product + '\n';
  text += "A: dev=" + std::to_string(kUsbMajor) + ':' + std::to_string(place.minor()) + "\n";
  text += attribute("busnum", std::to_string(place.bus)) + attribute("devnum", std::to_string(place.number));
  text += attribute("devpath", std::to_string(place.port)) + attribute("speed", "480");
  text += attribute("bConfigurationValue", "1") + attribute("bNumConfigurations", "1");
  text += attribute("idVendor", vendor) + attribute("idProduct", product);
  text += attribute("product", device.description) + attribute("serial", device.serial);
  return text + "H: descriptors=" + hexOf(descriptors) + '\n';
}

// umockdev's complaint about programs that were killed is nobody's business here.
void ignore(const gchar *, GLogLevelFlags, const gchar *, gpointer) {}
void letUmockdevBeQuiet() { g_log_set_handler(nullptr, G_LOG_LEVEL_CRITICAL, ignore, nullptr); }

}  // namespace

class UsbBed::Impl {
 public:
  Impl();
  // Takes everything away. umockdev's thread may still be busy with a client, so the object stays.
  static void end(std::unique_ptr<Impl> bed);

  struct Plugged {
    Impl *bed;
    int device;
    uint32_t pluggedTime;
    Place place;
    std::unique_ptr<UsbNode> node;
    Transfer::RealTime::time_point due = Transfer::RealTime::time_point::max();
  };

  // With the bench's lock held:
  Plugged *find(int device) const;
  void allow(Plugged &plugged, bool access);

  std::atomic<unsigned long long> requests = 0;

 private:
  using RealTime = Transfer::RealTime;

  void reconcile(Bench *bench);
  void plug(Bench &bench, Device &device);
  void unplug(Plugged &plugged);
  void run();
  static RealTime::time_point nextPlug(RealTime::time_point now);
  void look(Plugged &plugged);
  void makePipe(const std::string &path) const;

  int handle(Plugged &plugged, UMockdevIoctlClient *client);
  int submit(Plugged &plugged, UMockdevIoctlClient *client);
  int collect(Plugged &plugged, UMockdevIoctlClient *client);
  int discard(Plugged &plugged, UMockdevIoctlClient *client);
  int claim(Plugged &plugged, UMockdevIoctlClient *client, bool pushDriverAside);
  int driverRequest(Plugged &plugged, UMockdevIoctlClient *client);
  int driverName(Plugged &plugged, UMockdevIoctlClient *client);

  static gboolean onRequest(UMockdevIoctlBase *base, UMockdevIoctlClient *client, gpointer plugged);
  static void onConnected(UMockdevIoctlBase *base, UMockdevIoctlClient *client, gpointer plugged);
  static void onVanished(gpointer plugged, GObject *client);

  UMockdevTestbed *bed_;
  std::string root_;
  std::vector<std::unique_ptr<Plugged>> all_;
  std::condition_variable changed_;
  RealTime::time_point wakeAt_ = RealTime::time_point::max();
  bool ending_ = false;
  std::thread thread_;
};

// ---- Devices that come and go --------------------------------------------------------------------------------------

UsbBed::Impl::Impl() : bed_(umockdev_testbed_new()) {
  gchar *root = umockdev_testbed_get_root_dir(bed_);
  root_ = root;
  g_free(root);
  letUmockdevBeQuiet();
  auto lock = lockBench();
  reconcile(&bench());
  watchBench([this](Bench *changed) {
    try {
      reconcile(changed);
      changed_.notify_all();
    } catch (const std::runtime_error &error) {
      g_warning("%s", error.what());
    }
  });
  thread_ = std::thread([this] { run(); });
}

void UsbBed::Impl::end(std::unique_ptr<Impl> bed) {
  static auto &ended = *new std::vector<std::unique_ptr<Impl>>;  // outlives the process's static objects
  {
    auto lock = lockBench();
    watchBench(nullptr);
    bed->reconcile(nullptr);
    bed->ending_ = true;
  }
  bed->changed_.notify_all();
  bed->thread_.join();
  g_object_unref(bed->bed_);
  auto lock = lockBench();
  ended.push_back(std::move(bed));
}

UsbBed::Impl::Plugged *UsbBed::Impl::find(int device) const {
  const auto found = std::find_if(all_.rbegin(), all_.rend(),
                                  [&](const auto &it) { return it->device == device && it->node->device(); });
  return found == all_.rend() ? nullptr : found->get();
}

// Null: all devices go.
void UsbBed::Impl::reconcile(Bench *bench) {
  for (const auto &plugged : all_) {
    if (!plugged->node->device()) continue;
    const Device *device = bench ? bench->device(plugged->device) : nullptr;
    if (!device || !device->plugged || device->pluggedTimes != plugged->pluggedTime) unplug(*plugged);
  }
  if (!bench) return;
  for (int number = 0; Device *device = bench->device(number); ++number) {
    if (device->plugged && !find(number)) plug(*bench, *device);
  }
}

void UsbBed::Impl::makePipe(const std::string &path) const {
  unlink(path.c_str());
  if (mkfifo(path.c_str(), 0666) != 0) throw std::runtime_error("cannot make " + path);
}

void UsbBed::Impl::plug(Bench &bench, Device &device) {
  const int count = static_cast<int>(all_.size());
  auto plugged = std::make_unique<Plugged>();
  plugged->bed = this;
  plugged->device = device.number;
  plugged->pluggedTime = device.pluggedTimes;
  plugged->place = {1 + count / kNumbers, kFirstNumber + count % kNumbers, device.number + 1};
  const std::string node = "/dev/" + plugged->place.node();

  UMockdevIoctlBase *handler = umockdev_ioctl_base_new();
  g_signal_connect(handler, "handle-ioctl", G_CALLBACK(onRequest), plugged.get());
  g_signal_connect(handler, "client-connected", G_CALLBACK(onConnected), plugged.get());
  GError *error = nullptr;
  umockdev_testbed_attach_ioctl(bed_, node.c_str(), handler, &error);
  g_object_unref(handler);
  if (!error) umockdev_testbed_add_from_string(bed_, description(device, plugged->place).c_str(), &error);
  if (error) {
    const std::string message = error->message;
    g_error_free(error);
    throw std::runtime_error(message);
  }
  makePipe(root_ + node);
  const int wakeup = open((root_ + node).c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (wakeup < 0) throw std::runtime_error("cannot open " + root_ + node);
  fcntl(wakeup, F_SETPIPE_SZ, 4096);
  plugged->node = std::make_unique<UsbNode>(bench, device, wakeup);
  all_.push_back(std::move(plugged));
}

void UsbBed::Impl::unplug(Plugged &plugged) {
  plugged.node->unplug();
  const std::string path = plugged.place.system();
  // Only from within can programs be told; being plugged in, they are.
  if (UsbBed::preloaded()) umockdev_testbed_uevent(bed_, path.c_str(), "remove");
  umockdev_testbed_detach_ioctl(bed_, ("/dev/" + plugged.place.node()).c_str(), nullptr);
  umockdev_testbed_remove_device(bed_, path.c_str());
}

void UsbBed::Impl::allow(Plugged &plugged, bool access) {
  const std::string path = root_ + "/dev/" + plugged.place.node(), kept = path + ".kept";
  std::error_code error;
  if (access) {
    std::filesystem::rename(kept, path, error);
  } else if (!std::filesystem::exists(kept)) {
    std::filesystem::rename(path, kept);
    std::filesystem::create_symlink(kRefusesWriters, path);
  }
}

// ---- Time ----------------------------------------------------------------------------------------------------------

void UsbBed::Impl::look(Plugged &plugged) {
  plugged.due = plugged.node->advance(RealTime::now());
  if (plugged.due < wakeAt_) changed_.notify_all();
}

// Scenes tell the time in the bench's clock; where that is not real time, transfers move it.
UsbBed::Impl::RealTime::time_point UsbBed::Impl::nextPlug(RealTime::time_point now) {
  const uint64_t at = bench().nextPlug();
  if (at == kNever || bench().deterministic()) return RealTime::time_point::max();
  const uint64_t left = at - std::min(at, bench().clock().nanoseconds());
  return now + std::chrono::nanoseconds(std::min(left, kLongestWait));
}

void UsbBed::Impl::run() {
  auto lock = lockBench();
  while (!ending_) {
    bench().follow();
    bench().movePlugs();
    const RealTime::time_point now = RealTime::now();
    wakeAt_ = nextPlug(now);
    for (const auto &plugged : all_) {
      if (plugged->due <= now) plugged->due = plugged->node->advance(now);
      wakeAt_ = std::min(wakeAt_, plugged->due);
    }
    if (wakeAt_ == RealTime::time_point::max()) {
      changed_.wait(lock);
    } else {
      changed_.wait_until(lock, wakeAt_);
    }
  }
}

// ---- System calls --------------------------------------------------------------------------------------------------

gboolean UsbBed::Impl::onRequest(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer data) {
  auto &plugged = *static_cast<Plugged *>(data);
  auto lock = lockBench();
  bench().follow();
  bench().movePlugs();
  ++plugged.bed->requests;
  const int failure = plugged.bed->handle(plugged, client);
  plugged.bed->look(plugged);
  lock.unlock();
  umockdev_ioctl_client_complete(client, failure == 0 ? 0 : -1, failure);
  return TRUE;
}

void UsbBed::Impl::onConnected(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer data) {
  g_object_weak_ref(G_OBJECT(client), onVanished, data);
}

// However it went: a program that was killed does not say that it closes.
void UsbBed::Impl::onVanished(gpointer data, GObject *client) {
  auto &plugged = *static_cast<Plugged *>(data);
  auto lock = lockBench();
  plugged.node->leave(client);
  plugged.bed->look(plugged);
}

int UsbBed::Impl::handle(Plugged &plugged, UMockdevIoctlClient *client) {
  const unsigned long request = umockdev_ioctl_client_get_request(client);
  // What had been submitted can be collected even from a device that is gone.
  if (request == USBDEVFS_REAPURB || request == USBDEVFS_REAPURBNDELAY) return collect(plugged, client);
  if (!plugged.node->device()) return ENODEV;
  switch (request) {
    case USBDEVFS_SUBMITURB:
      return submit(plugged, client);
    case USBDEVFS_DISCARDURB:
      return discard(plugged, client);
    case USBDEVFS_GET_CAPABILITIES: {
      const Data data = resolve(umockdev_ioctl_client_get_arg(client), 0, sizeof(uint32_t));
      if (!data) return EFAULT;
      const uint32_t capabilities = USBDEVFS_CAP_NO_PACKET_SIZE_LIM | USBDEVFS_CAP_REAP_AFTER_DISCONNECT;
      std::memcpy(data->data, &capabilities, sizeof capabilities);
      return 0;
    }
    case USBDEVFS_CLAIMINTERFACE:
    case USBDEVFS_DISCONNECT_CLAIM:
      return claim(plugged, client, request == USBDEVFS_DISCONNECT_CLAIM);
    case USBDEVFS_RELEASEINTERFACE: {
      const Data data = resolve(umockdev_ioctl_client_get_arg(client), 0, sizeof(uint32_t));
      if (!data) return EFAULT;
      uint32_t interface = 0;
      std::memcpy(&interface, data->data, sizeof interface);
      return plugged.node->device()->release(interface, client);
    }
    case USBDEVFS_GETDRIVER:
      return driverName(plugged, client);
    case USBDEVFS_IOCTL:
      return driverRequest(plugged, client);
    case USBDEVFS_SETCONFIGURATION:
    case USBDEVFS_SETINTERFACE:
    case USBDEVFS_CLEAR_HALT:
    case USBDEVFS_RESETEP:
      return 0;
    case USBDEVFS_RESET:
      plugged.node->device()->reset();
      return 0;
    default:
      return ENOTTY;
  }
}

int UsbBed::Impl::claim(Plugged &plugged, UMockdevIoctlClient *client, bool pushDriverAside) {
  // Both requests begin with the interface.
  const Data data = resolve(umockdev_ioctl_client_get_arg(client), 0, sizeof(uint32_t));
  if (!data) return EFAULT;
  uint32_t interface = 0;
  std::memcpy(&interface, data->data, sizeof interface);
  bench().count(Function::OpenEx);
  UsbDevice *device = plugged.node->device();
  return device ? device->claim(interface, client, pushDriverAside) : ENODEV;
}

int UsbBed::Impl::driverName(Plugged &plugged, UMockdevIoctlClient *client) {
  const Data data = resolve(umockdev_ioctl_client_get_arg(client), 0, sizeof(usbdevfs_getdriver));
  if (!data) return EFAULT;
  auto &answer = *reinterpret_cast<usbdevfs_getdriver *>(data->data);
  const char *name = plugged.node->device()->driver(answer.interface);
  if (!name) return ENODATA;
  std::strncpy(answer.driver, name, sizeof answer.driver - 1);
  return 0;
}

int UsbBed::Impl::driverRequest(Plugged &plugged, UMockdevIoctlClient *client) {
  const Data data = resolve(umockdev_ioctl_client_get_arg(client), 0, sizeof(usbdevfs_ioctl));
  if (!data) return EFAULT;
  const auto &request = *reinterpret_cast<const usbdevfs_ioctl *>(data->data);
  const auto interface = static_cast<uint32_t>(request.ifno);
  const auto code = static_cast<unsigned>(request.ioctl_code);
  if (code == USBDEVFS_DISCONNECT) return plugged.node->device()->detachDriver(interface);
  return code == USBDEVFS_CONNECT ? plugged.node->device()->attachDriver(interface) : ENOTTY;
}

int UsbBed::Impl::submit(Plugged &plugged, UMockdevIoctlClient *client) {
  auto urb = std::make_unique<Urb>();
  urb->data = resolve(umockdev_ioctl_client_get_arg(client), 0, sizeof(usbdevfs_urb));
  if (!urb->data) return EFAULT;
  urb->name = urb->data->client_addr;
  const usbdevfs_urb &fields = urb->fields();
  if (fields.type != USBDEVFS_URB_TYPE_BULK && fields.type != USBDEVFS_URB_TYPE_CONTROL) return EINVAL;
  if (fields.buffer_length < 0) return EINVAL;
  if (fields.buffer_length > kMostMemory) return ENOMEM;
  urb->control = fields.type == USBDEVFS_URB_TYPE_CONTROL;
  urb->endpoint = urb->control ? 0 : fields.endpoint;
  urb->length = static_cast<size_t>(fields.buffer_length);
  if (urb->control && urb->length < kRequestSize) return EINVAL;
  if (!urb->in() && urb->length > 0) {
    const Data buffer = resolve(urb->data.get(), offsetof(usbdevfs_urb, buffer), urb->length);
    if (!buffer) return EFAULT;
    urb->bytes.assign(buffer->data, buffer->data + urb->length);
  }
  if (urb->control) urb->length -= kRequestSize;
  if (!urb->in()) bench().count(urb->control ? Function::SetBitMode : Function::Write);
  std::unique_ptr<Transfer> transfer = std::move(urb);
  return plugged.node->submit(client, transfer);
}

int UsbBed::Impl::collect(Plugged &plugged, UMockdevIoctlClient *client) {
  const Data place = resolve(umockdev_ioctl_client_get_arg(client), 0, sizeof(void *));
  if (!place) return EFAULT;
  const std::unique_ptr<Transfer> transfer = plugged.node->collect(client);
  if (!transfer) return plugged.node->device() ? EAGAIN : ENODEV;
  auto &urb = static_cast<Urb &>(*transfer);
  usbdevfs_urb &fields = urb.fields();
  fields.status = -urb.error;
  fields.actual_length = static_cast<int>(urb.done);
  const size_t skipped = urb.control ? kRequestSize : 0;
  if (urb.done > 0 && (urb.in() || urb.control)) {
    const Data buffer = resolve(urb.data.get(), offsetof(usbdevfs_urb, buffer), skipped + urb.done);
    if (buffer) std::memcpy(buffer->data + skipped, urb.bytes.data() + skipped, urb.done);
  }
  umockdev_ioctl_data_set_ptr(place.get(), 0, urb.data.get());
  return 0;
}

int UsbBed::Impl::discard(Plugged &plugged, UMockdevIoctlClient *client) {
  uintptr_t address = 0;
  std::memcpy(&address, umockdev_ioctl_client_get_arg(client)->data, sizeof address);
  return plugged.node->cancel(client, address) ? 0 : EINVAL;
}

// ---- The outside ---------------------------------------------------------------------------------------------------

UsbBed::UsbBed() : impl_(std::make_unique<Impl>()) {}

UsbBed::~UsbBed() { Impl::end(std::move(impl_)); }

bool UsbBed::preloaded() { return umockdev_in_mock_environment() == TRUE; }

std::string UsbBed::node(int device) const {
  auto lock = lockBench();
  const Impl::Plugged *plugged = impl_->find(device);
  return plugged ? "/dev/" + plugged->place.node() : "";
}

void UsbBed::setAccess(int device, bool allowed) {
  auto lock = lockBench();
  if (Impl::Plugged *plugged = impl_->find(device)) impl_->allow(*plugged, allowed);
}

bool UsbBed::driverBound(int device, unsigned interface) const {
  auto lock = lockBench();
  const Impl::Plugged *plugged = impl_->find(device);
  const char *name = plugged ? plugged->node->device()->driver(interface) : nullptr;
  return name && std::strcmp(name, "usbfs") != 0;
}

unsigned long long UsbBed::requests() const { return impl_->requests; }

}  // namespace pulsekit::simulator
