#pragma once
// What the library does with FFmpeg's log, which is one process-wide callback shared
// with every other user of FFmpeg in the host.
#include "orvo/export.h"

namespace orvo {

enum class FFmpegLogMode {
    // The default: the first decoder (or encoder output) installs a callback that drops
    // every message.
    Silenced,
    // The library never sets FFmpeg's callback or level, so the host's own stay in force.
    // Choose it before the first decoder or encoder: a callback the library already
    // replaced cannot be given back (FFmpeg's default callback is restored instead).
    Untouched,
    // FFmpeg's messages up to its log level (set to AV_LOG_INFO here) become LogItems of
    // the category "ffmpeg" and reach the sink (orvo/log.h) line by line; FFmpeg's debug
    // and trace lines are dropped unless the category and LG_debug_enabled let them pass.
    ToSink,
};

// Applies `mode` at once (Silenced and ToSink install their callback now). Call it from
// one thread before decoding starts: FFmpeg reads its callback without a lock.
ORVO_EXPORT void setFFmpegLogMode(FFmpegLogMode mode);
ORVO_EXPORT FFmpegLogMode ffmpegLogMode();

}  // namespace orvo
