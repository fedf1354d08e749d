#include "orvo/decoder_jpeg.h"
#include "orvo/log.h"

#include "frames/sws_scale.h"

#include <QBuffer>
#include <QByteArray>
#include <QImage>
#include <QImageReader>

#include <algorithm>
#include <cstring>
#include <vector>

extern "C" {
#include <libswscale/swscale.h>
}

namespace orvo {

namespace {

constexpr int kHeaderSize = 384;

// QImage::loadFromData(jpeg, n, "JPEG") with the declared size checked first: Qt would
// allocate the whole picture before reading a single scan.
bool loadJpeg(const uchar* jpeg, int n, QImage& image)
{
    QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char*>(jpeg), n);
    QBuffer device(&bytes);
    device.open(QIODevice::ReadOnly);
    QImageReader reader(&device, "JPEG");
    const QSize size = reader.size();
    if (!size.isValid() || qint64(size.width()) * size.height() > AbstractDecoder::kMaxPixels)
        return false;
    return reader.read(&image);
}

// The loaded picture as a Format_YUV420P frame of its size (BT.601 video range, the
// convention of the library's other frames). Null frame on failure.
VideoFrame toYuv420(const QImage& loaded)
{
    const int w = loaded.width(), h = loaded.height();
    if (loaded.isNull() || w <= 0 || h <= 0)
        return VideoFrame();
    // swscale mis-weights the last chroma column and row of odd sizes, so the picture is
    // converted at an even size with its last column and row repeated, then cropped.
    const int ew = w + (w & 1), eh = h + (h & 1);
    QImage image = loaded.convertToFormat(QImage::Format_RGB32);  // B,G,R,X bytes on little-endian
    if (ew != w || eh != h) {
        QImage padded(ew, eh, QImage::Format_RGB32);
        if (padded.isNull())
            return VideoFrame();
        for (int y = 0; y < eh; ++y) {
            const auto* src = reinterpret_cast<const QRgb*>(image.constScanLine(std::min(y, h - 1)));
            auto* dst = reinterpret_cast<QRgb*>(padded.scanLine(y));
            std::copy(src, src + w, dst);
            dst[ew - 1] = src[w - 1];
        }
        image = padded;
    }
    const int cw = ew / 2, ch = eh / 2;
    // Planes with padded rows and slack, so that swscale writes straight into them; the
    // picture is then cropped into the frame.
    const int ys = int(sws::outputRowStride(ew)), cs = int(sws::outputRowStride(cw));
    const size_t lumaBytes = size_t(ys) * eh + sws::kOutputSlack, chromaBytes = size_t(cs) * ch + sws::kOutputSlack;
    std::vector<uint8_t> planes(lumaBytes + 2 * chromaBytes);
    uint8_t* const dst[4] = {planes.data(), planes.data() + lumaBytes, planes.data() + lumaBytes + chromaBytes,
                             nullptr};
    const int dstStride[4] = {ys, cs, cs, 0};
    SwsContext* sws = sws_getContext(ew, eh, AV_PIX_FMT_BGR0, ew, eh, AV_PIX_FMT_YUV420P,
                                     SWS_BILINEAR | SWS_ACCURATE_RND, nullptr, nullptr, nullptr);
    if (!sws)
        return VideoFrame();
    const uint8_t* const src[4] = {image.constBits(), nullptr, nullptr, nullptr};
    const int srcStride[4] = {int(image.bytesPerLine()), 0, 0, 0};
    const bool converted = sws::scale(sws, sws::Planes::of(AV_PIX_FMT_BGR0, ew, eh, src, srcStride),
                                      sws::Planes::of(AV_PIX_FMT_YUV420P, ew, eh, dst, dstStride), sws::Room::Slack);
    sws_freeContext(sws);
    VideoFrame frame(w, h, VideoFrame::Format_YUV420P, defaultBufferProperties);
    if (!converted || !frame.map(QAbstractVideoBuffer::WriteOnly))
        return VideoFrame();
    for (int y = 0; y < h; ++y)
        std::memcpy(frame.lineY(y), dst[0] + size_t(y) * ys, size_t(w));
    for (int y = 0; y < ch; ++y) {
        std::memcpy(frame.lineU(y), dst[1] + size_t(y) * cs, size_t(cw));
        std::memcpy(frame.lineV(y), dst[2] + size_t(y) * cs, size_t(cw));
    }
    frame.unmap();
    frame.setScale(1, 1);
    return frame;
}

// The caller's frame changes only when the conversion succeeded.
bool fill(VideoFrame& frame, const QImage& image)
{
    VideoFrame converted = toYuv420(image);
    if (converted.isNull())
        return false;
    frame = converted;
    return true;
}

}  // namespace

bool DecoderJPEG::decode(unsigned char* data, int size, orvo::VideoFrame& frame, bool)
{
    const int n = size - kHeaderSize;
    if (!data || n <= 0)  // nothing after the header (retrying there would read past the payload)
        return false;
    const QByteArray payload(reinterpret_cast<const char*>(data), size);
    const uchar* jpeg = reinterpret_cast<const uchar*>(payload.constData()) + kHeaderSize;

    // The JPEG may start anywhere after the header. Only offsets holding an SOI marker can
    // load, so the others are skipped without asking Qt: same outcome, linear time.
    QImage image;
    for (int i = 0; i < n; ++i) {
        if (i + 1 < n && jpeg[i] == 0xFF && jpeg[i + 1] == 0xD8 && loadJpeg(jpeg + i, n - i, image)) {
            odebug() << "found i=" << i;
            return fill(frame, image);
        }
        if (i % 1000 == 0)
            odebug() << "i=" << i;
    }
    return loadJpeg(jpeg, n, image) && fill(frame, image);
}

}  // namespace orvo
