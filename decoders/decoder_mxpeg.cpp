#include "orvo/decoder_mxpeg.h"

#include "backends/mxpeg.h"
#include "decoders/format_table.h"
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

DecoderMXPEG::DecoderMXPEG() = default;

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
        if (!reference_.isValid()) {
            odebug().noquote() << "I need an i-frame first. This looks like a p-frame.";
            return false;
        }
    } else {
        if (w > kMaxSide || h > kMaxSide) {
            odebug().noquote() << QString("MxPEG: picture size %1x%2 out of range").arg(w).arg(h);
            return false;
        }
        // Slack of 32 lines and columns around an even size, as the library's planes expect.
        const int ySize = (w + (w % 2) + 32) * (h + (h % 2) + 32);
        // Chroma lines hold (w + 1) / 2 samples, so that odd widths keep their last column.
        const int cPitch = (w + 1) / 2;
        auto* yb = new MemoryVideoBuffer(ySize, w, 128);
        auto* ub = new MemoryVideoBuffer(ySize / 4, cPitch, 128);
        auto* vb = new MemoryVideoBuffer(ySize / 4, cPitch, 128);
        reference_ = VideoFrame(yb, ub, vb, QSize(w, h), VideoFrame::Format_YUV420P);
        frame.setScale(1, 1);
    }

    if (!reference_.isValid() || !reference_.map(QAbstractVideoBuffer::ReadWrite))
        return false;
    const bool ok = guarded([&] {
        mxpeg2yuv(state_, reinterpret_cast<char*>(data), length, reference_.widthY(), reference_.heightY(),
                  reference_.bitsY(), reference_.bitsU(), reference_.bitsV());
    });
    reference_.setScale(1, 1);
    reference_.unmap();
    if (!ok)
        return false;
    frame = reference_.clone(16, false);
    return true;
}

}  // namespace orvo
