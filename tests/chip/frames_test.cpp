// Frames and the sampler CDF of the second generation as sequences on the wire, and what becomes of the counters.
#include "chip/QTX3701/QTX3701-frames.h"
#include "radar.h"

namespace pulsekit::test {
namespace {

class Frames : public Radar {
 protected:
  Frames() { quick(); }

  // Sweeps that end before the first poll, over a scene whose samplers all differ.
  void quick() {
    start();
    for (const char *name : {"Iterations", "PulsesPerStep"}) ASSERT_EQ(set(name, 1), 0);
    const QTXSim_Reflector reflector = {0.3, 150, QTXSIM_STILL, 0, 0, 0};
    ASSERT_EQ(QTXSim_SetScene(0, &reflector, 1, 500, 0), 0);
    QTXSim_ClearRecord();
  }
  std::string capture(int32_t capacity = 4096) {
    frame.assign(frame.size(), 0xdeadbeef);
    const int32_t code = operations->CaptureFrame(chip, frame.data(), capacity, 0);
    size_t filled = frame.size();
    while (filled > 0 && frame[filled - 1] == 0xdeadbeef) --filled;
    return std::to_string(code) +
           format(" filled %zu idle %u pin %d ", filled, chip->sweep_idle, QTXSim_PinLevel(0, 14)) +
           value_of("SampleDelay");
  }
  // The counters of the last sweep against the chip's memory, read byte by byte.
  bool assembled(uint32_t samplers, uint32_t bytes, uint32_t first) {
    std::vector<uint8_t> memory(size_t{samplers} * bytes);
    operations->ReadMemory(radar, 0x20, samplers * bytes, memory.data());
    uint32_t different = 0;
    for (uint32_t k = 0; k < samplers; ++k) {
      uint32_t counter = 0;
      for (uint32_t i = 0; i < bytes; ++i) counter |= uint32_t{memory[k * bytes + i]} << 8 * i;
      if (counter != frame[first + k]) return false;
      different += counter != frame[first];
    }
    return different > samplers / 4;
  }

  std::vector<uint32_t> frame = std::vector<uint32_t>(4096);
};

TEST_F(Frames, Captures) {
  DO(capture(256), capture(255), capture(-1));
  for (const char *pins : {"0", "1"}) {
    for (int64_t stitch : {1, 2, 3}) {
      for (int64_t pipelining : {0, 1}) {
        quick();
        set("SignalStartOfSweep", *pins - '0');
        set("FrameStitch", stitch);
        set("PipeLining", pipelining);
        if (*pins == '1' && stitch > 1) continue;
        DO_FOR(format("stitch %d pipelining %d signal ", int(stitch), int(pipelining)) + pins, capture(), capture(),
               (set("PipeLining", 0), capture()));
      }
    }
  }
  quick();
  DO(setReal("SampleDelay", 2e-9), set("FrameStitch", 2), capture(), set("PipeLining", 1), capture(),
     act("EmptyPipeLine"), capture());
  say("a long sweep is given a moment");
  DO(set("PulsesPerStep", 100), QTX3701_waitForSweepFinished(chip), set("PulsesPerStep", 101),
     QTX3701_waitForSweepFinished(chip), QTX3701_waitForSweepFinished(nullptr));
  DO(operations->CaptureFrame(chip, nullptr, 256, 0), operations->CaptureFrame(nullptr, frame.data(), 256, 0));
}

TEST_F(Frames, AssemblesCountersSweepAfterSweep) {
  for (int64_t stitch : {1, 2}) {
    for (int64_t downsampling : {0, 3}) {
      for (int64_t bytes = 1; bytes <= 4; ++bytes) {
        const auto samplers = static_cast<uint32_t>(256 >> downsampling);
        set("FrameStitch", stitch);
        set("Downsampling", downsampling);
        set("BytesPerCounter", bytes);
        set("CounterMSb", 8 * bytes - 1);
        kinds = 0;
        DO_FOR(format("%d sweeps of %u counters of %d bytes", int(stitch), samplers, int(bytes)), capture(),
               assembled(samplers, static_cast<uint32_t>(bytes), static_cast<uint32_t>(stitch - 1) * samplers));
      }
    }
  }
  named("SamplersOnChip")->value = 2000;
  DO(capture());
}

// A failing step ends the capture and leaves everything as far as it got.
TEST_F(Frames, EveryTransferOfACaptureCanFail) {
  const auto state = [&] {
    return format(" idle %u pin %d ", chip->sweep_idle, QTXSim_PinLevel(0, 14)) + value_of("SampleDelay");
  };
  for (int64_t pipelining : {0, 1}) {
    for (int64_t stitch : {1, 2}) {
      atEveryWrite(
          format("stitch %d pipelining %d", int(stitch), int(pipelining)),
          [&] {
            quick();
            set("FrameStitch", stitch);
            set("PipeLining", pipelining);
          },
          [&] { return operations->CaptureFrame(chip, frame.data(), 4096, 0); }, state);
    }
  }
}

TEST_F(Frames, Normalization) {
  const auto normalized = [&](int64_t iterations, int64_t pulses, int64_t dac_min, int64_t step, uint32_t raw) {
    double wide = -1;
    float single = -1;
    kinds = 0;
    set("Iterations", iterations), set("PulsesPerStep", pulses), set("DACMin", dac_min), set("DACStepFine", step);
    const int32_t code = operations->NormalizeFrameDouble(chip, &raw, &wide, 1);
    operations->NormalizeFrameFloat(chip, &raw, &single, 1);
    return std::to_string(code) + format(" %.17g %.9g", wide, static_cast<double>(single));
  };
  DO(normalized(1, 1, 0, 1, 0), normalized(1, 1, 0, 1, 4096), normalized(10, 20, 0, 8, 102400),
     normalized(1, 1, 4096, 1, 0), normalized(1, 1, 3, 2, 1), normalized(65535, 16777215, 8191, 1, 0),
     normalized(1, 1, 1, 1, 0xffffffff), normalized(1, 1, 0, 1, 16777219), normalized(1, 1, 0, 0, 1));
  double wide = -1;
  float single = -1;
  uint32_t raw = 1;
  DO(operations->NormalizeFrameDouble(chip, nullptr, &wide, 1), operations->NormalizeFrameFloat(chip, &raw, nullptr, 1),
     operations->NormalizeFrameFloat(nullptr, &raw, &single, 1),
     operations->NormalizeFrameDouble(nullptr, &raw, &wide, 1), set("DACStepFine", 8),
     operations->NormalizeFrameDouble(chip, nullptr, nullptr, 0),
     operations->NormalizeFrameDouble(chip, &raw, &wide, -1), wide);
}

class Cdf : public Frames {
 protected:
  Cdf() { range(4080, 4112, 16, 3); }
  void range(int64_t min, int64_t max, int64_t step, int64_t downsampling) {
    set("DACMin", min), set("DACMax", max), set("DACStepFine", step), set("Downsampling", downsampling);
    QTXSim_SetScene(0, nullptr, 0, 0, 0);
  }
  std::string size() {
    uint32_t width = 0, lines = 0;
    const int32_t code = operations->calculateCDF_Size(chip, &width, &lines);
    return format("%d %u x %u", code, width, lines);
  }
  // The first counter of each line, and the one behind the table.
  std::string cdf(int32_t capacity = 96) {
    table.assign(table.size(), 77);
    testing::internal::CaptureStdout();
    const int32_t code = operations->getCDF(chip, table.data(), capacity);
    return std::to_string(code) + format(" [%u %u %u %u %u] ", table[0], table[31], table[32], table[64], table[96]) +
           show(testing::internal::GetCapturedStdout());
  }
  std::vector<uint32_t> table = std::vector<uint32_t>(8000);
};

TEST_F(Cdf, MeasuresLineAfterLineUnderTheOverride) {
  DO(size(), cdf(), values({"DACMin", "DACMax", "DACOverride", "DACOverrideVal"}), cdf(95),
     set("CDF_ReturnDACToZero", 0), cdf(), set("CDF_SpreadingFactor", 2), cdf(), set("CDF_SpreadingFactor", 0), cdf());
  DO(set("DACMin", VAR_AUTO), setReal("ZoomMin", 49.9), set("DACMax", VAR_AUTO), setReal("ZoomMax", 50),
     set("CDF_SpreadingFactor", 1), cdf(), values({"DACMin", "DACMax", "DACOverride", "DACOverrideVal"}));
  kinds = 0;
  DO((range(0, 8191, 64, 0), size()), (range(0, 8191, 8191, 2), size()), (range(100, 100, 1, 3), size()),
     (range(1000, 0, 8, 3), size()), cdf(0), (range(0, 1, 0, 3), size()), cdf());
  DO(QTX3701_calculateCDF_Size(chip, nullptr, nullptr), QTX3701_calculateCDF_Size(nullptr, nullptr, nullptr),
     QTX3701_getCDF(chip, nullptr, 96), QTX3701_getCDF(nullptr, table.data(), 96),
     QTX3701_getCDF_Line(chip, 0, nullptr, 32), QTX3701_getCDF_Line(nullptr, 0, table.data(), 32),
     QTX3701_getCDF_Line(chip, 0, table.data(), 31), QTX3701_getCDF_Line(chip, 0, table.data(), 32));
}

TEST_F(Cdf, EveryTransferCanFail) {
  atEveryWrite(
      "CDF", [&] { quick(), range(4080, 4096, 16, 3); }, [&] { return std::stoi(cdf()); },
      [&] {
        return values({"DACMin", "DACMax", "DACOverride", "DACOverrideVal"}) +
               format(" pin %d", QTXSim_PinLevel(0, 14));
      });
  range(4080, 4112, 16, 3);
  QTXSim_FailCall("Write", 10, 1, 4);
  DO(cdf());
}

}  // namespace
}  // namespace pulsekit::test
