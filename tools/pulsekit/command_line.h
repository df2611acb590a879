// The command line as the commands see it; the parser behind it is command_line.cpp's business.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "text.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace tool {

/// An argument or option of a command.
class Argument {
 public:
  explicit Argument(CLI::Option *option) : option_(option) {}
  Argument &required();
  /// How the help calls its value.
  Argument &takes(const char *value);
  /// The help tells what counts without it.
  Argument &showsDefault();
  Argument &oneOf(const Strings &values);

 private:
  CLI::Option *option_;
};

/// A command of the program, or the program itself. Copies mean the same command. What arguments fill lives as long as
/// one of them is shared with the command's action.
class Command {
 public:
  explicit Command(CLI::App &app) : app_(&app) {}
  /// A command below this one.
  Command add(const std::string &name, const std::string &help) const;
  /// What it does, once it was parsed.
  void runs(std::function<void()> action) const;
  /// It does nothing without one of the commands below it; or, with 0, it does.
  void needsCommand(int count = 1) const;

  Argument argument(const std::string &names, std::string &value, const std::string &help) const;
  Argument argument(const std::string &names, Strings &values, const std::string &help) const;
  /// May stand several times, with a value or, as "", without.
  Argument repeated(const std::string &name, Strings &values, const std::string &help) const;
  void flag(const std::string &name, bool &value, const std::string &help) const;
  /// "true" where it stands without a value.
  void flag(const std::string &name, std::string &value, const std::string &help) const;

  /// For the help: the heading above those below it that have none yet.
  void group(const char *heading) const;

  // What a shell can complete.
  const std::string &name() const;
  std::string help() const;
  struct Option {
    std::string name, help;
    bool takes_value;
  };
  std::vector<Option> options() const;
  std::vector<Command> commands() const;

 private:
  CLI::App *app_;
};

/// The program: its commands, and the texts of its help.
class Program {
 public:
  Program(const char *name, const char *help, const char *footer, const std::string &version);
  ~Program();
  Program(const Program &) = delete;
  Program &operator=(const Program &) = delete;
  Command command() const { return Command(*app_); }
  /// Runs the command that the arguments name, or prints the help that they ask for. Throws Usage, and what the command
  /// throws.
  void run(Strings arguments) const;

 private:
  std::unique_ptr<CLI::App> app_;
};

}  // namespace tool
