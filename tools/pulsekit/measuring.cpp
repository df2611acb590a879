// capture, watch, cdf: what the radar sees.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>

#include "Pulsekit3_stream.h"
#include "commands.h"
#include "frames_file.h"
#include "geometry.h"
#include "number.h"
#include "output.h"
#include "plot.h"
#include "system.h"

namespace tool {

namespace {

constexpr int32_t kPatience = 200;  // milliseconds; progress and Ctrl-C are looked at in between
constexpr uint32_t kBatch = 16;     // frames
constexpr uint64_t kLongestCdf = 1 << 26;

struct Frame {
  QTX_FrameInfo info;
  Values values;
};

/// Frames from a stream, or one by one where the chip has none.
class Frames {
 public:
  Frames(const Radar &radar, bool raw, double rate)
      : radar_(radar),
        raw_(raw),
        samplers_(radar.whole("SamplersPerFrame")),
        doubles_(raw ? 0 : kBatch * samplers_),
        counters_(raw ? kBatch * samplers_ : 0) {
    QTX_StreamOptions options{sizeof options, static_cast<uint32_t>(raw ? QTX_STREAM_RAW : QTX_STREAM_DOUBLE), rate, 0};
    radar.check(QTX_StreamStart(radar, &options));
  }
  ~Frames() { QTX_StreamStop(radar_); }
  Frames(const Frames &) = delete;
  Frames &operator=(const Frames &) = delete;

  /// At most that many, none when nothing came in a while. Throws when the stream fails, Ctrl-C apart.
  std::vector<Frame> read(uint64_t most) {
    QTX_FrameInfo infos[kBatch];
    uint32_t count = 0;
    const auto limit = static_cast<uint32_t>(std::min<uint64_t>(most, kBatch));
    void *buffer = raw_ ? static_cast<void *>(counters_.data()) : doubles_.data();
    const int32_t code = QTX_StreamRead(radar_, buffer, kBatch * samplers_, infos, limit, &count, kPatience);
    if (code != kWaitedTooLong && !(code == kCancelled && interrupted())) radar_.check(code);
    std::vector<Frame> frames;
    for (size_t i = 0; i < count; ++i) {
      Values values(samplers_);
      for (size_t k = 0; k < samplers_; ++k)
        values[k] = raw_ ? counters_[i * samplers_ + k] : doubles_[i * samplers_ + k];
      frames.push_back({infos[i], std::move(values)});
    }
    return frames;
  }
  QTX_StreamStatistics statistics() const {
    QTX_StreamStatistics result{};
    result.size = sizeof result;
    radar_.check(QTX_StreamStatus(radar_, &result));
    return result;
  }

 private:
  const Radar &radar_;
  bool raw_;
  size_t samplers_;
  Values doubles_;
  std::vector<uint32_t> counters_;
};

// Frames are taken all the same: whoever set it so may want to see them.
void warnOfSettings(const Radar &radar) {
  for (const std::string &finding : findings(radar)) note(cat("warning: ", finding));
}

struct CaptureRequest {
  std::string count = "1", rate = "0", output;
  Strings plots;  // "" is the terminal
  bool raw = false;
};

/// Where the frames of a capture go: a table, the library's log, or JSON.
class Sink {
 public:
  Sink(const Options &options, const Radar &radar, const Geometry &geometry, const CaptureRequest &request)
      : radar_(radar), json_(options.json), raw_(request.raw), mean_(geometry.samplers) {
    if (request.output.empty()) return;
    if (fileKind(request.output, true) == FileKind::Log) {
      constexpr int32_t kRawBinary = 0x21, kNormalizedBinary = 0x22, kDoubles = 6;
      log_ = std::make_unique<NewFile>(request.output);
      radar.check(
          QTX_FrameLoggingStart(radar, log_->temporaryPath().c_str(), raw_ ? kRawBinary : kNormalizedBinary, kDoubles));
      return;
    }
    Strings axis;
    for (size_t i = 0; i < geometry.samplers; ++i) axis.push_back(numberText(geometry.range(i)));
    const ValueType type = raw_ ? ValueType::Counter : ValueType::Double;
    table_ = std::make_unique<TableFile>(request.output, type, Strings{"frame", "time_s", "flags"}, axis);
  }
  ~Sink() {
    if (log_) QTX_FrameLoggingStop(radar_);
  }
  Sink(const Sink &) = delete;
  Sink &operator=(const Sink &) = delete;

  void add(const Frame &frame) {
    if (table_) table_->add({cat(frame.info.number), numberText(frame.info.time), cat(frame.info.flags)}, frame.values);
    if (json_) {
      frames_.push_back({{"number", frame.info.number},
                         {"time", frame.info.time},
                         {"flags", frame.info.flags},
                         {"values", frame.values}});
    }
    ++count_;
    for (size_t i = 0; i < mean_.size(); ++i) mean_[i] += (frame.values[i] - mean_[i]) / static_cast<double>(count_);
  }
  // What was taken is kept, however the capture ended; without a frame there is no file.
  void finish() {
    if (count_ == 0) return;
    if (table_) table_->finish();
    if (!log_) return;
    radar_.check(QTX_FrameLoggingStop(radar_));
    log_->commit();
    log_.reset();
  }
  uint64_t count() const { return count_; }
  const Values &mean() const { return mean_; }
  Json &frames() { return frames_; }

 private:
  const Radar &radar_;
  bool json_, raw_;
  uint64_t count_ = 0;
  Values mean_;
  Json frames_ = Json::array();
  std::unique_ptr<TableFile> table_;
  std::unique_ptr<NewFile> log_;
};

Plot rangePlot(const Geometry &geometry, const Values &values, std::string title, bool raw) {
  Plot plot;
  plot.title = std::move(title);
  plot.x_label = "range in m";
  plot.y_label = raw ? "counts" : "level in %";
  plot.x_first = geometry.first_range;
  plot.x_step = geometry.range_step;
  plot.curves.emplace_back("", values);
  return plot;
}

std::string summary(const QTX_StreamStatistics &statistics, uint64_t count) {
  std::string text = counted(count, "frame");
  if (statistics.frame_time > 0) text += cat(" at ", quantity(1 / statistics.frame_time, "", 4), " a second");
  if (statistics.retaken > 0) text += cat(", ", statistics.retaken, " taken again");
  if (statistics.lost > 0) text += cat(", ", statistics.lost, " lost");
  if (statistics.late > 0) text += cat(", ", statistics.late, " late");
  return text;
}

/// Takes the frames; a failure is kept until what was taken is safe.
std::exception_ptr take(Frames &frames, Sink &sink, uint64_t wanted) {
  Progress progress("capturing", wanted);
  try {
    while (!interrupted() && (wanted == 0 || sink.count() < wanted)) {
      for (const Frame &frame : frames.read(wanted == 0 ? kBatch : wanted - sink.count())) sink.add(frame);
      progress.reached(sink.count());
    }
  } catch (const Failure &) {
    return std::current_exception();
  }
  return nullptr;
}

void showCapture(const Options &options, const Radar &radar, const Geometry &geometry, const CaptureRequest &request,
                 Sink &sink, const std::string &done) {
  if (options.json) {
    printJson({{"radar", radar.attached().serial},
               {"unit", request.raw ? "counts" : "%"},
               {"first_range", geometry.first_range},
               {"range_step", geometry.range_step},
               {"first_time", geometry.first_time},
               {"time_step", geometry.time_step},
               {"frames", sink.frames()}});
  }
  const std::string what = sink.count() == 1 ? "A frame" : cat("Mean of ", sink.count(), " frames");
  const std::string title = cat(what, " of ", radar.attached().serial);
  Strings files = showPlots(rangePlot(geometry, sink.mean(), title, request.raw), request.plots);
  if (!request.output.empty() && request.output != "-") files.insert(files.begin(), request.output);
  note(cat(files.empty() ? "" : join(files, ", ") + ": ", done));
}

void capture(const Options &options, CaptureRequest request) {
  const uint64_t wanted = parseWhole(request.count, "", "-n", 0, 1'000'000'000);
  const double rate = parseNumber(request.rate, "Hz", "--rate");
  if (rate < 0) throw Usage("--rate: below 0", "give frames a second, or 0 for as fast as possible");
  if (!request.output.empty()) fileKind(request.output, true);
  checkPlotNames(options, request.plots);
  // On a terminal a picture says more than numbers.
  if (request.output.empty() && request.plots.empty() && !options.json) {
    isTerminal(stdout) ? request.plots.push_back("") : request.output.push_back('-');
  }
  const Radar radar(options);
  const Geometry geometry = frameGeometry(radar);
  warnOfSettings(radar);
  Sink sink(options, radar, geometry, request);
  std::exception_ptr ended;
  std::string done;
  {
    Frames frames(radar, request.raw, rate);
    ended = take(frames, sink, wanted);
    done = summary(frames.statistics(), sink.count());
  }
  sink.finish();
  if (sink.count() > 0) showCapture(options, radar, geometry, request, sink, done);
  if (ended) std::rethrow_exception(ended);
  if (wanted != 0 && sink.count() < wanted) {
    throw Failure(cat("interrupted after ", sink.count(), " of ", counted(wanted, "frame")),
                  sink.count() > 0 ? "the frames before are complete and kept" : "nothing was written");
  }
}

void watch(const Options &options, const std::string &rate_text, const std::string &count_text) {
  const double rate = parseNumber(rate_text, "Hz", "--rate");
  const uint64_t wanted = parseWhole(count_text, "", "-n", 0, 1'000'000'000);
  if (!isTerminal(stdout)) throw Usage("watch needs a terminal", "pulsekit capture writes files, or standard output");
  const Radar radar(options);
  const Geometry geometry = frameGeometry(radar);
  Frames frames(radar, false, rate);
  uint64_t count = 0;
  print("\033[?25l\033[2J");
  const std::shared_ptr<void> cursor(nullptr, [](void *) { std::fputs("\033[?25h\n", stdout); });
  while (!interrupted() && (wanted == 0 || count < wanted)) {
    const std::vector<Frame> read = frames.read(wanted == 0 ? kBatch : wanted - count);
    if (read.empty()) continue;
    count += read.size();
    const TerminalSize size = terminalSize();
    const std::string title =
        cat("Radar ", radar.attached().serial, ", ", summary(frames.statistics(), count), ", Ctrl-C ends");
    std::string text = plotText(rangePlot(geometry, read.back().values, title, false), size.columns, size.lines - 1);
    // Every line to its end, so that nothing old stays.
    for (size_t at = 0; (at = text.find('\n', at)) != std::string::npos; at += 4) text.insert(at, "\033[K");
    print(cat("\033[H", text));
  }
}

void cdf(const Options &options, std::string output, Strings plots) {
  if (!output.empty()) fileKind(output, false);
  checkPlotNames(options, plots);
  if (output.empty() && plots.empty() && !options.json) {
    isTerminal(stdout) ? plots.push_back("") : output.push_back('-');
  }
  const Radar radar(options);
  const Geometry geometry = frameGeometry(radar);
  warnOfSettings(radar);
  const uint64_t least = radar.whole("DACMin"), most = radar.whole("DACMax"), step = radar.whole("DACStepFine");
  if (least > most)
    throw Failure(cat("DACMin (", least, ") is above DACMax (", most, ')'), "pulsekit reset DACMin DACMax");
  uint32_t width = 0, lines = 0;
  radar.check(QTX_CalculateCDF_Size(radar, &width, &lines));
  if (uint64_t{width} * lines > kLongestCdf)
    throw Failure(cat("a table of ", width, " x ", lines, " is too long"), "set DACStep higher");
  std::vector<uint32_t> table(size_t{width} * lines);
  {
    const auto progress = Progress::expecting("measuring", cdfSeconds(radar, lines));
    radar.check(QTX_GetCDF(radar, table.data(), static_cast<int32_t>(table.size())));
  }
  const auto threshold = [&](size_t line) { return least + line * step; };
  std::vector<Values> rows;
  for (size_t line = 0; line < lines; ++line)
    rows.emplace_back(table.begin() + static_cast<long>(line * width),
                      table.begin() + static_cast<long>((line + 1) * width));
  if (options.json) {
    Json json{{"first_range", geometry.first_range},
              {"range_step", geometry.range_step},
              {"first_threshold", least},
              {"threshold_step", step},
              {"lines", rows}};
    printJson(json);
  }
  if (!output.empty()) {
    Strings axis;
    for (size_t i = 0; i < width; ++i) axis.push_back(numberText(geometry.range(i)));
    TableFile file(output, ValueType::Counter, {"threshold"}, axis);
    for (size_t line = 0; line < lines; ++line) file.add({cat(threshold(line))}, rows[line]);
    file.finish();
  }
  Plot plot;
  plot.title = cat("CDF of ", radar.attached().serial);
  plot.x_label = "range in m";
  plot.y_label = "threshold";
  plot.x_first = geometry.first_range;
  plot.x_step = geometry.range_step;
  plot.y_first = static_cast<double>(least);
  plot.y_step = static_cast<double>(step);
  plot.image = rows;
  showPlots(plot, plots);
  note(cat(width, " samplers, ", counted(lines, "threshold")));
}

}  // namespace

void addMeasuringCommands(const Command &program, const Options &options) {
  const Command capturing = program.add("capture", "Take frames: to a file, as a plot, or to standard output");
  const auto request = std::make_shared<CaptureRequest>();
  capturing.argument("-n,--count", request->count, "How many frames; 0: until Ctrl-C").takes("COUNT").showsDefault();
  capturing.argument("--rate", request->rate, "Frames a second, such as 10; as fast as possible without").takes("RATE");
  capturing.flag("--raw", request->raw, "Counters of the samplers instead of levels in percent");
  capturing
      .argument("-o,--output,FILE", request->output,
                "FILE.csv with the range axis, FILE.npy, FILE.log (binary frame log), or -")
      .takes("FILE");
  addPlotOption(capturing, &request->plots);
  capturing.runs([&options, request] { capture(options, *request); });

  const Command watching = program.add("watch", "Show what the radar sees, live in the terminal");
  const auto rate = std::make_shared<std::string>("10"), count = std::make_shared<std::string>("0");
  watching.argument("--rate", *rate, "Frames a second").takes("RATE").showsDefault();
  watching.argument("-n,--count", *count, "End after so many frames").takes("COUNT");
  watching.runs([&options, rate, count] { watch(options, *rate, *count); });

  const Command counting = program.add("cdf", "Count each sampler's hits at each fixed threshold");
  const auto output = std::make_shared<std::string>();
  const auto plots = std::make_shared<Strings>();
  counting.argument("-o,--output,FILE", *output, "FILE.csv, FILE.npy or -").takes("FILE");
  addPlotOption(counting, plots.get());
  counting.runs([&options, output, plots] { cdf(options, *output, *plots); });
}

}  // namespace tool
