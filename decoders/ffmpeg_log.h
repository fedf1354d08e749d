#pragma once
// The library's side of FFmpeg's log callback (see orvo/ffmpeg_log.h).

namespace orvo {

// Called as every FFmpeg decoder is created and every encoder opens: installs the
// silencing callback once, unless the client chose another mode first.
void applyFFmpegLogMode();

}  // namespace orvo
