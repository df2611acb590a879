// Pins, SPI transfers and the byte pipe below them: commands, bounds, and what a failure leaves behind.
#include <numeric>

#include "bridge.h"
#include "module/module.h"

namespace pulsekit::test {
namespace {

using Bytes = std::vector<uint8_t>;

class Transfers : public Bridge {
 protected:
  Transfers() { fresh(); }
  ~Transfers() override { radar->module = nullptr; }

  int32_t transfer(const Bytes &out, uint32_t in_count, int32_t mode = SPI_MODE_EXECUTE, uint32_t channel = 0) {
    return bridge->SendReceiveSPI(bridge, channel, out.data(), static_cast<int32_t>(out.size()), in.data(), in_count,
                                  mode);
  }
  int32_t bits(const Bytes &out, int32_t out_bits, int32_t in_bits, uint32_t flags = 0x100, uint32_t channel = 0) {
    return bridge->SendReceiveBitsSPI(bridge, channel, out.data(), out_bits, in.data(), in_bits, flags);
  }
  // The result, the answer bytes and the state of the batch.
  std::string full(int32_t code, size_t count) {
    const std::string text = std::to_string(code) + " [" + hex(in.data(), count) + "] " + batch();
    std::fill_n(in.begin(), 16, uint8_t{9});
    return text;
  }
  std::string fill(uint32_t count, uint8_t command = 0x85) {
    for (uint32_t i = 0; i < count; ++i) AddByteToOutputBuffer(bridge, command, i == 0);
    const int32_t code = SendBytesToDevice(bridge);
    return std::to_string(code) + " " + batch();
  }
  // Whether the bytes of a long transfer reach the wire as they are.
  std::string sent(size_t count) {
    Bytes bytes(count);
    for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + i / 256);
    QTXSim_ClearRecord();
    const int32_t code = transfer(bytes, 0);
    QTXSim_Advance(100'000'000);
    QTXSim_Event frame{};
    for (uint32_t i = 0; QTXSim_RecordEvent(i, &frame) == 0 && frame.kind != QTXSIM_EVENT_SPI;) ++i;
    const bool same = frame.kind == QTXSIM_EVENT_SPI && Bytes(frame.out, frame.out + frame.out_bits / 8) == bytes;
    return std::to_string(code) + (same ? " same" : " other");
  }
  void insert(size_t count) {
    const Bytes bytes(count, 0x5A);
    QTXSim_InsertAnswer(0, bytes.data(), static_cast<uint32_t>(count));
  }
  int32_t setText(const char *name, const char *text) { return varSetValue_ByString(bridge->variables, name, text); }

  Bytes in = Bytes(131072, 9);
};

TEST_F(Transfers, PinsOfEachModuleDriver) {
  ModuleHandle module{};
  DO(FTx232H_ID_to_pin(radar, 1107), FTx232H_ID_to_pin(nullptr, 1107));
  module.driver_name = "QTX_K265";
  radar->module = &module;
  DO(FTx232H_ID_to_pin(radar, 1207), (interfaceInitInterface(bridge), FTx232H_ID_to_pin(radar, 1207)));
  for (const char *name : {"DEFAULT", "QTX_K2x5", "QTX_K265", "QTX_K2x6"}) {
    module.driver_name = name;
    interfaceInitInterface(bridge);
    std::string pins, channels;
    for (int32_t id = -1; id < 1212; ++id) {
      const int32_t pin = FTx232H_ID_to_pin(radar, id);
      if (pin != -1 && (pin != id || id < 2 || id == 499)) pins += format(" %d:%d", id, pin);
    }
    for (int32_t id = -1; id < 5; ++id) channels += format(" %d", FTx232H_ID_to_SPIchannel(radar, id));
    say(name + pins + " channels" + channels);
  }
}

TEST_F(Transfers, Pins) {
  DO(interfaceIO_SetDirection(bridge, 500, 1, 1), interfaceIO_SetDirection(bridge, 5, 1, 0),
     interfaceIO_SetValue(bridge, 500, 0), interfaceIO_SetValue(bridge, 1107, 1),
     interfaceIO_SetDirection(bridge, 5, 0, 0), interfaceIO_GetValue(bridge, 1107, &value), value);
  for (int32_t level : {0, 1}) DO(QTXSim_DrivePin(0, 9, level), interfaceIO_GetValue(bridge, 9, &value), value);
  DO(interfaceIO_SetValue(bridge, 1, 1));
  for (uint32_t pin : {0u, 16u, 499u, 501u, 1200u, 0xFFFFFFFFu}) {
    DO_FOR(pin, interfaceIO_SetValue(bridge, pin, 1), interfaceIO_SetDirection(bridge, pin, 1, 1),
           interfaceIO_GetValue(bridge, pin, &value));
  }
  DO(interfaceIO_GetValue(bridge, 5, nullptr));
  for (const char *call : {"Write", "GetQueueStatus", "Read"}) {
    fresh(call);
    DO_FOR(call, interfaceIO_GetValue(bridge, 5, &value), batch(), interfaceIO_GetValue(bridge, 5, &value));
    fresh(call);
    DO_FOR(call, interfaceIO_SetValue(bridge, 5, 1), batch(), interfaceIO_SetValue(bridge, 5, 1));
    fresh(call);
    DO_FOR(call, interfaceIO_SetDirection(bridge, 5, 1, 1), batch(), interfaceIO_SetDirection(bridge, 5, 1, 0));
  }
  fresh();
  connection().output_count = sizeof connection().output_buffer - 60;
  for (int i = 0; i < 12; ++i) {
    QTXSim_FailCall("Write", 1, 1, FT_IO_ERROR);
    kinds = 0;
    DO_FOR("a write that keeps failing", bridge->SetIO(bridge, 5, 1), batch());
  }
}

TEST_F(Transfers, Spi) {
  DO(full(transfer({2, 2}, 2), 2), full(transfer({0x9F}, 3, SPI_MODE_EXECUTE, 1), 3), full(transfer({}, 0), 1),
     bridge->SendReceiveSPI(bridge, 0, nullptr, 0, nullptr, 0, 1));
  say("queued transfers share one write and one read");
  DO(full(transfer({2, 2}, 2, SPI_MODE_QUEUE), 2), full(transfer({2, 1}, 1, SPI_MODE_QUEUE), 2),
     full(transfer({2, 2}, 2), 6), full(transfer({2, 2}, 2, SPI_MODE_QUEUE), 2),
     full(transfer({4}, 1, SPI_MODE_COLLECT, 1), 2), full(transfer({4}, 2, SPI_MODE_COLLECT, 1), 3),
     transfer({1}, 0, SPI_MODE_COLLECT));
  say("refusals send nothing and leave the batch alone");
  const uint8_t out[4] = {};
  transfer({0xA1}, 100, SPI_MODE_QUEUE);
  DO(full(transfer({1}, 1, SPI_MODE_EXECUTE, 2), 1), full(transfer({1}, 1, SPI_MODE_QUEUE, 0xFFFFFFFF), 1),
     full(transfer({1}, 1, 3), 1), full(transfer({1}, 1, -1), 1),
     full(bridge->SendReceiveSPI(bridge, 0, nullptr, 4, in.data(), 0, SPI_MODE_QUEUE), 1),
     full(bridge->SendReceiveSPI(bridge, 0, out, 4, nullptr, 0, 1), 1),
     full(bridge->SendReceiveSPI(bridge, 0, out, -1, in.data(), 0, 1), 1), full(bits({1}, 8, 8, 0, 2), 1));
  for (const char *call : {"Write", "GetQueueStatus", "Read"}) {
    fresh(call);
    DO_FOR(call, full(transfer({2, 2}, 2), 2), full(transfer({2, 2}, 2), 3));
    fresh(call);
    DO_FOR(call, full(bits({2}, 8, 8), 1), full(bits({2}, 8, 8), 1));
  }
  static FTx232H_D2XX short_reads = *QTXSim_D2XX();
  short_reads.Read = [](FT_HANDLE device, void *buffer, uint32_t count, uint32_t *got) {
    return QTXSim_D2XX()->Read(device, buffer, count - 1, got);
  };
  FTx232H_SetD2XX(&short_reads);
  fresh();
  DO(full(transfer({2, 2}, 2), 2), full(bits({2, 2}, 16, 16), 2));
}

TEST_F(Transfers, LargestAndOneByteMore) {
  Bytes stored(65536);
  std::iota(stored.begin(), stored.end(), uint8_t{7});
  for (size_t i = 0; i < stored.size(); i += 251) stored[i] ^= static_cast<uint8_t>(i >> 8);
  ASSERT_EQ(QTXSim_FlashWrite(0, 0x10000, stored.data(), 65536), 0);
  setText("SPIClockFrequency", "30MHz");
  for (uint32_t count : {1u, 255u, 1024u, 65535u, 65536u}) {
    QTXSim_ResetStatistics();
    DO_FOR(count, transfer({0x0B, 1, 0, 0, 0}, count, SPI_MODE_EXECUTE, 1), QTXSim_Calls("GetQueueStatus"));
    EXPECT_TRUE(std::equal(stored.begin(), stored.begin() + count, in.begin())) << count;
    EXPECT_EQ(in[count], 9) << count;
    in.assign(in.size(), 9);
  }
  QTXSim_ResetStatistics();
  DO(transfer(Bytes(65536, 0x11), 65536), transfer(Bytes(65537, 0x5A), 0), transfer({}, 65537),
     transfer({}, 65537, SPI_MODE_QUEUE), transfer({}, 131072, SPI_MODE_COLLECT), bits({0}, 65536 * 8 + 1, 8),
     bits({0}, 8, 2147483647));
  DO(full(transfer({}, 65536, SPI_MODE_QUEUE), 0), full(transfer({}, 65536, SPI_MODE_QUEUE), 0),
     full(transfer({}, 65536, SPI_MODE_QUEUE), 0), full(transfer({}, 65535, SPI_MODE_QUEUE), 0),
     full(transfer({}, 1), 0));
  for (int i = 0; i < 5; ++i) DO_FOR("queued", transfer(Bytes(60000, 1), 0, SPI_MODE_QUEUE), batch());
}

TEST_F(Transfers, BitsAndClock) {
  const uint8_t out = 0;
  DO(full(bits({0x02, 0x02}, 12, 12), 2), full(bits({0x02, 0x02}, 12, 9, 0), 2), full(bits({0x02, 0x02}, 12, 0), 2),
     full(bits({0x02}, 8, 8), 2));
  DO(bridge->SendReceiveBitsSPI(bridge, 2, &out, 8, in.data(), 8, 0),
     bridge->SendReceiveBitsSPI(bridge, 0, nullptr, 8, in.data(), 8, 0),
     bridge->SendReceiveBitsSPI(bridge, 0, &out, 8, nullptr, 8, 0), setText("SPIToggleSlaveSelectEnable", "2"),
     setText("SPIToggleSlaveSelectEnable", "0"), bits({0xB0}, 8, 8), bits({0xB0}, 3, 1, 0xFFFFFEFF));
  for (const char *clock : {"30MHz", "15MHz", "10MHz", "7.5MHz", "6MHz", "5MHz", "4.28MHz"})
    DO_FOR(clock, setText("SPIClockFrequency", clock));
  QTXSim_FailCall("Write", 1, 1, FT_IO_ERROR);
  DO(setSPIClockFrequency(radar, 0x1234),
     varActionTrigger(bridge->variables, varActionNamed(bridge->variables, "InterfaceReset")));
}

TEST_F(Transfers, BytePipe) {
  for (uint32_t count : {1u, 4096u, 4097u, 12288u, 12290u}) DO_FOR(count, fill(count));
  QTXSim_ShortWrite(0, 1, 100);
  DO(sent(5000), sent(20'000), (QTXSim_ShortWrite(0, 2, 0), fill(5000)), fill(1));
  for (uint32_t nth : {1, 2}) DO((fresh("Write", nth), fill(5000)));
  fresh();
  connection().output_count = sizeof connection().output_buffer - 1;
  DO(AddByteToOutputBuffer(bridge, 1, 0), AddByteToOutputBuffer(bridge, 2, 0), batch());
  kinds |= QTXSIM_EVENT_POLL;
  DO((insert(3), ReadInQueue(bridge, 3)), hex(connection().input_buffer, 3), ReadInQueue(bridge, 0),
     ReadInQueue(bridge, sizeof connection().input_buffer + 1));
  for (uint32_t nth : {1, 40}) DO((QTXSim_FailCall("GetQueueStatus", nth, 1, FT_IO_ERROR), ReadInQueue(bridge, 3)));
  say("a queue that holds too much or too little times out, is drained, and the next transfer works");
  kinds = QTXSIM_EVENT_CALL;
  insert(200'000);
  connection().pending_read_count = 5;
  QTXSim_ResetStatistics();
  DO(ReadInQueue(bridge, 2), QTXSim_Calls("GetQueueStatus"), batch(), full(transfer({2, 2}, 2), 2));
  DO((QTXSim_LoseAnswer(0, 1, 1), full(transfer({2, 2}, 2), 2)), full(transfer({2, 2}, 2), 2));
  DO((insert(3), QTXSim_FailCall("Read", 1, 1, FT_IO_ERROR), ReadInQueue(bridge, 2)),
     ResetUSBDevicePurgeUSBInputBuffer(bridge), ResetInQueue(bridge),
     (insert(10), ResetUSBDevicePurgeUSBInputBuffer(bridge)));
  for (const char *call : {"ResetDevice", "GetQueueStatus", "Read"}) {
    insert(1);
    QTXSim_FailCall(call, 1, 1, FT_INVALID_HANDLE);
    DO_FOR(call, ResetUSBDevicePurgeUSBInputBuffer(bridge));
  }
  say("pulling the plug");
  for (uint32_t nth : {1, 2, 3}) {
    fresh();
    QTXSim_UnplugAtCall(0, nth);
    DO(full(transfer({2, 2}, 2), 2), bridge->SetIO(bridge, 5, 0), bridge->GetIO(bridge, 5, &value),
       interfaceDisconnect(bridge));
    QTXSim_Replug(0);
  }
}

}  // namespace
}  // namespace pulsekit::test
