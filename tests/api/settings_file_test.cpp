// The settings file: its text, what loading makes of any text, and what becomes of files when something fails.
#include <locale.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <random>
#include <regex>

#include "fakes.h"
#include "files.h"

namespace pulsekit::test {
namespace {

class SettingsFile : public testing::Test {
 protected:
  SettingsFile() {
    radar.module_set.add("Power", VAR_FLAG_ENUM, 1, {"PowerOff", "PowerOn"});
    radar.module_set.add("Storage", VAR_FLAG_INT | VAR_FLAG_READ_ONLY, 61440);
    radar.chip_set.add("Count", VAR_FLAG_INT, 40);
    radar.chip_set.add("Large", VAR_FLAG_INT, 18446744073709551615u).max = ~uint64_t{0};
    radar.chip_set.add("Gain", VAR_FLAG_FLOAT, bits(1.5e9)).max = bits(1e300);
    radar.chip_set.add("Follows", VAR_FLAG_INT | VAR_FLAG_AUTO, 512);
    radar.chip_set.add("Mode", VAR_FLAG_ENUM, 2, {"low", "middle", "high"});
    radar.chip_set.add("Live", VAR_FLAG_FLOAT | VAR_FLAG_LIVE_READ, bits(-0.25));
    radar.bridge_set.add("Clock", VAR_FLAG_INT, 4);
  }

  int32_t load(const std::string &text) {
    write(path, text);
    return QTX_VarsLoadFromFile(handle, path.c_str());
  }

  FakeRadar radar;
  QTX_Handle *handle = radar.library;
  Folder folder;
  std::string path = folder.file("settings.txt");
};

const std::string kSection = "[Pulsekit variables]\n";

TEST_F(SettingsFile, HasALineForEverySetting) {
  ASSERT_EQ(QTX_VarsSaveToFile(handle, path.c_str()), 0);
  const std::string text = contents(path);
  const size_t line_end = text.find('\n');
  EXPECT_TRUE(std::regex_match(text.substr(0, line_end),
                               std::regex("; Generated \\w{3} \\w{3} [ \\d]\\d \\d\\d:\\d\\d:\\d\\d \\d{4}")))
      << text;
  EXPECT_EQ(text.substr(line_end + 1),
            "; Pulsekit version: 3.3.0~RC1\n"
            "; ModuleID=QTX-K235\n"
            "; ChipID=0x0309\n"
            "[Pulsekit variables]\n"
            "; Module variables\n"
            "Power=1\n"
            "Storage=<read_only>_61440\n"
            "; Chip variables\n"
            "Count=40\n"
            "Large=18446744073709551615\n"
            "Gain=1.500000e+09\n"
            "Follows=<auto>_512\n"
            "Mode=2\n"
            "Live=<read_only>_-2.500000e-01\n");
}

TEST_F(SettingsFile, LeavesOutTheLayersThatAreMissing) {
  handle->chip = nullptr;
  ASSERT_EQ(QTX_VarsSaveToFile(handle, path.c_str()), 0);
  EXPECT_EQ(contents(path).find("Chip"), std::string::npos);
  handle->module = nullptr;
  ASSERT_EQ(QTX_VarsSaveToFile(handle, path.c_str()), 0);
  const std::string text = contents(path);
  EXPECT_EQ(text.substr(text.find('\n') + 1), "; Pulsekit version: 3.3.0~RC1\n[Pulsekit variables]\n");
  handle->chip = &radar.chip;
  ASSERT_EQ(QTX_VarsSaveToFile(handle, path.c_str()), 0);
  EXPECT_NE(contents(path).find("; ChipID=0x0309\n[Pulsekit variables]\n; Chip variables\nCount=40\n"),
            std::string::npos);
}

TEST_F(SettingsFile, LoadingWhatWasSavedBringsEverySettingBack) {
  ASSERT_EQ(QTX_VarsSaveToFile(handle, path.c_str()), 0);
  radar.module_set["Power"].value = radar.module_set["Power"].items[0];
  radar.chip_set["Count"].value = 1;
  radar.chip_set["Large"].value = 1;
  radar.chip_set["Gain"].value = 0;
  radar.chip_set["Follows"].flags &= ~uint32_t{VAR_FLAG_AUTO};
  radar.chip_set["Mode"].value = radar.chip_set["Mode"].items[0];
  EXPECT_EQ(QTX_VarsLoadFromFile(handle, path.c_str()), 0);
  EXPECT_EQ(radar.module_set["Power"].value, radar.module_set["Power"].items[1]);
  EXPECT_EQ(radar.chip_set["Count"].value, 40u);
  EXPECT_EQ(radar.chip_set["Large"].value, 18446744073709551615u);
  EXPECT_EQ(radar.chip_set["Gain"].value, bits(1.5e9));
  EXPECT_EQ(radar.chip_set["Follows"].flags & VAR_FLAG_AUTO, uint32_t{VAR_FLAG_AUTO});
  EXPECT_EQ(radar.chip_set["Follows"].value, 7u);
  EXPECT_EQ(radar.chip_set["Mode"].value, radar.chip_set["Mode"].items[2]);
  EXPECT_EQ(radar.chip_set["Live"].value, bits(-0.25));
}

TEST_F(SettingsFile, AnItemThatIsNoneEndsTheSaveAndKeepsTheOldFile) {
  write(path, "old");
  radar.chip_set["Mode"].value = 999;
  EXPECT_EQ(QTX_VarsSaveToFile(handle, path.c_str()), 1);
  EXPECT_NE(description(handle).find("QTX_VarsSaveToFile in src/Pulsekit3:2027"), std::string::npos);
  radar.module_set["Power"].value = 999;
  const std::string second_name = folder.file("second");
  std::filesystem::create_hard_link(path, second_name);  // so that the file is written in place
  EXPECT_EQ(QTX_VarsSaveToFile(handle, second_name.c_str()), 1);
  EXPECT_NE(description(handle).find("QTX_VarsSaveToFile in src/Pulsekit3:1984"), std::string::npos);
  EXPECT_EQ(contents(path), "old");
  EXPECT_EQ(folder.fileCount(), 2u);
}

struct LoadCase {
  const char *what;
  std::string text;
  int32_t code;
  uint64_t count;  // "Count" afterwards, 40 before
};

TEST_F(SettingsFile, LoadingTakesWhatItsRulesSay) {
  const std::string long_line(2000, 'x');
  const LoadCase cases[] = {
      {"no section", "Count=1\n", 0, 40},
      {"section", kSection + "Count=1\n", 0, 1},
      {"section header with more on its line", "[Pulsekit variables] of mine\nCount=1\n", 0, 1},
      {"other section", "[Pulsekit variable]\nCount=1\n", 0, 40},
      {"left and entered again", kSection + "[Other]\nCount=1\n" + kSection + "Count=2\n[Other]\nCount=3\n", 0, 2},
      {"comment", kSection + "; Count=1\n", 0, 40},
      {"blank before a comment", kSection + " ;Count=1\n", 1, 40},
      {"later line wins", kSection + "Count=1\nCount=2\n", 0, 2},
      {"carriage return", kSection + "Count=3\r\n", 0, 3},
      {"carriage return inside", kSection + "Count=3\r5\n", 0, 3},
      {"no line end", kSection + "Count=4", 0, 4},
      {"ends inside a name", kSection + "Count=4\nCou", 0, 4},
      {"ends after the name", kSection + "Count=4\nCount=", 0, 0},
      {"read only mark anywhere", kSection + "Count=5<read_only>\n", 0, 40},
      {"automatic mark", kSection + "Count=<auto>_123\n", 0, 7},
      {"automatic text", kSection + "Count=auto\n", 0, 7},
      {"blank before the equals sign", kSection + "Count =1\n", 1, 40},
      {"several equals signs", kSection + "Count=6=7\n", 0, 6},
      {"no name", kSection + "=1\n", 1, 40},
      {"no number", kSection + "Count=many\n", 0, 0},
      {"too large", kSection + "Count=1000001\n", 1286, 40},
      {"negative", kSection + "Count=-1\n", 1286, 40},
      {"read only variable", kSection + "Storage=1\nCount=1\n", 1285, 40},
      {"settings before a refused one stay", kSection + "Count=8\nMode=3\nCount=9\n", 1286, 8},
      {"item text is index 0", kSection + "Mode=high\nCount=1\n", 0, 1},
      {"line longer than the reader's", kSection + "Count=1;" + long_line + "\nCount=2\n", 0, 2},
      {"binary zero", kSection + std::string("Count=1\0\nCount=2\n", 17), 0, 2},
      {"interface's setting", kSection + "Clock=5\nCount=1\n", 0, 1},
  };
  for (const LoadCase &c : cases) {
    radar.chip_set["Count"].value = 40;
    EXPECT_EQ(load(c.text), c.code) << c.what;
    EXPECT_EQ(radar.chip_set["Count"].value, c.count) << c.what;
  }
}

TEST_F(SettingsFile, UnknownNamesAreCountedAndTheRestIsApplied) {
  EXPECT_EQ(load(kSection + "Unknown=1\nCount=1\nOther=2\nGain=2.5e+003\n"), 1);
  EXPECT_EQ(description(handle),
            "ERROR 0x1: Error - Skipped 2 unknown variables\r\n   at: QTX_VarsLoadFromFile in src/Pulsekit3:2182");
  EXPECT_EQ(radar.chip_set["Count"].value, 1u);
  EXPECT_EQ(radar.chip_set["Gain"].value, bits(2500));
}

TEST_F(SettingsFile, AFailedSettingCarriesItsTracePoint) {
  const std::pair<const char *, int> cases[] = {{"Mode=3\n", 2147}, {"Count=-1\n", 2156}, {"Storage=<auto>_1\n", 2129}};
  for (const auto &[line, point] : cases) {
    EXPECT_NE(load(kSection + line), 0) << line;
    EXPECT_NE(description(handle).find("QTX_VarsLoadFromFile in src/Pulsekit3:" + std::to_string(point)),
              std::string::npos)
        << line << description(handle);
  }
}

TEST_F(SettingsFile, NumbersReadTheSameInALocaleWithADecimalComma) {
  const std::string build = "localedef -i de_DE -f ISO-8859-1 " + folder.file("de_DE") + " >/dev/null 2>&1";
  if (std::system(build.c_str()) != 0) GTEST_SKIP() << "no locale can be built here";
  setenv("LOCPATH", folder.file("").c_str(), 1);
  ASSERT_NE(setlocale(LC_ALL, "de_DE"), nullptr);
  const std::string decimal_point = localeconv()->decimal_point;
  const int32_t save_code = QTX_VarsSaveToFile(handle, path.c_str());
  const std::string text = contents(path);
  const int32_t load_code = load(kSection + "Gain=2.5\n");
  setlocale(LC_ALL, "C");
  unsetenv("LOCPATH");
  ASSERT_EQ(decimal_point, ",");
  EXPECT_EQ(save_code, 0);
  EXPECT_NE(text.find("Gain=1.500000e+09\n"), std::string::npos);
  EXPECT_EQ(load_code, 0);
  EXPECT_EQ(radar.chip_set["Gain"].value, bits(2.5));
}

TEST_F(SettingsFile, PathsThatCannotBeOpenedAreCode6) {
  EXPECT_EQ(QTX_VarsLoadFromFile(handle, path.c_str()), 6);
  EXPECT_EQ(description(handle),
            "ERROR 0x6: Could not open file - Could not open file for read\r\n"
            "   at: QTX_VarsLoadFromFile in src/Pulsekit3:2058");
  EXPECT_EQ(QTX_VarsLoadFromFile(handle, folder.file("").c_str()), 6);
  EXPECT_NE(description(handle).find("Error reading file\r\n   at: QTX_VarsLoadFromFile in src/Pulsekit3:2171"),
            std::string::npos);
  const std::string longest(300, 'n');
  for (const std::string &name : {std::string(), folder.file(""), folder.file("missing/settings.txt"),
                                  folder.file("new/"), folder.file(longest)}) {
    EXPECT_EQ(QTX_VarsSaveToFile(handle, name.c_str()), 6) << name;
    EXPECT_EQ(description(handle),
              "ERROR 0x6: Could not open file - Could not open file for write\r\n"
              "   at: QTX_VarsSaveToFile in src/Pulsekit3:1928");
  }
}

// A user whom permissions bind: the superuser may write everywhere.
class OrdinaryUser {
 public:
  OrdinaryUser() {
    if (before_ == 0) change(65534);
  }
  ~OrdinaryUser() {
    if (before_ == 0) change(before_);
  }

 private:
  static void change(uid_t user) { EXPECT_EQ(seteuid(user), 0); }
  const uid_t before_ = geteuid();
};

TEST_F(SettingsFile, AFileThatMayNotBeWrittenStaysAsItWas) {
  write(path, "old");
  chmod(folder.file("").c_str(), 0777);
  chmod(path.c_str(), 0444);
  {
    const OrdinaryUser user;
    EXPECT_EQ(QTX_VarsSaveToFile(handle, path.c_str()), 6);
  }
  EXPECT_EQ(contents(path), "old");
  EXPECT_EQ(folder.fileCount(), 1u);
}

TEST_F(SettingsFile, AFolderThatTakesNoNewFileStillTakesTheText) {
  write(path, "old");
  chmod(path.c_str(), 0666);
  chmod(folder.file("").c_str(), 0555);
  {
    const OrdinaryUser user;
    EXPECT_EQ(QTX_VarsSaveToFile(handle, path.c_str()), 0);
    EXPECT_EQ(QTX_VarsSaveToFile(handle, folder.file("new").c_str()), 6);
  }
  chmod(folder.file("").c_str(), 0755);
  EXPECT_NE(contents(path).find("Count=40\n"), std::string::npos);
}

TEST_F(SettingsFile, ANameThatLeavesNoRoomForAnotherBesideItIsWrittenInPlace) {
  const std::string longest = folder.file(std::string(250, 'n'));
  EXPECT_EQ(QTX_VarsSaveToFile(handle, longest.c_str()), 0);
  EXPECT_NE(contents(longest).find("Count=40\n"), std::string::npos);
  EXPECT_EQ(folder.fileCount(), 1u);
}

TEST_F(SettingsFile, WhatAnEarlierSaveLeftIsRemovedAndNothingElse) {
  for (const char *name : {".new-17-0", ".new-0-99", ".new-17-0.txt", ".new-version-2"}) write(path + name, "left");
  ASSERT_EQ(QTX_VarsSaveToFile(handle, path.c_str()), 0);
  EXPECT_EQ(folder.fileCount(), 3u);
  EXPECT_EQ(contents(path + ".new-17-0.txt") + contents(path + ".new-version-2"), "leftleft");
}

TEST_F(SettingsFile, AFullDiskKeepsTheOldFile) {
  write(path, "old");
  // A limit on the size of files fails the write half-way, as a full disk would.
  struct rlimit before {};
  getrlimit(RLIMIT_FSIZE, &before);
  signal(SIGXFSZ, SIG_IGN);
  const struct rlimit tight { 100, before.rlim_max };
  setrlimit(RLIMIT_FSIZE, &tight);
  const int32_t code = QTX_VarsSaveToFile(handle, path.c_str());
  setrlimit(RLIMIT_FSIZE, &before);
  signal(SIGXFSZ, SIG_DFL);
  EXPECT_EQ(code, 6);
  EXPECT_NE(description(handle).find("ERROR 0x6: Could not open file - Error writing file"), std::string::npos);
  EXPECT_EQ(contents(path), "old");
  EXPECT_EQ(folder.fileCount(), 1u);
}

TEST_F(SettingsFile, AFullDeviceIsTold) {
  EXPECT_EQ(QTX_VarsSaveToFile(handle, "/dev/full"), 6);
  EXPECT_TRUE(std::filesystem::is_character_file("/dev/full"));
  EXPECT_EQ(QTX_VarsSaveToFile(handle, "/dev/null"), 0);
  EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
}

TEST_F(SettingsFile, ReplacingAFileKeepsItsModeAndLinksKeepPointing) {
  write(path, "old");
  chmod(path.c_str(), 0640);
  const std::string link = folder.file("link");
  std::filesystem::create_symlink(path, link);
  ASSERT_EQ(QTX_VarsSaveToFile(handle, path.c_str()), 0);
  struct stat status {};
  stat(path.c_str(), &status);
  EXPECT_EQ(status.st_mode & 07777, 0640u);

  write(path, "old");
  ASSERT_EQ(QTX_VarsSaveToFile(handle, link.c_str()), 0);
  EXPECT_TRUE(std::filesystem::is_symlink(link));
  EXPECT_NE(contents(path).find("Count=40\n"), std::string::npos);
  EXPECT_EQ(folder.fileCount(), 2u);

  const std::string second_name = folder.file("second");
  std::filesystem::create_hard_link(path, second_name);
  radar.chip_set["Count"].value = 41;
  ASSERT_EQ(QTX_VarsSaveToFile(handle, path.c_str()), 0);
  EXPECT_NE(contents(second_name).find("Count=41\n"), std::string::npos);
}

TEST_F(SettingsFile, TenMegabytesOfNoiseChangeNothing) {
  std::mt19937 random(1);
  std::string noise(10 << 20, '\0');
  for (char &character : noise) character = static_cast<char>(random());
  EXPECT_EQ(load(noise), 0);
  // Read as settings, noise has only unknown names.
  EXPECT_EQ(load(kSection + noise.substr(0, 1 << 20)), 1);
  EXPECT_NE(description(handle).find("Skipped "), std::string::npos);
  EXPECT_EQ(radar.chip_set["Count"].value, 40u);
  EXPECT_EQ(load(kSection + "Count=1\n"), 0);
}

TEST_F(SettingsFile, ResettingLeavesWhatIsNotWritableAndTheInterface) {
  EXPECT_EQ(QTX_VarsResetAllToDefault(handle), 0);
  EXPECT_EQ(radar.module_set["Power"].value, radar.module_set["Power"].items[0]);
  EXPECT_EQ(radar.module_set["Storage"].value, 61440u);
  EXPECT_EQ(radar.chip_set["Count"].value, 7u);
  EXPECT_EQ(radar.chip_set["Live"].value, bits(-0.25));
  EXPECT_EQ(radar.bridge_set["Clock"].value, 4u);
  handle->chip = nullptr;
  EXPECT_EQ(QTX_VarsResetAllToDefault(handle), 770);
  handle->module = nullptr;
  EXPECT_EQ(QTX_VarsResetAllToDefault(handle), 514);
}

TEST_F(SettingsFile, AFailedResetCarriesItsTracePoint) {
  FakeSet::write_code = 1281;
  EXPECT_EQ(QTX_VarsResetAllToDefault(handle), 1281);
  EXPECT_NE(description(handle).find("QTX_VarsResetAllToDefault in src/Pulsekit3:2204"), std::string::npos);
  EXPECT_EQ(QTX_VarsResetAllToDefault(handle), 1281);  // the module has its automatic values by now
  EXPECT_NE(description(handle).find("QTX_VarsResetAllToDefault in src/Pulsekit3:2219"), std::string::npos);
}

}  // namespace
}  // namespace pulsekit::test
