// completion: what a shell can complete, from the program's own commands and the table of settings. simulate: an
// example of a scene.
#include <filesystem>
#include <memory>
#include <set>

#include "commands.h"
#include "files.h"
#include "output.h"
#include "simulation.h"

namespace tool {

namespace {

Strings optionsOf(const CLI::App &command) {
  Strings words;
  for (const CLI::Option *option : command.get_options()) {
    for (const std::string &name : option->get_lnames()) words.push_back("--" + name);
  }
  return words;
}

Strings commandsOf(const CLI::App &command) {
  Strings words;
  for (const CLI::App *each : command.get_subcommands([](const CLI::App *) { return true; }))
    words.push_back(each->get_name());
  return words;
}

Strings settingNames(bool actions) {
  std::set<std::string> names;
  for (const pulsekit::Meaning &meaning : pulsekit::meanings()) {
    if (meaning.action == actions) names.insert(meaning.name);
  }
  return {names.begin(), names.end()};
}

void printBash(const CLI::App &program) {
  std::string cases;
  for (const CLI::App *command : program.get_subcommands([](const CLI::App *) { return true; })) {
    const Strings deeper = commandsOf(*command);
    cases += cat("    ", command->get_name(), ") words=\"", join(deeper, " "), deeper.empty() ? "" : " ",
                 join(optionsOf(*command), " "), "\" ;;\n");
  }
  print(cat(R"(# Completion of pulsekit for bash: source it, or keep it where bash-completion looks for it.
_pulsekit() {
  local current="${COMP_WORDS[COMP_CWORD]}" command="" words word
  local settings=")",
            join(settingNames(false), " "), R"("
  local actions=")",
            join(settingNames(true), " "), R"("
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    if [[ $word != -* ]]; then command=$word; break; fi
  done
  case $command in
    "") words=")",
            join(commandsOf(program), " "), "\" ;;\n", cases, R"(  esac
  words+=" )",
            join(optionsOf(program), " "), R"("
  case $command in
    get|set|reset|settings) words+=" $settings" ;;
    action) words+=" $actions" ;;
    save|load|diff|flash|log|capture|cdf|simulate) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
  esac
  mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -W "$words" -- "$current")
  if [[ $command == set && ${#COMPREPLY[@]} == 1 && $current != -* ]]; then
    COMPREPLY[0]+="="
    compopt -o nospace
  fi
}
complete -F _pulsekit pulsekit
)"));
}

void writeScene(const std::string &path) {
  if (path != "-" && std::filesystem::exists(path)) throw Failure(cat(path, ": exists already"), "choose another name");
  NewFile file(path);
  file.write(kExampleScene);
  file.commit();
  if (path != "-") note(cat(path, ": an example; try pulsekit --simulate=", path, " capture --plot"));
}

}  // namespace

void addProgramCommands(CLI::App &program, const Options &) {
  CLI::App *scene = addCommand(program, "simulate", "Write an example of what a simulated radar can see");
  const auto path = std::make_shared<std::string>("-");
  scene->add_option("FILE", *path, "Scene file; standard output without");
  scene->callback([path] { writeScene(*path); });

  CLI::App *command = addCommand(program, "completion", "Print the shell's completion of this program");
  command->add_option("SHELL", "bash")->check(CLI::IsMember({"bash"}));
  command->callback([&program] { printBash(program); });
}

}  // namespace tool
