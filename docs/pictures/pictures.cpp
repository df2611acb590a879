// Measures what the pictures of the guide show, on a simulated radar without motion and in deterministic time.
// usage: pictures FOLDER   writes a text file of columns for each picture
#include <algorithm>
#include <cmath>
#include <cstdint>
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
constexpr double kCodes = 8192;              // of the threshold DAC
constexpr double kNoise = 40;                // codes

void check(QTX_Handle *radar, int32_t code) {
  if (code == 0) return;
  char text[4096];
  QTX_GetErrorDescription(radar, text, sizeof text, code);
  std::fprintf(stderr, "%s\n", text);
  std::exit(1);
}

class Table {
 public:
  explicit Table(const std::string &path) : file_(std::fopen(path.c_str(), "w")) {
    if (file_) return;
    std::perror(path.c_str());
    std::exit(1);
  }
  ~Table() { std::fclose(file_); }
  Table(const Table &) = delete;
  Table &operator=(const Table &) = delete;
  void row(double x, double y, double z = 0) { std::fprintf(file_, "%.7g %.7g %.7g\n", x, y, z); }

 private:
  FILE *file_;
};

// A simulated radar that is open, before a scene.
class Radar {
 public:
  Radar(const std::vector<QTXSim_Reflector> &scene, double coupling, double noise) {
    QTXSim_Reset();
    QTXSim_SetRecording(0);
    device = QTXSim_AddRadar("SIM00001", "Simulated radar", QTXSIM_FT232H, "QTX-K245", "QTX3701");
    QTXSim_SetScene(device, scene.data(), static_cast<uint32_t>(scene.size()), coupling, noise);
    check(nullptr, FTx232H_SetD2XX(QTXSim_D2XX()));
    check(nullptr, QTX_InitHandle(&handle));
    char name[256];
    check(handle, QTX_ListRadarModules(handle, name, sizeof name));
    check(handle, QTX_OpenRadar(handle, name));
  }
  ~Radar() {
    QTX_CloseRadar(handle);
    QTX_FreeHandle(&handle);
  }
  Radar(const Radar &) = delete;
  Radar &operator=(const Radar &) = delete;

  void set(const char *name, double value) { check(handle, QTX_VarSetValueAsFloat_ByName(handle, name, value)); }
  double get(const char *name) {
    double value = 0;
    check(handle, QTX_VarGetValueAsFloat_ByName(handle, name, &value));
    return value;
  }
  void act(const char *name) { check(handle, QTX_ExecuteAction_ByName(handle, name)); }
  std::vector<double> frame() {
    std::vector<double> values(static_cast<size_t>(get("SamplersPerFrame")));
    check(handle, QTX_GetFrameNormalized(handle, values.data(), static_cast<int64_t>(values.size())));
    return values;
  }
  double range(double sampler) { return kSpeedOfLight / 2 * (get("SampleDelay") + sampler / get("SamplesPerSecond")); }

  int32_t device = -1;
  QTX_Handle *handle = nullptr;
};

QTXSim_Reflector still(double range, double strength) { return {range, strength, QTXSIM_STILL, 0, 0, 0}; }

// The echo of one reflector without noise: time in ns, level in percent.
void pulse(const std::string &path) {
  Radar radar({still(0.75, 500)}, 0, 0);
  Table table(path);
  const std::vector<double> levels = radar.frame();
  const double start = radar.get("SampleDelay"), rate = radar.get("SamplesPerSecond");
  for (size_t k = 0; k < levels.size(); ++k) table.row((start + static_cast<double>(k) / rate) * 1e9, levels[k]);
}

// The share of pulses that lie above each threshold at one sampler; the true level beside it.
void counter(const std::string &path) {
  Radar radar({still(0.75, 500)}, 0, kNoise);
  radar.set("ZoomMin", 50);
  radar.set("ZoomMax", 70);
  radar.set("DACStep", 4);
  uint32_t width = 0, lines = 0;
  check(radar.handle, QTX_CalculateCDF_Size(radar.handle, &width, &lines));
  std::vector<uint32_t> counts(size_t{width} * lines);
  check(radar.handle, QTX_GetCDF(radar.handle, counts.data(), static_cast<int32_t>(counts.size())));
  const double pulses = radar.get("Iterations") * radar.get("PulsesPerStep");
  std::vector<double> levels(width);
  QTXSim_TrueLevels(radar.device, levels.data(), width);
  const auto sampler = static_cast<size_t>(std::max_element(levels.begin(), levels.end()) - levels.begin());
  Table table(path);
  for (uint32_t i = 0; i < lines; ++i) {
    const double threshold = radar.get("DACMin") + i * radar.get("DACStepFine");
    table.row(100 * threshold / kCodes, counts[size_t{i} * width + sampler] / pulses, 100 * levels[sampler] / kCodes);
  }
}

// The threshold over time, in us and percent, of a sweep with few steps.
void sweep(const std::string &path) {
  Radar radar({}, 0, 0);
  radar.set("ZoomMin", 30);
  radar.set("ZoomMax", 70);
  radar.set("DACStep", 300);
  radar.set("Iterations", 3);
  const double first = radar.get("DACMin"), step = radar.get("DACStepFine");
  const int steps = static_cast<int>((radar.get("DACMax") - first) / step) + 1;
  const double length = radar.get("PulsesPerStep") * radar.get("PRFDivide") / radar.get("MCLKFrequency_LiveRead");
  Table table(path);
  double time = 0;
  for (int iteration = 0; iteration < static_cast<int>(radar.get("Iterations")); ++iteration) {
    for (int i = 0; i < steps; ++i, time += length) {
      const int at = iteration % 2 == 0 ? i : steps - 1 - i;
      table.row(time * 1e6, 100 * (first + at * step) / kCodes);
      table.row((time + length) * 1e6, 100 * (first + at * step) / kCodes);
    }
  }
}

// A frame of a room: range in m, level in percent.
void frame(const std::string &path) {
  Radar radar({still(0.9, 250), still(1.6, 500), still(2.7, 2500)}, 500, kNoise);
  radar.act("MeasureAll");
  radar.set("FrameStitch", 3);
  radar.frame();  // leaves the delay chains where the calibration wants them
  Table table(path);
  const std::vector<double> levels = radar.frame();
  for (size_t k = 0; k < levels.size(); ++k) table.row(radar.range(static_cast<double>(k)), levels[k]);
}

// The noise of frames over pulses a step: measured and expected.
void noise(const std::string &path) {
  constexpr int kFrames = 20;
  Radar radar({}, 0, kNoise);
  radar.set("ZoomMin", 45);
  radar.set("ZoomMax", 55);
  Table table(path);
  for (double pulses = 5; pulses <= 1280; pulses *= 2) {
    radar.set("PulsesPerStep", pulses);
    double sum = 0, squares = 0, values = 0;
    for (int i = 0; i < kFrames; ++i) {
      for (const double level : radar.frame()) {
        sum += level;
        squares += level * level;
        values += 1;
      }
    }
    const double trials = pulses * radar.get("Iterations");
    const double expected =
        std::sqrt(kNoise * radar.get("DACStepFine") * std::numbers::inv_sqrtpi / trials) * 100 / kCodes;
    table.row(trials, std::sqrt(squares / values - sum / values * (sum / values)), expected);
  }
}

// The coarse delay elements as a calibration measures them, in ps, and as they are.
void calibration(const std::string &path) {
  Radar radar({}, 0, kNoise);
  radar.act("MeasureAll");
  std::vector<double> results(579);
  check(radar.handle, QTX_TimingMeasurementResults(radar.handle, results.data(), static_cast<int32_t>(results.size())));
  constexpr size_t kCoarseSteps = 387, kMeasured = 15;
  Table table(path);
  for (uint32_t i = 0; i < kMeasured; ++i) {
    double truth = 0;
    QTXSim_TrueDelayElement(radar.device, QTXSIM_COARSE, i, &truth);
    table.row(i, results[kCoarseSteps + i] * 1e12, truth * 1e12);
  }
}

}  // namespace

int main(int count, char **arguments) {
  if (count != 2) {
    std::fprintf(stderr, "usage: %s FOLDER\n", arguments[0]);
    return 2;
  }
  const std::string folder = std::string(arguments[1]) + '/';
  pulse(folder + "pulse.txt");
  counter(folder + "counter.txt");
  sweep(folder + "sweep.txt");
  frame(folder + "frame.txt");
  noise(folder + "noise.txt");
  calibration(folder + "calibration.txt");
  return 0;
}
