// Baseline for fuzz_decode_mjpeg: each input takes the route it takes there (option bit 0):
// libavcodec's Motion JPEG decoder, or Qt's JPEG reader on the picture after the 384-byte
// camera header, then swscale from 32-bit RGB to 4:2:0 planes, as a Qt program would (at the
// picture's own size: no even-size padding, no frames, no pools).
#include "fuzz/raw_decode.h"

#include <QBuffer>
#include <QImage>
#include <QImageReader>

namespace {

constexpr int kHeaderSize = 384;

// The picture that loads from the first SOI marker that gives one: the payload format puts
// the JPEG anywhere after the header.
bool loadAfterHeader(const QByteArray& payload, QImage& image)
{
    for (int i = kHeaderSize; i + 1 < payload.size(); ++i) {
        if (uchar(payload[i]) != 0xFF || uchar(payload[i + 1]) != 0xD8)
            continue;
        // The 1 Mpixel budget of fuzz builds, checked on the declared size as our path does.
        QByteArray bytes = QByteArray::fromRawData(payload.constData() + i, payload.size() - i);
        QBuffer device(&bytes);
        device.open(QIODevice::ReadOnly);
        QImageReader reader(&device, "JPEG");
        const QSize size = reader.size();
        if (size.isValid() && qint64(size.width()) * size.height() <= 1024 * 1024 && reader.read(&image))
            return true;
    }
    return false;
}

void rawQtDecode(const QByteArray& payload)
{
    QImage image;
    if (!loadAfterHeader(payload, image))
        return;
    image = image.convertToFormat(QImage::Format_RGB32);
    const int w = image.width(), h = image.height();
    SwsContext* sws = sws_getContext(w, h, AV_PIX_FMT_BGR0, w, h, AV_PIX_FMT_YUV420P, SWS_BILINEAR | SWS_ACCURATE_RND,
                                     nullptr, nullptr, nullptr);
    uint8_t* dst[4] = {};
    int stride[4] = {};
    // Rows with room for swscale's overrun, and slack after the last one.
    if (sws && av_image_alloc(dst, stride, w + 64, h + 2, AV_PIX_FMT_YUV420P, 64) >= 0) {
        const uint8_t* const src[4] = {image.constBits(), nullptr, nullptr, nullptr};
        const int srcStride[4] = {int(image.bytesPerLine()), 0, 0, 0};
        sws_scale(sws, src, srcStride, 0, h, dst, stride);
        av_freep(&dst[0]);
    }
    sws_freeContext(sws);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto in = orvo::fuzz::split(data, size);
    if (in.options & 1) {
        for (const QByteArray& chunk : in.chunks)
            rawQtDecode(chunk);
    } else {
        orvo::fuzz::rawDecode(AV_CODEC_ID_MJPEG, in);
    }
    return 0;
}
