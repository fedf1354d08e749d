#pragma once
// DecoderYUV: raw planar 4:2:0 pictures (code 'y') with a small big-endian header.
//
// Short form: width W (non-zero), height H, then the Y plane (W bytes a row), the U
// and V planes (W/2 bytes a row, H/2 rows). Long form: a zero, the rotations RY, RU,
// RV, then W and H; each target row is its source row rotated left by the plane's
// rotation. In both forms the planes are read from offset 4 and the payload must be
// exactly 4 + W*H + (W*H)/2 bytes: the long form's extra eight header bytes count as
// the start of the Y plane.
#include "orvo/decoder.h"

#include <memory>

namespace orvo {

class PlanePool;

class ORVO_EXPORT DecoderYUV : public AbstractDecoder {
public:
    DecoderYUV();
    ~DecoderYUV() override;
    // False, with `frame` untouched, when the size does not match the header, when a
    // rotation is not shorter than its row, or when the payload is shorter than its header.
    bool decode(unsigned char* data, int size, orvo::VideoFrame& frame, bool iframe) override;
    unsigned char getFormat() const override;
    bool is_stream_based() const override { return false; }
    bool produces_shallow_images() const override { return true; }

private:
    std::unique_ptr<PlanePool> pool_;  // frames are recycled between pictures of one size
};

}  // namespace orvo
