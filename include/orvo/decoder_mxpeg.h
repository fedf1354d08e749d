#pragma once
// MxPEG camera images (I-frames with a size, P-frames over the previous picture) through the
// MxPEG library (format code 'x' when the preference useMxPEGNative is on).
#include "orvo/decoder.h"

namespace orvo {

// Stream decoder: every image is decoded into one reference picture that persists between
// images (a P-frame updates what the previous images left); callers get a deep copy of it.
// P-frames before the first I-frame fail. One instance per stream, one thread at a time.
class ORVO_EXPORT DecoderMXPEG : public AbstractDecoder {
public:
    DecoderMXPEG();
    ~DecoderMXPEG() override;  // frees the MxPEG library's state
    bool decode(unsigned char* data, int size, orvo::VideoFrame& frame, bool iframe) override;
    unsigned char getFormat() const override;
    bool is_stream_based() const override { return true; }
    bool produces_shallow_images() const override { return true; }

    // Largest width and height of an I-frame; larger frame headers are refused before any
    // picture memory is allocated.
    static constexpr int kMaxSide = ORVO_MAX_PICTURE_SIDE;

private:
    void* state_ = nullptr;       // the MxPEG library's decoding state
    orvo::VideoFrame reference_;  // every image is decoded into it; callers get a deep copy
};

}  // namespace orvo
