// log decode: binary frame logs as tables.
#include <memory>

#include "commands.h"
#include "files.h"
#include "frames_file.h"
#include "number.h"
#include "output.h"

namespace tool {

namespace {

void decode(const Options &options, const std::string &path, const std::string &output) {
  const DecodedLog log = decodeLog(readFile(path), path);
  const auto seconds = [&](size_t i) { return static_cast<double>(log.times[i] - log.times[0]) * 1e-6; };
  if (options.json) {
    Json json{{"samplers", log.samplers}, {"frames", Json::array()}};
    for (size_t i = 0; i < log.frames.size(); ++i) {
      json["frames"].push_back({{"number", i}, {"time", seconds(i)}, {"values", log.frames[i]}});
    }
    printJson(json);
  } else {
    Strings axis;
    for (size_t i = 0; i < log.samplers; ++i) axis.push_back(cat(i));
    TableFile file(output, log.type, {"frame", "time_s"}, axis);
    for (size_t i = 0; i < log.frames.size(); ++i) file.add({cat(i), numberText(seconds(i))}, log.frames[i]);
    file.finish();
  }
  if (log.left_over > 0) {
    throw Failure(cat(path, ": ", log.left_over, " bytes after frame ", log.frames.size(), " are no whole frame"),
                  "the frames before are complete; the log was cut, or it mixes raw and normalized frames");
  }
  if (output != "-") note(cat(output, ": ", counted(log.frames.size(), "frame"), " of ", log.samplers, " samplers"));
}

}  // namespace

void addLogCommands(const Command &program, const Options &options) {
  const Command group = program.add("log", "Frame logs");
  group.needsCommand();
  const Command command = group.add("decode", "Turn a binary frame log into .csv or .npy");
  const auto input = std::make_shared<std::string>();
  const auto output = std::make_shared<std::string>("-");
  command.argument("FILE", *input, "The log").required();
  command.argument("-o,--output", *output, "FILE.csv or FILE.npy; .csv on standard output without").takes("FILE");
  command.runs([&options, input, output] { decode(options, *input, *output); });
}

}  // namespace tool
