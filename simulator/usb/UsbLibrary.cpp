#include "usb/UsbLibrary.h"

#include <dlfcn.h>

#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

#include "usb/UsbBed.h"

namespace {

constexpr const char *kPreload = "libumockdev-preload.so.0";
constexpr const char *kPreloadVariable = "LD_PRELOAD";

std::unique_ptr<pulsekit::simulator::UsbBed> bed;
std::string fault, preloadBefore;

// Programs without it would just see no devices.
bool havePreload() {
  void *library = dlopen(kPreload, RTLD_LAZY | RTLD_LOCAL);
  if (library) dlclose(library);
  return library != nullptr;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) const char *QTXUsb_Start(void) try {
  if (!havePreload()) throw std::runtime_error(std::string(kPreload) + " is missing");
  bed = std::make_unique<pulsekit::simulator::UsbBed>();
  const char *before = std::getenv(kPreloadVariable);
  preloadBefore = before ? before : "";
  const std::string all = preloadBefore.empty() ? kPreload : kPreload + (':' + preloadBefore);
  setenv(kPreloadVariable, all.c_str(), 1);
  return nullptr;
} catch (const std::exception &error) {
  fault = error.what();
  return fault.c_str();
}

__attribute__((visibility("default"))) void QTXUsb_Stop(void) {
  if (!bed) return;
  bed.reset();
  setenv(kPreloadVariable, preloadBefore.c_str(), 1);
}

}  // extern "C"
