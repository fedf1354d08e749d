#pragma once
// Maps a frame body for the length of a scope unless the caller has mapped it already (then
// its mode must include `needed`); unmaps on exit only what it mapped itself.
#include "orvo/video_frame_qt.h"

namespace orvo {

class ScopedMapping {
public:
    ScopedMapping(const VideoFrameQt& body, QAbstractVideoBuffer::MapMode mode, QAbstractVideoBuffer::MapMode needed)
        : body_(body)
    {
        if (body.isMapped())
            ok_ = (body.mapMode() & needed) == needed;
        else
            ok_ = mapped_ = body.map(mode);
    }
    ~ScopedMapping()
    {
        if (mapped_)
            body_.unmap();
    }
    bool ok() const { return ok_; }

private:
    const VideoFrameQt& body_;
    bool ok_ = false;
    bool mapped_ = false;
    Q_DISABLE_COPY(ScopedMapping)
};

}  // namespace orvo
