// Writing QImages into the planes of existing frames.
#include "orvo/qimage_import.h"

#include "frames/plane_view.h"
#include "frames/sws_formats.h"
#include "orvo/scale_context.h"
#include "orvo/log.h"


extern "C" {
#include <libswscale/swscale.h>
}

namespace orvo {

bool qimage2videoFrame(const QImage& image, VideoFrame& frame, int x, int y, bool enlarge, unsigned int /*reserved*/,
                       int lineDivisor)
{
    if (image.isNull())
        return false;
    // swscale has no context for other image formats; refusing them before the frame is
    // touched leaves its map state as the caller had it.
    const AVPixelFormat srcFormat = sws::fromQImageFormat(image.format());
    if (srcFormat == AV_PIX_FMT_NONE)
        return false;
    // A divisor below 1 would divide by zero (or flip the picture); it keeps every line.
    if (lineDivisor < 1)
        lineDivisor = 1;

    const bool callerMapped = frame.isMapped() && frame.mapMode() == QAbstractVideoBuffer::ReadWrite;
    if (!callerMapped) {
        frame.unmap();
        if (!frame.map(QAbstractVideoBuffer::ReadWrite))
            return false;
    }
    auto finish = [&](bool result) {
        if (!callerMapped)
            frame.unmap();
        return result;
    };

    const int fw = frame.width();
    const int fh = frame.height();
    const int iw = image.width();
    const int ih = image.height();
    if (x < 0)
        x += fw;
    if (y < 0)
        y += fh;
    x = qMax(x, 0);
    y = qMax(y, 0);

    int srcW = 0;
    int srcH = 0;
    if (enlarge) {
        const qint64 needW = qMax<qint64>(qint64(iw) + x, fw);
        const qint64 needH = qMax<qint64>(qint64(ih / lineDivisor) + y, fh);
        if (needW > fw || needH > fh) {
            VideoFrame grown;
            if (needW <= INT32_MAX && needH <= INT32_MAX)
                grown = frame.copy(0, 0, int(needW), int(needH), defaultBufferProperties, true);
            if (!grown.isNull())
                grown.setScale(frame.getScaleX(), frame.getScaleY());
            // The caller's frame is kept when the larger one cannot be made.
            if (!grown.map(QAbstractVideoBuffer::ReadWrite)) {
                odebug() << "qimage2videoFrame failed enlarging";
                return finish(false);
            }
            if (!callerMapped)
                frame.unmap();
            frame = grown;
        }
        srcW = iw;
        srcH = ih;
    } else {
        if (x >= fw || y >= fh) {
            // Unmapped even when the caller had mapped it.
            frame.unmap();
            return true;
        }
        // The area is the room left in the frame; it is cut to the image so that a smaller
        // image is never read past its last pixel.
        srcW = qMin(fw - x, iw);
        srcH = int(qMin<qint64>(qint64(fh - y) * lineDivisor, ih));
    }
    const int dstH = srcH / lineDivisor;
    if (srcW < 1 || dstH < 1)
        return finish(false);

    VideoFrameQt& body = *frame.body();
    const bool is422 = body.pixelFormat() == PixelFormats::Format_YUV422P;
    const AVPixelFormat dstFormat = is422 ? AV_PIX_FMT_YUV422P : AV_PIX_FMT_YUV420P;
    const int chromaRows = is422 ? 1 : 2;

    const PlaneView py = viewY(body), pu = viewU(body), pv = viewV(body);
    const int cx = x / 2, cy = y / chromaRows;
    const int cw = sws::chromaExtent(srcW, 2), ch = sws::chromaExtent(dstH, chromaRows);
    // A packed frame has no chroma planes, and foreign planes may be smaller than the
    // frame: write only where every plane holds the whole target area.
    if (!py.holds(x + srcW, y + dstH) || !pu.holds(cx + cw, cy + ch) || !pv.holds(cx + cw, cy + ch))
        return finish(false);

    // One context per thread, rebuilt by sws_getCachedContext when the geometry or formats
    // change and freed when the thread ends.
    thread_local ScaleContext cache;
    SwsContext*& importContext = cache.context;
    importContext = sws_getCachedContext(importContext, srcW, srcH, srcFormat, srcW, dstH, dstFormat, SWS_BILINEAR,
                                         nullptr, nullptr, nullptr);
    if (!importContext)
        return finish(false);

    // The target is a region of the frame: an overrun would paint over its pixels right of
    // the image, so swscale writes exactly the image's area.
    const uint8_t* const srcPlanes[4] = {image.constBits(), nullptr, nullptr, nullptr};
    const int srcStrides[4] = {int(image.bytesPerLine()), 0, 0, 0};
    uint8_t* const dstPlanes[4] = {py.at(x, y), pu.at(cx, cy), pv.at(cx, cy), nullptr};
    const int dstStrides[4] = {int(py.stride), int(pu.stride), int(pv.stride), 0};
    if (!sws::scale(importContext, sws::Planes::of(srcFormat, srcW, srcH, srcPlanes, srcStrides),
                    sws::Planes::of(dstFormat, srcW, dstH, dstPlanes, dstStrides), sws::Room::Exact))
        return finish(false);
    return finish(true);
}

bool qImageAlphaChannel2videoFrame(const QImage& image, VideoFrame& frame)
{
    if (image.isNull() || !image.hasAlphaChannel())
        return false;
    if (!frame.map(QAbstractVideoBuffer::ReadWrite))
        return false;
    const int w = image.width();
    const int h = image.height();
    const PlaneView alpha = viewA(*frame.body());
    // Pixels are read as 32-bit words with alpha in the top byte (Format_ARGB32 and its
    // premultiplied form); an image of another depth would be read past its rows.
    if (w != frame.width() || h != frame.height() || image.depth() != 32 || !alpha.holds(w, h)) {
        frame.unmap();
        return false;
    }
    for (int r = 0; r < h; ++r) {
        const QRgb* src = reinterpret_cast<const QRgb*>(image.constScanLine(r));
        unsigned char* dst = alpha.at(0, r);
        for (int i = 0; i < w; ++i)
            dst[i] = static_cast<unsigned char>(src[i] >> 24);
    }
    frame.unmap();
    return true;
}

}  // namespace orvo
