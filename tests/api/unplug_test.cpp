// A bridge that is pulled at every call in turn: a code each time, nothing hangs or leaks, and the radar can be closed
// and opened again.
#include <functional>
#include <set>

#include "bench.h"

namespace pulsekit::test {
namespace {

constexpr int kShards = 4;  // of each loop, so that they run side by side

class Unplugged : public Bench, public testing::WithParamInterface<int> {
 protected:
  static uint64_t calls() {
    QTXSim_Statistics statistics{};
    QTXSim_GetStatistics(&statistics);
    return statistics.calls;
  }

  // Runs the operation with the plug pulled before its nth call, for every nth of this shard.
  template <typename Prepare, typename Operation, typename Check>
  void atEveryCall(Prepare prepare, Operation operation, Check check) {
    prepare();
    QTXSim_ResetStatistics();
    ASSERT_EQ(operation(), 0) << description(radar);
    const uint32_t count = static_cast<uint32_t>(calls());
    ASSERT_GT(count, 0u);
    EXPECT_EQ(QTX_CloseRadar(radar), 0);

    for (uint32_t nth = 1 + static_cast<uint32_t>(GetParam()); nth <= count; nth += kShards) {
      prepare();
      radar->error->trace[0] = '\0';
      ASSERT_EQ(QTXSim_UnplugAtCall(number, nth), 0);
      check(nth, operation());
      EXPECT_EQ(QTX_CloseRadar(radar), 0) << nth;
      EXPECT_EQ(radar->interface_handle, nullptr) << nth;
      QTXSim_ClearFaults();
      QTXSim_Replug(number);
      if (testing::Test::HasFailure()) return;
    }
    open();
    std::vector<uint32_t> frame(4096);
    EXPECT_EQ(QTX_GetFrameRaw(radar, frame.data(), frame.size()), 0) << description(radar);
  }

  void open() { ASSERT_EQ(QTX_OpenRadar(radar, connection().c_str()), 0) << description(radar); }

  int32_t number = addRadar();
  Radar radar;
};

TEST_P(Unplugged, WhileOpening) {
  std::set<int> points;
  atEveryCall([] {}, [&] { return QTX_OpenRadar(radar, connection().c_str()); },
              [&](uint32_t nth, int32_t code) {
                EXPECT_NE(code, 0) << nth;
                const std::string trace = radar->error->trace;
                const size_t point = trace.find("QTX_OpenRadar in src/Pulsekit3:");
                ASSERT_NE(point, std::string::npos) << nth << trace;
                points.insert(std::stoi(trace.substr(trace.find(':', point) + 1)));
              });
  EXPECT_EQ(points, (std::set<int>{388, 412, 439}));
}

TEST_P(Unplugged, WhileListing) {
  std::vector<char> text(512);
  atEveryCall([] {}, [&] { return QTX_ListRadarModules(radar, text.data(), 512); },
              [&](uint32_t nth, int32_t code) {
                const std::string list = text.data();
                EXPECT_TRUE(code != 0 || list.empty() || list.find(device()) == 0) << nth << list;
              });
}

TEST_P(Unplugged, WhileReadingOrProgrammingBoardInformation) {
  struct Case {
    const char *function;
    std::function<int32_t()> run;
    int not_started, not_transferred;
  };
  std::vector<uint8_t> info(128);
  const std::vector<uint8_t> name{'Q', 'T', 'X', '-', 'K', '2', '4', '5'};
  const Case cases[] = {
      {"QTX_ModuleReadBoardInfo", [&] { return QTX_ModuleReadBoardInfo(radar, info.data(), 128); }, 1474, 1483},
      {"QTX_ModuleProgramBoardInfo", [&] { return QTX_ModuleProgramBoardInfo(radar, name.data(), 4); }, 1550, 1559}};
  for (const Case &c : cases) {
    std::set<int> points;
    atEveryCall([] {}, c.run,
                [&](uint32_t nth, int32_t code) {
                  const std::string trace = radar->error->trace;
                  const size_t point = trace.find(std::string(c.function) + " in src/Pulsekit3:");
                  if (point == std::string::npos) return;
                  const int line = std::stoi(trace.substr(trace.find(':', point) + 1));
                  points.insert(line);
                  // A board that can't be started gives the result of disconnecting.
                  EXPECT_EQ(code == 0, line == c.not_started) << nth << trace;
                });
    points.erase(c.not_transferred);  // the transfer itself is too short for every shard to hit it
    EXPECT_EQ(points, (std::set<int>{1453, c.not_started}));
  }
}

TEST_P(Unplugged, WhileCapturing) {
  std::vector<double> frame(4096);
  atEveryCall([&] { open(); }, [&] { return QTX_GetFrameNormalized(radar, frame.data(), 4096); },
              [](uint32_t nth, int32_t code) { EXPECT_NE(code, 0) << nth; });
}

TEST_P(Unplugged, WhileStoringSettings) {
  atEveryCall([&] { open(); }, [&] { return QTX_VarsSaveToFlash(radar); },
              [](uint32_t nth, int32_t code) { EXPECT_NE(code, 0) << nth; });
}

TEST_P(Unplugged, WhileClosing) {
  atEveryCall([&] { open(); }, [&] { return QTX_CloseRadar(radar); },
              [](uint32_t nth, int32_t code) { EXPECT_EQ(code, 0) << nth; });
}

INSTANTIATE_TEST_SUITE_P(Shards, Unplugged, testing::Range(0, kShards));

}  // namespace
}  // namespace pulsekit::test
