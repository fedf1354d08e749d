#pragma once
// The last step of aj2k's decoding: OpenJPEG's decoded components (32-bit samples of any
// precision, any subsampling) written into 8-bit 4:2:2 planes. RGB is converted to BT.601
// video-range YCbCr through swscale, as the library converts colour everywhere; YCbCr
// components are resampled to 4:2:2 as they are (pairs averaged, rows repeated); one or two
// components are greyscale (U and V 128). Samples of other precisions are shifted to 8 bits.
#include "frames/sws_scale.h"

#include <cstdint>
#include <vector>

typedef struct opj_image opj_image_t;

namespace orvo::aj2k {

// Destination planes: Y of width x height samples, U and V of (width + 1) / 2 x height. The
// planes are written at the even width (width + 1) & ~1, so rows must hold that many bytes
// (Y) and half of it (U, V). `room` says whether swscale may write behind the last row.
struct Planes422 {
    uint8_t* y = nullptr;
    int yBytesPerLine = 0;
    uint8_t* u = nullptr;
    uint8_t* v = nullptr;
    int uvBytesPerLine = 0;
    sws::Room room = sws::Room::Exact;
};

// Size of the picture `image` holds (that of its first component); false when its components
// make no picture: none, no samples, more than 65535 a side, unknown precisions, or colour
// components missing.
bool pictureSize(const opj_image_t* image, int* width, int* height);

// Writes `image` into `planes`; false when its components make no picture, a row is too short
// for the layout above, or memory runs out. `scratch` holds the RGB rows for swscale and keeps
// its memory for the next picture; `scaler` keeps its context likewise.
bool writePlanes(const opj_image_t* image, const Planes422& planes, sws::Scaler& scaler,
                 std::vector<uint8_t>& scratch);

}  // namespace orvo::aj2k
