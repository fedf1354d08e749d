// Hostile and careless input: unsupported images, frames without planes, planes smaller than
// their frame claims, rectangles far outside. Nothing may write outside a plane (run under ASan).
#include "frameops_util.h"
#include "orvo/qimage_import.h"
#include "orvo/scale_context.h"

#include <climits>
#include <gtest/gtest.h>

using namespace frameops;
using orvo::Rect;

namespace {
VideoFrame grey(int w, int h) { return makeFrame(w, h, VideoFrame::Format_YUV420P, constant(50), constant(60), constant(70)); }

// A 4:2:0 frame of 16 x 16 whose chroma planes hold only 2 x 2 samples.
VideoFrame undersizedChroma()
{
    QVideoFrame y(new orvo::MemoryVideoBuffer(256, 16, 8), QSize(16, 16), QVideoFrame::Format_Y8);
    QVideoFrame u(new orvo::MemoryVideoBuffer(4, 2, 8), QSize(8, 8), QVideoFrame::Format_Y8);
    QVideoFrame v(new orvo::MemoryVideoBuffer(4, 2, 8), QSize(8, 8), QVideoFrame::Format_Y8);
    QVideoFrame a(new orvo::MemoryVideoBuffer(16, 16, 8), QSize(16, 16), QVideoFrame::Format_Y8);
    return VideoFrame(y, u, v, a, VideoFrame::Format_YUV420P);
}
}  // namespace

TEST(FrameBadInput, UnsupportedImagesLeaveTheFrameAlone)
{
    for (QImage::Format format : {QImage::Format_Indexed8, QImage::Format_RGB16, QImage::Format_ARGB32_Premultiplied,
                                  QImage::Format_Grayscale8, QImage::Format_Alpha8}) {
        SCOPED_TRACE(format);
        QImage image(8, 8, format);
        image.fill(0);
        VideoFrame frame = grey(16, 16);
        const QByteArray before = planeBytes(frame, Plane::Y);
        EXPECT_FALSE(orvo::qimage2videoFrame(image, frame, 0, 0, true, 0, 1));
        EXPECT_FALSE(frame.isMapped());
        ASSERT_TRUE(frame.map(QAbstractVideoBuffer::ReadWrite));
        EXPECT_FALSE(orvo::qimage2videoFrame(image, frame, 0, 0, false, 0, 1));
        EXPECT_TRUE(frame.isMapped());
        frame.unmap();
        EXPECT_EQ(planeBytes(frame, Plane::Y), before);
        EXPECT_EQ(frame.width(), 16);
    }
    VideoFrame frame = grey(16, 16);
    EXPECT_FALSE(orvo::qimage2videoFrame(QImage(), frame, 0, 0, true, 0, 1));
    // Alpha: no alpha channel, a size one pixel off, an 8-bit alpha image, a frame without alpha plane.
    QImage argb(16, 16, QImage::Format_ARGB32);
    argb.fill(0x80FFFFFF);
    EXPECT_FALSE(orvo::qImageAlphaChannel2videoFrame(QImage(16, 16, QImage::Format_RGB32), frame));
    EXPECT_FALSE(orvo::qImageAlphaChannel2videoFrame(argb.copy(0, 0, 15, 16), frame));
    EXPECT_FALSE(frame.isMapped());
    QImage alpha8(16, 16, QImage::Format_Alpha8);
    alpha8.fill(0);
    EXPECT_FALSE(orvo::qImageAlphaChannel2videoFrame(alpha8, frame));
    VideoFrame noAlpha = frame.clone(orvo::defaultBufferProperties);
    EXPECT_FALSE(orvo::qImageAlphaChannel2videoFrame(argb, noAlpha));
    EXPECT_FALSE(noAlpha.isMapped());
    // Nonsense line divisors keep every line instead of dividing by zero.
    for (int divisor : {0, -3})
        EXPECT_TRUE(orvo::qimage2videoFrame(argb, frame, 0, 0, false, 0, divisor));
    // An image larger than the divisor can halve to nothing.
    EXPECT_FALSE(orvo::qimage2videoFrame(QImage(4, 1, QImage::Format_RGB32), frame, 0, 0, false, 0, 2));
}

// Frames without planes, with one packed plane, or with planes smaller than the frame claims:
// every operation is refused and nothing is overrun; fills and copies clip to what the planes hold.
TEST(FrameBadInput, FramesWithoutUsablePlanes)
{
    VideoFrame planeless;
    planeless.setId(3);
    VideoFrame packed(QImage(16, 16, QImage::Format_RGB32));
    VideoFrame undersized = undersizedChroma();
    ASSERT_TRUE(undersized.isValid());
    QImage image(16, 16, QImage::Format_RGB32);
    image.fill(Qt::red);
    VideoFrame ok = grey(8, 8);
    for (VideoFrame* f : {&planeless, &packed, &undersized}) {
        const bool hasPlanes = f == &undersized;
        SCOPED_TRACE(f == &planeless ? "planeless" : hasPlanes ? "undersized" : "packed");
        EXPECT_FALSE(orvo::qimage2videoFrame(image, *f, 0, 0, false, 0, 1));
        if (!hasPlanes)
            EXPECT_FALSE(orvo::qimage2videoFrame(image, *f, 0, 0, true, 0, 1));
        EXPECT_FALSE(f->isMapped());
        EXPECT_EQ(f->mapMode(), QAbstractVideoBuffer::NotMapped);
        EXPECT_TRUE(f->convertToQImage(VideoFrame::Format_RGB32, 0, 0, -1, -1, 0, 0, 0, 0, 0, 0).isNull());
        f->unmap();
        EXPECT_FALSE(f->scaleTo(ok, 0, 0, -1, -1));
        f->unmap();
        ok.unmap();
        EXPECT_FALSE(ok.scaleTo(*f, 0, 0, -1, -1));
        f->unmap();
        ok.unmap();
        EXPECT_TRUE(f->convertToFormat(VideoFrame::Format_YUV444P, orvo::defaultBufferProperties).isNull());
        EXPECT_FALSE(ok.blend(*f, 0, 0));
        if (!hasPlanes)
            EXPECT_FALSE(f->blend(ok, 0, 0));
        f->map(QAbstractVideoBuffer::ReadWrite);
        f->fillRgb(0xFFFF0000, Rect(0, 0, -1, -1));
        f->body()->fill(1, 2, 3, 0, 0, -1, -1);
        f->fillU(9, Rect(0, 0, 8, 8));
        f->unmap();
        const VideoFrame copy = f->copy(0, 0, 16, 16, orvo::defaultBufferProperties, true);
        ASSERT_EQ(copy.isValid(), hasPlanes);
        if (hasPlanes) {
            EXPECT_EQ(at(planeBytes(copy, Plane::U), 8, 1, 1), 9);
            EXPECT_EQ(at(planeBytes(copy, Plane::U), 8, 5, 5), 128);
        }
    }
}

TEST(FrameBadInput, RectanglesFarOutside)
{
    VideoFrame frame = grey(16, 16);
    VideoFrame overlay = grey(8, 8);
    const QByteArray before = planeBytes(frame, Plane::Y);
    ASSERT_TRUE(frame.map(QAbstractVideoBuffer::ReadWrite));
    for (int v : {INT_MIN, INT_MIN + 1, -17, 16, 17, INT_MAX - 1, INT_MAX}) {
        frame.body()->fill(1, 1, 1, v, 0, INT_MAX, INT_MAX);
        frame.body()->fill(1, 1, 1, 0, v, 4, 4);
        frame.fillY(1, Rect(v, v, INT_MAX, INT_MAX));
        frame.fillU(1, Rect(v, 0, -1, -1));
        frame.fillV(1, Rect(0, v, INT_MIN, 3));
    }
    frame.unmap();
    // Only the fills whose origin clamps to 0 (negative v) painted something.
    EXPECT_NE(planeBytes(frame, Plane::Y), before);

    VideoFrame dst = grey(4, 4);
    orvo::ScaleContext ctx;
    for (int v : {INT_MIN, -17, 16, INT_MAX}) {
        SCOPED_TRACE(v);
        EXPECT_TRUE(frame.convertToQImage(VideoFrame::Format_RGB32, v, v, 4, 4, 0, 0, 0, 0, 0, 0).isNull());
        frame.unmap();
        EXPECT_FALSE(frame.scaleTo(dst, ctx, v, v, INT_MAX, INT_MAX));
        frame.unmap();
        dst.unmap();
        EXPECT_TRUE(frame.blend(overlay, v, v));
        const VideoFrame c = frame.copy(v, v, 3, 3, orvo::defaultBufferProperties, true);
        ASSERT_TRUE(c.isValid());
        EXPECT_EQ(planeBytes(c, Plane::Y), QByteArray(9, 0));
        QImage image(4, 4, QImage::Format_RGB32);
        image.fill(Qt::blue);
        VideoFrame target = grey(16, 16);
        EXPECT_TRUE(orvo::qimage2videoFrame(image, target, v, v, false, 0, 1));
        VideoFrame grow = grey(16, 16);
        const bool grown = orvo::qimage2videoFrame(image, grow, v, v, true, 0, 1);
        EXPECT_EQ(grown, v < INT_MAX);  // INT_MAX + 4 columns cannot be allocated
        EXPECT_FALSE(grow.isMapped());
    }
    // Sizes: huge ratios and image sizes give a null image instead of an overflow.
    EXPECT_TRUE(frame.convertToQImage(VideoFrame::Format_RGB32, 0, 0, -1, -1, 0, 0, INT_MAX, 1, INT_MAX, 1).isNull());
    frame.unmap();
    EXPECT_TRUE(frame.copy(0, 0, 0, 5, orvo::defaultBufferProperties, true).isNull());
    EXPECT_TRUE(frame.copy(0, 0, 5, -5, orvo::defaultBufferProperties, true).isNull());
}
