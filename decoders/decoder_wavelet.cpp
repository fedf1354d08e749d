#include "orvo/decoder_wavelet.h"

#include "backends/wavelet_decoder.h"
#include "decoders/format_table.h"
#include "frames/plane_pool.h"
#include "orvo/log.h"

#include <algorithm>
#include <new>

namespace orvo {

namespace {

// The smallest level whose picture as shown still covers `max` (aspect kept): level 0 is the
// field with its lines doubled, level 1 the field's width halved, level 2 a quarter of
// the width and half the lines (the wavelet library's sizes).
int levelFor(int width, int lines, const QSize& max)
{
    const QSize shown(width, 2 * lines);
    if (max.isEmpty() || (shown.width() <= max.width() && shown.height() <= max.height()))
        return 0;
    const QSize target = shown.scaled(max, Qt::KeepAspectRatio);
    const QSize levels[] = {{width / 2, lines}, {width / 4, lines / 2}};
    int level = 0;
    for (const QSize& size : levels) {
        if (size.width() < target.width() || size.height() < target.height())
            break;
        ++level;
    }
    return level;
}

}  // namespace

DecoderWavelet::DecoderWavelet(int width, int height, int scaleLevel)
    : builtLevel_(std::clamp(scaleLevel, 0, 2)),
      wavelet_(std::make_unique<WaveletDecoder>(width, height, builtLevel_)),
      pool_(std::make_unique<PlanePool>())
{
}

void DecoderWavelet::setMaxOutputSize(const QSize& size)
{
    const int level = std::max(builtLevel_, levelFor(wavelet_->width(), wavelet_->height(), size));
    if (level == wavelet_->scaleLevel())
        return;
    // Images are independent: the next one is decoded at the new level.
    try {
        auto next = std::make_unique<WaveletDecoder>(wavelet_->width(), wavelet_->height(), level);
        if (next->isInitialized() || !wavelet_->isInitialized())
            wavelet_ = std::move(next);
    } catch (const std::bad_alloc&) {
        // out of memory: the level in use stays
    }
}

DecoderWavelet::~DecoderWavelet() = default;

unsigned char DecoderWavelet::getFormat() const { return formats::field(wavelet_->height()).code; }

int DecoderWavelet::scaleLevel() const { return builtLevel_; }

bool DecoderWavelet::decode(unsigned char* data, int size, orvo::VideoFrame& frame, bool)
{
    if (!wavelet_->isInitialized()) {
        odebug().noquote() << "Error: WaveletDecoder::decompress called for  not intialized WaveletDecoder.";
        return false;
    }
    // The rows the wavelet library writes: chroma rows of an even length.
    VideoFrame out;
    try {
        out = pool_->allocate(PlaneLayout{wavelet_->outputWidth(), wavelet_->outputHeight(), VideoFrame::Format_YUV420P,
                                          wavelet_->outputWidth(), wavelet_->chromaBytesPerLine(), false});
    } catch (const std::bad_alloc&) {
        return false;
    }
    if (out.isNull())
        return false;
    out.setScale(1, 1);
    bool ok = false;
    if (out.map(QAbstractVideoBuffer::WriteOnly)) {
        ok = wavelet_->decode(data, size, out.bitsY(), out.bitsU(), out.bitsV(), out.bitsY() + out.mappedBytesY(),
                             out.bitsU() + out.mappedBytesU(), out.bitsV() + out.mappedBytesV());
        out.unmap();
    }
    frame = out;
    if (ok)
        frame.setScale(1, wavelet_->scaleLevel() == 0 ? 2 : 1);
    else
        odebug().noquote() << QString("DecoderWavelet::decode/  wavelet decoding failed buflen=%1").arg(size);
    return ok;
}

}  // namespace orvo
