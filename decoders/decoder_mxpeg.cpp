#include "orvo/decoder_mxpeg.h"

#include "backends/mxpeg.h"
#include "decoders/format_table.h"
#include "decoders/jpeg_header.h"
#include "frames/plane_pool.h"
#include "orvo/log.h"

#include <exception>

namespace orvo {

unsigned char DecoderMXPEG::getFormat() const { return formats::forKind(formats::Kind::MXPEG).code; }

namespace {

QString hexByte(const unsigned char* data, int size, int index)
{
    return index >= 0 && index < size ? QString::number(data[index], 16) : QString();
}

// Both exceptions of the MxPEG library end the image with the same two messages.
template <typename Call>
bool guarded(Call call)
{
    try {
        call();
        return true;
    } catch (const std::exception& e) {
        odebug().noquote() << "exception of type std::exception cought when getting the size of Mobotix/MxPEG image:"
                           << e.what();
    } catch (...) {
        odebug().noquote() << "unknown exception cought when getting the size of Mobotix/MxPEG image.";
    }
    return false;
}

}  // namespace

DecoderMXPEG::DecoderMXPEG() : pool_(std::make_unique<PlanePool>()) {}

DecoderMXPEG::~DecoderMXPEG() { mxpegFreeState(state_); }

bool DecoderMXPEG::decode(unsigned char* data, int size, orvo::VideoFrame& frame, bool)
{
    if (!data || size < 0)
        size = 0;

    // Effective length: up to the last D9 byte. The scan starts at the last byte of the
    // payload, not one past it, which would read outside the buffer; a payload without D9
    // keeps length 1.
    int last = size - 1;
    while (last > 0 && data[last] != 0xD9)
        --last;
    const int length = last + 1;

    if (size < 2 || data[0] != 0xFF || data[1] != 0xD8) {
        odebug().noquote()
            << QString("MxPEG: Data header incorrect: %1 %2").arg(hexByte(data, size, 0), hexByte(data, size, 1));
        return false;
    }
    if (length < 2 || data[length - 2] != 0xFF || data[length - 1] != 0xD9)
        odebug().noquote() << QString("MxPEG: Data footer incorrect: %1 %2")
                                  .arg(hexByte(data, size, length - 2), hexByte(data, size, length - 1));

    int w = 0, h = 0;
    if (!guarded([&] { xpegGetWH(data, length, &w, &h); }))
        return false;

    if (w == 0 || h == 0) {
        if (!size_.isValid()) {
            odebug().noquote() << "I need an i-frame first. This looks like a p-frame.";
            return false;
        }
    } else {
        if (w > kMaxSide || h > kMaxSide) {
            odebug().noquote() << QString("MxPEG: picture size %1x%2 out of range").arg(w).arg(h);
            return false;
        }
        // The factor changes only where the picture starts afresh; images with a size and a
        // bitmask patch the picture like P-frames.
        int keyW = 0, keyH = 0;
        if (mxpegKeyPictureSize(data, length, &keyW, &keyH)) {
            const int factor =
                maxSize_.isEmpty() ? 0 : lowresFactorFor(w, h, maxSize_.width(), maxSize_.height(), mxpegMaxLowres());
            if (factor != lowres_) {
                void* fresh = nullptr;
                if (!guarded([&] { fresh = mxpegCreateState(factor); }))
                    return false;
                mxpegFreeState(state_);
                state_ = fresh;
                lowres_ = factor;
            }
        }
        const int step = (1 << lowres_) - 1;
        size_ = QSize((w + step) >> lowres_, (h + step) >> lowres_);
        frame.setScale(1, 1);
    }

    // The library writes the whole picture in the planes' own layout: w and (w + 1) / 2 bytes
    // a row, so that odd widths keep their last chroma column.
    VideoFrame out;
    try {
        out = pool_->allocate(PlaneLayout{size_.width(), size_.height(), VideoFrame::Format_YUV420P, size_.width(),
                                          (size_.width() + 1) / 2, false});
    } catch (const std::bad_alloc&) {
        return false;
    }
    if (out.isNull() || !out.map(QAbstractVideoBuffer::WriteOnly))
        return false;
    const bool ok = guarded([&] {
        mxpeg2yuv(state_, reinterpret_cast<char*>(data), length, out.widthY(), out.heightY(), out.bitsY(),
                  out.bitsU(), out.bitsV());
    });
    out.setScale(1, 1);
    out.unmap();
    if (!ok)
        return false;
    frame = out;
    return true;
}

}  // namespace orvo
