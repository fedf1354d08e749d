#pragma once
// Wavelet-compressed analog-server fields: 'n' (720 x 243) and 'p' (720 x 288), through the
// wavelet library. Scale level 0 gives the whole field marked with scale (1, 2) (lines are
// to be doubled on display); levels 1 and 2 give a quarter and a sixteenth of the frame,
// marked (1, 1). Levels above 2 are clamped to 2. With a maximal output size the decoder
// takes the smallest level whose picture, as shown, still covers that size, unless the level
// it was built with is smaller.
#include "orvo/decoder.h"

#include <memory>

namespace orvo {

class PlanePool;
class WaveletDecoder;

class ORVO_EXPORT DecoderWavelet : public AbstractDecoder {
public:
    DecoderWavelet(int width, int height, int scaleLevel);
    ~DecoderWavelet() override;
    // The level it was built with (the dispatcher keeps a decoder per level).
    int scaleLevel() const;
    void setMaxOutputSize(const QSize& size) override;
    // On a decoding failure the frame has already been replaced by the new, unfilled picture.
    bool decode(unsigned char* data, int size, orvo::VideoFrame& frame, bool iframe) override;
    unsigned char getFormat() const override;  // by the field's lines
    bool is_stream_based() const override { return false; }
    bool produces_shallow_images() const override { return false; }

private:
    int builtLevel_ = 0;
    std::unique_ptr<WaveletDecoder> wavelet_;  // at the level in use
    std::unique_ptr<PlanePool> pool_;  // frames are recycled between fields
};

}  // namespace orvo
