// JPEG through Qt's reader (payloads with a 384-byte header), and MxPEG through DecoderMXPEG
// and the MxPEG library: I-frames are JPEG images made by FFmpeg's mjpeg encoder; P-frames
// are built here the way MxPEG cameras send them.
#include "backends/mxpeg.h"
#include "common/test_streams.h"
#include "orvo/decoder_jpeg.h"
#include "orvo/decoder_mxpeg.h"

#include <QImage>
#include <QVector3D>
#include <gtest/gtest.h>

#include <cmath>

using namespace orvo::test;
using orvo::DecoderJPEG;
using orvo::DecoderMXPEG;
using orvo::VideoFrame;

namespace {

constexpr int kW = 320, kH = 240, kMbW = kW / 16;

QString jpegFile(const QString& name, int frameNumber)
{
    return ffmpegFile(name, QString::asprintf("-f lavfi -i testsrc2=size=%dx%d:rate=25 -vf trim=start_frame=%d "
                                              "-frames:v 1 -pix_fmt yuvj420p -c:v mjpeg -q:v 3",
                                              kW, kH, frameNumber));
}

QByteArray pFrame(const QByteArray& b, int count) { return mxpegPFrame(b, kW, kH, count); }

// Packed yuv420p picture: the first `count` macroblocks from `b`, the rest from `a`.
QByteArray mix(const QByteArray& a, const QByteArray& b, int count)
{
    QByteArray out = a;
    for (int mb = 0; mb < count; ++mb)
        for (int plane = 0; plane < 3; ++plane) {  // 16 x 16 luma, 8 x 8 chroma samples
            const int n = plane ? 8 : 16, stride = plane ? kW / 2 : kW;
            const int base = plane ? kW * kH + (plane - 1) * (kW / 2) * (kH / 2) : 0;
            for (int y = 0; y < n; ++y) {
                const int o = base + ((mb / kMbW) * n + y) * stride + (mb % kMbW) * n;
                out.replace(o, n, b.mid(o, n));
            }
        }
    return out;
}

TEST(MxPEG, PFramesChangeOnlyTheirMacroblocks)
{
    const QString pathA = jpegFile("cam_mx_a.jpg", 0), pathB = jpegFile("cam_mx_b.jpg", 20);
    const QByteArray a = readFile(pathA), b = readFile(pathB);
    ASSERT_TRUE(a.size() > 0 && b.size() > 0);
    const auto refA = ffmpegFrames(pathA, kW, kH, "yuvj420p");
    const auto refB = ffmpegFrames(pathB, kW, kH, "yuvj420p");
    ASSERT_EQ(refA.size(), 1u);
    ASSERT_EQ(refB.size(), 1u);

    DecoderMXPEG decoder;
    const int count = kMbW * 3 + 7;  // three rows and a part of the fourth
    const QByteArray p = pFrame(b, count);
    int w = -1, h = -1;
    xpegGetWH(const_cast<char*>(p.constData()), p.size(), &w, &h);
    EXPECT_EQ(w, 0);
    EXPECT_EQ(h, 0);

    // A P-frame first: no picture to lay it over.
    VideoFrame untouched(4, 4, VideoFrame::Format_YUV420P, orvo::defaultBufferProperties);
    VideoFrame frame = untouched;
    EXPECT_FALSE(decodeBytes(decoder, p, frame));
    EXPECT_TRUE(frame == untouched);

    VideoFrame first;
    ASSERT_TRUE(decodeBytes(decoder, a, first));
    EXPECT_EQ(first.pixelFormat(), VideoFrame::Format_YUV420P);
    EXPECT_EQ(first.getScaleX(), 1);
    EXPECT_EQ(first.getScaleY(), 1);
    EXPECT_EQ(maxDiffYuv420p(first, refA[0], kW, kH), 0);

    VideoFrame second;
    ASSERT_TRUE(decodeBytes(decoder, p, second));
    EXPECT_EQ(maxDiffYuv420p(second, mix(refA[0], refB[0], count), kW, kH), 0);
    EXPECT_NE(maxDiffYuv420p(second, refA[0], kW, kH), 0);
    // The first frame is a deep copy: the P-frame did not change it.
    EXPECT_EQ(maxDiffYuv420p(first, refA[0], kW, kH), 0);

    // Trailing bytes after the image's end are cut off; an I-frame replaces everything.
    VideoFrame third;
    ASSERT_TRUE(decodeBytes(decoder, b + QByteArray(37, '\x11'), third));
    EXPECT_EQ(maxDiffYuv420p(third, refB[0], kW, kH), 0);
}

TEST(MxPEG, HostileInput)
{
    const QByteArray a = readFile(jpegFile("cam_mx_a.jpg", 0));
    ASSERT_GT(a.size(), 100);
    DecoderMXPEG decoder;
    VideoFrame frame;

    EXPECT_FALSE(decodeBytes(decoder, QByteArray("\xff\xd9\x00\x01", 4), frame));
    EXPECT_FALSE(decodeBytes(decoder, QByteArray(), frame));
    EXPECT_FALSE(decodeBytes(decoder, QByteArray("\xff", 1), frame));
    EXPECT_FALSE(decoder.decode(nullptr, 10, frame, false));

    // No D9 anywhere: handed on with length 1 (footer message), then no size, no reference.
    EXPECT_FALSE(decodeBytes(decoder, QByteArray("\xff\xd8\x00\x00\x00", 5), frame));

    // Frame headers that lie: a huge size is refused; a first header smaller than the real
    // picture gives planes too small for it, which must fail without writing past them.
    EXPECT_FALSE(decodeBytes(decoder, withJpegSize(a, 65535, 65535), frame));
    QByteArray smaller = a;
    smaller.insert(2, QByteArray("\xff\xc0\x00\x11\x08\x00\x10\x00\x10\x03\x01\x22\x00\x02\x11\x01\x03\x11\x01", 19));
    int w = 0, h = 0;
    xpegGetWH(smaller.data(), smaller.size(), &w, &h);
    EXPECT_EQ(w, 16);
    EXPECT_FALSE(decodeBytes(decoder, smaller, frame));

    // Damaged bytes (truncated and random ones are the fuzz target's): FFmpeg refuses the
    // packet, reported as a failed decode.
    QByteArray damaged = a;
    for (int i = 100; i < damaged.size(); i += 13)
        damaged[i] = char(damaged[i] ^ 0x21);
    VideoFrame f;
    EXPECT_FALSE(decodeBytes(decoder, damaged, f));
    // After all of it a good I-frame decodes.
    ASSERT_TRUE(decodeBytes(decoder, a, f));
    EXPECT_EQ(f.width(), kW);
    EXPECT_EQ(f.height(), kH);
}

QByteArray header384()
{
    QByteArray h(384, '\0');
    for (int i = 0; i < h.size(); ++i)
        h[i] = char(i * 7 % 251);  // no FF D8 pair
    return h;
}

TEST(JpegThroughQt, FillsAYuv420FrameMatchingTheJpegsDecode)
{
    DecoderJPEG decoder;
    VideoFrame held;  // a frame the client keeps while the decoder goes on
    QByteArray heldY, lastY;
    // Odd sizes go through scratch planes, even ones straight into recycled frames (the
    // last two pictures differ by their JPEG quality).
    for (const QVector3D shape : {QVector3D(97, 61, 95), QVector3D(96, 64, 95), QVector3D(96, 64, 40)}) {
        const int w = int(shape.x()), h = int(shape.y());
        const QByteArray jpeg = qtJpeg(w, h, int(shape.z()));
        QImage ref;
        ASSERT_TRUE(ref.loadFromData(jpeg, "JPEG"));
        ref = ref.convertToFormat(QImage::Format_RGB32);
        for (const QByteArray& junk : {QByteArray(), QByteArray("\x00\xff\x00", 3)}) {
            VideoFrame frame;
            ASSERT_TRUE(decodeBytes(decoder, header384() + junk + jpeg, frame));
            ASSERT_EQ(frame.pixelFormat(), VideoFrame::Format_YUV420P);
            ASSERT_EQ(frame.width(), w);
            ASSERT_EQ(frame.height(), h);
            const QByteArray y = planeBytes(frame, Plane::Y);
            const QByteArray u = planeBytes(frame, Plane::U);
            const QByteArray v = planeBytes(frame, Plane::V);
            const int cw = (w + 1) / 2;
            auto at = [](const QByteArray& p, int stride, int x, int y) { return int(uchar(p[y * stride + x])); };
            int worstY = 0, worstC = 0;
            for (int r = 0; r < h; ++r)
                for (int c = 0; c < w; ++c) {
                    const QRgb p = ref.pixel(c, r);
                    const double ey = 16 + (65.481 * qRed(p) + 128.553 * qGreen(p) + 24.966 * qBlue(p)) / 255.0;
                    worstY = std::max(worstY, int(std::abs(at(y, w, c, r) - ey) + 0.5));
                    const double eu = 128 + (-37.797 * qRed(p) - 74.203 * qGreen(p) + 112.0 * qBlue(p)) / 255.0;
                    const double ev = 128 + (112.0 * qRed(p) - 93.786 * qGreen(p) - 18.214 * qBlue(p)) / 255.0;
                    worstC = std::max(worstC, int(std::abs(at(u, cw, c / 2, r / 2) - eu) + 0.5));
                    worstC = std::max(worstC, int(std::abs(at(v, cw, c / 2, r / 2) - ev) + 0.5));
                }
            EXPECT_LE(worstY, 1);
            EXPECT_LE(worstC, 3);
            if (held.isNull() && w % 2 == 0) {
                held = frame;
                heldY = y;
            }
            lastY = y;
        }
    }
    // Later (different) pictures never reuse the planes of a frame still held.
    ASSERT_NE(lastY, heldY);
    EXPECT_EQ(planeBytes(held, Plane::Y), heldY);

    // Nothing after the header, or no JPEG in it: false and the frame stays.
    VideoFrame untouched(4, 4, VideoFrame::Format_YUV420P, orvo::defaultBufferProperties);
    for (const QByteArray& bad : {header384(), header384().left(100), header384() + QByteArray(3000, '\x42'),
                                  header384() + QByteArray(4000, '\xff').replace(1, 1, "\xd8")}) {
        VideoFrame frame = untouched;
        EXPECT_FALSE(decodeBytes(decoder, bad, frame));
        EXPECT_TRUE(frame == untouched);
    }
    // Many SOI markers in junk: tried one by one, each failing quickly.
    QByteArray sois = header384();
    for (int i = 0; i < 2000; ++i)
        sois += QByteArray("\xff\xd8", 2);
    VideoFrame frame;
    EXPECT_FALSE(decodeBytes(decoder, sois, frame));
}

}  // namespace
