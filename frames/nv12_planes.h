#pragma once
// NV12 (a Y plane and one plane of interleaved U/V pairs, what video engines download) into
// the three planes of Format_YUV420P.
#include <cstdint>

namespace orvo {

// Copies the width x height picture's Y rows and splits its (width+1)/2 x (height+1)/2
// chroma pairs into `u` and `v`. Reads and writes only the picture's own bytes.
void deinterleaveNv12(const uint8_t* y, int yStride, const uint8_t* uv, int uvStride, int width, int height,
                      uint8_t* dstY, int dstYStride, uint8_t* dstU, int dstUStride, uint8_t* dstV, int dstVStride);

}  // namespace orvo
