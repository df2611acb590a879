// Counts breaths: half a minute of frames, the phase of the echo where most moves, and the strongest rhythm in it.
#include <algorithm>
#include <cstdio>

#include "baseband.hpp"
#include "pulsekit3.hpp"

constexpr double kRateHertz = 10;
constexpr std::size_t kFrames = 300;

struct Moment {
  double seconds;
  std::vector<Echo> echoes;
};

// Half a minute of the room.
static std::vector<Moment> watch(pulsekit3::Radar &radar, double timeStepSeconds) {
  std::vector<Moment> moments;
  auto stream = radar.stream<float>(kRateHertz);
  for (const auto &frame : stream) {
    moments.push_back({frame.seconds(), baseband(frame, timeStepSeconds)});
    if (moments.size() == kFrames) stream.stop();
  }
  return moments;
}

static Echo meanAt(const std::vector<Moment> &moments, std::size_t k) {
  Echo sum = 0;
  for (const Moment &moment : moments) sum += moment.echoes[k];
  return sum / static_cast<double>(moments.size());
}

static std::size_t whereMostMoves(const std::vector<Moment> &moments) {
  std::vector<double> motion;
  for (std::size_t k = 0; k < moments[0].echoes.size(); ++k) {
    const Echo mean = meanAt(moments, k);
    double sum = 0;
    for (const Moment &moment : moments) sum += std::norm(moment.echoes[k] - mean);
    motion.push_back(sum);
  }
  return static_cast<std::size_t>(std::max_element(motion.begin(), motion.end()) - motion.begin());
}

// From 6 to 60 a minute.
static double strongestRhythm(const std::vector<Moment> &moments, std::size_t k) {
  const Echo mean = meanAt(moments, k);
  double strongest = 0, result = 0;
  for (int tenths = 60; tenths <= 600; ++tenths) {
    Echo sum = 0;
    for (const Moment &moment : moments) {
      const double phase = std::arg(moment.echoes[k] * std::conj(mean));
      sum += phase * std::polar(1.0, -2 * kPi * tenths / 600 * moment.seconds);
    }
    if (std::abs(sum) <= strongest) continue;
    strongest = std::abs(sum);
    result = tenths / 10.0;
  }
  return result;
}

int main() try {
  pulsekit3::Radar radar = pulsekit3::openRadar();
  radar.calibrate();
  radar["FrameStitch"] = 2;  // up to 2.3 m
  const pulsekit3::Geometry shape = radar.geometry();
  const std::vector<Moment> moments = watch(radar, shape.timeStepSeconds);
  const std::size_t k = whereMostMoves(moments);
  std::printf("%.2f m: %.1f breaths a minute\n", shape.rangeMetres(k), strongestRhythm(moments, k));
} catch (const pulsekit3::Error &error) {
  std::fprintf(stderr, "%s\n%s", error.text(), error.trace().c_str());
  return 1;
}
