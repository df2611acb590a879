#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>

#include "Pulsekit3.h"
#include "platform/platform.h"
#include "support/QTX_Handle.h"
#include "support/trace.h"

using namespace pulsekit;

static constexpr const char kSource[] = "tests/error_record";

namespace {

struct Record {
  Record() { QTX_StackTraceInit(&record, nullptr); }
  ~Record() { QTX_StackTraceFree(&record); }
  std::string description(int32_t code = 0, int32_t size = 4096) const {
    std::string text(static_cast<size_t>(size), 'x');
    EXPECT_EQ(QTX_ErrorDescription(record, text.data(), size, code), 0);
    return text.c_str();
  }
  QTX_StackTrace *record = nullptr;
};

}  // namespace

TEST(ErrorMessage, KnownUnknownAndEndMarker) {
  const std::pair<int32_t, const char *> cases[] = {
      {0, "Success"},
      {1, "Error"},
      {2, "Buffer too small"},
      {3, "Stack trace system is not initialized - no error message available"},
      {8, "No such function ID defined for this platform"},
      {263, "Could not read status from the interface device"},
      {272, "Could not open log file"},
      {514, "Module is not initialized"},
      {642, "Error erasing flash"},
      {773, "Timing measurement function could not find level of clock pulse"},
      {1025, "Radar is not initialized"},
      {1286, "Illegal value for this variable"},
      {1287, "NO ERROR MESSAGE AVAILABLE"},
      {1537, "Cancelled"},
      {1538, "Waited too long"},
      {1539, "No stream is running"},
      {1540, "A stream is running"},
      {1541, "Not possible with these settings"},
      {9, "NO ERROR MESSAGE AVAILABLE"},
      {-1, "NO ERROR MESSAGE AVAILABLE"},
      {INT32_MAX, "NO ERROR MESSAGE AVAILABLE"},
      {INT32_MIN, "NO ERROR MESSAGE AVAILABLE"},
  };
  for (const auto &[code, text] : cases) EXPECT_STREQ(GetErrorMessage(code), text) << code;
}

TEST(ErrorRecord, StartsEmptyAndIsShared) {
  static_assert(sizeof(QTX_StackTrace) == 2308);
  Record own;
  EXPECT_EQ(own.description(), "ERROR 0x0: Success\r\n");
  QTX_StackTrace *other = nullptr;
  QTX_StackTraceInit(&other, &own.record);
  EXPECT_EQ(other, own.record);
  QTX_StackTraceFree(nullptr);
  QTX_StackTraceInit(nullptr, nullptr);
}

TEST(ErrorRecord, OriginClearsAndCallersAppend) {
  Record own;
  origin(own.record, {"old", "src/old", 1}, kError, "old message");
  EXPECT_EQ(origin(own.record, {"findVariable_ByName", "src/support/Pulsekit3_helpers", 124}, kUnknownVariable, "Size"),
            1283);
  EXPECT_EQ(passThrough(own.record, {"QTX_VarSetValue_ByName", "src/Pulsekit3", 786}, 1283), 1283);
  EXPECT_EQ(own.description(),
            "ERROR 0x503: Unknown variable - Size\r\n   at: findVariable_ByName in src/support/Pulsekit3_helpers:124"
            "\r\n   from: QTX_VarSetValue_ByName in src/Pulsekit3:786");
  EXPECT_EQ(own.description(2).substr(0, 40), "ERROR 0x2: Buffer too small - Size\r\n   a");
  originKeepingMessage(own.record, HERE_AT(7), kVariableReadOnly);
  EXPECT_EQ(own.description(), "ERROR 0x505: Variable is read only - Size\r\n   at: TestBody in tests/error_record:7");
  origin(own.record, HERE_AT(8), kError);
  EXPECT_EQ(own.description(), "ERROR 0x1: Error\r\n   at: TestBody in tests/error_record:8");
}

TEST(ErrorRecord, FirstFrameOfAPassThroughWithoutOriginReadsAt) {
  Record own;
  EXPECT_EQ(passThrough(own.record, {"f", "s", 5}, 42), 42);
  EXPECT_STREQ(own.record->trace, "   at: f in s:5");
  EXPECT_EQ(origin(nullptr, HERE, 6), 6);
  EXPECT_EQ(passThrough(nullptr, HERE, 6), 6);
}

TEST(ErrorRecord, NothingOverrunsItsCapacities) {
  Record own;
  origin(own.record, HERE, kError, std::string(5000, 'm'));
  EXPECT_EQ(std::strlen(own.record->message), 255u);
  for (int i = 0; i < 200; ++i) passThrough(own.record, HERE, kError);
  EXPECT_EQ(std::strlen(own.record->trace), 2047u);
  const std::string whole = own.description();
  EXPECT_EQ(whole.size(), std::strlen("ERROR 0x1: Error - ") + 255 + 2 + 2047);
  // One character in front of the end, whatever the size; the byte behind the buffer stays.
  for (int32_t size : {1, 2, 9, 20, 275, 277, 300}) {
    std::string buffer(static_cast<size_t>(size) + 1, '~');
    EXPECT_EQ(QTX_ErrorDescription(own.record, buffer.data(), size, 0), 0);
    EXPECT_EQ(buffer.c_str(), whole.substr(0, static_cast<size_t>(size) - 1));
    EXPECT_EQ(buffer.back(), '~');
  }
  char untouched = '~';
  EXPECT_EQ(QTX_ErrorDescription(own.record, &untouched, 0, 0), 0);
  EXPECT_EQ(QTX_ErrorDescription(own.record, &untouched, -5, 0), 0);
  EXPECT_EQ(untouched, '~');
  EXPECT_EQ(QTX_ErrorDescription(own.record, nullptr, 10, 0), 1);
}

TEST(ErrorDescription, WithoutAHandle) {
  char text[200];
  EXPECT_EQ(QTX_GetErrorDescription(nullptr, text, sizeof text, 0), 0);
  EXPECT_STREQ(text, "ERROR 0x3: Stack trace system is not initialized - no error message available");
  EXPECT_EQ(QTX_GetErrorDescription(nullptr, text, sizeof text, 1025), 0);
  EXPECT_STREQ(text, "ERROR 0x401: Radar is not initialized");
  EXPECT_EQ(QTX_GetErrorDescription(nullptr, text, sizeof text, -1), 0);
  EXPECT_STREQ(text, "ERROR 0x-1: NO ERROR MESSAGE AVAILABLE");
}

TEST(Registration, IsNeverThereAndSaysSo) {
  QTX_Handle *handle = nullptr;
  ASSERT_EQ(QTX_InitHandle(&handle), 0);
  origin(handle->error, HERE, kError, "left over");
  EXPECT_EQ(QTX_registerFunction(handle), 8);
  char text[200];
  QTX_GetErrorDescription(handle, text, sizeof text, 0);
  EXPECT_STREQ(text,
               "ERROR 0x8: No such function ID defined for this platform\r\n"
               "   at: QTX_registerFunction in src/platform/x86_windows_gcc/QTX_register:27");
  EXPECT_EQ(QTX_registerFunction(nullptr), 8);
  QTX_FreeHandle(&handle);
}

TEST(LibraryHandle, StartsClearedAndFreesItsSlot) {
  QTX_Handle *handle = nullptr;
  ASSERT_EQ(QTX_InitHandle(&handle), 0);
  EXPECT_STREQ(handle->connection_string, "");
  EXPECT_STREQ(handle->connection_info->interface_connection, "");
  EXPECT_EQ(handle->interface_handle, nullptr);
  EXPECT_EQ(handle->spare, nullptr);
  EXPECT_EQ(handle->chip, nullptr);
  EXPECT_EQ(handle->module, nullptr);
  EXPECT_NE(handle->error, nullptr);
  EXPECT_EQ(handle->open, 0);
  EXPECT_EQ(handle->frame_log, nullptr);
  EXPECT_EQ(QTX_FreeHandle(&handle), 0);
  EXPECT_EQ(handle, nullptr);
  EXPECT_EQ(QTX_FreeHandle(&handle), 0);
  EXPECT_EQ(QTX_FreeHandle(nullptr), 0);
  EXPECT_EQ(QTX_InitHandle(nullptr), 1);
}

TEST(Identity, TextsAndTheirSizeLimits) {
  char text[17] = "----------------";
  EXPECT_EQ(QTX_Version(text, 12), 2);
  EXPECT_EQ(text[0], '-');
  EXPECT_EQ(QTX_Version(text, 13), 0);
  EXPECT_STREQ(text, "3.3.0~RC1 (x64)");
  char name[11] = "##########";
  EXPECT_EQ(QTX_Name(name, 9), 2);
  EXPECT_EQ(QTX_Name(name, -1), 2);
  EXPECT_EQ(name[0], '#');
  EXPECT_EQ(QTX_Name(name, 10), 0);
  EXPECT_STREQ(name, "Pulsekit3");
  EXPECT_EQ(QTX_Name(nullptr, 10), 1);
  EXPECT_EQ(QTX_Version(nullptr, 100), 1);
  EXPECT_STREQ(QTX_SupportVersion(), "3.3.0~RC1");
  EXPECT_STREQ(QTX_SupportName(), "Pulsekit3");
  EXPECT_EQ(QTX_ConnectionStringDelimiter1(), 33);
  EXPECT_EQ(QTX_ConnectionStringDelimiter2(), 35);
  EXPECT_EQ(QTX_ListDelimiter(), 44);
}

TEST(TypeCodes, LookAtOneBitEach) {
  for (uint32_t type = 0; type <= 0xffff; ++type) {
    const auto code = static_cast<uint16_t>(type);
    ASSERT_EQ(QTX_VarTypeIsFloat(code), (type >> 12) & 1);
    ASSERT_EQ(QTX_VarTypeIsInt(code), (type >> 11) & 1);
    ASSERT_EQ(QTX_VarTypeIsEnum(code), (type >> 3) & 1);
  }
}
