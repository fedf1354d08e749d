#pragma once
// Whole-picture conversions between a QImage and an existing planar frame, scaled to the
// size of the target (FFmpegModule's two static conversions). Regions of either side are
// the business of qimage2videoFrame and VideoFrame::convertToQImage.
#include "orvo/video_frame.h"

#include <QImage>

namespace orvo {

// Converts `image` into `frame`, which already has its size and a planar format (4:2:0,
// 4:2:2, else 4:4:4) and is not mapped read-only. ARGB32, RGB32 and RGB888 are read as
// they are, other formats as 24-bit RGB.
bool scaleImageIntoFrame(const QImage& image, VideoFrame& frame);
// Converts a mapped planar frame into `image`, scaled to the image's size: ARGB32, RGB32 and
// RGB888 images are written in place, other formats through a 24-bit RGB copy.
bool scaleFrameIntoImage(const VideoFrame& frame, QImage& image);

}  // namespace orvo
