#include "frames/sws_formats.h"

#include "frames/plane_view.h"
#include "orvo/video_frame.h"

namespace orvo::sws {

PlanarLayout planarLayout(OrvoPixelFormat format)
{
    switch (format) {
    case PixelFormats::Format_YUV420P: return {AV_PIX_FMT_YUV420P, 2, 2};
    case PixelFormats::Format_YUV422P: return {AV_PIX_FMT_YUV422P, 2, 1};
    default: return {AV_PIX_FMT_YUV444P, 1, 1};
    }
}

bool isPlanarYuv(OrvoPixelFormat format)
{
    return format == PixelFormats::Format_YUV420P || format == PixelFormats::Format_YUV422P ||
           format == PixelFormats::Format_YUV444P;
}

AVPixelFormat fromQImageFormat(QImage::Format format)
{
    switch (format) {
    case QImage::Format_RGB32: return AV_PIX_FMT_BGR0;  // the top byte is 0xFF and carries no alpha
    case QImage::Format_ARGB32: return AV_PIX_FMT_BGRA;
    case QImage::Format_RGB888: return AV_PIX_FMT_RGB24;
    default: return AV_PIX_FMT_NONE;
    }
}

bool resolveRegion(int W, int H, int& x, int& y, int width, int height, int& rw, int& rh)
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

Planes framePlanes(const VideoFrame& frame)
{
    VideoFrameQt* body = frame.body();
    if (!body)
        return Planes();
    const PlanarLayout layout = planarLayout(frame.pixelFormat());
    const int w = frame.width(), h = frame.height();
    const int cw = chromaExtent(w, layout.dx), ch = chromaExtent(h, layout.dy);
    const PlaneView y = viewY(*body), u = viewU(*body), v = viewV(*body);
    if (!y.holds(w, h) || !u.holds(cw, ch) || !v.holds(cw, ch))
        return Planes();
    const uint8_t* const data[4] = {y.data, u.data, v.data, nullptr};
    const int stride[4] = {int(y.stride), int(u.stride), int(v.stride), 0};
    return Planes::of(layout.format, w, h, data, stride);
}

Planes imagePlanes(const QImage& image, AVPixelFormat format)
{
    const uint8_t* const data[4] = {image.constBits(), nullptr, nullptr, nullptr};
    const int stride[4] = {int(image.bytesPerLine()), 0, 0, 0};
    return Planes::of(format, image.width(), image.height(), data, stride);
}

Planes imagePlanes(QImage& image, AVPixelFormat format)
{
    // bits() detaches a shared image, so that the planes are this image's own.
    image.bits();
    return imagePlanes(static_cast<const QImage&>(image), format);
}

}  // namespace orvo::sws
