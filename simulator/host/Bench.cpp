#include "host/Bench.h"

#include <algorithm>
#include <iterator>

namespace pulsekit::simulator {

namespace {

constexpr const char *kFunctionNames[kFunctions] = {"Close",
                                                    "Read",
                                                    "Write",
                                                    "ResetDevice",
                                                    "SetTimeouts",
                                                    "GetQueueStatus",
                                                    "OpenEx",
                                                    "ListDevices",
                                                    "SetLatencyTimer",
                                                    "SetBitMode",
                                                    "SetUSBParameters",
                                                    "CreateDeviceInfoList",
                                                    "GetDeviceInfoList"};

struct Bridge {
  uint32_t type, id;
  size_t fifoSize, channels;
  bool highBank;
};

constexpr Bridge kBridges[] = {
    {FT_DEVICE_232H, 0x04036014, 1024, 1, true},
    {FT_DEVICE_2232H, 0x04036010, 4096, 2, true},
    {FT_DEVICE_4232H, 0x04036011, 2048, 4, false},
};
constexpr size_t kMpsseChannels = 2;
constexpr size_t kSerialSize = sizeof FT_Node::SerialNumber;
constexpr size_t kDescriptionSize = sizeof FT_Node::Description;
constexpr size_t kNameSize = 32;

// The pause that drivers make between two looks at a busy flash.
constexpr uint64_t kPollPause = 1'000'000;

// Never destroyed: threads may look at it while the process ends.
std::unique_ptr<Bench> &theBench() {
  static auto &instance = *new std::unique_ptr<Bench>(std::make_unique<Bench>());
  return instance;
}

Function functionNamed(std::string_view name, bool &known) {
  const auto *found = std::find(std::begin(kFunctionNames), std::end(kFunctionNames), name);
  known = found != std::end(kFunctionNames);
  return static_cast<Function>(found - std::begin(kFunctionNames));
}

// FNV-1a: the same radar has the same delay elements in every run.
uint64_t seedOf(std::string_view serial) {
  uint64_t hash = 0xCBF29CE484222325u;
  for (char c : serial) hash = (hash ^ static_cast<uint8_t>(c)) * 0x100000001B3u;
  return hash;
}

std::function<void(Bench *)> &watcher() {
  static std::function<void(Bench *)> function;
  return function;
}

void tellWatcher(Bench *changed) {
  if (watcher()) watcher()(changed);
}

}  // namespace

std::unique_lock<std::mutex> lockBench() {
  static std::mutex mutex;
  return std::unique_lock(mutex);
}

Bench &bench() { return *theBench(); }

void resetBench() {
  // Handles are never given out twice, so that an old one stays invalid.
  const uintptr_t nextHandle = bench().nextHandle;
  tellWatcher(nullptr);
  theBench() = std::make_unique<Bench>();
  bench().nextHandle = nextHandle;
}

void watchBench(std::function<void(Bench *)> function) { watcher() = std::move(function); }

Bench::Bench() : lastReturn_(RealTime::now()) { recorder_.setKinds(QTXSIM_EVENT_ALL & ~QTXSIM_EVENT_POLL); }

Bench::~Bench() { handles.clear(); }

Device *Bench::device(int32_t number) {
  if (number < 0 || static_cast<size_t>(number) >= devices_.size()) return nullptr;
  return devices_[static_cast<size_t>(number)].get();
}

int32_t Bench::addDevice(std::string_view serial, std::string_view description, int32_t bridge, const char *board,
                         const char *chip) {
  if (bridge < 0 || static_cast<size_t>(bridge) >= std::size(kBridges)) return -1;
  const Bridge &model = kBridges[bridge];
  const size_t letter = model.channels > 1 ? 1 : 0;
  if (serial.empty() || serial.size() + letter >= kSerialSize) return -1;
  if (description.size() + 2 * letter >= kDescriptionSize) return -1;
  if ((chip && !board) || (board && std::string_view(board).size() >= kNameSize)) return -1;

  auto device = std::make_unique<Device>();
  device->number = static_cast<int32_t>(devices_.size());
  device->serial = serial;
  device->description = description;
  device->type = model.type;
  device->id = model.id;
  device->location = (static_cast<uint32_t>(devices_.size()) + 1) << 4;
  device->channels.resize(model.channels);
  for (size_t i = 0; i < std::min(model.channels, kMpsseChannels); ++i) {
    device->channels[i] =
        std::make_unique<UsbChannel>(clock_.nanoseconds(), recorder_, device->number, model.fifoSize, model.highBank);
  }
  Clock &clock = device->channels[0]->clock();
  std::unique_ptr<RadarChip> radar;
  if (chip && !(radar = makeRadarChip(chip, clock, seedOf(serial)))) return -1;
  if (board) {
    device->channels[0]->pins().attach(std::make_unique<Board>(clock, board, std::move(radar)));
    applyPollPause(*device);
  }
  devices_.push_back(std::move(device));
  tellWatcher(this);
  return devices_.back()->number;
}

void Bench::unplug(Device &device) {
  if (!device.plugged) return;
  device.plugged = false;
  for (auto &channel : device.channels) {
    if (!channel) continue;
    channel->setHost(nullptr);
    channel->reset();
  }
  if (device.board()) device.board()->setPlugged(false);
  tellWatcher(this);
}

void Bench::replug(Device &device) {
  if (device.plugged) return;
  device.plugged = true;
  ++device.pluggedTimes;
  if (device.board()) device.board()->setPlugged(true);
  tellWatcher(this);
}

void Bench::plugAt(Device &device, double seconds, bool plugged) {
  plugs_.push_back({&device, static_cast<uint64_t>(seconds * 1e9), plugged});
  const auto earlier = [](const TimedPlug &a, const TimedPlug &b) { return a.nanoseconds < b.nanoseconds; };
  std::stable_sort(plugs_.begin(), plugs_.end(), earlier);
  tellWatcher(this);
}

std::vector<PortName> Bench::ports() {
  std::vector<PortName> list;
  for (auto &device : devices_) {
    if (!device->plugged) continue;
    for (size_t i = 0; i < device->channels.size(); ++i) {
      PortName name{device.get(), i, device->serial, device->description, device->location};
      if (device->channels.size() > 1) {
        const auto letter = static_cast<char>('A' + i);
        name.serial += letter;
        name.description = name.description + ' ' + letter;
        name.location += static_cast<uint32_t>(i) + 1;
      }
      list.push_back(std::move(name));
    }
  }
  return list;
}

FT_HANDLE Bench::openPort(Device &device, size_t channel) {
  const uintptr_t value = nextHandle++;
  auto port = std::make_unique<HostPort>(clock_, device, channel, counts_.in_transfers, counts_.bytes_in);
  port->insert(device.insertedAnswer.data(), device.insertedAnswer.size());
  device.insertedAnswer.clear();
  handles[value] = std::move(port);
  return reinterpret_cast<FT_HANDLE>(value);
}

void Bench::beginCall(Function function) {
  follow();
  callStart_ = RealTime::now();
  callStartClock_ = clock_.nanoseconds();
  catchUp();
  count(function);
}

void Bench::follow() {
  const RealTime::time_point now = RealTime::now();
  if (now <= lastReturn_) return;
  if (!deterministic()) clock_.advance(static_cast<uint64_t>(std::chrono::nanoseconds(now - lastReturn_).count()));
  lastReturn_ = now;
}

void Bench::count(Function function) {
  ++counts_.calls;
  ++callsOf_[static_cast<size_t>(function)];
  for (ScheduledUnplug &entry : unplugs_) {
    if (entry.countdown.strikes()) unplug(*entry.device);
  }
}

uint64_t Bench::endCall() {
  lastReturn_ = RealTime::now();
  if (timeMode_ != QTXSIM_TIME_REAL) return 0;
  const uint64_t modelled = clock_.nanoseconds() - callStartClock_;
  const auto real = static_cast<uint64_t>(std::chrono::nanoseconds(lastReturn_ - callStart_).count());
  if (modelled <= real) return 0;
  lastReturn_ += std::chrono::nanoseconds(modelled - real);
  return modelled - real;
}

FT_STATUS Bench::scheduledFailure(Function function) {
  FT_STATUS status = FT_OK;
  for (ScheduledFailure &failure : failures_) {
    if (failure.function == function && failure.countdown.strikes()) status = failure.status;
  }
  return status;
}

bool Bench::failCall(std::string_view function, uint32_t nth, uint32_t times, FT_STATUS status) {
  bool known = false;
  const Function which = functionNamed(function, known);
  if (!known || nth == 0 || times == 0) return false;
  ScheduledFailure failure{which, {}, status};
  failure.countdown.schedule(nth, times);
  failures_.push_back(failure);
  return true;
}

void Bench::unplugAtCall(Device &device, uint32_t nth) {
  ScheduledUnplug entry{&device, {}};
  entry.countdown.schedule(nth, 1);
  unplugs_.push_back(entry);
}

void Bench::clearFaults() {
  failures_.clear();
  unplugs_.clear();
  plugs_.clear();
  for (auto &device : devices_) {
    device->shortWrite.cancel();
    device->insertedAnswer.clear();
    device->channels[0]->clearFaults();
    Board *board = device->board();
    if (!board) continue;
    board->setFlashPresent(true);
    board->flash().setStayBusy(false);
    board->flash().eraseFault().cancel();
    board->flash().programFault().cancel();
  }
}

void Bench::setTimeMode(int32_t mode) {
  timeMode_ = mode;
  lastReturn_ = RealTime::now();
  for (auto &device : devices_) applyPollPause(*device);
}

void Bench::applyPollPause(Device &device) const {
  if (!device.board()) return;
  device.board()->flash().setPollPause(deterministic() ? kPollPause : 0);
}

void Bench::movePlugs() {
  while (nextPlug() <= clock_.nanoseconds()) {
    const TimedPlug plug = plugs_.front();
    plugs_.erase(plugs_.begin());
    plug.plugged ? replug(*plug.device) : unplug(*plug.device);
  }
}

void Bench::catchUp() {
  movePlugs();
  for (auto &device : devices_) {
    for (auto &channel : device->channels) {
      if (channel) channel->runTo(clock_.nanoseconds());
    }
  }
}

uint64_t Bench::spiNanoseconds() {
  uint64_t sum = 0;
  for (auto &device : devices_) {
    for (auto &channel : device->channels) sum += channel ? channel->mpsse().spiNanoseconds() : 0;
  }
  return sum;
}

QTXSim_Statistics Bench::statistics() {
  for (auto &[value, port] : handles) port->collect();
  QTXSim_Statistics result = counts_;
  result.nanoseconds = clock_.nanoseconds() - statisticsStart_;
  result.spi_nanoseconds = spiNanoseconds() - statisticsSpi_;
  return result;
}

void Bench::resetStatistics() {
  for (auto &[value, port] : handles) port->collect();
  counts_ = {};
  callsOf_ = {};
  statisticsStart_ = clock_.nanoseconds();
  statisticsSpi_ = spiNanoseconds();
}

uint64_t Bench::calls(std::string_view function) const {
  bool known = false;
  const Function which = functionNamed(function, known);
  return known ? callsOf_[static_cast<size_t>(which)] : 0;
}

}  // namespace pulsekit::simulator
