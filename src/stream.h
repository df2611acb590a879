// A stream of frames: bus programs that are ordered ahead, collected, checked and handed out in order.
//
// What is ordered are units: a begin (starts the first sweep of a frame), a sweep (waits until it is over, loads its
// counters, starts the next one, reads the counters while that runs) or a rest (nothing but time). Where the rate
// leaves time for it, every frame has a begin of its own, so that frames are read as soon as they are swept; else the
// last sweep of a frame starts the first of the next.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "Pulsekit3_stream.h"
#include "chip/sweeps.h"
#include "interface/program.h"
#include "support/handle_state.h"

namespace pulsekit {

// A frame that is ready: its sweeps, one behind the other.
struct StreamFrame {
  QTX_FrameInfo info{};
  chip::FrameScale scale;
  std::vector<uint32_t> counters;
};

class Stream final : public HandlePart, public ProgramOwner {
 public:
  Stream(QTX_Handle *handle, const chip::SweepDriver &driver, const QTX_StreamOptions &options);
  ~Stream() override;

  uint32_t kind() const { return options_.kind; }
  QTX_StreamStatistics statistics() const;

  int32_t start();
  // Collects and orders until a frame is ready. Codes: 1537, 1538, those of what went wrong.
  int32_t wait(Deadline &deadline);
  // Orders what there is room for.
  void keepGoing();
  // The entries of the frame that is handed out next; 0: none is ready.
  uint32_t nextLength() const;
  // Takes that frame out of the stream; it stays as it is until the next one is taken.
  const StreamFrame &take();
  // Leaves the bus and the chip as between two captures.
  int32_t stop();

  // Settings may change in between; however many do, it counts as one change.
  void beginChange() { ++changes_; }
  void endChange();
  // The chip may not be as its settings say: how it is streamed is worked out anew.
  void distrust() { prepared_ = false; }
  void noteWrittenRegister();
  void yieldBus() override;

 private:
  // How frames are taken while the settings stay the same.
  struct Epoch {
    chip::SweepPlan plan;
    double clock = 1;           // Hz of the SPI bus
    uint64_t sweep_clocks = 0;  // from the start of a sweep to the status read that finds it over
    double sweep_seconds = 0;
    uint16_t idle_status = 0;
    bool spaced = false;  // every frame has a begin of its own
    uint32_t settings = 0;
    BusProgram restart, begin, rest;
    std::vector<BusProgram> sweeps;
    uint64_t read_clocks = 0;  // at the end of a sweep's program, behind the start of the next one
  };

  enum class Kind { kRest, kBegin, kSweep };

  struct Unit {
    ProgramRun run;
    std::vector<uint8_t> answer;
    std::vector<uint32_t> counters;  // of a sweep that has been checked
    std::shared_ptr<Epoch> epoch;
    Kind kind = Kind::kRest;
    uint32_t sweep = 0;
    uint64_t number = 0;  // of its frame
    double time = 0;      // of its frame
    uint32_t flags = 0;
    uint64_t clocks = 0;
  };

  struct Order {
    Kind kind;
    BusProgram *program;
    uint64_t pause;
  };

  class Active;
  static constexpr uint64_t kNone = UINT64_MAX;

  InterfaceHandle *bridge() const;
  Unit &unit(uint64_t index) { return units_[index % units_.size()]; }
  const Unit &unit(uint64_t index) const { return units_[index % units_.size()]; }

  uint64_t settingsHash() const;
  void noteSettings();
  int32_t prepare();
  void makePrograms(Epoch &epoch) const;
  bool leavesTime(const Epoch &epoch) const;
  int32_t park();

  int32_t turn(bool &progress);
  void order();
  bool mayOrder(const Order &next);
  Order nextOrder() const;
  int32_t put(const Order &next);
  uint64_t dueClock() const;
  void beginFrame(uint64_t started);
  void noteDryBridge();

  void collect();
  void check();
  bool isGood(Unit &one) const;
  void fail(uint64_t number, int32_t code, const char *message);
  void discardFrom(uint64_t number);
  int32_t tidyUp();
  uint64_t lastUnitOfNextFrame() const;
  void noteProgress();
  bool stalled();

  QTX_Handle *handle_;
  const chip::SweepDriver &driver_;
  QTX_StreamOptions options_;
  QTX_StreamStatistics statistics_{};
  StreamFrame frame_;
  std::array<double, 33> times_{};  // of the frames handed out last
  bool stopped_ = false;

  // Units are handed out up to first_, checked up to checked_, ordered up to ordered_.
  std::vector<Unit> units_;
  uint64_t first_ = 0, checked_ = 0, ordered_ = 0;
  uint64_t clocks_in_flight_ = 0;

  std::shared_ptr<Epoch> epoch_;
  bool prepared_ = false;
  uint64_t settings_hash_ = 0;
  uint32_t settings_ = 0;
  uint32_t changes_ = 0;  // under way, one in another

  // Where the chip and the bridge are once everything that is ordered has been carried out.
  BusProgram park_;
  bool parked_ = true;     // nothing sweeps, the window is where the settings say
  bool resting_ = false;   // nothing sweeps
  bool sweeping_ = false;  // the next sweep to collect runs, since sweep_began_
  uint32_t next_sweep_ = 0;
  uint64_t sweep_began_ = 0;
  uint64_t clocks_ = 0;      // of the SPI bus
  double before_ = 0;        // s of the stream when clocks_ was 0
  bool began_ = false;       // the first frame has; its time is 0
  double expected_end_ = 0;  // us of the host's clock
  bool ran_dry_ = false;

  // The frame that is being ordered.
  uint64_t number_ = 0, next_number_ = 0, retaken_until_ = 0;
  double frame_time_ = 0;
  uint32_t frame_flags_ = 0;
  bool paced_ = false;  // the rate's grid has an origin, in clocks_; grid_index_ is the next point that is due
  uint64_t grid_origin_ = 0, grid_index_ = 0;

  // Trouble: frames from that number on are discarded once nothing is in flight.
  uint64_t discard_from_ = kNone;
  uint32_t bad_sweeps_ = 0;  // in a row
  int32_t trouble_ = 0;
  const char *trouble_text_ = "";
  uint64_t last_look_ = 0, waited_ = 0, naps_ = 0;  // us, us and looks; since the last progress
};

// ---- The stream of a handle ----

Stream *streamOf(const QTX_Handle *handle);  // null: none runs
// Stops it, if one runs. The handle's error record stays as it is.
void endStream(QTX_Handle *handle);

// Stands in every exported function that changes settings: a stream that runs notices.
class SettingsChange {
 public:
  explicit SettingsChange(const QTX_Handle *handle) : stream_(streamOf(handle)) {
    if (stream_) stream_->beginChange();
  }
  ~SettingsChange() {
    if (stream_) stream_->endChange();
  }
  SettingsChange(const SettingsChange &) = delete;
  SettingsChange &operator=(const SettingsChange &) = delete;

 private:
  Stream *stream_;
};

}  // namespace pulsekit
