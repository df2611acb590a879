#include "completion.h"

#include <algorithm>
#include <map>

#include "meaning-autogen.h"

namespace tool {

namespace {

// A command with the words that lead to it; the program itself has none.
struct Place {
  Strings words;
  Command command;
  std::string path() const { return join(words, " "); }
};

void addPlaces(const Strings &words, const Command &command, std::vector<Place> &places) {
  places.push_back({words, command});
  for (const Command &deeper : command.commands()) {
    Strings further = words;
    further.push_back(deeper.name());
    addPlaces(further, deeper, places);
  }
}

std::vector<Place> placesOf(const Command &program) {
  std::vector<Place> places;
  addPlaces({}, program, places);
  return places;
}

struct Word {
  std::string text, help;
};

// Chips share most of their settings; where a help differs, the newest chip's counts.
std::vector<Word> names(bool actions) {
  std::map<std::string, std::string> known;
  for (const pulsekit::Meaning &meaning : pulsekit::meanings()) {
    if (meaning.action == actions) known.insert_or_assign(meaning.name, meaning.help);
  }
  std::vector<Word> words;
  for (const auto &[name, help] : known) words.push_back({name, help});
  return words;
}

// What may come next, options apart.
std::vector<Word> wordsAt(const Place &place) {
  std::vector<Word> words;
  for (const Command &command : place.command.commands()) words.push_back({command.name(), command.help()});
  const std::string path = place.path();
  if (path == "get" || path == "set" || path == "reset" || path == "settings") words = names(false);
  if (path == "action") words = names(true);
  if (path == "completion") {
    for (const std::string &shell : completedShells()) words.push_back({shell, ""});
  }
  return words;
}

std::vector<Word> optionsAt(const Place &place, const Command &program) {
  std::vector<Word> words;
  for (const Command::Option &option : place.command.options()) words.push_back({option.name, option.help});
  if (place.words.empty()) return words;
  for (const Command::Option &option : program.options()) {
    if (option.name != "--help") words.push_back({option.name, option.help});
  }
  return words;
}

std::string textsOf(const std::vector<Word> &words) {
  Strings texts;
  for (const Word &word : words) texts.push_back(word.text);
  return join(texts, " ");
}

// In single quotes, for bash and zsh.
std::string shellQuoted(std::string_view text) {
  std::string result = "'";
  for (const char c : text) result += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return result + "'";
}

// "|list|flash|flash read|": what a word may lead to.
std::string pathsOf(const std::vector<Place> &places) {
  std::string paths;
  for (const Place &place : places) paths += place.path() + '|';
  return paths;
}

std::string bash(const Command &program) {
  const std::vector<Place> places = placesOf(program);
  std::string cases;
  for (const Place &place : places) {
    cases += cat("    \"", place.path(), "\") words=\"", textsOf(wordsAt(place)), "\" options=\"",
                 textsOf(optionsAt(place, program)), "\" ;;\n");
  }
  return cat(R"(# Completion of pulsekit for bash: source it, or keep it where bash-completion looks for it.
_pulsekit() {
  local current="${COMP_WORDS[COMP_CWORD]}" at="" word words options
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    [[ ")",
             pathsOf(places), R"(" == *"|${at:+$at }$word|"* ]] && at="${at:+$at }$word"
  done
  case $at in
)",
             cases, R"(  esac
  [[ $current == -* ]] && words=$options
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
  if [[ $at == set && ${#COMPREPLY[@]} == 1 && $current != -* ]]; then
    COMPREPLY[0]+="="
    compopt -o nospace
  fi
}
complete -o default -F _pulsekit pulsekit
)");
}

std::string zshEntries(const std::vector<Word> &words) {
  std::string entries;
  for (const Word &word : words) {
    entries += cat(' ', shellQuoted(word.help.empty() ? word.text : cat(word.text, ':', word.help)));
  }
  return entries;
}

std::string zsh(const Command &program) {
  const std::vector<Place> places = placesOf(program);
  std::string cases;
  for (const Place &place : places) {
    cases += cat("    \"", place.path(), "\")\n      entries=(", zshEntries(wordsAt(place)), ")\n      options=(",
                 zshEntries(optionsAt(place, program)), ")\n      ;;\n");
  }
  return cat(R"(#compdef pulsekit
# Completion of pulsekit for zsh: keep it as _pulsekit in a folder of $fpath.
_pulsekit() {
  local at="" word
  local -a entries options suffix
  for word in "${(@)words[2,CURRENT-1]}"; do
    [[ ")",
             pathsOf(places), R"(" == *"|${at:+$at }$word|"* ]] && at="${at:+$at }$word"
  done
  case $at in
)",
             cases, R"(  esac
  [[ $at == set ]] && suffix=(-S =)
  if [[ $PREFIX == -* ]]; then
    _describe -o option options
  elif (( $#entries )); then
    _describe word entries $suffix
  else
    _files
  fi
}
if [[ $funcstack[1] == _pulsekit ]]; then _pulsekit "$@"; else compdef _pulsekit pulsekit; fi
)");
}

std::string fishQuoted(std::string_view text) {
  std::string result = "'";
  for (const char c : text) result += c == '\'' || c == '\\' ? cat('\\', c) : std::string(1, c);
  return result + "'";
}

// Where its words were typed and none that leads on.
std::string fishCondition(const Place &place) {
  if (place.words.empty()) return "__fish_use_subcommand";
  Strings conditions;
  for (const std::string &word : place.words) conditions.push_back(cat("__fish_seen_subcommand_from ", word));
  const std::string deeper = textsOf(place.command.commands().empty() ? std::vector<Word>{} : wordsAt(place));
  if (!deeper.empty()) conditions.push_back(cat("not __fish_seen_subcommand_from ", deeper));
  return join(conditions, "; and ");
}

std::string fish(const Command &program) {
  std::string text = "# Completion of pulsekit for fish: keep it as pulsekit.fish where fish looks for completions.\n";
  const auto help = [](const std::string &line) { return line.empty() ? "" : cat(" -d ", fishQuoted(line)); };
  for (const Place &place : placesOf(program)) {
    const std::string start =
        cat("complete -c pulsekit", place.words.empty() ? "" : cat(" -n ", fishQuoted(fishCondition(place))));
    for (const Command::Option &option : place.command.options())
      text += cat(start, " -l ", option.name.substr(2), option.takes_value ? " -r" : "", help(option.help), '\n');
    const std::string at = cat("complete -c pulsekit -n ", fishQuoted(fishCondition(place)));
    for (const Word &word : wordsAt(place))
      text +=
          cat(at, " -f -a ", fishQuoted(place.path() == "set" ? word.text + "=" : word.text), help(word.help), '\n');
  }
  return text;
}

struct Shell {
  const char *name;
  std::string (*completion)(const Command &program);
};
constexpr Shell kShells[] = {{"bash", bash}, {"zsh", zsh}, {"fish", fish}};

}  // namespace

const Strings &completedShells() {
  static const Strings names = [] {
    Strings all;
    for (const Shell &shell : kShells) all.push_back(shell.name);
    return all;
  }();
  return names;
}

std::string completion(const Command &program, const std::string &shell) {
  const auto found =
      std::find_if(std::begin(kShells), std::end(kShells), [&](const Shell &one) { return one.name == shell; });
  return found == std::end(kShells) ? "" : found->completion(program);
}

}  // namespace tool
