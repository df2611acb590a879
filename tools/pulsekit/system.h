// What differs between operating systems.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace tool {

bool isTerminal(FILE *stream);

/// Columns and lines of the terminal; 80 by 24 where there is none.
struct TerminalSize {
  size_t columns, lines;
};
TerminalSize terminalSize();

/// Whether the locale's characters are UTF-8.
bool speaksUtf8();

/// From now on Ctrl-C and a request to end call `react` on a thread of their own, again and again until the process has
/// ended; the third Ctrl-C ends it at once. A closed output pipe is a failed write, not the end. Call before any thread
/// is started.
void onInterrupt(std::function<void()> react);

/// Flushes the file's content to the disk and closes it. False when something did not get there.
bool closeDurably(FILE *file);

/// A directory for what lasts as long as the user's session, made if need be, that nobody else can write to. Empty when
/// there is none.
std::string sessionDirectory();

void setEnvironment(const char *name, const std::string &value);

int processNumber();

/// A function of a library, which is loaded for the rest of the process; null and what is wrong when there is none.
void *libraryFunction(const char *library, const char *function, std::string &fault);

/// Runs a program to its end and returns its exit code, or 128 and the signal that ended it. Ctrl-C and requests to end
/// are its own business meanwhile.
int runProgram(const std::vector<std::string> &command);

}  // namespace tool
