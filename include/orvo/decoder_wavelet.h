#pragma once
// Wavelet-compressed analog-server fields: 'n' (720 x 243) and 'p' (720 x 288).
#include "orvo/decoder.h"

#include <memory>

namespace orvo {

class DecoderWavelet : public AbstractDecoder {
public:
    DecoderWavelet(int width, int height, int scaleLevel);
    ~DecoderWavelet() override;
    int scaleLevel() const;
    bool decode(unsigned char* data, int size, orvo::VideoFrame& frame, bool iframe) override;
    unsigned char getFormat() const override;
    bool is_stream_based() const override { return false; }
    bool produces_shallow_images() const override { return false; }

private:
    int width_;
    int height_;
    int scaleLevel_;
};

}  // namespace orvo
