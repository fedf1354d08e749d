// The one send/receive loop under every FFmpeg-based decoder, on a real H.264 stream with
// B-frames (libx264): every picture comes out once, in display order, equal to the ffmpeg
// command line's decode; the end of the stream and "try again" are not failures; refused
// packets and a callback that stops are told apart.
#include "backends/ffmpeg_decoding_loop.h"
#include "common/test_streams.h"

extern "C" {
#include <libavutil/error.h>
#include <libavutil/imgutils.h>
}

#include <gtest/gtest.h>

using namespace orvo;
using namespace orvo::test;

namespace {

constexpr int kW = 322, kH = 180, kFrames = 24;

QString bframeClip()
{
    return ffmpegFile("loop_h264_bframes.mkv",
                      QString::asprintf("-f lavfi -i testsrc2=size=%dx%d:rate=25 -frames:v %d -c:v libx264 "
                                        "-bf 3 -g 12 -pix_fmt yuv420p",
                                        kW, kH, kFrames));
}

std::unique_ptr<FFmpegDecodingLoop> openH264()
{
    FFmpegDecodingLoop::Options options;
    options.threads = 1;
    return FFmpegDecodingLoop::open(avcodec_find_decoder(AV_CODEC_ID_H264), options);
}

// Packed yuv420p bytes of a decoded picture.
QByteArray packed(const AVFrame* f)
{
    QByteArray out(av_image_get_buffer_size(AVPixelFormat(f->format), f->width, f->height, 1), '\0');
    av_image_copy_to_buffer(reinterpret_cast<uint8_t*>(out.data()), out.size(), f->data, f->linesize,
                            AVPixelFormat(f->format), f->width, f->height, 1);
    return out;
}

}  // namespace

TEST(DecodingLoop, EveryPictureOnceInDisplayOrderAsTheCommandLineDecodesIt)
{
    const QString path = bframeClip();
    ASSERT_FALSE(path.isEmpty());
    const std::vector<Packet> packets = demuxVideo(path);
    ASSERT_EQ(packets.size(), size_t(kFrames));
    const std::vector<QByteArray> reference = ffmpegFrames(path, kW, kH);
    ASSERT_EQ(reference.size(), size_t(kFrames));

    auto loop = openH264();
    ASSERT_TRUE(loop);
    std::vector<QByteArray> pictures;
    std::vector<int64_t> stamps;
    const FFmpegDecodingLoop::FrameReady collect = [&](AVFrame* f) {
        pictures.push_back(packed(f));
        stamps.push_back(f->pts);
        return true;
    };
    size_t heldBack = 0;
    for (size_t i = 0; i < packets.size(); ++i) {
        const QByteArray& p = packets[i].data;
        ASSERT_EQ(loop->decode(reinterpret_cast<const uint8_t*>(p.constData()), p.size(), int64_t(i), collect),
                  FFmpegDecodingLoop::Result::Ok)
            << "packet " << i;
        heldBack = std::max(heldBack, i + 1 - pictures.size());
    }
    EXPECT_GT(heldBack, 1u) << "B-frames: the decoder holds pictures back";
    ASSERT_EQ(loop->drain(collect), FFmpegDecodingLoop::Result::Ok);
    ASSERT_EQ(pictures.size(), size_t(kFrames));
    for (int i = 0; i < kFrames; ++i)
        EXPECT_EQ(maxDiff(pictures[size_t(i)], reference[size_t(i)]), 0) << "picture " << i;
    // Display order is not sending order, and every packet's stamp comes out once.
    std::vector<int64_t> sorted = stamps;
    std::sort(sorted.begin(), sorted.end());
    for (int i = 0; i < kFrames; ++i)
        EXPECT_EQ(sorted[size_t(i)], i);
    EXPECT_NE(sorted, stamps);

    // The end of the stream is no failure, also a second time; a packet after it is refused
    // until the loop is flushed.
    EXPECT_EQ(loop->drain(collect), FFmpegDecodingLoop::Result::Ok);
    EXPECT_EQ(pictures.size(), size_t(kFrames));
    const QByteArray& first = packets[0].data;
    const auto* bytes = reinterpret_cast<const uint8_t*>(first.constData());
    EXPECT_EQ(loop->decode(bytes, first.size(), 0, collect), FFmpegDecodingLoop::Result::SendFailed);
    EXPECT_EQ(loop->lastError(), AVERROR_EOF);
    loop->flush();
    EXPECT_EQ(loop->decode(bytes, first.size(), 0, collect), FFmpegDecodingLoop::Result::Ok);
    EXPECT_EQ(loop->lastError(), 0);
    // No bytes is a refused packet, not the end of the stream: the stream goes on.
    EXPECT_EQ(loop->decode(bytes, 0, 1, collect), FFmpegDecodingLoop::Result::SendFailed);
    EXPECT_EQ(loop->decode(nullptr, 10, 1, collect), FFmpegDecodingLoop::Result::SendFailed);
    const QByteArray& second = packets[1].data;
    EXPECT_EQ(loop->decode(reinterpret_cast<const uint8_t*>(second.constData()), second.size(), 1, collect),
              FFmpegDecodingLoop::Result::Ok);
}

TEST(DecodingLoop, ACallbackThatStopsLeavesTheOtherPicturesForLater)
{
    const std::vector<Packet> packets = demuxVideo(bframeClip());
    ASSERT_EQ(packets.size(), size_t(kFrames));
    auto loop = openH264();
    ASSERT_TRUE(loop);
    int early = 0, taken = 0;
    const auto count = [&](AVFrame*) { return ++early, true; };
    for (const Packet& p : packets)
        ASSERT_EQ(loop->decode(reinterpret_cast<const uint8_t*>(p.data.constData()), p.data.size(), 0, count),
                  FFmpegDecodingLoop::Result::Ok);
    ASSERT_LE(early, kFrames - 2) << "pictures held back for the drain";
    // One picture per call: the rest stay in FFmpeg and come out with the next call.
    const auto one = [&](AVFrame*) {
        ++taken;
        return false;
    };
    EXPECT_EQ(loop->drain(one), FFmpegDecodingLoop::Result::FrameProcessingFailed);
    EXPECT_EQ(taken, 1);
    EXPECT_EQ(loop->receive(one), FFmpegDecodingLoop::Result::FrameProcessingFailed);
    EXPECT_EQ(taken, 2);
    int rest = 0;
    EXPECT_EQ(loop->receive([&](AVFrame*) { return ++rest, true; }), FFmpegDecodingLoop::Result::Ok);
    EXPECT_EQ(early + taken + rest, kFrames);
}

TEST(DecodingLoop, NoCodecOpensNothing)
{
    int error = 0;
    EXPECT_EQ(FFmpegDecodingLoop::open(nullptr, {}, &error), nullptr);
    EXPECT_EQ(error, AVERROR_DECODER_NOT_FOUND);
}
