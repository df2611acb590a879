// What a device on the simulated SPI bus does. The bridge does the shifting of bits.
#pragma once

#include <cstddef>
#include <cstdint>

namespace pulsekit::simulator {

class SpiDevice {
 public:
  virtual ~SpiDevice() = default;
  virtual void select() = 0;               // chip select went low
  virtual void deselect() = 0;             // and high again; a byte that was not complete is lost
  virtual uint8_t send() = 0;              // the byte that goes out during the next eight clocks
  virtual void receive(uint8_t byte) = 0;  // the byte that came in during them

  // count bytes both ways; never null. A device with a faster way to move many bytes has its own.
  virtual void exchange(const uint8_t *in, uint8_t *out, size_t count) {
    for (size_t i = 0; i < count; ++i) {
      out[i] = send();
      receive(in[i]);
    }
  }
};

}  // namespace pulsekit::simulator
