// pulsekit: one program for everything that can be done with a radar.
#include <algorithm>
#include <cstdio>
#include <exception>

#include "below.h"
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
    "  pulsekit --simulate --usb flashrom -p ft2232_spi:type=232H\n"
    "Exit codes: 0 done, 1 failed, 2 wrong usage.\n";

enum ExitCode { kDone = 0, kFailed = 1, kUsage = 2 };

void complain(std::string_view text, std::string_view remedy, std::string_view trace = "") {
  std::string lines = cat(styled("pulsekit: ", Style::Red, stderr), text, '\n');
  if (!remedy.empty()) lines += cat(styled("remedy: ", Style::Bold, stderr), remedy, '\n');
  if (!trace.empty()) lines += cat(trace, '\n');
  std::fwrite(lines.data(), 1, lines.size(), stderr);
}

void addOptions(const Command &program, Options &options) {
  program.argument("-r,--radar", options.radar, "Which radar: serial, connection string or number of the list")
      .takes("RADAR");
  program.flag("--simulate", options.simulation, "A simulated radar; --simulate=SCENE.toml chooses what it sees");
  static std::string unparsed;  // for the help: what stands behind it is another program's command line
  program.argument("--usb", unparsed, "Run COMMAND, any program, with the simulated radars on its USB; goes last")
      .takes("COMMAND ...");
  program.flag("--json", options.json, "Print data as JSON");
  program.flag("--trace", options.trace, "Show the way of a failure through the library");
  program.flag("--fresh", options.fresh, "Don't apply what earlier commands have set");
}

// In the order and under the headings of the help.
void addCommands(const Command &program, const Options &options) {
  const auto add = [&](const char *heading, auto function) {
    function(program, options);
    program.group(heading);
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

// What stands behind --usb belongs to another program.
int run(const Strings &arguments) {
  const auto end = std::find(arguments.begin(), arguments.end(), "--usb");
  const bool alone = end == arguments.end();
  const Strings below(alone ? end : end + 1, arguments.end());
  Options options;
  const Program program("pulsekit", "Work with impulse radars: find, set up, measure, keep.", kExamples,
                        cat("pulsekit ", QTX_SupportVersion()));
  addOptions(program.command(), options);
  if (alone) {
    addCommands(program.command(), options);
  } else {
    program.command().needsCommand(0);
  }
  try {
    if (!alone && below.empty()) throw Usage("--usb without a command", "pulsekit --help explains the usage");
    program.run({arguments.begin() + 1, end});
    return alone ? kDone : runBelow(options, below);
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
  const tool::Strings command_line = tool::commandLine(count, arguments);
  tool::onInterrupt(tool::interrupt);
  return tool::run(command_line);
} catch (const std::exception &error) {
  tool::complain(error.what(), "");
  return tool::kFailed;
}
