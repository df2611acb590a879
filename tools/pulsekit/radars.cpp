// list, info: which radars there are, and what one is.
#include <algorithm>
#include <memory>

#include "Pulsekit3_control.h"
#include "commands.h"
#include "number.h"
#include "output.h"

namespace tool {

namespace {

Json toJson(const Attached &radar) {
  return {{"connection", radar.connection}, {"bridge", radar.bridge}, {"serial", radar.serial},
          {"board", radar.board},           {"chip", radar.chip},     {"state", radar.state()}};
}

void announce(const Options &options, const char *change, const Attached &radar) {
  if (!options.json)
    return printLine(cat(change, "  ", radar.serial, "  ", radar.board, "  ", radar.chip, "  ", radar.state()));
  Json json = toJson(radar);
  json["change"] = change;
  printLine(json.dump(-1, ' ', false, Json::error_handler_t::replace));
}

// One line for each radar that is there, comes or goes, until Ctrl-C.
void watchList(const Options &options) {
  const Handle handle(options);
  std::vector<Attached> known;
  const char *arrival = "attached";
  const auto holds = [](const std::vector<Attached> &radars, const Attached &radar) {
    return std::any_of(radars.begin(), radars.end(),
                       [&](const Attached &r) { return r.connection == radar.connection; });
  };
  // From here on changes count.
  const int32_t first = QTX_WaitForRadarChange(handle, 0);
  if (first != kWaitedTooLong) handle.check(first);
  while (!interrupted()) {
    const std::vector<Attached> radars = attachedRadars(handle);
    for (const Attached &radar : radars) {
      if (!holds(known, radar)) announce(options, arrival, radar);
    }
    for (const Attached &radar : known) {
      if (!holds(radars, radar)) announce(options, "removed", radar);
    }
    known = radars;
    arrival = "arrived";
    const int32_t code = QTX_WaitForRadarChange(handle, -1);
    if (!interrupted()) handle.check(code);
  }
}

void list(const Options &options) {
  const Handle handle(options);
  const std::vector<Attached> radars = attachedRadars(handle);
  if (options.json) {
    Json json = Json::array();
    for (const Attached &radar : radars) json.push_back(toJson(radar));
    return printJson(json);
  }
  if (radars.empty()) return note("No radar is attached. pulsekit doctor looks for what is missing.");
  Table table({"", "serial", "board", "chip", "state"});
  for (size_t i = 0; i < radars.size(); ++i) {
    const Attached &radar = radars[i];
    table.add({cat(i + 1), radar.held() ? "?" : radar.serial, radar.board, radar.chip, radar.state()});
  }
  table.print();
}

void info(const Options &options) {
  const Radar radar(options, Need::Bridge);
  const Attached &attached = radar.attached();
  std::vector<std::pair<std::string, std::string>> facts{{"connection", attached.connection},
                                                         {"bridge", attached.bridge},
                                                         {"serial", attached.serial},
                                                         {"board", attached.board},
                                                         {"chip", attached.chip}};
  const auto add = [&](const char *label, const char *name) {
    facts.emplace_back(label, radar.variable(name).pretty());
  };
  if (attached.board != "Unknown") {
    char information[65] = "";
    if (QTX_ModuleReadBoardInfo(radar, reinterpret_cast<uint8_t *>(information), 63) == 0) {
      std::string id(information + 31, 32);
      id.resize(std::min(id.find('\0'), id.find('\xff')));
      if (!trim(id).empty()) facts.emplace_back("board id", printable(trim(id)));
    }
  }
  if (attached.chip != "Unknown") {
    add("chip id", "ChipID");
    add("reference clock", "ClockFrequency");
    add("sampling rate", "SamplesPerSecond");
    add("samplers", "SamplersPerFrame");
  }
  add("SPI clock", "SPIClockFrequency");
  char version[32] = "";
  QTX_Version(version, sizeof version);
  facts.emplace_back("library", cat(QTX_SupportName(), ' ', version));
  Json json;
  size_t width = 0;
  for (const auto &[label, value] : facts) {
    json[label] = value;
    width = std::max(width, label.size());
  }
  if (options.json) return printJson(json);
  for (const auto &[label, value] : facts)
    printLine(cat(styled(label, Style::Bold), std::string(width + 2 - label.size(), ' '), value));
}

}  // namespace

void addRadarCommands(const Command &program, const Options &options) {
  const Command command = program.add("list", "Attached radars");
  const auto watch = std::make_shared<bool>(false);
  command.flag("--watch", *watch, "Tell arrivals and removals until Ctrl-C");
  command.runs([&options, watch] { *watch ? watchList(options) : list(options); });
  program.add("info", "What a radar is: bridge, board, chip").runs([&] { info(options); });
}

}  // namespace tool
