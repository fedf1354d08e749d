// Live walls: the bounded backlog, I-frame-only decoding and the counters, checked on
// real H.264 streams; every picture that comes out must equal FFmpeg's own decode.
#include "async/async_test_util.h"
#include "orvo/concurrent_decoder.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

using namespace orvo;
using namespace orvo::test;

namespace {

// The implementation is reached for what only a test needs to see (the backlog size).
class ProbedDecoder : public ConcurrentDecoder {
public:
    using ConcurrentDecoder::getImplementation;
};

void expectFramesMatch(const Recorder& recorder, const std::vector<QByteArray>& reference, int width, int height)
{
    for (const VideoFrame& frame : recorder.frames) {
        ASSERT_GE(frame.id(), 1u);
        ASSERT_LE(frame.id(), reference.size());
        EXPECT_EQ(maxDiffYuv420p(frame, reference[frame.id() - 1], width, height), 0) << "picture " << frame.id();
    }
}

bool idle(ProbedDecoder& decoder)
{
    ConcurrentDecoderImpl* impl = decoder.getImplementation();
    return impl->isBacklogEmpty() && !impl->isBusy();
}

}  // namespace

// Without the event loop the first job's result is not taken, so its decoder stays busy
// and everything after it waits in the backlog: the bound is then exact.
TEST(Backlog, BoundRefusesInterFramesUntilTheNextIFrame)
{
    const QString path = h264Clip(100, 25);
    ASSERT_FALSE(path.isEmpty());
    const std::vector<Image> images = toImages(demuxVideo(path), 'h');
    ASSERT_EQ(images.size(), 100u);
    const std::vector<QByteArray> reference = ffmpegFrames(path, 176, 144);
    auto image = [&](quint64 id) { return images[id - 1]; };

    for (const bool clearing : {false, true}) {
        SCOPED_TRACE(clearing ? "clearing on I-frames" : "keeping the backlog on I-frames");
        ProbedDecoder decoder;
        decoder.useMultiThreadedMode();
        EXPECT_EQ(decoder.inputQueueMaxSize(), 2147483647);
        decoder.setInputQueueMaxSize(3);
        EXPECT_EQ(decoder.inputQueueMaxSize(), 3);
        if (clearing)
            decoder.clearInputQueueOnIFrames();
        Recorder recorder;
        recorder.attach(&decoder);
        ConcurrentDecoderImpl* impl = decoder.getImplementation();

        for (quint64 id = 1; id <= 4; ++id)
            EXPECT_EQ(decoder.decode(image(id)), 1) << id;
        EXPECT_EQ(impl->backlogSize(), 3);
        for (quint64 id = 5; id <= 10; ++id)
            EXPECT_EQ(decoder.decode(image(id)), 0) << id;
        EXPECT_EQ(impl->backlogSize(), 3);
        ASSERT_TRUE(image(26).iframe());
        EXPECT_EQ(decoder.decode(image(26)), 1);  // an I-frame is never refused
        EXPECT_EQ(impl->backlogSize(), clearing ? 1 : 4);
        // Behind a full backlog 27 is refused; after a cleared one it has room.
        EXPECT_EQ(decoder.decode(image(27)), clearing ? 1 : 0);
        EXPECT_EQ(decoder.droppedImages(), clearing ? 9u : 7u);

        ASSERT_TRUE(waitUntil([&] { return idle(decoder); }));
        // 28 predicts from 27: refused with the backlog empty when 27 was refused.
        EXPECT_EQ(decoder.decode(image(28)), clearing ? 1 : 0);
        EXPECT_EQ(decoder.decode(image(51)), 1);
        EXPECT_EQ(decoder.decode(image(52)), 1);
        const std::vector<quint64> expected =
            clearing ? std::vector<quint64>{1, 26, 27, 28, 51, 52} : std::vector<quint64>{1, 2, 3, 4, 26, 51, 52};
        ASSERT_TRUE(waitUntil([&] { return idle(decoder) && recorder.frames.size() == expected.size(); }));

        EXPECT_EQ(recorder.ids(), expected);
        EXPECT_TRUE(recorder.errors.empty());
        EXPECT_EQ(decoder.decodedFrames(), expected.size());
        EXPECT_EQ(decoder.droppedImages(), clearing ? 9u : 8u);
        expectFramesMatch(recorder, reference, 176, 144);
    }
}

// One stream offered ten times faster than it decodes (ten images for every picture
// that comes out, so the pace holds on a loaded machine too), bound 3, clearing on
// I-frames: the backlog never grows past the bound, every I-frame is shown, frames come
// in order, none is corrupt, and every image is either decoded or counted as dropped.
TEST(Backlog, StaysBoundedUnderLoad)
{
    const int width = 640, height = 360, count = 150, gop = 50, pace = 10;
    const QString path =
        ffmpegFile(QStringLiteral("live_h264_grain_640x360_%1f_g%2.mp4").arg(count).arg(gop),
                   // Grain makes every picture costly to decode, as camera noise does.
                   QStringLiteral("-f lavfi -i testsrc2=size=640x360:rate=25 -vf noise=alls=30:allf=t -frames:v %1 "
                                  "-c:v libx264 -preset veryfast -crf 16 -bf 0 -g %2 -keyint_min %2 -sc_threshold 0 "
                                  "-pix_fmt yuv420p")
                       .arg(count)
                       .arg(gop));
    ASSERT_FALSE(path.isEmpty());
    const std::vector<Image> images = toImages(demuxVideo(path), 'h');
    ASSERT_EQ(images.size(), size_t(count));
    const std::vector<QByteArray> reference = ffmpegFrames(path, width, height);
    ASSERT_EQ(reference.size(), size_t(count));

    ProbedDecoder decoder;
    decoder.useMultiThreadedMode();
    decoder.setInputQueueMaxSize(3);
    decoder.clearInputQueueOnIFrames();
    Recorder recorder;
    recorder.attach(&decoder);
    ConcurrentDecoderImpl* impl = decoder.getImplementation();
    int fed = 0, accepted = 0, maxBacklog = 0;
    QElapsedTimer clock;
    clock.start();
    while (fed < count && clock.elapsed() < 60000) {
        // An idle decoder is keeping up: it gets the next image at once.
        const quint64 allowed = idle(decoder) ? quint64(fed) + 1 : pace * (decoder.decodedFrames() + 1);
        while (fed < count && quint64(fed) < allowed) {
            const Image& image = images[size_t(fed++)];
            const int result = decoder.decode(image);
            EXPECT_TRUE(result == 1 || result == 0) << result;
            if (image.iframe())
                EXPECT_EQ(result, 1) << "I-frame " << image.id();
            accepted += result == 1 ? 1 : 0;
            maxBacklog = std::max(maxBacklog, impl->backlogSize());
        }
        spin(1);
    }
    ASSERT_EQ(fed, count);
    ASSERT_TRUE(waitUntil([&] { return idle(decoder); }));

    EXPECT_LE(maxBacklog, 3);
    EXPECT_EQ(maxBacklog, 3) << "the backlog never filled: no load";
    EXPECT_LT(accepted, count / 4);
    EXPECT_TRUE(recorder.errors.empty());
    const std::vector<quint64> ids = recorder.ids();
    EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end()) && std::adjacent_find(ids.begin(), ids.end()) == ids.end());
    const std::set<quint64> shown(ids.begin(), ids.end());
    for (int i = 0; i < count; i += gop)
        EXPECT_TRUE(shown.count(quint64(i + 1))) << "I-frame " << i + 1 << " not shown";
    EXPECT_EQ(decoder.decodedFrames(), ids.size());
    EXPECT_EQ(decoder.decodedFrames() + decoder.droppedImages(), quint64(count));
    expectFramesMatch(recorder, reference, width, height);
}

// GOP 25: I-frame-only yields exactly the I-frames; switched off mid-GOP, decoding
// resumes at the next I-frame and every picture equals the reference.
TEST(IFramesOnly, YieldsIFramesAndResumesAtTheNextOne)
{
    const QString path = h264Clip(100, 25);
    ASSERT_FALSE(path.isEmpty());
    const std::vector<Image> images = toImages(demuxVideo(path), 'h');
    ASSERT_EQ(images.size(), 100u);
    const std::vector<QByteArray> reference = ffmpegFrames(path, 176, 144);

    for (const bool synchronous : {false, true}) {
        SCOPED_TRACE(synchronous ? "single-threaded" : "pooled");
        {
            ConcurrentDecoder decoder;
            synchronous ? decoder.useSingleThreadedMode() : decoder.useMultiThreadedMode();
            EXPECT_FALSE(decoder.isDecodeIFramesOnly());
            decoder.setDecodeIFramesOnly(true);
            EXPECT_TRUE(decoder.isDecodeIFramesOnly());
            Recorder recorder;
            recorder.attach(&decoder);
            for (const Image& image : images)
                EXPECT_EQ(decoder.decode(image), image.iframe() ? (synchronous ? 3 : 1) : 0) << image.id();
            ASSERT_TRUE(waitUntil([&] { return decoder.decodedFrames() == 4; }));
            spin(20);
            EXPECT_EQ(recorder.ids(), (std::vector<quint64>{1, 26, 51, 76}));
            EXPECT_EQ(decoder.droppedImages(), 96u);
            expectFramesMatch(recorder, reference, 176, 144);
        }
        {
            ConcurrentDecoder decoder;
            synchronous ? decoder.useSingleThreadedMode() : decoder.useMultiThreadedMode();
            decoder.setDecodeIFramesOnly(true);
            Recorder recorder;
            recorder.attach(&decoder);
            for (size_t i = 0; i < images.size(); ++i) {
                if (i == 37)
                    decoder.setDecodeIFramesOnly(false);  // mid-GOP: 38 .. 50 still refused
                decoder.decode(images[i]);
            }
            std::vector<quint64> expected{1, 26};
            const std::vector<quint64> rest = idRange(51, 100);
            expected.insert(expected.end(), rest.begin(), rest.end());
            ASSERT_TRUE(waitUntil([&] { return recorder.frames.size() >= expected.size(); }));
            spin(20);
            EXPECT_EQ(recorder.ids(), expected);
            EXPECT_TRUE(recorder.errors.empty());
            EXPECT_EQ(decoder.decodedFrames(), expected.size());
            EXPECT_EQ(decoder.droppedImages(), 100u - expected.size());
            expectFramesMatch(recorder, reference, 176, 144);
        }
    }
}
