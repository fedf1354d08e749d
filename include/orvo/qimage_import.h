#pragma once
// Writing QImages into frames.
//
// qimage2videoFrame keeps one process-wide cached swscale context: call it from one
// thread at a time. Supported image formats: QImage::Format_RGB32, Format_ARGB32 and
// Format_RGB888; any other gives false with the frame's map state restored.
#include "orvo/video_frame.h"

#include <QImage>

namespace orvo {

// Converts `image` into the frame's planar YUV at (x, y) (negative values count from the
// right/bottom); with `enlarge` the frame grows to fit. lineDivisor 2 halves the image's
// height while converting. `reserved` is ignored.
ORVO_EXPORT bool qimage2videoFrame(const QImage& image, VideoFrame& frame, int x, int y, bool enlarge,
                                   unsigned int reserved, int lineDivisor);
// Copies the alpha channel of a 32-bit ARGB image of the frame's size into its alpha plane.
ORVO_EXPORT bool qImageAlphaChannel2videoFrame(const QImage& image, VideoFrame& frame);

}  // namespace orvo
