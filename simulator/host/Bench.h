// Everything there is in a simulation: devices, time, faults, statistics, record.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "Pulsekit3Simulator.h"
#include "base/Clock.h"
#include "base/Faults.h"
#include "base/Recorder.h"
#include "bridge/UsbChannel.h"
#include "host/HostPort.h"

namespace pulsekit::simulator {

enum class Function {
  Close,
  Read,
  Write,
  ResetDevice,
  SetTimeouts,
  GetQueueStatus,
  OpenEx,
  ListDevices,
  SetLatencyTimer,
  SetBitMode,
  SetUSBParameters,
  CreateDeviceInfoList,
  GetDeviceInfoList,
};
constexpr size_t kFunctions = 13;

struct Device {
  int32_t number = 0;
  std::string serial, description;
  uint32_t type = 0, id = 0, location = 0;
  bool held = false;
  bool plugged = true;
  uint32_t pluggedTimes = 1;  // handles of an earlier time are dead
  Countdown shortWrite;
  uint32_t shortWriteAccepts = 0;
  std::vector<uint8_t> insertedAnswer;
  std::vector<std::unique_ptr<UsbChannel>> channels;  // null: a channel without MPSSE

  Board *board() const { return channels[0]->pins().board(); }
};

// A channel as hosts list it.
struct PortName {
  Device *device = nullptr;
  size_t channel = 0;
  std::string serial, description;
  uint32_t location = 0;
};

class Bench {
 public:
  Bench();
  ~Bench();
  Bench(const Bench &) = delete;
  Bench &operator=(const Bench &) = delete;

  Device *device(int32_t number);
  int32_t addDevice(std::string_view serial, std::string_view description, int32_t bridge, const char *board,
                    const char *chip);
  void unplug(Device &device);
  void replug(Device &device);
  // At that time of the clock, as far as somebody calls then.
  void plugAt(Device &device, double seconds, bool plugged);
  std::vector<PortName> ports();
  FT_HANDLE openPort(Device &device, size_t channel);

  // Counts the real time that has passed since the last look, where that counts.
  void follow();
  // Counts a call, or what does its work on the USB; its time has come for a scheduled unplugging.
  void count(Function function);

  // What every D2XX call begins and ends with.
  void beginCall(Function function);
  // How long the call has to last yet, in real nanoseconds.
  uint64_t endCall();
  // A status other than FT_OK: the call fails with it.
  FT_STATUS scheduledFailure(Function function);

  bool failCall(std::string_view function, uint32_t nth, uint32_t times, FT_STATUS status);
  void unplugAtCall(Device &device, uint32_t nth);
  void clearFaults();

  void setTimeMode(int32_t mode);
  bool deterministic() const { return timeMode_ == QTXSIM_TIME_DETERMINISTIC; }
  // The host's.
  Clock &clock() { return clock_; }
  // Lets everything happen that is over by now.
  void catchUp();
  // The part of it that concerns plugs, and the clock's time of the next one.
  void movePlugs();
  uint64_t nextPlug() const { return plugs_.empty() ? kNever : plugs_.front().nanoseconds; }
  Recorder &recorder() { return recorder_; }
  QTXSim_Statistics &counts() { return counts_; }
  QTXSim_Statistics statistics();
  void resetStatistics();
  uint64_t calls(std::string_view function) const;

  // Open handles by the value that stands for them, and the two lists that D2XX keeps.
  std::map<uintptr_t, std::unique_ptr<HostPort>> handles;
  uintptr_t nextHandle = 0x1000;
  std::vector<PortName> names;
  bool namesBuilt = false;
  std::vector<FT_Node> nodes;
  bool nodesBuilt = false;

 private:
  struct ScheduledFailure {
    Function function;
    Countdown countdown;
    FT_STATUS status;
  };
  struct ScheduledUnplug {
    Device *device;
    Countdown countdown;
  };
  struct TimedPlug {
    Device *device;
    uint64_t nanoseconds;
    bool plugged;
  };
  using RealTime = std::chrono::steady_clock;

  uint64_t spiNanoseconds();
  void applyPollPause(Device &device) const;

  Clock clock_;
  Recorder recorder_;
  int32_t timeMode_ = QTXSIM_TIME_DETERMINISTIC;
  RealTime::time_point lastReturn_, callStart_;
  uint64_t callStartClock_ = 0;
  QTXSim_Statistics counts_{};
  std::array<uint64_t, kFunctions> callsOf_{};
  uint64_t statisticsStart_ = 0, statisticsSpi_ = 0;
  std::vector<ScheduledFailure> failures_;
  std::vector<ScheduledUnplug> unplugs_;
  std::vector<TimedPlug> plugs_;
  std::vector<std::unique_ptr<Device>> devices_;
};

// The process's bench. Hold the lock while using it.
std::unique_lock<std::mutex> lockBench();
Bench &bench();
void resetBench();

// Called, with the lock held, when a device was plugged in or out, and before the bench is emptied (with null).
void watchBench(std::function<void(Bench *)> watcher);

}  // namespace pulsekit::simulator
