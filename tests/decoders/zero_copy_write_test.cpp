// Zero-copy frames hold the decoder's own reference pictures: writing into one must give the
// frame planes of its own, so the stream's next pictures and earlier copies of the frame
// keep the decoded pixels.
#include "common/test_streams.h"
#include "orvo/decoder.h"
#include "orvo/decoder_preferences.h"
#include "orvo/video_frame.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>

using namespace orvo;
using namespace orvo::test;

namespace {

constexpr int kWidth = 320, kHeight = 240;
constexpr size_t kWritten = 2;  // an early picture that the following P pictures predict from

struct WriteCase {
    const char* name;
    std::function<void(VideoFrame&)> write;
};

std::ostream& operator<<(std::ostream& os, const WriteCase& c) { return os << c.name; }

const WriteCase kWrites[] = {
    // A fill writes into whatever the frame maps, even a read-only mapping.
    {"fill_on_read_mapping",
     [](VideoFrame& f) {
         ASSERT_TRUE(f.map(QAbstractVideoBuffer::ReadOnly));
         f.fillRgb(0xFF0000, Rect{8, 8, 100, 60});
         f.unmap();
     }},
    {"blend",
     [](VideoFrame& f) {
         VideoFrame overlay(64, 48, VideoFrame::Format_YUV420P, BufferProperties());
         ASSERT_TRUE(overlay.map(QAbstractVideoBuffer::ReadWrite));
         overlay.fillYuv(0xEB8080, Rect{0, 0, 0, 0});
         memset(overlay.bitsA(), 255, size_t(overlay.bytesPerLineA()) * size_t(overlay.heightA()));  // opaque
         overlay.unmap();
         ASSERT_TRUE(f.blend(overlay, 10, 20));
     }},
    {"write_mapping",
     [](VideoFrame& f) {
         ASSERT_TRUE(f.map(QAbstractVideoBuffer::ReadWrite));
         for (int row = 0; row < 40; ++row)
             memset(f.lineY(row), 0, size_t(f.widthY()));
         memset(f.lineU(5), 0, size_t(f.widthU()));
         f.unmap();
     }},
    {"scale_into",
     [](VideoFrame& f) {
         VideoFrame source(kWidth / 2, kHeight / 2, VideoFrame::Format_YUV420P, BufferProperties());
         ASSERT_TRUE(source.map(QAbstractVideoBuffer::ReadWrite));
         source.fillYuv(0x10F010, Rect{0, 0, 0, 0});
         source.unmap();
         ASSERT_TRUE(source.scaleTo(f, 0, 0, -1, -1));
     }},
};

class ZeroCopyWriteTest : public ::testing::TestWithParam<WriteCase> {};

TEST_P(ZeroCopyWriteTest, LeavesTheStreamAndEarlierCopiesWithTheDecodedPixels)
{
    const QString path = ffmpegFile(QStringLiteral("h264_p_only_320x240.mkv"),
                                    QStringLiteral("-f lavfi -i testsrc2=size=320x240:rate=25 -frames:v 12 "
                                                   "-c:v libx264 -bf 0 -g 50 -pix_fmt yuv420p"));
    ASSERT_FALSE(path.isEmpty());
    const std::vector<Image> images = toImages(demuxVideo(path), 'h');
    const std::vector<QByteArray> reference = ffmpegFrames(path, kWidth, kHeight);
    ASSERT_EQ(images.size(), reference.size());

    PreferencesGuard guard;
    DecoderPreferences::instance()->setZeroCopyDecoding(true);
    Decoder decoder;
    for (size_t k = 0; k < images.size(); ++k) {
        const Image& image = images[k];
        VideoFrame frame;
        ASSERT_TRUE(decoder.decode(image.type(), image.payloadData(), int(image.payloadSize()), frame, 0,
                                   image.iframe()))
            << "picture " << k;
        ASSERT_EQ(maxDiffYuv420p(frame, reference[k], kWidth, kHeight), 0) << "picture " << k;
        if (k != kWritten)
            continue;
        // A second frame over the same planes, taken before the write.
        const VideoFrame before(std::make_shared<VideoFrameQt>(*frame.body()));
        GetParam().write(frame);
        EXPECT_GT(maxDiffYuv420p(frame, reference[k], kWidth, kHeight), 0) << "the write did not land";
        EXPECT_EQ(maxDiffYuv420p(before, reference[k], kWidth, kHeight), 0) << "the earlier copy changed";
        ASSERT_TRUE(frame.map());
        EXPECT_EQ(frame.bytesPerLineY(), unsigned(kWidth)) << "own planes follow the allocation rules";
        frame.unmap();
    }
}

INSTANTIATE_TEST_SUITE_P(Writes, ZeroCopyWriteTest, ::testing::ValuesIn(kWrites),
                         [](const ::testing::TestParamInfo<WriteCase>& info) { return info.param.name; });

}  // namespace
