#pragma once
// How frames and QImages look to swscale. Private to the frame operations.
#include "orvo/video_buffer.h"

#include "frames/plane_view.h"

#include <QImage>
#include <cstring>

extern "C" {
#include <libavutil/mem.h>
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

namespace orvo::sws {

// A planar frame as swscale sees it: its pixel format and the chroma decimation
// (dx horizontally, dy vertically) that places a region's origin in the chroma planes.
struct PlanarLayout {
    AVPixelFormat format;
    int dx;
    int dy;
};

// Format_YUV420P and Format_YUV422P are themselves; every other format of a split frame
// carries full-size chroma planes and is scaled as 4:4:4.
inline PlanarLayout planarLayout(OrvoPixelFormat format)
{
    switch (format) {
    case PixelFormats::Format_YUV420P: return {AV_PIX_FMT_YUV420P, 2, 2};
    case PixelFormats::Format_YUV422P: return {AV_PIX_FMT_YUV422P, 2, 1};
    default: return {AV_PIX_FMT_YUV444P, 1, 1};
    }
}

// The three planar formats that format conversion, copy and blending accept.
inline bool isPlanarYuv(OrvoPixelFormat format)
{
    return format == PixelFormats::Format_YUV420P || format == PixelFormats::Format_YUV422P ||
           format == PixelFormats::Format_YUV444P;
}

// Qt stores Format_RGB32 / Format_ARGB32 pixels as 32-bit words 0xAARRGGBB; on this
// little-endian target that is B, G, R, A in memory. Format_RGB888 is R, G, B bytes.
inline AVPixelFormat fromQImageFormat(QImage::Format format)
{
    switch (format) {
    case QImage::Format_RGB32: return AV_PIX_FMT_BGR0;  // the top byte is 0xFF and carries no alpha
    case QImage::Format_ARGB32: return AV_PIX_FMT_BGRA;
    case QImage::Format_RGB888: return AV_PIX_FMT_RGB24;
    default: return AV_PIX_FMT_NONE;
    }
}

// The memory order of QImage::Format_RGB32 as an output format (the top byte is written 0xFF).
constexpr AVPixelFormat kQImageRgb32 = AV_PIX_FMT_BGRA;

// Ceiling division for the chroma extent of a region of `n` luma samples.
// The source region of scaleTo and convertToQImage in a W x H picture: a negative origin
// counts from the right / bottom, a negative size means the whole side, and the region is
// cut at the picture's edge. False when the origin is still negative.
inline bool resolveRegion(int W, int H, int& x, int& y, int width, int height, int& rw, int& rh)
{
    if (x < 0)
        x += W;
    if (y < 0)
        y += H;
    if (x < 0 || y < 0)
        return false;
    rw = qMin(width < 0 ? W : width, W - x);
    rh = qMin(height < 0 ? H : height, H - y);
    return true;
}

inline int chromaExtent(int n, int decimation) { return (n + decimation - 1) / decimation; }

// swscale's vector code in this FFmpeg release writes past the end of destination rows (by up to
// a few dozen bytes, and past the last row) whenever the width is not a multiple of its vector
// size. Its destinations are therefore always rows with a padded stride followed by slack: either
// memory we allocate for the purpose (outputRowStride / kOutputSlack) or a ScratchPlanes set whose
// rows are then copied to their real place at their exact width.
constexpr int kOutputSlack = 128;
inline qint64 outputRowStride(qint64 rowBytes) { return (rowBytes + 32 + 63) / 64 * 64; }

class ScratchPlanes {
public:
    ScratchPlanes() = default;
    ~ScratchPlanes() { av_free(buffer_); }
    ScratchPlanes(const ScratchPlanes&) = delete;
    ScratchPlanes& operator=(const ScratchPlanes&) = delete;

    // Three planes: luma w x h and chroma cw x ch, one byte per sample. False when out of memory.
    bool allocate(int w, int h, int cw, int ch)
    {
        const qint64 sizes[3] = {outputRowStride(w) * h, outputRowStride(cw) * ch, outputRowStride(cw) * ch};
        const qint64 total = sizes[0] + sizes[1] + sizes[2] + 3 * kOutputSlack;
        if (w < 1 || h < 1 || cw < 1 || ch < 1 || total > INT32_MAX)
            return false;
        buffer_ = static_cast<uint8_t*>(av_malloc(size_t(total)));
        if (!buffer_)
            return false;
        uint8_t* p = buffer_;
        const int widths[3] = {w, cw, cw};
        const int heights[3] = {h, ch, ch};
        for (int i = 0; i < 3; ++i) {
            data[i] = p;
            stride[i] = int(outputRowStride(widths[i]));
            width_[i] = widths[i];
            height_[i] = heights[i];
            p += sizes[i] + kOutputSlack;
        }
        return true;
    }
    // Copies plane i (rows at their exact width) to `dst` at (x, y); the caller has checked that
    // `dst` holds that area.
    void copyTo(int i, const PlaneView& dst, int x, int y) const
    {
        for (int r = 0; r < height_[i]; ++r)
            memcpy(dst.at(x, y + r), data[i] + qint64(r) * stride[i], size_t(width_[i]));
    }

    uint8_t* data[4] = {nullptr, nullptr, nullptr, nullptr};
    int stride[4] = {0, 0, 0, 0};

private:
    uint8_t* buffer_ = nullptr;
    int width_[3] = {0, 0, 0};
    int height_[3] = {0, 0, 0};
};

// The same vector code reads past the end of source rows. Within a plane that only touches the
// next row, but on the last rows it would read past the plane's memory. scaleSafely therefore
// feeds the last rows as a second slice from a padded copy; the output is the same as one call.
// `rowBytes` are the bytes swscale takes from one row of each source plane (0 for unused planes),
// `chromaRows` the vertical chroma decimation of the source (1 or 2).
inline bool scaleSafely(SwsContext* context, const uint8_t* const src[4], const int srcStride[4],
                        const int rowBytes[4], int chromaRows, int srcH, uint8_t* const dst[4],
                        const int dstStride[4])
{
    // Enough tail rows that an overread starting in the first slice cannot leave the plane, and an
    // even slice boundary (the converters want slices aligned to chroma row pairs).
    int tail = 2;
    while (tail < srcH && qint64(tail) * qMax(srcStride[0], 1) < 4 * kOutputSlack)
        tail += 2;
    const int head = srcH > tail ? srcH - tail : 0;
    tail = srcH - head;

    qint64 strides[4] = {0, 0, 0, 0};
    qint64 rows[4] = {0, 0, 0, 0};
    qint64 offsets[4] = {0, 0, 0, 0};
    qint64 total = 0;
    for (int i = 0; i < 4; ++i) {
        if (!src[i] || rowBytes[i] < 1)
            continue;
        const bool chroma = i == 1 || i == 2;
        const int first = chroma ? head / chromaRows : head;
        const int last = chroma ? chromaExtent(srcH, chromaRows) : srcH;
        rows[i] = last - first;
        strides[i] = outputRowStride(rowBytes[i]);
        offsets[i] = total;
        total += strides[i] * rows[i] + kOutputSlack;
    }
    if (total > INT32_MAX)
        return false;
    // Zeroed: swscale reads (and computes on) the bytes past each copied row.
    uint8_t* copy = static_cast<uint8_t*>(av_mallocz(size_t(total)));
    if (!copy)
        return false;
    const uint8_t* tailSrc[4] = {nullptr, nullptr, nullptr, nullptr};
    int tailStride[4] = {0, 0, 0, 0};
    for (int i = 0; i < 4; ++i) {
        if (!src[i] || rowBytes[i] < 1)
            continue;
        const bool chroma = i == 1 || i == 2;
        const int first = chroma ? head / chromaRows : head;
        uint8_t* p = copy + offsets[i];
        for (qint64 r = 0; r < rows[i]; ++r)
            memcpy(p + r * strides[i], src[i] + (first + r) * qint64(srcStride[i]), size_t(rowBytes[i]));
        tailSrc[i] = p;
        tailStride[i] = int(strides[i]);
    }
    if (head > 0)
        sws_scale(context, src, srcStride, 0, head, dst, dstStride);
    sws_scale(context, tailSrc, tailStride, head, tail, dst, dstStride);
    av_free(copy);
    return true;
}

}  // namespace orvo::sws
