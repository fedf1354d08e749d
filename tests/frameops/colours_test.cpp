// Colours through the QImage import and export, and the fill colours.
#include "frameops_util.h"
#include "orvo/qimage_import.h"

#include <gtest/gtest.h>

using namespace frameops;
using orvo::Rect;

namespace {

struct Colour {
    const char* name;
    QRgb rgb;
    int y, u, v;  // BT.601 studio range, truncated as the fills compute it
};

const Colour kColours[] = {
    {"red", 0xFFFF0000, 81, 90, 239},   {"green", 0xFF00FF00, 144, 53, 34}, {"blue", 0xFF0000FF, 40, 239, 109},
    {"white", 0xFFFFFFFF, 235, 128, 128}, {"black", 0xFF000000, 16, 128, 128},
};

int channelDiff(QRgb a, QRgb b)
{
    return qMax(qAbs(qRed(a) - qRed(b)), qMax(qAbs(qGreen(a) - qGreen(b)), qAbs(qBlue(a) - qBlue(b))));
}

QImage rgbRoundTrip(const QImage& image, VideoFrame::OrvoPixelFormat format, QByteArray* y = nullptr)
{
    VideoFrame frame = makeFrame(image.width(), image.height(), format, constant(0), constant(0), constant(0));
    EXPECT_TRUE(orvo::qimage2videoFrame(image, frame, 0, 0, false, 0, 1));
    EXPECT_FALSE(frame.isMapped());
    if (y)
        *y = planeBytes(frame, Plane::Y);
    return frame.convertToQImage(VideoFrame::Format_RGB32, 0, 0, -1, -1, 0, 0, 0, 0, 0, 0);
}

}  // namespace

// Pure colours survive QImage -> frame -> QImage in every accepted image format and every
// frame layout, which proves the byte order of Format_RGB32/ARGB32 (a swapped red and blue
// would be 255 off) and the studio range (white lands on Y 235, black on 16).
TEST(FrameColours, PureColoursRoundTripWithinTwo)
{
    for (QImage::Format imageFormat : {QImage::Format_RGB32, QImage::Format_ARGB32, QImage::Format_RGB888}) {
        for (VideoFrame::OrvoPixelFormat frameFormat : {VideoFrame::Format_YUV420P, VideoFrame::Format_YUV422P}) {
            for (const Colour& c : kColours) {
                SCOPED_TRACE(std::string(c.name) + " image format " + std::to_string(imageFormat) +
                             " frame format " + std::to_string(frameFormat));
                QImage image(18, 10, imageFormat);
                image.fill(QColor::fromRgb(c.rgb));
                QByteArray y;
                const QImage back = rgbRoundTrip(image, frameFormat, &y);
                ASSERT_EQ(back.size(), image.size());
                ASSERT_EQ(back.format(), QImage::Format_RGB32);
                int worst = 0;
                for (int j = 0; j < back.height(); ++j)
                    for (int i = 0; i < back.width(); ++i) {
                        worst = qMax(worst, channelDiff(back.pixel(i, j), c.rgb));
                        EXPECT_EQ(qAlpha(back.pixel(i, j)), 255);
                    }
                EXPECT_LE(worst, 2) << "last pixel " << std::hex << back.pixel(17, 9);
                for (char s : y)
                    EXPECT_NEAR(uchar(s), c.y, 1);
            }
        }
    }
}

// The fill colours are the truncated BT.601 studio-range values, on every plane and through
// every fill entry point.
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
}

// The alpha channel of an ARGB32 image lands byte for byte in the alpha plane.
TEST(FrameColours, AlphaChannelImport)
{
    QImage image(13, 7, QImage::Format_ARGB32);
    for (int j = 0; j < 7; ++j)
        for (int i = 0; i < 13; ++i)
            image.setPixel(i, j, qRgba(i * 3, 40, 200, (i * 19 + j * 7) & 255));
    VideoFrame frame = makeFrame(13, 7, VideoFrame::Format_YUV420P, constant(0), constant(0), constant(0));
    ASSERT_TRUE(orvo::qImageAlphaChannel2videoFrame(image, frame));
    EXPECT_FALSE(frame.isMapped());
    const QByteArray a = planeBytes(frame, Plane::A);
    ASSERT_EQ(a.size(), 13 * 7);
    for (int j = 0; j < 7; ++j)
        for (int i = 0; i < 13; ++i)
            EXPECT_EQ(at(a, 13, i, j), (i * 19 + j * 7) & 255);
}
