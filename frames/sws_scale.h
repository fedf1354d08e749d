#pragma once
// The one way this library calls sws_scale. swscale trusts pointers and strides, and the
// vector code of this FFmpeg release reaches past the rows it is given:
//  - it writes past the end of destination rows (by up to a few dozen bytes, and past the
//    last row) whenever the width is not a multiple of its vector size;
//  - it reads past the end of source rows, which on the last rows leaves the plane.
// scale() keeps both inside the memory that belongs to the picture, whatever its width.
#include <QtGlobal>

#include <cstdint>

extern "C" {
#include <libavutil/pixfmt.h>
}

struct SwsContext;

namespace orvo::sws {

// Slack swscale may write after the last row of a plane, and a row stride with room for the
// overrun of each row.
constexpr int kOutputSlack = 128;
inline qint64 outputRowStride(qint64 rowBytes) { return (rowBytes + 32 + 63) / 64 * 64; }

// Up to four planes and, for each, the bytes of one row and the rows that belong to the
// picture (0 for planes that are not used).
struct Planes {
    uint8_t* data[4] = {nullptr, nullptr, nullptr, nullptr};
    int stride[4] = {0, 0, 0, 0};
    int rowBytes[4] = {0, 0, 0, 0};
    int rows[4] = {0, 0, 0, 0};
    // As a source: rows may be read past their end, and past the last row, without leaving
    // the allocation. True of the pictures FFmpeg's decoders return (their buffers are
    // padded and aligned for exactly this); swscale then reads them in one call.
    bool overreadable = false;

    // A width x height picture of `format` at the given plane origins and strides; a format
    // unknown to FFmpeg, or a picture that needs a plane that is missing, gives no planes.
    static Planes of(AVPixelFormat format, int width, int height, const uint8_t* const data[4],
                     const int stride[4]);
    bool isNull() const { return !data[0] || rowBytes[0] < 1 || rows[0] < 1; }
};

// How the destination may be written.
enum class Room {
    // Only the picture's own bytes: swscale writes into padded scratch rows that are then
    // copied to their place (a region of a larger picture, memory a caller sized exactly).
    Exact,
    // Each plane is written whole, its rows in order (an overrun into the next row is
    // written over by that row), and at least kOutputSlack bytes of the same allocation
    // follow the end of its last row: swscale writes in place.
    Slack,
};

// Scales the whole source picture into the destination. False when the planes are null,
// memory runs out or swscale writes fewer rows than the destination has.
bool scale(SwsContext* context, const Planes& source, const Planes& destination, Room room);

// What a swscale context converts: source and destination geometry and layout, the source
// range (full-range input is brought to studio range) and the swscale flags.
struct Conversion {
    int srcWidth = 0;
    int srcHeight = 0;
    AVPixelFormat srcFormat = AV_PIX_FMT_NONE;
    bool srcFullRange = false;
    int dstWidth = 0;
    int dstHeight = 0;
    AVPixelFormat dstFormat = AV_PIX_FMT_NONE;
    int flags = 0;

    bool operator==(const Conversion& o) const
    {
        return srcWidth == o.srcWidth && srcHeight == o.srcHeight && srcFormat == o.srcFormat &&
               srcFullRange == o.srcFullRange && dstWidth == o.dstWidth && dstHeight == o.dstHeight &&
               dstFormat == o.dstFormat && flags == o.flags;
    }
};

// One swscale context owned by its user (a decoder, one conversion call), made again only
// when the conversion changes. Setting a context up costs more than converting a small
// picture, and clients recreate decoders for the same cameras: a context given up (by a
// change or by the destructor) is kept for the thread, a few of them, and one made for the
// same conversion on that thread is taken from there. Contexts are never shared, so no lock.
class Scaler {
public:
    Scaler() = default;
    ~Scaler();
    Scaler(const Scaler&) = delete;
    Scaler& operator=(const Scaler&) = delete;

    // The context for `conversion`, or null when swscale refuses it.
    SwsContext* get(const Conversion& conversion)
    {
        if (context_ && conversion == conversion_)
            return context_;
        return remake(conversion);
    }

private:
    SwsContext* remake(const Conversion& conversion);

    SwsContext* context_ = nullptr;
    Conversion conversion_;
};

}  // namespace orvo::sws
