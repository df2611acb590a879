// Lists simulated radars, opens one, calibrates it, captures frames of a room and says what is in it.
// usage: demo [SCENE [FRAMES]]   a scene file as examples/room.toml, the frame log to write
#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <numbers>
#include <string>
#include <vector>

#include "FTx232H_D2XX.h"
#include "Pulsekit3.h"
#include "Pulsekit3Simulator.h"

namespace {

constexpr double kSpeedOfLight = 299792458;  // m/s
constexpr int kFrames = 100;
constexpr double kFramesPerSecond = 10;
constexpr double kPeakDistance = 0.15;  // metres between two peaks, at least
constexpr double kPeakToNoise = 4;

using Frame = std::vector<double>;

void check(QTX_Handle *radar, int32_t code) {
  if (code == 0) return;
  char text[4096];
  QTX_GetErrorDescription(radar, text, sizeof text, code);
  std::fprintf(stderr, "%s\n", text);
  std::exit(1);
}

double value(QTX_Handle *radar, const char *name) {
  double result = 0;
  check(radar, QTX_VarGetValueAsFloat_ByName(radar, name, &result));
  return result;
}

// The effective amplitude around each sampler: the pulses oscillate within a few samplers.
Frame envelope(const Frame &power) {
  constexpr int kReach = 12;
  Frame result(power.size());
  for (int k = 0; k < static_cast<int>(power.size()); ++k) {
    double sum = 0, weights = 0;
    for (int j = std::max(0, k - kReach); j <= std::min(static_cast<int>(power.size()) - 1, k + kReach); ++j) {
      const double weight = std::exp(-0.5 * (j - k) * (j - k) / 25.0);
      sum += weight * power[static_cast<size_t>(j)];
      weights += weight;
    }
    result[static_cast<size_t>(k)] = std::sqrt(sum / weights);
  }
  return result;
}

std::vector<size_t> peaks(const Frame &amplitude, double samplers_apart) {
  Frame sorted = amplitude;
  std::nth_element(sorted.begin(), sorted.begin() + static_cast<long>(sorted.size() / 2), sorted.end());
  const double threshold = kPeakToNoise * sorted[sorted.size() / 2];
  std::vector<size_t> found;
  const size_t apart = static_cast<size_t>(samplers_apart);
  for (size_t k = apart; k + 1 < amplitude.size(); ++k) {
    const size_t first = k - apart, last = std::min(k + apart, amplitude.size() - 1);
    const auto begin = amplitude.begin() + static_cast<long>(first);
    const auto end = amplitude.begin() + static_cast<long>(last) + 1;
    if (amplitude[k] > threshold && amplitude[k] == *std::max_element(begin, end)) found.push_back(k);
  }
  return found;
}

// The strongest rhythm of the levels around one sampler over the frames, in hertz.
double rhythm(const std::vector<Frame> &frames, const Frame &mean, size_t sampler) {
  const size_t first = sampler - std::min<size_t>(sampler, 12), last = std::min(sampler + 12, mean.size() - 1);
  double best = 0, best_rate = 0;
  for (double rate = 0.1; rate < 1; rate += 0.01) {
    double power = 0;
    for (size_t k = first; k <= last; ++k) {
      std::complex<double> sum = 0;
      for (size_t i = 0; i < frames.size(); ++i) {
        const double time = static_cast<double>(i) / kFramesPerSecond;
        sum += (frames[i][k] - mean[k]) * std::polar(1.0, -2 * std::numbers::pi * rate * time);
      }
      power += std::norm(sum);
    }
    if (power > best) {
      best = power;
      best_rate = rate;
    }
  }
  return best_rate;
}

int32_t plugIn(const char *scene) {
  QTXSim_Reset();
  const int32_t radar = QTXSim_AddRadar("SIM00001", "Simulated radar", QTXSIM_FT232H, "QTX-K245", "QTX3701");
  const int32_t other = QTXSim_AddRadar("SIM00002", "Simulated radar", QTXSIM_FT232H, "QTX-K265", "QTX3702");
  QTXSim_SetHeld(QTXSim_AddRadar("SIM00003", "Simulated radar", QTXSIM_FT232H, "QTX-K235", "QTX3701"), 1);
  QTXSim_SetRecording(0);
  char error[256] = "";
  if (radar < 0 || other < 0 || QTXSim_LoadScene(radar, scene, error, sizeof error) != 0) {
    std::fprintf(stderr, "%s: %s\n", scene, error);
    std::exit(1);
  }
  return FTx232H_SetD2XX(QTXSim_D2XX());
}

}  // namespace

int main(int count, char **arguments) {
  const char *scene = count > 1 ? arguments[1] : "examples/room.toml";
  const char *log = count > 2 ? arguments[2] : "build/frames.csv";
  QTX_Handle *radar = nullptr;
  check(nullptr, plugIn(scene));
  check(nullptr, QTX_InitHandle(&radar));

  char text[2048];
  check(radar, QTX_ListRadarModules(radar, text, sizeof text));
  std::string list = text;
  std::string first = list.substr(0, list.find('#'));
  std::replace(list.begin(), list.end(), '#', '\n');
  std::printf("Radars:\n%s\n\n", list.c_str());

  check(radar, QTX_OpenRadar(radar, first.c_str()));
  const double nominal = value(radar, "SamplesPerSecond");
  check(radar, QTX_ExecuteAction_ByName(radar, "MeasureAll"));
  std::printf("Opened %s\nCalibrated: %.3f GS/s instead of the nominal %.3f GS/s\n", first.c_str(),
              value(radar, "SamplesPerSecond") / 1e9, nominal / 1e9);

  check(radar, QTX_VarSetIntValue_ByName(radar, "FrameStitch", 3));
  const auto samplers = static_cast<size_t>(value(radar, "SamplersPerFrame"));
  const double rate = value(radar, "SamplesPerSecond");
  const double start = value(radar, "SampleDelay");
  const auto range = [&](size_t k) { return kSpeedOfLight / 2 * (start + static_cast<double>(k) / rate); };
  std::printf("Frames of %zu samplers, %.2f m to %.2f m\n", samplers, range(0), range(samplers - 1));

  std::vector<Frame> frames(kFrames, Frame(samplers));
  Frame mean(samplers), motion(samplers);
  // The first stitched frame leaves the delay chains where the calibration wants them.
  check(radar, QTX_GetFrameNormalized(radar, mean.data(), static_cast<int64_t>(samplers)));
  std::fill(mean.begin(), mean.end(), 0.0);
  QTXSim_ResetStatistics();
  for (int i = 0; i < kFrames; ++i) {
    Frame &frame = frames[static_cast<size_t>(i)];
    check(radar, QTX_GetFrameNormalized(radar, frame.data(), static_cast<int64_t>(samplers)));
    for (size_t k = 0; k < samplers; ++k) mean[k] += frame[k] / kFrames;
    QTXSim_Statistics spent;
    QTXSim_GetStatistics(&spent);
    const double due = (i + 1) / kFramesPerSecond * 1e9;
    if (due > static_cast<double>(spent.nanoseconds)) QTXSim_Advance(static_cast<uint64_t>(due) - spent.nanoseconds);
  }
  for (const Frame &frame : frames) {
    for (size_t k = 0; k < samplers; ++k) motion[k] += (frame[k] - mean[k]) * (frame[k] - mean[k]) / kFrames;
  }
  Frame level(samplers);
  double middle = 0;
  for (const double sampler : mean) middle += sampler / static_cast<double>(samplers);
  for (size_t k = 0; k < samplers; ++k) level[k] = (mean[k] - middle) * (mean[k] - middle);

  const double apart = kPeakDistance * 2 / kSpeedOfLight * rate;
  const Frame still = envelope(level), moving = envelope(motion);
  const std::vector<size_t> moving_peaks = peaks(moving, apart);
  std::printf("\nFound in %d frames:\n", kFrames);
  for (const size_t k : peaks(still, apart)) {
    const bool moves = std::any_of(moving_peaks.begin(), moving_peaks.end(), [&](size_t m) {
      return std::fabs(static_cast<double>(m) - static_cast<double>(k)) < apart;
    });
    if (!moves) std::printf("  %.2f m  something still\n", range(k));
  }
  for (const size_t k : moving_peaks) {
    std::printf("  %.2f m  something that moves %.2f times a second\n", range(k), rhythm(frames, mean, k));
  }

  check(radar, QTX_FrameLoggingStart(radar, log, 0x11, 0));
  std::vector<uint32_t> raw(samplers);
  for (int i = 0; i < 10; ++i) check(radar, QTX_GetFrameRaw(radar, raw.data(), raw.size()));
  check(radar, QTX_FrameLoggingStop(radar));
  std::printf("\nWrote 10 raw frames to %s\n", log);

  check(radar, QTX_CloseRadar(radar));
  return QTX_FreeHandle(&radar);
}
