#include "simulation.h"

#include <filesystem>

#include "Pulsekit3Simulator.h"
#include "failure.h"
#include "files.h"
#include "radar.h"
#include "system.h"

namespace tool {

// Loaded already, since the program is linked with it.
static constexpr const char *kLibrary = PULSEKIT_SIMULATOR_NAME;

const char kExampleScene[] =
    "# A room as the simulated radar sees it: a chair, a person who breathes, and a wall.\n"
    "noise = 40.0            # standard deviation of one comparison, codes of the threshold DAC\n"
    "direct_coupling = 500.0 # amplitude of the pulse that leaks from antenna to antenna\n"
    "\n"
    "[[reflector]]\n"
    "range = 0.45     # metres\n"
    "strength = 250.0 # amplitude at one metre; it falls with the range squared\n"
    "\n"
    "[[reflector]]\n"
    "range = 0.90\n"
    "strength = 500.0\n"
    "motion = \"breathing\" # or \"speed\" with speed in m/s, away from the radar; or \"still\"\n"
    "amplitude = 0.004    # metres either way\n"
    "rate = 0.30          # hertz\n"
    "\n"
    "[[reflector]]\n"
    "range = 2.70\n"
    "strength = 2500.0\n";

namespace {

constexpr int32_t kDevice = 0;
constexpr uint32_t kBlock = 4096;
constexpr uint32_t kAddress = 3;  // bytes before a block in the file

// Where it is kept, and what it held when the command began.
std::string flash_file, flash_content, otp_content;

// The flash of a board that came with that name: another board's is another one's.
std::string flashFile(const std::string &otp) {
  const std::string directory = sessionDirectory();
  const std::string board = otp.substr(0, otp.find_first_of(std::string_view("\0\xff", 2)));
  return directory.empty() ? "" : cat(directory, "/simulated-flash-", board);
}

std::string readSimulatedFlash() {
  std::string content(QTXSIM_FLASH_SIZE, '\0');
  QTXSim_FlashRead(kDevice, 0, reinterpret_cast<uint8_t *>(content.data()), QTXSIM_FLASH_SIZE);
  return content;
}

std::string readSimulatedOtp() {
  std::string content(QTXSIM_OTP_SIZE, '\0');
  QTXSim_OtpRead(kDevice, 0, reinterpret_cast<uint8_t *>(content.data()), QTXSIM_OTP_SIZE);
  return content;
}

// The one-time-programmable area, then each block that is not erased behind its address.
void loadSimulatedFlash() {
  std::error_code error;
  if (flash_file.empty() || !std::filesystem::exists(pathOf(flash_file), error)) return;
  const std::string kept = readFile(flash_file);
  const auto *bytes = reinterpret_cast<const uint8_t *>(kept.data());
  if (kept.size() < QTXSIM_OTP_SIZE || (kept.size() - QTXSIM_OTP_SIZE) % (kAddress + kBlock) != 0) return;
  QTXSim_OtpWrite(kDevice, 0, bytes, QTXSIM_OTP_SIZE);
  for (size_t at = QTXSIM_OTP_SIZE; at < kept.size(); at += kAddress + kBlock) {
    const uint32_t address = bytes[at] | bytes[at + 1] << 8 | bytes[at + 2] << 16;
    QTXSim_FlashWrite(kDevice, address, bytes + at + kAddress, kBlock);
  }
}

}  // namespace

// The simulator describes its bench from the environment, as for any other program.
void simulate(const std::string &scene, bool fresh) {
  setEnvironment("PULSEKIT3_BRIDGE_LIBRARY", kLibrary);
  if (scene != "true") setEnvironment("PULSEKIT3_SCENE", scene);
  const std::string fault = missingBridgeLibrary();
  if (!fault.empty()) throw Failure(fault, "pulsekit simulate FILE writes an example of a scene");
  flash_file = flashFile(readSimulatedOtp());
  if (!fresh) loadSimulatedFlash();
  flash_content = readSimulatedFlash();
  otp_content = readSimulatedOtp();
}

void keepSimulatedFlash() {
  if (flash_content.empty() || flash_file.empty()) return;
  const std::string content = readSimulatedFlash(), otp = readSimulatedOtp();
  if (content == flash_content && otp == otp_content) return;
  std::string kept = otp;
  for (size_t at = 0; at < content.size(); at += kBlock) {
    const std::string_view block = std::string_view(content).substr(at, kBlock);
    if (block.find_first_not_of('\xff') == std::string_view::npos) continue;
    kept += {static_cast<char>(at), static_cast<char>(at >> 8), static_cast<char>(at >> 16)};
    kept += block;
  }
  NewFile file(flash_file);
  file.write(kept);
  file.commit();
}

}  // namespace tool
