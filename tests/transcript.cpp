#include "transcript.h"

#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <regex>

#ifdef _WIN32
#include "imports.h"
#endif

namespace {
std::atomic<uint64_t> pauses = 0;  // nanoseconds

#ifdef _WIN32
void WINAPI pause(DWORD milliseconds) { pauses += milliseconds * uint64_t{1'000'000}; }
const bool paused = [] {
  bool any = false;
  for (const char *module : {static_cast<const char *>(nullptr), "Pulsekit3.dll", "Pulsekit3Simulator.dll"}) {
    any = pulsekit::test::replaceImport(module, "Sleep", reinterpret_cast<uintptr_t>(&pause)) || any;
  }
  return any;
}();
#endif
}  // namespace

#ifndef _WIN32
// This goes before the system's, for the libraries too.
extern "C" __attribute__((visibility("default"))) int nanosleep(const timespec *time, timespec *) {
  pauses += static_cast<uint64_t>(time->tv_sec) * 1'000'000'000 + static_cast<uint64_t>(time->tv_nsec);
  return 0;
}
#endif

namespace pulsekit::test {

uint64_t slept() { return pauses.exchange(0) / 1'000'000; }

std::string contents(const std::string &path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

std::string textOf(const std::string &path) {
  std::string text = contents(path);
#ifdef _WIN32
  for (size_t at = 0; (at = text.find('\n', at)) != text.npos; ++at) {
    if (at == 0 || text[at - 1] != '\r') return "an end of a line without CR: " + text;
    text.erase(--at, 1);
  }
#endif
  return text;
}

void write(const std::string &path, const std::string &text) { std::ofstream(path, std::ios::binary) << text; }

Folder::Folder() {
  std::random_device random;
  do {
    path_ = std::filesystem::path(testing::TempDir()) / ("pulsekit-" + std::to_string(random()));
  } while (!std::filesystem::create_directory(path_));
}

size_t Folder::fileCount() const {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(path_), {}));
}

std::string format(const char *form, ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, form);
  std::vsnprintf(text, sizeof text, form, arguments);
  va_end(arguments);
  return text;
}

std::string hex(const void *bytes, size_t count) {
  std::string text;
  for (size_t i = 0; i < count; ++i) text += format("%02X ", static_cast<const uint8_t *>(bytes)[i]);
  return text.substr(0, text.empty() ? 0 : text.size() - 1);
}

std::string show(const std::string &text) {
  std::string quoted = "\"";
  for (char character : text) {
    quoted += character == '\n'                                   ? "\\n"
              : character == '\r'                                 ? "\\r"
              : static_cast<unsigned char>(character - ' ') < '_' ? std::string(1, character)
                                                                  : format("\\x%02x", character & 0xff);
  }
  return quoted + "\"";
}

// No file of the exported functions has more than 330 lines; those below are stable points among them.
static bool isStablePoint(const std::string &source, const std::string &function, int line) {
  const auto oneOf = [line](std::initializer_list<int> lines) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  };
  if (source == "Pulsekit3_helpers" || source == "QTX_register") return true;
  if (source == "chip") return oneOf({243, 251, 260, 267, 274});
  if (source != "Pulsekit3") return false;
  return line > 330 || (function == "QTX_ListRadarModules" && oneOf({183, 213, 219, 283, 297, 305}));
}

std::string shortTrace(const char *trace) {
  static const std::regex form(R"(   (at|from): (\w+) in (\S*/)([\w-]+):(\d+)(?:\r\n)?)");
  std::string text, source, rest = trace;
  for (std::smatch match; std::regex_search(rest, match, form, std::regex_constants::match_continuous);) {
    if ((match[1] == "at") != text.empty()) text += " MISPLACED";
    if (!text.empty()) text += " < ";
    if (source != match[4]) text += (source = match[4]) + ": ";
    text += match[2];
    if (isStablePoint(source, match[2], std::stoi(match[5]))) text += ":" + match[5].str();
    rest = match.suffix().str();
  }
  return text + (rest.empty() ? "" : " ... " + rest);
}

std::string shown(const QTX_StackTrace &record) {
  return std::to_string(record.code) + " \"" + record.message + "\"" + (*record.trace ? " " : "") +
         shortTrace(record.trace);
}

void Told::tellCall(const char *written, const Call &call) {
  // As it stands in the source, whatever blanks the compiler puts in.
  std::string line = written;
  for (size_t at = 0; (at = line.find("( ", at)) != line.npos;) line.erase(at + 1, 1);
  say(line + " = " + result(call));
}

std::string Told::result(const Call &call) {
  events();
  slept();
  if (watched) *watched = {99, "earlier", ""};
  std::string text = call.outcome();
  if (watched && shown(*watched) != "99 \"earlier\"") text += " {" + shown(*watched) + "}";
  const uint64_t pause = slept();
  const std::string caused = events();
  return text + (pause && tells_pauses ? " slept " + std::to_string(pause) + " ms" : "") +
         (caused.empty() ? "" : " | " + caused);
}

void Told::inRuns(const std::string &title, uint32_t most,
                  const std::function<std::string(uint32_t nth, bool *reached)> &attempt) {
  std::string same;
  uint32_t first = 1;
  for (uint32_t nth = 1; nth <= most + 1; ++nth) {
    bool reached = nth <= most;
    const std::string text = reached ? attempt(nth, &reached) : "and so on";
    if (nth > first && (text != same || !reached)) {
      say(title + (nth - 1 > first ? format(" %u to %u: ", first, nth - 1) : format(" %u: ", first)) + same);
      first = nth;
    }
    same = text;
    if (reached) continue;
    say(title + " without: " + text);
    return;
  }
}

void Told::TearDown() {
  const testing::TestInfo &test = *testing::UnitTest::GetInstance()->current_test_info();
  const std::string name = std::string(test.test_suite_name()) + "." + test.name() + "\n", mark = "== ";
  const std::string folder = std::filesystem::path(test.file()).parent_path().filename().string();
  const std::string path = PULSEKIT_GOLDEN + ("/" + folder + ".txt"), all = contents(path);
  std::map<std::string, std::string> sections;
  for (size_t at = 0; at < all.size();) {
    const size_t end = std::min(all.find("\n" + mark, at), all.size() - 1) + 1, line = all.find('\n', at) + 1;
    sections[all.substr(at + mark.size(), line - at - mark.size())] = all.substr(line, end - line);
    at = end;
  }
  if (!std::getenv("PULSEKIT_UPDATE_GOLDEN")) {
    EXPECT_EQ(sections[name], text_) << path;
    return;
  }
  sections[name] = text_;
  if (text_.empty()) sections.erase(name);
  std::string updated;
  for (const auto &[title, text] : sections) updated += mark + title + text;
  write(path, updated);
}

}  // namespace pulsekit::test
