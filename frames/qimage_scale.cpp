#include "frames/qimage_scale.h"

#include "frames/sws_formats.h"
#include "frames/sws_scale.h"

namespace orvo {

bool scaleImageIntoFrame(const QImage& image, VideoFrame& frame)
{
    if (image.isNull() || image.format() == QImage::Format_Invalid)
        return false;
    if (frame.mapMode() == QAbstractVideoBuffer::ReadOnly || !frame.areSeparatePlanes())
        return false;
    // Any other layout is read as 24-bit RGB, so it is brought into that layout first.
    QImage source = image;
    AVPixelFormat sourceFormat = sws::fromQImageFormat(image.format());
    if (sourceFormat == AV_PIX_FMT_NONE) {
        source = image.convertToFormat(QImage::Format_RGB888);
        sourceFormat = AV_PIX_FMT_RGB24;
    }
    const bool wasMapped = frame.isMapped();
    if (!wasMapped && !frame.map(QAbstractVideoBuffer::WriteOnly))
        return false;
    bool ok = false;
    const sws::Planes target = sws::framePlanes(frame);
    sws::Scaler scaler;
    SwsContext* s = target.isNull() ? nullptr
                                    : scaler.get({source.width(), source.height(), sourceFormat, false, frame.width(),
                                                  frame.height(), sws::planarLayout(frame.pixelFormat()).format, 0});
    // The frame's planes belong to the caller: swscale writes exactly their pixels.
    if (s)
        ok = sws::scale(s, sws::imagePlanes(source, sourceFormat), target, sws::Room::Exact);
    if (!wasMapped)
        frame.unmap();
    return ok;
}

bool scaleFrameIntoImage(const VideoFrame& frame, QImage& image)
{
    if (!frame.isValid() || !frame.isMapped() || !frame.areSeparatePlanes())
        return false;
    if (image.isNull() || image.format() == QImage::Format_Invalid)
        return false;
    if (!frame.bitsY() || !frame.bitsU() || !frame.bitsV())
        return false;
    // Written as 24-bit RGB into any other layout, through a converted copy.
    AVPixelFormat targetFormat = sws::fromQImageFormat(image.format());
    if (image.format() == QImage::Format_RGB32)
        targetFormat = sws::kQImageRgb32;
    const bool direct = targetFormat != AV_PIX_FMT_NONE;
    QImage converted;
    if (!direct) {
        converted = QImage(image.size(), QImage::Format_RGB888);
        targetFormat = AV_PIX_FMT_RGB24;
    }
    QImage& target = direct ? image : converted;
    if (target.isNull())
        return false;
    const sws::Planes source = sws::framePlanes(frame);
    const sws::Planes destination = sws::imagePlanes(target, targetFormat);
    if (source.isNull() || destination.isNull())
        return false;
    sws::Scaler scaler;
    SwsContext* s = scaler.get({frame.width(), frame.height(), sws::planarLayout(frame.pixelFormat()).format, false,
                                target.width(), target.height(), targetFormat, 0});
    // The image belongs to the caller: swscale writes exactly its pixels.
    if (!sws::scale(s, source, destination, sws::Room::Exact))
        return false;
    if (!direct)
        image = converted.convertToFormat(image.format());
    return true;
}

}  // namespace orvo
