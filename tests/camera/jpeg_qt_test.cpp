// JPEG through Qt's reader (payloads with a 384-byte header).
#include "common/test_streams.h"
#include "orvo/decoder_jpeg.h"

#include <QImage>
#include <gtest/gtest.h>

#include <cmath>

using namespace orvo::test;
using orvo::DecoderJPEG;
using orvo::VideoFrame;

namespace {

QByteArray header384()
{
    QByteArray h(384, '\0');
    for (int i = 0; i < h.size(); ++i)
        h[i] = char(i * 7 % 251);  // no FF D8 pair
    return h;
}

TEST(JpegThroughQt, FillsAYuv420FrameMatchingTheJpegsDecode)
{
    const int w = 97, h = 61;
    const QByteArray jpeg = qtJpeg(w, h);
    QImage ref;
    ASSERT_TRUE(ref.loadFromData(jpeg, "JPEG"));
    ref = ref.convertToFormat(QImage::Format_RGB32);

    DecoderJPEG decoder;
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
    }

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
