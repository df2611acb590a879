// settings, get, set, reset, action: variables of an open radar.
#include <algorithm>
#include <memory>

#include "changes.h"
#include "commands.h"
#include "geometry.h"
#include "output.h"
#include "session.h"

namespace tool {

namespace {

constexpr const char *kNoMeaning = "not documented for this chip";

Json names(std::span<const char *const> list) {
  Json json = Json::array();
  for (const char *name : list) json.push_back(name);
  return json;
}

std::string joined(std::span<const char *const> list) { return join(Strings(list.begin(), list.end()), ", "); }

Json toJson(const Variable &variable) {
  const pulsekit::Meaning *meaning = variable.meaning;
  Json json{{"name", variable.name},
            {"layer", variable.layer},
            {"level", variable.basic() ? "basic" : "expert"},
            {"value", variable.visible ? valueJson(variable, variable.value) : Json()},
            {"state", state(variable)},
            {"unit", variable.unit()}};
  if (variable.isEnum()) {
    json["items"] = variable.items;
  } else {
    json["min"] = valueJson(variable, variable.least);
    json["max"] = valueJson(variable, variable.most);
  }
  json["meaning"] = meaning ? meaning->help : kNoMeaning;
  json["automatic"] = meaning ? meaning->automatic : "";
  json["follows"] = meaning ? names(meaning->follows) : Json::array();
  json["followed_by"] = meaning ? names(meaning->followed_by) : Json::array();
  return json;
}

std::string meaningText(const Variable &variable) { return variable.meaning ? variable.meaning->help : kNoMeaning; }

void printDetails(const Variable &variable) {
  printLine(styled(variable.name, Style::Bold));
  const auto line = [](const char *label, const std::string &text) {
    if (!text.empty()) printLine(cat("  ", label, std::string(14 - columns(label), ' '), text));
  };
  const pulsekit::Meaning *meaning = variable.meaning;
  line("meaning", meaningText(variable));
  line("value", variable.visible ? cat(variable.pretty(), ", ", state(variable)) : state(variable));
  line(variable.isEnum() ? "items" : "range", variable.range());
  line("level", cat(variable.basic() ? "basic" : "expert", ", of the ", variable.layer));
  if (!meaning) return;
  line("automatic", meaning->automatic);
  line("follows", joined(meaning->follows));
  line("followed by", joined(meaning->followed_by));
}

void printGroup(const char *title, const std::vector<Variable> &variables, bool basic) {
  Table table({"name", "value", "", "range", "meaning"});
  for (const Variable &variable : variables) {
    if (variable.basic() != basic) continue;
    const bool fixed = variable.writable && !variable.automatic;
    table.add({variable.name, variable.visible ? variable.pretty() : "", state(variable), variable.range(),
               meaningText(variable)},
              fixed ? Style::Yellow : Style::Plain);
  }
  if (table.empty()) return;
  printLine(styled(title, Style::Bold));
  table.print();
  printLine("");
}

struct SettingsRequest {
  Strings patterns;
  bool basic = false, expert = false, fixed = false, details = false;
};

void settings(const Options &options, const SettingsRequest &request) {
  const Radar radar(options, Need::Bridge);
  std::vector<Variable> variables = radar.variables(request.patterns);
  if (variables.empty()) {
    const Strings near = nearest(request.patterns.at(0), radar.variables());
    throw Failure(cat("no setting fits ", join(request.patterns, " ")),
                  near.empty() ? "pulsekit settings lists all" : cat("near is ", join(near, ", ")));
  }
  std::erase_if(variables, [&](const Variable &variable) {
    return (request.basic && !variable.basic()) || (request.expert && variable.basic()) ||
           (request.fixed && (!variable.writable || variable.automatic));
  });
  if (options.json) {
    Json json = Json::array();
    for (const Variable &variable : variables) json.push_back(toJson(variable));
    return printJson(json);
  }
  if (request.details || (variables.size() == 1 && !request.patterns.empty())) {
    for (const Variable &variable : variables) printDetails(variable);
    return;
  }
  printGroup("Basic settings", variables, true);
  printGroup("Expert settings", variables, false);
}

void get(const Options &options, const Strings &wanted) {
  const Radar radar(options, Need::Bridge);
  Json json;
  for (const std::string &name : wanted) {
    const Variable variable = radar.variable(name);
    if (!variable.visible)
      throw Failure(cat(name, " is hidden at the moment"), "pulsekit settings tells what it follows");
    if (options.json) {
      json[name] = valueJson(variable, variable.value);
    } else {
      printLine(wanted.size() == 1 ? variable.text() : cat(name, '=', variable.text()));
    }
  }
  if (options.json) printJson(json);
}

std::vector<Asked> parseAssignments(const Radar &radar, const Strings &assignments) {
  std::vector<Asked> asked;
  for (const std::string &assignment : assignments) {
    const size_t equals = assignment.find('=');
    if (equals == std::string::npos || equals == 0) {
      throw Usage(cat('"', printable(assignment), "\" is no assignment"), "write NAME=VALUE, such as PulsesPerStep=40");
    }
    const std::string name = trim(assignment.substr(0, equals));
    const std::string value = trim(assignment.substr(equals + 1));
    asked.push_back({name, value, radar.variable(name).parse(value)});
  }
  return asked;
}

void set(const Options &options, const Strings &assignments) {
  const Radar radar(options, Need::Bridge);
  change(options, radar, parseAssignments(radar, assignments));
}

void reset(const Options &options, const Strings &wanted) {
  const Radar radar(options, Need::Bridge);
  if (!wanted.empty()) {
    std::vector<Asked> asked;
    for (const std::string &name : wanted) asked.push_back({radar.variable(name).name, "auto", "auto"});
    return change(options, radar, asked);
  }
  const std::vector<Variable> before = snapshot(radar);
  radar.check(QTX_VarsResetAllToDefault(radar));
  for (const Variable &variable : before) {
    if (std::string_view(variable.layer) != "bridge" || !variable.writable || variable.automatic) continue;
    radar.check(QTX_VarSetValue_ByString(radar, variable.name.c_str(), "auto"));
  }
  keepSession(radar);
  reportChanges(options, radar, movedSince(radar, before));
}

void action(const Options &options, const std::string &name) {
  const Radar radar(options, Need::Bridge);
  if (!name.empty()) {
    const std::vector<Variable> before = snapshot(radar);
    {
      const auto progress = Progress::expecting(name, name == "MeasureAll" ? calibrationSeconds(radar) : 0);
      radar.check(QTX_ExecuteAction_ByName(radar, name.c_str()));
    }
    keepSession(radar);
    return reportChanges(options, radar, movedSince(radar, before));
  }
  Json json = Json::array();
  Table table({"action", "level", "meaning"});
  for (const std::string &each : radar.actions()) {
    const pulsekit::Meaning *meaning = radar.meaning(each);
    const char *level = meaning && meaning->level == pulsekit::Level::basic ? "basic" : "expert";
    const char *help = meaning ? meaning->help : kNoMeaning;
    json.push_back({{"name", each}, {"level", level}, {"meaning", help}});
    table.add({each, level, help});
  }
  options.json ? printJson(json) : table.print();
}

}  // namespace

void addSettingsCommands(const Command &program, const Options &options) {
  {
    const Command command = program.add("settings", "Settings with value, range, unit and meaning");
    const auto request = std::make_shared<SettingsRequest>();
    command.argument("PATTERN", request->patterns, "Names, with * and ?, or parts of names");
    command.flag("--basic", request->basic, "Only what most users change");
    command.flag("--expert", request->expert, "Only the others");
    command.flag("--fixed", request->fixed, "Only what does not follow its automatic value");
    command.flag("--details", request->details, "All that is known of each, what it follows and what follows it");
    command.runs([&options, request] { settings(options, *request); });
  }
  const auto with_names = [&](const char *name, const char *help, const char *what, const char *what_help, auto run,
                              bool required) {
    const Command command = program.add(name, help);
    const auto names = std::make_shared<Strings>();
    Argument argument = command.argument(what, *names, what_help);
    if (required) argument.required();
    command.runs([&options, names, run] { run(options, *names); });
  };
  with_names("get", "Values of settings, as set takes them", "NAME", "Names of settings", get, true);
  with_names("set", "Change settings, all together or none", "NAME=VALUE",
             "A setting and its value: a number with unit (1.5ns, 15MHz, 0x20), an item, or auto", set, true);
  with_names("reset", "Let settings follow their automatic values again", "NAME", "Names of settings; all without",
             reset, false);
  const Command command = program.add("action", "Run an action of chip, board or bridge");
  const auto name = std::make_shared<std::string>();
  command.argument("NAME", *name, "The action; without it, all are listed");
  command.runs([&options, name] { action(options, *name); });
}

}  // namespace tool
