// Streams of frames.
#include "Pulsekit3_stream.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <new>

#include "Pulsekit3_frames.h"
#include "calls.h"
#include "stream.h"

using namespace pulsekit;

static constexpr const char kSource[] = "src/Pulsekit3_stream";

namespace {

// 1 with what is wrong as detail. A record of a later version is longer, its other fields are not known here.
int32_t readOptions(const QTX_Handle *handle, TracePoint at, const QTX_StreamOptions *given,
                    QTX_StreamOptions &options) {
  options = {sizeof options, QTX_STREAM_RAW, 0, 0};
  if (!given) return kSuccess;
  if (given->size < sizeof options) return origin(handle->error, at, kError, "The options' size is too small");
  std::memcpy(&options, given, sizeof options);
  if (options.kind > QTX_STREAM_DOUBLE) return origin(handle->error, at, kError, "There is no such kind of frames");
  const bool sound = std::isfinite(options.rate) && options.rate >= 0;
  return sound ? int32_t{kSuccess} : origin(handle->error, at, kError, "The rate is no number of frames a second");
}

// Writes a frame's entries as the host wants them and gives them to the frame log.
int32_t handOut(QTX_Handle *handle, TracePoint at, uint32_t kind, const StreamFrame &frame, void *to, uint64_t offset) {
  const uint32_t *counters = frame.counters.data();
  const size_t count = frame.counters.size();
  if (kind == QTX_STREAM_RAW) {
    uint32_t *entries = static_cast<uint32_t *>(to) + offset;
    std::copy_n(counters, count, entries);
    return logStreamedFrame(handle, at, entries, count);
  }
  if (kind == QTX_STREAM_FLOAT) {
    float *entries = static_cast<float *>(to) + offset;
    chip::normalizeCounters(frame.scale, counters, entries, count);
    return logStreamedFrame(handle, at, entries, count);
  }
  double *entries = static_cast<double *>(to) + offset;
  chip::normalizeCounters(frame.scale, counters, entries, count);
  return logStreamedFrame(handle, at, entries, count);
}

}  // namespace

extern "C" {

int32_t QTX_StreamStart(QTX_Handle *handle, const QTX_StreamOptions *given) try {
  if (int32_t code = checkCall(handle, HERE)) return code;
  const CallScope call(handle);
  QTX_StreamOptions options;
  if (int32_t code = readOptions(handle, HERE, given, options)) return code;
  if (int32_t code = checkChip(handle, HERE, &ChipOperations::CaptureFrame)) return code;
  if (int32_t code = checkInterface(handle, HERE, &InterfaceHandle::SendReceiveSPI)) return code;
  const chip::SweepDriver *driver = chip::sweepDriverOf(handle->chip);
  if (!driver) return origin(handle->error, HERE, kNotImplemented, "StreamStart is not implemented for this chip");
  if (int32_t code = checkNoStream(handle, HERE)) return code;
  HandleState *state = stateOf(handle);
  if (!state) return origin(handle->error, HERE, kRadarNotInitialized);

  auto stream = std::make_unique<Stream>(handle, *driver, options);
  if (int32_t code = stream->start()) {
    // What puts the chip in order must not take the place of the failure.
    const QTX_StackTrace kept = handle->error ? *handle->error : QTX_StackTrace{};
    stream.reset();
    if (handle->error) *handle->error = kept;
    return passThrough(handle->error, HERE, code);
  }
  state->stream = std::move(stream);
  return kSuccess;
} catch (const std::bad_alloc &) {
  return origin(handle->error, HERE, kOutOfMemory);
}

int32_t QTX_StreamRead(QTX_Handle *handle, void *frames, uint64_t capacity_entries, QTX_FrameInfo *infos,
                       uint32_t max_frames, uint32_t *count, int32_t timeout_ms) try {
  if (int32_t code = checkCall(handle, HERE, count)) return code;
  *count = 0;
  if (!frames || max_frames == 0) return origin(handle->error, HERE, kError);
  Stream *stream = streamOf(handle);
  if (!stream) return origin(handle->error, HERE, kNoStream);
  const CallScope call(handle);
  Deadline deadline = timeout_ms < 0 ? Deadline(handle) : Deadline(handle, timeout_ms);
  if (int32_t code = stream->wait(deadline)) return passThrough(handle->error, HERE, code);

  const uint32_t length = stream->nextLength();
  if (length > capacity_entries) return origin(handle->error, HERE, kBufferTooSmall);
  int32_t logged = kSuccess;
  for (uint64_t used = 0; *count < max_frames && stream->nextLength() == length; used += length) {
    if (length > capacity_entries - used) break;
    const StreamFrame &frame = stream->take();
    if (int32_t code = handOut(handle, HERE, stream->kind(), frame, frames, used)) logged = code;
    if (infos) infos[*count] = frame.info;
    ++*count;
  }
  stream->keepGoing();
  return logged;
} catch (const std::bad_alloc &) {
  return origin(handle->error, HERE, kOutOfMemory);
}

int32_t QTX_StreamStatus(QTX_Handle *handle, QTX_StreamStatistics *statistics) {
  if (int32_t code = checkCall(handle, HERE, statistics)) return code;
  if (statistics->size < sizeof *statistics) {
    return origin(handle->error, HERE, kError, "The statistics' size is too small");
  }
  const Stream *stream = streamOf(handle);
  if (!stream) return origin(handle->error, HERE, kNoStream);
  const uint32_t size = statistics->size;
  *statistics = stream->statistics();
  statistics->size = size;
  return kSuccess;
}

int32_t QTX_StreamStop(QTX_Handle *handle) {
  if (int32_t code = checkCall(handle, HERE)) return code;
  Stream *stream = streamOf(handle);
  if (!stream) return kSuccess;
  const CallScope call(handle);
  const int32_t code = stream->stop();
  endStream(handle);
  return code == 0 ? code : passThrough(handle->error, HERE, code);
}

}  // extern "C"
