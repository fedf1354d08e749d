#pragma once
// How frames and QImages look to swscale. Private to the frame operations.
#include "orvo/video_buffer.h"

#include "frames/sws_scale.h"

#include <QImage>

extern "C" {
#include <libavutil/pixfmt.h>
}

namespace orvo {
class VideoFrame;
}

namespace orvo::sws {

// A planar frame as swscale sees it: its pixel format and the chroma decimation
// (dx horizontally, dy vertically) that places a region's origin in the chroma planes.
struct PlanarLayout {
    AVPixelFormat format;
    int dx;
    int dy;
};

// Format_YUV420P and Format_YUV422P are themselves; every other format of a split frame
// carries full-size chroma planes and is scaled as 4:4:4.
PlanarLayout planarLayout(OrvoPixelFormat format);

// The three planar formats that format conversion, copy and blending accept.
bool isPlanarYuv(OrvoPixelFormat format);

// Qt stores Format_RGB32 / Format_ARGB32 pixels as 32-bit words 0xAARRGGBB; on this
// little-endian target that is B, G, R, A in memory. Format_RGB888 is R, G, B bytes. Any
// other format gives AV_PIX_FMT_NONE.
AVPixelFormat fromQImageFormat(QImage::Format format);

// The memory order of QImage::Format_RGB32 as an output format (the top byte is written 0xFF).
constexpr AVPixelFormat kQImageRgb32 = AV_PIX_FMT_BGRA;

// The source region of scaleTo and convertToQImage in a W x H picture: a negative origin
// counts from the right / bottom, a negative size means the whole side, and the region is
// cut at the picture's edge. False when the origin is still negative.
bool resolveRegion(int W, int H, int& x, int& y, int width, int height, int& rw, int& rh);

// Ceiling division for the chroma extent of a region of `n` luma samples.
inline int chromaExtent(int n, int decimation) { return (n + decimation - 1) / decimation; }

// The whole of a mapped frame's Y, U and V planes in its planar layout, or no planes when
// the frame is not mapped or a plane holds less than its geometry claims (foreign buffers
// can).
Planes framePlanes(const VideoFrame& frame);
// The whole of a QImage's pixels, read as `format`.
Planes imagePlanes(const QImage& image, AVPixelFormat format);
Planes imagePlanes(QImage& image, AVPixelFormat format);

}  // namespace orvo::sws
