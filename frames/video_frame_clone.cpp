#include "orvo/video_frame.h"
#include "orvo/log.h"

#include <cstring>

namespace orvo {

namespace {

// Deep copy of one plane into fresh aligned memory. Unmaps the source afterwards,
// also when the caller had mapped it.
QVideoFrame copyPlane(QVideoFrame& src, int align, int minBytesPerLine, bool required)
{
    if (!src.isMapped()) {
        if (!required)
            return QVideoFrame();
        if (!src.map(QAbstractVideoBuffer::ReadOnly)) {
            odebug() << "Cannot map source QVideoFrame while cloning";
            return QVideoFrame();
        }
    }
    if (align <= 0 || (align & (align - 1)) != 0)
        align = MemoryVideoBuffer::adjustToPower2(align);
    const int width = src.width();
    const int height = src.height();
    const qint64 rounded = (qint64(width) + align - 1) / align * align;
    const qint64 bpl64 = qMax<qint64>(rounded, minBytesPerLine);
    const qint64 bytes = bpl64 * height;
    const int bpl = bpl64 > INT32_MAX ? 0 : int(bpl64);
    QVideoFrame out(new MemoryVideoBuffer(bytes > INT32_MAX ? -1 : int(bytes), bpl, unsigned(align)), src.size(),
                    src.pixelFormat());
    if (!out.map(QAbstractVideoBuffer::WriteOnly)) {
        odebug() << "Cannot map output QVideoFrame while cloning";
        src.unmap();
        return QVideoFrame();
    }
    const int srcStride = src.bytesPerLine();
    const int dstStride = out.bytesPerLine();
    const uchar* s = src.bits();
    uchar* d = out.bits();
    // A source whose stride is below its width cannot hold whole rows: copy what it has.
    const int rowBytes = srcStride >= 1 ? qMin(width, srcStride) : width;
    if ((srcStride < 1 && dstStride < 1) || (srcStride == dstStride && srcStride == width)) {
        const qint64 n = qMin<qint64>(qint64(width) * height, qMin(src.mappedBytes(), out.mappedBytes()));
        if (n > 0)
            memcpy(d, s, size_t(n));
    } else if (s && d) {
        for (int row = 0; row < height; ++row) {
            if (qint64(row) * srcStride + rowBytes > src.mappedBytes())
                break;
            memcpy(d + qint64(row) * dstStride, s + qint64(row) * srcStride, size_t(rowBytes));
        }
    }
    src.unmap();
    out.unmap();
    return out;
}

}  // namespace

void VideoFrameQt::copyCloneMetadataTo(VideoFrameQt& out) const
{
    out.scaleX_ = scaleX_;
    out.scaleY_ = scaleY_;
    out.attachedData_ = attachedData_;
    out.id_ = id_;
    out.streamId_ = streamId_;
    out.image_ = image_;
    out.decodingDurationNanoSecs_ = decodingDurationNanoSecs_;
    out.damaged_ = damaged_;
    out.hasImage_ = true;
}

VideoFrameQt VideoFrameQt::clone(const BufferProperties& p) const
{
    QVideoFrame a = p.skipAlpha ? QVideoFrame() : copyPlane(planeA, p.alignA, p.minBytesPerLineA, true);
    QVideoFrame v = copyPlane(planeV, p.alignV, p.minBytesPerLineV, true);
    QVideoFrame u = copyPlane(planeU, p.alignU, p.minBytesPerLineU, true);
    QVideoFrame y = copyPlane(planeY, p.alignY, p.minBytesPerLineY, true);
    VideoFrameQt out(y, u, v, a, pixelFormat());
    copyCloneMetadataTo(out);
    out.viewName_ = viewName_;
    return out;
}

VideoFrameQt VideoFrameQt::clone(int align, bool withAlpha) const
{
    QVideoFrame a = withAlpha ? copyPlane(planeA, align, 0, false) : QVideoFrame();
    QVideoFrame v = copyPlane(planeV, align, 0, true);
    QVideoFrame u = copyPlane(planeU, align, 0, true);
    QVideoFrame y = copyPlane(planeY, align, 0, true);
    VideoFrameQt out(y, u, v, a, pixelFormat());
    copyCloneMetadataTo(out);  // this form deliberately leaves viewName empty
    return out;
}

VideoFrame VideoFrame::clone(const BufferProperties& properties) const
{
    if (!d)
        return VideoFrame();
    return VideoFrame(std::make_shared<VideoFrameQt>(d->clone(properties)));
}

VideoFrame VideoFrame::clone(int align, bool withAlpha) const
{
    if (!d)
        return VideoFrame();
    return VideoFrame(std::make_shared<VideoFrameQt>(d->clone(align, withAlpha)));
}

}  // namespace orvo
