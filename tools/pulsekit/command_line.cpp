#include "command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "failure.h"

namespace tool {

namespace {

Strings namesBelow(const Command &command) {
  Strings names;
  for (const Command &each : command.commands()) names.push_back(each.name());
  return names;
}

// The parser tells what was not expected; people want to know what would have been.
std::string remedyOf(CLI::App &program) {
  CLI::App *deepest = &program;
  while (!deepest->get_subcommands().empty()) deepest = deepest->get_subcommands().back();
  const Command command(*deepest);
  const Strings names = namesBelow(command);
  Strings candidates = names;
  for (const Command &each : {command, Command(program)}) {
    for (const Command::Option &option : each.options()) candidates.push_back(option.name);
  }
  const Strings unexpected = program.remaining(true);
  const Strings near = unexpected.empty() ? Strings{} : nearest(unexpected[0], candidates);
  if (!near.empty()) return cat("did you mean ", join(near, ", "), '?');
  const std::string help = cat("pulsekit ", deepest == &program ? "" : command.name() + " ", "--help explains");
  constexpr size_t kFew = 6;
  if (names.empty() || names.size() > kFew) return cat(help, " the usage");
  return cat("choose one of ", join(names, ", "), "; ", help, " them");
}

}  // namespace

Argument &Argument::required() {
  option_->required();
  return *this;
}

Argument &Argument::takes(const char *value) {
  option_->type_name(value);
  return *this;
}

Argument &Argument::showsDefault() {
  option_->capture_default_str();
  return *this;
}

Argument &Argument::oneOf(const Strings &values) {
  option_->check(CLI::IsMember(values));
  return *this;
}

Command Command::add(const std::string &name, const std::string &help) const {
  CLI::App *command = app_->add_subcommand(name, help);
  command->fallthrough();
  return Command(*command);
}

void Command::runs(std::function<void()> action) const { app_->callback(std::move(action)); }

void Command::needsCommand(int count) const { app_->require_subcommand(count); }

Argument Command::argument(const std::string &names, std::string &value, const std::string &help) const {
  return Argument(app_->add_option(names, value, help));
}

Argument Command::argument(const std::string &names, Strings &values, const std::string &help) const {
  return Argument(app_->add_option(names, values, help));
}

Argument Command::repeated(const std::string &name, Strings &values, const std::string &help) const {
  const auto keep = [&values](const std::string &value) { values.push_back(value); };
  CLI::Option *option = app_->add_option_function<std::string>(name, keep, help);
  return Argument(option->expected(0, 1)->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)->trigger_on_parse());
}

void Command::flag(const std::string &name, bool &value, const std::string &help) const {
  app_->add_flag(name, value, help);
}

void Command::flag(const std::string &name, std::string &value, const std::string &help) const {
  app_->add_flag(name, value, help);
}

void Command::group(const char *heading) const {
  for (CLI::App *command : app_->get_subcommands({})) {
    if (command->get_group() == "Subcommands") command->group(heading);
  }
}

const std::string &Command::name() const { return app_->get_name(); }

std::string Command::help() const { return app_->get_description(); }

std::vector<Command::Option> Command::options() const {
  std::vector<Option> result;
  for (const CLI::Option *option : app_->get_options()) {
    for (const std::string &name : option->get_lnames())
      result.push_back({"--" + name, option->get_description(), option->get_items_expected_max() > 0});
  }
  return result;
}

std::vector<Command> Command::commands() const {
  std::vector<Command> result;
  for (CLI::App *command : app_->get_subcommands({})) result.emplace_back(*command);
  return result;
}

Program::Program(const char *name, const char *help, const char *footer, const std::string &version)
    : app_(std::make_unique<CLI::App>(help, name)) {
  app_->fallthrough();
  app_->require_subcommand(1);
  app_->footer(footer);
  app_->set_version_flag("--version", version);
}

Program::~Program() = default;

void Program::run(Strings arguments) const try {
  std::reverse(arguments.begin(), arguments.end());
  app_->parse(std::move(arguments));
} catch (const CLI::ParseError &error) {
  if (error.get_exit_code() != 0) throw Usage(printable(error.what()), remedyOf(*app_));
  app_->exit(error);
}

}  // namespace tool
