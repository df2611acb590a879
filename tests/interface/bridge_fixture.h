// A library handle with a bridge handle on scripted D2XX functions, and what its failures are compared with.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "interface/FTx232H/FTx232H_private.h"
#include "module/module.h"
#include "scripted_d2xx.h"
#include "support/QTX_Handle.h"

constexpr char kDevice[] = "FTx232H!Serial No: (FT0001AB)";

using Names = std::vector<std::string>;
using Bytes = std::vector<uint8_t>;

// The functions of a trace from the innermost outward; a line of another form, or from another source, in full.
inline Names functionsOf(const QTX_StackTrace *record) {
  static const std::regex form(R"(   (at|from): (\w+) in src/interface/(FTx232H/FTx232H|interface):[1-9]\d*)");
  Names functions;
  std::string rest = record->trace;
  while (!rest.empty()) {
    const size_t end = rest.find("\r\n");
    const std::string line = rest.substr(0, end);
    rest.erase(0, end == std::string::npos ? end : end + 2);
    std::smatch match;
    const bool good = std::regex_match(line, match, form) && (match[1] == "at") == functions.empty();
    functions.push_back(good ? match[2].str() : line);
  }
  return functions;
}

inline std::string contentOf(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream content;
  content << file.rdbuf();
  return content.str();
}

class BridgeTest : public ::testing::Test {
 protected:
  BridgeTest() {
    EXPECT_EQ(QTX_InitHandle(&radar), 0);
    open("FTx232H");
  }
  ~BridgeTest() override {
    EXPECT_EQ(interfaceFreeHandle(&radar->interface_handle, nullptr), 0);
    EXPECT_EQ(d2xx.open_handles, 0);
    QTX_FreeHandle(&radar);
  }

  void open(const char *name) {
    interfaceFreeHandle(&radar->interface_handle, nullptr);
    ASSERT_EQ(interfaceInitHandle(&radar->interface_handle, &radar->error, radar, name, &radar->open), 0);
    bridge = radar->interface_handle;
    ASSERT_EQ(interfaceInitInterface(bridge), 0);
  }

  // Connects and forgets the calls that it took.
  void connect() {
    ASSERT_EQ(interfaceConnect(bridge, kDevice), 0);
    d2xx.forget();
  }

  void expectFailure(int32_t got, int32_t code, const std::string &message, const Names &trace) {
    expectFailure(got, code, code, message, trace);
  }

  // A function on the way may return another code than the record keeps.
  void expectFailure(int32_t got, int32_t code, int32_t recorded, const std::string &message, const Names &trace) {
    EXPECT_EQ(got, code);
    EXPECT_EQ(radar->error->code, recorded);
    EXPECT_EQ(radar->error->message, message);
    EXPECT_EQ(functionsOf(radar->error), trace);
  }

  FTx232H_Connection &connection() { return *connectionOf(bridge); }

  ScriptedD2xx d2xx;
  QTX_Handle *radar = nullptr;
  InterfaceHandle *bridge = nullptr;
};
