/* What a host in C does with a stream: reads frames, looks at one entry of each. python_costs.py measures against it. */
#include <stdint.h>

#include "Pulsekit3_stream.h"

enum { kBatch = 16, kSamplers = 256 };

QTX_API int32_t readFrames(QTX_Handle *radar, uint32_t frames, uint32_t at_once, double *sum);

int32_t readFrames(QTX_Handle *radar, uint32_t frames, uint32_t at_once, double *sum) {
  static double values[kBatch * kSamplers];
  static QTX_FrameInfo infos[kBatch];
  uint32_t done = 0, count = 0, i;
  int32_t code = 0;
  *sum = 0;
  while (done < frames && code == 0) {
    code = QTX_StreamRead(radar, values, kBatch * kSamplers, infos, at_once, &count, -1);
    for (i = 0; i < count; ++i) *sum += values[i * kSamplers] + infos[i].time;
    done += count;
  }
  return code;
}
