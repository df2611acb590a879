#include "changes.h"

#include <algorithm>
#include <bit>

#include "Pulsekit3_settings.h"
#include "session.h"

namespace tool {

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

void reportChanges(const Options &options, const Radar &radar, const std::vector<Variable> &before,
                   const std::vector<Asked> &asked) {
  Json json{{"asked", Json::array()}, {"moved", Json::array()}};
  Table table({"name", "asked", "was", "is", ""});
  const auto find = [&](const std::string &name) {
    return std::find_if(before.begin(), before.end(), [&](const Variable &variable) { return variable.name == name; });
  };
  for (const Asked &one : asked) {
    const Variable now = radar.variable(one.name);
    const auto old = find(one.name);
    json["asked"].push_back({{"name", one.name},
                             {"asked", one.asked},
                             {"before", valueJson(now, old->value)},
                             {"now", valueJson(now, now.value)},
                             {"state", state(now)}});
    table.add({one.name, one.asked, now.pretty(old->value), now.pretty(), state(now)}, Style::Bold);
  }
  for (const Variable &old : before) {
    const bool was_asked =
        std::any_of(asked.begin(), asked.end(), [&](const Asked &one) { return one.name == old.name; });
    const Variable now = radar.variable(old.name);
    if (was_asked || (now.value == old.value && now.automatic == old.automatic)) continue;
    json["moved"].push_back({{"name", now.name},
                             {"before", valueJson(now, old.value)},
                             {"now", valueJson(now, now.value)},
                             {"state", state(now)}});
    table.add({now.name, "", now.pretty(old.value), now.pretty(), state(now)});
  }
  if (options.json) return printJson(json);
  if (table.empty()) return note("Nothing has changed.");
  table.print();
}

void change(const Options &options, const Radar &radar, const std::vector<Asked> &asked) {
  const std::vector<Variable> before = snapshot(radar);
  std::vector<const char *> names, values;
  for (const Asked &one : asked) {
    names.push_back(one.name.c_str());
    values.push_back(one.text.c_str());
  }
  std::vector<QTX_Change> changes(before.size());
  auto moved = static_cast<uint32_t>(changes.size());
  const auto count = static_cast<uint32_t>(asked.size());
  radar.check(QTX_VarsSetMany(radar, names.data(), values.data(), count, changes.data(), &moved));
  keepSession(radar);
  reportChanges(options, radar, before, asked);
}

}  // namespace tool
