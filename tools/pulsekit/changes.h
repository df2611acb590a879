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

struct Moved {
  Variable now;
  uint64_t before;
};
/// What holds something else than then, or follows its automatic value where it did not, or the other way round.
std::vector<Moved> movedSince(const Radar &radar, const std::vector<Variable> &before);

void reportChanges(const Options &options, const Radar &radar, const std::vector<Moved> &moved,
                   const std::vector<Asked> &asked = {});

/// Sets them, keeps them for the commands that follow, and reports.
void change(const Options &options, const Radar &radar, const std::vector<Asked> &asked);

}  // namespace tool
