/* The table's calls through the C interface: reads a call and its arguments a line, tabs between, and answers with a
 * line. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "Pulsekit3.h"
#include "Pulsekit3_control.h"
#include "Pulsekit3_settings.h"
#include "Pulsekit3_stream.h"

enum { kText = 4096, kEntries = 65536, kWords = 16 };

static QTX_Handle *radar;
static char *words[kWords + 1]; /* the call's name, its arguments, nulls */
static char answer[kText];
static double levels[kEntries];
static uint32_t counters[kEntries];
static uint8_t bytes[kEntries];

static int64_t number(int i) { return words[i] ? strtoll(words[i], NULL, 0) : 0; }

static void addText(const char *text) {
  const size_t used = strlen(answer);
  snprintf(answer + used, sizeof answer - used, used ? " %s" : "%s", text);
}

static void add(double value) {
  char text[32];
  snprintf(text, sizeof text, "%.15g", value);
  addText(text);
}

static int32_t version(void) { return QTX_Version(answer, kText); }
static int32_t list(void) { return QTX_ListRadarModules(radar, answer, kText); }
static int32_t setInt(void) { return QTX_VarSetIntValue_ByName(radar, words[1], number(2)); }
static int32_t setFloat(void) { return QTX_VarSetFloatValue_ByName(radar, words[1], strtod(words[2], NULL)); }
static int32_t automatic(void) { return QTX_VarSetIntValue_ByName(radar, words[1], 0x7FFFFFFF); }
static int32_t closeRadar(void) { return QTX_CloseRadar(radar); }
static int32_t powerOff(void) { return QTX_PowerOffRadar(radar); }
static int32_t powerOn(void) { return QTX_PowerOnRadar(radar); }
static int32_t reset(void) { return QTX_VarsResetAllToDefault(radar); }
static int32_t store(void) { return QTX_VarsSaveToFlash(radar); }
static int32_t restore(void) { return QTX_VarsLoadFromFlash(radar); }
static int32_t openRadar(void) { return QTX_OpenRadar(radar, words[1]); }
static int32_t action(void) { return QTX_ExecuteAction_ByName(radar, words[1]); }
static int32_t save(void) { return QTX_VarsSaveToFile(radar, words[1]); }
static int32_t load(void) { return QTX_VarsLoadFromFile(radar, words[1]); }
static int32_t calibrate(void) { return QTX_Calibrate(radar, (int32_t)number(1)); }

static int32_t state(void) {
  int32_t value = 0;
  const int32_t code = QTX_RadarState(radar, &value);
  add(value);
  return code;
}

/* The first line about the last failure. */
static int32_t error(void) {
  QTX_GetErrorDescription(radar, answer, kText, 0);
  answer[strcspn(answer, "\n")] = '\0';
  return 0;
}

static int32_t get(void) {
  double value = 0;
  const int32_t code = QTX_VarGetValueAsFloat_ByName(radar, words[1], &value);
  add(value);
  return code;
}

static int32_t addItem(uint64_t symbol) {
  char text[64] = "";
  const int32_t code = QTX_VarGetSymbolString(radar, words[1], (uint32_t)symbol, text, sizeof text);
  addText(text);
  return code;
}

/* The item that is set, then all there are. */
static int32_t items(void) {
  uint32_t symbols[64];
  int32_t count = 64;
  uint64_t symbol = 0;
  int32_t code = QTX_VarGetEnumsItems_ByName(radar, words[1], symbols, &count);
  if (code == 0) code = QTX_VarGetEnumValue_ByName(radar, words[1], &symbol);
  if (code == 0) code = addItem(symbol);
  for (int32_t i = 0; i < count && code == 0; ++i) code = addItem(symbols[i]);
  return code;
}

/* Smallest, largest, writable, automatic. */
static int32_t range(void) {
  uint64_t ends[2];
  uint32_t type = 0, writable = 0, follows = 0;
  int32_t code = QTX_VarGetType_ByName(radar, words[1], &type);
  if (code == 0) code = QTX_VarGetIntProperties_ByName(radar, words[1], &ends[0], &ends[1], &writable, &follows);
  for (int i = 0; i < 2 && code == 0; ++i) {
    double value = (double)ends[i];
    if (QTX_VarTypeIsFloat((uint16_t)type)) memcpy(&value, &ends[i], sizeof value);
    add(value);
  }
  add(writable);
  add(follows);
  return code;
}

/* NAME=VALUE ...: the names of what moved. */
static int32_t set(void) {
  const char *names[kWords], *values[kWords];
  QTX_Change changes[256];
  uint32_t count = 0, moved = 256;
  for (; words[count + 1]; ++count) {
    names[count] = strtok(words[count + 1], "=");
    values[count] = strtok(NULL, "");
  }
  const int32_t code = QTX_VarsSetMany(radar, names, values, count, changes, &moved);
  for (uint32_t i = 0; i < moved && code == 0; ++i) addText(changes[i].name);
  return code;
}

/* Entries and their mean; a capacity may be given. */
static int32_t raw(void) {
  int64_t samplers = 512;
  double sum = 0;
  QTX_VarGetIntValue_ByName(radar, "SamplersPerFrame", &samplers);
  const int32_t code = QTX_GetFrameRaw(radar, counters, (uint64_t)(words[1] ? number(1) : samplers));
  for (int64_t i = 0; i < samplers; ++i) sum += counters[i];
  add((double)samplers);
  add(sum / (double)samplers);
  return code;
}

static int32_t frame(void) {
  int64_t samplers = 512;
  double sum = 0;
  QTX_VarGetIntValue_ByName(radar, "SamplersPerFrame", &samplers);
  const int32_t code = QTX_GetFrameNormalized(radar, levels, words[1] ? number(1) : samplers);
  for (int64_t i = 0; i < samplers; ++i) sum += levels[i];
  add((double)samplers);
  add(sum / (double)samplers);
  return code;
}

static int32_t cdf(void) {
  uint32_t width = 0, lines = 0;
  const int32_t code = QTX_CalculateCDF_Size(radar, &width, &lines);
  add(width);
  add(lines);
  return code ? code : QTX_GetCDF(radar, counters, kEntries);
}

static int32_t geometry(void) {
  QTX_FrameGeometry shape = {.size = sizeof shape};
  const int32_t code = QTX_GetFrameGeometry(radar, &shape);
  add(shape.samplers);
  add(shape.first_range);
  add(shape.range_step);
  add(shape.pulse_rate);
  return code;
}

static int32_t check(void) {
  int32_t findings = 0;
  const int32_t code = QTX_CheckSettings(radar, NULL, 0, &findings);
  add(findings);
  return code;
}

/* RATE FRAMES: number and samplers of the last. */
static int32_t stream(void) {
  QTX_StreamOptions options = {.size = sizeof options, .kind = QTX_STREAM_RAW, .rate = (double)number(1)};
  QTX_FrameInfo info = {0};
  uint32_t count = 0;
  int32_t code = QTX_StreamStart(radar, &options);
  for (int64_t frames = 0; frames < number(2) && code == 0; frames += count) {
    code = QTX_StreamRead(radar, counters, kEntries, &info, 1, &count, 5000);
  }
  add((double)info.number);
  add(info.samplers);
  QTX_StreamStop(radar);
  return code;
}

/* Numbers from an argument on, as bytes. */
static int32_t given(int first) {
  int32_t count = 0;
  for (; words[first + count]; ++count) bytes[count] = (uint8_t)number(first + count);
  return count;
}

static int32_t addBytes(int32_t code, int64_t count) {
  for (int64_t i = 0; i < count; ++i) add(bytes[i]);
  return code;
}

static int32_t flashWrite(void) {
  const int32_t count = given(2);
  return QTX_ModuleWriteFlashMemory(radar, (uint32_t)number(1), bytes, (uint32_t)count);
}

static int32_t flashRead(void) {
  const int32_t count = (int32_t)number(2);
  return addBytes(QTX_ModuleReadFlashMemory(radar, (uint32_t)number(1), bytes, count), count);
}

static int32_t board(void) { return addBytes(QTX_ModuleReadBoardInfo(radar, bytes, 8), 8); }

static int32_t registerWrite(void) {
  return QTX_RegisterWrite(radar, (uint8_t)number(1), (int32_t)number(2), (uint64_t)number(3));
}

static int32_t registerRead(void) {
  uint64_t value = 0;
  const int32_t code = QTX_RegisterRead(radar, (uint8_t)number(1), (uint32_t)number(2), &value);
  add((double)value);
  return code;
}

/* PIN LEVEL: as an output, read back. */
static int32_t pin(void) {
  uint32_t value = 0;
  const int32_t code = QTX_IO_SetDirection(radar, (uint32_t)number(1), 1, (uint32_t)number(2));
  if (code == 0) QTX_IO_GetValue(radar, (uint32_t)number(1), &value);
  add(value);
  return code;
}

/* CHANNEL COUNT BYTE ...: the count bytes that follow. */
static int32_t spi(void) {
  const int32_t out = given(3);
  const uint32_t in = (uint32_t)number(2);
  return addBytes(QTX_SPI_SendReceive(radar, (uint32_t)number(1), bytes, out, bytes, in), in);
}

static const char *const names[] = {
    "version",     "list",       "open",      "close",          "state",         "power_off", "power_on",
    "error",       "set_int",    "set_float", "automatic",      "set",           "get",       "items",
    "range",       "action",     "reset",     "save",           "load",          "store",     "restore",
    "raw",         "frame",      "cdf",       "geometry",       "check",         "calibrate", "stream",
    "flash_write", "flash_read", "board",     "register_write", "register_read", "pin",       "spi"};
static int32_t (*const calls[])(void) = {
    version,  list,       openRadar, closeRadar, state,         powerOff,     powerOn,  error, setInt,
    setFloat, automatic,  set,       get,        items,         range,        action,   reset, save,
    load,     store,      restore,   raw,        frame,         cdf,          geometry, check, calibrate,
    stream,   flashWrite, flashRead, board,      registerWrite, registerRead, pin,      spi};
enum { kCalls = sizeof calls / sizeof *calls };

int main(void) {
  char line[kText];
  if (QTX_InitHandle(&radar) != 0) return 1;
  while (fgets(line, sizeof line, stdin)) {
    size_t call = 0, count = 0;
    memset(words, 0, sizeof words);
    for (char *word = strtok(line, "\t\r\n"); word && count < kWords; word = strtok(NULL, "\t\r\n"))
      words[count++] = word;
    if (count == 0) continue;
    while (call < kCalls && strcmp(names[call], words[0]) != 0) ++call;
    answer[0] = '\0';
    const int32_t code = call < kCalls ? calls[call]() : -1;
    if (code) snprintf(answer, sizeof answer, "error %d", (int)code);
    puts(answer[0] ? answer : "ok");
  }
  QTX_CloseRadar(radar);
  return QTX_FreeHandle(&radar);
}
