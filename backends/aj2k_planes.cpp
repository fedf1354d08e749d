#include "backends/aj2k_planes.h"

#include <openjpeg.h>

extern "C" {
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cstring>
#include <new>

namespace orvo::aj2k {
namespace {

// One decoded component, read as 8-bit samples at clamped coordinates.
struct Component {
    const OPJ_INT32* data = nullptr;
    int w = 0, h = 0;
    int offset = 0;  // added to signed samples
    int down = 0;    // right shift for precisions above 8
    int up = 0;      // left shift for precisions below 8

    bool init(const opj_image_comp_t& c)
    {
        if (!c.data || c.w == 0 || c.h == 0 || c.w > 65535 || c.h > 65535 || c.prec < 1 || c.prec > 31)
            return false;
        data = c.data;
        w = int(c.w);
        h = int(c.h);
        offset = c.sgnd ? int(1u << (c.prec - 1)) : 0;
        down = c.prec > 8 ? int(c.prec) - 8 : 0;
        up = c.prec < 8 ? 8 - int(c.prec) : 0;
        return true;
    }
    const OPJ_INT32* row(int y) const { return data + size_t(std::min(y, h - 1)) * size_t(w); }
    int at(const OPJ_INT32* r, int x) const
    {
        const int64_t v = ((int64_t(r[std::min(x, w - 1)]) + offset) >> down) << up;
        return int(std::clamp<int64_t>(v, 0, 255));
    }
};

// The components of an image: Y (or R) first; colour when there are three or more.
struct Components {
    Component c[3];
    bool colour = false;

    bool init(const opj_image_t* image)
    {
        if (!image || image->numcomps < 1 || !image->comps || !c[0].init(image->comps[0]))
            return false;
        colour = image->numcomps >= 3;
        return !colour || (c[1].init(image->comps[1]) && c[2].init(image->comps[2]));
    }
};

// Source row of a component of `rows` rows for output row `row` of `H`.
inline int scaleRow(int row, int rows, int H) { return int(int64_t(row) * rows / H); }

void lumaPlane(const Component& c, int W, int H, uint8_t* y, int yBpl)
{
    for (int row = 0; row < H; ++row) {
        const OPJ_INT32* p = c.row(scaleRow(row, c.h, H));
        uint8_t* yl = y + size_t(row) * yBpl;
        if (c.w == W)
            for (int x = 0; x < W; ++x)
                yl[x] = uint8_t(c.at(p, x));
        else
            for (int x = 0; x < W; ++x)
                yl[x] = uint8_t(c.at(p, int(int64_t(x) * c.w / W)));
    }
}

// A chroma component of any subsampling to a 4:2:2 plane of (W+1)/2 x H.
void chromaPlane(const Component& c, int W, int H, uint8_t* out, int cBpl)
{
    const int cw = (W + 1) / 2;
    for (int row = 0; row < H; ++row) {
        const OPJ_INT32* p = c.row(scaleRow(row, c.h, H));
        uint8_t* line = out + size_t(row) * cBpl;
        if (c.w == W) {  // full width: mean of each pair
            for (int cx = 0; cx < cw; ++cx) {
                const int a = c.at(p, 2 * cx), b = c.at(p, std::min(2 * cx + 1, W - 1));
                line[cx] = uint8_t((a + b + 1) >> 1);
            }
        } else if (c.w == cw) {
            for (int cx = 0; cx < cw; ++cx)
                line[cx] = uint8_t(c.at(p, cx));
        } else {  // other subsamplings: nearest sample
            for (int cx = 0; cx < cw; ++cx)
                line[cx] = uint8_t(c.at(p, int(int64_t(cx) * c.w / cw)));
        }
    }
}

// RGB components of one size through swscale. The rows are handed over at an even width,
// the last column repeated: swscale's 4:2:2 chroma of an odd width takes its last pair from
// past the row.
bool rgbPlanes(const Components& k, int W, int H, const Planes422& planes, sws::Scaler& scaler,
               std::vector<uint8_t>& scratch)
{
    const int ew = W + (W & 1);
    const size_t stride = size_t(ew) * 3;
    try {
        scratch.resize(stride * size_t(H));
    } catch (const std::bad_alloc&) {
        return false;
    }
    for (int row = 0; row < H; ++row) {
        const OPJ_INT32 *pr = k.c[0].row(row), *pg = k.c[1].row(row), *pb = k.c[2].row(row);
        uint8_t* out = scratch.data() + size_t(row) * stride;
        for (int x = 0; x < ew; ++x, out += 3) {
            out[0] = uint8_t(k.c[0].at(pr, x));  // at() clamps x: the padding column repeats the last
            out[1] = uint8_t(k.c[1].at(pg, x));
            out[2] = uint8_t(k.c[2].at(pb, x));
        }
    }
    SwsContext* context =
        scaler.get({ew, H, AV_PIX_FMT_RGB24, false, ew, H, AV_PIX_FMT_YUV422P, SWS_BILINEAR | SWS_ACCURATE_RND});
    if (!context)
        return false;
    const uint8_t* const src[4] = {scratch.data(), nullptr, nullptr, nullptr};
    const int srcStride[4] = {int(stride), 0, 0, 0};
    uint8_t* const dst[4] = {planes.y, planes.u, planes.v, nullptr};
    const int dstStride[4] = {planes.yBytesPerLine, planes.uvBytesPerLine, planes.uvBytesPerLine, 0};
    return sws::scale(context, sws::Planes::of(AV_PIX_FMT_RGB24, ew, H, src, srcStride),
                      sws::Planes::of(AV_PIX_FMT_YUV422P, ew, H, dst, dstStride), planes.room);
}

}  // namespace

bool pictureSize(const opj_image_t* image, int* width, int* height)
{
    Components k;
    if (!k.init(image))
        return false;
    *width = k.c[0].w;
    *height = k.c[0].h;
    return true;
}

bool writePlanes(const opj_image_t* image, const Planes422& planes, sws::Scaler& scaler,
                 std::vector<uint8_t>& scratch)
{
    Components k;
    if (!k.init(image) || !planes.y || !planes.u || !planes.v)
        return false;
    const int W = k.c[0].w, H = k.c[0].h;
    const int ew = W + (W & 1);
    if (planes.yBytesPerLine < ew || planes.uvBytesPerLine < ew / 2)
        return false;
    const bool ycc = image->color_space == OPJ_CLRSPC_SYCC || image->color_space == OPJ_CLRSPC_EYCC;
    const auto sized = [&](const Component& c) { return c.w == W && c.h == H; };
    if (k.colour && !ycc && sized(k.c[1]) && sized(k.c[2]))
        return rgbPlanes(k, W, H, planes, scaler, scratch);
    lumaPlane(k.c[0], W, H, planes.y, planes.yBytesPerLine);
    if (k.colour) {
        chromaPlane(k.c[1], W, H, planes.u, planes.uvBytesPerLine);
        chromaPlane(k.c[2], W, H, planes.v, planes.uvBytesPerLine);
    } else {
        for (int row = 0; row < H; ++row) {
            std::memset(planes.u + size_t(row) * planes.uvBytesPerLine, 128, size_t(ew / 2));
            std::memset(planes.v + size_t(row) * planes.uvBytesPerLine, 128, size_t(ew / 2));
        }
    }
    return true;
}

}  // namespace orvo::aj2k
