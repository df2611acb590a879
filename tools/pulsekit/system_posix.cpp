#include <langinfo.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "system.h"
#include "text.h"

namespace tool {

namespace {

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
    const int signal = requests == 0 ? sigwaitinfo(&signals, nullptr) : sigtimedwait(&signals, nullptr, &pause);
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

int processNumber() { return getpid(); }

}  // namespace tool
