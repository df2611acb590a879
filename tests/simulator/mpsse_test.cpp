// MPSSE commands: what each is answered and puts on the wire, however its bytes arrive.
#include <random>

#include "bench.h"

namespace simtest {
namespace {

class Mpsse : public Bench {
 protected:
  Mpsse() {
    restart();
    kinds = QTXSIM_EVENT_SPI | QTXSIM_EVENT_CLOCK | QTXSIM_EVENT_ODD | QTXSIM_EVENT_PIN;
  }
  // The whole answer.
  Bytes answer(const Bytes &commands) {
    write(commands);
    uint32_t count = queued();
    for (uint32_t before = ~0u; count != before; count = queued()) before = count;
    return read(count);
  }
  void tell(const Bytes &commands) {
    restart();
    DO_FOR(show(commands), answer(commands + Bytes{0x87}));
  }
};

// The data line idles low, data-out is high, the clock idles low.
TEST_F(Mpsse, Commands) {
  say("bytes and bits out and in, either order and edge");
  for (const Bytes &commands : {Bytes{0x11, 1, 0, 0x13, 0x80},
                                {0x19, 1, 0, 0x13, 0x80},
                                {0x13, 2, 0xB0},
                                {0x1B, 2, 0x05},
                                {0x10, 0, 0, 0x13},
                                {0x20, 1, 0},
                                {0x22, 6},
                                {0x11, 0, 0, 0xFE, 0x81},
                                {0x80, 0xF6, 0x3B, 0x31, 0, 0, 0x12, 0x33, 3, 0x34, 0x80, 0xFE, 0x3B}})
    tell(commands);
  say("the same in a loop");
  for (const Bytes &commands : {Bytes{0x31, 1, 0, 0x13, 0xA4},
                                {0x34, 0, 0, 0x13},
                                {0x39, 0, 0, 0x13},
                                {0x33, 2, 0xB0},
                                {0x33, 7, 0xC5},
                                {0x36, 2, 0xB0},
                                {0x3B, 2, 0x05},
                                {0x20, 0, 0},
                                {0x85, 0x31, 0, 0, 0x13}})
    tell(Bytes{0x84} + commands);
  say("pins, clock, no effect, bad ones");
  for (const Bytes &commands : {Bytes{0x80, 0xF6, 0x3B, 0x80, 0xFE, 0x3B},
                                {0x80, 0xE8, 0x3B, 0x81},
                                {0x82, 0x40, 0xC0, 0x83},
                                {0x86, 0x34, 0x12},
                                {0x8B, 0x86, 1, 0},
                                {0x8B, 0x8A},
                                {0x8E, 7, 0x8F, 0, 1},
                                {0x88, 0x81},
                                {0x8C, 0x8D, 0x96, 0x97},
                                {0xAA, 0x40, 0x81},
                                {0x00, 0x0F}})
    tell(commands);
}

TEST_F(Mpsse, EdgesAndBitOrdersAgainstADevice) {
  kinds = 0;
  const auto flash = [&](const Bytes &commands, uint8_t idle_clock = 0) {
    const auto high = static_cast<uint8_t>(0xFE | idle_clock), low = static_cast<uint8_t>(0xEE | idle_clock);
    tell(Bytes{0x80, high, 0x3B, 0x80, low, 0x3B} + commands + Bytes{0x80, high, 0x3B});
  };
  flash({0x11, 0, 0, 0x9F, 0x20, 2, 0});
  flash({0x11, 0, 0, 0x9F, 0x24, 2, 0});
  flash({0x31, 3, 0, 0x9F, 0, 0, 0});
  flash({0x19, 0, 0, 0xF9, 0x28, 2, 0});
  say("in pieces of bits, across the borders of bytes");
  flash({0x13, 2, 0x9F, 0x13, 4, 0xF8, 0x20, 2, 0});
  flash({0x11, 0, 0, 0x9F, 0x22, 2, 0x20, 0, 0, 0x22, 4});
  flash({0x13, 3, 0x90, 0x11, 0, 0, 0xF0, 0x22, 3, 0x22, 7});
  say("writing at the rising edge, the device sees the bit before; an address in the unprogrammed part one bit early");
  flash({0x10, 0, 0, 0x9F, 0x20, 0, 0});
  flash({0x80, 0xEC, 0x3B, 0x10, 5, 0, 0xEE, 0x00, 0x01, 0x00, 0x00, 0x00, 0x20, 0, 0});
  flash({0x10, 0, 0, 0x9F, 0x20, 2, 0}, 1);
  say("an incomplete byte is lost with its frame, a chip select that is not driven floats high");
  DO(write({0x80, 0xEE, 0x3B, 0x13, 6, 0x9F, 0x80, 0xFE, 0x3B}), flashFrame({0x9F}, 3),
     answer({0x80, 0xEE, 0x2B, 0x11, 0, 0, 0x9F, 0x20, 2, 0, 0x80, 0xFE, 0x3B, 0x87}), flashFrame({0x9F}, 3));
  say("the idle level is what nobody drives");
  for (int32_t level : {0, 1})
    DO_FOR(level, QTXSim_SetIdleLevel(device, level), answer({0x22, 4, 0x2A, 4, 0x20, 0, 0, 0x87}));
}

TEST_F(Mpsse, ABitModeResetLeavesAHalfReceivedCommand) {
  const auto mode = [&](uint8_t number) { return d2xx().SetBitMode(handle, 0, number); };
  const Bytes look = {0x81, 0x87};
  DO(write({0x11, 0xFF, 0xFF, 0x01}), answer(look));
  say("emptying the FIFOs ends no command, a bridge in reset interprets nothing");
  DO(d2xx().ResetDevice(handle), answer(look), mode(0), answer(look));
  say("all pins float, power is off, the slow clock is back");
  DO(mode(2), answer({0x81, 0x86, 0, 0, 0x87}));
}

// Every command, with answers whose order would show a mistake.
const Bytes kEverything = {
    0x8A, 0x86, 0x01, 0x00, 0x85, 0x80, 0xEE, 0x3B, 0x82, 0xFF, 0x40,        // clock, flash selected
    0x11, 0x00, 0x00, 0x9F, 0x20, 0x02, 0x00, 0x80, 0xFE, 0x3B,              // its identification
    0x80, 0xEE, 0x3B, 0x13, 0x03, 0x90, 0x13, 0x03, 0xF0, 0x22, 0x07,        // the same in bits
    0x24, 0x01, 0x00, 0x80, 0xFE, 0x3B, 0x80, 0xEE, 0x3B,                    //
    0x19, 0x00, 0x00, 0xF9, 0x28, 0x01, 0x00, 0x2A, 0x03, 0x80, 0xFE, 0x3B,  // least significant bit first
    0x84, 0x80, 0xF6, 0x3B, 0x31, 0x03, 0x00, 0x12, 0x87, 0x8A, 0x56,        // data that looks like commands
    0x34, 0x00, 0x00, 0x99, 0x33, 0x04, 0xA8, 0x36, 0x02, 0x60, 0x39,        //
    0x01, 0x00, 0x13, 0x37, 0x3B, 0x02, 0x05, 0x85, 0x80, 0xFE, 0x3B,        //
    0x81, 0x83, 0x88, 0x80, 0xDE, 0x3B, 0x89, 0x80, 0xFE, 0x3B, 0x8B,        // pins
    0x8E, 0x03, 0x8F, 0x01, 0x00, 0x8C, 0x8D, 0x96, 0x97, 0xAB, 0x87,        // clock alone, a bad command
};

TEST_F(Mpsse, CutAnywhereGivesTheSame) {
  DO(answer(kEverything));
  const auto run = [&](const Bytes &commands, size_t from, size_t piece) {
    restart();
    const auto part = [&](size_t at, size_t end) { return Bytes(commands.data() + at, commands.data() + end); };
    write(part(0, from));
    for (size_t at = from; at < commands.size(); at += piece) write(part(at, std::min(at + piece, commands.size())));
    const std::string text = show(answer({})), record = QTXSim_RecordText(kinds);
    return text + record.substr(0, record.find("SPI - "));  // which ends with a write
  };
  const std::string whole = run(kEverything, 0, kEverything.size());
  for (size_t cut = 1; cut < kEverything.size(); ++cut)
    EXPECT_EQ(run(kEverything, cut, kEverything.size()), whole) << cut;
  EXPECT_EQ(run(kEverything, 0, 1), whole) << "every byte on its own";
  std::mt19937 random(3);
  for (int i = 0; i < 40; ++i) {
    // Lengths stay short, so that few of the bytes are data.
    Bytes noise(200);
    for (uint8_t &byte : noise) byte = static_cast<uint8_t>(random() % 3 == 0 ? random() % 3 : 0x10 + random() % 0x90);
    const size_t piece = 1 + random() % 40, from = random() % 200;
    EXPECT_EQ(run(noise, from, piece), run(noise, 0, 200)) << show(noise);
  }
}

}  // namespace
}  // namespace simtest
