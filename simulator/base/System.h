// What the operating system knows by names.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace pulsekit::simulator {

// A variable of the process's environment, unless it is empty.
std::string environment(const char *name, const char *otherwise);

// On Windows a name is UTF-8, or else in the system's code page.
std::filesystem::path pathOf(const std::string &name);

// At least this long, and as nearly as the system can.
void sleepFor(uint64_t nanoseconds);

}  // namespace pulsekit::simulator
