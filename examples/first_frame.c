/* Takes a frame with the one radar that is attached. */
#include <stdio.h>

#include "Pulsekit3.h"
#include "Pulsekit3_settings.h"

static int32_t firstFrame(QTX_Handle *radar) {
  static double levels[4096];
  char connection[4096];
  QTX_FrameGeometry shape = {.size = sizeof shape};

  int32_t code = QTX_ListRadarModules(radar, connection, sizeof connection);
  if (code == 0) code = QTX_OpenRadar(radar, connection);
  if (code == 0) code = QTX_VarSetIntValue_ByName(radar, "PulsesPerStep", 40); /* twice as many as usual: less noise */
  if (code == 0) code = QTX_GetFrameNormalized(radar, levels, sizeof levels / sizeof *levels);
  if (code == 0) code = QTX_GetFrameGeometry(radar, &shape);
  if (code != 0) return code;

  printf("%u levels from %.2f m to %.2f m\n", (unsigned)shape.samplers, shape.first_range,
         shape.first_range + (shape.samplers - 1) * shape.range_step);
  for (uint32_t k = 0; k < shape.samplers; k += 32) {
    printf("%5.2f m %6.2f %%\n", shape.first_range + k * shape.range_step, levels[k]);
  }
  return 0;
}

int main(void) {
  QTX_Handle *radar;
  char text[4096];
  if (QTX_InitHandle(&radar) != 0) return 1;
  const int32_t code = firstFrame(radar);
  if (code != 0) {
    QTX_GetErrorDescription(radar, text, sizeof text, code);
    fprintf(stderr, "%s\n", text);
  }
  QTX_CloseRadar(radar);
  QTX_FreeHandle(&radar);
  return code != 0;
}
