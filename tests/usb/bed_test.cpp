// The test bed below libusb: what libusb sees of the simulated bridges, and of their faults.
#include <gtest/gtest.h>
#include <libusb.h>

#include <utility>
#include <vector>

#include "Pulsekit3Simulator.h"
#include "usb/UsbBed.h"

namespace {

using pulsekit::simulator::UsbBed;

constexpr unsigned kWait = 300;  // milliseconds, for what ends long before or never

class Bed : public testing::Test {
 protected:
  void SetUp() override {
    QTXSim_Reset();
    QTXSim_AddRadar("FT0001AB", "Radar", QTXSIM_FT2232H, "QTX-K245", "QTX3701");
    ASSERT_EQ(libusb_init(&context_), 0);
  }
  void TearDown() override {
    if (handle_) libusb_close(handle_);
    libusb_exit(context_);
  }

  int open() {
    libusb_exit(context_);
    libusb_init(&context_);
    libusb_device **list = nullptr;
    const ssize_t count = libusb_get_device_list(context_, &list);
    const int code = count == 1 ? libusb_open(list[0], &handle_) : LIBUSB_ERROR_NOT_FOUND;
    libusb_free_device_list(list, 1);
    if (code == 0) libusb_set_auto_detach_kernel_driver(handle_, 1);
    return code;
  }
  int start() {
    if (const int code = libusb_claim_interface(handle_, 0)) return code;
    return request(0x0B, 0x0200);
  }
  int request(uint8_t what, uint16_t value) {
    return libusb_control_transfer(handle_, 0x40, what, value, 1, nullptr, 0, kWait);
  }
  int send(std::vector<uint8_t> bytes) {
    return libusb_bulk_transfer(handle_, 0x02, bytes.data(), static_cast<int>(bytes.size()), &moved_, kWait);
  }
  int receive() {
    in_.assign(4096, 0);
    const int code = libusb_bulk_transfer(handle_, 0x81, in_.data(), 4096, &moved_, kWait);
    in_.resize(static_cast<size_t>(moved_));
    return code;
  }

  UsbBed bed_;
  libusb_context *context_ = nullptr;
  libusb_device_handle *handle_ = nullptr;
  int moved_ = 0;
  std::vector<uint8_t> in_;
};

TEST_F(Bed, ShowsEachBridgeWithItsChannels) {
  struct Row {
    int32_t bridge;
    uint16_t product;
    int interfaces;
  };
  for (const Row &row : {Row{QTXSIM_FT232H, 0x6014, 1}, {QTXSIM_FT2232H, 0x6010, 2}, {QTXSIM_FT4232H, 0x6011, 4}}) {
    QTXSim_Reset();
    QTXSim_AddRadar("FT0001AB", "Radar", row.bridge, nullptr, nullptr);
    ASSERT_EQ(open(), 0);
    libusb_device_descriptor descriptor;
    libusb_get_device_descriptor(libusb_get_device(handle_), &descriptor);
    EXPECT_EQ(descriptor.idProduct, row.product);
    unsigned char serial[32] = "";
    libusb_get_string_descriptor_ascii(handle_, descriptor.iSerialNumber, serial, sizeof serial);
    EXPECT_STREQ(reinterpret_cast<char *>(serial), "FT0001AB");
    EXPECT_EQ(libusb_claim_interface(handle_, row.interfaces - 1), 0);
    EXPECT_EQ(libusb_claim_interface(handle_, row.interfaces), LIBUSB_ERROR_INVALID_PARAM);
    libusb_close(std::exchange(handle_, nullptr));
  }
}

TEST_F(Bed, AnswersCommandsAtOnceAndIdleHostsAfterTheLatency) {
  ASSERT_EQ(open(), 0);
  EXPECT_TRUE(bed_.driverBound(0, 0));
  ASSERT_EQ(start(), 0);
  EXPECT_FALSE(bed_.driverBound(0, 0));
  QTXSim_ResetStatistics();
  EXPECT_EQ(send({0xAA, 0x87}), 0);
  EXPECT_EQ(receive(), 0);
  EXPECT_EQ(in_, (std::vector<uint8_t>{0x32, 0x60, 0xFA, 0xAA}));
  QTXSim_Statistics counts;
  QTXSim_GetStatistics(&counts);
  EXPECT_EQ(counts.out_transfers + counts.in_transfers, 2u);
  EXPECT_EQ(counts.nanoseconds, 250'000u);
  EXPECT_EQ(receive(), 0);
  EXPECT_EQ(moved_, 2);
  EXPECT_EQ(libusb_release_interface(handle_, 0), 0);
  EXPECT_TRUE(bed_.driverBound(0, 0));
}

TEST_F(Bed, PassesScheduledFaultsOn) {
  ASSERT_EQ(open(), 0);
  QTXSim_SetHeld(0, 1);
  EXPECT_EQ(start(), LIBUSB_ERROR_BUSY);
  QTXSim_SetHeld(0, 0);
  ASSERT_EQ(start(), 0);
  QTXSim_FailCall("Write", 1, 1, 4);
  EXPECT_EQ(send({0xAA}), LIBUSB_ERROR_IO);
  QTXSim_FailCall("SetLatencyTimer", 1, 1, 4);
  EXPECT_EQ(request(0x09, 2), LIBUSB_ERROR_PIPE);
  QTXSim_ShortWrite(0, 1, 1);
  EXPECT_EQ(send({0xAA, 0xAB}), LIBUSB_ERROR_TIMEOUT);
  EXPECT_EQ(moved_, 1);
  QTXSim_UnplugAtCall(0, 1);
  EXPECT_EQ(send({0xAA}), LIBUSB_ERROR_NO_DEVICE);
  EXPECT_EQ(receive(), LIBUSB_ERROR_NO_DEVICE);
  QTXSim_Replug(0);
  bed_.setAccess(0, false);
  libusb_close(std::exchange(handle_, nullptr));
  EXPECT_EQ(open(), LIBUSB_ERROR_ACCESS);
  bed_.setAccess(0, true);
  EXPECT_EQ(open(), 0);
}

}  // namespace
