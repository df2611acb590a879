// What to do about a failure, in words for a person.
#include <algorithm>
#include <charconv>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "Pulsekit3_control.h"
#include "advice.h"
#include "calls.h"
#include "interface/FTx232H/FTx232H.h"
#include "support/handle_state.h"
#include "support/numbers.h"

using namespace pulsekit;

static constexpr const char kSource[] = "src/Pulsekit3_advice";

namespace {

// ---- The failure and what it was about ----

struct Subject : HandlePart {
  int32_t code;
  std::string message, trace;  // as the record had them; callers may have appended to the trace since
  std::string name, value;

  bool isOf(const QTX_StackTrace &record) const {
    return record.code == code && record.message == message && std::string_view(record.trace).starts_with(trace);
  }
};

struct Failure {
  QTX_Handle *handle;
  std::string_view message, trace;
  std::string name, value;  // of its subject, empty where none is known

  bool says(std::string_view text) const { return message.find(text) != message.npos; }
  bool in(std::string_view function) const { return trace.find(function) != trace.npos; }
};

// ---- Names and numbers ----

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::string lower(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), [](char c) { return lower(c); });
  return result;
}

// Insertions, deletions and replacements that make one text of the other.
size_t editDistance(std::string_view from, std::string_view to) {
  std::vector<size_t> row(to.size() + 1);
  for (size_t i = 0; i < row.size(); ++i) row[i] = i;
  for (size_t i = 1; i <= from.size(); ++i) {
    size_t diagonal = row[0]++;
    for (size_t j = 1; j <= to.size(); ++j) {
      const size_t replaced = diagonal + (from[i - 1] == to[j - 1] ? 0 : 1);
      diagonal = row[j];
      row[j] = std::min({replaced, row[j] + 1, row[j - 1] + 1});
    }
  }
  return row.back();
}

std::string joined(const std::vector<std::string> &texts) {
  std::string result;
  for (const std::string &text : texts) result += (result.empty() ? "" : ", ") + text;
  return result;
}

// Up to three candidates that the text may stand for, the likeliest first.
std::vector<std::string> nearest(std::string_view text, const std::vector<std::string> &candidates) {
  const std::string wanted = lower(text.substr(0, 64));
  std::vector<std::pair<size_t, std::string>> near;
  for (const std::string &candidate : candidates) {
    const std::string name = lower(candidate);
    size_t distance = editDistance(wanted, name);
    const bool part = wanted.size() >= 3 && name.find(wanted) != name.npos;
    if (!part && distance > std::max<size_t>(2, wanted.size() / 3)) continue;
    near.emplace_back(distance, candidate);
  }
  std::stable_sort(near.begin(), near.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
  std::vector<std::string> names;
  for (size_t i = 0; i < near.size() && i < 3; ++i) {
    if (near[i].first <= near[0].first + 3) names.push_back(near[i].second);
  }
  return names;
}

std::string didYouMean(std::string_view text, const std::vector<std::string> &candidates, const char *otherwise) {
  const std::vector<std::string> names = nearest(text, candidates);
  if (!names.empty()) return "Did you mean " + joined(names) + "?";
  return candidates.empty() || candidates.size() > 12 ? otherwise : "Known: " + joined(candidates) + ".";
}

std::vector<std::string> splitNames(const char *list, char delimiter, bool cut_at_blank = false) {
  std::vector<std::string> names;
  for (const char *begin = list; *begin;) {
    const char *end = begin + std::strcspn(begin, std::string(1, delimiter).c_str());
    std::string name(begin, end);
    if (cut_at_blank) name.resize(std::min(name.size(), name.find(' ')));
    names.push_back(std::move(name));
    begin = *end ? end + 1 : end;
  }
  return names;
}

std::string number(uint64_t value, bool real) {
  char text[64];
  const auto end = real ? std::to_chars(text, text + sizeof text, bitsToDouble(value)).ptr
                        : std::to_chars(text, text + sizeof text, value).ptr;
  return std::string(text, end);
}

// ---- Variables and actions ----

template <typename Record>
std::vector<std::string> allNames(const QTX_Handle *handle, Record *VariableSet::*records,
                                  int32_t VariableSet::*count) {
  std::vector<std::string> names;
  for (VariableSet *set : lookupOrder(handle)) {
    for (int32_t i = 0; set && i < set->*count; ++i) {
      names.emplace_back(sym_to_str(set, static_cast<int32_t>((set->*records)[i].name)));
    }
  }
  return names;
}

std::string adviseNames(const Failure &failure, const std::vector<std::string> &names, const char *list) {
  const std::string_view name = failure.message.empty() ? std::string_view(failure.name) : failure.message;
  std::string advice = didYouMean(name, names, list);
  if (!failure.handle->chip) {
    advice += " The handle has no chip open, whose names are not known without: see QTX_OpenRadar.";
  }
  return advice;
}

std::string adviseUnknownVariable(const Failure &failure) {
  return adviseNames(failure, allNames(failure.handle, &VariableSet::variables, &VariableSet::count),
                     "QTX_ListVariables lists the names that there are; case counts.");
}

std::string adviseUnknownAction(const Failure &failure) {
  return adviseNames(failure, allNames(failure.handle, &VariableSet::actions, &VariableSet::action_count),
                     "QTX_ListActions lists the names that there are; case counts.");
}

std::string possibleValues(VariableSet *set, Variable *variable, const std::string &value) {
  if (variable->flags & VAR_FLAG_ENUM) {
    std::vector<std::string> items;
    for (int32_t i = 0; i < varGetEnumsLength(set, variable); ++i) {
      items.emplace_back(sym_to_str(set, static_cast<int32_t>(variable->items[i])));
    }
    const std::vector<std::string> near = nearest(value, items);
    return "it is one of " + joined(items) + (near.empty() ? "" : "; the nearest is " + near.front());
  }
  const bool real = (variable->flags & VAR_FLAG_FLOAT) != 0;
  return (real ? "it takes numbers from " : "it takes whole numbers from ") + number(variable->min, real) + " to " +
         number(variable->max, real) + ", or auto";
}

std::string adviseValue(const Failure &failure) {
  Variable *variable = nullptr;
  VariableSet *set = nullptr;
  for (VariableSet *candidate : lookupOrder(failure.handle)) {
    if (variable || !candidate) continue;
    variable = varNamed(candidate, failure.name.c_str());
    set = candidate;
  }
  if (!variable) return "";
  return failure.name + " can't be " + (failure.value.empty() ? "empty" : failure.value) + ": " +
         possibleValues(set, variable, failure.value) + ".";
}

std::string adviseReadOnly(const Failure &failure) {
  return (failure.name.empty() ? "This variable" : failure.name) +
         " is what the radar tells or computes; it can be read but not set.";
}

std::string adviseRegister(const Failure &) {
  return "The chip does not hold what was written. Without power it can't: switch it on with QTX_PowerOnRadar, which "
         "starts it anew. With power, look at the SPI wiring or use a lower SPIClockFrequency.";
}

// ---- The bridge ----

std::string missingLibrary() {
  char report[1024] = "";
  FTx232H_DescribeBridgeLibraries(report, sizeof report);
  std::string text = report;
  if (text.find(": loaded") != text.npos || text.find("in use") != text.npos) return "";
  while (!text.empty() && text.back() == '\n') text.pop_back();
  std::replace(text.begin(), text.end(), '\n', ';');
  return "There is no bridge library (" + text +
         "). Install the D2XX library of the bridge's vendor where the system finds it, or name one in the environment "
         "variable PULSEKIT3_BRIDGE_LIBRARY.";
}

bool findDevices(std::vector<PresentDevice> *devices) { return interfacePresentDevices(nullptr, devices) == kSuccess; }

std::string adviseListing(const Failure &) {
  if (const std::string missing = missingLibrary(); !missing.empty()) return missing;
  return "The bridge library can't list its devices: plug the bridge out and in, and see that this user may use USB "
         "devices.";
}

std::string adviseNoDevice(const Failure &) {
  if (const std::string missing = missingLibrary(); !missing.empty()) return missing;
  return "Attach a radar by USB. If one is attached, its bridge is not seen: look at cable and power, and see that "
         "this "
         "user may use the device.";
}

std::string serialOf(const std::string &connection) {
  const size_t begin = connection.find('(');
  if (begin == connection.npos) return "";
  return connection.substr(begin + 1, connection.find(')', begin) - begin - 1);
}

std::string adviseOpening(const Failure &failure) {
  if (const std::string missing = missingLibrary(); !missing.empty()) return missing;
  const std::string serial = serialOf(failure.name);
  if (serial.empty()) {
    return "A connection string is one entry of what QTX_ListRadarModules gives: FTx232H!Serial No: "
           "(SERIAL)!MODULE!CHIP.";
  }
  std::vector<PresentDevice> devices;
  if (!findDevices(&devices)) return "";
  std::vector<std::string> serials;
  bool hidden = false;
  for (const PresentDevice &device : devices) {
    hidden = hidden || (device.serial.empty() && device.open);
    if (!device.serial.empty()) serials.push_back(device.serial);
    if (device.serial != serial) continue;
    if (device.open_here) return "This program has the radar open already: close it there first.";
    if (device.open) return "Another program has the radar open: close it there first.";
    return "The bridge is there but can't be opened: another program or the system's own driver (ftdi_sio on Linux) "
           "has "
           "it, or this user may not use the device.";
  }
  if (hidden) return "Another program has a bridge open, probably this one: close it there first.";
  if (serials.empty()) return "No bridge is attached, or this user may not use it.";
  return "No bridge with the serial number " + serial + " is attached; attached: " + joined(serials) + ".";
}

std::string adviseTransfer(const Failure &failure) {
  InterfaceHandle *bridge = failure.handle->interface_handle;
  if (!interfaceHasDevice(bridge))
    return "The connection failed: plug the bridge out and in, then open the radar anew.";
  if (!interfaceAnswers(bridge)) {
    return "The bridge is gone: attach it again, then close the radar and open it anew.";
  }
  return "The bridge is there, but an answer was late or lost. Try again; if it goes on, close the radar, plug the "
         "bridge "
         "out and in, and open it anew.";
}

std::string advisePin(const Failure &failure) {
  if (!failure.says("outside the legal range")) return adviseTransfer(failure);
  return failure.says("SPI channel")
             ? "Channel 0 is the radar chip, 1 the flash of the board."
             : "Pins are 1 to 15, or identifiers of the module's pins (500, 1100 ... or 1200 ...).";
}

// ---- What is open ----

const char *const kOpenARadar = "Open a radar with QTX_OpenRadar and an entry of QTX_ListRadarModules first.";

std::string adviseNothingOpen(const Failure &) { return kOpenARadar; }

std::string adviseArgument(const Failure &failure) {
  const bool lists = failure.in("QTX_ListVariables") || failure.in("QTX_ListActions");
  if (lists && !failure.handle->interface_handle) return kOpenARadar;
  return "An argument is null or out of its range: the header says what the function takes.";
}

std::string adviseMissingPart(const Failure &failure) {
  if (!failure.handle->interface_handle) return kOpenARadar;
  return "The radar was opened without this part, as its connection string says Unknown there. It was not recognised "
         "when "
         "it was listed: see that the board has power, list again, and open the new entry.";
}

std::string adviseModuleName(const Failure &failure) {
  if (failure.says("Could not read Radar Module ID")) {
    return "The board has no name in its flash or no power. Look at its power; QTX_ModuleReadBoardInfo shows what it "
           "holds, and with DEFAULT as the module's name it opens all the same.";
  }
  char list[1024] = "";
  QTX_ListSupportedModules(list, sizeof list);
  return didYouMean(failure.handle->connection_info->module_name, splitNames(list, ',', true), "");
}

std::string adviseChipName(const Failure &failure) {
  char list[1024] = "";
  QTX_ListSupportedChips(list, sizeof list);
  return didYouMean(failure.handle->connection_info->chip_name, splitNames(list, ',', true), "");
}

// ---- Waits, buffers, the rest ----

std::string adviseWaitedTooLong(const Failure &failure) {
  if (failure.says("sweep")) {
    return "The chip says that a sweep goes on. A chip without power seems to: QTX_PowerOnRadar starts it. If sweeps "
           "take "
           "longer than the wait limit (QTX_GetFrameGeometry tells), raise it with QTX_SetWaitLimit or lower "
           "Iterations "
           "and PulsesPerStep.";
  }
  if (failure.says("measurement")) {
    return "The chip says that a measurement goes on: see that it has power and a clock (MClkEnable), lower "
           "SWMeasTargetCycles or FMeasNumCycles, or raise the limit with QTX_SetWaitLimit.";
  }
  if (failure.says("radar")) return "No radar came or went in this time: call again to go on waiting.";
  return "Allow more time, or ask for less at once.";
}

std::string adviseSize(const Failure &failure) {
  int64_t samplers = 0;
  if (failure.in("CaptureFrame") && failure.handle->chip &&
      varGetIntValue_ByName(failure.handle->chip->variables, "SamplersPerFrame", &samplers) == 0) {
    return "A frame has " + std::to_string(samplers) + " entries with these settings (SamplersPerFrame).";
  }
  if (failure.in("getCDF")) return "QTX_CalculateCDF_Size tells how many entries the table takes: width * lines.";
  if (failure.in("getTimingMeasurementResults")) return "The results take 579 entries.";
  if (failure.says("8 bytes")) return "Read a register with 1 to 8 bytes.";
  if (failure.in("sflash")) return "The flash takes at most 65536 bytes at once, a page at most 256.";
  if (failure.in("FTx232H_SendReceive")) return "A transfer takes at most 65536 bytes either way.";
  return "Call again with a larger buffer; 16384 characters hold every list.";
}

std::string adviseFlash(const Failure &) {
  return "The flash reported a failure or did not end in time; what stands in the block is not certain now. See that "
         "the "
         "board has power (RadarModulePower), write again, and read back what was written.";
}

std::string adviseNothingStored(const Failure &failure) {
  if (failure.in("measurementLoadDataFromFlash")) {
    return "The block holds no calibration: make one with QTX_Calibrate and its block number.";
  }
  if (failure.says("version")) {
    return "The flash holds settings of another version of the library or of another radar: set what is needed and "
           "store "
           "it anew with QTX_VarsSaveToFlash.";
  }
  return "Nothing valid is stored there (AddressOfVariableStorage says where settings are kept): store settings with "
         "QTX_VarsSaveToFlash first.";
}

std::string adviseFile(const Failure &failure) {
  const std::string file = failure.name.empty() ? "The file" : failure.name;
  if (failure.says("for read")) return file + " can't be read: see that it exists and that this user may read it.";
  return file +
         " can't be written: see that its folder exists, that this user may write there, and that there is room.";
}

// ---- The tables ----

struct ByMessage {
  const char *message, *advice;
};

constexpr ByMessage kByMessage[] = {
    {"A radar is open on this handle", "Close it first, or list with a handle of its own."},
    {"A handle connects only once", "Close the radar first."},
    {"DACStepFine is 0", "Set DACStepFine to 1 or more, or to auto: it follows DACStep then."},
    {"ClockFrequency is 0", "Set ClockFrequency to what the board feeds the chip, or to auto."},
    {"FMeasNumCycles is 0", "Set FMeasNumCycles to 10000 or more, or to auto."},
    {"CoarseTuneMeasureMax is 0", "Set CoarseTuneMeasureMax to 1 or more, or to auto."},
    {"measurement data will be invalid",
     "The measurement has no clock: set MeasClkEnable and MClkEnable to 1, and with "
     "MeasClkSource 1 the oscillator on (DCOTargetFrequency 211000000)."},
    {"unknown variables",
     "The file holds settings that this radar does not have, and those were left out; it was saved "
     "with another chip or module."},
    {"Address is not aligned", "Give an address that is a multiple of 256."},
    {"Address is outside the flash", "Addresses and their ends lie below 16777216."},
    {"frame log file", "See that there is room where the log is written, and start it anew."},
    {"never reaches the chip", "Actions of the chip have numbers below 128; execute others by name."},
    {"at most 8 bytes", "Write a register with 1 to 8 bytes."},
};

struct ByCode {
  int32_t code;
  std::string (*advise)(const Failure &);
  const char *advice;
};

constexpr ByCode kByCode[] = {
    {kError, adviseArgument, nullptr},
    {kBufferTooSmall, adviseSize, nullptr},
    {kNotImplemented, nullptr,
     "This chip or board can't do that; second-generation chips (QTX3701, QTX3702) do it all."},
    {kNoValidSetup, adviseNothingStored, nullptr},
    {kCouldNotOpenFile, adviseFile, nullptr},
    {kOutOfMemory, nullptr, "Memory is short: end other programs, then try again."},
    {kInterfaceError, adviseTransfer, nullptr},
    {kInterfaceInitHandle, adviseTransfer, nullptr},
    {kInterfaceInit, adviseTransfer, nullptr},
    {kInterfaceList, adviseListing, nullptr},
    {kInterfaceOpen, adviseOpening, nullptr},
    {kIoSet, advisePin, nullptr},
    {kIoRead, advisePin, nullptr},
    {kInterfaceStatus, adviseTransfer, nullptr},
    {kInterfaceRead, adviseTransfer, nullptr},
    {kInterfaceWrite, adviseTransfer, nullptr},
    {kInterfaceDisconnect, nullptr, "Close the radar again, or plug the bridge out: closing succeeds then."},
    {kNoDevices, adviseNoDevice, nullptr},
    {kInterfaceUnknown, nullptr,
     "A connection string begins with the bridge's driver: FTx232H!Serial No: (SERIAL)!..."},
    {kInterfaceNotInitialized, adviseNothingOpen, nullptr},
    {kInterfaceTimeout, adviseTransfer, nullptr},
    {kLogNotOpen, nullptr, "Start the log with QTX_InterfaceLogging first."},
    {kCouldNotOpenLog, adviseFile, nullptr},
    {kUnknownModule, adviseModuleName, nullptr},
    {kModuleNotInitialized, adviseMissingPart, nullptr},
    {kFlashAccess, adviseFlash, nullptr},
    {kFlashProgram, adviseFlash, nullptr},
    {kFlashErase, adviseFlash, nullptr},
    {kUnknownChip, adviseChipName, nullptr},
    {kChipNotInitialized, adviseMissingPart, nullptr},
    {kTimingMeasurement, nullptr, "Delay elements are counted from 0 to 62."},
    {kRadarNotInitialized, adviseNothingOpen, nullptr},
    {kVariableWrite, adviseRegister, nullptr},
    {kVariableNotVisible, nullptr, "Other settings hide this variable now."},
    {kUnknownVariable, adviseUnknownVariable, nullptr},
    {kUnknownAction, adviseUnknownAction, nullptr},
    {kVariableReadOnly, adviseReadOnly, nullptr},
    {kIllegalValue, adviseValue, nullptr},
    {kCancelled, nullptr, "The call was cancelled; the radar can be used as before."},
    {kWaitedTooLong, adviseWaitedTooLong, nullptr},
    {kNoStream, nullptr, "Start a stream with QTX_StreamStart first."},
    {kStreamRunning, nullptr, "Stop the stream with QTX_StreamStop first, or take frames with QTX_StreamRead."},
    {kNotPossible, nullptr, "QTX_CheckSettings lists the settings that stand in the way."},
};

std::string advise(int32_t code, const Failure &failure) {
  for (const ByMessage &known : kByMessage) {
    if (failure.says(known.message)) return known.advice;
  }
  for (const ByCode &known : kByCode) {
    if (known.code == code) return known.advise ? known.advise(failure) : known.advice;
  }
  return "";
}

// The failure that the record holds, with its subject where that is known.
Failure describe(QTX_Handle *handle, const QTX_StackTrace &record) {
  Failure failure{handle, record.message, record.trace, "", ""};
  const HandleState *state = stateOf(handle);
  const auto *subject = state ? static_cast<const Subject *>(state->advice.get()) : nullptr;
  if (subject && subject->isOf(record)) {
    failure.name = subject->name;
    failure.value = subject->value;
  }
  return failure;
}

}  // namespace

namespace pulsekit {

int32_t failedWith(const QTX_Handle *handle, int32_t code, std::string_view name, std::string_view value) noexcept try {
  HandleState *state = code != kSuccess && handle && handle->error ? stateOf(handle) : nullptr;
  if (!state) return code;
  constexpr size_t kLongest = 200;
  auto subject = std::make_unique<Subject>();
  subject->code = handle->error->code;
  subject->message = handle->error->message;
  subject->trace = handle->error->trace;
  subject->name = name.substr(0, kLongest);
  subject->value = value.substr(0, kLongest);
  state->advice = std::move(subject);
  return code;
} catch (const std::bad_alloc &) {
  return code;
}

int32_t failedWith(const QTX_Handle *handle, int32_t code, const char *name, int64_t value) noexcept {
  char text[32];
  const auto end = std::to_chars(text, text + sizeof text, value).ptr;
  return failedWith(handle, code, name, std::string_view(text, static_cast<size_t>(end - text)));
}

int32_t failedWith(const QTX_Handle *handle, int32_t code, const char *name, double value) noexcept {
  char text[64];
  const auto end = std::to_chars(text, text + sizeof text, value).ptr;
  return failedWith(handle, code, name, std::string_view(text, static_cast<size_t>(end - text)));
}

}  // namespace pulsekit

extern "C" int32_t QTX_GetErrorAdvice(QTX_Handle *handle, char *text, int32_t size) try {
  if (int32_t code = checkCall(handle, HERE, text)) return code;
  if (!stateOf(handle)) return kRadarNotInitialized;
  if (size <= 0) return kBufferTooSmall;
  text[0] = '\0';
  if (!handle->error || handle->error->code == kSuccess) return kSuccess;
  const QTX_StackTrace record = *handle->error;
  const std::string advice = advise(record.code, describe(handle, record));
  *handle->error = record;
  const size_t length = std::min(advice.size(), static_cast<size_t>(size) - 1);
  advice.copy(text, length);
  text[length] = '\0';
  return length == advice.size() ? kSuccess : kBufferTooSmall;
} catch (const std::bad_alloc &) {
  return kOutOfMemory;
}
