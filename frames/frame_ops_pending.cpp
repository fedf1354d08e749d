// Placeholders for the frame operations; replaced file by file as they are implemented.
#include "orvo/qimage_import.h"
#include "orvo/scale_context.h"
#include "orvo/video_frame.h"

extern "C" {
#include <libswscale/swscale.h>
}

namespace orvo {

ScaleContext::~ScaleContext()
{
    if (context)
        sws_freeContext(context);
    context = nullptr;
}

void VideoFrameQt::fill(int, int, int, int, int, int, int) {}
void VideoFrameQt::fill(unsigned int, const QRect&) {}
void VideoFrameQt::fill(QColor, const QRect&) {}
void VideoFrameQt::fillRgb(unsigned int, const Rect&) {}
void VideoFrameQt::fillYuv(unsigned int, const Rect&) {}
void VideoFrameQt::fillY(unsigned char, const Rect&) {}
void VideoFrameQt::fillU(unsigned char, const Rect&) {}
void VideoFrameQt::fillV(unsigned char, const Rect&) {}
bool VideoFrameQt::scaleTo(VideoFrameQt&, ScaleContext&, int, int, int, int) const { return false; }
bool VideoFrameQt::scaleTo(VideoFrameQt&, int, int, int, int) const { return false; }
QImage VideoFrameQt::convertToQImage(OrvoPixelFormat, int, int, int, int, int, int, int, int, int, int) const
{
    return QImage();
}
bool VideoFrame::scaleTo(VideoFrame&, ScaleContext&, int, int, int, int) const { return false; }
bool VideoFrame::scaleTo(VideoFrame&, int, int, int, int) const { return false; }
QImage VideoFrame::convertToQImage(OrvoPixelFormat, int, int, int, int, int, int, int, int, int, int) const
{
    return QImage();
}
VideoFrame VideoFrame::copy(int, int, int, int, const BufferProperties&, bool) const { return VideoFrame(); }
VideoFrame VideoFrame::convertToFormat(OrvoPixelFormat, const BufferProperties&) const { return VideoFrame(); }
bool VideoFrame::blend(const VideoFrame&, int, int) { return false; }
bool qimage2videoFrame(const QImage&, VideoFrame&, int, int, bool, unsigned int, int) { return false; }
bool qImageAlphaChannel2videoFrame(const QImage&, VideoFrame&) { return false; }

}  // namespace orvo
