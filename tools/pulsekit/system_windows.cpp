// The others need the first.
// clang-format off
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
#include <fcntl.h>
#include <io.h>
#include <process.h>
#include <shellapi.h>
// clang-format on

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "system.h"
#include "text.h"

namespace tool {

namespace {

constexpr DWORD kReactAgainMilliseconds = 50;

std::atomic<int> requests = 0;
HANDLE requested = nullptr;

// On a thread of the system's. Who closes the window gets a few seconds until this returns.
BOOL WINAPI onConsoleEvent(DWORD event) {
  if (++requests >= 3) ExitProcess(1);
  SetEvent(requested);
  if (event == CTRL_C_EVENT || event == CTRL_BREAK_EVENT) return TRUE;
  Sleep(INFINITE);
  return TRUE;
}

// A call that starts just after the reaction would miss it, hence again and again.
void waitForRequests(const std::function<void()> &react) {
  for (WaitForSingleObject(requested, INFINITE);; Sleep(kReactAgainMilliseconds)) react();
}

std::wstring wide(const std::string &text, UINT code_page, DWORD flags) {
  const int size = static_cast<int>(text.size());
  std::wstring result(text.size(), L'\0');
  const int length = MultiByteToWideChar(code_page, flags, text.data(), size, result.data(), size);
  result.resize(static_cast<size_t>(length));
  return result;
}

std::wstring wide(const std::string &text) {
  const std::wstring result = wide(text, CP_UTF8, MB_ERR_INVALID_CHARS);
  return result.empty() ? wide(text, CP_ACP, 0) : result;
}

std::string utf8(const std::wstring &text) {
  std::string result(text.size() * 3, '\0');
  const int length = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), result.data(),
                                         static_cast<int>(result.size()), nullptr, nullptr);
  result.resize(static_cast<size_t>(length));
  return result;
}

UINT former_code_page = 0;

void prepareConsole() {
  former_code_page = GetConsoleOutputCP();
  SetConsoleOutputCP(CP_UTF8);
  std::atexit([] { SetConsoleOutputCP(former_code_page); });
  for (const DWORD stream : {STD_OUTPUT_HANDLE, STD_ERROR_HANDLE}) {
    const HANDLE console = GetStdHandle(stream);
    DWORD mode = 0;
    if (GetConsoleMode(console, &mode)) SetConsoleMode(console, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
  }
}

}  // namespace

Strings commandLine(int, char **) {
  // Bytes stay as they are, in files that standard output is led to as well.
  _setmode(_fileno(stdout), _O_BINARY);
  prepareConsole();
  int count = 0;
  wchar_t **arguments = CommandLineToArgvW(GetCommandLineW(), &count);
  Strings texts;
  for (int i = 0; i < count; ++i) texts.push_back(utf8(arguments[i]));
  LocalFree(arguments);
  return texts;
}

// Not isatty, which takes the null device for one.
bool isTerminal(FILE *stream) {
  DWORD mode = 0;
  return GetConsoleMode(reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stream))), &mode) != 0;
}

TerminalSize terminalSize() {
  for (const DWORD stream : {STD_OUTPUT_HANDLE, STD_ERROR_HANDLE}) {
    CONSOLE_SCREEN_BUFFER_INFO info;
    if (!GetConsoleScreenBufferInfo(GetStdHandle(stream), &info)) continue;
    const int columns = info.srWindow.Right - info.srWindow.Left + 1;
    const int lines = info.srWindow.Bottom - info.srWindow.Top + 1;
    if (columns >= 20 && lines >= 5) return {static_cast<size_t>(columns), static_cast<size_t>(lines)};
  }
  return {80, 24};
}

bool speaksUtf8() { return true; }

void onInterrupt(std::function<void()> react) {
  requested = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  SetConsoleCtrlHandler(onConsoleEvent, TRUE);
  std::thread(waitForRequests, std::move(react)).detach();
}

bool closeDurably(FILE *file) {
  bool written = std::fflush(file) == 0 && std::ferror(file) == 0;
  const int descriptor = _fileno(file);
  const bool on_disk = GetFileType(reinterpret_cast<HANDLE>(_get_osfhandle(descriptor))) == FILE_TYPE_DISK;
  written = (!on_disk || _commit(descriptor) == 0) && written;
  return std::fclose(file) == 0 && written;
}

std::filesystem::path pathOf(const std::string &name) { return wide(name); }

std::string nameOf(const std::filesystem::path &path) { return utf8(path.wstring()); }

// Others may put a file of their own in its place, as the library does.
FILE *createFile(const std::string &name, bool replace) {
  const HANDLE created =
      CreateFileW(wide(name).c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                  replace ? CREATE_ALWAYS : CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (created == INVALID_HANDLE_VALUE) {
    const DWORD error = GetLastError();
    errno = error == ERROR_PATH_NOT_FOUND                                      ? ENOENT
            : error == ERROR_FILE_EXISTS                                       ? EEXIST
            : error == ERROR_DISK_FULL                                         ? ENOSPC
            : error == ERROR_ACCESS_DENIED || error == ERROR_SHARING_VIOLATION ? EACCES
                                                                               : EINVAL;
    return nullptr;
  }
  return _fdopen(_open_osfhandle(reinterpret_cast<intptr_t>(created), _O_BINARY), "wb");
}

FILE *openFile(const std::string &name) { return _wfopen(wide(name).c_str(), L"rb"); }

// The folder of the user's own programs, which others can't write to.
std::string sessionDirectory() {
  for (const wchar_t *variable : {L"XDG_RUNTIME_DIR", L"LOCALAPPDATA"}) {
    wchar_t folder[MAX_PATH] = L"";
    const DWORD length = GetEnvironmentVariableW(variable, folder, MAX_PATH);
    if (length == 0 || length >= MAX_PATH) continue;
    const std::wstring path = std::wstring(folder) + L"\\pulsekit";
    if (CreateDirectoryW(path.c_str(), nullptr) || GetLastError() == ERROR_ALREADY_EXISTS) return utf8(path);
  }
  return "";
}

void setEnvironment(const char *name, const std::string &value) {
  SetEnvironmentVariableW(wide(name).c_str(), wide(value).c_str());
}

// The system's shell tells itself where there is no such program.
int feed(const char *program, const std::string &input) {
  FILE *pipe = _popen(program, "wb");
  if (!pipe) return 127;
  const bool written = std::fwrite(input.data(), 1, input.size(), pipe) == input.size();
  const int code = _pclose(pipe);
  return written ? code : -1;
}

void *libraryFunction(const char *, const char *, std::string &fault) {
  fault = "it needs Linux";
  return nullptr;
}

int runProgram(const Strings &) { return 127; }

int processNumber() { return _getpid(); }

}  // namespace tool
