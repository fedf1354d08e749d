#include "frames/plane_pool.h"

#include "frames/sws_scale.h"

extern "C" {
#include <libavutil/buffer.h>
}

#include <climits>
#include <memory>

namespace orvo {
namespace {

// The buffer goes back to its pool with the last frame sharing the plane.
MemoryVideoBuffer* pooledPlane(AVBufferPool* pool, int size, int pitch)
{
    AVBufferRef* ref = pool ? av_buffer_pool_get(pool) : nullptr;
    return ref ? planeInBuffer(ref, ref->data, size, pitch) : nullptr;
}

// Bytes of a plane of `rows` rows `pitch` apart; -1 when the plane cannot be allocated with
// its slack in one int-sized buffer.
int planeBytes(int pitch, int rows)
{
    const qint64 bytes = qint64(pitch) * rows;
    return bytes >= 0 && bytes <= INT_MAX - sws::kOutputSlack ? int(bytes) : -1;
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

PlaneLayout PlaneLayout::standard(int w, int h)
{
    return PlaneLayout{w, h, VideoFrame::Format_YUV420P, w, (w + 1) / 2, true};
}

PlanePool::~PlanePool() { reset(); }

VideoFrame PlanePool::allocate(const PlaneLayout& layout)
{
    const bool is420 = layout.format == VideoFrame::Format_YUV420P;
    if ((!is420 && layout.format != VideoFrame::Format_YUV422P) || layout.width <= 0 || layout.height < 0)
        return VideoFrame();
    const QSize lumaSize(layout.width, layout.height);
    const QSize chromaSize = VideoFrame::planeUVSize(lumaSize, layout.format);
    if (layout.pitchY < layout.width || layout.pitchUV < chromaSize.width())
        return VideoFrame();
    const int lumaBytes = planeBytes(layout.pitchY, layout.height);
    const int chromaBytes = planeBytes(layout.pitchUV, chromaSize.height());
    if (lumaBytes < 0 || chromaBytes < 0)
        return VideoFrame();
    if (layout != layout_) {
        reset();
        luma_ = av_buffer_pool_init(size_t(lumaBytes) + sws::kOutputSlack, av_buffer_alloc);
        chroma_ = av_buffer_pool_init(size_t(chromaBytes) + sws::kOutputSlack, av_buffer_alloc);
        layout_ = layout;
    }
    // Planes are owned here until a QVideoFrame takes each: nothing leaks when one fails.
    std::unique_ptr<MemoryVideoBuffer> planes[4];
    for (int i = 0; i < (layout.alpha ? 4 : 3); ++i) {
        const bool luma = i == 0 || i == 3;
        planes[i].reset(pooledPlane(luma ? luma_ : chroma_, luma ? lumaBytes : chromaBytes,
                                    luma ? layout.pitchY : layout.pitchUV));
        if (!planes[i])
            return VideoFrame();
    }
    const QVideoFrame y(planes[0].release(), lumaSize, QVideoFrame::Format_Y8);
    const QVideoFrame u(planes[1].release(), chromaSize, QVideoFrame::Format_Y8);
    const QVideoFrame v(planes[2].release(), chromaSize, QVideoFrame::Format_Y8);
    if (!layout.alpha)
        return VideoFrame(y, u, v, layout.format);
    return VideoFrame(y, u, v, QVideoFrame(planes[3].release(), lumaSize, QVideoFrame::Format_Y8), layout.format);
}

// Buffers still held by frames keep their pool alive until they come back.
void PlanePool::reset()
{
    av_buffer_pool_uninit(&luma_);
    av_buffer_pool_uninit(&chroma_);
    layout_ = PlaneLayout();
}

}  // namespace orvo
