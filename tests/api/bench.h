// A host that looks at all settings, and cancels its own calls.
#pragma once

#include <map>
#include <sstream>

#include "Pulsekit3_control.h"
#include "host.h"

namespace pulsekit::test {

// A handle besides the first.
struct Other {
  Other() { QTX_InitHandle(&handle); }
  ~Other() { QTX_CloseRadar(handle), QTX_FreeHandle(&handle); }
  Other(const Other &) = delete;
  Other &operator=(const Other &) = delete;
  operator QTX_Handle *() const { return handle; }  // NOLINT: stands for the handle in calls
  QTX_Handle *handle = nullptr;
};

class Bench : public Host {
 protected:
  Bench() { add(); }
  // "Iterations=3 SampleDelay=auto"; the code of the first that is refused.
  static int32_t set(QTX_Handle *on, const std::string &assignments) {
    std::stringstream stream(assignments);
    int32_t code = 0;
    for (std::string each; code == 0 && stream >> each;) {
      const size_t at = each.find('=');
      code = QTX_VarSetValue_ByString(on, each.substr(0, at).c_str(), each.substr(at + 1).c_str());
    }
    return code;
  }
  int32_t set(const std::string &assignments) { return set(handle, assignments); }

  // Before the nth write from now the handle's call is cancelled, where writes_left is set to n.
  static void cancelAtWrites(QTX_Handle *of) {
    writes_left = 0;
    to_cancel = of;
    FTx232H_D2XX table = *QTXSim_D2XX();
    table.Write = [](FT_HANDLE device, const void *buffer, uint32_t count, uint32_t *written) {
      if (writes_left > 0 && --writes_left == 0) QTX_Cancel(to_cancel);
      return QTXSim_D2XX()->Write(device, buffer, count, written);
    };
    FTx232H_SetD2XX(&table);
  }
  static inline uint32_t writes_left = 0;
  static inline QTX_Handle *to_cancel = nullptr;
};

inline std::vector<std::string> variables(QTX_Handle *handle) {
  std::vector<char> text(20000);
  EXPECT_EQ(QTX_ListVariables(handle, text.data(), static_cast<int32_t>(text.size())), 0);
  std::vector<std::string> names;
  std::stringstream stream(text.data());
  for (std::string name; std::getline(stream, name, ',');) names.push_back(name);
  return names;
}

struct Setting {
  uint64_t value;
  bool automatic;
  bool operator==(const Setting &) const = default;
};

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

}  // namespace pulsekit::test
