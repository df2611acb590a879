// Streams on the simulated bench: the same frames as single captures, at the pace of the hardware, whatever happens.
#include <cmath>
#include <cstring>

#include "Pulsekit3_settings.h"
#include "Pulsekit3_stream.h"
#include "bench.h"
#include "faults.h"

namespace pulsekit::test {
namespace {

using Counters = std::vector<uint32_t>;

struct Frame {
  QTX_FrameInfo info;
  Counters counters;
};

// Looks on at every call of the bridge library.
struct Watch {
  static const FTx232H_D2XX *table() {
    static const FTx232H_D2XX watched = [] {
      FTx232H_D2XX functions = *QTXSim_D2XX();
      functions.Write = [](FT_HANDLE handle, const void *bytes, uint32_t count, uint32_t *written) {
        note();
        const uint64_t begun = QTXSim_Nanoseconds();
        const FT_STATUS status = QTXSim_D2XX()->Write(handle, bytes, count, written);
        watch.longest_write = std::max(watch.longest_write, QTXSim_Nanoseconds() - begun);
        return status;
      };
      functions.Read = [](FT_HANDLE handle, void *bytes, uint32_t count, uint32_t *got) {
        note();
        return QTXSim_D2XX()->Read(handle, bytes, count, got);
      };
      functions.GetQueueStatus = [](FT_HANDLE handle, uint32_t *count) {
        note();
        return QTXSim_D2XX()->GetQueueStatus(handle, count);
      };
      return functions;
    }();
    return &watched;
  }
  static void note() {
    if (++watch.calls == watch.act_at) watch.act();
  }
  static Watch watch;

  uint32_t act_at = 0;
  std::function<void()> act;
  uint32_t calls = 0;
  uint64_t longest_write = 0;
};
Watch Watch::watch;
Watch &watch = Watch::watch;

class Streams : public Bench {
 protected:
  Streams() {
    watch = {};
    FTx232H_SetD2XX(Watch::table());
  }

  void opened(const std::string &assignments = "") {
    const QTXSim_Reflector wall = {1.1, 900, QTXSIM_STILL, 0, 0, 0};
    ASSERT_EQ(QTXSim_SetScene(0, &wall, 1, 300, 0), 0);
    ASSERT_EQ(open(), 0);
    ASSERT_EQ(set(assignments), 0) << assignments;
  }

  int32_t start(double rate = 0, uint32_t kind = QTX_STREAM_RAW, uint32_t in_flight = 0) {
    const QTX_StreamOptions options = {sizeof options, kind, rate, in_flight};
    return QTX_StreamStart(handle, &options);
  }

  Counters single() {
    Counters counters(4096, 0xEEEEEEEE);
    EXPECT_EQ(QTX_GetFrameRaw(handle, counters.data(), counters.size()), 0) << description();
    counters.erase(std::find(counters.begin(), counters.end(), 0xEEEEEEEE), counters.end());
    return counters;
  }

  // Appends what one read gives.
  int32_t read(std::vector<Frame> &frames, uint32_t most = 16) {
    QTX_FrameInfo infos[16];
    uint32_t count = 0;
    const int32_t code = QTX_StreamRead(handle, buffer.data(), buffer.size(), infos, most, &count, 1000);
    for (uint32_t i = 0; i < count; ++i) {
      const uint32_t *entries = buffer.data() + size_t{i} * infos[i].samplers;
      frames.push_back({infos[i], Counters(entries, entries + infos[i].samplers)});
    }
    return code;
  }

  std::vector<Frame> read(size_t count) {
    std::vector<Frame> frames;
    while (frames.size() < count && read(frames) == 0) {
    }
    EXPECT_GE(frames.size(), count) << description();
    return frames;
  }

  QTX_StreamStatistics statistics() {
    QTX_StreamStatistics result{};
    result.size = sizeof result;
    EXPECT_EQ(QTX_StreamStatus(handle, &result), 0);
    return result;
  }

  std::vector<uint32_t> buffer = std::vector<uint32_t>(16 * 15 * 256);
};

size_t differing(const Counters &one, const Counters &other) {
  size_t count = one.size() == other.size() ? 0 : other.size();
  for (size_t i = 0; i < std::min(one.size(), other.size()); ++i) count += one[i] != other[i];
  return count;
}

struct Speed {
  const char *name, *clock, *settings;
  double share;  // of what the sweeps or reading out allow, that is reached at least
  double rate = 0;
};

const Speed kSpeeds[] = {
    {"Default", "30MHz", "", 0.97},
    {"Short", "30MHz", "Iterations=1 PulsesPerStep=9", 0.85},
    {"Stitched", "30MHz", "FrameStitch=4", 0.90},
    {"Slow", "4.28MHz", "PipeLining=1 Downsampling=3", 0.95},
    {"Odd", "15MHz", "BytesPerCounter=3 FrameStitch=15 SignalStartOfSweep=1", 0.90},
    {"Small", "30MHz", "BytesPerCounter=1 Iterations=1 Downsampling=3", 0.85},
    {"Long", "30MHz", "Iterations=2000", 0.95},
    {"Paced", "15MHz", "", 0, 100},
    {"PacedTight", "30MHz", "", 0.9, 450},
    {"PacedStitched", "15MHz", "FrameStitch=3 SDFTEnable=1", 0, 60},
    {"PacedSlow", "15MHz", "", 0, 3},
};

class Rates : public Streams, public testing::WithParamInterface<Speed> {};

}  // namespace

TEST_P(Rates, GivesTheFramesOfSingleCapturesAtThePaceOfTheHardware) {
  const Speed &speed = GetParam();
  opened(format("SPIClockFrequency=%s %s", speed.clock, speed.settings));
  const Counters expected = single();
  const auto before = settings(handle);
  ASSERT_EQ(start(speed.rate), 0) << description();
  read(size_t{1});
  const uint64_t begun = QTXSim_Nanoseconds();
  const std::vector<Frame> frames = read(size_t{60});
  const double each = static_cast<double>(QTXSim_Nanoseconds() - begun) * 1e-9 / static_cast<double>(frames.size());
  for (size_t i = 0; i < frames.size(); ++i) {
    ASSERT_EQ(frames[i].counters, expected) << i;
    EXPECT_EQ(frames[i].info.flags, 0u) << i;
    EXPECT_EQ(frames[i].info.number, frames[0].info.number + i);
    const double due = static_cast<double>(frames[i].info.number) / speed.rate;
    EXPECT_TRUE(speed.rate == 0 || std::abs(frames[i].info.time - due) < 1e-7) << frames[i].info.time << " " << due;
  }
  const auto bytes = static_cast<double>(expected.size() * before.at("BytesPerCounter").value);
  const double reading = bytes * 8 / (std::atof(speed.clock) * 1e6);
  const double sweeping = statistics().sweep_time * static_cast<double>(before.at("FrameStitch").value);
  EXPECT_GT(std::max(sweeping, reading) / each, speed.share);
  EXPECT_EQ(QTX_StreamStop(handle), 0);
  EXPECT_EQ(settings(handle), before);
  EXPECT_EQ(single(), expected);
}
INSTANTIATE_TEST_SUITE_P(Every, Rates, testing::ValuesIn(kSpeeds), [](const auto &test) { return test.param.name; });

TEST_F(Streams, HostThatStopsNowAndThenMissesNothing) {
  opened("SPIClockFrequency=30MHz");
  const Counters expected = single();
  ASSERT_EQ(start(), 0);
  std::vector<Frame> frames = read(size_t{1});
  const uint64_t begun = QTXSim_Nanoseconds();
  for (int stop = 1; stop <= 10; ++stop) {
    while (QTXSim_Nanoseconds() < begun + stop * 80'000'000ull) ASSERT_EQ(read(frames), 0);
    QTXSim_Advance(20'000'000);
  }
  EXPECT_GT(frames.size(), 360u) << "0.8 s of 2.156 ms each";
  for (size_t i = 1; i < frames.size(); ++i) {
    ASSERT_EQ(frames[i].counters, expected);
    EXPECT_EQ(frames[i].info.number, i);
    EXPECT_NEAR(frames[i].info.time - frames[i - 1].info.time, statistics().frame_time, 1e-6);
  }
}

// As many sweeps as its FIFO takes commands of, and no write that would have to wait.
TEST_F(Streams, OrdersAsFarAheadAsTheBridgeTakes) {
  QTXSim_AddRadar("FT0002", "", QTXSIM_FT4232H, "QTX-K245", "QTX3701");
  QTXSim_AddRadar("FT0003", "", QTXSIM_FT2232H, "QTX-K245", "QTX3702");
  const std::tuple<const char *, const char *, uint32_t> cases[] = {
      {"FT0001AB", "QTX3701", 13}, {"FT0002A", "QTX3701", 26}, {"FT0003A", "QTX3702", 53}};
  for (const auto &[serial, chip, ahead] : cases) {
    ASSERT_EQ(QTX_OpenRadar(handle, (device(serial) + "!QTX-K245!" + chip).c_str()), 0);
    watch = {};
    ASSERT_EQ(start(), 0);
    read(size_t{100});
    EXPECT_GE(statistics().in_flight, ahead);
    EXPECT_EQ(watch.longest_write, 125'000u);
    EXPECT_EQ(QTX_StreamStop(handle), 0);
    ASSERT_EQ(start(0, QTX_STREAM_RAW, 2), 0);
    read(size_t{10});
    EXPECT_EQ(statistics().in_flight, 2u);
    EXPECT_EQ(QTX_CloseRadar(handle), 0) << "with its stream";
  }
}

TEST_F(Streams, SettingsChangeBetweenFrames) {
  const std::string changes[] = {"FrameStitch=2", "PulsesPerStep=7", "OffsetDistanceFromReference=0.9",
                                 "SPIClockFrequency=10MHz", "PulsesPerStep=7"};
  opened("SPIClockFrequency=30MHz");
  std::vector<Counters> expected = {single()};
  for (const std::string &change : changes) {
    EXPECT_EQ(set(change), 0);
    expected.push_back(single());
  }
  EXPECT_EQ(set("FrameStitch=auto PulsesPerStep=auto OffsetDistanceFromReference=auto SPIClockFrequency=30MHz"), 0);
  ASSERT_EQ(start(), 0);
  std::vector<Frame> frames = read(size_t{3});
  for (const std::string &change : changes) {
    const std::string name = change.substr(0, change.find('=')), value = change.substr(name.size() + 1);
    const char *names[] = {name.c_str()}, *values[] = {value.c_str()};
    uint32_t count = 0;
    EXPECT_EQ(change[0] == 'P' ? set(change) : QTX_VarsSetMany(handle, names, values, 1, nullptr, &count), 0);
    uint64_t status = 7;
    EXPECT_EQ(QTX_RegisterRead(handle, 2, 2, &status), 0);
    EXPECT_EQ(status, 0x309u);
    const std::vector<Frame> more = read(size_t{40});
    frames.insert(frames.end(), more.begin(), more.end());
  }
  std::vector<int> counts(expected.size());
  for (size_t i = 0; i < frames.size(); ++i) {
    const QTX_FrameInfo &info = frames[i].info;
    EXPECT_EQ(info.number, i);
    EXPECT_EQ(info.flags, 0u);
    ASSERT_EQ(frames[i].counters, expected.at(info.settings)) << i << " with settings " << info.settings;
    ++counts[info.settings];
  }
  EXPECT_GT(counts[0], 12) << "with what was in flight";
  EXPECT_EQ(counts.back(), 0) << "setting what is set changes nothing";
}

TEST_F(Streams, KindsCapacitiesAndRefusals) {
  DO(QTX_StreamStart(nullptr, nullptr), start());
  opened("Downsampling=3");
  std::vector<double> normalized(32);
  std::vector<float> floats(32);
  EXPECT_EQ(QTX_GetFrameNormalized(handle, normalized.data(), 32), 0);
  EXPECT_EQ(QTX_GetFrameNormalizedFloat(handle, floats.data(), 32, 0), 0);
  const QTX_StreamOptions wrong[] = {{8, 0, 0, 0}, {24, 3, 0, 0}, {24, 0, -1, 0}, {24, 0, std::nan(""), 0}};
  for (const QTX_StreamOptions &options : wrong) DO(QTX_StreamStart(handle, &options));
  uint32_t count = 7;
  tells_pauses = false;
  const auto take = [&](size_t capacity) {
    const int32_t code = QTX_StreamRead(handle, buffer.data(), capacity, nullptr, 9, &count, 1000);
    return std::to_string(code) + " " + std::to_string(count);
  };
  DO(take(32), QTX_StreamStop(handle));
  for (const uint32_t kind : {QTX_STREAM_DOUBLE, QTX_STREAM_FLOAT}) {
    DO(start(0, kind), start(), QTX_GetFrameRaw(handle, buffer.data(), 4096),
       QTX_GetFrameNormalized(handle, normalized.data(), 32), QTX_GetCDF(handle, buffer.data(), 4096),
       QTX_ExecuteAction_ByName(handle, "MeasureAll"), take(31), take(80));
    const void *single = kind == QTX_STREAM_DOUBLE ? static_cast<void *>(normalized.data()) : floats.data();
    EXPECT_EQ(std::memcmp(buffer.data(), single, kind == QTX_STREAM_DOUBLE ? 256 : 128), 0);
    EXPECT_EQ(QTX_VarSetIntValue_ByName(handle, "DACStepFine", 0), 0);
    while (take(4096)[0] == '0') {
    }
    EXPECT_NE(description().find("DACStepFine is 0"), std::string::npos);
    DO(set("DACStepFine=auto"), take(4096)[0] == '0', QTX_StreamStop(handle), QTX_StreamStop(handle));
  }
}

TEST_F(Streams, LongSweepIsMeasuredWithoutAPause) {
  opened("PulsesPerStep=20000");
  ASSERT_EQ(start(), 0);
  EXPECT_NEAR(statistics().sweep_time, 2.048, 0.01);
}

// The chip sweeps longer than was measured, in the end without end.
TEST_F(Streams, SweepThatHasNotEndedIsTakenAgain) {
  opened("Iterations=12");
  const Counters longer = single();
  EXPECT_EQ(set("Iterations=auto"), 0);
  const Counters expected = single();
  ASSERT_EQ(start(), 0);
  std::vector<Frame> frames = read(size_t{20});
  const double measured = statistics().sweep_time;
  QTXSim_SetChipRegister(0, 0x3c, 12);
  while (frames.back().counters != longer) ASSERT_EQ(read(frames), 0);
  uint32_t retaken = 0;
  for (size_t i = 0; i < frames.size(); ++i) {
    EXPECT_EQ(frames[i].info.number, i);
    EXPECT_TRUE(frames[i].counters == expected || frames[i].counters == longer) << i;
    retaken += frames[i].info.flags & QTX_FRAME_RETAKEN;
  }
  read(frames);
  EXPECT_GT(retaken, 0u);
  EXPECT_GT(statistics().retaken, 0u);
  EXPECT_GT(statistics().sweep_time, measured * 1.15);

  QTXSim_ChipStickBits(0, 0x47, 1, 1);
  while (read(frames) == 0) {
  }
  EXPECT_EQ(description().substr(0, 12), "ERROR 0x602:");
  EXPECT_EQ(QTX_StreamStop(handle), 0);
  EXPECT_EQ(start(), 1538);
  QTXSim_ChipStickBits(0, 0x47, 1, 0);
  QTXSim_SetIdleLevel(0, 1);
  QTXSim_PowerCycle(0);
  EXPECT_EQ(QTX_PowerOffRadar(handle), 0);
  EXPECT_EQ(start(), 768) << "nothing drives the line";
}

// Whatever happens to the bus: no bad frame is handed out, and streaming works again, on the same stream or on a new
// one.
TEST_F(Streams, FaultsNeverGiveABadFrame) {
  for (const char *stitch : {"1", "3"}) {
    opened("SPIClockFrequency=30MHz FrameStitch=" + std::string(stitch));
    const Counters expected = single();
    const auto expectFrames = [&](const std::vector<Frame> &frames, size_t tolerated) {
      for (size_t i = 0; i < frames.size(); ++i) {
        ASSERT_LE(differing(frames[i].counters, expected), tolerated) << i;
        ASSERT_TRUE(i == 0 || frames[i].info.number == frames[i - 1].info.number + 1);
      }
    };
    for (uint32_t fault = 0; fault < kFaults; ++fault) {
      for (uint32_t nth = 1; nth <= 6; ++nth) {
        SCOPED_TRACE(testing::Message() << "fault " << fault << ", " << nth << ", stitch " << stitch);
        const bool at_start = nth % 2 == 0;
        if (at_start) makeFault(fault, nth, nth * nth * 9, nth * 514 - nth % 3);
        int32_t code = start();
        std::vector<Frame> frames;
        if (!at_start) {
          read(frames);
          makeFault(fault, nth, nth * nth * 9, nth * 514 - nth % 3);
        }
        int failures = code != 0;
        for (int i = 0; i < 12 && code == 0; ++i) failures += read(frames) != 0;
        // A counter that is wrong but possible looks like any other.
        expectFrames(frames, fault == 6);
        QTXSim_ClearFaults();
        if (fault == 0) {
          EXPECT_GT(failures, 0);
          EXPECT_EQ(QTX_CloseRadar(handle), 0);
          QTXSim_Replug(0);
          opened("SPIClockFrequency=30MHz FrameStitch=" + std::string(stitch));
        } else if (code == 0) {
          EXPECT_LT(failures, 4);
          EXPECT_EQ(QTX_StreamStop(handle), 0);
        }
        EXPECT_EQ(single(), expected);
        EXPECT_EQ(start(), 0) << description();
        expectFrames(read(size_t{4}), 0);
        EXPECT_EQ(QTX_StreamStop(handle), 0);
      }
    }
  }
}

TEST_F(Streams, CancelledAtEveryCallInTurn) {
  opened("SPIClockFrequency=30MHz FrameStitch=2");
  const Counters expected = single();
  int cancelled = 0;
  for (uint32_t nth = 1; nth < 160; nth += nth < 10 ? 1 : 6) {
    SCOPED_TRACE(nth);
    watch = {nth, [&] { QTX_Cancel(handle); }, 0, 0};
    const int32_t started = start();
    std::vector<Frame> frames;
    while (started == 0 && frames.size() < 8) {
      const int32_t code = read(frames);
      EXPECT_TRUE(code == 0 || code == 1537) << code;
      cancelled += code == 1537;
    }
    EXPECT_TRUE(started == 0 || started == 1537) << started << description();
    cancelled += started == 1537;
    for (size_t i = 0; i < frames.size(); ++i)
      EXPECT_TRUE(frames[i].counters == expected && frames[i].info.number == i);
    watch = {};
    EXPECT_EQ(QTX_StreamStop(handle), 0);
    EXPECT_EQ(single(), expected);
  }
  EXPECT_GT(cancelled, 15);
}

// What a bridge can't carry out by itself is carried out for it; a host that looks on at every transfer sees them all.
TEST_F(Streams, WithoutProgramsTheFramesAreTheSame) {
  for (const char *stitch : {"1", "3"}) {
    opened("FrameStitch=" + std::string(stitch));
    const Counters expected = single();
    handle->interface_handle->SetIO = [](InterfaceHandle *bridge, uint32_t pin, uint32_t value) {
      return bridge->SetIO_Direction(bridge, pin, 1, value);
    };
    ASSERT_EQ(start(), 0) << description();
    for (const Frame &frame : read(size_t{5})) EXPECT_EQ(frame.counters, expected);
    EXPECT_EQ(QTX_StreamStop(handle), 0);
    EXPECT_EQ(single(), expected);
  }
}

TEST_F(Streams, EndsWithTheHandleAndIsRefusedByTheFirstGeneration) {
  add("FT0002", "QTX-K245", "QTX3500");
  ASSERT_EQ(QTX_OpenRadar(handle, (device("FT0002") + "!QTX-K245!QTX3500").c_str()), 0);
  EXPECT_EQ(start(), 4);
  EXPECT_NE(description().find("is not implemented for this chip"), std::string::npos);
  opened();
  ASSERT_EQ(start(), 0);
  opened();
  uint32_t count = 0;
  EXPECT_EQ(QTX_StreamRead(handle, buffer.data(), 4096, nullptr, 1, &count, 0), 1539) << "opened anew";
  ASSERT_EQ(start(), 0);
}

// Answers that stay away end a read at its time-out, then as a fault; the stream goes on.
TEST_F(Streams, FramesAreLoggedAndWaitsEnd) {
  opened();
  const Folder folder;
  EXPECT_EQ(QTX_FrameLoggingStart(handle, folder.file("log").c_str(), 0x21, 0), 0);
  ASSERT_EQ(start(), 0);
  read(size_t{3});
  EXPECT_EQ(QTX_FrameLoggingStop(handle), 0);
  const size_t logged = contents(folder.file("log")).size();
  EXPECT_TRUE((logged - 32) % (8 + 1024) == 0 && logged >= 32 + 3 * (8 + 1024)) << logged;
  QTXSim_LoseAnswer(0, 0, 100'000);
  std::vector<Frame> frames;
  int32_t code = 0;
  while (code == 0) code = read(frames, 1);
  EXPECT_TRUE(code == 1538 || code == 270) << code;
  QTXSim_ClearFaults();
  while (read(frames) != 0) {
  }
  EXPECT_EQ(frames.back().info.flags, uint32_t{QTX_FRAME_RETAKEN});
}

}  // namespace pulsekit::test
