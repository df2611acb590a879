// doctor: what keeps radars from working, and what to do about it.
#include <algorithm>

#include "FTx232H_D2XX.h"
#include "commands.h"
#include "geometry.h"
#include "number.h"
#include "output.h"

namespace tool {

namespace {

constexpr uint64_t kPatterns[] = {0x5a5a5a, 0xa5a5a5};

/// A hint tells of what is not wrong but could be better.
enum class Verdict { Good, Hint, Wrong };

struct Finding {
  Verdict verdict;
  std::string what, text, remedy;  ///< a remedy where it is not good
};

class Findings {
 public:
  void good(const std::string &what, const std::string &text) { all_.push_back({Verdict::Good, what, text, ""}); }
  void hint(const std::string &what, const std::string &text, const std::string &remedy) {
    all_.push_back({Verdict::Hint, what, text, remedy});
  }
  void bad(const std::string &what, const std::string &text, const std::string &remedy) {
    all_.push_back({Verdict::Wrong, what, text, remedy.empty() ? "see docs/troubleshooting.md" : remedy});
    ++wrong_;
  }
  void check(const std::string &what, bool holds, const std::string &text, const std::string &remedy) {
    holds ? good(what, text) : bad(what, text, remedy);
  }
  /// Runs a test; what it throws is a finding.
  template <typename Test>
  void attempt(const std::string &what, const Test &test) {
    try {
      test();
    } catch (const Failure &failure) {
      bad(what, failure.what(), failure.remedy());
    }
  }
  size_t wrong() const { return wrong_; }
  Json json() const;
  void print() const;

 private:
  std::vector<Finding> all_;
  size_t wrong_ = 0;
};

Json Findings::json() const {
  Json json = Json::array();
  for (const Finding &finding : all_) {
    json.push_back({{"check", finding.what},
                    {"good", finding.verdict != Verdict::Wrong},
                    {"finding", finding.text},
                    {"remedy", finding.remedy}});
  }
  return json;
}

void Findings::print() const {
  for (const Finding &finding : all_) {
    const std::string verdict = finding.verdict == Verdict::Good   ? styled("ok     ", Style::Green)
                                : finding.verdict == Verdict::Hint ? styled("hint   ", Style::Yellow)
                                                                   : styled("wrong  ", Style::Red);
    printLine(cat(verdict, finding.what, ": ", finding.text));
    if (!finding.remedy.empty()) printLine(cat("       ", styled("remedy: ", Style::Bold), finding.remedy));
  }
}

void checkLibraries(Findings &findings) {
  const Strings lines = bridgeLibraries();
  const std::string missing = missingBridgeLibrary();
  for (const std::string &line : lines) findings.good("bridge library", line);
  if (!missing.empty()) {
    findings.bad("bridge library", "none serves",
                 "install the vendor's D2XX library where the system looks for libraries, "
                 "or name one in PULSEKIT3_BRIDGE_LIBRARY");
  }
}

// The library's lines: "<port>: <state>" with, where it can't be used, ": <cause>: <remedy>". Whether there are any.
bool checkPorts(Findings &findings) {
  char text[8192] = "";
  FTx232H_DescribePorts(text, sizeof text);
  for (const std::string &line : split(text, '\n')) {
    const size_t port = line.find(": "), last = line.rfind(": ");
    if (port == std::string::npos) continue;
    const std::string name = line.substr(0, port), state = line.substr(port + 2);
    // Later channels of a bridge are serial ports by nature.
    const bool good = last == port || state.starts_with("no MPSSE");
    good ? findings.good(name, state)
         : findings.bad(name, line.substr(port + 2, last - port - 2), line.substr(last + 2));
  }
  return text[0] != '\0';
}

std::string identification(const Radar &radar) {
  const uint8_t command = 0x9f;
  uint8_t answer[3] = {};
  radar.check(QTX_SPI_SendReceive(radar, 1, &command, 1, answer, sizeof answer));
  char text[16];
  std::snprintf(text, sizeof text, "%02x %02x %02x", answer[0], answer[1], answer[2]);
  return text;
}

void testFlash(const Radar &radar, Findings &findings) {
  const std::string id = identification(radar);
  findings.check("flash", id != "ff ff ff" && id != "00 00 00", "identification " + id,
                 "check the board's power and its connection to the bridge");
  uint8_t first[256], second[256];
  radar.check(QTX_ModuleReadFlashMemory(radar, 0, first, sizeof first));
  radar.check(QTX_ModuleReadFlashMemory(radar, 0, second, sizeof second));
  findings.check("flash", std::equal(first, first + sizeof first, second), "two reads agree",
                 "lower SPIClockFrequency, check the connection");
}

// A register that holds any pattern, put back as it was.
void testRegisters(const Radar &radar, Findings &findings) {
  constexpr uint8_t kPulsesPerStep = 0x31;
  constexpr uint32_t kBytes = 3;
  uint64_t before = 0;
  bool kept = true;
  radar.check(QTX_RegisterRead(radar, kPulsesPerStep, kBytes, &before));
  for (const uint64_t pattern : kPatterns) {
    uint64_t value = 0;
    radar.check(QTX_RegisterWrite(radar, kPulsesPerStep, kBytes, pattern));
    radar.check(QTX_RegisterRead(radar, kPulsesPerStep, kBytes, &value));
    kept = kept && value == pattern;
  }
  radar.check(QTX_RegisterWrite(radar, kPulsesPerStep, kBytes, before));
  findings.check("chip", kept, kept ? "registers keep what is written" : "registers lose what is written",
                 "lower SPIClockFrequency, check the board's power and connection");
}

void testFrame(const Radar &radar, Findings &findings) {
  std::vector<double> frame(radar.whole("SamplersPerFrame"));
  radar.check(QTX_GetFrameNormalized(radar, frame.data(), static_cast<int64_t>(frame.size())));
  const auto [least, most] = std::minmax_element(frame.begin(), frame.end());
  findings.check(
      "frame", !frame.empty() && *most > *least,
      frame.empty() ? "no samplers" : cat("levels from ", quantity(*least, "%"), " to ", quantity(*most, "%")),
      "all samplers agree: check the settings below, and the clock (MClkEnable, ClockFrequency)");
}

// The library's lines: "<name>: <what is wrong>: <remedy>".
void testSettings(const Radar &radar, Findings &findings) {
  const Strings wrong = tool::findings(radar);
  for (const std::string &line : wrong) {
    const size_t last = line.rfind(": ");
    findings.bad("settings", line.substr(0, last), line.substr(last + 2));
  }
  if (wrong.empty()) findings.good("settings", "can give a good frame");
}

// Ranges are some percent off without; whether that matters depends on the purpose.
void testCalibration(const Radar &radar, Findings &findings) {
  const std::vector<double> results = calibrationResults(radar);
  const bool elements = std::any_of(results.begin(), results.end(), [](double result) { return result != 0; });
  if (elements) return findings.good("calibration", "every delay element is known");
  const bool means = !radar.variable("SamplesPerSecond").automatic;
  findings.hint("calibration", means ? "only means are known, not the single delay elements" : "none is loaded",
                "pulsekit calibrate --store BLOCK, or --load BLOCK where one is kept");
}

bool takesFrames(const Radar &radar) {
  constexpr int32_t kNotImplemented = 4;
  int32_t count = 0;
  return QTX_CheckSettings(radar, nullptr, 0, &count) != kNotImplemented;
}

void testRadar(const Options &options, const Attached &attached, bool ports_told, Findings &findings) {
  const std::string name = cat("radar ", attached.serial);
  if (attached.held()) {
    if (ports_told) return;
    findings.bad("bridge", attached.state(),
                 "close the other program; on Linux install the udev rule and unplug and plug in the bridge");
    return;
  }
  findings.attempt(name, [&] {
    Options one = options;
    one.radar = attached.connection;
    one.simulation.clear();
    const Radar radar(one, Need::Bridge);
    findings.good(name, "opens");
    findings.check(name, attached.board != "Unknown", "board " + attached.board,
                   "check its plug and power; a new board needs pulsekit board program");
    if (attached.board != "Unknown") findings.attempt("flash", [&] { testFlash(radar, findings); });
    findings.check(name, attached.chip != "Unknown", "chip " + attached.chip,
                   "check the board's power (RadarModulePower), and that the chip is one of the supported ones");
    if (attached.chip == "Unknown") return;
    findings.attempt("chip", [&] { testRegisters(radar, findings); });
    if (!takesFrames(radar))
      return findings.hint("frame", "this library takes none with this chip", "settings, registers and flash work");
    findings.attempt("frame", [&] { testFrame(radar, findings); });
    findings.attempt("settings", [&] { testSettings(radar, findings); });
    findings.attempt("calibration", [&] { testCalibration(radar, findings); });
  });
}

void doctor(const Options &options) {
  Findings findings;
  const Handle handle(options);
  checkLibraries(findings);
  std::vector<Attached> radars;
  const bool serves = findings.wrong() == 0;
  const bool ports_told = serves && checkPorts(findings);
  if (serves) findings.attempt("radars", [&] { radars = attachedRadars(handle); });
  if (findings.wrong() == 0 && radars.empty()) {
    findings.bad("radars", "no bridge is attached",
                 "plug it in; on Linux see that the kernel lists it (lsusb, vendor 0403)");
  }
  findings.attempt("radars", [&] {
    if (!options.radar.empty() && !radars.empty()) radars = {chosenRadar(radars, options.radar)};
    for (const Attached &radar : radars) testRadar(options, radar, ports_told, findings);
  });
  options.json ? printJson(findings.json()) : findings.print();
  if (findings.wrong() > 0) throw Failure(counted(findings.wrong(), "finding"), "follow the remedies above");
}

}  // namespace

void addDoctorCommand(const Command &program, const Options &options) {
  program.add("doctor", "Find out what keeps radars from working, and test those that do").runs([&options] {
    doctor(options);
  });
}

}  // namespace tool
