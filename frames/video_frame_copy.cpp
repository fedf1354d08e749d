// Deep copies that change geometry or pixel format: copy (crop / extend) and convertToFormat.
#include "frames/plane_view.h"
#include "frames/sws_formats.h"
#include "orvo/scale_context.h"
#include "orvo/video_frame.h"
#include "frames/scoped_mapping.h"

#include <cstring>

extern "C" {
#include <libswscale/swscale.h>
}

namespace orvo {

namespace {

constexpr unsigned char kBlackY = 0;
constexpr unsigned char kNeutralChroma = 128;
constexpr unsigned char kOpaque = 255;
constexpr unsigned char kTransparent = 0;

// Floor division, so that a negative offset moves chroma the same way as luma.
int floorDiv(int a, int b) { return int(a >= 0 ? a / b : -((-qint64(a) + b - 1) / b)); }

// dst(i, j) = src(i + ox, j + oy) where the source has that sample; with `fill` every other
// sample of dst becomes `uncovered`. A null source covers nothing.
void copyRegion(const PlaneView& dst, const PlaneView& src, int ox, int oy, bool fill, unsigned char uncovered)
{
    for (int j = 0; j < dst.height; ++j) {
        unsigned char* row = dst.at(0, j);
        const qint64 sj = qint64(j) + oy;
        qint64 i0 = 0, i1 = 0;
        if (!src.isNull() && sj >= 0 && sj < src.height) {
            i0 = qMax<qint64>(0, -qint64(ox));
            i1 = qMin<qint64>(dst.width, qint64(src.width) - ox);
        }
        if (i0 >= i1) {
            if (fill)
                memset(row, uncovered, size_t(dst.width));
            continue;
        }
        memcpy(row + i0, src.at(int(i0 + ox), int(sj)), size_t(i1 - i0));
        if (fill) {
            memset(row, uncovered, size_t(i0));
            memset(row + i1, uncovered, size_t(dst.width - i1));
        }
    }
}

// Covered samples of an alpha plane for a source without one: opaque.
void fillCovered(const PlaneView& dst, const PlaneView& srcY, int ox, int oy, bool fill)
{
    for (int j = 0; j < dst.height; ++j) {
        unsigned char* row = dst.at(0, j);
        const qint64 sj = qint64(j) + oy;
        qint64 i0 = 0, i1 = 0;
        if (sj >= 0 && sj < srcY.height) {
            i0 = qMax<qint64>(0, -qint64(ox));
            i1 = qMin<qint64>(dst.width, qint64(srcY.width) - ox);
        }
        if (i0 < i1)
            memset(row + i0, kOpaque, size_t(i1 - i0));
        else
            i0 = i1 = dst.width;
        if (fill) {
            memset(row, kTransparent, size_t(i0));
            memset(row + i1, kTransparent, size_t(dst.width - i1));
        }
    }
}

// The metadata a clone made from properties carries.
void takeCloneMetadata(VideoFrame& out, const VideoFrame& in)
{
    in.body()->copyCloneMetadataTo(*out.body());
    out.setViewName(in.viewName());
}


}  // namespace

VideoFrame VideoFrame::copy(int x, int y, int width, int height, const BufferProperties& props,
                            bool fillUncovered) const
{
    if (!d || !d->areSeparatePlanes() || width < 1 || height < 1)
        return VideoFrame();
    ScopedMapping source(*d, QAbstractVideoBuffer::ReadOnly, QAbstractVideoBuffer::ReadOnly);
    if (!source.ok())
        return VideoFrame();

    const OrvoPixelFormat format = d->pixelFormat();
    VideoFrame out(width, height, format, props);
    if (props.skipAlpha)
        out.d->planeA = QVideoFrame();
    if (!out.d->map(QAbstractVideoBuffer::WriteOnly))
        return VideoFrame();  // the planes could not be allocated

    const int dx = VideoFrameQt::horizontalDecimationUV(format);
    const int dy = VideoFrameQt::verticalDecimationUV(format);
    const int cx = floorDiv(x, dx), cy = floorDiv(y, dy);
    copyRegion(viewY(*out.d), viewY(*d), x, y, fillUncovered, kBlackY);
    copyRegion(viewU(*out.d), viewU(*d), cx, cy, fillUncovered, kNeutralChroma);
    copyRegion(viewV(*out.d), viewV(*d), cx, cy, fillUncovered, kNeutralChroma);
    if (!props.skipAlpha) {
        const PlaneView alpha = viewA(*d);
        if (!alpha.isNull())
            copyRegion(viewA(*out.d), alpha, x, y, fillUncovered, kTransparent);
        else
            fillCovered(viewA(*out.d), viewY(*d), x, y, fillUncovered);
    }
    out.d->unmap();
    takeCloneMetadata(out, *this);
    return out;
}

VideoFrame VideoFrame::convertToFormat(OrvoPixelFormat format, const BufferProperties& props) const
{
    if (!d || !d->areSeparatePlanes() || !sws::isPlanarYuv(d->pixelFormat()) || !sws::isPlanarYuv(format))
        return VideoFrame();
    const int W = d->widthY();
    const int H = d->heightY();
    if (format == d->pixelFormat())
        return copy(0, 0, W, H, props, false);
    if (W < 1 || H < 1)
        return VideoFrame();
    ScopedMapping source(*d, QAbstractVideoBuffer::ReadOnly, QAbstractVideoBuffer::ReadOnly);
    if (!source.ok())
        return VideoFrame();

    const sws::PlanarLayout from = sws::planarLayout(d->pixelFormat());
    const sws::PlanarLayout to = sws::planarLayout(format);
    const PlaneView sy = viewY(*d), su = viewU(*d), sv = viewV(*d);
    const int scw = sws::chromaExtent(W, from.dx), sch = sws::chromaExtent(H, from.dy);
    if (!sy.holds(W, H) || !su.holds(scw, sch) || !sv.holds(scw, sch))
        return VideoFrame();

    VideoFrame out(W, H, format, props);
    if (props.skipAlpha)
        out.d->planeA = QVideoFrame();
    if (!out.d->map(QAbstractVideoBuffer::WriteOnly))
        return VideoFrame();
    const PlaneView oy = viewY(*out.d), ou = viewU(*out.d), ov = viewV(*out.d);
    const int ocw = sws::chromaExtent(W, to.dx), och = sws::chromaExtent(H, to.dy);
    if (!oy.holds(W, H) || !ou.holds(ocw, och) || !ov.holds(ocw, och)) {
        out.d->unmap();
        return VideoFrame();
    }

    // One context per thread, kept while the geometry stays the same (a stream converted
    // frame by frame) and freed when the thread ends.
    thread_local ScaleContext cache;
    cache.context = sws_getCachedContext(cache.context, W, H, from.format, W, H, to.format, SWS_BILINEAR, nullptr,
                                         nullptr, nullptr);
    if (!cache.context) {
        out.d->unmap();
        return VideoFrame();
    }
    const uint8_t* const srcPlanes[4] = {sy.data, su.data, sv.data, nullptr};
    const int srcStrides[4] = {int(sy.stride), int(su.stride), int(sv.stride), 0};
    uint8_t* const dstPlanes[4] = {oy.data, ou.data, ov.data, nullptr};
    const int dstStrides[4] = {int(oy.stride), int(ou.stride), int(ov.stride), 0};
    if (!sws::scale(cache.context, sws::Planes::of(from.format, W, H, srcPlanes, srcStrides),
                    sws::Planes::of(to.format, W, H, dstPlanes, dstStrides), sws::Room::Exact)) {
        out.d->unmap();
        return VideoFrame();
    }

    if (!props.skipAlpha) {
        const PlaneView alpha = viewA(*d);
        if (!alpha.isNull())
            copyRegion(viewA(*out.d), alpha, 0, 0, true, kTransparent);
        else
            fillCovered(viewA(*out.d), sy, 0, 0, true);
    }
    out.d->unmap();
    takeCloneMetadata(out, *this);
    return out;
}

}  // namespace orvo
