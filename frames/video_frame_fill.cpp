// Solid rectangles in YUV or RGB colours. The caller maps the frame for writing first;
// nothing here maps or unmaps (an unmapped plane has no bits and is left alone). A mapped
// frame over read-only decoder memory is detached first, keeping its map state.
#include "frames/plane_view.h"
#include "orvo/video_frame_qt.h"

#include <cstring>

namespace orvo {

namespace {

struct Yuv {
    int y, u, v;
};

int clampTo(double value, int lo, int hi)
{
    // Truncation toward zero, not rounding, is the contract of these colour values.
    return qBound(lo, int(value), hi);
}

// ITU-R BT.601, studio range.
Yuv rgbToYuv(unsigned int rgb)
{
    const double r = qRed(rgb);
    const double g = qGreen(rgb);
    const double b = qBlue(rgb);
    return {clampTo(0.257 * r + 0.504 * g + 0.098 * b + 16, 16, 235),
            clampTo(0.439 * b - (0.291 * g + 0.148 * r) + 128, 16, 240),
            clampTo(0.439 * r - 0.368 * g - 0.071 * b + 128, 16, 240)};
}

// Fills the part of (x, y, w, h) that lies on the plane. The callers' rectangle rules
// could reach past a plane (chroma origins rounded up, single-plane rectangles taken on
// trust); the intersection keeps every write inside the mapped memory.
void fillRect(const PlaneView& plane, qint64 x, qint64 y, qint64 w, qint64 h, int value)
{
    if (plane.isNull())
        return;
    const qint64 x0 = qMax<qint64>(x, 0);
    const qint64 y0 = qMax<qint64>(y, 0);
    const qint64 x1 = qMin<qint64>(x + w, plane.width);
    const qint64 y1 = qMin<qint64>(y + h, plane.height);
    if (x0 >= x1 || y0 >= y1)
        return;
    const size_t n = size_t(x1 - x0);
    for (qint64 row = y0; row < y1; ++row)
        memset(plane.at(int(x0), int(row)), value & 0xFF, n);
}

void fillOnePlane(const PlaneView& plane, unsigned char value, const Rect& r)
{
    if (plane.isNull())
        return;
    const qint64 w = r.width < 1 ? qint64(plane.width) - r.x : r.width;
    const qint64 h = r.height < 1 ? qint64(plane.height) - r.y : r.height;
    fillRect(plane, r.x, r.y, w, h, value);
}

}  // namespace

void VideoFrameQt::fill(int yValue, int uValue, int vValue, int x, int y, int width, int height)
{
    // A frame the caller mapped read-only may still hold decoder memory.
    if (isMapped() && !detach())
        return;
    const PlaneView planeY = viewY(*this);
    const int W = widthY();
    const int H = heightY();
    const qint64 px = qMax(x, 0);
    const qint64 py = qMax(y, 0);
    if (px >= W || py >= H)
        return;
    qint64 w = width;
    if (px + w > W || w < 1)
        w = W - px;
    qint64 h = height;
    if (py + h > H || h < 1)
        h = H - py;
    fillRect(planeY, px, py, w, h, yValue);

    // Chroma origins round up here (unlike the position rule), so an odd-aligned rectangle
    // starts one chroma sample right of / below the one covering its first luma sample.
    qint64 cx = px, cy = py, cw = w, ch = h;
    const OrvoPixelFormat format = pixelFormat();
    if (format == Format_YUV420P || format == Format_YUV422P) {
        cx = (px + 1) / 2;
        cw = (w + 1) / 2;
    }
    if (format == Format_YUV420P) {
        cy = (py + 1) / 2;
        ch = (h + 1) / 2;
    }
    fillRect(viewU(*this), cx, cy, cw, ch, uValue);
    fillRect(viewV(*this), cx, cy, cw, ch, vValue);
}

void VideoFrameQt::fill(unsigned int rgb, const QRect& r)
{
    const Yuv c = rgbToYuv(rgb);
    fill(c.y, c.u, c.v, r.left(), r.top(), r.right() - r.left() + 1, r.bottom() - r.top() + 1);
}

void VideoFrameQt::fill(QColor c, const QRect& r) { fill(c.rgb(), r); }

void VideoFrameQt::fillRgb(unsigned int rgb, const Rect& r)
{
    const Yuv c = rgbToYuv(rgb);
    fill(c.y, c.u, c.v, r.x, r.y, r.width, r.height);
}

void VideoFrameQt::fillYuv(unsigned int yuv, const Rect& r)
{
    fill(int((yuv >> 16) & 255), int((yuv >> 8) & 255), int(yuv & 255), r.x, r.y, r.width, r.height);
}

void VideoFrameQt::fillY(unsigned char value, const Rect& r)
{
    if (isMapped() && !detach())
        return;
    fillOnePlane(viewY(*this), value, r);
}
void VideoFrameQt::fillU(unsigned char value, const Rect& r)
{
    if (isMapped() && !detach())
        return;
    fillOnePlane(viewU(*this), value, r);
}
void VideoFrameQt::fillV(unsigned char value, const Rect& r)
{
    if (isMapped() && !detach())
        return;
    fillOnePlane(viewV(*this), value, r);
}

}  // namespace orvo
