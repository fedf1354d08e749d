// A region of a planar frame rendered into a 32-bit RGB QImage through swscale.
#include "frames/plane_view.h"
#include "frames/sws_formats.h"
#include "orvo/scale_context.h"
#include "orvo/video_frame.h"
#include "orvo/log.h"


extern "C" {
#include <libswscale/swscale.h>
}

namespace orvo {

namespace {
void freeImageData(void* data) { av_free(data); }

// A Format_RGB32 image whose rows have the padded stride and slack that swscale's vector code
// writes into (see sws_scale.h), so that it converts straight into the image. QImage keeps
// sizes and byte counts in int; larger requests give a null image.
QImage rgb32Image(qint64 width, qint64 height)
{
    if (width < 1 || height < 1 || width > INT32_MAX / 4 || height > INT32_MAX)
        return QImage();
    const qint64 stride = sws::outputRowStride(width * 4);
    const qint64 bytes = stride * height + sws::kOutputSlack;
    if (stride > INT32_MAX || bytes > INT32_MAX)
        return QImage();
    uchar* data = static_cast<uchar*>(av_malloc(size_t(bytes)));
    if (!data)
        return QImage();
    QImage image(data, int(width), int(height), int(stride), QImage::Format_RGB32, freeImageData, data);
    if (image.isNull())
        av_free(data);
    return image;
}
}  // namespace

QImage VideoFrameQt::convertToQImage(OrvoPixelFormat /*format: the output is always Format_RGB32*/, int x, int y,
                                     int width, int height, int imageWidth, int imageHeight, int widthNumerator,
                                     int widthDenominator, int heightNumerator, int heightDenominator) const
{
    QImage result;
    if (imageWidth > 0 && imageHeight > 0)
        result = rgb32Image(imageWidth, imageHeight);
    if (!planeY.isValid())
        return result;

    // From here on a failure returns the result as it stands and leaves a mapping made
    // here in place.
    const bool wasMapped = planeY.isMapped() && planeU.isMapped() && planeV.isMapped();
    if (!wasMapped)
        map(QAbstractVideoBuffer::ReadOnly);

    int rw = 0, rh = 0;
    if (!sws::resolveRegion(widthY(), heightY(), x, y, width, height, rw, rh))
        return result;
    if (rw < 1 || rh < 1)
        return result;

    const sws::PlanarLayout src = sws::planarLayout(pixelFormat());
    const int cx = x / src.dx, cy = y / src.dy;
    const int cw = sws::chromaExtent(rw, src.dx), ch = sws::chromaExtent(rh, src.dy);
    const PlaneView py = viewY(*this), pu = viewU(*this), pv = viewV(*this);
    // swscale trusts pointers and strides: a frame without chroma planes (a packed Qt
    // frame) or with planes smaller than their geometry claims is not converted
    // (checked before an output image is made for it).
    if (!py.holds(x + rw, y + rh) || !pu.holds(cx + cw, cy + ch) || !pv.holds(cx + cw, cy + ch))
        return result;

    if (result.isNull() || result.format() != QImage::Format_RGB32 || result.width() < 1 || result.height() < 1) {
        const qint64 ow = widthNumerator > 0 && widthDenominator > 0 ? qint64(rw) * widthNumerator / widthDenominator
                                                                     : qint64(scaleX_) * rw;
        const qint64 oh = heightNumerator > 0 && heightDenominator > 0
                              ? qint64(rh) * heightNumerator / heightDenominator
                              : qint64(scaleY_) * rh;
        if (ow < 1 || oh < 1)
            return result;
        result = rgb32Image(ow, oh);
        if (result.isNull())
            return result;
    }


    // One context per thread, reused while consecutive conversions keep their geometry (a
    // stream drawn frame by frame) and freed when the thread ends.
    thread_local ScaleContext cache;
    SwsContext*& qimageContext = cache.context;
    qimageContext = sws_getCachedContext(qimageContext, rw, rh, src.format, result.width(), result.height(),
                                         sws::kQImageRgb32, SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (!qimageContext) {
        odebug() << "swscale context is null";
        return result;
    }

    const uint8_t* const srcPlanes[4] = {py.at(x, y), pu.at(cx, cy), pv.at(cx, cy), nullptr};
    const int srcStrides[4] = {int(py.stride), int(pu.stride), int(pv.stride), 0};
    uint8_t* const dstPlanes[4] = {result.bits(), nullptr, nullptr, nullptr};
    const int dstStrides[4] = {int(result.bytesPerLine()), 0, 0, 0};
    // The image has padded rows and slack (rgb32Image): swscale writes straight into it.
    if (!sws::scale(qimageContext, sws::Planes::of(src.format, rw, rh, srcPlanes, srcStrides),
                    sws::Planes::of(sws::kQImageRgb32, result.width(), result.height(), dstPlanes, dstStrides),
                    sws::Room::Slack))
        return result;

    if (!wasMapped)
        unmap();
    return result;
}

QImage VideoFrame::convertToQImage(OrvoPixelFormat format, int x, int y, int width, int height, int imageWidth,
                                   int imageHeight, int widthNumerator, int widthDenominator, int heightNumerator,
                                   int heightDenominator) const
{
    if (!d)
        return QImage();
    return d->convertToQImage(format, x, y, width, height, imageWidth, imageHeight, widthNumerator,
                              widthDenominator, heightNumerator, heightDenominator);
}

}  // namespace orvo
