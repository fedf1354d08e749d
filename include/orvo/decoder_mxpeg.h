#pragma once
// MxPEG camera images (I-frames with a size, P-frames over the previous picture)
// through the MxPEG library (format code 'x' when the preference useMxPEGNative is on).
#include "orvo/decoder.h"

namespace orvo {

class DecoderMXPEG : public AbstractDecoder {
public:
    DecoderMXPEG();
    ~DecoderMXPEG() override;
    bool decode(unsigned char* data, int size, orvo::VideoFrame& frame, bool iframe) override;
    unsigned char getFormat() const override { return 'x'; }
    bool is_stream_based() const override { return true; }
    bool produces_shallow_images() const override { return true; }

private:
    void* state_ = nullptr;     // the MxPEG library's decoding state
    orvo::VideoFrame reference_;  // every image is decoded into it; callers get a deep copy
};

}  // namespace orvo
