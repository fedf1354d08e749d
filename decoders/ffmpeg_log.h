#pragma once
// The library's side of FFmpeg's log callback (see orvo/ffmpeg_log.h).
#include <QStringList>

namespace orvo {

// Called as every FFmpeg decoder is created and every encoder opens: installs the
// silencing callback once, unless the client chose another mode first.
void applyFFmpegLogMode();

// Collects the error lines FFmpeg logs on the calling thread while it lives, so that a
// failure can give FFmpeg's own words ("Connection refused", "width not divisible by 2").
// Lines arrive only through the library's callbacks (Silenced and ToSink), not in Untouched
// mode, where the host's callback has them. Captures nest: the innermost one collects.
class FFmpegErrorCapture {
public:
    FFmpegErrorCapture();
    ~FFmpegErrorCapture();
    FFmpegErrorCapture(const FFmpegErrorCapture&) = delete;
    FFmpegErrorCapture& operator=(const FFmpegErrorCapture&) = delete;

    // The last few distinct lines, oldest first, joined by "; "; empty when none came.
    QString text() const;
    void clear() { lines_.clear(); }
    void add(const QString& line);

private:
    FFmpegErrorCapture* outer_;
    QStringList lines_;
};

}  // namespace orvo
