// Geometry and colours users hit: clipped fills and their BT.601 colours, import positions,
// enlarging and alpha, 4:2:2 chroma rows, regions cut at edges, copies with black fill,
// blending at a corner partly outside.
#include "frameops_util.h"
#include "orvo/qimage_import.h"
#include "orvo/scale_context.h"

#include <gtest/gtest.h>

using namespace frameops;
using orvo::Rect;

namespace {
constexpr int kBg = 0x55;
VideoFrame background(int w, int h, VideoFrame::OrvoPixelFormat f = VideoFrame::Format_YUV420P)
{
    return makeFrame(w, h, f, constant(kBg), constant(kBg), constant(kBg));
}
// Checks every sample of a packed plane: inside(x, y) ? value : kBg (value -1: anything but kBg).
void expectRect(const QByteArray& plane, int w, int h, const std::function<bool(int, int)>& inside, int value)
{
    ASSERT_EQ(plane.size(), w * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            if (inside(x, y) && value < 0)
                ASSERT_NE(at(plane, w, x, y), kBg) << "at " << x << "," << y;
            else
                ASSERT_EQ(at(plane, w, x, y), inside(x, y) ? value : kBg) << "at " << x << "," << y;
}
auto box(int x0, int y0, int x1, int y1)  // half-open
{
    return [=](int x, int y) { return x >= x0 && x < x1 && y >= y0 && y < y1; };
}
struct Colour {
    const char* name;
    QRgb rgb;
    int y, u, v;  // BT.601 studio range, truncated as the fills compute it
};
const Colour kColours[] = {
    {"red", 0xFFFF0000, 81, 90, 239},     {"green", 0xFF00FF00, 144, 53, 34},  {"blue", 0xFF0000FF, 40, 239, 109},
    {"white", 0xFFFFFFFF, 235, 128, 128}, {"black", 0xFF000000, 16, 128, 128},
};
int channelDiff(QRgb a, QRgb b)
{
    return qMax(qAbs(qRed(a) - qRed(b)), qMax(qAbs(qGreen(a) - qGreen(b)), qAbs(qBlue(a) - qBlue(b))));
}
QImage solid(int w, int h, QRgb c, QImage::Format f = QImage::Format_RGB32)
{
    QImage image(w, h, f);
    image.fill(QColor::fromRgba(c));
    return image;
}
}  // namespace

TEST(FrameGeometry, FillsClipAtTheEdges)
{
    VideoFrame f = background(8, 8);
    ASSERT_TRUE(f.map(QAbstractVideoBuffer::ReadWrite));
    f.body()->fill(1, 2, 3, 1, 1, 3, 3);
    f.unmap();
    expectRect(planeBytes(f, Plane::Y), 8, 8, box(1, 1, 4, 4), 1);
    expectRect(planeBytes(f, Plane::U), 4, 4, box(1, 1, 3, 3), 2);  // chroma origin rounds up
    expectRect(planeBytes(f, Plane::V), 4, 4, box(1, 1, 3, 3), 3);

    f = background(8, 8);
    ASSERT_TRUE(f.map(QAbstractVideoBuffer::ReadWrite));
    f.body()->fill(9, 9, 9, 8, 0, 4, 4);         // origin at the right edge: nothing
    f.body()->fill(1, 1, 1, -4, 0, 4, 1);        // negative origin moves, width kept: columns 0..3
    f.body()->fill(2, 2, 2, 6, 5, 0, -1);        // 0 / negative size: to the edges
    f.body()->fill(3, 3, 3, 7, 7, 100, 100);     // runs over: clipped; chroma origin 4 is off the plane
    f.fillY(4, Rect(-2, -2, 3, 3));              // single-plane rectangles are intersected
    f.fillU(5, Rect(3, 3, 50, 50));
    f.unmap();
    const QByteArray y = planeBytes(f, Plane::Y);
    for (int j = 0; j < 8; ++j)
        for (int i = 0; i < 8; ++i) {
            int want = kBg;
            if (j == 0 && i < 4)
                want = 1;
            if (j >= 5 && i >= 6)
                want = 2;
            if (j == 7 && i == 7)
                want = 3;
            if (i < 1 && j < 1)
                want = 4;
            ASSERT_EQ(at(y, 8, i, j), want) << i << "," << j;
        }
    const QByteArray u = planeBytes(f, Plane::U);
    EXPECT_EQ(at(u, 4, 3, 3), 5);
    EXPECT_EQ(at(u, 4, 3, 2), kBg);  // the fill at (6, 5) starts at chroma (3, 3): row 2 untouched
    EXPECT_EQ(at(u, 4, 0, 0), 1);

    // 4:2:2 keeps chroma rows.
    VideoFrame g = background(8, 6, VideoFrame::Format_YUV422P);
    ASSERT_TRUE(g.map(QAbstractVideoBuffer::ReadWrite));
    g.body()->fill(1, 2, 3, 2, 3, 4, 2);
    g.unmap();
    expectRect(planeBytes(g, Plane::U), 4, 6, box(1, 3, 3, 5), 2);
    expectRect(planeBytes(g, Plane::V), 4, 6, box(1, 3, 3, 5), 3);

    // Unmapped or null frames are left alone.
    VideoFrame h = background(8, 8);
    h.fillRgb(0xFFFFFFFF, Rect(0, 0, 8, 8));
    expectRect(planeBytes(h, Plane::Y), 8, 8, box(0, 0, 0, 0), 0);
    VideoFrame().fillY(1, Rect(0, 0, 1, 1));
}

TEST(FrameGeometry, ImportPositions)
{
    const QImage red = solid(10, 10, 0xFFFF0000);
    // x = -10 counts from the right; the image is cut to its own size (the room left is 240 high).
    VideoFrame f = background(320, 240);
    ASSERT_TRUE(orvo::qimage2videoFrame(red, f, -10, 0, false, 0, 1));
    expectRect(planeBytes(f, Plane::Y), 320, 240, box(310, 0, 320, 10), 81);
    expectRect(planeBytes(f, Plane::V), 160, 120, box(155, 0, 160, 5), 240);
    EXPECT_FALSE(f.isMapped());

    // x = -400 clamps to 0; an odd position inside the frame paints nothing right of the image.
    f = background(32, 16);
    ASSERT_TRUE(orvo::qimage2videoFrame(solid(7, 5, 0xFFFF0000), f, 3, 3, false, 0, 1));
    expectRect(planeBytes(f, Plane::Y), 32, 16, box(3, 3, 10, 8), 81);
    expectRect(planeBytes(f, Plane::V), 16, 8, box(1, 1, 5, 4), -1);  // the odd last column is filtered
    EXPECT_EQ(at(planeBytes(f, Plane::V), 16, 2, 2), 240);
    f = background(32, 16);
    ASSERT_TRUE(orvo::qimage2videoFrame(red, f, -400, 0, false, 0, 1));
    expectRect(planeBytes(f, Plane::Y), 32, 16, box(0, 0, 10, 10), 81);

    // At the right edge without enlarging: true, nothing written, unmapped even if mapped before.
    f = background(32, 16);
    ASSERT_TRUE(f.map(QAbstractVideoBuffer::ReadWrite));
    ASSERT_TRUE(orvo::qimage2videoFrame(red, f, 32, 0, false, 0, 1));
    EXPECT_FALSE(f.isMapped());
    expectRect(planeBytes(f, Plane::Y), 32, 16, box(0, 0, 0, 0), 0);

    // A frame mapped ReadWrite by the caller stays mapped.
    ASSERT_TRUE(f.map(QAbstractVideoBuffer::ReadWrite));
    ASSERT_TRUE(orvo::qimage2videoFrame(red, f, 0, 0, false, 0, 1));
    EXPECT_TRUE(f.isMapped());
    f.unmap();

    // 4:2:2: chroma rows are addressed with y itself.
    f = background(16, 16, VideoFrame::Format_YUV422P);
    ASSERT_TRUE(orvo::qimage2videoFrame(solid(16, 8, 0xFFFF0000), f, 0, 5, false, 0, 1));
    expectRect(planeBytes(f, Plane::V), 8, 16, box(0, 5, 8, 13), 240);
    expectRect(planeBytes(f, Plane::Y), 16, 16, box(0, 5, 16, 13), 81);
}

TEST(FrameGeometry, ImportEnlarges)
{
    VideoFrame f = background(320, 240);
    f.setScale(2, 1);
    f.setId(77);
    const VideoFrame old = f;
    ASSERT_TRUE(orvo::qimage2videoFrame(solid(100, 50, 0xFFFF0000), f, 300, 0, true, 0, 1));
    ASSERT_NE(f, old);
    EXPECT_EQ(f.width(), 400);
    EXPECT_EQ(f.height(), 240);
    EXPECT_EQ(f.getScaleX(), 2);
    EXPECT_EQ(f.id(), 77u);
    EXPECT_FALSE(f.isMapped());
    const QByteArray y = planeBytes(f, Plane::Y);
    EXPECT_EQ(at(y, 400, 299, 10), kBg);   // old picture kept
    EXPECT_EQ(at(y, 400, 300, 10), 81);    // image at column 300
    EXPECT_EQ(at(y, 400, 399, 49), 81);
    EXPECT_EQ(at(y, 400, 350, 60), 0);     // uncovered: black
    EXPECT_EQ(at(planeBytes(f, Plane::U), 200, 190, 100), 128);

    // lineDivisor 2: 100 lines at y 200 need 250 lines and are written 50 lines high.
    f = background(320, 240);
    QImage halves = solid(100, 100, 0xFFFF0000);
    for (int j = 50; j < 100; ++j)
        for (int i = 0; i < 100; ++i)
            halves.setPixel(i, j, 0xFF0000FF);
    ASSERT_TRUE(orvo::qimage2videoFrame(halves, f, 0, 200, true, 0, 2));
    EXPECT_EQ(f.width(), 320);
    EXPECT_EQ(f.height(), 250);
    const QByteArray y2 = planeBytes(f, Plane::Y);
    EXPECT_EQ(at(y2, 320, 50, 199), kBg);
    EXPECT_NEAR(at(y2, 320, 50, 210), 81, 1);   // top half red
    EXPECT_NEAR(at(y2, 320, 50, 240), 41, 1);   // bottom half blue
    EXPECT_EQ(at(y2, 320, 150, 240), 0);        // new area beside the image: black
}

TEST(FrameGeometry, ScaleToRegions)
{
    VideoFrame src = makeFrame(
        100, 80, VideoFrame::Format_YUV420P, [](int x, int y) { return (x * 2 + y) & 255; },
        [](int x, int y) { return 16 + x + y; }, [](int x, int y) { return 200 - x - y; });
    src.setId(5);
    src.setScale(2, 1);
    const QByteArray sy = planeBytes(src, Plane::Y);

    // -1,-1,-1,-1: the region from (99, 79), one sample.
    VideoFrame one(1, 1, VideoFrame::Format_YUV420P, orvo::defaultBufferProperties);
    ASSERT_TRUE(src.scaleTo(one, -1, -1, -1, -1));
    EXPECT_EQ(at(planeBytes(one, Plane::Y), 1, 0, 0), at(sy, 100, 99, 79));
    EXPECT_EQ(one.id(), 5u);
    EXPECT_EQ(one.getScaleX(), 2);

    // x 90, width 50 is cut to 10 columns; same size: exact copy of those columns.
    VideoFrame cut(10, 80, VideoFrame::Format_YUV420P, orvo::defaultBufferProperties);
    orvo::ScaleContext ctx;
    ASSERT_TRUE(src.scaleTo(cut, ctx, 90, 0, 50, -1));
    const QByteArray cy = planeBytes(cut, Plane::Y);
    for (int j = 0; j < 80; ++j)
        for (int i = 0; i < 10; ++i)
            ASSERT_EQ(at(cy, 10, i, j), at(sy, 100, 90 + i, j));
    const QByteArray cu = planeBytes(cut, Plane::U), su = planeBytes(src, Plane::U);
    for (int j = 0; j < 40; ++j)
        for (int i = 0; i < 5; ++i)
            ASSERT_EQ(at(cu, 5, i, j), at(su, 50, 45 + i, j));

    // A scaled region into a 4:2:2 destination inside a padded frame: nothing written past widths.
    orvo::BufferProperties padded;
    padded.minBytesPerLineY = 64;
    padded.minBytesPerLineU = 64;
    VideoFrame wide = makeFrame(37, 23, VideoFrame::Format_YUV422P, constant(1), constant(1), constant(1), padded);
    ASSERT_TRUE(wide.map(QAbstractVideoBuffer::ReadWrite));
    for (int j = 0; j < 23; ++j) {
        memset(wide.lineY(j) + 37, 0xEE, 64 - 37);
        memset(wide.lineU(j) + 19, 0xEE, 64 - 19);
    }
    wide.unmap();
    ASSERT_TRUE(src.scaleTo(wide, 13, 7, 61, 55));
    ASSERT_TRUE(wide.map(QAbstractVideoBuffer::ReadOnly));
    for (int j = 0; j < 23; ++j) {
        for (int i = 37; i < 64; ++i)
            ASSERT_EQ(wide.lineY(j)[i], 0xEE);
        for (int i = 19; i < 64; ++i)
            ASSERT_EQ(wide.lineU(j)[i], 0xEE);
    }
    wide.unmap();

    // A null destination stays null (planeless ones: the bad-input tests).
    VideoFrame null;
    EXPECT_FALSE(src.scaleTo(null, 0, 0, -1, -1));
    EXPECT_TRUE(null.isNull());
    EXPECT_FALSE(src.scaleTo(one, -200, 0, -1, -1));
    src.unmap();
    one.unmap();
}

TEST(FrameGeometry, CopyWithBlackFill)
{
    auto ys = [](int x, int y) { return 1 + x + 15 * y; };
    auto us = [](int x, int y) { return 100 + x + 8 * y; };
    VideoFrame src = makeFrame(16, 16, VideoFrame::Format_YUV420P, ys, us, constant(60));
    src.setViewName(QByteArray("door"));
    src.setId(9);
    for (int dx : {4, -3}) {
        SCOPED_TRACE(dx);
        const int dy = dx > 0 ? 2 : -2;
        const VideoFrame c = src.copy(dx, dy, 20, 20, orvo::defaultBufferProperties, true);
        ASSERT_TRUE(c.isValid());
        EXPECT_EQ(c.width(), 20);
        EXPECT_EQ(c.pixelFormat(), VideoFrame::Format_YUV420P);
        EXPECT_EQ(c.viewName(), QByteArray("door"));
        EXPECT_EQ(c.id(), 9u);
        EXPECT_EQ(c.bitsA(), nullptr);
        const QByteArray y = planeBytes(c, Plane::Y), u = planeBytes(c, Plane::U);
        for (int j = 0; j < 20; ++j)
            for (int i = 0; i < 20; ++i) {
                const int sx = i + dx, sy = j + dy;
                const bool in = sx >= 0 && sx < 16 && sy >= 0 && sy < 16;
                ASSERT_EQ(at(y, 20, i, j), in ? ys(sx, sy) : 0) << i << "," << j;
            }
        const int cdx = dx >= 0 ? dx / 2 : -((-dx + 1) / 2), cdy = dy >= 0 ? dy / 2 : -((-dy + 1) / 2);
        for (int j = 0; j < 10; ++j)
            for (int i = 0; i < 10; ++i) {
                const int sx = i + cdx, sy = j + cdy;
                const bool in = sx >= 0 && sx < 8 && sy >= 0 && sy < 8;
                ASSERT_EQ(at(u, 10, i, j), in ? us(sx, sy) : 128) << i << "," << j;
            }
    }
    // A crop inside, with the alpha plane kept.
    orvo::BufferProperties withAlpha;
    withAlpha.skipAlpha = false;
    const VideoFrame crop = src.copy(3, 5, 6, 4, withAlpha, false);
    ASSERT_TRUE(crop.isValid());
    const QByteArray y = planeBytes(crop, Plane::Y);
    EXPECT_EQ(at(y, 6, 0, 0), ys(3, 5));
    EXPECT_EQ(at(y, 6, 5, 3), ys(8, 8));
    EXPECT_EQ(planeBytes(crop, Plane::A), QByteArray(24, char(255)));
    // The source's map state is left as it was.
    ASSERT_TRUE(src.map(QAbstractVideoBuffer::ReadOnly));
    EXPECT_TRUE(src.copy(0, 0, 4, 4, orvo::defaultBufferProperties, true).isValid());
    EXPECT_TRUE(src.isMapped());
    src.unmap();
    EXPECT_TRUE(src.copy(0, 0, 4, 4, orvo::defaultBufferProperties, true).isValid());
    EXPECT_FALSE(src.isMapped());
}

TEST(FrameGeometry, BlendAtAPartlyOutsideCorner)
{
    VideoFrame frame = makeFrame(16, 16, VideoFrame::Format_YUV420P, constant(100), constant(100), constant(100));
    VideoFrame overlay = makeFrame(8, 8, VideoFrame::Format_YUV420P, constant(200), constant(20), constant(220));
    ASSERT_TRUE(overlay.map(QAbstractVideoBuffer::WriteOnly));
    for (int j = 0; j < 8; ++j)
        for (int i = 0; i < 8; ++i)
            overlay.bitsA()[j * overlay.bytesPerLineA() + i] = uchar(i < 4 ? 255 : (i < 6 ? 128 : 0));
    overlay.unmap();
    ASSERT_TRUE(frame.blend(overlay, -3, -2));
    EXPECT_FALSE(frame.isMapped());
    const QByteArray y = planeBytes(frame, Plane::Y);
    for (int j = 0; j < 16; ++j)
        for (int i = 0; i < 16; ++i) {
            const int ox = i + 3, oy = j + 2;
            int want = 100;
            if (ox < 8 && oy < 8)
                want = ox < 4 ? 200 : ox < 6 ? (128 * 200 + 127 * 100 + 127) / 255 : 100;
            ASSERT_EQ(at(y, 16, i, j), want) << i << "," << j;
        }
    // Chroma (0,0) covers luma (0..1, 0..1) = overlay columns 3 and 4: alpha 255 and 128.
    const QByteArray u = planeBytes(frame, Plane::U);
    const int n = 4 * 255, sumA = 2 * 255 + 2 * 128;
    EXPECT_EQ(at(u, 8, 0, 0), (sumA * 20 + (n - sumA) * 100 + n / 2) / n);
    EXPECT_EQ(at(u, 8, 3, 0), 100);  // luma columns 6..7: overlay alpha 0
    EXPECT_EQ(at(u, 8, 0, 3), 100);  // rows 6..7 are below the overlay (rows -2..5)

    // Entirely outside: nothing to do; no alpha plane or the frame itself: false.
    EXPECT_TRUE(frame.blend(overlay, 16, 0));
    EXPECT_EQ(planeBytes(frame, Plane::Y), y);
    VideoFrame opaque = overlay.clone(orvo::defaultBufferProperties);
    EXPECT_FALSE(frame.blend(opaque, 0, 0));
    EXPECT_FALSE(frame.blend(frame, 0, 0));
    EXPECT_FALSE(frame.blend(VideoFrame(), 0, 0));
}

// The fill colours are the truncated BT.601 studio-range values, on every plane and through
// every fill entry point; imported alpha is kept byte for byte.
TEST(FrameColours, FillsWriteBt601Values)
{
    for (const Colour& c : kColours) {
        SCOPED_TRACE(c.name);
        for (int entry = 0; entry < 3; ++entry) {
            VideoFrame frame = makeFrame(8, 8, VideoFrame::Format_YUV420P, constant(1), constant(2), constant(3));
            ASSERT_TRUE(frame.map(QAbstractVideoBuffer::ReadWrite));
            if (entry == 0)
                frame.fillRgb(c.rgb, Rect(0, 0, 8, 8));
            else if (entry == 1)
                frame.body()->fill(c.rgb, QRect(0, 0, 8, 8));
            else
                frame.body()->fill(QColor::fromRgb(c.rgb), QRect(0, 0, 8, 8));
            frame.unmap();
            for (char s : planeBytes(frame, Plane::Y))
                ASSERT_EQ(uchar(s), c.y);
            for (char s : planeBytes(frame, Plane::U))
                ASSERT_EQ(uchar(s), c.u);
            for (char s : planeBytes(frame, Plane::V))
                ASSERT_EQ(uchar(s), c.v);
            // And the filled colour reads back as itself (within the truncation of the fill values).
            const QImage back = frame.convertToQImage(VideoFrame::Format_RGB32, 0, 0, -1, -1, 0, 0, 0, 0, 0, 0);
            EXPECT_LE(channelDiff(back.pixel(4, 4), c.rgb), 6);
        }
    }
    VideoFrame frame = makeFrame(8, 8, VideoFrame::Format_YUV420P, constant(1), constant(2), constant(3));
    ASSERT_TRUE(frame.map(QAbstractVideoBuffer::ReadWrite));
    frame.fillYuv(0xAA108090, Rect(0, 0, 8, 8));
    frame.unmap();
    EXPECT_EQ(planeBytes(frame, Plane::Y), QByteArray(64, char(0x10)));
    EXPECT_EQ(planeBytes(frame, Plane::U), QByteArray(16, char(0x80)));
    EXPECT_EQ(planeBytes(frame, Plane::V), QByteArray(16, char(0x90)));
    // The alpha channel of an ARGB32 image lands byte for byte in the alpha plane.
    QImage image(13, 7, QImage::Format_ARGB32);
    for (int j = 0; j < 7; ++j)
        for (int i = 0; i < 13; ++i)
            image.setPixel(i, j, qRgba(i * 3, 40, 200, (i * 19 + j * 7) & 255));
    VideoFrame withAlpha = makeFrame(13, 7, VideoFrame::Format_YUV420P, constant(0), constant(0), constant(0));
    ASSERT_TRUE(orvo::qImageAlphaChannel2videoFrame(image, withAlpha));
    EXPECT_FALSE(withAlpha.isMapped());
    const QByteArray a = planeBytes(withAlpha, Plane::A);
    ASSERT_EQ(a.size(), 13 * 7);
    for (int j = 0; j < 7; ++j)
        for (int i = 0; i < 13; ++i)
            EXPECT_EQ(at(a, 13, i, j), (i * 19 + j * 7) & 255);
}
