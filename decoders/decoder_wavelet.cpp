#include "orvo/decoder_wavelet.h"

#include "backends/wavelet_decoder.h"
#include "decoders/format_table.h"
#include "frames/plane_pool.h"
#include "orvo/log.h"

#include <algorithm>

namespace orvo {

DecoderWavelet::DecoderWavelet(int width, int height, int scaleLevel)
    : wavelet_(std::make_unique<WaveletDecoder>(width, height, std::clamp(scaleLevel, 0, 2))),
      pool_(std::make_unique<PlanePool>())
{
}

DecoderWavelet::~DecoderWavelet() = default;

unsigned char DecoderWavelet::getFormat() const { return formats::field(wavelet_->height()).code; }

int DecoderWavelet::scaleLevel() const { return wavelet_->scaleLevel(); }

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
