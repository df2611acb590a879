// The same jobs through the C functions and through the C++ header, which should cost no more.
#pragma once

#include <array>
#include <functional>
#include <string>
#include <vector>

#include "pulsekit3.hpp"
#include "radar.h"

namespace pulsekit::benchmark {

using Run = std::function<void()>;

struct Twin {
  const char *name;
  Run (*c)(pulsekit3::Radar &);
  Run (*header)(pulsekit3::Radar &);
};

// A host that looks at codes.
inline void must(int32_t code) {
  if (code != 0) std::abort();
}

inline const std::vector<Twin> &twins() {
  using pulsekit3::Radar;
  static std::array<uint32_t, 256> counters;
  static std::array<double, 256> levels;
  static double value;
  static int64_t toggle;
  static const std::vector<Twin> all = {
      {"get a setting",
       [](Radar &r) -> Run {
         return [h = r.handle()] { must(QTX_VarGetValueAsFloat_ByName(h, "PulsesPerStep", &value)); };
       },
       [](Radar &r) -> Run { return [&r] { value = r["PulsesPerStep"]; }; }},
      {"get a setting, named before",
       [](Radar &r) -> Run {
         return [h = r.handle()] { must(QTX_VarGetValueAsFloat_ByName(h, "PulsesPerStep", &value)); };
       },
       [](Radar &r) -> Run { return [pulses = r["PulsesPerStep"]] { must(pulses.tryGet(value)); }; }},
      {"set a whole number",
       [](Radar &r) -> Run {
         return [h = r.handle()] { must(QTX_VarSetIntValue_ByName(h, "PulsesPerStep", 40 + (toggle ^= 1))); };
       },
       [](Radar &r) -> Run { return [&r] { r["PulsesPerStep"] = 40 + (toggle ^= 1); }; }},
      {"set a fraction",
       [](Radar &r) -> Run {
         return
             [h = r.handle()] { must(QTX_VarSetFloatValue_ByName(h, "SampleDelay", (toggle ^= 1) ? 20e-9 : 40e-9)); };
       },
       [](Radar &r) -> Run { return [&r] { r["SampleDelay"] = (toggle ^= 1) ? 20e-9 : 40e-9; }; }},
      {"set a fraction, named before",
       [](Radar &r) -> Run {
         return
             [h = r.handle()] { must(QTX_VarSetFloatValue_ByName(h, "SampleDelay", (toggle ^= 1) ? 20e-9 : 40e-9)); };
       },
       [](Radar &r) -> Run {
         return [delay = r["SampleDelay"]] { must(delay.trySet((toggle ^= 1) ? 20e-9 : 40e-9)); };
       }},
      {"raw frame into an array",
       [](Radar &r) -> Run { return [h = r.handle()] { must(QTX_GetFrameRaw(h, counters.data(), counters.size())); }; },
       [](Radar &r) -> Run { return [&r] { r.frame(counters); }; }},
      {"frame into a vector that fits",
       [](Radar &r) -> Run {
         return [h = r.handle()] { must(QTX_GetFrameNormalized(h, levels.data(), int64_t{levels.size()})); };
       },
       [](Radar &r) -> Run { return [&r, frame = std::vector<double>()]() mutable { r.frame(frame); }; }},
      {"streamed frame",
       [](Radar &r) -> Run {
         must(QTX_StreamStart(r.handle(), nullptr));
         return [h = r.handle(), frames = std::vector<uint32_t>(16 * 256), infos = std::vector<QTX_FrameInfo>(16),
                 count = uint32_t{0}, taken = uint32_t{0}]() mutable {
           if (taken == count) {
             must(QTX_StreamRead(h, frames.data(), frames.size(), infos.data(), 16, &count, -1));
             taken = 0;
           }
           value = frames[256 * taken++];
         };
       },
       [](Radar &r) -> Run {
         auto stream = std::make_shared<pulsekit3::Stream<uint32_t>>(r.stream<uint32_t>());
         return [stream] { value = stream->next()[0]; };
       }},
      {"chip register",
       [](Radar &r) -> Run {
         return [h = r.handle()] {
           uint64_t word = 0;
           must(QTX_RegisterRead(h, 0x31, 3, &word));
           value = static_cast<double>(word);
         };
       },
       [](Radar &r) -> Run { return [&r] { value = static_cast<double>(r.readRegister(0x31, 3)); }; }},
  };
  return all;
}

// On a bench of its own.
struct TwinBench {
  pulsekit3::Radar radar;
  Run run;

  TwinBench(const Twin &twin, bool header) {
    plugIn();
    radar.open(kConnection);
    run = (header ? twin.header : twin.c)(radar);
  }
};

}  // namespace pulsekit::benchmark
