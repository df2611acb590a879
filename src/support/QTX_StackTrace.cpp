#include "QTX_StackTrace.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "trace.h"

namespace {

using namespace pulsekit;

// Appends as much as fits in front of the terminator.
void append(char *text, size_t capacity, std::string_view addition) {
  const size_t length = strnlen(text, capacity - 1);
  const size_t count = std::min(addition.size(), capacity - 1 - length);
  std::copy_n(addition.data(), count, text + length);
  text[length + count] = '\0';
}

template <size_t capacity>
void append(char (&text)[capacity], std::string_view addition) {
  append(text, capacity, addition);
}

void appendFrame(QTX_StackTrace &record, TracePoint at) {
  char line[16];
  append(record.trace, record.trace[0] == '\0' ? "   at: " : "\r\n   from: ");
  append(record.trace, at.function);
  append(record.trace, " in ");
  append(record.trace, at.source);
  append(record.trace, ":");
  append(record.trace, QTX_itoa(at.line, line, 10));
}

}  // namespace

namespace pulsekit {

int32_t originKeepingMessage(QTX_StackTrace *record, TracePoint at, int32_t code) {
  if (!record) return code;
  record->trace[0] = '\0';
  appendFrame(*record, at);
  record->code = code;
  return code;
}

int32_t origin(QTX_StackTrace *record, TracePoint at, int32_t code, std::string_view message) {
  if (!record) return code;
  record->message[0] = '\0';
  append(record->message, message);
  return originKeepingMessage(record, at, code);
}

int32_t passThrough(QTX_StackTrace *record, TracePoint at, int32_t code) {
  if (record) appendFrame(*record, at);
  return code;
}

}  // namespace pulsekit

extern "C" {

void QTX_StackTraceInit(QTX_StackTrace **record_slot, QTX_StackTrace **existing) {
  if (!record_slot) return;
  *record_slot = existing ? *existing : new (std::nothrow) QTX_StackTrace{};
}

void QTX_StackTraceFree(QTX_StackTrace **record_slot) {
  if (!record_slot) return;
  delete *record_slot;
  *record_slot = nullptr;
}

int32_t QTX_ErrorDescription(QTX_StackTrace *record, char *buffer, int32_t size, int32_t code) {
  if (!buffer) return kError;
  if (size <= 0) return kSuccess;
  const size_t capacity = static_cast<size_t>(size);
  if (code == kSuccess) code = record ? record->code : static_cast<int32_t>(kNoStackTrace);

  char hexadecimal[16] = "";
  buffer[0] = '\0';
  append(buffer, capacity, "ERROR 0x");
  append(buffer, capacity, QTX_intcat(hexadecimal, static_cast<uint32_t>(code), 16));
  append(buffer, capacity, ": ");
  append(buffer, capacity, GetErrorMessage(code));
  if (!record) return kSuccess;
  if (record->message[0] != '\0') {
    append(buffer, capacity, " - ");
    append(buffer, capacity, record->message);
  }
  append(buffer, capacity, "\r\n");
  append(buffer, capacity, record->trace);
  return kSuccess;
}

}  // extern "C"
