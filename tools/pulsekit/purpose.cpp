// geometry, suggest, calibrate: from settings to ranges and times, and back.
#include <algorithm>
#include <cmath>
#include <memory>
#include <optional>

#include "changes.h"
#include "commands.h"
#include "geometry.h"
#include "number.h"
#include "plot.h"
#include "session.h"
#include "system.h"

namespace tool {

namespace {

constexpr const char *kComparison = "40";  // codes; what the simulated radar has unless its scene says otherwise
constexpr double kMostSweeps = 15, kMostDivide = 255, kMostIterations = 65535;
constexpr double kShare = 0.9;  // of a frame's time for sweeps; the rest is for the bus

void geometry(const Options &options, const std::string &comparison_text) {
  const double comparison = parseNumber(comparison_text, "codes", "--comparison");
  const Radar radar(options);
  const Geometry frame = frameGeometry(radar);
  const double sweeps = std::max(1.0, radar.number("FrameStitch")), sweep = frame.sweep_time / sweeps;
  const double read = readOut(radar), streamed = sweeps * std::max(sweep, read);
  const double pulses = radar.number("Iterations") * radar.number("PulsesPerStep");
  const double noise = expectedNoise(pulses, radar.number("DACStepFine"), comparison);
  const double last = frame.range(std::max<size_t>(frame.samplers, 1) - 1);
  if (options.json) {
    return printJson({{"samplers", frame.samplers},
                      {"first_time", frame.first_time},
                      {"time_step", frame.time_step},
                      {"first_range", frame.first_range},
                      {"last_range", last},
                      {"range_step", frame.range_step},
                      {"sweep_time", sweep},
                      {"read_out_time", read},
                      {"frame_time", frame.frame_time},
                      {"streamed_frame_time", streamed},
                      {"pulse_rate", frame.pulse_rate},
                      {"unambiguous_range", frame.unambiguous_range},
                      {"noise", noise}});
  }
  Table table({"", "", ""});
  table.add({"range axis", cat(quantity(frame.first_range, "m"), " to ", quantity(last, "m")),
             cat(frame.samplers, " samplers, ", quantity(frame.range_step, "m"), " apart")});
  table.add({"time axis", cat(quantity(frame.first_time, "s"), " after the pulse"),
             cat(quantity(frame.time_step, "s"), " apart")});
  table.add({"sweep", quantity(sweep, "s"), cat(sweeps == 1 ? "one" : numberText(sweeps), " for each frame")});
  table.add({"read-out", quantity(read, "s"), "of each sweep, on the SPI bus"});
  table.add({"frame", quantity(frame.frame_time, "s"), "as a single capture"});
  table.add({"", quantity(streamed, "s"), "streamed, where read-out and sweep overlap"});
  table.add({"pulse rate", quantity(frame.pulse_rate, "Hz"), ""});
  table.add({"unambiguous range", quantity(frame.unambiguous_range, "m"),
             last > frame.unambiguous_range ? "less than the frame: raise PRFDivide" : ""});
  table.add(
      {"noise expected", quantity(noise, "%", 3), cat("where one comparison has ", quantity(comparison, "codes"))});
  table.print();
}

struct Suggestion {
  std::string name, value, why;
};

std::string whole(double value) { return cat(static_cast<uint64_t>(value)); }

// Settings that reach that far that often, with as many pulses as the time allows.
std::vector<Suggestion> suggestions(const Radar &radar, double range, double rate) {
  std::vector<Suggestion> result;
  const double window = radar.number("SamplersOnChip") / radar.number("SamplesPerSecond") * kHalfSpeedOfLight;
  const double start = radar.number("SampleDelay") * kHalfSpeedOfLight;
  const double sweeps = std::max(1.0, std::ceil((range - start) / window - 1e-9));
  if (sweeps > kMostSweeps) {
    throw Failure(cat("a frame ends at most ", quantity(start + kMostSweeps * window, "m", 3), " away, not ",
                      quantity(range, "m")),
                  "move its start with pulsekit set OffsetDistanceFromReference, or ask for less");
  }
  result.push_back({"FrameStitch", whole(sweeps),
                    cat("windows of ", quantity(window, "m", 3), " from ", quantity(start, "m", 3), " on")});
  Timing timing = sweepTiming(radar);
  if (timing.clock <= 0) throw Failure("the clock is off", "pulsekit reset MClkEnable");
  const double end = std::max(range, start + sweeps * window);
  const double divide = std::max(1.0, std::ceil(end * timing.clock / kHalfSpeedOfLight - 1e-9));
  if (divide > kMostDivide) throw Failure("pulses can't be that far apart", "ask for less range");
  timing.divide = divide;
  result.push_back({"PRFDivide", whole(divide),
                    cat("echoes are unambiguous up to ", quantity(kHalfSpeedOfLight * divide / timing.clock, "m", 3))});
  const double budget = kShare / (rate * sweeps);
  double read = readOut(radar), most = 4294967295.0;
  if (read > budget) {
    result.push_back({"SPIClockFrequency", "30MHz", "reads counters out fastest"});
    read *= spiClock(radar) / 30e6;
  }
  if (read > budget) {
    result.push_back({"BytesPerCounter", "2", "half of the bytes take half of the time"});
    result.push_back({"CounterMSb", "15", "the bits of two bytes"});
    read *= 2 / radar.number("BytesPerCounter");
    most = 65535;
  }
  if (read > budget) {
    throw Failure(cat(quantity(rate, "Hz"), " is too fast: reading ", counted(static_cast<size_t>(sweeps), "sweep"),
                      " out takes ", quantity(sweeps * read, "s", 3)),
                  "ask for a lower rate, or set Downsampling");
  }
  const auto fits = [&] { return std::floor((budget * timing.clock - timing.per_sweep) / timing.iteration()); };
  if (fits() < 1) {
    const double all_steps = timing.steps;
    timing.steps = std::floor(8191 * 0.2 / std::max(1.0, radar.number("DACStepFine"))) + 1;
    timing.per_iteration *= timing.steps / all_steps;
    result.push_back({"ZoomMin", "40", "a fifth of the thresholds takes a fifth of the time;"});
    result.push_back({"ZoomMax", "60", "stronger echoes are cut off"});
  }
  if (fits() < 1) {
    timing.pulses =
        std::floor((budget * timing.clock - timing.per_sweep - timing.per_iteration) / (timing.steps * timing.divide));
    if (timing.pulses < 1)
      throw Failure(cat(quantity(rate, "Hz"), " is too fast for ", quantity(range, "m")),
                    "ask for less range, or a lower rate");
    result.push_back({"PulsesPerStep", whole(timing.pulses), "all that the time allows"});
  }
  const double counts = timing.steps * timing.pulses;
  timing.iterations = std::clamp(std::min(fits(), std::floor(most / counts)), 1.0, kMostIterations);
  const double noise = expectedNoise(timing.pulsesAtEachStep(), radar.number("DACStepFine"), 40);
  result.push_back({"Iterations", whole(timing.iterations),
                    cat("sweeps of ", quantity(timing.sweep(), "s", 3), ", noise of some ", quantity(noise, "%", 2))});
  return result;
}

void suggest(const Options &options, const std::string &range_text, const std::string &rate_text, bool apply) {
  const double range = parseNumber(range_text, "m", "--range"), rate = parseNumber(rate_text, "Hz", "--rate");
  if (range <= 0 || rate <= 0) throw Usage("--range and --rate are above 0", "such as --range 10m --rate 10");
  const Radar radar(options);
  std::vector<Asked> asked;
  Strings assignments;
  Json json = Json::array();
  Table table({"setting", "value", "why"});
  for (const Suggestion &one : suggestions(radar, range, rate)) {
    asked.push_back({one.name, one.value, radar.variable(one.name).parse(one.value)});
    assignments.push_back(cat(one.name, '=', one.value));
    json.push_back({{"name", one.name}, {"value", one.value}, {"why", one.why}});
    table.add({one.name, one.value, one.why});
  }
  if (apply) return change(options, radar, asked);
  if (options.json) return printJson(json);
  table.print();
  note(cat("To apply: pulsekit set ", join(assignments, " "), "   (or --apply)"));
}

Plot stepsPlot(const Radar &radar) {
  constexpr size_t kCoarse = 387, kMedium = 451;
  const std::vector<double> results = calibrationResults(radar);
  const auto steps = [&](size_t first, double scale) {
    std::vector<double> values;
    for (size_t i = first; i < first + 63; ++i) values.push_back(results[i] == 0 ? std::nan("") : results[i] * scale);
    return values;
  };
  Plot plot;
  plot.title = cat("Measured delay elements of ", radar.attached().serial);
  plot.x_label = "element";
  plot.y_label = "medium elements in ps, coarse in 0.1 ns";
  plot.curves = {{"coarse", steps(kCoarse, 1e10)}, {"medium", steps(kMedium, 1e12)}};
  return plot;
}

uint32_t blockNumber(const Radar &radar, const std::string &text, const char *what) {
  const uint64_t size = std::max<uint64_t>(1, radar.whole("FlashBlockSize"));
  const uint64_t block = parseWhole(text, "", what, 0, 0xffffff / size);
  if (block == radar.whole("AddressOfVariableStorage") / size) {
    throw Usage(cat(what, ' ', block, ": this block holds the settings"), "take another block, such as 1");
  }
  return static_cast<uint32_t>(block);
}

void storeResults(const Radar &radar, uint32_t block) {
  const std::vector<double> measured = calibrationResults(radar);
  {
    const Uninterrupted whole_block;
    radar.check(QTX_TimingMeasurementSaveDataToFlash(radar, block));
  }
  radar.check(loadCalibration(radar, block));
  if (calibrationResults(radar) != measured)
    throw Failure("the calibration reads back differently from the flash", "store it again, or in another block");
}

// What was measured and what follows from it; a calibration leaves the measurement's own settings changed, too.
void reportCalibration(const Options &options, const Radar &radar, std::vector<Moved> moved) {
  if (options.json) return reportChanges(options, radar, moved);
  static constexpr std::string_view kOfInterest[] = {"SamplesPerSecond",
                                                     "FrameSize",
                                                     "DelayCoarseTune",
                                                     "DelayMediumTune",
                                                     "DelayFineTune",
                                                     "SampleDelay",
                                                     "SDCT",
                                                     "SDMT",
                                                     "SDFT"};
  const size_t all = moved.size();
  std::erase_if(moved, [](const Moved &one) {
    return std::find(std::begin(kOfInterest), std::end(kOfInterest), one.now.name) == std::end(kOfInterest);
  });
  reportChanges(options, radar, moved);
  if (moved.size() < all)
    note(cat(all - moved.size(), " settings of the measurement itself moved too; --json has them."));
}

struct CalibrationRequest {
  std::string store, load;
  Strings plots;
};

void calibrate(const Options &options, CalibrationRequest request) {
  checkPlotNames(options, request.plots);
  if (request.plots.empty() && !options.json && isTerminal(stdout)) request.plots.push_back("");
  if (!request.store.empty() && !request.load.empty()) throw Usage("either --store or --load", "give one of them");
  const Radar radar(options);
  const std::string &block_text = request.store.empty() ? request.load : request.store;
  const uint32_t block =
      block_text.empty() ? 0 : blockNumber(radar, block_text, request.store.empty() ? "--load" : "--store");
  const std::vector<Variable> before = snapshot(radar);
  if (!request.load.empty()) {
    radar.check(loadCalibration(radar, block));
  } else {
    const auto progress = Progress::expecting("calibrating", calibrationSeconds(radar));
    radar.check(QTX_Calibrate(radar, -1));
  }
  placeWindow(radar);
  if (!request.store.empty()) storeResults(radar, block);
  keepCalibration(radar, block_text.empty() ? std::optional<uint32_t>() : block);
  const Strings files = showPlots(stepsPlot(radar), request.plots);
  reportCalibration(options, radar, movedSince(radar, before));
  for (const std::string &file : files) note(file);
  if (!request.store.empty()) note(cat("Stored in flash block ", block, ", verified"));
  if (block_text.empty()) note("The commands that follow know the means; --store BLOCK keeps every element for them.");
}

}  // namespace

void addPurposeCommands(const Command &program, const Options &options) {
  const Command showing = program.add("geometry", "What the settings mean: range axis, times, pulse rate, noise");
  const auto comparison = std::make_shared<std::string>(kComparison);
  showing.argument("--comparison", *comparison, "Noise of one comparison in codes of the threshold DAC")
      .takes("CODES")
      .showsDefault();
  showing.runs([&options, comparison] { geometry(options, *comparison); });

  const Command suggesting = program.add("suggest", "Settings for a purpose, with the reasons");
  const auto range = std::make_shared<std::string>(), rate = std::make_shared<std::string>("10");
  const auto apply = std::make_shared<bool>(false);
  suggesting.argument("--range", *range, "How far it shall reach, such as 10m").required().takes("RANGE");
  suggesting.argument("--rate", *rate, "Frames a second").takes("RATE").showsDefault();
  suggesting.flag("--apply", *apply, "Set them");
  suggesting.runs([&options, range, rate, apply] { suggest(options, *range, *rate, *apply); });

  const Command calibrating =
      program.add("calibrate", "Measure the chip's delays and sampling rate, and place the window by them");
  const auto request = std::make_shared<CalibrationRequest>();
  calibrating.argument("--store", request->store, "Keep the result in this block of the flash, verified")
      .takes("BLOCK");
  calibrating.argument("--load", request->load, "Take the result that is kept there instead of measuring")
      .takes("BLOCK");
  addPlotOption(calibrating, &request->plots);
  calibrating.runs([&options, request] { calibrate(options, *request); });
}

}  // namespace tool
