#pragma once
// MxPEG camera images (I-frames with a size, P-frames over the previous picture) through the
// MxPEG library (format code 'x' when the preference useMxPEGNative is on).
#include "orvo/decoder.h"

#include <memory>

namespace orvo {

class PlanePool;

// Stream decoder: the MxPEG library keeps the picture the images build up (a P-frame updates
// what the previous images left) and every image gives the whole picture in a frame of its
// own, never written again. P-frames before the first I-frame fail. One instance per stream,
// one thread at a time.
class ORVO_EXPORT DecoderMXPEG : public AbstractDecoder {
public:
    DecoderMXPEG();
    ~DecoderMXPEG() override;  // frees the MxPEG library's state
    bool decode(unsigned char* data, int size, orvo::VideoFrame& frame, bool iframe) override;
    unsigned char getFormat() const override;
    bool is_stream_based() const override { return true; }
    bool produces_shallow_images() const override { return true; }
    // With a size set, I-frames (frame header, no macroblock bitmask) reopen the library at the
    // reduced resolution that still covers it; the P-frames after one keep its factor.
    void setMaxOutputSize(const QSize& size) override { maxSize_ = size; }

    // Largest width and height of an I-frame; larger frame headers are refused before any
    // picture memory is allocated.
    static constexpr int kMaxSide = ORVO_MAX_PICTURE_SIDE;

private:
    void* state_ = nullptr;  // the MxPEG library's decoding state
    QSize size_;             // of the last I-frame's picture as decoded; invalid before the first
    QSize maxSize_;
    int lowres_ = 0;         // the state's reduced-resolution factor
    std::unique_ptr<PlanePool> pool_;
};

}  // namespace orvo
