#include "frames/plane_pool.h"

#include "frames/sws_scale.h"

extern "C" {
#include <libavutil/buffer.h>
}

#include <climits>

namespace orvo {
namespace {

// The buffer goes back to its pool with the last frame sharing the plane.
MemoryVideoBuffer* pooledPlane(AVBufferPool* pool, int size, int pitch)
{
    AVBufferRef* ref = pool ? av_buffer_pool_get(pool) : nullptr;
    return ref ? planeInBuffer(ref, ref->data, size, pitch) : nullptr;
}

}  // namespace

MemoryVideoBuffer* planeInBuffer(AVBufferRef* ref, unsigned char* data, int size, int pitch)
{
    try {
        return new MemoryVideoBuffer(data, size, pitch, [ref](unsigned char*) {
            AVBufferRef* r = ref;
            av_buffer_unref(&r);
        });
    } catch (...) {
        av_buffer_unref(&ref);  // the plane was never made, so its release will not run
        throw;
    }
}

PlanePool::~PlanePool() { reset(); }

VideoFrame PlanePool::allocate(int w, int h, bool& pooled)
{
    pooled = false;
    const int chromaPitch = (w + 1) / 2;
    const qint64 lumaBytes = qint64(w) * h;
    const qint64 chromaBytes = qint64(chromaPitch) * ((h + 1) / 2);
    if (lumaBytes > INT_MAX - sws::kOutputSlack || lumaBytes <= 0)
        return VideoFrame(w, h, VideoFrame::Format_YUV420P, defaultBufferProperties);
    if (w != width_ || h != height_) {
        reset();
        luma_ = av_buffer_pool_init(size_t(lumaBytes + sws::kOutputSlack), av_buffer_alloc);
        chroma_ = av_buffer_pool_init(size_t(chromaBytes + sws::kOutputSlack), av_buffer_alloc);
        width_ = w;
        height_ = h;
    }
    const QSize lumaSize(w, h);
    const QSize chromaSize = VideoFrame::planeUVSize(lumaSize, VideoFrame::Format_YUV420P);
    QAbstractVideoBuffer* planes[4] = {pooledPlane(luma_, int(lumaBytes), w),
                                       pooledPlane(chroma_, int(chromaBytes), chromaPitch),
                                       pooledPlane(chroma_, int(chromaBytes), chromaPitch),
                                       pooledPlane(luma_, int(lumaBytes), w)};
    if (!planes[0] || !planes[1] || !planes[2] || !planes[3]) {
        for (QAbstractVideoBuffer* b : planes)
            delete b;
        return VideoFrame(w, h, VideoFrame::Format_YUV420P, defaultBufferProperties);
    }
    pooled = true;
    return VideoFrame(QVideoFrame(planes[0], lumaSize, QVideoFrame::Format_Y8),
                      QVideoFrame(planes[1], chromaSize, QVideoFrame::Format_Y8),
                      QVideoFrame(planes[2], chromaSize, QVideoFrame::Format_Y8),
                      QVideoFrame(planes[3], lumaSize, QVideoFrame::Format_Y8), VideoFrame::Format_YUV420P);
}

// Buffers still held by frames keep their pool alive until they come back.
void PlanePool::reset()
{
    av_buffer_pool_uninit(&luma_);
    av_buffer_pool_uninit(&chroma_);
    width_ = height_ = 0;
}

}  // namespace orvo
