// What the library's own way to the bridges costs, and flashrom's, each in a process of its own on the same simulated
// USB: transfers and time as the simulated bench counts and models them, and the CPU time of the library's process,
// which here includes what the test bed puts between a program and the kernel. usage: usb_costs [FLASHROM]
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "Pulsekit3.h"
#include "Pulsekit3Simulator.h"
#include "Pulsekit3_stream.h"
#include "usb/UsbBed.h"

namespace {

constexpr char kRadar[] = "FTx232H!Serial No: (RADAR)!QTX-K245!QTX3701";
constexpr char kFlash[] = "FLASH";  // a board without a chip, which would answer flashrom too
constexpr size_t kWhole = QTXSIM_FLASH_SIZE, kChunk = 65536;
constexpr double kFlashClock = 30e6;

double cpuMilliseconds() {
  rusage use{};
  getrusage(RUSAGE_SELF, &use);
  const auto ms = [](const timeval &time) {
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
  };
  return ms(use.ru_utime) + ms(use.ru_stime);
}

// ---- In the library's process ----

class Radar {
 public:
  Radar() {
    require(QTX_InitHandle(&handle_));
    require(QTX_OpenRadar(handle_, kRadar));
    require(QTX_VarSetValue_ByString(handle_, "SPIClockFrequency", "30MHz"));
  }
  ~Radar() {
    QTX_CloseRadar(handle_);
    QTX_FreeHandle(&handle_);
  }
  Radar(const Radar &) = delete;
  Radar &operator=(const Radar &) = delete;

  void require(int32_t code) {
    if (code == 0) return;
    char text[4096];
    QTX_GetErrorDescription(handle_, text, sizeof text, code);
    std::fprintf(stderr, "%s\n", text);
    std::exit(1);
  }
  void readRegister() {
    uint64_t value = 0;
    require(QTX_RegisterRead(handle_, 0x31, 3, &value));
  }
  void readFlash(size_t size) {
    std::vector<uint8_t> bytes(kChunk);
    for (size_t at = 0; at < size; at += kChunk) {
      const auto length = static_cast<int32_t>(std::min(kChunk, size - at));
      require(QTX_ModuleReadFlashMemory(handle_, static_cast<uint32_t>(at), bytes.data(), length));
    }
  }
  void startStream() { require(QTX_StreamStart(handle_, nullptr)); }
  void takeFrames(uint32_t count) {
    std::vector<uint32_t> frame(4096);
    for (uint32_t taken = 0, got = 0; taken < count; taken += got) {
      require(QTX_StreamRead(handle_, frame.data(), frame.size(), nullptr, 1, &got, 1000));
    }
  }

 private:
  QTX_Handle *handle_ = nullptr;
};

// Tells the bench's process that the job begins or ends, and how much CPU time it took; waits for its word.
void tell(double cpu) {
  std::printf("%f\n", cpu);
  std::fflush(stdout);
  if (std::getchar() == EOF) std::exit(1);
}

int runJob(const std::string &job, const std::string &size) {
  Radar radar;
  const size_t count = std::stoul(size);
  if (job == "stream") radar.startStream(), radar.takeFrames(8);
  if (job == "register") radar.readRegister();
  tell(0);
  const double before = cpuMilliseconds();
  if (job == "register") radar.readRegister();
  if (job == "flash") radar.readFlash(count);
  if (job == "stream") radar.takeFrames(static_cast<uint32_t>(count));
  if (job == "idle") std::this_thread::sleep_for(std::chrono::milliseconds(count));
  tell(cpuMilliseconds() - before);
  return 0;
}

// ---- In the bench's process ----

struct Cost {
  unsigned long long out, in;
  double milliseconds, spi, cpu;
};

Cost cost(double cpu) {
  QTXSim_Statistics counts{};
  QTXSim_GetStatistics(&counts);
  return {counts.out_transfers, counts.in_transfers, static_cast<double>(counts.nanoseconds) / 1e6,
          static_cast<double>(counts.spi_nanoseconds) / 1e6, cpu};
}

void print(const char *name, const Cost &cost) {
  std::printf("| %-26s | %6llu | %6llu | %9.3f | %9.3f |\n", name, cost.out, cost.in, cost.milliseconds, cost.spi);
}

// Runs this program as the library's process.
Cost measure(const std::string &self, const char *job, size_t count) {
  int to[2], from[2];
  if (pipe(to) || pipe(from)) std::exit(1);
  const std::string size = std::to_string(count);
  const pid_t child = fork();
  if (child == 0) {
    dup2(to[0], 0);
    dup2(from[1], 1);
    for (int end : {to[0], to[1], from[0], from[1]}) close(end);
    execl(self.c_str(), self.c_str(), "--job", job, size.c_str(), nullptr);
    _exit(127);
  }
  close(to[0]);
  close(from[1]);
  FILE *told = fdopen(from[0], "r");
  double cpu = 0;
  const auto wait = [&] {
    if (std::fscanf(told, "%lf", &cpu) != 1) std::exit(1);
  };
  const auto goOn = [&] {
    if (write(to[1], "\n", 1) != 1) std::exit(1);
  };
  wait();
  QTXSim_ResetStatistics();
  goOn();
  wait();
  const Cost result = cost(cpu);
  goOn();
  std::fclose(told);
  close(to[1]);
  waitpid(child, nullptr, 0);
  return result;
}

// Reads so many bytes with flashrom; 0: only finds the flash.
Cost flashrom(const std::string &program, size_t size) {
  std::ofstream("usb_costs.layout") << std::hex << "0:" << size - 1 << " part\n";
  std::string command = program + " -p ft2232_spi:type=2232H,serial=" + kFlash + ",gpiol0=C,gpiol1=H -c W25Q128.V";
  if (size > 0) command += size == kWhole ? " -r usb_costs.bin" : " -l usb_costs.layout -i part -r usb_costs.bin";
  QTXSim_ResetStatistics();
  if (std::system((command + " >usb_costs.log 2>&1").c_str()) != 0) {
    std::fprintf(stderr, "flashrom failed, see usb_costs.log: %s\n", command.c_str());
    std::exit(1);
  }
  const Cost result = cost(0);
  for (const char *file : {"usb_costs.layout", "usb_costs.bin", "usb_costs.log"}) std::remove(file);
  return result;
}

Cost operator-(const Cost &a, const Cost &b) {
  return {a.out - b.out, a.in - b.in, a.milliseconds - b.milliseconds, a.spi - b.spi, 0};
}

int measureAll(const std::string &self, const std::string &flashrom_program) {
  // For the processes that are started from here.
  setenv("LD_PRELOAD", "libumockdev-preload.so.0", 1);
  setenv("PULSEKIT3_BRIDGE_LIBRARY", "libusb", 1);
  const pulsekit::simulator::UsbBed bed;
  QTXSim_SetRecording(0);
  QTXSim_AddRadar("RADAR", "Radar", QTXSIM_FT2232H, "QTX-K245", "QTX3701");
  QTXSim_AddRadar(kFlash, "Radar", QTXSIM_FT2232H, "QTX-K245", nullptr);
  std::puts("| job                        |    out |     in |    bus ms |    SPI ms |\n|---|---|---|---|---|");
  print("library: register", measure(self, "register", 1));
  for (size_t size : {size_t{1024}, kChunk, kWhole}) {
    const std::string bytes = std::to_string(size) + " bytes";
    const Cost own = measure(self, "flash", size);
    print(("library: " + bytes).c_str(), own);
    if (flashrom_program.empty()) continue;
    const Cost foreign = flashrom(flashrom_program, size) - flashrom(flashrom_program, 0);
    print(("flashrom: " + bytes).c_str(), foreign);
    std::printf("| %-26s | %.3f of flashrom's time, %.3f of the clock's | | | |\n", "",
                own.milliseconds / foreign.milliseconds,
                own.milliseconds / (static_cast<double>(size) * 8e3 / kFlashClock));
  }
  constexpr size_t kFrames = 200, kIdle = 5000;
  const Cost frames = measure(self, "stream", kFrames);
  std::printf("\nstreamed: %.1f frames/s, %.3f ms CPU a frame\n", kFrames * 1e3 / frames.milliseconds,
              frames.cpu / kFrames);
  QTXSim_SetTime(QTXSIM_TIME_HOST);
  const Cost idle = measure(self, "idle", kIdle);
  std::printf("idle with an open radar: %.2f %% CPU\n", idle.cpu * 100 / kIdle);
  return 0;
}

}  // namespace

int main(int count, char **arguments) {
  if (count == 4 && std::string(arguments[1]) == "--job") return runJob(arguments[2], arguments[3]);
  return measureAll(arguments[0], count > 1 ? arguments[1] : "");
}
