// Conversions checked against independent references: swscale called directly on the same
// planes, and the ffmpeg command line on the same picture. Hostile and careless input:
// unsupported images, frames without planes, planes smaller than their frame claims, rectangles
// far outside; nothing may write outside a plane (run under ASan).
#include "frameops_util.h"
#include "orvo/qimage_import.h"
#include "orvo/scale_context.h"

#include <gtest/gtest.h>

#include <climits>
#include <tuple>

extern "C" {
#include <libswscale/swscale.h>
}

using namespace frameops;
using orvo::Rect;

namespace {

constexpr int kW = 322;  // not a multiple of 8 or 16: vector code must not spill
constexpr int kH = 182;

// A real picture: a JPEG made by FFmpeg's encoder, decoded by the command line into
// studio-range planes.
QString picturePlanes(const char* pixFmt)
{
    const QString jpeg = ffmpegFile("frameops_picture.jpg",
                                    QString("-f lavfi -i testsrc2=size=%1x%2 -frames:v 1 -q:v 3").arg(kW).arg(kH));
    return ffmpegFile(QString("frameops_picture_%1.yuv").arg(pixFmt),
                      QString("-i %1 -pix_fmt %2 -f rawvideo").arg(jpeg, pixFmt));
}

VideoFrame picture(const char* pixFmt, VideoFrame::OrvoPixelFormat format)
{
    return frameFromPlanar(readFile(picturePlanes(pixFmt)), kW, kH, format);
}

// The command line's own conversion of the same planes to packed BGRA.
QByteArray cliBgra(int outW, int outH)
{
    return ffmpeg({"-f", "rawvideo", "-pix_fmt", "yuv420p", "-s", QString("%1x%2").arg(kW).arg(kH), "-i",
                   picturePlanes("yuv420p"), "-vf", QString("scale=%1:%2:flags=bilinear").arg(outW).arg(outH),
                   "-pix_fmt", "bgra", "-f", "rawvideo", "-"});
}

// swscale (bilinear) on the frame's own planes, region (x, y, w, h), into outW x outH planes.
void swsInto(const VideoFrame& frame, int x, int y, int w, int h, AVPixelFormat format, int outW, int outH,
             uint8_t* const dst[4], const int dstStride[4])
{
    VideoFrame f = frame;
    ASSERT_TRUE(f.map(QAbstractVideoBuffer::ReadOnly));
    SwsContext* c = sws_getContext(w, h, AV_PIX_FMT_YUV420P, outW, outH, format, SWS_BILINEAR, nullptr, nullptr,
                                   nullptr);
    const uint8_t* src[4] = {f.bitsY() + y * f.bytesPerLineY() + x, f.bitsU() + y / 2 * f.bytesPerLineU() + x / 2,
                             f.bitsV() + y / 2 * f.bytesPerLineV() + x / 2, nullptr};
    const int srcStride[4] = {int(f.bytesPerLineY()), int(f.bytesPerLineU()), int(f.bytesPerLineV()), 0};
    sws_scale(c, src, srcStride, 0, h, dst, dstStride);
    sws_freeContext(c);
    f.unmap();
}

// The same into packed BGRA. swscale writes past tight rows: it converts into padded rows.
QByteArray directSws(const VideoFrame& frame, int x, int y, int w, int h, int outW, int outH)
{
    const int stride = (outW * 4 + 32 + 63) / 64 * 64;
    QByteArray padded(stride * outH + 256, 0);
    uint8_t* dst[4] = {reinterpret_cast<uint8_t*>(padded.data()), nullptr, nullptr, nullptr};
    const int dstStride[4] = {stride, 0, 0, 0};
    swsInto(frame, x, y, w, h, AV_PIX_FMT_BGRA, outW, outH, dst, dstStride);
    QByteArray out;
    for (int j = 0; j < outH; ++j)
        out.append(padded.constData() + j * stride, outW * 4);
    return out;
}

QByteArray packed(const QImage& image)
{
    QByteArray out;
    for (int j = 0; j < image.height(); ++j)
        out.append(reinterpret_cast<const char*>(image.constScanLine(j)), image.width() * 4);
    return out;
}

}  // namespace

// Whole pictures (against the command line too), a region from the right edge (x -10,
// width -1) and an explicit image size, each against swscale on the same planes.
TEST(FrameReference, ConvertToQImageMatchesSwscaleAndCommandLine)
{
    VideoFrame frame = picture("yuv420p", VideoFrame::Format_YUV420P);
    ASSERT_TRUE(frame.isValid());
    const struct {
        int x, y, w, h, imageW, imageH, ratio, den;  // convertToQImage's arguments
        int sx, sy, sw, sh, outW, outH;               // the same region for swscale, the image size
        bool cli;
    } cases[] = {
        {0, 0, -1, -1, 0, 0, 1, 1, 0, 0, kW, kH, kW, kH, true},
        {0, 0, -1, -1, 0, 0, 1, 2, 0, 0, kW, kH, kW / 2, kH / 2, true},
        {-10, 0, -1, -1, 0, 0, 0, 0, kW - 10, 0, 10, kH, 10, kH, false},
        {31, 17, 100, 60, 100, 50, 7, 3, 31, 17, 100, 60, 100, 50, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.x << "," << c.y << " ratio " << c.ratio << "/" << c.den);
        const QImage image = frame.convertToQImage(VideoFrame::Format_RGB32, c.x, c.y, c.w, c.h, c.imageW, c.imageH,
                                                   c.ratio, c.den, c.ratio, c.den);
        ASSERT_EQ(image.size(), QSize(c.outW, c.outH));
        ASSERT_EQ(image.format(), QImage::Format_RGB32);
        const QByteArray ours = packed(image);
        EXPECT_EQ(maxDiff(ours, directSws(frame, c.sx, c.sy, c.sw, c.sh, c.outW, c.outH)), 0);
        if (c.cli)
            EXPECT_LE(maxDiff(ours, cliBgra(c.outW, c.outH)), 3);
    }
    EXPECT_FALSE(frame.isMapped());
    // A frame the caller mapped stays mapped.
    ASSERT_TRUE(frame.map(QAbstractVideoBuffer::ReadOnly));
    EXPECT_FALSE(frame.convertToQImage(VideoFrame::Format_RGB32, 0, 0, 16, 16, 0, 0, 0, 0, 0, 0).isNull());
    EXPECT_TRUE(frame.isMapped());
    frame.unmap();

    // Output size rules: frame scale, ratios, explicit image size.
    VideoFrame small = makeFrame(32, 24, VideoFrame::Format_YUV420P, constant(100), constant(128), constant(128));
    small.setScale(2, 1);
    for (const auto& [imageW, den, size] : {std::tuple{0, 0, QSize(64, 24)}, std::tuple{0, 2, QSize(16, 12)},
                                            std::tuple{10, 2, QSize(10, 5)}})
        EXPECT_EQ(small.convertToQImage(VideoFrame::Format_RGB32, 0, 0, -1, -1, imageW, imageW / 2, den ? 1 : 0, den,
                                        den ? 1 : 0, den)
                      .size(),
                  size);
    EXPECT_TRUE(VideoFrame().convertToQImage(VideoFrame::Format_RGB32, 0, 0, -1, -1, 0, 0, 0, 0, 0, 0).isNull());
}

// scaleTo equals swscale on the same planes.
TEST(FrameReference, ScaleToMatchesSwscale)
{
    const VideoFrame frame = picture("yuv420p", VideoFrame::Format_YUV420P);
    ASSERT_TRUE(frame.isValid());
    VideoFrame small(160, 90, VideoFrame::Format_YUV420P, orvo::defaultBufferProperties);
    orvo::ScaleContext ctx;
    ASSERT_TRUE(frame.scaleTo(small, ctx, 0, 0, -1, -1));
    ASSERT_NE(ctx.context, nullptr);
    SwsContext* const kept = ctx.context;

    orvo::BufferProperties padded;
    padded.minBytesPerLineY = 256;
    padded.minBytesPerLineU = 256;
    VideoFrame ref(160, 90, VideoFrame::Format_YUV420P, padded);
    ASSERT_TRUE(ref.map(QAbstractVideoBuffer::WriteOnly));
    uint8_t* dst[4] = {ref.bitsY(), ref.bitsU(), ref.bitsV(), nullptr};
    const int ds[4] = {int(ref.bytesPerLineY()), int(ref.bytesPerLineU()), int(ref.bytesPerLineV()), 0};
    swsInto(frame, 0, 0, kW, kH, AV_PIX_FMT_YUV420P, 160, 90, dst, ds);
    ref.unmap();
    for (Plane p : {Plane::Y, Plane::U, Plane::V})
        EXPECT_EQ(planeBytes(small, p), planeBytes(ref, p));

    // The same geometry reuses the context (a same-size region is copied exactly: geometry suite).
    ASSERT_TRUE(frame.scaleTo(small, ctx, 0, 0, -1, -1));
    EXPECT_EQ(ctx.context, kept);
    EXPECT_FALSE(small.isMapped());
    EXPECT_FALSE(frame.isMapped());
}

// Format conversion against the command line converting the same picture.
TEST(FrameReference, ConvertToFormatMatchesCommandLine)
{
    const VideoFrame frame = picture("yuv444p", VideoFrame::Format_YUV444P);
    ASSERT_TRUE(frame.isValid());
    frame.body()->setViewName("cam 7");
    for (auto target : {VideoFrame::Format_YUV420P, VideoFrame::Format_YUV422P}) {
        SCOPED_TRACE(target);
        const char* pixFmt = target == VideoFrame::Format_YUV420P ? "yuv420p" : "yuv422p";
        const VideoFrame out = frame.convertToFormat(target, orvo::defaultBufferProperties);
        ASSERT_TRUE(out.isValid());
        EXPECT_EQ(out.pixelFormat(), target);
        EXPECT_EQ(out.viewName(), QByteArray("cam 7"));
        const QByteArray cli = ffmpeg({"-f", "rawvideo", "-pix_fmt", "yuv444p", "-s", QString("%1x%2").arg(kW).arg(kH),
                                       "-i", picturePlanes("yuv444p"), "-sws_flags", "bilinear", "-pix_fmt", pixFmt,
                                       "-f", "rawvideo", "-"});
        const VideoFrame ref = frameFromPlanar(cli, kW, kH, target);
        ASSERT_TRUE(ref.isValid());
        EXPECT_EQ(planeBytes(out, Plane::Y), planeBytes(frame, Plane::Y));  // luma is carried unchanged
        EXPECT_LE(maxDiff(planeBytes(out, Plane::U), planeBytes(ref, Plane::U)), 2);
        EXPECT_LE(maxDiff(planeBytes(out, Plane::V), planeBytes(ref, Plane::V)), 2);
        // And back to 4:4:4: chroma close to the original picture's.
        const VideoFrame back = out.convertToFormat(VideoFrame::Format_YUV444P, orvo::defaultBufferProperties);
        ASSERT_TRUE(back.isValid());
        EXPECT_EQ(planeBytes(back, Plane::Y), planeBytes(frame, Plane::Y));
        EXPECT_EQ(planeBytes(back, Plane::U).size(), kW * kH);
    }
    EXPECT_FALSE(frame.convertToFormat(VideoFrame::Format_NV12, orvo::defaultBufferProperties).isValid());
    EXPECT_TRUE(VideoFrame().convertToFormat(VideoFrame::Format_YUV420P, orvo::defaultBufferProperties).isNull());
}

namespace {
VideoFrame grey(int w, int h)
{
    return makeFrame(w, h, VideoFrame::Format_YUV420P, constant(50), constant(60), constant(70));
}

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
