// Settings and board information in flash, on a module whose flash is an array.
#include "fakes.h"

namespace pulsekit::test {
namespace {

struct Flash {
  std::vector<uint8_t> bytes = std::vector<uint8_t>(0x10000, 0xff);
  int32_t read_code = 0, write_code = 0, info_code = 0;
  uint32_t written_at = 0, written = 0;
  int32_t info_length = 0;
} flash;

int32_t readFlash(ModuleHandle *, uint32_t address, uint8_t *buffer, int32_t length) {
  if (flash.read_code) {
    std::memset(buffer, 0, static_cast<size_t>(length));
    return flash.read_code;
  }
  std::memcpy(buffer, flash.bytes.data() + address, static_cast<size_t>(length));
  return 0;
}

int32_t writeFlash(ModuleHandle *, uint32_t address, const uint8_t *buffer, uint32_t length) {
  if (flash.write_code) return flash.write_code;
  flash.written_at = address;
  flash.written = length;
  std::memcpy(flash.bytes.data() + address, buffer, length);
  return 0;
}

class SettingsFlash : public testing::Test {
 protected:
  SettingsFlash() {
    flash = {};
    radar.module.ReadFlashMemory = readFlash;
    radar.module.WriteFlashMemory = writeFlash;
    radar.module.ReadBoardInfo = [](ModuleHandle *, uint8_t *buffer, int32_t length) {
      flash.info_length = length;
      buffer[0] = 'Q';
      return flash.info_code;
    };
    radar.module.ProgramBoardInfo = [](ModuleHandle *, const uint8_t *, int32_t length) {
      flash.info_length = length;
      return flash.info_code;
    };
    radar.module_set.add("AddressOfVariableStorage", VAR_FLAG_INT, 0xf000);
    radar.module_set.add("Power", VAR_FLAG_ENUM, 1, {"PowerOff", "PowerOn"});
    radar.chip_set.add("Count", VAR_FLAG_INT, 40);
    radar.chip_set.add("Gain", VAR_FLAG_FLOAT, bits(1.5));
    radar.chip_set.add("Follows", VAR_FLAG_INT | VAR_FLAG_AUTO, 12);
    radar.chip_set.add("Fixed", VAR_FLAG_INT | VAR_FLAG_READ_ONLY, 9);
  }

  uint64_t word(size_t index) {
    uint64_t value = 0;
    for (size_t i = 8; i-- > 0;) value = value << 8 | flash.bytes[0xf000 + index * 8 + i];
    return value;
  }

  void setWord(size_t index, uint64_t value) {
    for (size_t i = 0; i < 8; ++i) flash.bytes[0xf000 + index * 8 + i] = static_cast<uint8_t>(value >> (8 * i));
  }

  FakeRadar radar;
  QTX_Handle *handle = radar.library;
};

TEST_F(SettingsFlash, TheRecordHoldsVersionsValuesAndAnEndMark) {
  radar.module_set.set.version = "3.2.2";
  ASSERT_EQ(QTX_VarsSaveToFlash(handle), 0);
  EXPECT_EQ(flash.written_at, 0xf000u);
  EXPECT_EQ(flash.written, 9u * 8);
  const uint64_t expected[] = {0x020203,   0x010203, 0xf000,  radar.module_set["Power"].items[1], 40, bits(1.5),
                               0x7fffffff, 9,        0x123456};
  for (size_t i = 0; i < std::size(expected); ++i) EXPECT_EQ(word(i), expected[i]) << i;
}

TEST_F(SettingsFlash, LoadingBringsWritableSettingsBack) {
  ASSERT_EQ(QTX_VarsSaveToFlash(handle), 0);
  radar.module_set["Power"].value = radar.module_set["Power"].items[0];
  radar.chip_set["Count"].value = 1;
  radar.chip_set["Gain"].value = 0;
  radar.chip_set["Follows"].flags &= ~uint32_t{VAR_FLAG_AUTO};
  radar.chip_set["Fixed"].value = 10;
  EXPECT_EQ(QTX_VarsLoadFromFlash(handle), 0);
  EXPECT_EQ(radar.module_set["Power"].value, radar.module_set["Power"].items[1]);
  EXPECT_EQ(radar.chip_set["Count"].value, 40u);
  EXPECT_EQ(radar.chip_set["Gain"].value, bits(1.5));
  EXPECT_NE(radar.chip_set["Follows"].flags & VAR_FLAG_AUTO, 0u);
  EXPECT_EQ(radar.chip_set["Fixed"].value, 10u);
}

TEST_F(SettingsFlash, WhatIsNoRecordOfTheseDescriptionsIsRefused) {
  EXPECT_EQ(QTX_VarsLoadFromFlash(handle), 5);
  EXPECT_EQ(description(handle),
            "ERROR 0x5: No valid setup found - Values in Flash are invalid\r\n"
            "   at: QTX_VarsLoadFromFlash in src/Pulsekit3:1787");

  ASSERT_EQ(QTX_VarsSaveToFlash(handle), 0);
  radar.module_set.set.version = "3.2.2";
  EXPECT_EQ(QTX_VarsLoadFromFlash(handle), 5);
  EXPECT_EQ(description(handle),
            "ERROR 0x5: No valid setup found - Values in Flash are for Radar Module variables version 3.2.1, current "
            "Radar Module variables version is 3.2.2\r\n   at: QTX_VarsLoadFromFlash in src/Pulsekit3:1813");
  radar.module_set.set.version = "3.2.1";
  setWord(1, 0x040302);
  EXPECT_EQ(QTX_VarsLoadFromFlash(handle), 5);
  EXPECT_EQ(description(handle),
            "ERROR 0x5: No valid setup found - Values in Flash are for Radar IC variables version 2.3.4, current "
            "Radar IC variables version is 3.2.1\r\n   at: QTX_VarsLoadFromFlash in src/Pulsekit3:1840");
  setWord(1, 0x010203);
  radar.chip_set.add("New", VAR_FLAG_INT, 0);
  EXPECT_EQ(QTX_VarsLoadFromFlash(handle), 5);
  EXPECT_EQ(description(handle),
            "ERROR 0x5: No valid setup found - Values in Flash are invalid\r\n"
            "   at: QTX_VarsLoadFromFlash in src/Pulsekit3:1852");
  EXPECT_EQ(radar.chip_set["Count"].value, 40u);
}

TEST_F(SettingsFlash, AFailedReadNeverLooksLikeARecord) {
  ASSERT_EQ(QTX_VarsSaveToFlash(handle), 0);
  flash.read_code = 264;
  EXPECT_EQ(QTX_VarsLoadFromFlash(handle), 5);
  EXPECT_NE(description(handle).find("src/Pulsekit3:1787"), std::string::npos);
}

TEST_F(SettingsFlash, WithoutAChipItsVersionIsNotLookedAt) {
  handle->chip = nullptr;
  ASSERT_EQ(QTX_VarsSaveToFlash(handle), 0);
  EXPECT_EQ(flash.written, 5u * 8);
  EXPECT_EQ(word(1), 0u);
  setWord(1, 0x999999);
  EXPECT_EQ(QTX_VarsLoadFromFlash(handle), 0);
}

TEST_F(SettingsFlash, ARefusedValueEndsTheLoad) {
  ASSERT_EQ(QTX_VarsSaveToFlash(handle), 0);
  setWord(4, 1000001);
  EXPECT_EQ(QTX_VarsLoadFromFlash(handle), 1286);
  EXPECT_NE(description(handle).find("QTX_VarsLoadFromFlash in src/Pulsekit3:1899"), std::string::npos);
  setWord(3, 999);
  EXPECT_EQ(QTX_VarsLoadFromFlash(handle), 1286);
  EXPECT_NE(description(handle).find("QTX_VarsLoadFromFlash in src/Pulsekit3:1875"), std::string::npos);
}

TEST_F(SettingsFlash, FailuresOfTheFlashCarryTheirTracePoints) {
  flash.write_code = 641;
  EXPECT_EQ(QTX_VarsSaveToFlash(handle), 641);
  EXPECT_NE(description(handle).find("QTX_ModuleWriteFlashMemory in src/Pulsekit3:1599\r\n"
                                     "   from: QTX_VarsSaveToFlash in src/Pulsekit3:1726"),
            std::string::npos);
  handle->module = nullptr;
  EXPECT_EQ(QTX_VarsSaveToFlash(handle), 1283);
  EXPECT_NE(description(handle).find("QTX_VarsSaveToFlash in src/Pulsekit3:1715"), std::string::npos);
  EXPECT_EQ(QTX_VarsLoadFromFlash(handle), 1283);
  EXPECT_NE(description(handle).find("QTX_VarsLoadFromFlash in src/Pulsekit3:1769"), std::string::npos);
}

TEST_F(SettingsFlash, BoardInformationComesFromTheOpenModule) {
  uint8_t info[4] = {};
  EXPECT_EQ(QTX_ModuleReadBoardInfo(handle, info, 4), 0);
  EXPECT_EQ(info[0], 'Q');
  EXPECT_EQ(QTX_ModuleProgramBoardInfo(handle, info, 3), 0);
  EXPECT_EQ(flash.info_length, 3);
  flash.info_code = 264;
  EXPECT_EQ(QTX_ModuleReadBoardInfo(handle, info, 4), 264);
  EXPECT_NE(description(handle).find("QTX_ModuleReadBoardInfo in src/Pulsekit3:1496"), std::string::npos);
  EXPECT_EQ(QTX_ModuleProgramBoardInfo(handle, info, 4), 264);
  EXPECT_NE(description(handle).find("QTX_ModuleProgramBoardInfo in src/Pulsekit3:1573"), std::string::npos);
}

}  // namespace
}  // namespace pulsekit::test
