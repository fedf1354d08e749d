// Alpha blending of an overlay frame (with an alpha plane) onto a frame.
//
// Alpha is straight (not premultiplied), as qimage2videoFrame + qImageAlphaChannel2videoFrame
// deliver it from a QImage::Format_ARGB32 overlay. Each luma sample becomes
// (a * overlay + (255 - a) * frame) / 255. A chroma sample of the frame covers a block of luma
// samples; it is blended with the alpha-weighted mean of the overlay chroma over the block,
// where luma samples outside the overlay count as alpha 0. Overlay and frame may have
// different chroma subsampling and any position, including partly outside the frame.
#include "frames/plane_view.h"
#include "frames/sws_formats.h"
#include "orvo/video_frame.h"
#include "frames/scoped_mapping.h"

namespace orvo {

namespace {

struct Rect64 {
    qint64 x0, y0, x1, y1;  // half-open
    bool isEmpty() const { return x0 >= x1 || y0 >= y1; }
};

// Blends one target chroma plane. (x, y) is the overlay's origin in target luma samples.
void blendChroma(const PlaneView& target, int tdx, int tdy, int lumaW, int lumaH, const PlaneView& over,
                 int odx, int ody, const PlaneView& alpha, int x, int y, const Rect64& area)
{
    const qint64 cx0 = area.x0 / tdx;
    const qint64 cy0 = area.y0 / tdy;
    const qint64 cx1 = qMin<qint64>((area.x1 - 1) / tdx + 1, target.width);
    const qint64 cy1 = qMin<qint64>((area.y1 - 1) / tdy + 1, target.height);
    for (qint64 cy = cy0; cy < cy1; ++cy) {
        unsigned char* row = target.at(0, int(cy));
        for (qint64 cx = cx0; cx < cx1; ++cx) {
            int n = 0;
            int sumA = 0;
            int sumAC = 0;
            for (qint64 lj = cy * tdy; lj < qMin<qint64>((cy + 1) * tdy, lumaH); ++lj) {
                for (qint64 li = cx * tdx; li < qMin<qint64>((cx + 1) * tdx, lumaW); ++li) {
                    ++n;
                    if (li < area.x0 || li >= area.x1 || lj < area.y0 || lj >= area.y1)
                        continue;
                    const int ox = int(li - x);
                    const int oy = int(lj - y);
                    const int a = *alpha.at(ox, oy);
                    sumA += a;
                    sumAC += a * *over.at(ox / odx, oy / ody);
                }
            }
            if (sumA == 0)
                continue;
            const int total = n * 255;
            row[cx] = static_cast<unsigned char>((sumAC + (total - sumA) * row[cx] + total / 2) / total);
        }
    }
}


}  // namespace

bool VideoFrame::blend(const VideoFrame& overlay, int x, int y)
{
    // The same body would be read where it is being written.
    if (!d || !overlay.d || d == overlay.d || !d->areSeparatePlanes() || !overlay.d->areSeparatePlanes())
        return false;
    const OrvoPixelFormat targetFormat = d->pixelFormat();
    const OrvoPixelFormat overlayFormat = overlay.d->pixelFormat();
    if (!sws::isPlanarYuv(targetFormat) || !sws::isPlanarYuv(overlayFormat))
        return false;

    ScopedMapping target(*d, QAbstractVideoBuffer::ReadWrite, QAbstractVideoBuffer::WriteOnly);
    ScopedMapping source(*overlay.d, QAbstractVideoBuffer::ReadOnly, QAbstractVideoBuffer::ReadOnly);
    if (!target.ok() || !source.ok())
        return false;

    const PlaneView ty = viewY(*d), tu = viewU(*d), tv = viewV(*d);
    const PlaneView oy = viewY(*overlay.d), ou = viewU(*overlay.d), ov = viewV(*overlay.d), oa = viewA(*overlay.d);
    const int ow = overlay.d->widthY();
    const int oh = overlay.d->heightY();
    const sws::PlanarLayout o = sws::planarLayout(overlayFormat);
    const sws::PlanarLayout t = sws::planarLayout(targetFormat);
    const int ocw = sws::chromaExtent(ow, o.dx), och = sws::chromaExtent(oh, o.dy);
    if (ty.isNull() || !oy.holds(ow, oh) || !oa.holds(ow, oh) || !ou.holds(ocw, och) || !ov.holds(ocw, och))
        return false;

    // Clip the overlay's rectangle to the frame.
    const int W = ty.width;
    const int H = ty.height;
    const Rect64 area{qMax<qint64>(x, 0), qMax<qint64>(y, 0), qMin<qint64>(qint64(x) + ow, W),
                      qMin<qint64>(qint64(y) + oh, H)};
    if (area.isEmpty())
        return true;  // entirely outside: nothing to draw

    for (qint64 j = area.y0; j < area.y1; ++j) {
        unsigned char* dst = ty.at(0, int(j));
        const unsigned char* src = oy.at(0, int(j - y));
        const unsigned char* a = oa.at(0, int(j - y));
        for (qint64 i = area.x0; i < area.x1; ++i) {
            const int alpha = a[i - x];
            dst[i] = static_cast<unsigned char>((alpha * src[i - x] + (255 - alpha) * dst[i] + 127) / 255);
        }
    }
    if (!tu.isNull())
        blendChroma(tu, t.dx, t.dy, W, H, ou, o.dx, o.dy, oa, x, y, area);
    if (!tv.isNull())
        blendChroma(tv, t.dx, t.dy, W, H, ov, o.dx, o.dy, oa, x, y, area);
    return true;
}

}  // namespace orvo
