// Tests as transcripts: each DO is a line with the call, its result, what it left in the error record and what else it
// caused. The whole is compared with the section of the test's name in golden/<folder>.txt. With PULSEKIT_UPDATE_GOLDEN
// set the sections are written anew instead: read the difference before you commit it.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/QTX_StackTrace.h"

namespace pulsekit::test {

std::string contents(const std::string &path);
std::string textOf(const std::string &path);  // a text file's, which end as the system ends lines
void write(const std::string &path, const std::string &text);

// A folder for one test.
class Folder {
 public:
  Folder();
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder &) = delete;
  Folder &operator=(const Folder &) = delete;
  std::string file(const std::string &name) const { return (path_ / name).string(); }
  const std::filesystem::path &path() const { return path_; }
  size_t fileCount() const;

 private:
  std::filesystem::path path_;
};

#ifdef __MINGW_PRINTF_FORMAT
__attribute__((format(gnu_printf, 1, 2)))
#else
__attribute__((format(printf, 1, 2)))
#endif
std::string
format(const char *form, ...);
// Nothing really sleeps in these programs: the pauses that were asked for since this was asked last, in milliseconds.
uint64_t slept();
std::string hex(const void *bytes, size_t count);  // "0A FF"

std::string show(const std::string &text);  // quoted, control characters escaped
inline std::string show(const char *text) { return text ? show(std::string(text)) : "null"; }
inline std::string show(char *text) { return show(static_cast<const char *>(text)); }
inline std::string show(double value) { return format("%.12g", value); }
inline std::string show(float value) { return format("%.7g", static_cast<double>(value)); }
inline std::string show(const std::vector<uint8_t> &bytes) { return hex(bytes.data(), bytes.size()); }
template <typename Value>
std::string show(Value value) {
  if constexpr (std::is_pointer_v<Value>) {
    return value ? "there" : "null";
  } else {
    return std::to_string(value);
  }
}

// A call by reference, and how its result becomes text. std::function at each would double the time to compile tests.
class Call {
 public:
  template <typename Lambda>
  Call(const Lambda &call) : call_(&call), outcome_(&outcomeOf<Lambda>) {}
  std::string outcome() const { return outcome_(call_); }

 private:
  template <typename Lambda>
  static std::string outcomeOf(const void *lambda) {
    const Lambda &call = *static_cast<const Lambda *>(lambda);
    if constexpr (std::is_void_v<decltype(call())>) {
      return call(), "done";
    } else {
      return show(call());
    }
  }

  const void *call_;
  std::string (*outcome_)(const void *);
};
inline std::string titled(const std::string &title) { return title; }
inline std::string titled(int64_t number) { return std::to_string(number); }

// "vars: varSetValue_Sub < varSetValue". Lines are shown where they are stable trace points.
std::string shortTrace(const char *trace);
// Code, message and trace.
std::string shown(const QTX_StackTrace &record);

class Told : public testing::Test {
 protected:
  void TearDown() override;

  void say(const std::string &line) { text_ += line + "\n"; }
  // What else happened since this was asked last.
  virtual std::string events() { return ""; }
  // A failure of before stands in the record while a call runs, so that what it writes and what it leaves can be seen.
  std::string result(const Call &call);
  void tellCall(const char *written, const Call &call);
  void tellColumn(std::string *row, const Call &call) { *row += " " + result(call) + ";"; }

  // Attempts with the first, second, ... thing failing until it is not reached any more; equal outcomes in one line.
  void inRuns(const std::string &title, uint32_t most,
              const std::function<std::string(uint32_t nth, bool *reached)> &attempt);

  bool tells_pauses = true;
  QTX_StackTrace *watched = nullptr;  // the record that calls write to, if there is one

 private:
  std::string text_;
};

}  // namespace pulsekit::test

// A line for each of the calls.
#define DO(...)                             \
  do {                                      \
    PULSEKIT_EACH(PULSEKIT_DO, __VA_ARGS__) \
  } while (0)
// One line of a table: the title, then the results of the calls.
#define DO_FOR(title, ...)                                    \
  do {                                                        \
    std::string row_ = ::pulsekit::test::titled(title) + ":"; \
    PULSEKIT_EACH(PULSEKIT_COLUMN, __VA_ARGS__) say(row_);    \
  } while (0)

#define PULSEKIT_DO(call) tellCall(#call, [&] { return call; });
#define PULSEKIT_COLUMN(call) tellColumn(&row_, [&] { return call; });
#define PULSEKIT_PARENTHESES ()
#define PULSEKIT_EXPAND(...) PULSEKIT_EXPAND1(PULSEKIT_EXPAND1(PULSEKIT_EXPAND1(PULSEKIT_EXPAND1(__VA_ARGS__))))
#define PULSEKIT_EXPAND1(...) PULSEKIT_EXPAND2(PULSEKIT_EXPAND2(PULSEKIT_EXPAND2(PULSEKIT_EXPAND2(__VA_ARGS__))))
#define PULSEKIT_EXPAND2(...) PULSEKIT_EXPAND3(PULSEKIT_EXPAND3(PULSEKIT_EXPAND3(PULSEKIT_EXPAND3(__VA_ARGS__))))
#define PULSEKIT_EXPAND3(...) __VA_ARGS__
#define PULSEKIT_EACH(macro, ...) __VA_OPT__(PULSEKIT_EXPAND(PULSEKIT_NEXT(macro, __VA_ARGS__)))
#define PULSEKIT_NEXT(macro, call, ...) macro(call) __VA_OPT__(PULSEKIT_AGAIN PULSEKIT_PARENTHESES(macro, __VA_ARGS__))
#define PULSEKIT_AGAIN() PULSEKIT_NEXT
