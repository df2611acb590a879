#include "radar.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <charconv>
#include <mutex>

#include "FTx232H_D2XX.h"
#include "Pulsekit3_control.h"
#include "meaning-autogen.h"
#include "number.h"
#include "output.h"
#include "session.h"
#include "simulation.h"

namespace tool {

namespace {

constexpr int32_t kBufferTooSmall = 2;
constexpr int32_t kNotVisible = 1282;
constexpr const char *kGeneralRemedy =
    "pulsekit doctor checks radar and settings; --trace shows the way of the failure";
constexpr const char *kUnknown = "Unknown";

// The library's advice is for those who program; at a terminal there are commands.
constexpr std::pair<std::string_view, std::string_view> kCommandFor[] = {
    {"QTX_ListVariables", "pulsekit settings"},
    {"QTX_ListActions", "pulsekit action"},
    {"QTX_ListRadarModules", "pulsekit list"},
    {"QTX_OpenRadar", "--radar"},
    {"QTX_PowerOnRadar", "pulsekit reset RadarModulePower"},
    {"QTX_CheckSettings", "pulsekit doctor"},
    {"QTX_GetFrameGeometry", "pulsekit geometry"},
    {"QTX_ModuleReadBoardInfo", "pulsekit board show"},
    {"QTX_Calibrate", "pulsekit calibrate --store"},
    {"QTX_VarsSaveToFlash", "pulsekit store"},
};

std::atomic<bool> interrupt_requested = false;
std::mutex open_handle_guard;
QTX_Handle *open_handle = nullptr;
int uninterrupted = 0;

std::string withCommands(std::string advice) {
  for (const auto &[function, command] : kCommandFor) {
    for (size_t at = 0; (at = advice.find(function, at)) != std::string::npos; at += command.size())
      advice.replace(at, function.size(), command);
  }
  return advice;
}

Attached parse(const std::string &connection) {
  Strings fields = split(connection, QTX_ConnectionStringDelimiter1());
  fields.resize(4, kUnknown);
  std::string serial = fields[1];
  if (const size_t open = serial.find('('), close = serial.rfind(')'); open != std::string::npos && close > open) {
    serial = serial.substr(open + 1, close - open - 1);
  }
  return {connection, fields[0], serial, fields[2], fields[3]};
}

std::string listed(const std::vector<Attached> &radars) {
  Strings lines;
  for (size_t i = 0; i < radars.size(); ++i) {
    lines.push_back(cat(i + 1, ": ", radars[i].held() ? "?" : radars[i].serial, " (", radars[i].state(), ')'));
  }
  return join(lines, ", ");
}

bool enough(const Attached &radar, Need need) {
  if (radar.held()) return false;
  if (need == Need::Chip) return radar.usable();
  return need == Need::Bridge || radar.board != kUnknown;
}

Attached onlyOne(const std::vector<Attached> &radars, Need need) {
  std::vector<Attached> usable;
  std::copy_if(radars.begin(), radars.end(), std::back_inserter(usable),
               [&](const Attached &r) { return enough(r, need); });
  if (usable.size() == 1) return usable[0];
  if (radars.empty()) {
    throw Failure("no radar is attached", "plug one in, or add --simulate; pulsekit doctor looks for what is missing");
  }
  if (usable.empty()) {
    throw Failure(cat("none of the attached radars can be used: ", listed(radars)),
                  "pulsekit doctor says what keeps them");
  }
  throw Usage(cat("several radars are attached: ", listed(radars)), "choose one with --radar SERIAL");
}

Attached choose(const Handle &handle, const std::string &wanted, Need need) {
  // A whole connection string needs no listing, which would power up every other board.
  if (std::count(wanted.begin(), wanted.end(), QTX_ConnectionStringDelimiter1()) == 3) return parse(wanted);
  const std::vector<Attached> radars = attachedRadars(handle);
  return wanted.empty() ? onlyOne(radars, need) : chosenRadar(radars, wanted);
}

// The library lists "type (driver)".
std::vector<std::pair<std::string, std::string>> boardDrivers(const Handle &handle) {
  std::vector<std::pair<std::string, std::string>> result;
  const auto read = [](char *text, int32_t size) { return QTX_ListSupportedModules(text, size); };
  for (const std::string &entry : split(handle.text(read), QTX_ListDelimiter())) {
    const size_t open = entry.find(" (");
    if (open != std::string::npos)
      result.emplace_back(entry.substr(0, open), entry.substr(open + 2, entry.size() - open - 3));
  }
  return result;
}

std::string boardDriver(const Handle &handle, const std::string &board) {
  for (const auto &[type, driver] : boardDrivers(handle)) {
    if (type == board) return driver;
  }
  return board;
}

}  // namespace

bool interrupted() { return interrupt_requested; }

void interrupt() {
  interrupt_requested = true;
  const std::lock_guard lock(open_handle_guard);
  if (open_handle && uninterrupted == 0) QTX_Cancel(open_handle);
}

Uninterrupted::Uninterrupted() {
  const std::lock_guard lock(open_handle_guard);
  ++uninterrupted;
}

Uninterrupted::~Uninterrupted() {
  const std::lock_guard lock(open_handle_guard);
  --uninterrupted;
}

Failure failure(QTX_Handle *handle, int32_t code) {
  char text[4096] = "";
  QTX_GetErrorDescription(handle, text, sizeof text, code);
  std::string description = text, trace;
  if (const size_t at = description.find("   at: "); at != std::string::npos) {
    trace = description.substr(at);
    description.resize(at);
  }
  description = trim(description);
  if (description.ends_with(" -")) description.resize(description.size() - 2);
  char advice[1024] = "";
  QTX_GetErrorAdvice(handle, advice, sizeof advice);
  return Failure(printable(description), *advice ? withCommands(advice) : kGeneralRemedy, trace);
}

Strings bridgeLibraries() {
  char text[4096] = "";
  FTx232H_DescribeBridgeLibraries(text, sizeof text);
  Strings lines = split(text, '\n');
  std::erase(lines, "");
  return lines;
}

std::string missingBridgeLibrary() {
  const Strings lines = bridgeLibraries();
  const auto serves = [](const std::string &line) { return line.ends_with(": loaded") || line.ends_with(": in use"); };
  return std::any_of(lines.begin(), lines.end(), serves) ? "" : join(lines, "; ");
}

Handle::Handle(const Options &options) {
  if (!options.simulation.empty()) simulate(options.simulation, options.fresh);
  if (int32_t code = QTX_InitHandle(&handle_)) throw failure(nullptr, code);
  const std::lock_guard lock(open_handle_guard);
  open_handle = handle_;
}

Handle::~Handle() {
  {
    const std::lock_guard lock(open_handle_guard);
    open_handle = nullptr;
  }
  QTX_CloseRadar(handle_);
  QTX_FreeHandle(&handle_);
  try {
    keepSimulatedFlash();
  } catch (const Failure &failure) {
    note(failure.what());
  }
}

void Handle::check(int32_t code) const {
  if (code != 0) throw failure(handle_, code);
}

std::string Handle::text(const std::function<int32_t(char *, int32_t)> &read) const {
  for (int32_t size = 4096;; size *= 4) {
    std::string buffer(static_cast<size_t>(size), '\0');
    const int32_t code = read(buffer.data(), size - 1);
    if (code == kBufferTooSmall && size < (1 << 22)) continue;
    check(code);
    buffer.resize(buffer.find('\0'));
    return buffer;
  }
}

std::string Attached::state() const {
  if (held()) return "held by another program, or no rights to it";
  if (board == kUnknown) return "no board recognised";
  return chip == kUnknown ? "no chip recognised" : "ready";
}

std::vector<Attached> attachedRadars(const Handle &handle) {
  if (const std::string missing = missingBridgeLibrary(); !missing.empty()) {
    throw Failure(cat("no bridge library: ", missing),
                  "install the vendor's D2XX library, or name one in PULSEKIT3_BRIDGE_LIBRARY, or add --simulate");
  }
  const std::string list = handle.text(
      [&](char *text, int32_t size) { return QTX_ListRadarModules(handle, text, static_cast<uint32_t>(size)); });
  std::vector<Attached> result;
  for (const std::string &connection : split(list, QTX_ConnectionStringDelimiter2())) {
    if (!connection.empty()) result.push_back(parse(connection));
  }
  return result;
}

Attached chosenRadar(const std::vector<Attached> &radars, const std::string &wanted) {
  size_t number = 0;
  const auto parsed = std::from_chars(wanted.data(), wanted.data() + wanted.size(), number);
  std::vector<Attached> fitting;
  for (size_t i = 0; i < radars.size(); ++i) {
    if (wanted == radars[i].serial || wanted == radars[i].connection) return radars[i];
    if (parsed.ptr == wanted.data() + wanted.size() && number == i + 1) return radars[i];
    const bool whole = parsed.ec != std::errc() && matches(radars[i].connection, wanted);
    if (whole || matches(radars[i].serial, wanted)) fitting.push_back(radars[i]);
  }
  if (fitting.size() == 1) return fitting[0];
  throw Usage(cat(fitting.empty() ? "no attached radar is called \"" : "several attached radars fit \"", wanted, '"'),
              radars.empty() ? "no radar is attached: pulsekit doctor looks for what is missing"
                             : cat("attached are ", listed(radars)));
}

Strings supportedBoards(const Handle &handle) {
  Strings types;
  for (const auto &[type, driver] : boardDrivers(handle)) types.push_back(type);
  return types;
}

Radar::Radar(const Options &options, Need need) : handle_(options), attached_(choose(handle_, options.radar, need)) {
  board_driver_ = boardDriver(handle_, attached_.board);
  if (attached_.held()) {
    throw Failure(cat("radar ", attached_.serial, " is held by another program, or you have no rights to it"),
                  "close the other program, or see pulsekit doctor for the rights");
  }
  const int32_t code = QTX_OpenRadar(handle_, attached_.connection.c_str());
  // A chip that does not start leaves board and bridge open.
  if (code != 0 && (need == Need::Chip || variables().empty())) throw failure(handle_, code);
  if (variables().empty()) throw failure(handle_, 0);
  if (!enough(attached_, need)) {
    throw Failure(cat("radar ", attached_.serial, ": ", attached_.state()),
                  "pulsekit doctor looks for what is missing");
  }
  if (!options.fresh) resumeSession(*this);
}

Radar::~Radar() = default;

std::string Variable::text(uint64_t word) const {
  if (isFloat()) return numberText(std::bit_cast<double>(word));
  if (isEnum()) return word < items.size() ? items[word] : cat(word);
  return cat(word);
}

std::string Variable::pretty(uint64_t word) const {
  if (isFloat()) return quantity(std::bit_cast<double>(word), unit());
  if (isEnum() || *unit() == '\0') return text(word);
  if (std::string_view(unit()) == "Hz") return quantity(static_cast<double>(word), "Hz", 9);
  return cat(word, ' ', word == 1 ? singular(unit()) : unit());
}

std::string Variable::range() const {
  if (!visible) return "hidden";
  if (isEnum()) return join(items, " | ");
  return cat(least == 0 ? "0" : pretty(least), " .. ", pretty(most));
}

std::string Variable::parse(std::string_view input) const {
  if (lower(input) == "auto") return "auto";
  if (isEnum()) {
    for (const std::string &item : items) {
      if (lower(item) == lower(input)) return item;
    }
    throw Usage(cat(name, ": there is no item \"", printable(input), '"'),
                cat("it has ", join(items, ", "), " and auto"));
  }
  if (!isFloat()) return cat(parseWhole(input, unit(), name, least, most));
  const double number = parseNumber(input, unit(), name);
  if (number < std::bit_cast<double>(least) || number > std::bit_cast<double>(most)) {
    throw Usage(cat(name, " \"", printable(input), "\": out of range"), cat("take one from ", range()));
  }
  return numberText(number);
}

Strings Radar::variables() const {
  Strings names =
      split(handle_.text([&](char *text, int32_t size) { return QTX_ListVariables(handle_, text, size); }), ',');
  std::erase(names, "");
  return names;
}

Strings Radar::actions() const {
  Strings names =
      split(handle_.text([&](char *text, int32_t size) { return QTX_ListActions(handle_, text, size); }), ',');
  std::erase(names, "");
  return names;
}

const pulsekit::Meaning *Radar::meaning(const std::string &name, const char **layer) const {
  const std::pair<const char *, const std::string &> layers[] = {
      {"chip", attached_.chip}, {"board", board_driver_}, {"bridge", attached_.bridge}};
  for (const auto &[own_layer, model] : layers) {
    if (const pulsekit::Meaning *meaning = pulsekit::findMeaning(model, name)) {
      if (layer) *layer = own_layer;
      return meaning;
    }
  }
  return nullptr;
}

Variable Radar::variable(const std::string &name) const {
  Variable result;
  result.name = name;
  const char *c_name = name.c_str();
  check(QTX_VarGetType_ByName(handle_, c_name, &result.type));
  uint32_t writable = 0, automatic = 0;
  const int32_t code =
      QTX_VarGetIntProperties_ByName(handle_, c_name, &result.least, &result.most, &writable, &automatic);
  result.visible = code != kNotVisible;
  if (result.visible) check(code);
  result.writable = writable == 1;
  result.automatic = automatic == 1;
  result.meaning = meaning(name, &result.layer);
  if (result.isEnum()) {
    uint32_t symbols[256];
    int32_t count = std::size(symbols);
    check(QTX_VarGetEnumsItems_ByName(handle_, c_name, symbols, &count));
    for (int32_t i = 0; i < count; ++i) {
      char text[257] = "";
      check(QTX_VarGetSymbolString(handle_, c_name, symbols[i], text, sizeof text - 1));
      result.items.push_back(text);
    }
  }
  if (result.visible) result.value = whole(name);
  return result;
}

// Live readings come last, since measuring them touches other variables.
std::vector<Variable> Radar::variables(const Strings &patterns) const {
  const Strings names = variables();
  const auto wanted = [&](const std::string &name) {
    return patterns.empty() || std::any_of(patterns.begin(), patterns.end(), [&](const std::string &pattern) {
             const bool whole_name = std::find(names.begin(), names.end(), pattern) != names.end();
             return whole_name ? name == pattern : matches(name, pattern);
           });
  };
  std::vector<Variable> result;
  for (const std::string &name : names) {
    if (!wanted(name)) continue;
    result.emplace_back().name = name;
    if (!live(name)) result.back() = variable(name);
  }
  for (Variable &each : result) {
    if (live(each.name)) each = variable(each.name);
  }
  return result;
}

double Radar::number(const std::string &name) const {
  double value = 0;
  check(QTX_VarGetValueAsFloat_ByName(handle_, name.c_str(), &value));
  return value;
}

uint64_t Radar::whole(const std::string &name) const {
  int64_t value = 0;
  check(QTX_VarGetIntValue_ByName(handle_, name.c_str(), &value));
  return static_cast<uint64_t>(value);
}

}  // namespace tool
