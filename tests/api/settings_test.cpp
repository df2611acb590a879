// Settings in files and in flash: what is stored, what loading makes of anything, and what becomes of files when
// something fails.
#include <locale.h>

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include <csignal>
#include <random>
#include <regex>

#include "host.h"

namespace pulsekit::test {
namespace {

const std::string kSection = "[Pulsekit variables]\n";

class Settings : public Radar {
 protected:
  int32_t save(const std::string &to) { return QTX_VarsSaveToFile(handle, to.c_str()); }
  int32_t save() { return save(path); }
  std::string load(const std::string &text) {
    write(path, text);
    const int32_t code = QTX_VarsLoadFromFile(handle, path.c_str());
    return std::to_string(code) + values({"Iterations"});
  }
  std::string saved() const {
    // Windows has a third digit.
    return std::regex_replace(std::regex_replace(textOf(path), std::regex("(e[+-])0(\\d\\d)\n"), "$1$2\n"),
                              std::regex("^; Generated \\w{3} \\w{3} [ \\d]\\d \\d\\d:\\d\\d:\\d\\d \\d{4}\n"),
                              "date\n");
  }
  // Every setting away from its automatic value, as far as it can be set alone.
  void change() {
    for (const char *name : {"PulsesPerStep", "Iterations", "DACMin", "PipeLining", "MCLK_RFBoardSelect"})
      ASSERT_EQ(QTX_VarSetIntValue_ByName(handle, name, 1), 0) << name;
    ASSERT_EQ(QTX_VarSetFloatValue_ByName(handle, "SampleDelay", 2.5e-9), 0);
    ASSERT_EQ(QTX_VarSetValue_ByString(handle, "SPDFT", "9223372036854775807"), 0);
  }
  uint64_t flashWord(uint32_t index) {
    uint64_t number = 0;
    QTXSim_FlashRead(0, 0xf000 + index * 8, reinterpret_cast<uint8_t *>(&number), 8);
    return number;
  }
  void setFlashWord(uint32_t index, uint64_t number) {
    QTXSim_FlashWrite(0, 0xf000 + index * 8, reinterpret_cast<const uint8_t *>(&number), 8);
  }

  Folder folder;
  std::string path = folder.file("settings.txt");
};

class Kinds : public Settings, public testing::WithParamInterface<std::pair<const char *, const char *>> {};

// The file of each kind of radar, and that it brings everything back.
TEST_P(Kinds, ComeBackFromFileAndFlash) {
  QTX_CloseRadar(handle);
  QTXSim_Reset();
  add("FT0001AB", GetParam().first, GetParam().second);
  const std::string layers = std::string("!") + GetParam().first + "!" + GetParam().second;
  ASSERT_EQ(open(layers), 0);
  ASSERT_EQ(save(), 0);
  if (std::string(GetParam().second) != "QTX3702") say(saved());
  if (std::string(GetParam().second) == "QTX3701") {
    change();
  } else {
    QTX_VarSetIntValue_ByName(handle, "Iterations", 3);
  }
  ASSERT_EQ(save(), 0);
  const std::string before = saved();
  ASSERT_EQ(QTX_VarsSaveToFlash(handle), 0);
  ASSERT_EQ(QTX_CloseRadar(handle), 0);
  QTXSim_PowerCycle(0);
  ASSERT_EQ(open(layers), 0);
  const std::string other = folder.file("other.txt");
  EXPECT_EQ(save(other), 0);
  EXPECT_NE(contents(other).substr(40), contents(path).substr(40));
  ASSERT_EQ(QTX_VarsLoadFromFlash(handle), 0) << description();
  EXPECT_EQ(save(), 0);
  EXPECT_EQ(saved(), before);
  write(other, contents(path));
  ASSERT_EQ(QTX_VarsResetAllToDefault(handle), 0);
  ASSERT_EQ(QTX_VarsLoadFromFile(handle, other.c_str()), 0) << description();
  EXPECT_EQ(save(), 0);
  EXPECT_EQ(saved(), before);
}

INSTANTIATE_TEST_SUITE_P(All, Kinds,
                         testing::Values(std::pair{"QTX-K245", "QTX3701"}, std::pair{"QTX-K265", "QTX3702"},
                                         std::pair{"QTX-K225E", "QTX3400"}, std::pair{"QTX-K235", "QTX3500"}),
                         [](const auto &kind) { return std::string(kind.param.second); });

TEST_F(Settings, LoadingTakesWhatItsRulesSay) {
  const std::string long_line(2000, 'x');
  DO(load("Iterations=1\n"), load(kSection + "Iterations=1\n"), load("[Pulsekit variables] of mine\nIterations=2\n"),
     load("[Pulsekit variable]\nIterations=3\n"),
     load(kSection + "[Other]\nIterations=3\n" + kSection + "Iterations=4\n[Other]\nIterations=5\n"),
     load(kSection + "; Iterations=1\n"), load(kSection + " ;Iterations=1\n"),
     load(kSection + "Iterations=1\nIterations=2\n"), load(kSection + "Iterations=3\r\n"),
     load(kSection + "Iterations=3\r5\n"), load(kSection + "Iterations=4"), load(kSection + "Iterations=5\nIter"),
     load(kSection + "Iterations=6\nIterations="), load(kSection + "Iterations=7<read_only>\n"),
     load(kSection + "Iterations=<auto>_123\n"), load(kSection + "Iterations=8\nIterations=auto\n"),
     load(kSection + "Iterations =1\n"), load(kSection + "Iterations=6=7\n"), load(kSection + "=1\n"),
     load(kSection + "Iterations=many\n"), load(kSection + "Iterations=65536\n"), load(kSection + "Iterations=-1\n"),
     load(kSection + "FlashBlockSize=1\nIterations=1\n"),
     load(kSection + "Iterations=8\nMCLK_RFBoardSelect=2\nIterations=9\n"),
     load(kSection + "MCLK_RFBoardSelect=External\nIterations=1\n"),
     load(kSection + "Iterations=1;" + long_line + "\nIterations=2\n"),
     load(kSection + std::string("Iterations=1\0\nIterations=3\n", 27)),
     load(kSection + "SPIClockFrequency=5\nIterations=4\n"),
     load(kSection + "Unknown=1\nIterations=5\nOther=2\nSampleDelay=2.5e-009\n"), values({"SampleDelay"}),
     load(kSection + "FlashBlockSize=<auto>_1\n"));
  QTXSim_FailCall("Write", 1, 9, 4);
  DO(load(kSection + "Iterations=11\n"), load(kSection + "Iterations=<auto>_1\n"));
  QTXSim_ClearFaults();
  std::mt19937 random(1);
  std::string noise(1 << 20, '\0');
  for (char &character : noise) character = static_cast<char>(random());
  DO(load(noise), load(kSection + noise).substr(0, 1), load(kSection + "Iterations=12\n"));
}

TEST_F(Settings, SavingLeavesOutWhatIsMissingAndTellsWhatFails) {
  auto *chip = handle->chip;
  auto *module = handle->module;
  const auto first_lines = [&] {
    const int32_t code = save();
    return std::to_string(code) + saved().substr(0, 100);
  };
  DO((handle->module = nullptr, first_lines()), (handle->chip = nullptr, first_lines()),
     (handle->module = module, first_lines()), QTX_VarsResetAllToDefault(handle),
     (handle->module = nullptr, QTX_VarsResetAllToDefault(handle)), QTX_VarsSaveToFlash(handle),
     QTX_VarsLoadFromFlash(handle), QTX_VarsLoadFromFile(handle, path.c_str()));
  handle->chip = chip, handle->module = module;
  write(path, "old");
  Variable &setting = named("MCLK_RFBoardSelect");
  const uint64_t item = std::exchange(setting.value, 999);
  DO(save(), contents(path), folder.fileCount());
  std::filesystem::create_hard_link(path, folder.file("second"));  // so that the file is written in place
  DO(save(), contents(path), folder.fileCount());
  setting.value = item;
  Variable &readout = named("Iterations");
  const uint32_t *items = std::exchange(readout.items, setting.items);
  readout.flags = VAR_FLAG_VISIBLE | VAR_FLAG_ENUM;
  DO(save(), contents(path));
  readout.flags = VAR_FLAG_VISIBLE | VAR_FLAG_INT, readout.items = items;
  say("resetting leaves what is not writable, and says where it failed");
  change();
  DO(QTX_VarSetIntValue_ByName(handle, "SPIToggleSlaveSelectEnable", 0), QTX_VarsResetAllToDefault(handle),
     values({"PulsesPerStep", "Iterations", "MCLK_RFBoardSelect", "SampleDelay", "FlashBlockSize"}),
     varNamed(handle->interface_handle->variables, "SPIToggleSlaveSelectEnable")->value);
  inRuns("reset", 24, [&](uint32_t nth, bool *reached) {
    EXPECT_EQ(open(), 0);
    change();
    QTXSim_ResetStatistics();
    QTXSim_FailCall("Write", nth, 1, 4);
    const std::string text = result([&] { return QTX_VarsResetAllToDefault(handle); });
    *reached = QTXSim_Calls("Write") >= nth;
    QTXSim_ClearFaults();
    return text;
  });
}

TEST_F(Settings, ACalibrationComesBackFromAFileAsItWasSaved) {
  DO(QTX_ExecuteAction_ByName(handle, "MeasureAll"), save());
  const std::string calibrated = saved();
  DO(QTX_PowerOffRadar(handle), QTX_PowerOnRadar(handle), QTX_VarsLoadFromFile(handle, path.c_str()), save(),
     saved() == calibrated);
}

TEST_F(Settings, InFlash) {
  DO(QTX_VarsLoadFromFlash(handle), (change(), QTX_VarsSaveToFlash(handle)), flashWord(0), flashWord(1), flashWord(2),
     flashWord(3), flashWord(4), flashWord(139));
  uint32_t words = 0;
  while (flashWord(words) != ~uint64_t{0}) ++words;
  DO(words, flashWord(words - 1), QTX_VarsResetAllToDefault(handle), QTX_VarsLoadFromFlash(handle),
     values({"PulsesPerStep", "Iterations", "DACMin", "PipeLining", "MCLK_RFBoardSelect", "SampleDelay", "SPDFT",
             "DACMax"}));
  const auto with = [&](uint32_t index, uint64_t number) {
    const uint64_t kept = flashWord(index);
    setFlashWord(index, number);
    const int32_t code = QTX_VarsLoadFromFlash(handle);
    setFlashWord(index, kept);
    return code;
  };
  DO(with(0, 0x040302), with(0, 0x640000), with(0, 0x630000), with(0, 0x630001), with(1, 0x040302),
     with(words - 1, 0x123457), with(3, 999), with(14, 999), with(words - 1, ~uint64_t{0}), with(0, 0));
  QTXSim_FailCall("Write", 1, 1, 4);
  DO(QTX_VarsLoadFromFlash(handle), (QTXSim_FailCall("Write", 1, 9999, 4), QTX_VarsSaveToFlash(handle)));
  QTXSim_ClearFaults();
  auto *chip = std::exchange(handle->chip, nullptr);
  DO(QTX_VarsSaveToFlash(handle), flashWord(1), flashWord(7),
     (setFlashWord(1, 0x999999), QTX_VarsLoadFromFlash(handle)));
  handle->chip = chip;
  named("AddressOfVariableStorage").value = 0xf080;
  DO(QTX_VarsSaveToFlash(handle), QTX_VarsLoadFromFlash(handle),
     (named("AddressOfVariableStorage").flags &= ~uint32_t{VAR_FLAG_VISIBLE}, QTX_VarsSaveToFlash(handle)),
     QTX_VarsLoadFromFlash(handle));
}

#ifdef _WIN32
TEST_F(Settings, FilesOnWindows) {
  const auto is_saved = [&](const std::string &file) {
    return contents(file).find("=<auto>_3.600000e+010\r\n") != std::string::npos;
  };
  // A path in UTF-8, and one that is none.
  for (const char *name : {"settings.txt", "Einstellungen \xc3\xa4\xe2\x82\xac.txt", "\xe4.txt"}) {
    const std::string file = folder.file("") + name;
    EXPECT_EQ(save(file), 0) << name;
    EXPECT_EQ(QTX_VarsLoadFromFile(handle, file.c_str()), 0) << name;
    EXPECT_EQ(QTX_FrameLoggingStart(handle, file.c_str(), 0x11, 3), 0) << name;
    EXPECT_EQ(QTX_FrameLoggingStop(handle), 0);
    EXPECT_EQ(QTX_InterfaceLogging(handle, 1, file.c_str()), 0) << name;
    EXPECT_EQ(QTX_InterfaceLogging(handle, 2, nullptr), 0);
  }
  EXPECT_EQ(folder.fileCount(), 3u);
  EXPECT_TRUE(std::filesystem::exists(folder.path() / L"Einstellungen \u00e4\u20ac.txt"));
  EXPECT_TRUE(std::filesystem::exists(folder.path() / L"\u00e4.txt"));
  for (const std::string &file : {std::string(), folder.file(""), folder.file("no/file"), folder.file("a:b:c")}) {
    EXPECT_EQ(save(file), 6) << file;
  }
  EXPECT_EQ(save("NUL"), 0);

  const std::string read_only = folder.file("read-only"), held = folder.file("held"), left = path + ".new-17-0";
  for (const std::string &file : {read_only, held, left}) write(file, "old");
  SetFileAttributesA(read_only.c_str(), FILE_ATTRIBUTE_READONLY);
  const HANDLE holder = CreateFileA(held.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
  EXPECT_EQ(save(read_only), 6);
  EXPECT_EQ(save(held), 6);
  CloseHandle(holder);
  SetFileAttributesA(read_only.c_str(), FILE_ATTRIBUTE_NORMAL);
  EXPECT_EQ(contents(read_only) + contents(held), "oldold");
  EXPECT_EQ(save(), 0);
  EXPECT_TRUE(is_saved(path));
  EXPECT_FALSE(std::filesystem::exists(left));
  const std::string second = folder.file("second");
  ASSERT_TRUE(CreateHardLinkA(second.c_str(), path.c_str(), nullptr));
  write(path, std::string(100000, 'x'));
  EXPECT_EQ(save(), 0);
  EXPECT_TRUE(is_saved(second));
  EXPECT_EQ(contents(second).find("xxx"), std::string::npos);
  EXPECT_EQ(folder.fileCount(), 6u);
}
#else
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

TEST_F(Settings, FilesThatCannotBeWrittenStayAsTheyWere) {
  const auto is_saved = [&](const std::string &file) {
    return contents(file).find("Iterations=") != std::string::npos;
  };
  DO(QTX_VarsLoadFromFile(handle, path.c_str()), QTX_VarsLoadFromFile(handle, folder.file("").c_str()), save(""),
     save(folder.file("")), save(folder.file("missing/settings.txt")), save(folder.file("new/")),
     save(folder.file(std::string(300, 'n'))), save("/dev/full"), save("/dev/null"),
     std::filesystem::is_character_file("/dev/full"), folder.fileCount());
  // A limit on the size of files fails the write half-way, as a full disk would.
  write(path, "old");
  struct rlimit before {};
  getrlimit(RLIMIT_FSIZE, &before);
  signal(SIGXFSZ, SIG_IGN);
  const struct rlimit tight { 100, before.rlim_max };
  setrlimit(RLIMIT_FSIZE, &tight);
  const int32_t code = save();
  setrlimit(RLIMIT_FSIZE, &before);
  signal(SIGXFSZ, SIG_DFL);
  DO(code, contents(path), folder.fileCount());

  chmod(folder.file("").c_str(), 0777);
  chmod(path.c_str(), 0444);
  const auto as_user = [&](const std::string &file) {
    const OrdinaryUser user;
    return save(file);
  };
  DO(as_user(path), contents(path), folder.fileCount());
  chmod(path.c_str(), 0666);
  chmod(folder.file("").c_str(), 0555);
  DO(as_user(path), as_user(folder.file("new")), is_saved(path));
  chmod(folder.file("").c_str(), 0755);

  const std::string longest = folder.file(std::string(250, 'n')), link = folder.file("link"),
                    second = folder.file("second");
  chmod(path.c_str(), 0640);
  std::filesystem::create_symlink(path, link);
  struct stat status {};
  DO(save(longest), is_saved(longest), save(), (stat(path.c_str(), &status), status.st_mode & 07777),
     (write(path, "old"), save(link)), std::filesystem::is_symlink(link), is_saved(path));
  std::filesystem::create_hard_link(path, second);
  DO((write(path, "old"), save()), is_saved(second), folder.fileCount());
  say("what an earlier save left is removed and nothing else");
  for (const char *name : {".new-17-0", ".new-0-99", ".new-17-0.txt", ".new-version-2"}) write(path + name, "left");
  DO(folder.fileCount(), save(), folder.fileCount(),
     contents(path + ".new-17-0.txt") + contents(path + ".new-version-2"));
}
#endif

TEST_F(Settings, NumbersReadTheSameInALocaleWithADecimalComma) {
#ifdef _WIN32
  if (!setlocale(LC_ALL, "German")) GTEST_SKIP() << "no such locale";
#else
  const std::string build = "localedef -i de_DE -f ISO-8859-1 " + folder.file("de_DE") + " >/dev/null 2>&1";
  if (std::system(build.c_str()) != 0) GTEST_SKIP() << "no locale can be built here";
  setenv("LOCPATH", folder.file("").c_str(), 1);
  ASSERT_NE(setlocale(LC_ALL, "de_DE"), nullptr);
  unsetenv("LOCPATH");
#endif
  EXPECT_STREQ(localeconv()->decimal_point, ",");
  EXPECT_EQ(save(), 0);
  EXPECT_NE(saved().find("=<auto>_3.600000e+10\n"), std::string::npos);
  EXPECT_EQ(load(kSection + "ZoomMax=2.5\n").substr(0, 1), "0");
  setlocale(LC_ALL, "C");
  EXPECT_EQ(named("ZoomMax").value, bits(2.5));
}

}  // namespace
}  // namespace pulsekit::test
