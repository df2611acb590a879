// A radar behind the C interface: opened by its constructor, closed by its destructor, failures as exceptions.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "Pulsekit3.h"
#include "failure.h"
#include "meaning-autogen.h"
#include "text.h"

namespace tool {

/// What every command can be told.
struct Options {
  std::string radar;       ///< "" where one radar is attached
  std::string simulation;  ///< "" for real radars, "true" for the default scene, or a scene file
  bool json = false, trace = false, fresh = false;
};

/// What a wait can end with.
constexpr int32_t kCancelled = 1537, kWaitedTooLong = 1538;

/// True after Ctrl-C.
bool interrupted();

/// While one lives, Ctrl-C has to wait: what it would cut short could not be put back.
class Uninterrupted {
 public:
  Uninterrupted();
  ~Uninterrupted();
  Uninterrupted(const Uninterrupted &) = delete;
  Uninterrupted &operator=(const Uninterrupted &) = delete;
};

/// What the library tells about a failed call.
Failure failure(QTX_Handle *handle, int32_t code);

/// Which bridge libraries were looked for, a line each, with what became of it.
Strings bridgeLibraries();
/// Why no bridge library serves; empty when one does.
std::string missingBridgeLibrary();

/// A handle, for as long as it lives; Ctrl-C cancels what it waits for. The first one plugs in the simulated radars.
class Handle {
 public:
  explicit Handle(const Options &options);
  ~Handle();
  Handle(const Handle &) = delete;
  Handle &operator=(const Handle &) = delete;
  operator QTX_Handle *() const { return handle_; }
  /// Throws what the library tells about the code, unless it is 0.
  void check(int32_t code) const;
  /// Reads a text of unknown length.
  std::string text(const std::function<int32_t(char *buffer, int32_t size)> &read) const;

 private:
  QTX_Handle *handle_ = nullptr;
};

/// An entry of the list of attached radars.
struct Attached {
  std::string connection, bridge, serial, board, chip;
  bool held() const { return serial == "Already Open"; }
  bool usable() const { return board != "Unknown" && chip != "Unknown"; }
  /// "ready", or what is missing.
  std::string state() const;
};
std::vector<Attached> attachedRadars(const Handle &handle);
/// The one that is called so: by its serial number, its connection string, its place in the list, or a part or pattern
/// of these.
Attached chosenRadar(const std::vector<Attached> &radars, const std::string &wanted);

/// Types of boards that the library knows.
Strings supportedBoards(const Handle &handle);

/// How much of a radar a command needs.
enum class Need { Bridge, Board, Chip };

/// What a variable is and holds now.
struct Variable {
  std::string name;
  const char *layer = "";                      ///< "chip", "board" or "bridge"
  const pulsekit::Meaning *meaning = nullptr;  ///< null where none is known
  uint32_t type = 0;
  bool writable = false, automatic = false, visible = true;
  uint64_t value = 0, least = 0, most = 0;  ///< integers, bits of doubles, item indices
  Strings items;
  bool isFloat() const { return QTX_VarTypeIsFloat(static_cast<uint16_t>(type)) == 1; }
  bool isEnum() const { return QTX_VarTypeIsEnum(static_cast<uint16_t>(type)) == 1; }
  const char *unit() const { return meaning ? meaning->unit : ""; }
  bool basic() const { return meaning && meaning->level == pulsekit::Level::basic; }
  /// The value as `set` takes it, exact; and as people like it, with unit.
  std::string text() const { return text(value); }
  std::string text(uint64_t word) const;
  std::string pretty() const { return pretty(value); }
  std::string pretty(uint64_t word) const;
  std::string range() const;
  /// The text as the library takes it: a strict number in the variable's unit, an item, or "auto".
  std::string parse(std::string_view input) const;
};

class Radar {
 public:
  /// Opens the radar that the options name and applies what `pulsekit set` has changed before, unless told to start
  /// fresh.
  explicit Radar(const Options &options, Need need = Need::Chip);
  ~Radar();
  Radar(const Radar &) = delete;
  Radar &operator=(const Radar &) = delete;

  operator QTX_Handle *() const { return handle_; }
  void check(int32_t code) const { handle_.check(code); }
  const Handle &handle() const { return handle_; }
  const Attached &attached() const { return attached_; }

  Strings variables() const;
  /// Whether reading it measures anew, which touches other variables.
  static bool live(std::string_view name) { return name.ends_with("_LiveRead"); }
  Strings actions() const;
  Variable variable(const std::string &name) const;
  /// All that match one of the patterns; without patterns all.
  std::vector<Variable> variables(const Strings &patterns) const;
  const pulsekit::Meaning *meaning(const std::string &name, const char **layer = nullptr) const;
  double number(const std::string &name) const;
  uint64_t whole(const std::string &name) const;

 private:
  Handle handle_;
  Attached attached_;
  std::string board_driver_;
};

}  // namespace tool
