#pragma once
// Helpers of the frame-operation tests: frames filled with known samples, plane access,
// and the ffmpeg command line as an independent reference.
#include "orvo/video_frame.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <functional>

namespace frameops {

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

// The plane as packed bytes (rows without padding).
enum class Plane { Y, U, V, A };
inline QByteArray planeBytes(const VideoFrame& frame, Plane plane)
{
    VideoFrame f = frame;
    const bool mapped = f.isMapped();
    if (!mapped && !f.map(QAbstractVideoBuffer::ReadOnly))
        return QByteArray();
    const uchar* bits = plane == Plane::Y ? f.bitsY() : plane == Plane::U ? f.bitsU() : plane == Plane::V ? f.bitsV() : f.bitsA();
    const int bpl = int(plane == Plane::Y ? f.bytesPerLineY() : plane == Plane::U ? f.bytesPerLineU() : plane == Plane::V ? f.bytesPerLineV() : f.bytesPerLineA());
    const int w = plane == Plane::Y ? f.widthY() : plane == Plane::U ? f.widthU() : plane == Plane::V ? f.widthV() : f.widthA();
    const int h = plane == Plane::Y ? f.heightY() : plane == Plane::U ? f.heightU() : plane == Plane::V ? f.heightV() : f.heightA();
    QByteArray out;
    if (bits)
        for (int j = 0; j < h; ++j)
            out.append(reinterpret_cast<const char*>(bits + j * bpl), w);
    if (!mapped)
        f.unmap();
    return out;
}

inline int at(const QByteArray& plane, int w, int x, int y) { return uchar(plane[y * w + x]); }

inline QString dataDir()
{
    const QString dir = QStringLiteral(ORVO_TEST_DATA_DIR "/frameops");
    QDir().mkpath(dir);
    return dir;
}

// Runs the ffmpeg command line; returns its standard output (empty on failure).
inline QByteArray ffmpeg(const QStringList& args)
{
    QProcess p;
    p.start(QStringLiteral("ffmpeg"), QStringList{"-nostdin", "-loglevel", "error"} + args);
    if (!p.waitForFinished(60000) || p.exitStatus() != QProcess::NormalExit || p.exitCode() != 0)
        return QByteArray();
    return p.readAllStandardOutput();
}

inline QByteArray readFile(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

}  // namespace frameops
