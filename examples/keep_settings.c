/* Sets a group of settings, keeps them in a file, and has them again after a reset. usage: keep_settings [FILE] */
#include <stdio.h>

#include "Pulsekit3.h"
#include "Pulsekit3_settings.h"

static int32_t showPulses(QTX_Handle *radar, const char *when) {
  int64_t pulses = 0;
  const int32_t code = QTX_VarGetIntValue_ByName(radar, "PulsesPerStep", &pulses);
  if (code == 0) printf("%s: %d pulses a step\n", when, (int)pulses);
  return code;
}

static int32_t keepSettings(QTX_Handle *radar, const char *file) {
  const char *const names[] = {"PulsesPerStep", "SampleDelay", "SPIClockFrequency"};
  const char *const values[] = {"40", "4e-9", "30MHz"};
  QTX_Change changes[64];
  uint32_t count = 64;
  char connection[4096];

  int32_t code = QTX_ListRadarModules(radar, connection, sizeof connection);
  if (code == 0) code = QTX_OpenRadar(radar, connection);
  if (code == 0) code = QTX_VarsSetMany(radar, names, values, 3, changes, &count);
  for (uint32_t i = 0; i < count && code == 0; ++i) printf("%s has moved\n", changes[i].name);
  if (code == 0) code = QTX_VarsSaveToFile(radar, file);
  if (code == 0) code = QTX_VarsResetAllToDefault(radar);
  if (code == 0) code = showPulses(radar, "after a reset");
  if (code == 0) code = QTX_VarsLoadFromFile(radar, file);
  if (code == 0) code = showPulses(radar, "from the file");
  return code;
}

int main(int count, char **arguments) {
  QTX_Handle *radar;
  char text[4096];
  if (QTX_InitHandle(&radar) != 0) return 1;
  const int32_t code = keepSettings(radar, count > 1 ? arguments[1] : "radar.set");
  if (code != 0) {
    QTX_GetErrorDescription(radar, text, sizeof text, code);
    fprintf(stderr, "%s\n", text);
  }
  QTX_CloseRadar(radar);
  QTX_FreeHandle(&radar);
  return code != 0;
}
