#include <dlfcn.h>
#include <langinfo.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "failure.h"
#include "system.h"
#include "text.h"

namespace tool {

namespace {

// The program that runs in our place; kStarting while its number is not known yet.
constexpr pid_t kStarting = -1;
std::atomic<pid_t> standIn = 0;

constexpr long kReactAgainNanoseconds = 50'000'000;

sigset_t endingSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, signal);
  return signals;
}

// A call that starts just after the reaction would miss it, hence again and again.
void waitForSignals(const std::function<void()> &react) {
  const sigset_t signals = endingSignals();
  const timespec pause{0, kReactAgainNanoseconds};
  for (int requests = 0; requests < 3;) {
    siginfo_t info = {};
    const int signal = requests == 0 ? sigwaitinfo(&signals, &info) : sigtimedwait(&signals, &info, &pause);
    while (standIn == kStarting) std::this_thread::yield();
    if (const pid_t other = standIn; other != 0 && signal > 0) {
      // What the terminal sends has reached it, too.
      if (info.si_code != SI_KERNEL) kill(other, signal);
      continue;
    }
    if (signal > 0) ++requests;
    if (requests > 0) react();
  }
  _exit(1);
}

bool ownDirectory(const std::string &path) {
  struct stat status = {};
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return false;
  return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == geteuid() &&
         (status.st_mode & 022) == 0;
}

}  // namespace

Strings commandLine(int count, char **arguments) { return {arguments, arguments + count}; }

std::filesystem::path pathOf(const std::string &name) { return name; }

std::string nameOf(const std::filesystem::path &path) { return path.string(); }

FILE *openFile(const std::string &name) { return std::fopen(name.c_str(), "rb"); }

FILE *createFile(const std::string &name, bool replace) { return std::fopen(name.c_str(), replace ? "wb" : "wbx"); }

bool isTerminal(FILE *stream) { return isatty(fileno(stream)) == 1; }

TerminalSize terminalSize() {
  winsize size = {};
  for (const int descriptor : {STDOUT_FILENO, STDERR_FILENO, STDIN_FILENO}) {
    if (ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col >= 20 && size.ws_row >= 5) {
      return {size.ws_col, size.ws_row};
    }
  }
  return {80, 24};
}

bool speaksUtf8() {
  std::setlocale(LC_CTYPE, "");
  return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
}

void onInterrupt(std::function<void()> react) {
  std::signal(SIGPIPE, SIG_IGN);
  const sigset_t signals = endingSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::thread(waitForSignals, std::move(react)).detach();
}

bool closeDurably(FILE *file) {
  bool written = std::fflush(file) == 0 && std::ferror(file) == 0;
  written = (fsync(fileno(file)) == 0 || errno == EINVAL) && written;
  return std::fclose(file) == 0 && written;
}

std::string sessionDirectory() {
  const char *runtime = std::getenv("XDG_RUNTIME_DIR");
  const std::string path = runtime && *runtime == '/' ? cat(runtime, "/pulsekit")
                                                      : cat("/tmp/pulsekit-", static_cast<unsigned long>(geteuid()));
  return ownDirectory(path) ? path : "";
}

void setEnvironment(const char *name, const std::string &value) { setenv(name, value.c_str(), 1); }

int feed(const char *program, const std::string &input) {
  FILE *pipe = popen(program, "w");
  if (!pipe) return 127;
  const bool written = std::fwrite(input.data(), 1, input.size(), pipe) == input.size();
  const int status = pclose(pipe);
  return written && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int processNumber() { return getpid(); }

void *libraryFunction(const char *library, const char *function, std::string &fault) {
  void *module = dlopen(library, RTLD_NOW | RTLD_LOCAL);
  void *found = module ? dlsym(module, function) : nullptr;
  if (!found) fault = dlerror();
  return found;
}

int runProgram(const std::vector<std::string> &command) {
  std::vector<char *> arguments;
  for (const std::string &argument : command) arguments.push_back(const_cast<char *>(argument.c_str()));
  arguments.push_back(nullptr);

  // It starts with signals as this program was given them.
  sigset_t none, defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  standIn = kStarting;
  pid_t process = 0;
  const int failure = posix_spawnp(&process, arguments[0], nullptr, &attributes, arguments.data(), environ);
  posix_spawnattr_destroy(&attributes);
  standIn = failure == 0 ? process : 0;
  if (failure != 0)
    throw Failure(cat(command[0], ": ", std::strerror(failure)), "check the command's name and its rights");

  int status = 0;
  while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  standIn = 0;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace tool
