// Pictures at the size a client shows them: Motion JPEG decoded smaller directly equals
// FFmpeg's own reduced-resolution decode at every factor (odd sizes too), other formats
// come out scaled once to fit, and the setting follows the stream through size changes,
// clearing, format switches and the pooled path.
#include "async/async_test_util.h"
#include "common/support.h"
#include "common/test_streams.h"
#include "decoders/jpeg_header.h"
#include "orvo/concurrent_decoder.h"
#include "orvo/decoder.h"

#include <gtest/gtest.h>

using namespace orvo;
using namespace orvo::test;

namespace {

constexpr int kW = 1283, kH = 723;  // odd both ways: rounding of every factor shows

QString mjpegClip()
{
    // testsrc2 makes even sizes only: the odd one comes from scaling.
    return ffmpegFile("size_mjpeg_1283x723.avi",
                      QString::asprintf("-f lavfi -i testsrc2=size=1280x720:rate=25 -vf scale=%d:%d -frames:v 4 -c:v mjpeg "
                                        "-pix_fmt yuvj420p -q:v 3",
                                        kW, kH));
}

int ceilShift(int v, int k) { return (v + (1 << k) - 1) >> k; }

}  // namespace

TEST(OutputSize, MotionJpegDecodesSmallAsFFmpegDoesAtEveryFactor)
{
    const QString path = mjpegClip();
    const auto images = toImages(demuxVideo(path), 'j');
    ASSERT_EQ(images.size(), 4u);
    int w = 0, h = 0;
    ASSERT_TRUE(jpegPictureSize(reinterpret_cast<const unsigned char*>(images[0].payloadData()),
                                int(images[0].payloadSize()), &w, &h));
    EXPECT_EQ(QSize(w, h), QSize(kW, kH));
    for (int k = 1; k <= 3; ++k) {
        SCOPED_TRACE(k);
        const int sw = ceilShift(kW, k), sh = ceilShift(kH, k);
        const auto reference = ffmpegFrames(path, sw, sh, "yuv420p", QString(), QString("-lowres %1").arg(k));
        ASSERT_EQ(reference.size(), images.size());
        Decoder decoder;
        decoder.setMaxOutputSize(QSize(sw, sh));
        for (size_t i = 0; i < images.size(); ++i) {
            VideoFrame frame;
            ASSERT_EQ(decoder.decodeImage(images[i], frame), Decoder::ImageResult::Picture);
            ASSERT_EQ(QSize(frame.width(), frame.height()), QSize(sw, sh));
            EXPECT_EQ(frame.id(), images[i].id());
            EXPECT_EQ(maxDiffYuv420p(frame, reference[i], sw, sh), 0) << i;
        }
    }
    // A size between two factors takes the smaller factor that still covers it, then scales
    // the rest; the largest side never exceeds the size asked for.
    Decoder decoder;
    decoder.setMaxOutputSize(QSize(400, 400));
    VideoFrame frame;
    ASSERT_EQ(decoder.decodeImage(images[0], frame), Decoder::ImageResult::Picture);
    EXPECT_EQ(QSize(frame.width(), frame.height()), QSize(kW, kH).scaled(400, 400, Qt::KeepAspectRatio));
    EXPECT_EQ(lowresFactorFor(kW, kH, 400, 400, 3), 1);
    EXPECT_EQ(lowresFactorFor(kW, kH, kW, kH, 3), 0);
    EXPECT_EQ(lowresFactorFor(kW, kH, 1, 1, 3), 3);
}

TEST(OutputSize, HeaderParserRefusesWhatIsNotAFrameHeader)
{
    int w = -1, h = -1;
    const unsigned char noSoi[] = {0x00, 0xd8, 0xff, 0xc0};
    const unsigned char scanFirst[] = {0xff, 0xd8, 0xff, 0xda, 0x00, 0x08, 0, 0, 0, 0, 0, 0};
    const unsigned char cut[] = {0xff, 0xd8, 0xff, 0xc0, 0x00, 0x11, 0x08, 0x02};
    const unsigned char zeroLength[] = {0xff, 0xd8, 0xff, 0xe0, 0x00, 0x00, 0xff, 0xc0};
    const unsigned char dhtThenSof[] = {0xff, 0xd8, 0xff, 0xc4, 0x00, 0x02, 0xff, 0xff, 0xc2, 0x00, 0x0b, 0x08, 0x01, 0x02, 0x03, 0x04};
    EXPECT_FALSE(jpegPictureSize(noSoi, sizeof noSoi, &w, &h));
    EXPECT_FALSE(jpegPictureSize(scanFirst, sizeof scanFirst, &w, &h));
    EXPECT_FALSE(jpegPictureSize(cut, sizeof cut, &w, &h));
    EXPECT_FALSE(jpegPictureSize(zeroLength, sizeof zeroLength, &w, &h));
    ASSERT_TRUE(jpegPictureSize(dhtThenSof, sizeof dhtThenSof, &w, &h));  // fill byte, progressive SOF
    EXPECT_EQ(QSize(w, h), QSize(0x0304, 0x0102));
}

TEST(OutputSize, OtherFormatsAreScaledOnceAndTheSettingFollowsTheStream)
{
    const auto h264 = toImages(demuxVideo(h264Clip(12, 6)), 'h');
    const auto jpeg = toImages(demuxVideo(mjpegClip()), 'j');
    ASSERT_EQ(h264.size(), 12u);
    const auto full = decodeImages(h264);
    ASSERT_EQ(full.size(), 12u);
    const QSize small = QSize(176, 144).scaled(160, 90, Qt::KeepAspectRatio);
    // Expected pictures: the full decode scaled as a client would with scaleTo.
    auto scaled = [](const VideoFrame& f, const QSize& size) {
        VideoFrame out(size.width(), size.height(), VideoFrame::Format_YUV420P, orvo::defaultBufferProperties);
        EXPECT_TRUE(f.scaleTo(out, 0, 0, -1, -1));
        return packYuv420p(out);
    };
    // Synchronous and pooled alike: small from image 4, cleared from image 9, and a format
    // switch to Motion JPEG keeps the size.
    for (const bool pooled : {false, true}) {
        SCOPED_TRACE(pooled ? "pooled" : "synchronous");
        std::vector<VideoFrame> got;
        Decoder decoder;
        ConcurrentDecoder concurrent;
        Recorder rec;
        rec.attach(&concurrent);
        for (size_t i = 0; i < h264.size(); ++i) {
            const QSize size = i >= 3 && i < 8 ? QSize(160, 90) : QSize();
            if (pooled) {
                concurrent.setMaxOutputSize(size);
                EXPECT_EQ(concurrent.maxOutputSize(), size);
                ASSERT_EQ(concurrent.decode(h264[i]), 1);
                ASSERT_TRUE(waitUntil([&] { return rec.frames.size() == i + 1; }));  // one at a time: the size is per image
            } else {
                decoder.setMaxOutputSize(size);
                VideoFrame f;
                ASSERT_EQ(decoder.decodeImage(h264[i], f), Decoder::ImageResult::Picture);
                got.push_back(f);
            }
        }
        if (pooled)
            got = rec.frames;
        ASSERT_EQ(got.size(), h264.size());
        for (size_t i = 0; i < got.size(); ++i) {
            const bool isSmall = i >= 3 && i < 8;
            EXPECT_EQ(got[i].id(), h264[i].id());
            EXPECT_EQ(got[i].image().time(), h264[i].time());
            ASSERT_EQ(QSize(got[i].width(), got[i].height()), isSmall ? small : QSize(176, 144)) << i;
            EXPECT_EQ(packYuv420p(got[i]), isSmall ? scaled(full[i], small) : packYuv420p(full[i])) << i;
        }
        decoder.setMaxOutputSize(QSize(320, 320));
        concurrent.setMaxOutputSize(QSize(320, 320));
        VideoFrame f;
        if (pooled) {
            ASSERT_EQ(concurrent.decode(jpeg[0]), 1);
            ASSERT_TRUE(waitUntil([&] { return rec.frames.size() == h264.size() + 1; }));
            f = rec.frames.back();
        } else {
            ASSERT_EQ(decoder.decodeImage(jpeg[0], f), Decoder::ImageResult::Picture);
        }
        EXPECT_EQ(QSize(f.width(), f.height()), QSize(kW, kH).scaled(320, 320, Qt::KeepAspectRatio));
        EXPECT_EQ(f.id(), jpeg[0].id());
    }
}
