// The commands, by what they are about. Each function adds its commands to the program; a command runs when it is
// parsed.
#pragma once

#include <CLI/CLI.hpp>

#include "radar.h"

namespace tool {

void addRadarCommands(CLI::App &program, const Options &options);
void addSettingsCommands(CLI::App &program, const Options &options);
void addKeepingCommands(CLI::App &program, const Options &options);
void addHardwareCommands(CLI::App &program, const Options &options);
void addDoctorCommand(CLI::App &program, const Options &options);
void addProgramCommands(CLI::App &program, const Options &options);
void addLogCommands(CLI::App &program, const Options &options);
void addPurposeCommands(CLI::App &program, const Options &options);
void addMeasuringCommands(CLI::App &program, const Options &options);

/// Adds a command, its help and what it does.
inline CLI::App *addCommand(CLI::App &program, const std::string &name, const std::string &help) {
  CLI::App *command = program.add_subcommand(name, help);
  command->fallthrough();
  return command;
}

}  // namespace tool
