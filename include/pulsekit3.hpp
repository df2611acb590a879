/// @file
/// Pulsekit3 as C++17 has it: everything here stands on the C functions alone.
///
/// @code
/// pulsekit3::Radar radar = pulsekit3::openRadar();
/// radar["PulsesPerStep"] = 40;
/// std::vector<double> levels = radar.frame();
/// for (const auto &frame : radar.stream(100.0)) show(frame.seconds(), frame.data(), frame.size());
/// @endcode
///
/// Conventions
///  1. A failure throws pulsekit3::Error, with code, text and trace. What is called in a loop has a form that begins
///  with "try",
///     too: it throws nothing and returns the code, 0 for success.
///  2. Numbers whose names say so are in SI units: seconds, hertz, metres. Settings are in those of the C interface,
///  which
///     are SI units as well.
///  3. A Radar is used by one thread at a time; a Canceller by any.
///  4. Variables, streams and cancellers may outlive their Radar: they answer with codes then.
#ifndef PULSEKIT3_HPP
#define PULSEKIT3_HPP

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "Pulsekit3.h"
#include "Pulsekit3_control.h"
#include "Pulsekit3_settings.h"
#include "Pulsekit3_stream.h"

namespace pulsekit3 {

/// Codes that a program may want to tell apart; GetErrorMessage has the texts of all.
enum Code : std::int32_t {
  kSuccess = 0,
  kError = 1,
  kBufferTooSmall = 2,
  kNoFile = 6,
  kOutOfMemory = 7,
  kNotConnected = 260,
  kNoChip = 770,
  kUnknownVariable = 1283,
  kUnknownAction = 1284,
  kReadOnly = 1285,
  kIllegalValue = 1286,
  kCancelled = 1537,
  kWaitedTooLong = 1538,
  kNoStream = 1539,
  kStreamRunning = 1540
};

/// A call of the library that has failed.
class Error : public std::runtime_error {
 public:
  /// A code, its text with what is known about the failure, and the trace.
  Error(std::int32_t code, const std::string &text, const std::string &trace = "")
      : std::runtime_error(text), code_(code), trace_(std::make_shared<const std::string>(trace)) {}

  /// Never 0.
  std::int32_t code() const noexcept { return code_; }
  /// "ERROR 0x503: Unknown variable - Pulses".
  const char *text() const noexcept { return what(); }
  /// The path that the failure took through the library, a function a line; may be empty.
  const std::string &trace() const noexcept { return *trace_; }

 private:
  std::int32_t code_;
  std::shared_ptr<const std::string> trace_;  // shared, so that copying an exception can't throw
};

/// What a variable is set to so that it follows others again.
struct Automatic {};
/// Likewise: radar["PulsesPerStep"] = pulsekit3::automatic.
inline constexpr Automatic automatic{};

/// What a variable holds.
enum class Type : std::uint32_t { integer = 2048, real = 4096, enumeration = 8 };

/// What a bridge answers about an open radar. lost: it is gone; close the radar and open it anew.
enum class State : std::int32_t { closed = QTX_RADAR_CLOSED, open = QTX_RADAR_OPEN, lost = QTX_RADAR_LOST };

/// The values that a variable takes: item indices for an enumeration.
struct Range {
  double least;    ///< the smallest value
  double most;     ///< the largest
  bool writable;   ///< can be set
  bool automatic;  ///< follows others, or is not to be set at all
};

/// A radar that is attached. "Unknown" stands for what was not recognised or is held by another process.
struct FoundRadar {
  std::string connection;  ///< for Radar::open
  std::string bridge;      ///< its driver
  std::string serial;      ///< number of the bridge
  std::string board;       ///< its type
  std::string chip;        ///< its model
  /// Board and chip were recognised.
  bool ready() const { return board != "Unknown" && chip != "Unknown"; }
};

/// A variable that has moved: its value before and now, the item index for an enumeration.
struct Change {
  std::string name;  ///< of the variable
  double before;     ///< the value that it had
  double after;      ///< the one it has
  Type type;         ///< what it holds
  bool automatic;    ///< it follows others now
};

/// A setting that can't give a good frame, and what to do.
struct Finding {
  std::string name;    ///< of the variable
  std::string fault;   ///< what is wrong
  std::string remedy;  ///< what to do
};

/// What the settings mean for a frame; 0 where there is nothing to tell.
struct Geometry {
  std::size_t samplers;           ///< entries of a frame
  double firstTimeSeconds;        ///< after the pulse, of the first sampler
  double timeStepSeconds;         ///< from sampler to sampler
  double firstRangeMetres;        ///< half the way that light goes in the first time
  double rangeStepMetres;         ///< likewise
  double sweepSeconds;            ///< all sweeps of one frame
  double frameSeconds;            ///< a frame as a single capture on an idle bus
  double pulseRateHertz;          ///< pulses a second
  double unambiguousRangeMetres;  ///< echoes from farther away meet the next pulse
  /// Where a sampler looks.
  double rangeMetres(std::size_t sampler) const {
    return firstRangeMetres + static_cast<double>(sampler) * rangeStepMetres;
  }
};

/// Counters of every sampler at every threshold, line after line.
struct Cdf {
  std::size_t width;                    ///< samplers
  std::size_t lines;                    ///< thresholds, from the smallest on
  std::vector<std::uint32_t> counters;  ///< width * lines
  /// std::out_of_range outside the table.
  std::uint32_t at(std::size_t line, std::size_t sampler) const { return counters.at(line * width + sampler); }
};

/// The one-time-programmable information of a board.
struct BoardInfo {
  std::string name;                 ///< type of the board
  std::string id;                   ///< of this one
  std::vector<std::uint8_t> bytes;  ///< all 128
};

namespace detail {

// What a Radar shares with its variables, streams and cancellers: the handle lives until the last of them is gone.
struct Connection {
  QTX_Handle *handle = nullptr;
  std::uint64_t streams = 0;  // started so far: a Stream knows by its number whether it is still the one that runs

  Connection() = default;
  Connection(const Connection &) = delete;
  Connection &operator=(const Connection &) = delete;
  ~Connection() { QTX_FreeHandle(&handle); }
};
using Shared = std::shared_ptr<Connection>;

inline QTX_Handle *handleOf(const Shared &connection) noexcept { return connection ? connection->handle : nullptr; }

// The last failure of the handle where it has this code; a code that the handle knows nothing of has a text only. 0:
// the handle's last failure, whatever it was.
[[noreturn]] inline void fail(QTX_Handle *handle, std::int32_t code) {
  char description[4096] = "";
  QTX_GetErrorDescription(handle, description, sizeof description, 0);
  const auto recorded = static_cast<std::int32_t>(std::strtol(description + std::strlen("ERROR 0x"), nullptr, 16));
  if (code == kSuccess) code = recorded == kSuccess ? std::int32_t{kError} : recorded;
  if (code != recorded) QTX_GetErrorDescription(nullptr, description, sizeof description, code);
  const std::string_view all = description;
  const std::size_t end = (std::min)(all.find_first_of("\r\n"), all.size());
  const std::size_t trace = (std::min)(all.find_first_not_of("\r\n", end), all.size());
  throw Error(code, std::string(all.substr(0, end)), std::string(all.substr(trace)));
}

[[noreturn]] inline void fail(std::int32_t code, const std::string &detail) {
  char number[24];
  std::snprintf(number, sizeof number, "ERROR 0x%x: ", static_cast<unsigned>(code));
  throw Error(code, number + std::string(GetErrorMessage(code)) + " - " + detail);
}

inline void check(QTX_Handle *handle, std::int32_t code) {
  if (code != kSuccess) fail(handle, code);
}

// The text that read(buffer, size) writes, however long it is.
template <typename Read>
std::string readText(QTX_Handle *handle, Read read) {
  for (std::int32_t size = 4096;; size *= 4) {
    std::string text(static_cast<std::size_t>(size) + 1, '\0');
    const std::int32_t code = read(text.data(), size);
    if (code == kBufferTooSmall && size < (1 << 24)) continue;
    check(handle, code);
    text.resize(std::strlen(text.c_str()));
    return text;
  }
}

// The fields of a text; empty ones are left out.
inline std::vector<std::string> split(std::string_view text, char delimiter) {
  std::vector<std::string> fields;
  while (!text.empty()) {
    const std::string_view field = text.substr(0, text.find(delimiter));
    if (!field.empty()) fields.emplace_back(field);
    text.remove_prefix((std::min)(field.size() + 1, text.size()));
  }
  return fields;
}

// A waiting time as the library takes it; less than 0: without a limit of its own.
inline std::int32_t milliseconds(double seconds) noexcept {
  if (!(seconds >= 0)) return -1;
  return static_cast<std::int32_t>((std::min)(std::ceil(seconds * 1e3), 2147483646.0));
}

// A size as the library takes it. What does not fit is more than any radar has.
inline std::int32_t countOf(std::size_t size) noexcept {
  constexpr auto most = (std::numeric_limits<std::int32_t>::max)();
  return size < static_cast<std::size_t>(most) ? static_cast<std::int32_t>(size) : most;
}

inline double realOf(std::uint64_t word) noexcept {
  double value = 0;
  std::memcpy(&value, &word, sizeof value);
  return value;
}

// A number as the library reads it, whatever the locale's decimal point is.
class NumberText {
 public:
  explicit NumberText(double value) noexcept {
    char local[40] = "";
    std::snprintf(local, sizeof local, "%.17g", value);
    char *end = text_;
    for (const char *c = local; *c != '\0'; ++c) {
      if (std::strchr("0123456789+-einfa", *c) != nullptr) {
        *end++ = *c;
      } else if (end == text_ || end[-1] != '.') {
        *end++ = '.';
      }
    }
  }
  const char *c_str() const noexcept { return text_; }

 private:
  char text_[40] = "";
};

template <typename Number>
constexpr bool isNumber = std::is_arithmetic_v<Number>;

// Whole numbers that 32 bits hold: the library takes these for a variable of any type.
template <typename Number>
bool isShort(Number value) noexcept {
  constexpr std::int32_t least = (std::numeric_limits<std::int32_t>::min)();
  constexpr std::int32_t most = (std::numeric_limits<std::int32_t>::max)();
  if constexpr (std::is_floating_point_v<Number>) {
    return value >= Number(least) && value <= Number(most) && std::trunc(value) == value;
  } else if constexpr (std::is_signed_v<Number>) {
    const long long wide = value;
    return wide >= least && wide <= most;
  } else {
    const unsigned long long wide = value;
    return wide <= static_cast<unsigned long long>(most);
  }
}

template <typename Integer>
bool fits(double value) noexcept {
  if (std::trunc(value) != value) return false;
  const double past = std::ldexp(1.0, std::numeric_limits<Integer>::digits);
  return value < past && value >= (std::is_signed_v<Integer> ? -past : 0.0);
}

inline std::int32_t capture(QTX_Handle *handle, std::uint32_t *counters, std::size_t capacity) noexcept {
  return QTX_GetFrameRaw(handle, counters, capacity);
}
inline std::int32_t capture(QTX_Handle *handle, double *levels, std::size_t capacity) noexcept {
  return QTX_GetFrameNormalized(handle, levels, static_cast<std::int64_t>(capacity));
}
inline std::int32_t capture(QTX_Handle *handle, float *levels, std::size_t capacity) noexcept {
  return QTX_GetFrameNormalizedFloat(handle, levels, static_cast<std::int64_t>(capacity), 0);
}

template <typename Level>
constexpr bool isLevel =
    std::is_same_v<Level, std::uint32_t> || std::is_same_v<Level, double> || std::is_same_v<Level, float>;

template <typename Level>
constexpr std::uint32_t streamKind() {
  if (std::is_same_v<Level, std::uint32_t>) return QTX_STREAM_RAW;
  return std::is_same_v<Level, float> ? std::uint32_t{QTX_STREAM_FLOAT} : std::uint32_t{QTX_STREAM_DOUBLE};
}

template <typename Container, typename = void>
struct CanResize : std::false_type {};
template <typename Container>
struct CanResize<Container, std::void_t<decltype(std::declval<Container &>().resize(std::size_t{}))>> : std::true_type {
};

struct NoProgress {
  void operator()(std::size_t, std::size_t) const noexcept {}
};

}  // namespace detail

/// A variable by its name: a setting, or something to read. Unknown until it is used: 1283.
///
/// Getting converts to what is asked for; setting takes whole numbers, fractions, texts and pulsekit3::automatic for a
/// variable of any type, items of an enumeration by index or by text. What does not suit the variable is refused with
/// 1286 and changes nothing. Keep it for use in a loop: it remembers its type.
class Variable {
 public:
  /// See Radar::operator[].
  Variable(detail::Shared connection, std::string_view name) noexcept : connection_(std::move(connection)) {
    name.copy(name_, sizeof name_ - 1);
  }
  /// Another name for the same variable.
  Variable(const Variable &) = default;
  Variable(Variable &&) = default;
  ~Variable() = default;
  /// Not clear whether a value or a name is meant: say radar["A"] = double(radar["B"]).
  Variable &operator=(const Variable &) = delete;

  /// At most 63 characters, which is longer than any variable's.
  const char *name() const noexcept { return name_; }

  /// The value; of an enumeration the item index.
  double value() const {
    double result = 0;
    check(tryGet(result));
    return result;
  }
  /// double delay = radar["SampleDelay"]. For other types say as<T>() or item().
  operator double() const { return value(); }

  /// The value as another type of number; 1286 where that can't hold it.
  template <typename Number>
  Number as() const {
    Number result{};
    const std::int32_t code = tryGet(result);
    if (code == kIllegalValue) detail::fail(code, std::string(name_) + " does not fit the type that was asked for");
    check(code);
    return result;
  }

  /// The same without exceptions; on failure `result` is as it was.
  template <typename Number>
  [[nodiscard]] std::int32_t tryGet(Number &result) const noexcept {
    static_assert(detail::isNumber<Number>, "a number");
    double value = 0;
    if (const std::int32_t code = QTX_VarGetValueAsFloat_ByName(handle(), name_, &value)) return code;
    if constexpr (std::is_floating_point_v<Number>) {
      result = static_cast<Number>(value);
      return kSuccess;
    } else {
      return getInteger(value, result);
    }
  }

  /// The text of the item that is set.
  std::string item() const {
    std::uint64_t symbol = 0;
    check(QTX_VarGetEnumValue_ByName(handle(), name_, &symbol));
    return symbolText(static_cast<std::uint32_t>(symbol));
  }

  /// The items of an enumeration, in the order of their indices; none for another variable.
  std::vector<std::string> items() const {
    std::vector<std::string> result;
    for (const std::uint32_t symbol : symbols()) result.push_back(symbolText(symbol));
    return result;
  }

  /// What it holds.
  Type type() const {
    check(findType());
    return static_cast<Type>(type_);
  }

  /// 1282 for a variable that is not visible with the settings as they are.
  Range range() const {
    std::uint64_t least = 0, most = 0;
    std::uint32_t writable = 0, follows = 0;
    const bool real = type() == Type::real;
    check(QTX_VarGetIntProperties_ByName(handle(), name_, &least, &most, &writable, &follows));
    return {real ? detail::realOf(least) : static_cast<double>(least),
            real ? detail::realOf(most) : static_cast<double>(most), writable != 0, follows != 0};
  }
  bool isAutomatic() const { return range().automatic; }
  bool isWritable() const { return range().writable; }

  /// Sets a number, an item's text, or pulsekit3::automatic.
  template <typename Value>
  void set(const Value &value) const {
    check(trySet(value));
  }
  template <typename Value, typename = std::enable_if_t<!std::is_same_v<Value, Variable>>>
  const Variable &operator=(const Value &value) const {
    set(value);
    return *this;
  }

  /// The same without exceptions.
  template <typename Number, typename = std::enable_if_t<detail::isNumber<Number>>>
  [[nodiscard]] std::int32_t trySet(Number value) const noexcept {
    if (detail::isShort(value)) return QTX_VarSetValueAsFloat_ByName(handle(), name_, static_cast<double>(value));
    if (const std::int32_t code = findType()) return code;
    if (type_ == static_cast<std::uint32_t>(Type::real)) {
      return QTX_VarSetFloatValue_ByName(handle(), name_, static_cast<double>(value));
    }
    if constexpr (std::is_integral_v<Number>) {
      if (std::is_signed_v<Number> || value <= static_cast<Number>((std::numeric_limits<std::int64_t>::max)())) {
        return QTX_VarSetIntValue_ByName(handle(), name_, static_cast<std::int64_t>(value));
      }
    }
    return trySet(detail::NumberText(static_cast<double>(value)).c_str());
  }
  [[nodiscard]] std::int32_t trySet(const char *text) const noexcept {
    const char *const variable = name_;
    std::uint32_t changes = 0;
    return QTX_VarsSetMany(handle(), &variable, &text, 1, nullptr, &changes);
  }
  [[nodiscard]] std::int32_t trySet(const std::string &text) const noexcept { return trySet(text.c_str()); }
  [[nodiscard]] std::int32_t trySet(Automatic) const noexcept {
    return QTX_VarSetIntValue_ByName(handle(), name_, 0x7FFFFFFF);
  }

 private:
  QTX_Handle *handle() const noexcept { return detail::handleOf(connection_); }
  void check(std::int32_t code) const { detail::check(handle(), code); }

  std::int32_t findType() const noexcept { return type_ ? kSuccess : QTX_VarGetType_ByName(handle(), name_, &type_); }

  template <typename Integer>
  std::int32_t getInteger(double value, Integer &result) const noexcept {
    if (!detail::fits<Integer>(value)) return kIllegalValue;
    if (std::fabs(value) < 9007199254740992.0) {
      result = static_cast<Integer>(value);
      return kSuccess;
    }
    // Past 2^53 a double is not exact any more.
    std::int64_t exact = 0;
    if (const std::int32_t code = findType()) return code;
    if (type_ == static_cast<std::uint32_t>(Type::real)) {
      exact = static_cast<std::int64_t>(value);
    } else if (const std::int32_t code = QTX_VarGetIntValue_ByName(handle(), name_, &exact)) {
      return code;
    }
    result = static_cast<Integer>(exact);
    return kSuccess;
  }

  std::vector<std::uint32_t> symbols() const {
    std::vector<std::uint32_t> result(256);
    std::int32_t count = detail::countOf(result.size());
    check(QTX_VarGetEnumsItems_ByName(handle(), name_, result.data(), &count));
    result.resize(static_cast<std::size_t>(count));
    return result;
  }

  std::string symbolText(std::uint32_t symbol) const {
    char text[256] = "";
    check(QTX_VarGetSymbolString(handle(), name_, symbol, text, sizeof text - 1));
    return text;
  }

  friend class Radar;
  detail::Shared connection_;
  char name_[sizeof QTX_Change::name] = "";  // here, so that naming a variable allocates nothing
  mutable std::uint32_t type_ = 0;
};

/// A variable and what it is to become, for Radar::set: a number, an item's text, or pulsekit3::automatic.
class Setting {
 public:
  /// As Variable::set takes them.
  template <typename Number, typename = std::enable_if_t<detail::isNumber<Number>>>
  Setting(std::string name, Number value) : name_(std::move(name)) {
    if constexpr (std::is_integral_v<Number>) {
      text_ = std::to_string(value);
    } else {
      text_ = detail::NumberText(static_cast<double>(value)).c_str();
    }
  }
  /// An item's text, a number as text, or "auto".
  Setting(std::string name, std::string text) : name_(std::move(name)), text_(std::move(text)) {}
  Setting(std::string name, Automatic) : Setting(std::move(name), "auto") {}

  /// What the library is given.
  const std::string &name() const noexcept { return name_; }
  const std::string &text() const noexcept { return text_; }

 private:
  std::string name_;
  std::string text_;
};

/// A frame of a stream: a contiguous container of its levels, valid until the stream's next frame is taken.
template <typename Level>
class StreamFrame {
 public:
  /// The levels, as any container has them.
  const Level *data() const noexcept { return data_; }
  std::size_t size() const noexcept { return info_.samplers; }
  const Level *begin() const noexcept { return data_; }
  const Level *end() const noexcept { return data_ + size(); }
  const Level &operator[](std::size_t sampler) const noexcept { return data_[sampler]; }

  std::uint64_t number() const noexcept { return info_.number; }  ///< counts from 0, lost frames too
  std::uint64_t lost() const noexcept { return lost_; }           ///< frames that are missing just before this one
  /// From the start of the first frame to the start of this one, by the bridge's clock.
  double seconds() const noexcept { return info_.time; }
  /// When its answer was there, by the clock of QTX_timestamp_us.
  double arrivedSeconds() const noexcept { return static_cast<double>(info_.arrived) * 1e-6; }
  bool late() const noexcept { return (info_.flags & QTX_FRAME_LATE) != 0; }  ///< began later than the rate asked for
  bool retaken() const noexcept {
    return (info_.flags & QTX_FRAME_RETAKEN) != 0;
  }                                                                          ///< an earlier attempt was discarded
  std::uint32_t settingsChanges() const noexcept { return info_.settings; }  ///< since the stream's start

 private:
  template <typename>
  friend class Stream;
  const Level *data_ = nullptr;
  QTX_FrameInfo info_{};
  std::uint64_t lost_ = 0;
};

/// How a stream runs.
struct StreamStatistics {
  std::uint32_t framesAhead;  ///< that the bridge has been handed
  std::uint64_t frames;       ///< handed out
  std::uint64_t retaken;      ///< of these, taken again
  std::uint64_t lost;         ///< missing numbers
  std::uint64_t late;         ///< of those handed out, begun later than the rate asked for
  double frameSeconds;        ///< from frame to frame, averaged over the last 32
  double sweepSeconds;        ///< one sweep, as measured
};

/// A stream that runs, as an endless range of frames. It stops when this object goes, with stop(), or when the radar
/// closes.
///
/// Level: std::uint32_t for counters, float or double for levels in percent. See Pulsekit3_stream.h.
template <typename Level = double>
class Stream {
 public:
  /// What the range consists of.
  using Frame = StreamFrame<Level>;

  /// Of a range-based for loop: reads a frame ahead of each turn, ends when the stream was stopped.
  class Iterator {
   public:
    /// What the standard library asks for.
    using iterator_category = std::input_iterator_tag;
    using value_type = Frame;
    using difference_type = std::ptrdiff_t;
    using pointer = const Frame *;
    using reference = const Frame &;

    /// The end, or the first frame of a stream.
    Iterator() = default;
    explicit Iterator(Stream *stream) : stream_(stream) { ++*this; }
    /// The frame, the next one, and whether there is one.
    reference operator*() const noexcept { return frame_; }
    pointer operator->() const noexcept { return &frame_; }
    Iterator &operator++() {
      if (stream_->running()) {
        frame_ = stream_->next();
      } else {
        stream_ = nullptr;
      }
      return *this;
    }
    void operator++(int) { ++*this; }
    bool operator==(const Iterator &other) const noexcept { return stream_ == other.stream_; }
    bool operator!=(const Iterator &other) const noexcept { return stream_ != other.stream_; }

   private:
    Stream *stream_ = nullptr;
    Frame frame_;
  };

  /// See Radar::stream.
  Stream(detail::Shared connection, double rateHertz, std::uint32_t framesAhead) : connection_(std::move(connection)) {
    static_assert(detail::isLevel<Level>, "std::uint32_t, float or double");
    buffer_.resize(kBatch * Variable(connection_, "SamplersPerFrame").as<std::size_t>());
    const QTX_StreamOptions options{sizeof options, detail::streamKind<Level>(), rateHertz, framesAhead};
    check(QTX_StreamStart(handle(), &options));
    own_ = ++connection_->streams;
  }
  /// What was moved from is a stream that was stopped.
  Stream(Stream &&) noexcept = default;
  Stream &operator=(Stream &&other) noexcept {
    std::swap(connection_, other.connection_);
    std::swap(own_, other.own_);
    std::swap(wait_ms_, other.wait_ms_);
    std::swap(buffer_, other.buffer_);
    std::swap(infos_, other.infos_);
    std::swap(count_, other.count_);
    std::swap(taken_, other.taken_);
    std::swap(expected_, other.expected_);
    return *this;
  }
  Stream(const Stream &) = delete;
  Stream &operator=(const Stream &) = delete;
  ~Stream() {
    if (running()) QTX_StreamStop(handle());
  }

  /// How long a frame may let one wait; less than 0: as long as Radar::setWaitLimit allows, the default.
  void setWait(double seconds) noexcept { wait_ms_ = detail::milliseconds(seconds); }

  /// Waits for the next frame. 1538: not in time, 1537: cancelled, 2: the frame is larger than memory; the stream goes
  /// on.
  Frame next() {
    Frame frame;
    check(tryNext(frame));
    return frame;
  }

  /// The same without exceptions; on failure `frame` is as it was.
  [[nodiscard]] std::int32_t tryNext(Frame &frame) noexcept {
    if (!running()) return kNoStream;
    if (taken_ == count_) {
      if (const std::int32_t code = read()) return code;
    }
    const QTX_FrameInfo &info = infos_[taken_];
    frame.data_ = buffer_.data() + std::size_t{taken_} * info.samplers;
    frame.info_ = info;
    frame.lost_ = info.number - expected_;
    expected_ = info.number + 1;
    ++taken_;
    return kSuccess;
  }

  /// For range-based loops.
  Iterator begin() { return Iterator(this); }
  Iterator end() const noexcept { return Iterator(); }

  /// Frames that were not taken are gone. A loop over the stream ends with this turn.
  void stop() {
    if (!running()) return;
    own_ = 0;
    check(QTX_StreamStop(handle()));
  }
  /// Whether it was neither stopped nor followed by another one on this radar.
  bool running() const noexcept { return connection_ && own_ == connection_->streams; }

  /// 1539 when it was stopped.
  StreamStatistics statistics() const {
    QTX_StreamStatistics s{};
    s.size = sizeof s;
    check(running() ? QTX_StreamStatus(handle(), &s) : std::int32_t{kNoStream});
    return {s.in_flight, s.frames, s.retaken, s.lost, s.late, s.frame_time, s.sweep_time};
  }

 private:
  static constexpr std::uint32_t kBatch = 16;
  static constexpr std::size_t kLargest = std::size_t{1} << 24;

  QTX_Handle *handle() const noexcept { return detail::handleOf(connection_); }
  void check(std::int32_t code) const { detail::check(handle(), code); }

  // What is there, at least one frame. Frames grow when settings change.
  std::int32_t read() noexcept {
    for (;;) {
      taken_ = count_ = 0;
      const std::int32_t code =
          QTX_StreamRead(handle(), buffer_.data(), buffer_.size(), infos_, kBatch, &count_, wait_ms_);
      if (code != kBufferTooSmall || buffer_.size() >= kLargest) return code;
      try {
        buffer_.resize(buffer_.size() * 2);
      } catch (const std::bad_alloc &) {
        return kOutOfMemory;
      }
    }
  }

  detail::Shared connection_;
  std::uint64_t own_ = 0;  // number of this stream; 0 when it was stopped
  std::int32_t wait_ms_ = -1;
  std::vector<Level> buffer_;
  QTX_FrameInfo infos_[kBatch] = {};
  std::uint32_t count_ = 0;  // frames in the buffer
  std::uint32_t taken_ = 0;  // of these, handed out
  std::uint64_t expected_ = 0;
};

/// Ends the call that waits now, from any thread: it fails with 1537. Nothing happens without such a call.
class Canceller {
 public:
  /// See Radar::canceller.
  explicit Canceller(detail::Shared connection) noexcept : connection_(std::move(connection)) {}
  /// As Radar::cancel.
  void cancel() const noexcept { QTX_Cancel(detail::handleOf(connection_)); }

 private:
  detail::Shared connection_;
};

/// One radar: owns the handle and what is open on it. Moves; closes when it goes.
class Radar {
 public:
  /// With no radar open.
  Radar() : connection_(std::make_shared<detail::Connection>()) {
    detail::check(nullptr, QTX_InitHandle(&connection_->handle));
  }
  /// Opens the radar that the connection string names, see listRadars and openRadar.
  explicit Radar(const std::string &connection) : Radar() { open(connection); }
  /// What was moved from answers 1025.
  Radar(Radar &&) noexcept = default;
  Radar &operator=(Radar &&other) noexcept {
    std::swap(connection_, other.connection_);
    return *this;
  }
  Radar(const Radar &) = delete;
  Radar &operator=(const Radar &) = delete;
  ~Radar() {
    if (connection_) QTX_CloseRadar(handle());
  }

  /// For the functions of the C interface.
  QTX_Handle *handle() const noexcept { return detail::handleOf(connection_); }

  /// A radar that is still open is closed first. Where only the chip does not start, this fails and board and bridge
  /// are open.
  void open(const std::string &connection) {
    check(QTX_OpenRadar(handle(), connection.c_str()));
    if (state() == State::closed) detail::fail(handle(), kSuccess);
  }
  /// Closing twice is fine.
  void close() { check(QTX_CloseRadar(handle())); }
  /// Asks the bridge.
  State state() const {
    std::int32_t state = 0;
    check(QTX_RadarState(handle(), &state));
    return static_cast<State>(state);
  }
  /// The module's supply; on: module and chip start anew, with settings as after opening.
  void powerOn() { check(QTX_PowerOnRadar(handle())); }
  void powerOff() { check(QTX_PowerOffRadar(handle())); }

  /// All attached radars; the boards are powered up. 1 while a radar is open here.
  std::vector<FoundRadar> list() const {
    const std::string connections = text([this](char *buffer, std::int32_t size) {
      return QTX_ListRadarModules(handle(), buffer, std::uint32_t(size));
    });
    std::vector<FoundRadar> found;
    for (const std::string &connection : detail::split(connections, QTX_ConnectionStringDelimiter2())) {
      std::vector<std::string> fields = detail::split(connection, QTX_ConnectionStringDelimiter1());
      fields.resize(4, "Unknown");
      const std::size_t from = fields[1].find('(') + 1, to = fields[1].rfind(')');
      const std::string serial = from < to && to != std::string::npos ? fields[1].substr(from, to - from) : fields[1];
      found.push_back({connection, fields[0], serial, fields[2], fields[3]});
    }
    return found;
  }
  /// True as soon as bridges have come or gone since the last call, or, in the first call, the list that it finds;
  /// false when that takes longer. Less than 0: as long as setWaitLimit allows.
  bool waitForChange(double seconds = -1) {
    const std::int32_t code = QTX_WaitForRadarChange(handle(), detail::milliseconds(seconds));
    if (code == kWaitedTooLong) return false;
    check(code);
    return true;
  }

  /// The longest that one wait without a limit of its own may last; 0, the default: no limit.
  void setWaitLimit(double seconds) { check(QTX_SetWaitLimit(handle(), detail::milliseconds(seconds))); }
  /// Ends the call that waits now, from any thread.
  void cancel() const noexcept { QTX_Cancel(handle()); }
  /// The same for threads that may outlive this object.
  Canceller canceller() const noexcept { return Canceller(connection_); }
  /// What a person can do about the last failure, one line; empty where nothing is known.
  std::string advice() const {
    return text([this](char *buffer, std::int32_t size) { return QTX_GetErrorAdvice(handle(), buffer, size); });
  }

  /// The variable of that name: radar["PulsesPerStep"] = 40; double delay = radar["SampleDelay"].
  Variable operator[](std::string_view name) const noexcept { return Variable(connection_, name); }
  /// The names of all variables, and of all actions: of the bridge, the board, the chip.
  std::vector<std::string> variables() const {
    return names([this](char *buffer, std::int32_t size) { return QTX_ListVariables(handle(), buffer, size); });
  }
  std::vector<std::string> actions() const {
    return names([this](char *buffer, std::int32_t size) { return QTX_ListActions(handle(), buffer, size); });
  }
  /// Runs an action, "MeasureAll" for one. 1284: unknown.
  void execute(const std::string &action) { check(tryExecute(action.c_str())); }
  [[nodiscard]] std::int32_t tryExecute(const char *action) noexcept {
    return QTX_ExecuteAction_ByName(handle(), action);
  }

  /// Sets all of them or none, each register at most once. Returns what has moved, what follows others too.
  ///   radar.set({{"PulsesPerStep", 40}, {"SPIClockFrequency", "30MHz"}, {"SampleDelay", pulsekit3::automatic}});
  std::vector<Change> set(const std::vector<Setting> &settings) { return set(settings.data(), settings.size()); }
  std::vector<Change> set(std::initializer_list<Setting> settings) { return set(settings.begin(), settings.size()); }
  /// Every setting of board and chip automatic again.
  void reset() { check(QTX_VarsResetAllToDefault(handle())); }

  /// Settings in a text file (docs/formats.md). A failed save leaves an existing file as it was.
  void saveSettings(const std::string &path) const { check(QTX_VarsSaveToFile(handle(), path.c_str())); }
  /// 1: the file named unknown variables; the others are set.
  void loadSettings(const std::string &path) { check(QTX_VarsLoadFromFile(handle(), path.c_str())); }
  /// Settings in the flash of the board. Restoring gives 5 where there are none.
  void storeSettings() { check(QTX_VarsSaveToFlash(handle())); }
  void restoreSettings() { check(QTX_VarsLoadFromFlash(handle())); }

  /// Entries of a frame.
  std::size_t samplers() const { return (*this)["SamplersPerFrame"].as<std::size_t>(); }
  /// What the settings mean for a frame. 1541 where that can't be told.
  Geometry geometry() const {
    QTX_FrameGeometry g{};
    g.size = sizeof g;
    check(QTX_GetFrameGeometry(handle(), &g));
    return {g.samplers,   g.first_time, g.time_step,  g.first_range,      g.range_step,
            g.sweep_time, g.frame_time, g.pulse_rate, g.unambiguous_range};
  }
  /// The axis of a frame.
  std::vector<double> rangesMetres() const {
    const Geometry shape = geometry();
    std::vector<double> ranges(shape.samplers);
    for (std::size_t k = 0; k < ranges.size(); ++k) ranges[k] = shape.rangeMetres(k);
    return ranges;
  }
  /// The settings that can't give a good frame.
  std::vector<Finding> checkSettings() const {
    std::int32_t count = 0;
    const std::string lines = text(
        [this, &count](char *buffer, std::int32_t size) { return QTX_CheckSettings(handle(), buffer, size, &count); });
    std::vector<Finding> findings;
    for (const std::string &line : detail::split(lines, '\n')) {
      const std::size_t first = (std::min)(line.find(": "), line.size());
      const std::size_t second = (std::min)(line.find(": ", first + 1), line.size());
      const auto part = [&line](std::size_t from, std::size_t to) {
        return from < to ? line.substr(from, to - from) : std::string();
      };
      findings.push_back({part(0, first), part(first + 2, second), part(second + 2, line.size())});
    }
    return findings;
  }

  /// A frame: the level at each sampler in percent, as double or float; its counters as std::uint32_t.
  template <typename Level = double>
  std::vector<Level> frame() {
    std::vector<Level> levels;
    frame(levels);
    return levels;
  }
  /// A frame into any contiguous container of these: one that can be resized gets the size of the frame, an array or
  /// span must have room for it (2) and keeps what is behind it.
  template <typename Container>
  void frame(Container &&levels) {
    if constexpr (detail::CanResize<std::remove_reference_t<Container>>::value) levels.resize(samplers());
    check(tryFrame(levels));
  }
  /// The same without exceptions, into the size that the container has.
  template <typename Container>
  [[nodiscard]] std::int32_t tryFrame(Container &&levels) noexcept {
    return detail::capture(handle(), std::data(levels), std::size(levels));
  }

  /// Counters of every sampler at every threshold from "DACMin" to "DACMax".
  Cdf cdf() {
    std::uint32_t width = 0, lines = 0;
    check(QTX_CalculateCDF_Size(handle(), &width, &lines));
    Cdf table{width, lines, std::vector<std::uint32_t>(std::size_t{width} * lines)};
    check(QTX_GetCDF(handle(), table.counters.data(), detail::countOf(table.counters.size())));
    return table;
  }

  /// Frames one behind the other, at a rate or, with 0, as fast as the sweep allows; see Stream.
  ///   for (const auto &frame : radar.stream(100.0)) ...
  /// framesAhead: ordered ahead at most; 0: the library chooses.
  template <typename Level = double>
  Stream<Level> stream(double rateHertz = 0, std::uint32_t framesAhead = 0) & {
    return Stream<Level>(connection_, rateHertz, framesAhead);
  }
  /// The radar would be closed before the first frame: keep it in a variable.
  template <typename Level = double>
  Stream<Level> stream(double rateHertz = 0, std::uint32_t framesAhead = 0) && = delete;

  /// Measures delay lines and sampling rate, and keeps the results in that block of the flash unless it is -1. Takes
  /// seconds.
  void calibrate(std::int32_t storeBlock = -1) { check(QTX_Calibrate(handle(), storeBlock)); }
  /// The results, 579 numbers (docs/formats.md).
  std::vector<double> calibration() const {
    std::vector<double> results(579);
    check(QTX_TimingMeasurementResults(handle(), results.data(), detail::countOf(results.size())));
    return results;
  }
  /// The results in a block of the flash, 4 KiB each. Restoring gives 5 where there are none.
  void storeCalibration(std::uint32_t block) { check(QTX_TimingMeasurementSaveDataToFlash(handle(), block)); }
  void restoreCalibration(std::uint32_t block) { check(QTX_TimingMeasurementLoadDataFromFlash(handle(), block)); }

  /// Bytes of the flash from an address on, a multiple of 256. progress(bytes done, bytes in all) is called between
  /// blocks; what it throws ends the work.
  template <typename Progress = detail::NoProgress>
  std::vector<std::uint8_t> readFlash(std::uint32_t address, std::size_t length, Progress &&progress = {}) const {
    std::vector<std::uint8_t> bytes(length);
    for (std::size_t done = 0; done < length;) {
      const std::size_t piece = (std::min)(length - done, kFlashBlock);
      check(QTX_ModuleReadFlashMemory(handle(), address + static_cast<std::uint32_t>(done), bytes.data() + done,
                                      static_cast<std::int32_t>(piece)));
      done += piece;
      progress(done, length);
    }
    return bytes;
  }
  /// Writes a contiguous container of bytes from an address on, a multiple of 256. Every block of 4 KiB that it touches
  /// is erased: what else is in the block is lost.
  template <typename Bytes, typename Progress = detail::NoProgress>
  void writeFlash(std::uint32_t address, const Bytes &bytes, Progress &&progress = {}) {
    const std::size_t length = std::size(bytes);
    for (std::size_t done = 0; done < length;) {
      const std::uint32_t at = address + static_cast<std::uint32_t>(done);
      const std::size_t piece = (std::min)(length - done, kFlashBlock - at % kFlashBlock);
      check(QTX_ModuleWriteFlashMemory(handle(), at, std::data(bytes) + done, static_cast<std::uint32_t>(piece)));
      done += piece;
      progress(done, length);
    }
  }

  /// Board name and ID; without an open radar those of the first one that is found.
  BoardInfo boardInfo() const {
    std::vector<std::uint8_t> bytes(128);
    check(QTX_ModuleReadBoardInfo(handle(), bytes.data(), detail::countOf(bytes.size())));
    return {boardText(bytes, 0, 31), boardText(bytes, 32, 32), bytes};
  }
  /// Once only, at most 64 bytes: bits can be cleared, never set again.
  template <typename Bytes>
  void programBoardInfo(const Bytes &bytes) {
    check(QTX_ModuleProgramBoardInfo(handle(), std::data(bytes), detail::countOf(std::size(bytes))));
  }

  /// A chip register of 1 to 8 bytes.
  std::uint64_t readRegister(std::uint8_t address, std::uint32_t bytes = 1) const {
    std::uint64_t value = 0;
    check(tryReadRegister(address, bytes, value));
    return value;
  }
  [[nodiscard]] std::int32_t tryReadRegister(std::uint8_t address, std::uint32_t bytes,
                                             std::uint64_t &value) const noexcept {
    return QTX_RegisterRead(handle(), address, bytes, &value);
  }
  void writeRegister(std::uint8_t address, std::int32_t bytes, std::uint64_t value) {
    check(tryWriteRegister(address, bytes, value));
  }
  [[nodiscard]] std::int32_t tryWriteRegister(std::uint8_t address, std::int32_t bytes, std::uint64_t value) noexcept {
    return QTX_RegisterWrite(handle(), address, bytes, value);
  }

  /// Pins: below 500 those of the bridge, from 500 on the module's own. 262 for an unknown one.
  bool pin(std::uint32_t pin) const {
    bool level = false;
    check(tryPin(pin, level));
    return level;
  }
  [[nodiscard]] std::int32_t tryPin(std::uint32_t pin, bool &level) const noexcept {
    std::uint32_t value = 0;
    if (const std::int32_t code = QTX_IO_GetValue(handle(), pin, &value)) return code;
    level = value != 0;
    return kSuccess;
  }
  /// The level of an output.
  void setPin(std::uint32_t pin, bool level) { check(trySetPin(pin, level)); }
  [[nodiscard]] std::int32_t trySetPin(std::uint32_t pin, bool level) noexcept {
    return QTX_IO_SetValue(handle(), pin, level);
  }
  /// Which way a pin goes.
  void makeOutput(std::uint32_t pin, bool level) { check(QTX_IO_SetDirection(handle(), pin, 1, level)); }
  void makeInput(std::uint32_t pin) { check(QTX_IO_SetDirection(handle(), pin, 0, 0)); }

  /// One SPI frame: the bytes out, then as many in as asked for. Channel 0 is the chip, 1 the flash.
  template <typename Bytes>
  std::vector<std::uint8_t> spi(std::uint32_t channel, const Bytes &out, std::size_t count) {
    std::vector<std::uint8_t> in(count);
    check(trySpi(channel, out, in));
    return in;
  }
  template <typename Bytes, typename Answer>
  [[nodiscard]] std::int32_t trySpi(std::uint32_t channel, const Bytes &out, Answer &&in) noexcept {
    return QTX_SPI_SendReceive(handle(), channel, std::data(out), detail::countOf(std::size(out)), std::data(in),
                               std::uint32_t(detail::countOf(std::size(in))));
  }
  /// Full-duplex bits; flags as of QTX_SPI_SendReceiveBits.
  template <typename Bytes>
  std::vector<std::uint8_t> spiBits(std::uint32_t channel, const Bytes &out, std::int32_t outBits, std::int32_t inBits,
                                    std::uint32_t flags = 0) {
    if (outBits > 0 && (static_cast<std::size_t>(outBits) + 7) / 8 > std::size(out)) {
      detail::fail(kError, "fewer bytes than bits to send");
    }
    std::vector<std::uint8_t> in((static_cast<std::size_t>((std::max)(inBits, 0)) + 7) / 8);
    check(QTX_SPI_SendReceiveBits(handle(), channel, std::data(out), outBits, in.data(), inBits, flags));
    return in;
  }

  /// What startFrameLog writes, and how.
  enum class Logged : std::int32_t { raw = 1, levels = 2 };
  enum class Format : std::int32_t { text = 0x10, binary = 0x20 };
  /// Logs every frame that is taken (docs/formats.md): raw counters or levels, text with `precision` digits behind the
  /// point, or binary of 4 bytes a value, 8 above a precision of 4.
  void startFrameLog(const std::string &path, Logged logged, Format format, std::int32_t precision = 0) {
    const std::int32_t flags = static_cast<std::int32_t>(logged) | static_cast<std::int32_t>(format);
    check(QTX_FrameLoggingStart(handle(), path.c_str(), flags, precision));
  }
  /// 1: a frame could not be written in full.
  void stopFrameLog() { check(QTX_FrameLoggingStop(handle())); }

  /// Logs what goes over the SPI.
  void startTransferLog(const std::string &path) {
    check(QTX_InterfaceLogging(handle(), 1, path.c_str()));
    check(QTX_InterfaceLogging(handle(), 3, path.c_str()));
  }
  void noteInTransferLog(const std::string &comment) { check(QTX_InterfaceLogComment(handle(), comment.c_str())); }
  void stopTransferLog() { check(QTX_InterfaceLogging(handle(), 2, "")); }

 private:
  static constexpr std::size_t kFlashBlock = 4096;

  void check(std::int32_t code) const { detail::check(handle(), code); }

  template <typename Read>
  std::string text(Read read) const {
    return detail::readText(handle(), read);
  }
  template <typename Read>
  std::vector<std::string> names(Read read) const {
    return detail::split(text(read), QTX_ListDelimiter());
  }

  static std::string boardText(const std::vector<std::uint8_t> &bytes, std::size_t from, std::size_t length) {
    std::string text;
    for (std::size_t i = from; i < from + length && bytes[i] != 0 && bytes[i] != 0xff; ++i) {
      text.push_back(static_cast<char>(bytes[i]));
    }
    return text.substr(0, text.find_last_not_of(' ') + 1);
  }

  std::vector<Change> set(const Setting *settings, std::size_t count) {
    std::vector<const char *> variables, texts;
    for (const Setting *setting = settings; setting != settings + count; ++setting) {
      variables.push_back(setting->name().c_str());
      texts.push_back(setting->text().c_str());
    }
    std::vector<QTX_Change> moved(512);
    std::uint32_t changes = static_cast<std::uint32_t>(moved.size());
    check(QTX_VarsSetMany(handle(), variables.data(), texts.data(), static_cast<std::uint32_t>(count), moved.data(),
                          &changes));
    std::vector<Change> result;
    for (std::uint32_t i = 0; i < changes; ++i) result.push_back(changeOf(moved[i]));
    return result;
  }

  Change changeOf(const QTX_Change &change) const {
    const Type type = static_cast<Type>(change.type);
    const std::vector<std::uint32_t> symbols =
        type == Type::enumeration ? (*this)[change.name].symbols() : std::vector<std::uint32_t>();
    const auto number = [&](std::uint64_t word) {
      if (type == Type::real) return detail::realOf(word);
      if (type == Type::integer) return static_cast<double>(word);
      const auto item = std::find(symbols.begin(), symbols.end(), word);
      return static_cast<double>(item - symbols.begin());
    };
    return {change.name, number(change.before), number(change.after), type, change.automatic != 0};
  }

  detail::Shared connection_;
};

/// All attached radars. A process that has one open may list, too: with a radar of its own.
inline std::vector<FoundRadar> listRadars() { return Radar().list(); }

/// Opens the radar with that serial number or connection string; without one the only radar that is ready. 260 where
/// that is none or several.
inline Radar openRadar(const std::string &which = "") {
  if (std::count(which.begin(), which.end(), QTX_ConnectionStringDelimiter1()) == 3) return Radar(which);
  std::vector<FoundRadar> fitting;
  std::string names;
  for (const FoundRadar &found : listRadars()) {
    names += " " + found.serial;
    if (which.empty() ? found.ready() : found.serial == which) fitting.push_back(found);
  }
  if (fitting.size() == 1) return Radar(fitting[0].connection);
  const std::string wanted = which.empty() ? "one radar that is ready" : "the radar " + which;
  detail::fail(kNotConnected, "looking for " + wanted + ", attached:" + (names.empty() ? " none" : names));
}

/// Version of the library: "3.3.0~RC1 (x64)".
inline std::string version() {
  return detail::readText(nullptr, [](char *buffer, std::int32_t size) { return QTX_Version(buffer, size); });
}

}  // namespace pulsekit3

#endif
