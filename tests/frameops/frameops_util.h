#pragma once
// Frames filled with known samples for the frame-operation tests.
#include "common/test_streams.h"
#include "orvo/video_frame.h"

#include <functional>

namespace frameops {

using namespace orvo::test;
using orvo::VideoFrame;
using Sample = std::function<int(int x, int y)>;

inline int chromaW(VideoFrame::OrvoPixelFormat f, int w) { return orvo::VideoFrameQt::planeUVWidth(f, w); }
inline int chromaH(VideoFrame::OrvoPixelFormat f, int h) { return orvo::VideoFrameQt::planeUVHeight(f, h); }

// A split frame whose planes hold y(x, y), u(x, y), v(x, y) (chroma coordinates for u and v).
inline VideoFrame makeFrame(int w, int h, VideoFrame::OrvoPixelFormat f, const Sample& ys, const Sample& us,
                            const Sample& vs, const orvo::BufferProperties& p = orvo::defaultBufferProperties)
{
    VideoFrame frame(w, h, f, p);
    if (!frame.map(QAbstractVideoBuffer::WriteOnly))
        return VideoFrame();
    for (int j = 0; j < h; ++j)
        for (int i = 0; i < w; ++i)
            frame.lineY(j)[i] = uchar(ys(i, j));
    for (int j = 0; j < chromaH(f, h); ++j)
        for (int i = 0; i < chromaW(f, w); ++i) {
            frame.lineU(j)[i] = uchar(us(i, j));
            frame.lineV(j)[i] = uchar(vs(i, j));
        }
    if (frame.bitsA())
        for (int j = 0; j < h; ++j)
            memset(frame.bitsA() + j * frame.bytesPerLineA(), 255, size_t(w));
    frame.unmap();
    return frame;
}

inline Sample constant(int v)
{
    return [v](int, int) { return v; };
}

// A frame from packed planar bytes (Y, then U, then V; chroma per the format's rules).
inline VideoFrame frameFromPlanar(const QByteArray& data, int w, int h, VideoFrame::OrvoPixelFormat f)
{
    const int cw = chromaW(f, w), ch = chromaH(f, h);
    if (data.size() != w * h + 2 * cw * ch)
        return VideoFrame();
    const uchar* p = reinterpret_cast<const uchar*>(data.constData());
    const uchar* u = p + w * h;
    const uchar* v = u + cw * ch;
    return makeFrame(
        w, h, f, [&](int x, int y) { return p[y * w + x]; }, [&](int x, int y) { return u[y * cw + x]; },
        [&](int x, int y) { return v[y * cw + x]; });
}

inline int at(const QByteArray& plane, int w, int x, int y) { return uchar(plane[y * w + x]); }

// The ffmpeg command line's standard output.
inline QByteArray ffmpeg(const QStringList& args)
{
    return runProgram(QStringLiteral("ffmpeg"), QStringList{"-nostdin", "-loglevel", "error"} + args);
}

}  // namespace frameops
