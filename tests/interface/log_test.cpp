// The interface log file.
#include "bridge_fixture.h"

namespace {

class InterfaceLog : public BridgeTest {
 protected:
  InterfaceLog() { connect(); }
  ~InterfaceLog() override { std::remove(path.c_str()); }

  int32_t mode(int32_t mode) { return bridge->InterfaceLogging(bridge, mode, path.c_str()); }

  int32_t transfer(const Bytes &out, uint32_t in_count) {
    uint8_t in[16];
    return bridge->SendReceiveSPI(bridge, 0, out.data(), static_cast<int32_t>(out.size()), in, in_count, 1);
  }

  const std::string path = ::testing::TempDir() + "pulsekit-interface.log";
};

}  // namespace

TEST_F(InterfaceLog, Lines) {
  uint8_t in[2];
  const uint8_t out[] = {0xB0, 0x0F};
  ASSERT_EQ(mode(1), 0);
  ASSERT_EQ(mode(3), 0);
  d2xx.replies = {{}, {0x00, 0xFE}, {0xAB}, {0x12, 0x30}, {0x77}};
  EXPECT_EQ(transfer({0x90, 0x02}, 0), 0);
  EXPECT_EQ(transfer({0x02, 0x02}, 2), 0);
  EXPECT_EQ(transfer({}, 1), 0);
  EXPECT_EQ(bridge->SendReceiveBitsSPI(bridge, 0, out, 12, in, 12, 0x100), 0);
  EXPECT_EQ(bridge->InterfaceLogComment(bridge, "reset %s"), 0);
  EXPECT_EQ(mode(0), 0) << "a pause";
  EXPECT_EQ(transfer({0xEE}, 1), 0);
  EXPECT_EQ(bridge->InterfaceLogComment(bridge, "unheard"), 271);
  EXPECT_EQ(mode(3), 0);
  EXPECT_EQ(transfer({0x01}, 0), 0);
  EXPECT_EQ(mode(2), 0);
  EXPECT_EQ(contentOf(path),
            "W\t90 02 \n"
            "W\t02 02 \nR\t00 00 \t//response = 00 FE \n"
            "R\t00 \t//response = AB \n"
            "W\tB0 0F \t//response = 12 30 \n"
            "reset %s\n"
            "W\t01 \n");
}

TEST_F(InterfaceLog, NothingIsWrittenBeforeRecordingStarts) {
  ASSERT_EQ(mode(1), 0);
  EXPECT_EQ(std::string(bridge->log_file_name), path.substr(0, 8));
  EXPECT_EQ(transfer({1}, 0), 0);
  expectFailure(bridge->InterfaceLogComment(bridge, "x"), 271, "", {"FTx232H_InterfaceLogComment"});
  ASSERT_EQ(mode(2), 0);
  EXPECT_EQ(contentOf(path), "");
  EXPECT_STREQ(bridge->log_file_name, "");
}

TEST_F(InterfaceLog, BadInput) {
  const Names logging = {"FTx232H_InterfaceLogging"};
  for (const std::string &name : {std::string("no/such/folder/log"), std::string(10'000, 'n'), ::testing::TempDir()}) {
    expectFailure(bridge->InterfaceLogging(bridge, 1, name.c_str()), 272, "", logging);
  }
  expectFailure(bridge->InterfaceLogging(bridge, 1, nullptr), 1, "", logging);
  EXPECT_EQ(bridge->log_file, nullptr);
  EXPECT_EQ(mode(2), 0) << "closing what is not open";
  EXPECT_EQ(mode(3), 0);
  EXPECT_EQ(transfer({1}, 0), 0) << "recording without a file";
  expectFailure(bridge->InterfaceLogComment(bridge, "x"), 271, "", {"FTx232H_InterfaceLogComment"});
  expectFailure(bridge->InterfaceLogComment(bridge, nullptr), 1, "", {"FTx232H_InterfaceLogComment"});
}

TEST_F(InterfaceLog, OpeningAgainAndReleasingCloseTheFile) {
  ASSERT_EQ(mode(1), 0);
  ASSERT_EQ(mode(3), 0);
  EXPECT_EQ(bridge->InterfaceLogComment(bridge, "first"), 0);
  ASSERT_EQ(mode(1), 0);
  ASSERT_EQ(mode(3), 0);
  EXPECT_EQ(bridge->InterfaceLogComment(bridge, "second"), 0);
  open("FTx232H");
  EXPECT_EQ(contentOf(path), "second\n");
}
