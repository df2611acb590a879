// Connection strings, name lookup's building blocks and texts in host buffers.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/Pulsekit3_helpers.h"

namespace pulsekit {
namespace {

struct ConnectionCase {
  const char *text;
  int32_t code;
  const char *interface_name, *interface_connection, *module_name, *chip_name;
};

TEST(ConnectionString, FieldsGoWhereTheirNumberSays) {
  const ConnectionCase cases[] = {
      {"F!dev!QTX-K235!QTX3701", 0, "F", "F!dev", "QTX-K235", "QTX3701"},
      {"F!dev!Unknown!Unknown", 0, "F", "F!dev", "Unknown", "Unknown"},
      {"F!dev!QTX-K235", 0, "F", "F!dev", "", "QTX-K235"},
      {"F!dev", 0, "F", "", "", "dev"},
      {"!!!", 0, "", "!", "", ""},
      {"F!dev!M!C!more!still", 1, "F", "F!dev", "M", "C"},
      {"F!dev!M!C!", 1, "F", "F!dev", "M", "C"},
      {"nothing delimited", 1, "", "", "", ""},
      {"", 1, "", "", "", ""},
  };
  for (const ConnectionCase &c : cases) {
    ConnectionInfo info;
    std::memset(&info, 'x', sizeof info);
    EXPECT_EQ(connectionStringToConnectionInfo(c.text, &info), c.code) << c.text;
    EXPECT_STREQ(info.interface_name, c.interface_name) << c.text;
    EXPECT_STREQ(info.interface_connection, c.interface_connection) << c.text;
    EXPECT_STREQ(info.module_name, c.module_name) << c.text;
    EXPECT_STREQ(info.chip_name, c.chip_name) << c.text;
  }
}

TEST(ConnectionString, EveryFieldIsCutAtItsCapacity) {
  const std::string longest(1000, 'a');
  ConnectionInfo info{};
  EXPECT_EQ(connectionStringToConnectionInfo((longest + "!" + longest + "!" + longest + "!" + longest).c_str(), &info),
            0);
  EXPECT_EQ(std::string(info.interface_name), std::string(63, 'a'));
  EXPECT_EQ(std::string(info.interface_connection), std::string(63, 'a') + "!" + std::string(191, 'a'));
  EXPECT_EQ(std::string(info.module_name), std::string(63, 'a'));
  EXPECT_EQ(std::string(info.chip_name), std::string(63, 'a'));
}

TEST(ConnectionString, IsKeptInTheHandleUpToItsCapacity) {
  QTX_Handle handle{};
  std::memset(handle.connection_string, 'x', sizeof handle.connection_string);
  storeConnectionString(&handle, "F!dev");
  EXPECT_STREQ(handle.connection_string, "F!dev");
  EXPECT_EQ(handle.connection_string[255], '\0');
  storeConnectionString(&handle, std::string(300, 'b').c_str());
  EXPECT_EQ(std::string(handle.connection_string, 256), std::string(256, 'b'));
}

TEST(TextBuffer, ATextAsLongAsTheBufferPassesAndOneMoreLeavesATerminatedText) {
  char memory[6] = "?????";
  TextBuffer text(memory, 4);
  EXPECT_TRUE(text.append("ab"));
  EXPECT_STREQ(memory, "ab");
  EXPECT_TRUE(text.append("cd"));
  EXPECT_EQ(std::string(memory, 5), "abcd?");
  EXPECT_TRUE(text.append(""));
  EXPECT_FALSE(text.append("e"));
  EXPECT_EQ(std::string(memory, 5), std::string("abc\0?", 5));
}

TEST(TextBuffer, WithoutRoomNothingIsWritten) {
  for (const int64_t size : {0, -1}) {
    char memory[2] = "?";
    TextBuffer text(memory, size);
    EXPECT_FALSE(text.append("a"));
    EXPECT_STREQ(memory, "?");
  }
}

}  // namespace
}  // namespace pulsekit
