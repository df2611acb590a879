// The frame log, for frames that come in other ways than by a single capture.
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/trace.h"

namespace pulsekit {

// Logs a frame of a stream if the log wants frames of its kind. Code 1, recorded at `at`, when it can't be written.
int32_t logStreamedFrame(QTX_Handle *handle, TracePoint at, const uint32_t *frame, size_t length);
int32_t logStreamedFrame(QTX_Handle *handle, TracePoint at, const float *frame, size_t length);
int32_t logStreamedFrame(QTX_Handle *handle, TracePoint at, const double *frame, size_t length);

}  // namespace pulsekit
