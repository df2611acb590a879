// What every table of D2XX functions must do, on each that stands on simulated bridges: the simulator's own, and the
// one on libusb above the simulated USB. A row is a script; what its steps answer, one after the other, must be as
// stated.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <map>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "Pulsekit3Simulator.h"
#ifdef USB_BED
#include "interface/FTx232H/D2XX/usb/libusb_provider.h"
#include "usb/UsbBed.h"
#endif

namespace {

struct Row {
  const char *name, *steps, *answers;
  enum { Both, Simulated, Usb } where = Both;  // some need waits that really last, or what only the USB has
};

const Row kRows[] = {
    {"ListIsNotReadyBeforeItIsMade", "getnodes nodes", "19 2[FT0001ABA|Radar_A|6|2][FT0001ABB|Radar_B|6|2]0"},
    {"Answer", "open FT0001ABA w AA87 r 2", "0 0:2 0:FAAA"},
    {"AnswersInTheirOrder", "open FT0001ABA w AA87 w ABACAD87 r 8", "0 0:2 0:4 0:FAAAFAABFAACFAAD"},
    {"ShortRead", "open FT0001ABA timeouts 60 60 w AA87 queue r 5 r 1", "0 0 0:2 0:2 0:FAAA 0:"},
    {"NoAnswer", "open FT0001ABA timeouts 60 60 r 1 r 0 w - w 87 r 1", "0 0 0: 0: 0:0 0:1 0:"},
    {"ReadWithoutTimeOut", "open FT0001ABA timeouts 0 0 w AA87 r 2", "0 0 0:2 0:FAAA"},
    {"LatencyTimerSends", "open FT0001ABA latency 2 w AA r 2", "0 0 0:1 0:FAAA"},
    {"Queue", "open FT0001ABA q w AAAB87 queue r 1 q r 3 q", "0 0:0 0:3 0:4 0:FA 0:3 0:AAFAAB 0:0"},
    {"QueueWithoutRead", "open FT0001ABA w AA87 queue w AB87 queue r 4", "0 0:2 0:2 0:2 0:4 0:FAAAFAAB"},
    {"Packets", "open FT0001ABA echo 255 check 510 echo 256 check 512 q", "0 0:256 ok 0:257 ok 0:0"},
    {"PacketsInPieces", "open FT0001ABA echo 1000 check 7 check 503 check 1 check 1489 q", "0 0:1001 ok ok ok ok 0:0"},
    {"SmallTransfers", "open FT0001ABA sizes 64 64 echo 1000 check 2000", "0 0 0:1001 ok"},
    {"LargeTransfers", "open FT0001ABA sizes 65536 65536 timeouts 999 0 bits 65536 r 65536 q",
     "0 0 0 0:5 0:65536x00 0:0"},
    {"MoreThanTheQueueTakes", "open FT0001ABA sizes 65536 65536 timeouts 60000 60000 bits 1310720 r 1310720 q",
     "0 0 0 0:62 0:1310720x00 0:0"},
    {"SplitCommands", "open FT0001ABA w 20 w 01 w 0087 r 2", "0 0:1 0:1 0:2 0:0000"},
    {"BitModeEndsAHalfCommand", "open FT0001ABA w 20FF mode 0 mode 2 w AA87 r 2", "0 0:2 0 0 0:2 0:FAAA"},
    {"BitModeEndsAStalledCommand", "open FT0001ABA stall 9 mode 0 mode 2 w AA87 r 2", "0 0:9 0 0 0:2 0:FAAA"},
    {"ShortWrite", "open FT0001ABA timeouts 60 60 short 1 w AAAB87 timeouts 5000 5000 w 87 r 2",
     "0 0 0 0:1 0 0:1 0:FAAA"},
    {"WriteTimesOut", "open FT0001ABA timeouts 60 60 stall 20000 timeouts 5000 5000 mode 0 mode 2 w AA87 r 2",
     "0 0 0:short 0 0 0 0:2 0:FAAA"},
    {"FailedWrite", "open FT0001ABA fail Write 4 w AA87 w AB87 r 2", "0 0 4:0 0:2 0:FAAB"},
    {"FailedRequests",
     "open FT0001ABA fail ResetDevice 4 reset reset fail SetLatencyTimer 4 latency 2 latency 2 fail SetBitMode 4 mode "
     "2 "
     "mode 2",
     "0 0 4 0 0 4 0 0 4 0"},
    {"ResetEmptiesTheFifoToTheBridge", "open FT0001ABA stall 4000 reset stall 4000", "0 0:4000 0 0:4000"},
    {"ResetEmptiesTheFifoFromTheBridge", "open FT0001ABA timeouts 60 60 latency 255 w AA reset r 1 w AB87 r 2",
     "0 0 0 0:1 0 0: 0:2 0:FAAB", Row::Simulated},
    {"SizesLoseWhatHasArrived", "open FT0001ABA w AA87 queue sizes 4096 4096 q w AB87 r 2",
     "0 0:2 0:2 0 0:0 0:2 0:FAAB"},
    {"SizesOutOfRange", "open FT0001ABA sizes 0 64 sizes 63 64 sizes 64 100 sizes 65600 64 sizes 64 65600",
     "0 6 6 6 6 6"},
    {"SettingsOutOfRange", "open FT0001ABA latency 0 latency 1 latency 255 mode 1 mode 4", "0 6 0 0 17 17"},
    {"NullPointers", "open FT0001ABA nulls q", "0 6 6 6 4 4 6 6 6 6 6 6 0:0"},
    {"UnknownFlags", "openby 0 FT0001ABA openby 3 FT0001ABA list 0 list 3 list 7", "6 6 6 6 6"},
    {"ClosedHandle", "open FT0001ABA close all close", "0 0 1 1 1 1 1 1 1 1 1"},
    {"OldHandleOfAnOpenDevice", "open FT0001ABA close open FT0001ABA handle 0 all handle 1 w AA87 r 2",
     "0 0 0 1 1 1 1 1 1 1 1 0:2 0:FAAA"},
    {"NoHandle", "all close", "1 1 1 1 1 1 1 1 1"},
    {"EveryFunction", "open FT0001ABA all", "0 0 0 0 0 0 0 0 0"},
    {"DoubleOpen", "open FT0001ABA open FT0001ABA handle 0 w AA87 r 2", "0 3 0:2 0:FAAA"},
    {"ChannelsAreIndependent", "open FT0001ABA open FT0001ABB w AA87 handle 0 w AB87 r 2 handle 1 r 2 q",
     "0 0 0:2 0:2 0:FAAB 0:FAAA 0:0"},
    {"UnknownNames", "open FT0009 openby 2 Radar openby 4 99", "2 2 2"},
    {"BareSerialNumberIsChannelA", "open FT0001AB open FT0001ABA", "0 3", Row::Usb},
    {"SerialNumberGoesBeforeBareOne", "plug FT0001AB 0 open FT0001AB nodes",
     "0 3[FT0001ABA|Radar_A|6|2][FT0001ABB|Radar_B|6|2][FT0001AB|Radar|8|3*]0", Row::Usb},
    {"ByDescription", "openby 2 Radar_B open FT0001ABB open FT0001ABA", "0 3 0"},
    {"ByLocation", "nodes openat 1 open FT0001ABB open FT0001ABA",
     "2[FT0001ABA|Radar_A|6|2][FT0001ABB|Radar_B|6|2]0 0 3 0"},
    {"Letters", "plug FT0002CD 0 plug FT0003EF 2 nodes",
     "7[FT0001ABA|Radar_A|6|2][FT0001ABB|Radar_B|6|2][FT0002CD|Radar|8|2][FT0003EFA|Radar_A|7|2][FT0003EFB|Radar_B|7|2]"
     "[FT0003EFC|Radar_C|7|2][FT0003EFD|Radar_D|7|2]0"},
    {"NoMpsseOnLaterChannels", "plug FT0003EF 2 open FT0003EFC mode 2 mode 0 open FT0003EFB mode 2", "0 17 0 0 0"},
    {"Lists", "number serial 0 text 1 serial 2 texts", "0:2 0:FT0001ABA 0:Radar_B 2: 0:2=FT0001ABA,FT0001ABB"},
    {"ListStaysUntilItIsMadeAnew", "number unplug serial 1 open FT0001ABB number serial 1", "0:2 0:FT0001ABB 2 0:0 2:"},
    {"ListOfNothing", "unplug number nodes", "0:0 0[]0"},
    {"OpenHere", "open FT0001ABA number serial 0 text 0 serial 1 nodes close serial 0",
     "0 0:2 3: 3: 0:FT0001ABB 2[FT0001ABA|Radar_A|6|3*][FT0001ABB|Radar_B|6|2]0 0 0:FT0001ABA"},
    {"HeldElsewhere", "held 1 number serial 0 text 0 nodes open FT0001ABA held 0 open FT0001ABA number serial 1",
     "0:2 3: 3: 2[||3|1][||3|1]0 3 0 0:2 0:FT0001ABB"},
    {"NoRights", "access 0 number serial 0 nodes access 1 number serial 0 open FT0001ABA",
     "0:2 3: 2[||3|1][||3|1]0 0:2 0:FT0001ABA 0", Row::Usb},
    {"KernelDriverComesBack", "driver open FT0001ABB driver close driver", "11 0 10 0 11", Row::Usb},
    {"Unplugged", "open FT0001ABA unplug gone all close", "0 4:0 4 4 4 4 4 4 4 4 0"},
    {"OldHandleAfterPluggingInAgain",
     "open FT0001ABA unplug replug gone all open FT0001ABA handle 0 close handle 1 w AA87 r 2",
     "0 4:0 4 4 4 4 4 4 4 4 0 0 0:2 0:FAAA"},
    {"UnplugWakesARead", "open FT0001ABA timeouts 0 0 reads unplug joined", "0 0 4:0", Row::Usb},
    {"CloseWakesARead", "open FT0001ABA timeouts 0 0 reads close joined", "0 0 0 1:0", Row::Usb},
    {"UnplugWakesAWrite", "open FT0001ABA timeouts 0 0 writes unplug joined", "0 0 4:short", Row::Usb},
    {"CloseWakesAWrite", "open FT0001ABA timeouts 0 0 writes close joined open FT0001ABA mode 0 mode 2 w AA87 r 2",
     "0 0 0 1:short 0 0 0 0:2 0:FAAA", Row::Usb},
    {"ManyThreads", "open FT0001ABA storm open FT0001ABA w AA87 r 2", "0 fine 0 0:2 0:FAAA", Row::Usb},
    {"Fork", "open FT0001ABA fork w AA87 r 2", "0 1:1:0 0:2 0:FAAA", Row::Usb},
    {"PortsFree", "open FT0001ABA plug FT0003EF 2 ports 1",
     "0 open_in_this_program|ready|ready|ready|no_MPSSE:_this_channel_is_a_serial_port_only:_use_channel_A_or_B|"
     "no_MPSSE:_this_channel_is_a_serial_port_only:_use_channel_A_or_B",
     Row::Usb},
    {"PortsOfTheKernel", "open FT0001ABA ports 0",
     "0 open_in_this_program|wrong_driver:_the_kernel's_driver_for_serial_ports_has_it:_sudo_rmmod_ftdi_sio", Row::Usb},
    {"PortsInUse", "held 1 ports 1",
     "busy:_another_program_has_it_open:_end_that_program|busy:_another_program_has_it_open:_end_that_program",
     Row::Usb},
    {"PortsOfOthers", "access 0 ports 1",
     "no_rights:_this_user_may_not_use_NODE:_put_the_udev_rule_60-pulsekit3.rules_in_place,_be_in_the_group_plugdev,_"
     "plug_"
     "the_bridge_in_again|no_rights:_this_user_may_not_use_NODE:_put_the_udev_rule_60-pulsekit3.rules_in_place,_be_in_"
     "the_"
     "group_plugdev,_plug_the_bridge_in_again",
     Row::Usb},
    {"LeftAlone", "open FT0001ABA nap 400 quiet w 88AA87 nap 400 quiet drive 1 nap 400 q r 2 nap 400 quiet unplug gone",
     "0 quiet 0:3 quiet 0:2 0:FAAA quiet 4:0", Row::Usb},
    {"LeftOpenAtTheEnd", "open FT0001ABA timeouts 0 0 reads", "0 0", Row::Usb},
};

class Script {
 public:
  Script(const FTx232H_D2XX &table, bool on_usb) : table_(table) {
    QTXSim_Reset();
    QTXSim_SetRecording(0);
    if (on_usb) QTXSim_SetTime(QTXSIM_TIME_HOST);
    QTXSim_AddRadar("FT0001AB", "Radar", QTXSIM_FT2232H, nullptr, nullptr);
    QTXSim_DrivePin(0, 5, 0);
  }

  std::string run(const std::string &steps) {
    std::istringstream words(steps);
    std::string all;
    for (std::string step; words >> step;) {
      const std::string answer = answerOf(step, words);
      all += all.empty() || answer.empty() ? answer : " " + answer;
    }
    return all;
  }

  // Leaves nothing open but what is to be left.
  void end() {
    for (FT_HANDLE handle : handles_) table_.Close(handle);
    if (thread_.joinable()) thread_.join();
  }
  void leave() { thread_.detach(); }

 private:
  static std::string text(FT_STATUS status) { return std::to_string(status); }
  static std::string text(FT_STATUS status, uint32_t count) { return text(status) + ":" + std::to_string(count); }
  static std::string withoutBlanks(std::string text) {
    std::replace(text.begin(), text.end(), ' ', '_');
    return text;
  }
  static void nap(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

  std::string answerOf(const std::string &step, std::istringstream &words) {
    std::string word;
    uint32_t one = 0, two = 0;
    if (step == "open") return words >> word, open(word.c_str(), FT_OPEN_BY_SERIAL_NUMBER);
    if (step == "openby") {
      words >> one >> word;
      std::replace(word.begin(), word.end(), '_', ' ');
      return open(one == FT_OPEN_BY_LOCATION ? reinterpret_cast<void *>(uintptr_t{99}) : word.c_str(), one);
    }
    if (step == "openat") return words >> one, open(reinterpret_cast<void *>(uintptr_t{nodes_.at(one).LocId}), 4);
    if (step == "handle") return words >> one, handle_ = handles_.at(one), "";
    if (step == "close") return text(table_.Close(handle_));
    if (step == "w") return words >> word, write(bytes(word));
    if (step == "stall") return words >> one, stall(one);
    if (step == "bits") return words >> one, bits(one);
    if (step == "echo") return words >> one, echo(one);
    if (step == "r") return words >> one, read(one);
    if (step == "check") return words >> one, check(one);
    if (step == "q") return look();
    if (step == "queue") return queue();
    if (step == "gone") return gone();
    if (step == "timeouts") return words >> one >> two, text(table_.SetTimeouts(handle_, one, two));
    if (step == "sizes") return words >> one >> two, text(table_.SetUSBParameters(handle_, one, two));
    if (step == "latency") return words >> one, text(table_.SetLatencyTimer(handle_, static_cast<uint8_t>(one)));
    if (step == "mode") return words >> one, text(table_.SetBitMode(handle_, 0, static_cast<uint8_t>(one)));
    if (step == "reset") return text(table_.ResetDevice(handle_));
    if (step == "nap") return words >> one, nap(static_cast<int>(one)), "";
    if (step == "drive") return words >> one, QTXSim_DrivePin(0, 5, static_cast<int32_t>(one)), "";
    if (step == "number") return number();
    if (step == "serial") return words >> one, name(one, FT_OPEN_BY_SERIAL_NUMBER);
    if (step == "text") return words >> one, name(one, FT_OPEN_BY_DESCRIPTION);
    if (step == "list") return words >> one, text(table_.ListDevices(nullptr, nullptr, one));
    if (step == "texts") return texts();
    if (step == "nodes") return nodes();
    if (step == "getnodes") return text(table_.GetDeviceInfoList(nullptr, &one));
    if (step == "all") return all();
    if (step == "nulls") return nulls();
    if (step == "plug") return words >> word >> one, plug(word, one);
    if (step == "unplug") return QTXSim_Unplug(0), "";
    if (step == "replug") return QTXSim_Replug(0), "";
    if (step == "held") return words >> one, QTXSim_SetHeld(0, static_cast<int32_t>(one)), "";
    if (step == "short") return words >> one, text(static_cast<uint32_t>(QTXSim_ShortWrite(0, 1, one)));
    if (step == "fail")
      return words >> word >> one, text(static_cast<uint32_t>(QTXSim_FailCall(word.c_str(), 1, 1, one)));
    if (step == "reads") return inBackground([this] { return read(1); });
    if (step == "writes") return inBackground([this] { return stall(20000); });
    if (step == "joined") return thread_.join(), background_;
    if (step == "storm") return storm();
    return onUsb(step, words);
  }

  std::string onUsb(const std::string &step, std::istringstream &words);

  std::string plug(const std::string &serial, uint32_t bridge) {
    QTXSim_AddRadar(serial.c_str(), "Radar", static_cast<int32_t>(bridge), nullptr, nullptr);
    return "";
  }

  std::string open(const void *arg, uint32_t flags) {
    FT_HANDLE opened = nullptr;
    const FT_STATUS status = table_.OpenEx(arg, flags, &opened);
    if (status) return text(status);
    handles_.push_back(handle_ = opened);
    table_.SetTimeouts(handle_, 5000, 5000);
    table_.SetBitMode(handle_, 0, 2);
    return text(status);
  }

  static std::vector<uint8_t> bytes(const std::string &hex) {
    std::vector<uint8_t> result;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
      result.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return result;
  }
  std::string write(const std::vector<uint8_t> &out, bool exact = true) {
    uint32_t written = 0;
    const FT_STATUS status = table_.Write(handle_, out.data(), static_cast<uint32_t>(out.size()), &written);
    return exact || written == out.size() ? text(status, written) : text(status) + ":short";
  }
  // A command that waits for a pin that does not change, and more behind it.
  std::string stall(uint32_t count) {
    std::vector<uint8_t> out(count, 0x87);
    out[0] = 0x88;
    return write(out, false);
  }
  std::string bits(uint32_t count) {
    std::vector<uint8_t> out = {0x8A};
    for (; count > 0; count -= std::min(count, 65536u)) out.insert(out.end(), {0x20, 0xFF, 0xFF});
    out.push_back(0x87);
    return write(out);
  }
  // Bad commands are answered with themselves.
  std::string echo(uint32_t count) {
    std::vector<uint8_t> out;
    for (uint32_t i = 0; i < count; ++i) {
      out.push_back(static_cast<uint8_t>(0xA0 + next_++ % 64));
      expected_.insert(expected_.end(), {0xFA, out.back()});
    }
    out.push_back(0x87);
    return write(out);
  }
  FT_STATUS receive(uint32_t count, std::vector<uint8_t> &in) {
    in.assign(count, 0);
    uint32_t got = 0;
    const FT_STATUS status = table_.Read(handle_, in.data(), count, &got);
    in.resize(got);
    return status;
  }
  std::string read(uint32_t count) {
    std::vector<uint8_t> in;
    const FT_STATUS status = receive(count, in);
    std::string hex;
    for (uint8_t byte : in) hex += "0123456789ABCDEF"[byte >> 4], hex += "0123456789ABCDEF"[byte & 15];
    if (status) return text(status, static_cast<uint32_t>(in.size()));
    const bool same = in.size() > 100 && in == std::vector<uint8_t>(in.size(), in[0]);
    return text(status) + ":" + (same ? std::to_string(in.size()) + "x" + hex.substr(0, 2) : hex);
  }
  std::string check(uint32_t count) {
    std::vector<uint8_t> in;
    receive(count, in);
    const std::vector<uint8_t> due(expected_.begin(), expected_.begin() + count);
    expected_.erase(expected_.begin(), expected_.begin() + count);
    return in == due ? "ok" : "got " + std::to_string(in.size());
  }
  std::string look() {
    uint32_t count = 0;
    const FT_STATUS status = table_.GetQueueStatus(handle_, &count);
    return text(status, count);
  }
  // Looks until something has arrived that was not there before.
  std::string queue() {
    std::string now = look();
    for (int i = 0; i < 1000 && (now == "0:0" || now == last_queue_); ++i) nap(2), now = look();
    return last_queue_ = now;
  }

  // Looks until the bridge is known to be gone.
  std::string gone() {
    std::string now = look();
    for (int i = 0; i < 1000 && now[0] == '0'; ++i) nap(2), now = look();
    return now;
  }

  // Of each port what is the matter with it.
  static std::string ports(const std::string &lines) {
    std::string all;
    std::istringstream text(std::regex_replace(withoutBlanks(lines), std::regex("/dev/bus/usb/[0-9/]+"), "NODE"));
    for (std::string line; std::getline(text, line);)
      all += (all.empty() ? "" : "|") + line.substr(line.find(":_") + 2);
    return all;
  }

  std::string number() {
    uint32_t count = 99;
    const FT_STATUS status = table_.ListDevices(&count, nullptr, FT_LIST_NUMBER_ONLY);
    return text(status, count);
  }
  std::string name(uint32_t index, uint32_t what) {
    char found[64] = "";
    const FT_STATUS status =
        table_.ListDevices(reinterpret_cast<void *>(uintptr_t{index}), found, FT_LIST_BY_INDEX | what);
    return text(status) + ":" + withoutBlanks(found);
  }
  std::string texts() {
    char one[64] = "", two[64] = "", *targets[] = {one, two, nullptr};
    uint32_t count = 0;
    const FT_STATUS status = table_.ListDevices(targets, &count, FT_LIST_ALL | FT_OPEN_BY_SERIAL_NUMBER);
    return text(status, count) + "=" + one + "," + two;
  }
  std::string nodes() {
    uint32_t count = 0;
    if (FT_STATUS status = table_.CreateDeviceInfoList(&count)) return text(status);
    nodes_.assign(count, {});
    uint32_t again = 0;
    const FT_STATUS status = table_.GetDeviceInfoList(nodes_.data(), &again);
    std::string all = std::to_string(again);
    if (nodes_.empty()) all += "[]";
    for (const FT_Node &node : nodes_) {
      all += std::string("[") + node.SerialNumber + "|" + withoutBlanks(node.Description) + "|" +
             std::to_string(node.Type) + "|" + std::to_string(node.Flags);
      if (node.Handle) all += node.Handle == handle_ ? "*" : "?";
      all += "]";
    }
    return all + text(status);
  }
  std::string all() {
    uint8_t byte = 0x87;
    uint32_t count = 0;
    const FT_STATUS statuses[] = {table_.Read(handle_, &byte, 0, &count),
                                  table_.Write(handle_, &byte, 1, &count),
                                  table_.ResetDevice(handle_),
                                  table_.SetTimeouts(handle_, 60, 60),
                                  table_.GetQueueStatus(handle_, &count),
                                  table_.SetLatencyTimer(handle_, 2),
                                  table_.SetBitMode(handle_, 0, 2),
                                  table_.SetUSBParameters(handle_, 4096, 4096)};
    std::string joined;
    for (FT_STATUS status : statuses) joined += (joined.empty() ? "" : " ") + text(status);
    return joined;
  }
  std::string nulls() {
    uint8_t byte = 0;
    uint32_t count = 0;
    FT_HANDLE opened = nullptr;
    const FT_STATUS statuses[] = {table_.Write(handle_, &byte, 1, nullptr),
                                  table_.Read(handle_, &byte, 1, nullptr),
                                  table_.GetQueueStatus(handle_, nullptr),
                                  table_.Write(handle_, nullptr, 1, &count),
                                  table_.Read(handle_, nullptr, 1, &count),
                                  table_.OpenEx(nullptr, FT_OPEN_BY_SERIAL_NUMBER, &opened),
                                  table_.OpenEx("FT0001ABB", FT_OPEN_BY_SERIAL_NUMBER, nullptr),
                                  table_.ListDevices(nullptr, nullptr, FT_LIST_NUMBER_ONLY),
                                  table_.ListDevices(nullptr, nullptr, FT_LIST_BY_INDEX | 1),
                                  table_.ListDevices(nullptr, nullptr, FT_LIST_ALL | 1),
                                  table_.CreateDeviceInfoList(nullptr)};
    std::string joined;
    for (FT_STATUS status : statuses) joined += (joined.empty() ? "" : " ") + text(status);
    return joined;
  }

  std::string inBackground(const std::function<std::string()> &step) {
    thread_ = std::thread([this, step] { background_ = step(); });
    return nap(30), "";
  }
  // Threads that use a handle while it is closed.
  std::string storm() {
    std::vector<std::thread> threads;
    std::atomic<int> odd = 0;
    for (int kind = 0; kind < 6; ++kind) {
      threads.emplace_back([this, kind, &odd] {
        uint8_t buffer[64] = {0xAA, 0x87};
        uint32_t count = 0;
        for (int i = 0; i < 40; ++i) {
          const FT_STATUS status = kind == 0   ? table_.Read(handle_, buffer + 2, 2, &count)
                                   : kind == 1 ? table_.ResetDevice(handle_)
                                   : kind == 2 ? table_.SetUSBParameters(handle_, 4096, 4096)
                                   : kind == 3 ? table_.GetQueueStatus(handle_, &count)
                                               : table_.Write(handle_, buffer, 2, &count);
          if (status != FT_OK && status != FT_INVALID_HANDLE) ++odd;
        }
      });
    }
    nap(20);
    const FT_STATUS closed = table_.Close(handle_);
    for (std::thread &thread : threads) thread.join();
    return closed == FT_OK && odd == 0 ? "fine" : text(closed) + " odd " + std::to_string(odd);
  }

  const FTx232H_D2XX &table_;
  FT_HANDLE handle_ = nullptr;
  std::vector<FT_HANDLE> handles_;
  std::vector<FT_Node> nodes_;
  std::vector<uint8_t> expected_;
  uint32_t next_ = 0;
  std::string last_queue_, background_;
  std::thread thread_;
};

void run(const FTx232H_D2XX &table, bool usb, const Row &row) {
  auto *script = new Script(table, usb);
  EXPECT_EQ(script->run(row.steps), row.answers) << row.steps;
  // The process must end in spite of a channel that is open and read from.
  if (std::string(row.name) == "LeftOpenAtTheEnd") return script->leave();
  script->end();
  delete script;
}

class Simulated : public testing::TestWithParam<Row> {};
TEST_P(Simulated, Contract) {
  if (GetParam().where != Row::Usb) run(*QTXSim_D2XX(), false, GetParam());
}

void PrintTo(const Row &row, std::ostream *stream) { *stream << row.name; }
constexpr auto nameOf = [](const testing::TestParamInfo<Row> &info) { return std::string(info.param.name); };
INSTANTIATE_TEST_SUITE_P(D2xx, Simulated, testing::ValuesIn(kRows), nameOf);

#ifdef USB_BED
using pulsekit::simulator::UsbBed;
UsbBed *bed = nullptr;

std::string Script::onUsb(const std::string &step, std::istringstream &words) {
  uint32_t on = 0;
  if (step == "access") return words >> on, bed->setAccess(0, on != 0), "";
  if (step == "quiet") {
    const unsigned long long before = bed->requests();
    return nap(100), bed->requests() == before ? "quiet" : "requests";
  }
  if (step == "ports") return words >> on, ports(pulsekit::d2xx::usb::describePorts(on != 0));
  if (step == "driver") return std::string(bed->driverBound(0, 0) ? "1" : "0") + (bed->driverBound(0, 1) ? "1" : "0");
  if (step != "fork") return "unknown step " + step;
  // The child has neither the handle nor the parent's part in the conversation.
  const pid_t child = fork();
  if (child == 0) {
    uint32_t count = 0;
    const bool invalid = table_.GetQueueStatus(handle_, &count) == FT_INVALID_HANDLE;
    const bool closed = table_.Close(handle_) == FT_INVALID_HANDLE;
    _exit(invalid && closed ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return "1:1:" + std::to_string(status);
}

class Libusb : public testing::TestWithParam<Row> {};
TEST_P(Libusb, Contract) {
  const char *reason = "";
  const FTx232H_D2XX *table = pulsekit::d2xx::usb::table(&reason);
  ASSERT_NE(table, nullptr) << reason;
  if (GetParam().where != Row::Simulated) run(*table, true, GetParam());
}
INSTANTIATE_TEST_SUITE_P(D2xx, Libusb, testing::ValuesIn(kRows), nameOf);
#else
std::string Script::onUsb(const std::string &, std::istringstream &) { return "unknown step"; }
#endif

}  // namespace

int main(int count, char **arguments) {
  testing::InitGoogleTest(&count, arguments);
#ifdef USB_BED
  bed = new UsbBed;  // before libusb and threads start; stays as long as the process
  QTXSim_AddRadar("A1", "", QTXSIM_FT232H, nullptr, nullptr);
#endif
  return RUN_ALL_TESTS();
}
