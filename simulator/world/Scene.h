// What a simulated radar looks at, and the signal that it receives from it.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace pulsekit::simulator {

constexpr double kMidScale = 4096;  // of the threshold DAC: the level without any signal

struct Reflector {
  enum class Motion { still, speed, breathing };

  double range = 1;     // metres at time 0
  double strength = 0;  // amplitude at one metre, in threshold-DAC codes
  Motion motion = Motion::still;
  double speed = 0;      // metres a second, away from the radar
  double amplitude = 0;  // of breathing, metres either way
  double rate = 0;       // of breathing, hertz

  double rangeAt(double seconds) const;
};

// A cosine of the centre frequency under a Gaussian envelope.
struct Pulse {
  double centre;  // hertz
  double width;   // standard deviation of the envelope, seconds

  double at(double time) const;  // 1 at 0
  bool operator==(const Pulse &) const = default;
};

Pulse pulseOf(unsigned pgSelect);

// Where and how closely the samplers look: sampler k at start + k * interval after the pulse.
struct SamplingWindow {
  double start, interval;  // seconds

  bool operator==(const SamplingWindow &) const = default;
};

// A radar that looks at it.
struct SceneRadar {
  std::string serial = "SIM00001", bridge = "FT232H";
  std::optional<std::string> board = "QTX-K245", chip = "QTX3701";
  bool held = false;  // by another program
};

class Scene {
 public:
  std::vector<SceneRadar> radars;  // none: it is the user's business who looks
  std::vector<Reflector> reflectors;
  double directCoupling = 0;                     // amplitude at zero range, in threshold-DAC codes
  double noise = 0;                              // standard deviation, in threshold-DAC codes
  std::optional<double> unpluggedAt, pluggedAt;  // the radar's bridge, seconds of the host's clock

  bool still() const;  // nothing moves

  // The mean level at each of the samplers, the given time after the scene was set up.
  void receive(const Pulse &pulse, const SamplingWindow &window, double seconds, std::vector<double> &levels) const;
};

Scene defaultScene();

// A scene written as
//   noise = 40.0
//   direct_coupling = 500.0
//   unplugged_at = 10.0   and   plugged_at = 20.0             # s; both may be left out
//   [[reflector]]
//   range = 0.8
//   strength = 200.0
//   motion = "still"                                          # the default, or
//   motion = "speed"     with  speed = 0.5                    # m/s, away from the radar
//   motion = "breathing" with  amplitude = 0.004, rate = 0.25 # m, Hz
//   [[radar]]                          # as many as there are to be, each with any of
//   serial = "SIM00001"
//   bridge = "FT232H"                  # or FT2232H, FT4232H
//   board = "QTX-K245"                 # "": never programmed; "none"
//   chip = "QTX3701"                   # or another one; "none"
//   held = true                        # by another program
// Nothing, and a message that names the place, for anything else.
std::optional<Scene> readScene(const std::string &path, std::string &error);
std::optional<Scene> parseScene(const std::string &text, const std::string &name, std::string &error);

// Null, or what is wrong with the scene.
const char *sceneFault(const Scene &scene);

}  // namespace pulsekit::simulator
