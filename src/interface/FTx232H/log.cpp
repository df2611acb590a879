// The interface log: a text file with the bytes of every SPI transfer.
#include <cstdio>
#include <cstring>
#include <new>

#include "../../platform/platform.h"
#include "../../support/trace.h"
#include "FTx232H_private.h"

using namespace pulsekit;

static constexpr const char kSource[] = "src/interface/FTx232H/FTx232H";

namespace {

enum LogMode : int32_t { kOpenLog = 1, kCloseLog = 2, kRecord = 3 };  // any other mode pauses

constexpr size_t kKeptNameLength = 8;

bool recording(const InterfaceHandle *bridge) { return bridge->log_file && bridge->log_mode == kRecord; }

void writeBytes(FILE *file, const uint8_t *bytes, size_t count) {
  for (size_t i = 0; i < count; ++i) std::fprintf(file, "%02X ", bytes[i]);
}

void writeResponse(FILE *file, const uint8_t *bytes, size_t count) {
  std::fputs("\t//response = ", file);
  writeBytes(file, bytes, count);
  std::fputc('\n', file);
}

}  // namespace

void closeInterfaceLog(InterfaceHandle *bridge) {
  if (bridge->log_file) std::fclose(bridge->log_file);
  bridge->log_file = nullptr;
  bridge->log_file_name[0] = '\0';
}

int32_t FTx232H_InterfaceLogging(InterfaceHandle *bridge, int32_t mode, const char *file_name) try {
  QTX_StackTrace *record = interfaceErrorRecord(bridge);
  settlePrograms(bridge);
  if (mode == kOpenLog) {
    if (!file_name) return origin(record, HERE, kError);
    closeInterfaceLog(bridge);
    bridge->log_file = platform::openFile(file_name, "w");
    if (!bridge->log_file) return origin(record, HERE, kCouldNotOpenLog);
    const size_t kept = strnlen(file_name, kKeptNameLength);
    std::memcpy(bridge->log_file_name, file_name, kept);
    bridge->log_file_name[kept] = '\0';
  }
  if (mode == kCloseLog) closeInterfaceLog(bridge);
  bridge->log_mode = mode;
  return kSuccess;
} catch (const std::bad_alloc &) {
  return origin(interfaceErrorRecord(bridge), HERE, kOutOfMemory);
}

int32_t FTx232H_InterfaceLogComment(InterfaceHandle *bridge, const char *text) {
  QTX_StackTrace *record = interfaceErrorRecord(bridge);
  if (!text) return origin(record, HERE, kError);
  if (!recording(bridge)) return origin(record, HERE, kLogNotOpen);
  settlePrograms(bridge);
  std::fprintf(bridge->log_file, "%s\n", text);
  return kSuccess;
}

void logWrittenBits(InterfaceHandle *bridge, const uint8_t *bytes, size_t count) {
  if (!recording(bridge) || count == 0) return;
  std::fputs("W\t", bridge->log_file);
  writeBytes(bridge->log_file, bytes, count);
}

void logWrittenBytes(InterfaceHandle *bridge, const uint8_t *bytes, size_t count) {
  if (!recording(bridge) || count == 0) return;
  logWrittenBits(bridge, bytes, count);
  std::fputc('\n', bridge->log_file);
}

void logReadBytes(InterfaceHandle *bridge, const uint8_t *bytes, size_t count) {
  if (!recording(bridge)) return;
  std::fputs("R\t", bridge->log_file);
  for (size_t i = 0; i < count; ++i) std::fputs("00 ", bridge->log_file);
  writeResponse(bridge->log_file, bytes, count);
}

void logExchangedBits(InterfaceHandle *bridge, const uint8_t *bytes, size_t count) {
  if (recording(bridge)) writeResponse(bridge->log_file, bytes, count);
}
