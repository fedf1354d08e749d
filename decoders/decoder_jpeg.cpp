#include "orvo/decoder_jpeg.h"

#include "decoders/format_table.h"
#include "orvo/log.h"

#include "frames/plane_pool.h"
#include "frames/sws_scale.h"

#include <QBuffer>
#include <QByteArray>
#include <QImage>
#include <QImageReader>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

extern "C" {
#include <libswscale/swscale.h>
}

namespace orvo {

unsigned char DecoderJPEG::getFormat() const { return formats::forKind(formats::Kind::JPEG).code; }

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
VideoFrame toYuv420(const QImage& loaded, PlanePool& pool, sws::Scaler& scaler)
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
    SwsContext* context =
        scaler.get({ew, eh, AV_PIX_FMT_BGR0, false, ew, eh, AV_PIX_FMT_YUV420P, SWS_BILINEAR | SWS_ACCURATE_RND});
    if (!context)
        return VideoFrame();
    const uint8_t* const src[4] = {image.constBits(), nullptr, nullptr, nullptr};
    const int srcStride[4] = {int(image.bytesPerLine()), 0, 0, 0};
    const sws::Planes source = sws::Planes::of(AV_PIX_FMT_BGR0, ew, eh, src, srcStride);
    VideoFrame frame = pool.allocate(PlaneLayout::standard(w, h));
    if (!frame.map(QAbstractVideoBuffer::WriteOnly))
        return VideoFrame();
    bool converted = false;
    if (ew == w && eh == h) {
        // Even sizes: straight into the frame (pooled planes have swscale's slack).
        const int chromaStride = int(frame.bytesPerLineU());
        uint8_t* const dst[4] = {frame.bitsY(), frame.bitsU(), frame.bitsV(), nullptr};
        const int dstStride[4] = {int(frame.bytesPerLineY()), chromaStride, chromaStride, 0};
        converted = sws::scale(context, source, sws::Planes::of(AV_PIX_FMT_YUV420P, w, h, dst, dstStride),
                               sws::Room::Slack);
    } else {
        // Odd sizes: into padded scratch planes at the even size, then cropped into the frame.
        const int cw = ew / 2, ch = eh / 2;
        const int ys = int(sws::outputRowStride(ew)), cs = int(sws::outputRowStride(cw));
        const size_t lumaBytes = size_t(ys) * eh + sws::kOutputSlack;
        const size_t chromaBytes = size_t(cs) * ch + sws::kOutputSlack;
        std::unique_ptr<uint8_t[]> planes(new (std::nothrow) uint8_t[lumaBytes + 2 * chromaBytes]);
        if (planes) {
            uint8_t* const dst[4] = {planes.get(), planes.get() + lumaBytes, planes.get() + lumaBytes + chromaBytes,
                                     nullptr};
            const int dstStride[4] = {ys, cs, cs, 0};
            converted = sws::scale(context, source, sws::Planes::of(AV_PIX_FMT_YUV420P, ew, eh, dst, dstStride),
                                   sws::Room::Slack);
            if (converted) {
                for (int y = 0; y < h; ++y)
                    std::memcpy(frame.lineY(y), dst[0] + size_t(y) * ys, size_t(w));
                for (int y = 0; y < ch; ++y) {
                    std::memcpy(frame.lineU(y), dst[1] + size_t(y) * cs, size_t(cw));
                    std::memcpy(frame.lineV(y), dst[2] + size_t(y) * cs, size_t(cw));
                }
            }
        }
    }
    frame.unmap();
    if (!converted)
        return VideoFrame();
    frame.setScale(1, 1);
    return frame;
}

}  // namespace

// Frames recycled between pictures and the conversion context kept: cameras send one
// size for a long time.
struct DecoderJPEG::State {
    PlanePool pool;
    sws::Scaler scaler;
};

DecoderJPEG::DecoderJPEG() : state_(std::make_unique<State>()) {}

DecoderJPEG::~DecoderJPEG() = default;

bool DecoderJPEG::decode(unsigned char* data, int size, orvo::VideoFrame& frame, bool)
{
    const int n = size - kHeaderSize;
    if (!data || n <= 0)  // nothing after the header (retrying there would read past the payload)
        return false;
    const uchar* jpeg = data + kHeaderSize;

    // The JPEG may start anywhere after the header. Only offsets holding an SOI marker can
    // load (Qt's reader refuses anything else), so the others are skipped without asking
    // Qt: same outcome, linear time. The caller's frame changes only on success.
    QImage image;
    for (int i = 0; i + 1 < n; ++i) {
        if (jpeg[i] == 0xFF && jpeg[i + 1] == 0xD8 && loadJpeg(jpeg + i, n - i, image)) {
            odebug() << "found i=" << i;
            VideoFrame converted = toYuv420(image, state_->pool, state_->scaler);
            if (converted.isNull())
                return false;
            frame = converted;
            return true;
        }
        if (i % 1000 == 0)
            odebug() << "i=" << i;
    }
    return false;
}

}  // namespace orvo
