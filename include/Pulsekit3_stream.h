/*
 * Pulsekit3: frames as fast as the hardware takes them.
 *
 * A single capture sends a dozen commands and waits for each. A stream hands the bridge the commands of many frames ahead;
 * the bridge carries them out on its own clock, so that the next sweep runs while a frame is read out, and the host only
 * collects. No thread is started: frames are ordered and collected in QTX_StreamRead, so call it often enough. How long a
 * host may stay away without a pause between frames depends on the bridge: some 13 sweeps (FT232H), 25 (FT4232H) or 50
 * (FT2232H) are ordered ahead, of up to a second.
 *
 *   uint32_t frames[16 * 256], count, i;
 *   QTX_FrameInfo infos[16];
 *   int32_t code = QTX_StreamStart(radar, NULL);
 *   while (code == 0 && go_on()) {
 *     code = QTX_StreamRead(radar, frames, 16 * 256, infos, 16, &count, 1000);
 *     for (i = 0; i < count; ++i) show(frames + i * infos[i].samplers, infos[i].samplers, infos[i].time);
 *   }
 *   QTX_StreamStop(radar);
 *
 * While a stream runs, single captures, CDFs and measurements answer 1540 and harm nothing; everything else works: it
 * waits until what has been ordered is collected, then the stream goes on with the next QTX_StreamRead. Frames that were
 * under way before a setting changed are handed out first. Closing the radar stops the stream.
 *
 * Conventions are those of Pulsekit3.h. Codes beside those of the bridge: 1025, 770, 269, 1 (null argument, a record or an
 * option that makes no sense), 4 (not with this chip), 1537 cancelled, 1538 waited too long, 1539 no stream is running,
 * 1540 a stream is running.
 */
#ifndef PULSEKIT3_STREAM_H
#define PULSEKIT3_STREAM_H

#include "Pulsekit3.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What a frame's entries are: uint32_t counters as they are, or the level in percent as of QTX_GetFrameNormalized, with the
   settings that the frame was taken with. */
enum { QTX_STREAM_RAW = 0, QTX_STREAM_FLOAT = 1, QTX_STREAM_DOUBLE = 2 };

/* How a stream is to run. */
typedef struct QTX_StreamOptions {
  uint32_t size;      /* sizeof(QTX_StreamOptions) */
  uint32_t kind;      /* QTX_STREAM_... */
  double rate;        /* frames a second, paced by the bridge's clock without drift; 0: as fast as the sweep allows */
  uint32_t in_flight; /* frames ordered ahead at most; 0: the library chooses */
} QTX_StreamOptions;

enum {
  QTX_FRAME_RETAKEN = 1, /* taken again: an earlier attempt was discarded because its sweep had not ended in time, because
                            one before it had not, or because answers were lost */
  QTX_FRAME_LATE = 2     /* began later than the rate asked for */
};

/* What belongs to a frame. */
typedef struct QTX_FrameInfo {
  uint64_t number;   /* counts from 0. A gap is a loss: at a rate, frames whose time passed while the bridge had nothing to do
                        because the host came late. Without a rate there are no gaps */
  double time;       /* s from the start of the first frame to the start of this frame's first sweep, by the bridge's clock;
                        while the bridge had nothing to do, by the host's */
  uint64_t arrived;  /* QTX_timestamp_us when its answer was taken from the bridge */
  uint32_t settings; /* how often settings have changed since the start */
  uint32_t samplers; /* entries of this frame */
  uint32_t flags;    /* QTX_FRAME_... */
  uint32_t reserved; /* 0 */
} QTX_FrameInfo;

/* How a stream runs. */
typedef struct QTX_StreamStatistics {
  uint32_t size;      /* sizeof(QTX_StreamStatistics), filled in by the caller */
  uint32_t in_flight; /* frames that the bridge has been handed ahead */
  uint64_t frames;    /* handed out */
  uint64_t retaken;   /* of these, flagged so */
  uint64_t lost;      /* missing numbers */
  uint64_t late;      /* of those handed out, flagged so */
  double frame_time;  /* s from frame to frame, averaged over the last 32; 0 before the second frame */
  double sweep_time;  /* s that one sweep takes, as measured */
} QTX_StreamStatistics;

/* Measures how long a sweep takes (three sweeps or so) and orders the first frames. Null options: raw, as fast as possible.
   The chip's SampleDelay is moved through the positions of a stitched frame and put back. Other codes: 1286 a kind that
   needs DACStepFine while that is 0, 1281 a position of the window that the chip does not keep, 768 the chip's sweep status
   makes no sense, 1538 the sweep does not end. */
QTX_API int32_t QTX_StreamStart(QTX_Handle *handle, const QTX_StreamOptions *options);

/* Writes up to max_frames frames of one length to `frames`, one behind the other, and as many infos unless that is null;
   *count tells how many. Waits for the first for at most timeout_ms (-1: the handle's wait limit), then takes what is there.
   Frames that do not fit stay for the next call; code 2 when not even the first one does. After 1538, as after any other
   code, the stream is still there and nothing that was taken is lost. A frame log that runs gets the frames, too; where it
   can't be written the code is 1 and the frames are there. */
QTX_API int32_t QTX_StreamRead(QTX_Handle *handle, void *frames, uint64_t capacity_entries, QTX_FrameInfo *infos,
                               uint32_t max_frames, uint32_t *count, int32_t timeout_ms);

/* Does not wait and does not touch the bus. */
QTX_API int32_t QTX_StreamStatus(QTX_Handle *handle, QTX_StreamStatistics *statistics);

/* Frames that were not read are gone. Without a stream: 0. Whatever the code, no stream runs afterwards. */
QTX_API int32_t QTX_StreamStop(QTX_Handle *handle);

#ifdef __cplusplus
}
#endif

#endif
