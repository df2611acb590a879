#include "ports.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "../../../../platform/platform.h"
#include "../FTx232H_D2XX.h"

namespace pulsekit::d2xx::usb {

namespace {

struct Model {
  uint16_t product;
  uint32_t type;
  uint8_t channels;
};

constexpr uint16_t kVendor = 0x0403;
constexpr Model kModels[] = {{0x6010, FT_DEVICE_2232H, 2}, {0x6011, FT_DEVICE_4232H, 4}, {0x6014, FT_DEVICE_232H, 1}};

const Model *modelOf(const libusb_device_descriptor &descriptor) {
  if (descriptor.idVendor != kVendor) return nullptr;
  const auto *found = std::find_if(std::begin(kModels), std::end(kModels),
                                   [&](const Model &model) { return model.product == descriptor.idProduct; });
  return found == std::end(kModels) ? nullptr : found;
}

// The bridges among the devices, which the list holds.
class DeviceList {
 public:
  explicit DeviceList(libusb_context *context) : count_(libusb_get_device_list(context, &devices_)) {
    if (count_ < 0) throw std::bad_alloc();
  }
  ~DeviceList() { libusb_free_device_list(devices_, 1); }
  DeviceList(const DeviceList &) = delete;
  DeviceList &operator=(const DeviceList &) = delete;
  libusb_device **begin() const { return devices_; }
  libusb_device **end() const { return devices_ + count_; }

 private:
  libusb_device **devices_ = nullptr;
  ssize_t count_;
};

DeviceHandle open(libusb_device *device, int *error) {
  libusb_device_handle *handle = nullptr;
  *error = libusb_open(device, &handle);
  return DeviceHandle(handle);
}

int readText(libusb_device_handle *handle, uint8_t index, std::string &text) {
  unsigned char buffer[256];
  const int length = index == 0 ? 0 : libusb_get_string_descriptor_ascii(handle, index, buffer, sizeof buffer);
  if (length < 0) return length;
  text.assign(buffer, buffer + length);
  return LIBUSB_SUCCESS;
}

// As the kernel names it: bus, then the sockets on the way, "1-2.4".
std::string placeOf(libusb_device *device) {
  uint8_t sockets[7];
  const int count = libusb_get_port_numbers(device, sockets, sizeof sockets);
  std::string place = std::to_string(libusb_get_bus_number(device));
  for (int i = 0; i < count; ++i) place += (i == 0 ? '-' : '.') + std::to_string(sockets[i]);
  return place;
}

std::filesystem::path systemFolder(libusb_device *device) { return "/sys/bus/usb/devices/" + placeOf(device); }

std::string serialFromSystem(libusb_device *device) {
  std::string text;
  std::getline(std::ifstream(systemFolder(device) / "serial"), text);
  return text;
}

std::string driverOf(const Port &port) {
  const std::filesystem::path folder = systemFolder(port.device.get());
  const std::string interface = folder.filename().string() + ":1." + std::to_string(port.channel);
  std::error_code error;
  return std::filesystem::read_symlink(folder / interface / "driver", error).filename().string();
}

// Whether another process has the port. One that the kernel's driver has is free for us.
int tryPort(libusb_device_handle *handle, Port &port) {
  port.kernel_driver = libusb_kernel_driver_active(handle, port.channel) == 1;
  if (port.kernel_driver) return LIBUSB_SUCCESS;
  const int error = libusb_claim_interface(handle, port.channel);
  if (error == LIBUSB_SUCCESS) libusb_release_interface(handle, port.channel);
  return error;
}

// D2XX's texts have a limited length, which the letter must not fall victim to.
std::string lettered(const std::string &text, size_t room, const std::string &letter) {
  return text.substr(0, room - 1 - letter.size()) + letter;
}

}  // namespace

int Ports::readTexts(const Port &port, const libusb_device_descriptor &descriptor, DeviceHandle &handle, Texts &texts) {
  const auto known =
      std::find_if(known_.begin(), known_.end(), [&](const Texts &one) { return one.device == port.device; });
  if (known != known_.end()) {
    texts = *known;
    return LIBUSB_SUCCESS;
  }
  int error = LIBUSB_SUCCESS;
  if (!handle) handle = open(port.device.get(), &error);
  if (error) return error;
  texts.device = port.device;
  if ((error = readText(handle.get(), descriptor.iSerialNumber, texts.serial))) return error;
  if ((error = readText(handle.get(), descriptor.iProduct, texts.description))) return error;
  known_.push_back(texts);
  return LIBUSB_SUCCESS;
}

std::vector<Port> Ports::find(const IsOpen &isOpen) {
  return all(
      [&](libusb_device_handle *handle, Port &port) { return isOpen(port) ? LIBUSB_SUCCESS : tryPort(handle, port); });
}

std::vector<Port> Ports::names() { return all(nullptr); }

std::vector<Port> Ports::all(const TryPort &tries) {
  std::vector<Port> ports;
  const DeviceList devices(context_);
  std::erase_if(known_, [&](const Texts &one) {
    return std::find(devices.begin(), devices.end(), one.device.get()) == devices.end();
  });
  for (libusb_device *device : devices) {
    libusb_device_descriptor descriptor;
    if (libusb_get_device_descriptor(device, &descriptor)) continue;
    const Model *model = modelOf(descriptor);
    if (!model) continue;
    Port port;
    port.device = {libusb_ref_device(device), libusb_unref_device};
    port.lettered = model->channels > 1;
    port.high_speed = libusb_get_device_speed(device) >= LIBUSB_SPEED_HIGH;
    port.type = model->type;
    port.id = uint32_t{kVendor} << 16 | model->product;

    int fault = LIBUSB_SUCCESS;
    DeviceHandle handle;
    if (tries) handle = open(device, &fault);
    Texts texts;
    if (!fault) fault = readTexts(port, descriptor, handle, texts);
    if (fault == LIBUSB_ERROR_NO_DEVICE) continue;
    if (fault) texts.serial = serialFromSystem(device);
    const uint32_t place = uint32_t{libusb_get_bus_number(device)} << 16 | uint32_t{libusb_get_device_address(device)}
                                                                               << 8;
    for (; port.channel < model->channels; ++port.channel) {
      const std::string letter(port.lettered ? 1 : 0, port.letter());
      port.serial = lettered(texts.serial, sizeof FT_Node::SerialNumber, letter);
      port.description =
          lettered(texts.description, sizeof FT_Node::Description, port.lettered ? ' ' + letter : letter);
      port.location = place | (port.lettered ? port.channel + 1u : 0u);
      port.kernel_driver = false;
      port.fault = fault || !tries ? fault : tries(handle.get(), port);
      ports.push_back(port);
    }
  }
  // Libusb lists what was plugged in last first.
  std::sort(ports.begin(), ports.end(), [](const Port &a, const Port &b) { return a.location < b.location; });
  return ports;
}

DeviceHandle claim(const Port &port, int *error) {
  DeviceHandle handle = open(port.device.get(), error);
  if (!handle) return handle;
  // Systems that can't do it say so when the port is claimed.
  libusb_set_auto_detach_kernel_driver(handle.get(), 1);
  *error = libusb_claim_interface(handle.get(), port.channel);
  if (*error) handle.reset();
  return handle;
}

namespace {

struct State {
  const char *name;
  std::string cause, remedy;
};

std::string nodeOf(libusb_device *device) {
  char path[64];
  std::snprintf(path, sizeof path, "/dev/bus/usb/%03d/%03d", libusb_get_bus_number(device),
                libusb_get_device_address(device));
  return path;
}

State wrongDriver(const Port &port) {
  const std::string name = driverOf(port);
  return {"wrong driver", "the kernel's driver " + (name.empty() ? "for serial ports" : name) + " has it",
          "sudo rmmod " + (name.empty() ? "ftdi_sio" : name)};
}

State faultOf(const Port &port) {
  const std::string node = nodeOf(port.device.get());
  switch (port.fault) {
    case LIBUSB_ERROR_ACCESS:
      return {"no rights", "this user may not use " + node,
              "put the udev rule 60-pulsekit3.rules in place, be in the group plugdev, plug the bridge in again"};
    case LIBUSB_ERROR_BUSY: {
      const std::string programs = platform::programsWithOpen(node);
      return {"busy", (programs.empty() ? "another program" : programs) + " has it open", "end that program"};
    }
    default:
      return {"no answer", libusb_strerror(static_cast<libusb_error>(port.fault)),
              "unplug the bridge and plug it in again, try another cable"};
  }
}

State stateOf(const Port &port, bool is_open, bool detaches) {
  if (port.fault) return faultOf(port);
  if (is_open) return {"open in this program", "", ""};
  if (port.kernel_driver && !detaches) return wrongDriver(port);
  if (!port.hasMpsse()) return {"no MPSSE", "this channel is a serial port only", "use channel A or B"};
  return {"ready", "", ""};
}

std::string ids(uint32_t id) {
  char text[16];
  std::snprintf(text, sizeof text, "%04x:%04x", id >> 16, id & 0xffff);
  return text;
}

}  // namespace

std::string describe(const std::vector<Port> &ports, const Ports::IsOpen &isOpen, bool detaches) {
  const bool lets_go = detaches && libusb_has_capability(LIBUSB_CAP_SUPPORTS_DETACH_KERNEL_DRIVER);
  std::string text;
  for (const Port &port : ports) {
    const State state = stateOf(port, isOpen(port), lets_go);
    text += "usb " + placeOf(port.device.get()) + ' ' + port.letter() + ' ' + ids(port.id) + ' ' +
            (port.serial.size() <= (port.lettered ? 1u : 0u) ? "?" : port.serial) + ": " + state.name;
    if (!state.cause.empty()) text += ": " + state.cause + ": " + state.remedy;
    text += '\n';
  }
  return text;
}

}  // namespace pulsekit::d2xx::usb
