#include "orvo/decoder_yuv.h"

#include "decoders/format_table.h"
#include "frames/plane_pool.h"

#include <cstring>
#include <new>

namespace orvo {

DecoderYUV::DecoderYUV() : pool_(std::make_unique<PlanePool>()) {}

DecoderYUV::~DecoderYUV() = default;

unsigned char DecoderYUV::getFormat() const { return formats::forKind(formats::Kind::YUV).code; }

namespace {

int readBE16(const unsigned char* p) { return int(p[0]) << 8 | int(p[1]); }

// Copies `rows` rows of `width` bytes, each rotated left by `rotation` (< width, or 0).
void copyPlane(const unsigned char* src, int width, int rows, int rotation, unsigned char* dst, int dstPitch)
{
    if (rotation == 0 && width == dstPitch) {
        std::memcpy(dst, src, size_t(width) * size_t(rows));
        return;
    }
    for (int r = 0; r < rows; ++r, src += width, dst += dstPitch) {
        std::memcpy(dst, src + rotation, size_t(width - rotation));
        std::memcpy(dst + width - rotation, src, size_t(rotation));
    }
}

// The chroma plane of an odd-sized picture has one column/row more than the payload
// carries; repeat the last one so that no sample stays uninitialised.
void completePlane(unsigned char* plane, int pitch, int width, int rows, int fullWidth, int fullRows)
{
    if (width == 0 || rows == 0) {
        for (int r = 0; r < fullRows; ++r)
            std::memset(plane + size_t(r) * size_t(pitch), 128, size_t(fullWidth));
        return;
    }
    if (fullWidth > width)
        for (int r = 0; r < rows; ++r)
            plane[size_t(r) * size_t(pitch) + size_t(width)] = plane[size_t(r) * size_t(pitch) + size_t(width) - 1];
    if (fullRows > rows)
        std::memcpy(plane + size_t(rows) * size_t(pitch), plane + size_t(rows - 1) * size_t(pitch), size_t(fullWidth));
}

}  // namespace

bool DecoderYUV::decode(unsigned char* data, int size, orvo::VideoFrame& frame, bool)
{
    if (!data || size < 4)
        return false;
    const bool longForm = readBE16(data) == 0;
    if (longForm && size < 12)
        return false;
    const int ry = longForm ? readBE16(data + 2) : 0;
    const int ru = longForm ? readBE16(data + 4) : 0;
    const int rv = longForm ? readBE16(data + 6) : 0;
    const int w = longForm ? readBE16(data + 8) : readBE16(data);
    const int h = longForm ? readBE16(data + 10) : readBE16(data + 2);

    // 16-bit sides: the area needs 64 bits before it is compared with the payload.
    const qint64 area = qint64(w) * h;
    if (area + area / 2 != qint64(size) - 4)
        return false;
    const int cw = w / 2, ch = h / 2;
    if ((ry != 0 && ry >= w) || (ru != 0 && ru >= cw) || (rv != 0 && rv >= cw))
        return false;

    // Rows of a multiple of 16 bytes: the layout this format has always had.
    const int pitch = (w + 15) & ~15;
    const QSize chromaSize = VideoFrame::planeUVSize(QSize(w, h), VideoFrame::Format_YUV420P);
    VideoFrame out;
    try {
        out = pool_->allocate(PlaneLayout{w, h, VideoFrame::Format_YUV420P, pitch, pitch / 2, false});
    } catch (const std::bad_alloc&) {
        return false;
    }
    if (out.isNull())
        return false;
    out.setScale(1, 1);
    if (!out.map(QAbstractVideoBuffer::WriteOnly))
        return false;

    const unsigned char* src = data + 4;
    copyPlane(src, w, h, ry, out.bitsY(), int(out.bytesPerLineY()));
    const int uPitch = int(out.bytesPerLineU()), vPitch = int(out.bytesPerLineV());
    copyPlane(src + area, cw, ch, ru, out.bitsU(), uPitch);
    copyPlane(src + area + area / 4, cw, ch, rv, out.bitsV(), vPitch);
    completePlane(out.bitsU(), uPitch, cw, ch, chromaSize.width(), chromaSize.height());
    completePlane(out.bitsV(), vPitch, cw, ch, chromaSize.width(), chromaSize.height());
    out.unmap();
    frame = out;
    return true;
}

}  // namespace orvo
