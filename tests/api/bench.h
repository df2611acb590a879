// A simulated bench behind the library, empty at first.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "Pulsekit3Simulator.h"
#include "Pulsekit3_control.h"

// Names of its own: other tests have other hosts.
namespace pulsekit::test::bench {

inline std::string description(QTX_Handle *handle, int32_t code = 0) {
  char text[4096];
  QTX_GetErrorDescription(handle, text, sizeof text, code);
  return text;
}

// Owns a library handle; closes and frees it.
class Library {
 public:
  Library() { QTX_InitHandle(&handle_); }
  ~Library() {
    QTX_FrameLoggingStop(handle_);
    QTX_FreeHandle(&handle_);
  }
  Library(const Library &) = delete;
  Library &operator=(const Library &) = delete;
  QTX_Handle *get() const { return handle_; }
  operator QTX_Handle *() const { return handle_; }  // NOLINT: stands for the handle in calls
  QTX_Handle *operator->() const { return handle_; }

 private:
  QTX_Handle *handle_ = nullptr;
};

class Bench : public testing::Test {
 protected:
  Bench() {
    QTXSim_Reset();
    QTXSim_SetRecording(0);
    FTx232H_SetD2XX(QTXSim_D2XX());
  }
  ~Bench() override { FTx232H_SetD2XX(nullptr); }

  // Before the nth write from now the handle's call is cancelled, where writes_left is set to n.
  static void cancelAtWrites(QTX_Handle *handle) {
    writes_left = 0;
    to_cancel = handle;
    FTx232H_D2XX table = *QTXSim_D2XX();
    table.Write = [](FT_HANDLE device, const void *buffer, uint32_t count, uint32_t *written) {
      if (writes_left > 0 && --writes_left == 0) QTX_Cancel(to_cancel);
      return QTXSim_D2XX()->Write(device, buffer, count, written);
    };
    FTx232H_SetD2XX(&table);
  }
  static inline uint32_t writes_left = 0;
  static inline QTX_Handle *to_cancel = nullptr;

  static int32_t addRadar(const char *serial = "FT0001AB", const char *board = "QTX-K245",
                          const char *chip = "QTX3701") {
    return QTXSim_AddRadar(serial, "Radar", QTXSIM_FT232H, board, chip);
  }

  static std::string device(const std::string &serial = "FT0001AB") { return "FTx232H!Serial No: (" + serial + ")"; }

  static std::string connection(const std::string &module = "QTX-K245", const std::string &chip = "QTX3701") {
    return device() + "!" + module + "!" + chip;
  }
};

// Closes its radar before the handle goes.
class Radar : public Library {
 public:
  Radar() = default;
  ~Radar() { QTX_CloseRadar(get()); }
};

inline std::vector<std::string> split(const std::string &text) {
  std::vector<std::string> names;
  std::stringstream stream(text);
  for (std::string name; std::getline(stream, name, ',');) {
    if (!name.empty()) names.push_back(name);
  }
  return names;
}

inline std::vector<std::string> variables(QTX_Handle *handle) {
  std::vector<char> text(20000);
  EXPECT_EQ(QTX_ListVariables(handle, text.data(), static_cast<int32_t>(text.size())), 0);
  return split(text.data());
}

struct Setting {
  uint64_t value;
  bool automatic;
  bool operator==(const Setting &) const = default;
};

inline void PrintTo(const Setting &setting, std::ostream *stream) {
  *stream << setting.value << (setting.automatic ? " automatic" : "");
}

// Everything that a host may write and that is visible now.
inline std::map<std::string, Setting> settings(QTX_Handle *handle) {
  std::map<std::string, Setting> all;
  for (const std::string &name : variables(handle)) {
    uint64_t min = 0, max = 0, value = 0;
    uint32_t writable = 0, automatic = 0;
    if (QTX_VarGetIntProperties_ByName(handle, name.c_str(), &min, &max, &writable, &automatic) != 0) continue;
    if (!writable) continue;
    EXPECT_EQ(QTX_VarGetValue_ByName(handle, name.c_str(), &value), 0) << name;
    all[name] = {value, automatic != 0};
  }
  return all;
}

}  // namespace pulsekit::test::bench

namespace pulsekit::test {
using namespace bench;  // NOLINT: for the tests that include this
}
