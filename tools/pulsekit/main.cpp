// pulsekit: one program for everything that can be done with a radar.
#include <cstdio>
#include <exception>

#include "commands.h"
#include "output.h"
#include "system.h"

namespace tool {

void interrupt();

namespace {

constexpr const char *kExamples =
    "Examples:\n"
    "  pulsekit --simulate capture --plot            a frame of a simulated radar, in the terminal\n"
    "  pulsekit set PulsesPerStep=40 Iterations=20   kept for the commands after it; reset undoes it\n"
    "  pulsekit capture -n 100 --rate 10 -o walk.npy\n"
    "Exit codes: 0 done, 1 failed, 2 wrong usage.\n";

enum ExitCode { kDone = 0, kFailed = 1, kUsage = 2 };

void complain(std::string_view text, std::string_view remedy, std::string_view trace = "") {
  std::string lines = cat(styled("pulsekit: ", Style::Red, stderr), text, '\n');
  if (!remedy.empty()) lines += cat(styled("remedy: ", Style::Bold, stderr), remedy, '\n');
  if (!trace.empty()) lines += cat(trace, '\n');
  std::fwrite(lines.data(), 1, lines.size(), stderr);
}

void addOptions(CLI::App &program, Options &options) {
  program.add_option("-r,--radar", options.radar, "Which radar: serial, connection string or number of the list")
      ->type_name("RADAR");
  program.add_flag("--simulate", options.simulation, "A simulated radar; --simulate=SCENE.toml chooses what it sees");
  program.add_flag("--json", options.json, "Print data as JSON");
  program.add_flag("--trace", options.trace, "Show the way of a failure through the library");
  program.add_flag("--fresh", options.fresh, "Don't apply what earlier commands have set");
}

// In the order and under the headings of the help.
void addCommands(CLI::App &program, const Options &options) {
  const auto add = [&](const char *heading, auto function) {
    function(program, options);
    for (CLI::App *command : program.get_subcommands([](const CLI::App *) { return true; })) {
      if (command->get_group() == "Subcommands") command->group(heading);
    }
  };
  add("Radars", addRadarCommands);
  add("Radars", addDoctorCommand);
  add("Settings", addSettingsCommands);
  add("Settings", addKeepingCommands);
  add("Measuring", addMeasuringCommands);
  add("Measuring", addPurposeCommands);
  add("Measuring", addLogCommands);
  add("Hardware", addHardwareCommands);
  add("Program", addProgramCommands);
}

// CLI11 tells what was not expected; people want to know what would have been.
int usageError(const CLI::App &program, const CLI::ParseError &error) {
  const CLI::App *command = &program;
  for (const CLI::App *deeper : program.get_subcommands()) command = deeper;
  std::string remedy =
      cat("pulsekit ", command == &program ? "" : command->get_name() + " ", "--help explains the usage");
  if (command == &program) {
    Strings names;
    for (const CLI::App *each : program.get_subcommands({})) names.push_back(each->get_name());
    const Strings unexpected = program.remaining();
    const Strings near = unexpected.empty() ? Strings{} : nearest(unexpected[0], names);
    if (!near.empty()) remedy = cat("did you mean ", join(near, ", "), '?');
  }
  complain(printable(error.what()), remedy);
  return kUsage;
}

int run(int count, char **arguments) {
  Options options;
  CLI::App program("Work with impulse radars: find, set up, measure, keep.", "pulsekit");
  program.fallthrough();
  program.require_subcommand(1);
  program.footer(kExamples);
  program.set_version_flag("--version", [] { return cat("pulsekit ", QTX_SupportVersion()); });
  addOptions(program, options);
  addCommands(program, options);
  try {
    program.parse(count, arguments);
    return kDone;
  } catch (const CLI::ParseError &error) {
    return error.get_exit_code() == 0 ? program.exit(error) : usageError(program, error);
  } catch (const Usage &usage) {
    complain(usage.what(), usage.remedy());
    return kUsage;
  } catch (const Failure &failure) {
    complain(failure.what(), failure.remedy(), options.trace ? failure.trace() : "");
    return kFailed;
  }
}

}  // namespace

}  // namespace tool

int main(int count, char **arguments) try {
  tool::onInterrupt(tool::interrupt);
  return tool::run(count, arguments);
} catch (const std::exception &error) {
  tool::complain(error.what(), "");
  return tool::kFailed;
}
