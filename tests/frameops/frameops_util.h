#pragma once
// Frames filled with known samples for the frame-operation tests.
#include "common/test_streams.h"
#include "orvo/video_frame.h"

#include <functional>

namespace frameops {

using namespace orvo::test;
using orvo::VideoFrame;
using Sample = std::function<int(int x, int y)>;

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
    for (int j = 0; j < frame.heightU(); ++j)
        for (int i = 0; i < frame.widthU(); ++i) {
            frame.lineU(j)[i] = uchar(us(i, j));
            frame.lineV(j)[i] = uchar(vs(i, j));
        }
    if (frame.bitsA())
        for (int j = 0; j < h; ++j)
            memset(frame.bitsA() + j * frame.bytesPerLineA(), 255, size_t(w));
    frame.unmap();
    return frame;
}

inline Sample constant(int v) { return [v](int, int) { return v; }; }

// A frame from packed planar bytes (Y, then U, then V; chroma per the format's rules).
inline VideoFrame frameFromPlanar(const QByteArray& data, int w, int h, VideoFrame::OrvoPixelFormat f)
{
    const int cw = orvo::VideoFrameQt::planeUVWidth(f, w), ch = orvo::VideoFrameQt::planeUVHeight(f, h);
    if (data.size() != w * h + 2 * cw * ch)
        return VideoFrame();
    const auto* y = reinterpret_cast<const uchar*>(data.constData()), *u = y + w * h, *v = u + cw * ch;
    return makeFrame(
        w, h, f, [&](int i, int j) { return y[j * w + i]; }, [&](int i, int j) { return u[j * cw + i]; },
        [&](int i, int j) { return v[j * cw + i]; });
}

inline int at(const QByteArray& plane, int w, int x, int y) { return uchar(plane[y * w + x]); }

// The ffmpeg command line's standard output.
inline QByteArray ffmpeg(const QStringList& args)
{
    return runProgram(QStringLiteral("ffmpeg"), QStringList{"-nostdin", "-loglevel", "error"} + args);
}

}  // namespace frameops
