#include "changes.h"

#include <algorithm>
#include <bit>

#include "Pulsekit3_settings.h"
#include "session.h"

namespace tool {

static constexpr size_t kSpare = 16;

Json valueJson(const Variable &variable, uint64_t word) {
  if (variable.isFloat()) return std::bit_cast<double>(word);
  if (variable.isEnum()) return variable.text(word);
  return word;
}

const char *state(const Variable &variable) {
  if (!variable.visible) return "hidden";
  if (!variable.writable) return "read-only";
  return variable.automatic ? "automatic" : "fixed";
}

// Live readings measure anew each time.
std::vector<Variable> snapshot(const Radar &radar) {
  std::vector<Variable> variables;
  for (const std::string &name : radar.variables()) {
    if (Radar::live(name)) continue;
    Variable variable = radar.variable(name);
    if (variable.visible) variables.push_back(std::move(variable));
  }
  return variables;
}

std::vector<Moved> movedSince(const Radar &radar, const std::vector<Variable> &before) {
  std::vector<Moved> moved;
  for (const Variable &old : before) {
    const Variable now = radar.variable(old.name);
    if (now.value != old.value || now.automatic != old.automatic) moved.push_back({now, old.value});
  }
  return moved;
}

void reportChanges(const Options &options, const Radar &radar, const std::vector<Moved> &moved,
                   const std::vector<Asked> &asked) {
  Json json{{"asked", Json::array()}, {"moved", Json::array()}};
  Table table({"name", "asked", "was", "is", ""});
  for (const Asked &one : asked) {
    const Variable now = radar.variable(one.name);
    const auto change =
        std::find_if(moved.begin(), moved.end(), [&](const Moved &m) { return m.now.name == one.name; });
    const uint64_t before = change == moved.end() ? now.value : change->before;
    json["asked"].push_back({{"name", one.name},
                             {"asked", one.asked},
                             {"before", valueJson(now, before)},
                             {"now", valueJson(now, now.value)},
                             {"state", state(now)}});
    table.add({one.name, one.asked, now.pretty(before), now.pretty(), state(now)}, Style::Bold);
  }
  for (const auto &[now, before] : moved) {
    const std::string &name = now.name;
    if (std::any_of(asked.begin(), asked.end(), [&](const Asked &one) { return one.name == name; })) continue;
    json["moved"].push_back({{"name", name},
                             {"before", valueJson(now, before)},
                             {"now", valueJson(now, now.value)},
                             {"state", state(now)}});
    table.add({name, "", now.pretty(before), now.pretty(), state(now)});
  }
  if (options.json) return printJson(json);
  if (table.empty()) return note("Nothing has changed.");
  table.print();
}

// Changes tell an item by its symbol, variables by its place.
static uint64_t wordOf(const Radar &radar, const Variable &variable, uint64_t word) {
  if (!variable.isEnum()) return word;
  char item[257] = "";
  const auto symbol = static_cast<uint32_t>(word);
  radar.check(QTX_VarGetSymbolString(radar, variable.name.c_str(), symbol, item, sizeof item - 1));
  const auto found = std::find(variable.items.begin(), variable.items.end(), item);
  return static_cast<uint64_t>(found - variable.items.begin());
}

void change(const Options &options, const Radar &radar, const std::vector<Asked> &asked) {
  std::vector<const char *> names, values;
  for (const Asked &one : asked) {
    names.push_back(one.name.c_str());
    values.push_back(one.text.c_str());
  }
  // Each setting may bring some that are none of the list of changes yet.
  std::vector<QTX_Change> changes(radar.variables().size() + kSpare * asked.size());
  auto count = static_cast<uint32_t>(changes.size());
  radar.check(
      QTX_VarsSetMany(radar, names.data(), values.data(), static_cast<uint32_t>(asked.size()), changes.data(), &count));
  keepSession(radar);
  std::vector<Moved> moved;
  for (uint32_t i = 0; i < count; ++i) {
    if (Radar::live(changes[i].name)) continue;
    const Variable now = radar.variable(changes[i].name);
    if (now.visible) moved.push_back({now, wordOf(radar, now, changes[i].before)});
  }
  reportChanges(options, radar, moved, asked);
}

}  // namespace tool
