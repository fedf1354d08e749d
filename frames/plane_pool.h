#pragma once
// PlanePool: Format_YUV420P frames whose planes are recycled instead of allocated anew.
//
// A 1080p frame is over 5 MB, and fresh allocations of that size for each picture go back
// and forth to the system (page faults cost more than the copy). The geometry is that of a
// frame allocated with defaultBufferProperties: Y and A pitch w, chroma pitch (w + 1) / 2,
// alignment at least 8, alpha plane present (its contents are undefined there too). Each
// buffer holds sws::kOutputSlack bytes after its plane, so that swscale converts straight
// into it (see sws_scale.h) instead of through a copy.
//
// The pools live as long as their last buffer: frames handed out may outlive the owner and
// be released on any thread. One owner uses a PlanePool from one thread at a time.
#include "orvo/video_frame.h"

struct AVBufferPool;
struct AVBufferRef;

namespace orvo {

class PlanePool {
public:
    PlanePool() = default;
    ~PlanePool();
    PlanePool(const PlanePool&) = delete;
    PlanePool& operator=(const PlanePool&) = delete;

    // A w x h frame; `pooled` tells whether its planes came from the pools (and so have the
    // slack). Sizes the pools cannot serve give a frame allocated as usual.
    VideoFrame allocate(int w, int h, bool& pooled);

private:
    void reset();

    AVBufferPool* luma_ = nullptr;
    AVBufferPool* chroma_ = nullptr;
    int width_ = 0;
    int height_ = 0;
};

// A plane of `size` bytes at `data` (rows `pitch` apart) inside FFmpeg's buffer `ref`, which
// the plane takes over: the reference is dropped when the last frame sharing the plane goes,
// on whichever thread that happens (buffer references and pools are thread-safe).
MemoryVideoBuffer* planeInBuffer(AVBufferRef* ref, unsigned char* data, int size, int pitch);

}  // namespace orvo
