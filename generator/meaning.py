"""The meaning of all variables and actions, as C++ and as JSON, for programs that explain settings."""
import json

from sources import text_literal

HEADER = '''// Generated from the descriptions: change those, not this.
#pragma once

#include <span>
#include <string_view>

namespace pulsekit {

enum class Level { basic, expert };

/// What a variable or an action of a chip, module or bridge is for.
struct Meaning {
  const char *model;      ///< chip model, module driver or bridge type, as the library's lists name it
  const char *name;       ///< of the variable or action
  bool action;
  const char *unit;       ///< "" where it has none
  const char *help;       ///< one line without a full stop
  Level level;
  const char *automatic;  ///< the automatic value: a number, an item, a formula of other variables; "" of an action
  std::span<const char *const> follows;      ///< variables that the automatic value is computed from
  std::span<const char *const> followed_by;  ///< variables whose automatic values change with this one
};

/// All of them, model by model in the order of the library's variables, then its actions.
std::span<const Meaning> meanings();

/// Null when the model has no such variable or action.
const Meaning *findMeaning(std::string_view model, std::string_view name);

}  // namespace pulsekit
'''

FIND = '''
std::span<const Meaning> meanings() { return kMeanings; }

const Meaning *findMeaning(std::string_view model, std::string_view name) {
  for (const Meaning &meaning : kMeanings) {
    if (meaning.model == model && meaning.name == name) return &meaning;
  }
  return nullptr;
}

}  // namespace pulsekit
'''


def write(descriptions, directory):
    directory.mkdir(parents=True, exist_ok=True)
    (directory / 'meaning-autogen.h').write_text(HEADER, encoding='utf-8')
    (directory / 'meaning-autogen.cpp').write_text(_source(descriptions), encoding='utf-8')


def write_table(descriptions, path):
    """{model: {name: [unit, help, whether most people need it]}}"""
    table = {}
    for description in descriptions:
        for entry in [*description.variables, *description.actions]:
            texts = entry.entry
            table.setdefault(description.model, {})[entry.name] = [
                texts.get('unit', ''), texts['help'], texts['level'] == 'basic']
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(json.dumps(table, indent=0, ensure_ascii=False), encoding='utf-8')


def _source(descriptions):
    lists, rows = {}, ''  # lists of names -> their identifiers

    def names(texts):
        return lists.setdefault(tuple(texts), f'kNames{len(lists)}') if texts else '{}'

    for description in descriptions:
        for variable in description.variables:
            rows += _row(description, variable, 'false', names(variable.sources),
                         names([dependent.name for dependent in variable.dependents]))
        for action in description.actions:
            rows += _row(description, action, 'true', '{}', '{}')
    tables = ''.join(f'constexpr const char *{identifier}[] = {{{", ".join(map(text_literal, texts))}}};\n'
                     for texts, identifier in lists.items())
    return f'''// Generated from the descriptions: change those, not this.
#include "meaning-autogen.h"

namespace pulsekit {{

namespace {{

{tables}
constexpr Meaning kMeanings[] = {{
{rows}}};

}}  // namespace
{FIND}'''


def _row(description, entry, action, follows, followed_by):
    texts = entry.entry
    cells = [text_literal(description.model), text_literal(entry.name), action, text_literal(texts.get('unit', '')),
             text_literal(texts['help']), f'Level::{texts["level"]}', text_literal(str(texts.get('auto', ''))), follows,
             followed_by]
    return '    {' + ', '.join(cells) + '},\n'
