#pragma once
// PlanePool: the one way decoders make their frames. Planar 4:2:0 and 4:2:2 frames whose
// planes are recycled instead of allocated anew.
//
// A 1080p frame is over 5 MB, and fresh allocations of that size for each picture go back
// and forth to the system (page faults cost more than the copy). Every plane starts where
// FFmpeg's allocator puts its buffers (aligned for the widest vector code FFmpeg and swscale
// use) and is followed by sws::kOutputSlack bytes, so that swscale converts straight into it
// (sws::Room::Slack, see sws_scale.h) instead of through a copy. Rows are as the layout says:
// each decoder keeps the row lengths its format defines.
//
// The pools live as long as their last buffer: frames handed out may outlive the owner and
// be released on any thread. One owner uses a PlanePool from one thread at a time.
#include "orvo/video_frame.h"

struct AVBufferPool;
struct AVBufferRef;

namespace orvo {

// The planes of one frame.
struct PlaneLayout {
    int width = 0;
    int height = 0;
    VideoFrame::OrvoPixelFormat format = VideoFrame::Format_YUV420P;  // or Format_YUV422P
    int pitchY = 0;   // bytes a row of Y (and of the alpha plane); at least width
    int pitchUV = 0;  // bytes a row of U and V; at least the chroma width
    bool alpha = false;  // an alpha plane as large as Y (its contents are undefined)

    // The geometry of frames allocated with defaultBufferProperties: Y and alpha pitch w,
    // chroma pitch (w + 1) / 2, alpha plane present.
    static PlaneLayout standard(int w, int h);

    bool operator==(const PlaneLayout& o) const
    {
        return width == o.width && height == o.height && format == o.format && pitchY == o.pitchY &&
               pitchUV == o.pitchUV && alpha == o.alpha;
    }
    bool operator!=(const PlaneLayout& o) const { return !(*this == o); }
};

class PlanePool {
public:
    PlanePool() = default;
    ~PlanePool();
    PlanePool(const PlanePool&) = delete;
    PlanePool& operator=(const PlanePool&) = delete;

    // An unmapped frame of `layout`, its planes from the pools (the frame's scale and metadata
    // are the defaults). A null frame when the layout is not a planar 4:2:0 or 4:2:2 picture
    // (a width, rows that fit their pitch, at most 2 GB a plane), or when memory runs out.
    // A picture of no rows is allowed: its planes hold no bytes.
    VideoFrame allocate(const PlaneLayout& layout);

private:
    void reset();

    AVBufferPool* luma_ = nullptr;
    AVBufferPool* chroma_ = nullptr;
    PlaneLayout layout_;
};

// A plane of `size` bytes at `data` (rows `pitch` apart) inside FFmpeg's buffer `ref`, which
// the plane takes over: the reference is dropped when the last frame sharing the plane goes,
// on whichever thread that happens (buffer references and pools are thread-safe).
MemoryVideoBuffer* planeInBuffer(AVBufferRef* ref, unsigned char* data, int size, int pitch);

}  // namespace orvo
