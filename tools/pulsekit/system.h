// What differs between operating systems.
#pragma once

#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "text.h"

namespace tool {

/// The program's name and arguments, in UTF-8. Call first of all: it also prepares the terminal.
Strings commandLine(int count, char **arguments);

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

/// Names of files are UTF-8 everywhere.
std::filesystem::path pathOf(const std::string &name);
std::string nameOf(const std::filesystem::path &path);

/// Null where it can't be; errno tells why. A new one takes no other's place unless it may replace it.
FILE *openFile(const std::string &name);
FILE *createFile(const std::string &name, bool replace);

/// Flushes the file's content to the disk and closes it. False when something did not get there.
bool closeDurably(FILE *file);

/// A directory for what lasts as long as the user's session, made if need be, that nobody else can write to. Empty when
/// there is none.
std::string sessionDirectory();

void setEnvironment(const char *name, const std::string &value);

/// Runs another program with this text as its input. Its exit code; 127 where there is no such program, -1 where it did
/// not take the text.
int feed(const char *program, const std::string &input);

int processNumber();

/// A function of a library, which is loaded for the rest of the process; null and what is wrong when there is none.
void *libraryFunction(const char *library, const char *function, std::string &fault);

/// Runs a program to its end and returns its exit code, or 128 and the signal that ended it. Ctrl-C and requests to end
/// are its own business meanwhile.
int runProgram(const std::vector<std::string> &command);

}  // namespace tool
