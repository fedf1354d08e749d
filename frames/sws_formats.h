#pragma once
// How frames and QImages look to swscale. Private to the frame operations.
#include "orvo/video_buffer.h"

#include "frames/plane_view.h"
#include "frames/sws_scale.h"

#include <QImage>

extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
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
inline PlanarLayout planarLayout(OrvoPixelFormat format)
{
    switch (format) {
    case PixelFormats::Format_YUV420P: return {AV_PIX_FMT_YUV420P, 2, 2};
    case PixelFormats::Format_YUV422P: return {AV_PIX_FMT_YUV422P, 2, 1};
    default: return {AV_PIX_FMT_YUV444P, 1, 1};
    }
}

// The three planar formats that format conversion, copy and blending accept.
inline bool isPlanarYuv(OrvoPixelFormat format)
{
    return format == PixelFormats::Format_YUV420P || format == PixelFormats::Format_YUV422P ||
           format == PixelFormats::Format_YUV444P;
}

// Qt stores Format_RGB32 / Format_ARGB32 pixels as 32-bit words 0xAARRGGBB; on this
// little-endian target that is B, G, R, A in memory. Format_RGB888 is R, G, B bytes.
inline AVPixelFormat fromQImageFormat(QImage::Format format)
{
    switch (format) {
    case QImage::Format_RGB32: return AV_PIX_FMT_BGR0;  // the top byte is 0xFF and carries no alpha
    case QImage::Format_ARGB32: return AV_PIX_FMT_BGRA;
    case QImage::Format_RGB888: return AV_PIX_FMT_RGB24;
    default: return AV_PIX_FMT_NONE;
    }
}

// The memory order of QImage::Format_RGB32 as an output format (the top byte is written 0xFF).
constexpr AVPixelFormat kQImageRgb32 = AV_PIX_FMT_BGRA;

// The source region of scaleTo and convertToQImage in a W x H picture: a negative origin
// counts from the right / bottom, a negative size means the whole side, and the region is
// cut at the picture's edge. False when the origin is still negative.
inline bool resolveRegion(int W, int H, int& x, int& y, int width, int height, int& rw, int& rh)
{
    if (x < 0)
        x += W;
    if (y < 0)
        y += H;
    if (x < 0 || y < 0)
        return false;
    rw = qMin(width < 0 ? W : width, W - x);
    rh = qMin(height < 0 ? H : height, H - y);
    return true;
}

// Ceiling division for the chroma extent of a region of `n` luma samples.
inline int chromaExtent(int n, int decimation) { return (n + decimation - 1) / decimation; }

}  // namespace orvo::sws
