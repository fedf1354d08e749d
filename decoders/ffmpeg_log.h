#pragma once
// The library's side of FFmpeg's log callback (see orvo/ffmpeg_log.h).

namespace orvo {

// Called by every FFmpeg decoder as it is created: installs the silencing callback once,
// unless the client chose another mode first.
void applyFFmpegLogModeForDecoder();

}  // namespace orvo
