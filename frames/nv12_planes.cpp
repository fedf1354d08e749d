#include "frames/nv12_planes.h"

#include <cstddef>
#include <cstring>

namespace orvo {

void deinterleaveNv12(const uint8_t* y, int yStride, const uint8_t* uv, int uvStride, int width, int height,
                      uint8_t* dstY, int dstYStride, uint8_t* dstU, int dstUStride, uint8_t* dstV, int dstVStride)
{
    if (width <= 0 || height <= 0)
        return;
    for (int row = 0; row < height; ++row)
        std::memcpy(dstY + std::ptrdiff_t(row) * dstYStride, y + std::ptrdiff_t(row) * yStride, size_t(width));
    const int chromaWidth = (width + 1) / 2, chromaHeight = (height + 1) / 2;
    for (int row = 0; row < chromaHeight; ++row) {
        const uint8_t* pair = uv + std::ptrdiff_t(row) * uvStride;
        uint8_t* u = dstU + std::ptrdiff_t(row) * dstUStride;
        uint8_t* v = dstV + std::ptrdiff_t(row) * dstVStride;
        for (int i = 0; i < chromaWidth; ++i) {  // the compiler vectorises this loop
            u[i] = pair[2 * i];
            v[i] = pair[2 * i + 1];
        }
    }
}

}  // namespace orvo
