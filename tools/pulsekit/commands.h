// The commands, by what they are about. Each function adds its commands to the program; a command runs when it is
// parsed.
#pragma once

#include "command_line.h"
#include "radar.h"

namespace tool {

void addRadarCommands(const Command &program, const Options &options);
void addSettingsCommands(const Command &program, const Options &options);
void addKeepingCommands(const Command &program, const Options &options);
void addHardwareCommands(const Command &program, const Options &options);
void addDoctorCommand(const Command &program, const Options &options);
void addProgramCommands(const Command &program, const Options &options);
void addLogCommands(const Command &program, const Options &options);
void addPurposeCommands(const Command &program, const Options &options);
void addMeasuringCommands(const Command &program, const Options &options);

}  // namespace tool
