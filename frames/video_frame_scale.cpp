// Scaling a region of one planar frame into the whole of another through swscale.
#include "frames/plane_view.h"
#include "frames/sws_formats.h"
#include "orvo/scale_context.h"
#include "orvo/video_frame.h"
#include "orvo/log.h"


extern "C" {
#include <libswscale/swscale.h>
}

namespace orvo {

bool VideoFrameQt::scaleTo(VideoFrameQt& dst, ScaleContext& ctx, int x, int y, int width, int height) const
{
    // The destination takes the source's identity even when the scaling below fails.
    copyCloneMetadataTo(dst);

    // Scaling a body into itself would read planes that swscale is overwriting.
    if (!planeY.isValid() || &dst == this)
        return false;

    // A destination the caller mapped read-only may still hold decoder memory.
    if (!dst.detach())
        return false;
    // Map results are not consulted: a frame the caller mapped already has its bits. On a
    // failure from here on, the frames stay mapped and the caller unmaps them.
    map(QAbstractVideoBuffer::ReadOnly);
    dst.map(QAbstractVideoBuffer::ReadWrite);
    if (!bitsY() || !bitsU() || !bitsV() || !dst.bitsY() || !dst.bitsU() || !dst.bitsV())
        return false;

    int rw = 0, rh = 0;
    if (!sws::resolveRegion(widthY(), heightY(), x, y, width, height, rw, rh))
        return false;

    const sws::PlanarLayout src = sws::planarLayout(pixelFormat());
    const OrvoPixelFormat dstFormat = dst.pixelFormat() == Format_Invalid ? pixelFormat() : dst.pixelFormat();
    const sws::PlanarLayout out = sws::planarLayout(dstFormat);
    const int dw = dst.widthY();
    const int dh = dst.heightY();

    const PlaneView sy = viewY(*this), su = viewU(*this), sv = viewV(*this);
    const PlaneView dy = viewY(dst), du = viewU(dst), dv = viewV(dst);
    const bool nonEmpty = rw >= 1 && rh >= 1 && dw >= 1 && dh >= 1;
    const int cx = nonEmpty ? x / src.dx : 0, cy = nonEmpty ? y / src.dy : 0;
    const int cw = sws::chromaExtent(rw, src.dx), ch = sws::chromaExtent(rh, src.dy);
    const int dcw = sws::chromaExtent(dw, out.dx), dch = sws::chromaExtent(dh, out.dy);
    // swscale trusts pointers and strides: make sure every plane holds what it will touch.
    if (nonEmpty && (!sy.holds(x + rw, y + rh) || !su.holds(cx + cw, cy + ch) || !sv.holds(cx + cw, cy + ch) ||
                     !dy.holds(dw, dh) || !du.holds(dcw, dch) || !dv.holds(dcw, dch)))
        return false;

    SwsContext* context = nullptr;
    if (nonEmpty) {
        context = sws_getCachedContext(ctx.context, rw, rh, src.format, dw, dh, out.format, SWS_BILINEAR, nullptr,
                                       nullptr, nullptr);
        // A failed sws_getCachedContext has freed the context it was given.
        ctx.context = context;
    }
    if (!context) {
        odebug() << "swscale context is null";
        return false;
    }

    // The source formats carry no alpha, so swscale reads no fourth plane.
    const uint8_t* const srcPlanes[4] = {sy.at(x, y), su.at(cx, cy), sv.at(cx, cy), nullptr};
    const int srcStrides[4] = {int(sy.stride), int(su.stride), int(sv.stride), 0};
    uint8_t* const dstPlanes[4] = {dy.data, du.data, dv.data, nullptr};
    const int dstStrides[4] = {int(dy.stride), int(du.stride), int(dv.stride), 0};
    if (!sws::scale(context, sws::Planes::of(src.format, rw, rh, srcPlanes, srcStrides),
                    sws::Planes::of(out.format, dw, dh, dstPlanes, dstStrides), sws::Room::Exact))
        return false;

    unmap();
    dst.unmap();
    return true;
}

bool VideoFrameQt::scaleTo(VideoFrameQt& dst, int x, int y, int width, int height) const
{
    ScaleContext temporary;
    return scaleTo(dst, temporary, x, y, width, height);
}

bool VideoFrame::scaleTo(VideoFrame& dst, ScaleContext& ctx, int x, int y, int width, int height) const
{
    if (!d || !dst.d)
        return false;
    return d->scaleTo(*dst.d, ctx, x, y, width, height);
}

bool VideoFrame::scaleTo(VideoFrame& dst, int x, int y, int width, int height) const
{
    if (!d || !dst.d)
        return false;
    return d->scaleTo(*dst.d, x, y, width, height);
}

}  // namespace orvo
