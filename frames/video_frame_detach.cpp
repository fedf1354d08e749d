// Copy on write for frames over read-only memory (zero-copy decoder pictures). The decoder
// keeps referencing those planes as references for its next pictures, so the first write
// through a frame gives that frame planes of its own. Everything that writes reaches the
// planes through a write mapping (map, or fill/scaleTo on a frame the caller mapped), which
// is where the detach happens; body copies keep the planes they already share.
#include "frames/plane_view.h"
#include "orvo/video_frame_qt.h"

#include <cstring>

namespace orvo {

namespace {

bool isReadOnlyPlane(const QVideoFrame& plane)
{
    if (!plane.isValid())
        return false;
    const auto* buffer = dynamic_cast<const MemoryVideoBuffer*>(plane.buffer());
    return buffer && buffer->isReadOnly();
}

PlaneView viewOf(const QVideoFrame& plane)
{
    return PlaneView(const_cast<QVideoFrame&>(plane).bits(), plane.bytesPerLine(), plane.width(), plane.height(),
                     plane.mappedBytes());
}

void copyPlane(const QVideoFrame& from, const QVideoFrame& to)
{
    const PlaneView src = viewOf(from);
    const PlaneView dst = viewOf(to);
    if (src.isNull() || dst.isNull())
        return;
    const size_t n = size_t(qMin(src.width, dst.width));
    const int rows = qMin(src.height, dst.height);
    for (int row = 0; row < rows; ++row)
        memcpy(dst.at(0, row), src.at(0, row), n);
}

}  // namespace

bool VideoFrameQt::sharesReadOnlyMemory() const
{
    return isReadOnlyPlane(planeY) || isReadOnlyPlane(planeU) || isReadOnlyPlane(planeV) ||
           isReadOnlyPlane(planeA);
}

bool VideoFrameQt::detach() const
{
    if (!sharesReadOnlyMemory())
        return true;
    // Only split frames are made over decoder memory; a single read-only buffer stays
    // unwritable (its map refuses writing).
    if (!separatePlanes_)
        return false;

    // Fresh planes by the usual allocation rules, so the detached frame looks like any
    // frame a decoder allocates (bytes per line = width); alpha only if the frame had one.
    VideoFrameQt own(widthY(), heightY(), pixelFormat_, defaultBufferProperties);
    if (!planeA.isValid())
        own.planeA = QVideoFrame();

    const bool wasMapped = planeY.isMapped();
    const MapMode mode = planeY.mapMode();
    if (wasMapped)
        unmap();
    if (!map(QAbstractVideoBuffer::ReadOnly)) {
        if (wasMapped)
            map(mode);
        return false;
    }
    if (!own.map(QAbstractVideoBuffer::WriteOnly)) {
        unmap();
        if (wasMapped)
            map(mode);
        return false;
    }
    copyPlane(planeY, own.planeY);
    copyPlane(planeU, own.planeU);
    copyPlane(planeV, own.planeV);
    if (planeA.isValid())
        copyPlane(planeA, own.planeA);
    own.unmap();
    unmap();

    planeY = own.planeY;
    planeU = own.planeU;
    planeV = own.planeV;
    planeA = own.planeA;
    if (wasMapped)
        map(mode);
    return true;
}

}  // namespace orvo
