// Error records and their texts, small text helpers, numbers, clock and lock.
#include <atomic>
#include <cmath>
#include <regex>
#include <set>
#include <thread>
#include <utility>

#include "Pulsekit3.h"
#include "platform/platform.h"
#include "support/Pulsekit3_helpers.h"
#include "support/QTX_Handle.h"
#include "support/numbers.h"
#include "support/trace.h"
#include "transcript.h"

namespace pulsekit {
namespace {

class Texts : public test::Told {
 protected:
  static TracePoint at(int line) { return {"function", "tests/texts", line}; }
  std::string description(QTX_StackTrace *of, int32_t size = 4096, int32_t code = 0) {
    std::string text(static_cast<size_t>(std::max(size, 0)) + 1, '~');
    const int32_t answer = QTX_ErrorDescription(of, text.data(), size, code);
    EXPECT_EQ(text.back(), '~') << size;
    return std::to_string(answer) + " " + text.c_str();
  }
};

TEST_F(Texts, OfEveryErrorCode) {
  std::set<std::string> known;
  for (int32_t code = -1; code < 1300; ++code) {
    const std::string text = GetErrorMessage(code);
    if (known.insert(text).second) say(std::to_string(code) + " " + text);
    EXPECT_TRUE(text.starts_with("NO ERROR") || code != 9);
  }
  DO(GetErrorMessage(2147483647), GetErrorMessage(-2147483647 - 1));
}

TEST_F(Texts, ErrorRecords) {
  static_assert(sizeof(QTX_StackTrace) == 2308);
  QTX_StackTrace *own = nullptr, *other = nullptr;
  QTX_StackTraceInit(&own, nullptr);
  QTX_StackTraceInit(&other, &own);
  EXPECT_EQ(other, own);
  DO(description(own), origin(own, {"old", "src/old", 1}, kError, "old message"),
     origin(own, {"findVariable", "src/support/helpers", 124}, kUnknownVariable, "Size"),
     passThrough(own, {"QTX_VarSetValue_ByName", "src/Pulsekit3", 786}, 1283), description(own),
     description(own, 60, 2), originKeepingMessage(own, at(7), kVariableReadOnly), description(own),
     origin(own, at(8), kError), description(own), passThrough(nullptr, at(9), 6), origin(nullptr, at(9), 6),
     originKeepingMessage(nullptr, at(9), 6));
  own->trace[0] = '\0';
  DO(passThrough(own, {"f", "s", 5}, 42), own->trace);
  origin(own, at(9), kError, std::string(5000, 'm'));
  for (int i = 0; i < 200; ++i) passThrough(own, at(12345), kError);
  const std::string whole = description(own).substr(2);
  DO(std::strlen(own->message), std::strlen(own->trace), whole.size());
  for (int32_t size : {1, 2, 9, 20, 275, 277, 300}) {
    EXPECT_EQ(description(own, size), "0 " + whole.substr(0, static_cast<size_t>(size) - 1));
  }
  DO(description(own, 0), description(own, -5), QTX_ErrorDescription(own, nullptr, 10, 0));
  QTX_StackTraceFree(&own);
  DO(own, description(own));
  QTX_StackTraceFree(nullptr);
  QTX_StackTraceInit(nullptr, nullptr);
}

TEST_F(Texts, LibraryHandle) {
  char text[200];
  QTX_Handle *handle = nullptr;
  DO(QTX_GetErrorDescription(handle, text, 200, 0), text, QTX_GetErrorDescription(handle, text, 200, 1025), text,
     QTX_GetErrorDescription(handle, text, 200, -1), text, QTX_InitHandle(nullptr), QTX_InitHandle(&handle));
  watched = handle->error;
  DO(handle->connection_string, handle->connection_info->interface_connection, handle->interface_handle, handle->spare,
     handle->chip, handle->module, handle->open, handle->frame_log, handle->frame_log_flags,
     QTX_registerFunction(handle), QTX_GetErrorDescription(handle, text, 200, 0), text, QTX_registerFunction(nullptr));
  watched = nullptr;
  DO(QTX_FreeHandle(&handle), handle, QTX_FreeHandle(&handle), QTX_FreeHandle(nullptr), QTX_SupportVersion(),
     QTX_SupportName(), QTX_ConnectionStringDelimiter1(), QTX_ConnectionStringDelimiter2(), QTX_ListDelimiter());
  for (uint32_t type = 0; type <= 0xffff; ++type) {
    const auto code = static_cast<uint16_t>(type);
    ASSERT_EQ(QTX_VarTypeIsFloat(code) * 0x1000 + QTX_VarTypeIsInt(code) * 0x800 + QTX_VarTypeIsEnum(code) * 8,
              code & 0x1808);
  }
}

TEST_F(Texts, ConnectionStrings) {
  const std::string longest(300, 'a');
  for (const std::string &text :
       {std::string("F!dev!QTX-K235!QTX3701"), std::string("F!dev!QTX-K235"), std::string("F!dev"), std::string("!!!"),
        std::string("F!dev!M!C!more!still"), std::string("F!dev!M!C!"), std::string("nothing delimited"), std::string(),
        longest + "!" + longest + "!" + longest + "!" + longest}) {
    ConnectionInfo info;
    std::memset(&info, 'x', sizeof info);
    DO_FOR(text.substr(0, 40), connectionStringToConnectionInfo(text.c_str(), &info), info.interface_name,
           info.interface_connection, info.module_name, info.chip_name);
  }
  QTX_Handle handle{};
  storeConnectionString(&handle, std::string(300, 'b').c_str());
  EXPECT_EQ(std::string(handle.connection_string, 256), std::string(256, 'b'));
  storeConnectionString(&handle, "F!dev");
  DO(handle.connection_string, handle.connection_string[255]);
}

TEST_F(Texts, TextBuffer) {
  for (const int64_t size : {4, 0, -1}) {
    char memory[6] = "?????";
    TextBuffer text(memory, size);
    DO_FOR(size, text.empty(), text.append("ab"), memory, text.append("cd"), text.empty(), test::hex(memory, 5),
           text.append(""), text.append("e"), test::hex(memory, 5));
  }
}

TEST_F(Texts, SmallHelpers) {
  char text[80] = "not written";
  DO(QTX_itoa(0, text, 10), QTX_itoa(-255, text, 16), QTX_itoa(-2147483647 - 1, text, 10),
     QTX_itoa(-2147483647 - 1, text, 2), QTX_itoa(35, text, 36), QTX_itoa(-35, text, 36), QTX_itoa(1, text, 1),
     QTX_itoa(1, text, 37), QTX_itoa(1, text, 0), QTX_itoa(0x123456789, text, 16), QTX_itoa(0xffffffff, text, 10),
     QTX_itoa(1, nullptr, 10), std::strcpy(text, "0x"), QTX_intcat(text, 1283, 16), QTX_chrcat(text, '!'),
     QTX_intcat(text, 0x80000000u, 2), QTX_intcat(text, 5, 99), QTX_strltrim(text, "\t  abc "),
     QTX_strltrim(text, "\n abc"), QTX_strltrim(text, " \t "), QTX_strltrim(text, std::strcpy(text, "   in place")));
  const auto split = [](const char *of, int32_t most, int32_t length) {
    char buffers[3][9];
    std::memset(buffers, '~', sizeof buffers);
    for (char *buffer : buffers) buffer[8] = '\0';
    char *fields[] = {buffers[0], buffers[1], buffers[2]};
    std::string result = std::to_string(QTX_strsplit(of, fields, most, length, ','));
    for (char *field : fields) result += " " + std::string(field, 8).substr(0, std::strlen(field));
    return result;
  };
  DO(split("a,b,c", 3, 8), split("a,", 3, 8), split(",,", 3, 8), split("ab", 3, 8), split("a", 3, 8), split(",", 3, 8),
     split("", 3, 8), split("a,b,c", 2, 8), split("abc", 3, 3), split("abc", 3, 4), split("abc", 0, 4),
     split("abc", 3, 0), QTX_strsplit(nullptr, nullptr, 3, 3, ','));
}

TEST_F(Texts, Numbers) {
  DO(parseInteger("  42x"), parseInteger("+7"), parseInteger("-1"), parseInteger("Auto"), parseInteger(""),
     parseInteger("9223372036854775807"), parseInteger("18446744073709551615"), parseInteger("99999999999999999999999"),
     parseInteger(" -18446744073709551615"), parseDouble("+-5"), parseDouble("-abc"), formatFixed(1.5, -3),
     formatFixed(0.5, 2000).size());
  EXPECT_TRUE(std::isnan(parseDouble("nan")));
  for (const char *text :
       {"1.5",  "-1.5e3", "+2",     "  7e-1x", "1.500000e+009", "",    "x",     "-",  "1e", "0x1.8p1", "inf",
        "-inf", "1e999",  "-1e999", "1e-999",  "0x-5",          "-0x", "0xinf", ".5", "5.", "1e-310",  "0.1e999"}) {
    EXPECT_EQ(doubleToBits(parseDouble(text)), doubleToBits(std::strtod(text, nullptr))) << text;
  }
  for (double value : {0.0, 1.5e9, -2.5e-300, 99.915, 1e300, 3.0 / 7, 4.2e-11}) {
    char text[400];
#ifdef _WIN32
    _snprintf(text, sizeof text, "%e", value);
#else
    std::snprintf(text, sizeof text, "%e", value);
#endif
    EXPECT_EQ(formatExponent(value), text);
    for (int precision : {0, 3, 17}) {
      std::snprintf(text, sizeof text, "%.*f", precision, value);
      EXPECT_EQ(formatFixed(value, precision), text);
    }
  }
}

TEST_F(Texts, ClockAndLock) {
  char text[25] = "~~~~~~~~~~~~~~~~~~~~~~~~";
  EXPECT_TRUE(std::regex_match(QTX_timestamp_string(text, 0),
                               std::regex(R"(2\d{3}-[01]\d-[0-3]\dT[0-2]\d:[0-5]\d:[0-6]\d\.\d{3})")));
  DO(QTX_timestamp_string(nullptr, 24));
  DO(QTX_sleep_ms(0), QTX_sleep_ms(2), QTX_sleep_ms(1234));
  const uint64_t start = QTX_timestamp_us();
  while (QTX_timestamp_us() == start) {
  }
  EXPECT_GT(QTX_timestamp_us(), start);

  platform::Lock lock;
  lock.leave();
  lock.enter();
  lock.enter();
  std::atomic<bool> entered = false;
  std::thread other([&] {
    lock.leave();  // not the owner: must not free it
    lock.enter();
    entered = true;
    lock.leave();
  });
  for (const uint64_t now = QTX_timestamp_us(); QTX_timestamp_us() < now + 5000;) EXPECT_FALSE(entered);
  lock.leave();
  lock.leave();
  other.join();
  EXPECT_TRUE(entered);
}

}  // namespace
}  // namespace pulsekit
