// The table's calls through the C++ header; see cases.c.
#include <array>
#include <functional>
#include <iostream>
#include <map>
#include <sstream>

#include "pulsekit3.hpp"

namespace {

using Words = std::vector<std::string>;  // the call's name, its arguments

pulsekit3::Radar radar;
std::string last;  // failure
std::ostringstream answer;

void add() {}
template <typename Value, typename... Values>
void add(const Value &value, const Values &...values) {
  if (answer.tellp() > 0) answer << ' ';
  answer << value;
  add(values...);
}

long long number(const std::string &word) { return std::stoll(word, nullptr, 0); }
unsigned natural(const std::string &word) { return static_cast<unsigned>(number(word)); }

std::vector<std::uint8_t> bytesFrom(const Words &words, std::size_t first) {
  std::vector<std::uint8_t> bytes;
  for (std::size_t i = first; i < words.size(); ++i) bytes.push_back(static_cast<std::uint8_t>(number(words[i])));
  return bytes;
}

void addBytes(const std::vector<std::uint8_t> &bytes) {
  for (const std::uint8_t byte : bytes) add(int{byte});
}

template <typename Level>
void addFrame(const Words &words) {
  std::vector<Level> levels(words.size() > 1 ? natural(words[1]) : 0);
  double sum = 0;
  if (levels.empty()) {
    radar.frame(levels);
  } else if (const std::int32_t code = radar.tryFrame(levels)) {
    throw pulsekit3::Error(code, "");
  }
  for (const Level level : levels) sum += level;
  add(levels.size(), sum / static_cast<double>(levels.size()));
}

void addStream(const Words &words) {
  auto stream = radar.stream<std::uint32_t>(static_cast<double>(number(words[1])));
  for (const auto &frame : stream) {
    if (frame.number() + 1 < natural(words[2])) continue;
    add(frame.number(), frame.size());
    stream.stop();
  }
}

std::vector<pulsekit3::Setting> settings(const Words &words) {
  std::vector<pulsekit3::Setting> result;
  for (std::size_t i = 1; i < words.size(); ++i) {
    const std::size_t equals = words[i].find('=');
    result.emplace_back(words[i].substr(0, equals), words[i].substr(equals + 1));
  }
  return result;
}

const std::map<std::string, std::function<void(const Words &)>> calls = {
    {"version", [](const Words &) { add(pulsekit3::version()); }},
    {"list",
     [](const Words &) {
       for (const auto &found : radar.list()) add(found.connection);
     }},
    {"open", [](const Words &w) { radar.open(w[1]); }},
    {"close", [](const Words &) { radar.close(); }},
    {"state", [](const Words &) { add(static_cast<int>(radar.state())); }},
    {"power_off", [](const Words &) { radar.powerOff(); }},
    {"power_on", [](const Words &) { radar.powerOn(); }},
    {"error", [](const Words &) { add(last); }},
    {"set_int", [](const Words &w) { radar[w[1]] = number(w[2]); }},
    {"set_float", [](const Words &w) { radar[w[1]] = std::stod(w[2]); }},
    {"automatic", [](const Words &w) { radar[w[1]] = pulsekit3::automatic; }},
    {"set",
     [](const Words &w) {
       for (const auto &change : radar.set(settings(w))) add(change.name);
     }},
    {"get", [](const Words &w) { add(double{radar[w[1]]}); }},
    {"items",
     [](const Words &w) {
       add(radar[w[1]].item());
       for (const auto &item : radar[w[1]].items()) add(item);
     }},
    {"range",
     [](const Words &w) {
       const pulsekit3::Range range = radar[w[1]].range();
       add(range.least, range.most, range.writable, range.automatic);
     }},
    {"action", [](const Words &w) { radar.execute(w[1]); }},
    {"reset", [](const Words &) { radar.reset(); }},
    {"save", [](const Words &w) { radar.saveSettings(w[1]); }},
    {"load", [](const Words &w) { radar.loadSettings(w[1]); }},
    {"store", [](const Words &) { radar.storeSettings(); }},
    {"restore", [](const Words &) { radar.restoreSettings(); }},
    {"raw", addFrame<std::uint32_t>},
    {"frame", addFrame<double>},
    {"cdf",
     [](const Words &) {
       const auto table = radar.cdf();
       add(table.width, table.lines);
     }},
    {"geometry",
     [](const Words &) {
       const pulsekit3::Geometry shape = radar.geometry();
       add(shape.samplers, shape.firstRangeMetres, shape.rangeStepMetres, shape.pulseRateHertz);
     }},
    {"check", [](const Words &) { add(radar.checkSettings().size()); }},
    {"calibrate", [](const Words &w) { radar.calibrate(static_cast<int>(number(w[1]))); }},
    {"stream", addStream},
    {"flash_write", [](const Words &w) { radar.writeFlash(natural(w[1]), bytesFrom(w, 2)); }},
    {"flash_read", [](const Words &w) { addBytes(radar.readFlash(natural(w[1]), natural(w[2]))); }},
    {"board",
     [](const Words &) {
       auto bytes = radar.boardInfo().bytes;
       bytes.resize(8);
       addBytes(bytes);
     }},
    {"register_write",
     [](const Words &w) {
       radar.writeRegister(static_cast<std::uint8_t>(number(w[1])), static_cast<int>(number(w[2])), natural(w[3]));
     }},
    {"register_read",
     [](const Words &w) { add(radar.readRegister(static_cast<std::uint8_t>(number(w[1])), natural(w[2]))); }},
    {"pin",
     [](const Words &w) {
       radar.makeOutput(natural(w[1]), number(w[2]) != 0);
       add(radar.pin(natural(w[1])));
     }},
    {"spi", [](const Words &w) { addBytes(radar.spi(natural(w[1]), bytesFrom(w, 3), natural(w[2]))); }},
};

}  // namespace

int main() {
  answer.precision(15);
  for (std::string line; std::getline(std::cin, line); answer.str("")) {
    Words words;
    std::istringstream fields(line);
    for (std::string word; std::getline(fields, word, '\t');) words.push_back(word);
    try {
      calls.at(words.at(0))(words);
      if (answer.str().empty()) add("ok");
    } catch (const pulsekit3::Error &error) {
      answer.str("");
      last = error.text();
      add("error", error.code());
    }
    std::cout << answer.str() << '\n';
  }
}
