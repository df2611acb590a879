// list, info: which radars there are, and what one is.
#include "commands.h"
#include "number.h"
#include "output.h"

namespace tool {

namespace {

Json toJson(const Attached &radar) {
  return {{"connection", radar.connection}, {"bridge", radar.bridge}, {"serial", radar.serial},
          {"board", radar.board},           {"chip", radar.chip},     {"state", radar.state()}};
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

void addRadarCommands(CLI::App &program, const Options &options) {
  addCommand(program, "list", "Attached radars")->callback([&] { list(options); });
  addCommand(program, "info", "What a radar is: bridge, board, chip")->callback([&] { info(options); });
}

}  // namespace tool
