// Settings and board information in the module's flash.
#include <array>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "Pulsekit3.h"
#include "Pulsekit3_radars.h"
#include "calls.h"
#include "stream.h"
#include "support/handle_state.h"
#include "support/numbers.h"

using namespace pulsekit;

static constexpr const char kSource[] = "src/Pulsekit3";

namespace {

// The settings record: two version words, a word for each variable, an end mark; each 8 bytes, lowest first.
constexpr size_t kWordSize = 8;
constexpr size_t kFirstVariable = 2;
constexpr size_t kFrameWords = 3;
constexpr uint64_t kEndMark = 0x123456;
constexpr uint64_t kLargestVersion = 0x630000;
constexpr uint8_t kErased = 0xff;

VariableSet *moduleVariables(const QTX_Handle *handle) { return handle->module ? handle->module->variables : nullptr; }

VariableSet *chipVariables(const QTX_Handle *handle) { return handle->chip ? handle->chip->variables : nullptr; }

size_t countOf(const VariableSet *set) { return set ? static_cast<size_t>(set->count) : 0; }

// "a.b.c" as a + b * 256 + c * 65536.
uint64_t encodedVersion(const VariableSet *set) {
  if (!set || !set->version) return 0;
  char a[4] = "", b[4] = "", c[4] = "";
  char *parts[] = {a, b, c};
  QTX_strsplit(set->version, parts, 3, sizeof a, '.');
  return parseInteger(a) + parseInteger(b) * 256 + parseInteger(c) * 65536;
}

std::string versionText(uint64_t word) {
  return std::to_string(word & 0xff) + "." + std::to_string(word >> 8 & 0xff) + "." + std::to_string(word >> 16 & 0xff);
}

using Words = std::vector<uint64_t>;

void appendValues(Words &words, const VariableSet *set) {
  for (size_t i = 0; i < countOf(set); ++i) {
    const Variable &variable = set->variables[i];
    words.push_back(variable.flags & VAR_FLAG_AUTO ? VAR_AUTO : variable.value);
  }
}

Words settingsRecord(const QTX_Handle *handle) {
  Words words{encodedVersion(moduleVariables(handle)), encodedVersion(chipVariables(handle))};
  appendValues(words, moduleVariables(handle));
  appendValues(words, chipVariables(handle));
  words.push_back(kEndMark);
  return words;
}

std::vector<uint8_t> toBytes(const Words &words) {
  std::vector<uint8_t> bytes;
  bytes.reserve(words.size() * kWordSize);
  for (const uint64_t word : words) {
    for (size_t i = 0; i < kWordSize; ++i) bytes.push_back(static_cast<uint8_t>(word >> (8 * i)));
  }
  return bytes;
}

Words toWords(const std::vector<uint8_t> &bytes) {
  Words words(bytes.size() / kWordSize);
  for (size_t i = 0; i < bytes.size(); ++i) words[i / kWordSize] |= uint64_t{bytes[i]} << (8 * (i % kWordSize));
  return words;
}

bool isLoaded(const Variable &variable) { return (variable.flags & VAR_FLAGS_NOT_WRITABLE) == 0; }

int32_t loadModuleValues(VariableSet *set, const uint64_t *values) {
  for (size_t i = 0; i < countOf(set); ++i) {
    Variable *variable = &set->variables[i];
    if (!isLoaded(*variable)) continue;
    const int32_t code =
        values[i] == VAR_AUTO ? varSetIntValue(set, variable, VAR_AUTO) : varSetValue(set, variable, values[i]);
    if (code) return code;
  }
  return kSuccess;
}

// Which of the two functions sets a variable is decided by the word with the variable's index in the whole record, not
// by its own: both do the same, and the call trace of a failure keeps the name that it always had.
int32_t loadChipValues(VariableSet *set, const uint64_t *values, const Words &record) {
  for (size_t i = 0; i < countOf(set); ++i) {
    Variable *variable = &set->variables[i];
    if (!isLoaded(*variable)) continue;
    const int32_t code = record[i] == VAR_AUTO ? varSetIntValue(set, variable, static_cast<int64_t>(values[i]))
                                               : varSetValue(set, variable, values[i]);
    if (code) return code;
  }
  return kSuccess;
}

// Variables that follow their automatic values may do so from settings that have been loaded after them.
int32_t followSettings(VariableSet *set) {
  for (size_t i = 0; i < countOf(set); ++i) {
    Variable *variable = &set->variables[i];
    if (!isLoaded(*variable) || !(variable->flags & VAR_FLAG_AUTO)) continue;
    if (int32_t code = varSetIntValue(set, variable, VAR_AUTO)) return code;
  }
  return kSuccess;
}

int32_t settingsAddress(QTX_Handle *handle, uint32_t *address) {
  int64_t value = 0;
  const int32_t code = QTX_VarGetIntValue_ByName(handle, "AddressOfVariableStorage", &value);
  *address = static_cast<uint32_t>(value);
  return code;
}

std::string versionMismatch(const char *what, uint64_t stored, const VariableSet *set) {
  return std::string("Values in Flash are for ") + what + " variables version " + versionText(stored) + ", current " +
         what + " variables version is " + set->version;
}

// ---- Board information ----

// Trace points of a function that reads or programs the board information.
struct BoardInfoPoints {
  TracePoint call, list, connect, create, initialize, transfer, transfer_open;
};

template <typename Byte>
using BoardInfoOperation = int32_t (*)(ModuleHandle *, Byte *, int32_t);

// A module that is known to nothing but this call.
class TemporaryModule {
 public:
  ~TemporaryModule() {
    if (module) moduleFree(&module, nullptr);
  }
  ModuleHandle *module = nullptr;
};

// Finds a radar, whatever its board, and connects the handle's interface to it.
int32_t connectFirstRadar(QTX_Handle *handle, const BoardInfoPoints &points) {
  if (!handle->connection_info) return origin(handle->error, points.call, kError);
  std::array<char, 2048> radars{};
  if (int32_t code = QTX_ListRadarModules(handle, radars.data(), radars.size())) {
    return passThrough(handle->error, points.list, recordedCode(handle, code));
  }
  connectionStringToConnectionInfo(radars.data(), handle->connection_info);
  const ConnectionInfo &info = *handle->connection_info;
  InterfaceHandle *&bridge = handle->interface_handle;
  int32_t code = interfaceInitHandle(&bridge, &handle->error, handle, info.interface_name, &handle->open);
  if (code == kSuccess) code = interfaceInitInterface(bridge);
  if (code == kSuccess) code = interfaceConnect(bridge, info.interface_connection);
  if (code != kSuccess) {
    passThrough(handle->error, points.connect, code);
    releaseLayers(handle);
    return code;
  }
  storeConnectionString(handle, radars.data());
  return kSuccess;
}

// Starts a default module on the handle's interface and runs the operation on it. *started tells whether it got so far.
template <typename Byte>
int32_t transferWithoutModule(QTX_Handle *handle, const BoardInfoPoints &points, Byte *buffer, int32_t length,
                              BoardInfoOperation<Byte> ModuleHandle::*operation, bool *started) {
  TemporaryModule temporary;
  *started = false;
  if (int32_t code = moduleInitHandle(&temporary.module, &handle->error, handle, "DEFAULT")) {
    return passThrough(handle->error, points.create, code);
  }
  if (int32_t code = temporary.module->InitModule(temporary.module)) {
    return passThrough(handle->error, points.initialize, code);
  }
  *started = true;
  if (int32_t code = (temporary.module->*operation)(temporary.module, buffer, length)) {
    return passThrough(handle->error, points.transfer, code);
  }
  return kSuccess;
}

template <typename Byte>
int32_t transferBoardInfo(QTX_Handle *handle, const BoardInfoPoints &points, Byte *buffer, int32_t length,
                          BoardInfoOperation<Byte> ModuleHandle::*operation) {
  if (int32_t code = checkCall(handle, points.call, buffer)) return code;
  bool started = false;
  if (handle->module) {
    if (int32_t code = checkModule(handle, points.call, operation)) return code;
    if (int32_t code = (handle->module->*operation)(handle->module, buffer, length)) {
      return passThrough(handle->error, points.transfer_open, code);
    }
    return kSuccess;
  }
  if (interfaceIsConnected(handle)) {
    return transferWithoutModule(handle, points, buffer, length, operation, &started);
  }

  if (int32_t code = connectFirstRadar(handle, points)) return code;
  const int32_t code = transferWithoutModule(handle, points, buffer, length, operation, &started);
  const int32_t disconnect_code = interfaceDisconnect(handle->interface_handle);
  if (!started) {
    // The result is that of disconnecting, whatever else kept the board from starting.
    if (disconnect_code == kSuccess) releaseLayers(handle);
    return code == kOutOfMemory ? code : disconnect_code;
  }
  if (code == kSuccess) interfaceFreeHandle(&handle->interface_handle, nullptr);
  return code;
}

}  // namespace

extern "C" {

int32_t QTX_VarsSaveToFlash(QTX_Handle *handle) try {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE)) return code;
  const std::vector<uint8_t> record = toBytes(settingsRecord(handle));
  uint32_t address = 0;
  if (int32_t code = settingsAddress(handle, &address)) return passThrough(handle->error, HERE_AT(1715), code);
  if (int32_t code = QTX_ModuleWriteFlashMemory(handle, address, record.data(), static_cast<uint32_t>(record.size()))) {
    return passThrough(handle->error, HERE_AT(1726), code);
  }
  return kSuccess;
} catch (const std::bad_alloc &) {
  return origin(handle->error, HERE, kOutOfMemory);
}

int32_t QTX_VarsLoadFromFlash(QTX_Handle *handle) try {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE)) return code;
  const SettingsChange change(handle);
  VariableSet *module = moduleVariables(handle);
  VariableSet *chip = chipVariables(handle);
  uint32_t address = 0;
  if (int32_t code = settingsAddress(handle, &address)) return passThrough(handle->error, HERE_AT(1769), code);

  std::vector<uint8_t> bytes((countOf(module) + countOf(chip) + kFrameWords) * kWordSize, kErased);
  if (int32_t code = QTX_ModuleReadFlashMemory(handle, address, bytes.data(), static_cast<int32_t>(bytes.size()))) {
    passThrough(handle->error, HERE_AT(1779), code);
    if (endsWait(code)) return code;
    bytes.assign(bytes.size(), kErased);
  }
  const Words record = toWords(bytes);
  if (record[0] > kLargestVersion) {
    return origin(handle->error, HERE_AT(1787), kNoValidSetup, "Values in Flash are invalid");
  }
  if (module && versionText(record[0]) != module->version) {
    return origin(handle->error, HERE_AT(1813), kNoValidSetup, versionMismatch("Radar Module", record[0], module));
  }
  if (chip && versionText(record[1]) != chip->version) {
    return origin(handle->error, HERE_AT(1840), kNoValidSetup, versionMismatch("Radar IC", record[1], chip));
  }
  if (record.back() != kEndMark) {
    return origin(handle->error, HERE_AT(1852), kNoValidSetup, "Values in Flash are invalid");
  }

  const Restoring restoring(handle);
  const uint64_t *module_values = record.data() + kFirstVariable;
  if (int32_t code = loadModuleValues(module, module_values)) return passThrough(handle->error, HERE_AT(1875), code);
  if (int32_t code = loadChipValues(chip, module_values + countOf(module), record)) {
    return passThrough(handle->error, HERE_AT(1899), code);
  }
  if (int32_t code = followSettings(module)) return passThrough(handle->error, HERE_AT(1875), code);
  if (int32_t code = followSettings(chip)) return passThrough(handle->error, HERE_AT(1899), code);
  return kSuccess;
} catch (const std::bad_alloc &) {
  return origin(handle->error, HERE, kOutOfMemory);
}

int32_t QTX_ModuleReadFlashMemory(QTX_Handle *handle, uint32_t address, uint8_t *buffer, int32_t length) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE, buffer)) return code;
  if (int32_t code = checkModule(handle, HERE, &ModuleHandle::ReadFlashMemory)) return code;
  if (int32_t code = handle->module->ReadFlashMemory(handle->module, address, buffer, length)) {
    return passThrough(handle->error, HERE_AT(1586), code);
  }
  return kSuccess;
}

int32_t QTX_ModuleWriteFlashMemory(QTX_Handle *handle, uint32_t address, const uint8_t *buffer, uint32_t length) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE, buffer)) return code;
  if (int32_t code = checkModule(handle, HERE, &ModuleHandle::WriteFlashMemory)) return code;
  if (int32_t code = handle->module->WriteFlashMemory(handle->module, address, buffer, length)) {
    return passThrough(handle->error, HERE_AT(1599), code);
  }
  return kSuccess;
}

int32_t QTX_ModuleReadBoardInfo(QTX_Handle *handle, uint8_t *buffer, int32_t length) {
  const CallScope call(handle);
  return transferBoardInfo(
      handle, {HERE, HERE_AT(1443), HERE_AT(1453), HERE_AT(1467), HERE_AT(1474), HERE_AT(1483), HERE_AT(1496)}, buffer,
      length, &ModuleHandle::ReadBoardInfo);
}

int32_t QTX_ModuleProgramBoardInfo(QTX_Handle *handle, const uint8_t *buffer, int32_t length) {
  const CallScope call(handle);
  return transferBoardInfo(
      handle, {HERE, HERE_AT(1443), HERE_AT(1453), HERE_AT(1543), HERE_AT(1550), HERE_AT(1559), HERE_AT(1573)}, buffer,
      length, &ModuleHandle::ProgramBoardInfo);
}

}  // extern "C"
