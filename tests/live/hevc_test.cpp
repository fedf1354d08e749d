// H.265 from cameras: streams made by libx265, cut into images, decoded through Decoder
// and ConcurrentDecoder, compared with the ffmpeg command line byte for byte.
#include "async/async_test_util.h"
#include "orvo/concurrent_decoder.h"
#include "orvo/decoder_av.h"
#include "orvo/decoder_preferences.h"

#include <gtest/gtest.h>

using namespace orvo;
using namespace orvo::test;

namespace {

// Camera-like H.265: no B-frames (pictures come out in the order they go in), closed
// GOPs, a key frame every `gop` pictures.
QString hevcClip(const QString& name, int width, int height, int frames, const QString& pixFmt, int gop = 5)
{
    return ffmpegFile(name, QStringLiteral("-f lavfi -i testsrc2=size=%1x%2:rate=25 -frames:v %3 -pix_fmt %4 "
                                           "-c:v libx265 -preset ultrafast -x265-params "
                                           "log-level=error:bframes=0:keyint=%5:min-keyint=%5:scenecut=0:"
                                           "open-gop=0")
                                .arg(width)
                                .arg(height)
                                .arg(frames)
                                .arg(pixFmt)
                                .arg(gop));
}

struct ZeroCopy {
    explicit ZeroCopy(bool on) { DecoderPreferences::instance()->setZeroCopyDecoding(on); }
    ~ZeroCopy() { DecoderPreferences::instance()->setZeroCopyDecoding(false); }
};

// Decodes every image through one Decoder, then drains it. An H.265 picture comes out
// with the next image (its access unit ends where the next one starts), each stamped
// with its own image.
std::vector<VideoFrame> decodeAll(std::vector<Image> images, unsigned char code)
{
    std::vector<VideoFrame> frames;
    Decoder decoder;
    for (size_t i = 0; i < images.size(); ++i) {
        images[i].setType(code);
        VideoFrame frame;
        const Decoder::ImageResult r = decoder.decodeImage(images[i], frame);
        EXPECT_EQ(r, i == 0 ? Decoder::ImageResult::Pending : Decoder::ImageResult::Picture) << "image " << i;
        if (r == Decoder::ImageResult::Picture) {
            EXPECT_EQ(frame.id(), images[i - 1].id());
            frames.push_back(frame);
        }
    }
    VideoFrame last;
    EXPECT_TRUE(decoder.drain(last));
    EXPECT_EQ(last.id(), images.back().id());
    frames.push_back(last);
    EXPECT_FALSE(decoder.drain(last));
    EXPECT_EQ(decoder.getFormat(), 'e');
    return frames;
}

std::vector<VideoFrame> decodeConcurrently(const std::vector<Image>& images)
{
    ConcurrentDecoder decoder;
    decoder.useMultiThreadedMode();
    Recorder recorder;
    recorder.attach(&decoder);
    for (const Image& image : images)
        EXPECT_EQ(decoder.decode(image), 1);
    EXPECT_EQ(decoder.drain(), 1);
    EXPECT_TRUE(waitUntil([&] { return recorder.frames.size() + recorder.errors.size() >= images.size(); }));
    EXPECT_TRUE(recorder.errors.empty());
    EXPECT_EQ(decoder.decodedFrames(), images.size());
    EXPECT_EQ(decoder.droppedImages(), 0u);
    return recorder.frames;
}

void expectEqualToReference(const std::vector<VideoFrame>& frames, const std::vector<QByteArray>& reference,
                            int width, int height, const char* how)
{
    ASSERT_EQ(frames.size(), reference.size()) << how;
    for (size_t i = 0; i < frames.size(); ++i) {
        EXPECT_EQ(frames[i].pixelFormat(), VideoFrame::Format_YUV420P) << how << " picture " << i;
        EXPECT_EQ(maxDiffYuv420p(frames[i], reference[i], width, height), 0) << how << " picture " << i;
    }
}

}  // namespace

TEST(Hevc, FormatCodesSelectH265)
{
    Decoder decoder;
    ASSERT_TRUE(decoder.init('e', 0));
    EXPECT_EQ(decoder.getFormat(), 'e');
    const unsigned char held = decoder.getFormat();
    // Both cases serve the same stream: the decoder and its reference pictures are kept.
    EXPECT_TRUE(decoder.isFormat('E', 3));
    EXPECT_TRUE(decoder.init('E', 3));
    EXPECT_EQ(decoder.getFormat(), held);
    EXPECT_FALSE(decoder.isFormat('h', 0));
    // 'R' stays unknown and leaves the held decoder alone.
    EXPECT_FALSE(decoder.init('R', 0));
    EXPECT_EQ(decoder.getFormat(), 'e');
    EXPECT_EQ(DecoderAV(FormatIn_HEVC).getFormat(), 'e');

    // Garbage and an empty payload are no picture, not a crash.
    QByteArray junk(4000, '\x5a');
    junk[0] = 0, junk[1] = 0, junk[2] = 1, junk[3] = 0x40;
    VideoFrame frame;
    EXPECT_FALSE(decoder.decode(reinterpret_cast<unsigned char*>(junk.data()), junk.size(), frame, true));
    EXPECT_FALSE(decoder.decode(reinterpret_cast<unsigned char*>(junk.data()), 0, frame, true));
    EXPECT_TRUE(frame.isNull());
}

// Main (8-bit) at an uneven size: what the decoder gives is exactly FFmpeg's picture,
// copied, wrapped without a copy, and decoded on the pool.
TEST(Hevc, MainEqualsFFmpegByteForByte)
{
    const int width = 1366, height = 768;
    const QString path = hevcClip(QStringLiteral("live_hevc_main_1366x768.mkv"), width, height, 12,
                                  QStringLiteral("yuv420p"));
    ASSERT_FALSE(path.isEmpty());
    const std::vector<Image> images = toImages(demuxVideo(path), 'e');
    ASSERT_EQ(images.size(), 12u);
    EXPECT_TRUE(images[0].iframe());
    EXPECT_TRUE(images[5].iframe());
    EXPECT_FALSE(images[1].iframe());
    const std::vector<QByteArray> reference = ffmpegFrames(path, width, height);

    expectEqualToReference(decodeAll(images, 'e'), reference, width, height, "copied");
    {
        ZeroCopy zeroCopy(true);
        const std::vector<VideoFrame> wrapped = decodeAll(images, 'E');
        expectEqualToReference(wrapped, reference, width, height, "zero-copy");
    }
    expectEqualToReference(decodeConcurrently(images), reference, width, height, "pooled");
}

// Main 10 arrives as 8-bit 4:2:0, converted as FFmpeg's own bilinear swscale does it.
TEST(Hevc, Main10EqualsFFmpegBilinearConversion)
{
    const int width = 640, height = 360;
    const QString path = hevcClip(QStringLiteral("live_hevc_main10_640x360.mkv"), width, height, 10,
                                  QStringLiteral("yuv420p10le"));
    ASSERT_FALSE(path.isEmpty());
    const std::vector<Image> images = toImages(demuxVideo(path), 'e');
    ASSERT_EQ(images.size(), 10u);
    const std::vector<QByteArray> reference =
        ffmpegFrames(path, width, height, QStringLiteral("yuv420p"), QStringLiteral("-sws_flags bilinear"));

    expectEqualToReference(decodeAll(images, 'e'), reference, width, height, "synchronous");
    {
        // Zero-copy only ever wraps 8-bit 4:2:0; 10-bit pictures are still converted.
        ZeroCopy zeroCopy(true);
        expectEqualToReference(decodeAll(images, 'e'), reference, width, height, "zero-copy preference");
    }
    expectEqualToReference(decodeConcurrently(images), reference, width, height, "pooled");
}
