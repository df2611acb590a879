// What a command has changed: what was asked, what is held now, and every other value that moved.
#pragma once

#include "output.h"
#include "radar.h"

namespace tool {

/// A value for JSON: a number, or the text of an item.
Json valueJson(const Variable &variable, uint64_t word);

/// "automatic", "fixed", "read-only" or "hidden".
const char *state(const Variable &variable);

/// What all settings hold, to tell afterwards what has moved.
std::vector<Variable> snapshot(const Radar &radar);

struct Asked {
  std::string name, asked, text;  ///< as the user and as the library writes the value
};

void reportChanges(const Options &options, const Radar &radar, const std::vector<Variable> &before,
                   const std::vector<Asked> &asked);

/// Sets them, keeps them for the commands that follow, and reports.
void change(const Options &options, const Radar &radar, const std::vector<Asked> &asked);

}  // namespace tool
