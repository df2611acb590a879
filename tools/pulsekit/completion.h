// What a shell can complete, from the program's own commands and the table of settings.
#pragma once

#include "command_line.h"

namespace tool {

/// The names of the shells that there is a completion for.
const Strings &completedShells();

/// The completion of the program, in the language of the shell.
std::string completion(const Command &program, const std::string &shell);

}  // namespace tool
