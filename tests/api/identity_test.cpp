// Version, names, lists of supported drivers: texts in buffers of every size.
#include <functional>

#include "fakes.h"

namespace pulsekit::test {
namespace {

struct TextFunction {
  const char *name;
  std::function<int32_t(char *, int32_t)> write;
  int32_t smallest;  // size that passes
  std::string text;
};

TEST(Identity, TextsNeedTheRoomThatTheyState) {
  const TextFunction functions[] = {
      {"QTX_Version", QTX_Version, 13, "3.3.0~RC1 (x64)"},
      {"QTX_Name", QTX_Name, 10, "Pulsekit3"},
      {"QTX_ListSupportedChips", QTX_ListSupportedChips, 72,
       "QTX3400 (QTX3400),QTX3500 (QTX3500),QTX3701 (QTX3701),QTX3702 (QTX3702)"},
      {"QTX_ListSupportedModules", QTX_ListSupportedModules, 161,
       "QTX-K225 (QTX_K2x5),QTX-K225E (QTX_K2x5),QTX-K235 (QTX_K2x5),QTX-K235E (QTX_K2x5),QTX-K245 (QTX_K2x5),"
       "QTX-K245E (QTX_K2x5),QTX-K265 (QTX_K265),DEFAULT (DEFAULT)"},
      {"QTX_ListSupportedInterfaces", QTX_ListSupportedInterfaces, 18, "FTx232H (FTx232H)"},
  };
  for (const TextFunction &function : functions) {
    char buffer[256];
    for (const int32_t size : {function.smallest, 256}) {
      std::memset(buffer, '?', sizeof buffer);
      EXPECT_EQ(function.write(buffer, size), 0) << function.name << size;
      EXPECT_EQ(buffer, function.text) << function.name;
    }
    for (const int32_t size : {function.smallest - 1, 0, -1}) {
      std::memset(buffer, '?', sizeof buffer);
      EXPECT_EQ(function.write(buffer, size), 2) << function.name << size;
      EXPECT_EQ(buffer[std::max(size, 0)], '?') << function.name << size;
    }
    EXPECT_EQ(function.write(nullptr, 256), 1) << function.name;
  }
}

TEST(Identity, TypeCodesAreToldApartByTheirBitAlone) {
  const uint16_t types[] = {0, 0x8, 0x800, 0x1000, 0xfff7, 0xf7ff, 0xefff, 0xffff};
  for (const uint16_t type : types) {
    EXPECT_EQ(QTX_VarTypeIsEnum(type), type & 0x8 ? 1 : 0) << type;
    EXPECT_EQ(QTX_VarTypeIsInt(type), type & 0x800 ? 1 : 0) << type;
    EXPECT_EQ(QTX_VarTypeIsFloat(type), type & 0x1000 ? 1 : 0) << type;
  }
}

TEST(Identity, DelimitersAreThoseOfTheTextsThatTheLibraryWrites) {
  EXPECT_EQ(QTX_ConnectionStringDelimiter1(), '!');
  EXPECT_EQ(QTX_ConnectionStringDelimiter2(), '#');
  EXPECT_EQ(QTX_ListDelimiter(), ',');
  EXPECT_STREQ(QTX_SupportVersion(), "3.3.0~RC1");
  EXPECT_STREQ(QTX_SupportName(), "Pulsekit3");
}

TEST(Identity, TheHandleOfAFreedSlotIsNull) {
  EXPECT_EQ(QTX_InitHandle(nullptr), 1);
  QTX_Handle *handle = nullptr;
  ASSERT_EQ(QTX_InitHandle(&handle), 0);
  EXPECT_EQ(handle->open, 0);
  EXPECT_EQ(handle->interface_handle, nullptr);
  EXPECT_EQ(handle->frame_log_flags, 0);
  EXPECT_EQ(QTX_FreeHandle(&handle), 0);
  EXPECT_EQ(handle, nullptr);
  EXPECT_EQ(QTX_FreeHandle(&handle), 0);
  EXPECT_EQ(QTX_OpenRadar(handle, "FTx232H!x!Unknown!Unknown"), 1025);
  EXPECT_EQ(QTX_CloseRadar(handle), 1);
}

TEST(Identity, ADescriptionIsCutAtTheBuffer) {
  Library library;
  uint64_t value = 0;
  QTX_VarGetValue_ByName(library, "FrameSize", &value);
  const std::string all = description(library);
  for (int32_t size = -1; size < static_cast<int32_t>(all.size()) + 2; ++size) {
    std::vector<char> text(all.size() + 3, '?');
    EXPECT_EQ(QTX_GetErrorDescription(library, text.data(), size, 0), 0);
    EXPECT_EQ(text[static_cast<size_t>(std::max(size, 0))], '?') << size;
    if (size > 0) {
      EXPECT_EQ(std::string(text.data()), all.substr(0, static_cast<size_t>(size) - 1));
    }
  }
  EXPECT_EQ(description(nullptr), "ERROR 0x3: Stack trace system is not initialized - no error message available");
}

}  // namespace
}  // namespace pulsekit::test
