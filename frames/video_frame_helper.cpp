#include "orvo/video_frame_helper.h"

#include <atomic>

namespace orvo {

namespace {
// Snapshots are built on pool threads and the client's thread alike. Only uniqueness is
// wanted, so the increment needs no ordering.
std::atomic<quint32> attributesCounter{0};
}

VideoFrameAttributes::VideoFrameAttributes(VideoFrame& frame, bool alreadyMapped)
    : renderTimings(frame.renderTimings())
{
    id = attributesCounter.fetch_add(1, std::memory_order_relaxed) + 1;
    if (!alreadyMapped && !frame.map(QAbstractVideoBuffer::ReadWrite))
        return;
    bytesPerLineY = frame.bytesPerLineY();
    bytesPerLineU = frame.bytesPerLineU();
    bytesPerLineV = frame.bytesPerLineV();
    heightY = quint32(frame.heightY());
    heightU = quint32(frame.heightU());
    heightV = quint32(frame.heightV());
    width = quint32(frame.width());
    height = quint32(frame.height());
    size = bytesPerLineU * heightU + heightV * bytesPerLineV + heightY * bytesPerLineY;
    scaleX = frame.getScaleX();
    scaleY = frame.getScaleY();
    time = frame.imageRef().time();
    if (!alreadyMapped)
        frame.unmap();
}

VideoFrameHelper::VideoFrameHelper(VideoFrame& frame) : VideoFrame(frame)
{
    if (!frame.map(QAbstractVideoBuffer::ReadWrite))
        return;
    bitsY_ = frame.bitsY();
    bitsU_ = frame.bitsU();
    bitsV_ = frame.bitsV();
    attr_ = std::make_shared<VideoFrameAttributes>(frame, true);
    frame.unmap();
}

quint32 VideoFrameHelper::width(bool scaled) const
{
    if (!attr_)
        return 0;
    return scaled ? attr_->width * attr_->scaleX : attr_->width;
}

quint32 VideoFrameHelper::height(bool scaled) const
{
    if (!attr_)
        return 0;
    return scaled ? attr_->height * attr_->scaleY : attr_->height;
}

}  // namespace orvo
