/* Tests a board as it comes from production; the exit code tells whether it passed. */
#include <math.h>
#include <stdio.h>
#include <string.h>

#include "Pulsekit3.h"
#include "Pulsekit3_settings.h"

enum { kScratch = 0xE000, kBlock = 4096 }; /* a block of the flash, given back as it was */

/* Each answers with a code, and whether the board is good. */

static int32_t registersKeep(QTX_Handle *radar, int *good) {
  const uint64_t values[] = {0x000000, 0xFFFFFF, 0xA5C35A};
  uint64_t before, value;
  int32_t code = QTX_RegisterRead(radar, 0x31, 3, &before);
  for (int i = 0; i < 3 && code == 0; ++i) {
    code = QTX_RegisterWrite(radar, 0x31, 3, values[i]);
    if (code == 0) code = QTX_RegisterRead(radar, 0x31, 3, &value);
    if (code == 0) *good = *good && value == values[i];
  }
  return code == 0 ? QTX_RegisterWrite(radar, 0x31, 3, before) : code;
}

static int32_t flashKeeps(QTX_Handle *radar, int *good) {
  uint8_t before[kBlock], pattern[kBlock], after[kBlock];
  for (int i = 0; i < kBlock; ++i) pattern[i] = (uint8_t)i;
  int32_t code = QTX_ModuleReadFlashMemory(radar, kScratch, before, kBlock);
  if (code == 0) code = QTX_ModuleWriteFlashMemory(radar, kScratch, pattern, kBlock);
  if (code == 0) code = QTX_ModuleReadFlashMemory(radar, kScratch, after, kBlock);
  if (code == 0) *good = memcmp(after, pattern, kBlock) == 0;
  return code == 0 ? QTX_ModuleWriteFlashMemory(radar, kScratch, before, kBlock) : code;
}

static int32_t startsAgain(QTX_Handle *radar, int *good) {
  int64_t id = 0;
  int32_t code = QTX_PowerOffRadar(radar);
  if (code == 0) code = QTX_PowerOnRadar(radar);
  if (code == 0) code = QTX_VarGetIntValue_ByName(radar, "ChipID", &id);
  *good = id == 777;
  return code;
}

static int32_t levelsAreRight(QTX_Handle *radar, int *good) {
  double levels[4096];
  int64_t samplers = 0;
  int32_t code = QTX_VarGetIntValue_ByName(radar, "SamplersPerFrame", &samplers);
  if (code == 0) code = QTX_GetFrameNormalized(radar, levels, 4096);
  for (int64_t k = 0; k < samplers && code == 0; ++k) *good = *good && levels[k] > 40 && levels[k] < 60;
  return code;
}

static int32_t samplesInTime(QTX_Handle *radar, int *good) {
  double nominal = 0, measured = 0;
  int32_t code = QTX_VarGetValueAsFloat_ByName(radar, "SamplesPerSecond", &nominal);
  if (code == 0) code = QTX_Calibrate(radar, -1);
  if (code == 0) code = QTX_VarGetValueAsFloat_ByName(radar, "SamplesPerSecond", &measured);
  *good = fabs(measured / nominal - 1) < 0.05;
  return code;
}

static const struct {
  const char *name;
  int32_t (*run)(QTX_Handle *radar, int *good);
} tests[] = {{"registers keep what is written", registersKeep},
             {"flash keeps what is written", flashKeeps},
             {"starts again after power off", startsAgain},
             {"levels lie around the middle", levelsAreRight},
             {"samples at the right rate", samplesInTime}};
enum { kTests = sizeof tests / sizeof *tests };

static int32_t testBoard(QTX_Handle *radar, int *failures) {
  char connection[4096];
  uint8_t board[128];
  int32_t code = QTX_ListRadarModules(radar, connection, sizeof connection);
  if (code == 0) code = QTX_OpenRadar(radar, connection);
  if (code == 0) code = QTX_ModuleReadBoardInfo(radar, board, sizeof board);
  if (code == 0) printf("board %.31s\n", (const char *)board);
  for (int i = 0; i < kTests && code == 0; ++i) {
    int good = 1;
    code = tests[i].run(radar, &good);
    if (code != 0) break;
    printf("%s  %s\n", good ? "ok  " : "FAIL", tests[i].name);
    *failures += !good;
  }
  if (code == 0) printf("%d of %d failed\n", *failures, kTests);
  return code;
}

int main(void) {
  QTX_Handle *radar;
  char text[4096];
  int failures = 0;
  if (QTX_InitHandle(&radar) != 0) return 1;
  const int32_t code = testBoard(radar, &failures);
  if (code != 0) {
    QTX_GetErrorDescription(radar, text, sizeof text, code);
    fprintf(stderr, "%s\n", text);
  }
  QTX_CloseRadar(radar);
  QTX_FreeHandle(&radar);
  return code != 0 || failures > 0;
}
