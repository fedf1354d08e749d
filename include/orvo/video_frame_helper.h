#pragma once
// Snapshot views of a frame for tight pixel loops: geometry and plane pointers are
// read once. A VideoFrameHelper keeps the frame's planes alive; its pointers stay
// usable after it unmapped the frame because the memory belongs to the shared planes.
#include "orvo/video_frame.h"

#include <memory>

namespace orvo {

struct ORVO_EXPORT VideoFrameAttributes {
    quint32 bytesPerLineY = 0;
    quint32 bytesPerLineU = 0;
    quint32 bytesPerLineV = 0;
    quint32 size = 0;  // Y + U + V bytes (alpha not counted)
    quint32 heightY = 0;
    quint32 heightU = 0;
    quint32 heightV = 0;
    quint32 width = 0;
    quint32 height = 0;
    quint32 scaleX = 0;
    quint32 scaleY = 0;
    // Drawn from one process-wide counter, atomically: snapshots built on several threads
    // get distinct ids; the first snapshot gets 1.
    quint32 id = 0;
    qint64 time = 0;  // the frame image's Image::time()
    RenderingTimings renderTimings;

    VideoFrameAttributes() = default;
    // Maps the frame ReadWrite unless alreadyMapped; geometry stays unset when that fails.
    VideoFrameAttributes(VideoFrame& frame, bool alreadyMapped);
};

class ORVO_EXPORT VideoFrameHelper : public VideoFrame {
public:
    explicit VideoFrameHelper(VideoFrame& frame);
    VideoFrameHelper(const VideoFrameHelper&) = default;
    VideoFrameHelper& operator=(const VideoFrameHelper&) = default;

    unsigned char* bitsY() const { return bitsY_; }
    unsigned char* bitsU() const { return bitsU_; }
    unsigned char* bitsV() const { return bitsV_; }
    quint32 bytesPerLineY() const { return attr_ ? attr_->bytesPerLineY : 0; }
    quint32 bytesPerLineU() const { return attr_ ? attr_->bytesPerLineU : 0; }
    quint32 bytesPerLineV() const { return attr_ ? attr_->bytesPerLineV : 0; }
    quint32 heightY() const { return attr_ ? attr_->heightY : 0; }
    quint32 heightU() const { return attr_ ? attr_->heightU : 0; }
    quint32 heightV() const { return attr_ ? attr_->heightV : 0; }
    quint32 width(bool scaled) const;
    quint32 height(bool scaled) const;
    quint32 size() const { return attr_ ? attr_->size : 0; }
    qint64 time() const { return attr_ ? attr_->time : 0; }
    quint32 id() const { return attr_ ? attr_->id : 0; }
    bool isValid() const { return bitsY_ != nullptr; }
    std::shared_ptr<VideoFrameAttributes> data() const { return attr_; }

private:
    unsigned char* bitsY_ = nullptr;
    unsigned char* bitsU_ = nullptr;
    unsigned char* bitsV_ = nullptr;
    std::shared_ptr<VideoFrameAttributes> attr_;
};

}  // namespace orvo
