// Destroying decoders while jobs run and images wait: no job outlives its decoder, no
// result reaches a destroyed object, and the other streams carry on. The ordered decoder:
// reordering rule, gaps bridged by the reorder limit, and the real pool path with images fed
// out of id order.
#include "async/async_test_util.h"
#include "async/decode_scheduler.h"
#include "orvo/concurrent_decoder.h"

#include <QPointer>
#include <gtest/gtest.h>

#include <limits>

using namespace orvo;
using namespace orvo::test;

namespace {

const std::vector<Image>& clip()
{
    static const std::vector<Image> images = toImages(demuxVideo(h264Clip(30, 10)), 'h');
    return images;
}

// Nothing left running or scheduled in the shared pool.
void expectPoolIdle()
{
    EXPECT_TRUE(poolGoesIdle());
}

}  // namespace

TEST(Lifetime, DestroyingBusyDecodersLeavesTheOthersRunning)
{
    const auto& images = clip();
    ASSERT_EQ(images.size(), 30u);
    constexpr int kStreams = 8;
    std::vector<std::unique_ptr<ConcurrentDecoder>> decoders;
    std::vector<std::unique_ptr<Recorder>> recs;
    for (int s = 0; s < kStreams; ++s) {
        decoders.push_back(std::make_unique<ConcurrentDecoder>());
        recs.push_back(std::make_unique<Recorder>());
        recs.back()->attach(decoders.back().get());
        if (s % 2 == 1)
            decoders.back()->clearInputQueueOnIFrames();
    }
    for (const Image& image : images)
        for (auto& d : decoders)
            ASSERT_EQ(d->decode(image), 1);
    // Let a few frames out, then destroy every other decoder mid-stream (jobs running,
    // backlogs full) and one right away.
    decoders[0].reset();
    ASSERT_TRUE(waitUntil([&] { return recs[1]->frames.size() >= 3; }));
    for (int s = 2; s < kStreams; s += 2)
        decoders[s].reset();
    spin(20);
    for (int s = 1; s < kStreams; s += 2) {
        // With clearing on, everything before the last I-frame that was queued is dropped.
        ASSERT_TRUE(waitUntil([&] { return !recs[s]->frames.empty() && recs[s]->frames.back().id() == 30; }))
            << "stream " << s;
    }
    std::vector<size_t> counts;
    for (auto& r : recs)
        counts.push_back(r->frames.size());
    spin(50);
    for (int s = 0; s < kStreams; ++s)
        EXPECT_EQ(recs[s]->frames.size(), counts[s]) << "late frame on stream " << s;
    EXPECT_TRUE(recs[0]->frames.empty());
    expectPoolIdle();
}

TEST(Lifetime, HandleDestroyedFromItsOwnSignal)
{
    const auto& images = clip();
    auto* decoder = new ConcurrentDecoder;
    Recorder rec;
    rec.attach(decoder);
    ConcurrentDecoder other;
    Recorder otherRec;
    otherRec.attach(&other);
    rec.onFrame = [&](const VideoFrame& f) {
        if (f.id() == 3) {
            delete decoder;
            decoder = nullptr;
        }
    };
    for (const Image& image : images) {
        ASSERT_EQ(decoder->decode(image), 1);
        ASSERT_EQ(other.decode(image), 1);
    }
    ASSERT_TRUE(waitUntil([&] { return otherRec.frames.size() == images.size(); }));
    spin(30);
    EXPECT_EQ(decoder, nullptr);
    EXPECT_EQ(rec.ids(), (std::vector<quint64>{1, 2, 3}));
    expectPoolIdle();
}

TEST(Lifetime, ParentOwnsTheHandleAndImplementationOutlivesIt)
{
    const auto& images = clip();
    {
        auto* parent = new QObject;
        QPointer<ConcurrentDecoder> decoder = new ConcurrentDecoder(parent);
        for (const Image& image : images)
            decoder->decode(image);
        delete parent;  // deletes the handle while a job runs
        EXPECT_TRUE(decoder.isNull());
    }
    spin(20);
    expectPoolIdle();

    // A client that kept the implementation keeps a working decoder after the handle is gone.
    QSharedPointer<SignaledAsyncDecoderInterface> kept;
    Recorder rec;
    {
        ConcurrentDecoder decoder;
        kept = decoder.qSharedPointerInterface();
        rec.attach(kept.data());
    }
    for (const Image& image : images)
        ASSERT_EQ(kept->decode(image), 1);
    ASSERT_TRUE(waitUntil([&] { return rec.frames.size() == images.size(); }));
    // Releasing it while busy waits for its job.
    for (const Image& image : images)
        kept->decode(image);
    kept.reset();
    spin(30);
    EXPECT_EQ(rec.frames.size(), images.size());
    expectPoolIdle();
}

TEST(Lifetime, OrderedHandleDestroyedFromItsSignalInSynchronousMode)
{
    // The ordered decoder still walks its waiting frames after each emission.
    auto* decoder = new OrderedConcurrentDecoder;
    decoder->useSingleThreadedMode();
    Recorder rec;
    rec.attach(decoder);
    rec.onFrame = [&](const VideoFrame& f) {
        if (f.id() == 2) {
            delete decoder;
            decoder = nullptr;
        }
    };
    for (quint64 id : {quint64(1), quint64(3), quint64(4)})
        ASSERT_EQ(decoder->decode(Image('y', rawYuv(16, 8, int(id)), id)), 3);
    EXPECT_EQ(rec.ids(), std::vector<quint64>{1});
    // Id 2 releases 3 and 4 from the waiting list, but the handle dies on 2.
    EXPECT_EQ(decoder->decode(Image('y', rawYuv(16, 8, 2), 2)), 3);
    EXPECT_EQ(decoder, nullptr);
    EXPECT_EQ(rec.ids(), (std::vector<quint64>{1, 2}));
}

TEST(OrderedRule, RestoresOrderAndFlushesAcrossGaps)
{
    using Ids = std::vector<quint64>;
    auto join = [](Ids a, const Ids& b) {
        a.insert(a.end(), b.begin(), b.end());
        return a;
    };
    const quint64 top = std::numeric_limits<quint64>::max();
    struct Step {
        Ids finished;
        Ids emitted;     // all emitted so far
        int waiting;     // -1: not checked
        int limit = 0;   // a reorder limit set before the step
    };
    const std::vector<std::pair<const char*, std::vector<Step>>> cases = {
        {"reordered", {{{1, 3, 4, 2}, {1, 2, 3, 4}, 0}}},
        // The first frame is emitted whatever its id; 7 and 8 wait behind the missing 6;
        // 40 lies beyond 5 + 24 and flushes them.
        {"first and beyond the limit", {{{5, 7, 8}, {5}, 2}, {{40}, {5, 7, 8, 40}, 0}}},
        // A missing id: the successors wait (without spinning) until the gap exceeds the
        // limit, then everything comes out in order.
        {"gap", {{join({1, 2}, idRange(4, 26)), {1, 2}, 23}, {{27, 28}, join({1, 2}, idRange(4, 28)), 0}}},
        // A frame not newer than the last emitted one waits for a later flush; equal ids
        // keep their arrival order.
        {"old frame",
         {{{10, 11, 4}, {10, 11}, 1}, {{12}, {10, 11, 12}, -1}, {{20}, {10, 11, 12, 4, 20}, -1, 2}}},
        // Ids near the top of the range do not wrap the window.
        {"top of the range", {{{top - 3, top - 1, top - 2}, {top - 3, top - 2, top - 1}, 0}}},
    };
    for (const auto& [name, steps] : cases) {
        SCOPED_TRACE(name);
        OrderedConcurrentDecoderImpl impl;
        Recorder rec;
        rec.attach(&impl);
        for (const Step& step : steps) {
            if (step.limit)
                impl.setReorderLimit(step.limit);
            for (quint64 id : step.finished) {
                VideoFrame f;
                f.setId(id);
                impl.frameFinished(f);
            }
            EXPECT_EQ(rec.ids(), step.emitted);
            if (step.waiting >= 0)
                EXPECT_EQ(impl.waitingFrameCount(), step.waiting);
        }
        EXPECT_EQ(impl.lastEmittedId(), steps.back().emitted.back());
    }
}

TEST(OrderedDecoder, PoolPathEmitsInIdOrderAndBridgesFailedImages)
{
    const QString clip = ffmpegFile(QStringLiteral("async_mjpeg_40.avi"),
                                    QStringLiteral("-f lavfi -i testsrc2=size=176x144:rate=25 -frames:v 40 -c:v mjpeg "
                                                   "-pix_fmt yuvj420p -q:v 4"));
    const auto images = toImages(demuxVideo(clip), 'j');
    ASSERT_EQ(images.size(), 40u);
    const auto reference = syncDecode(images);

    OrderedConcurrentDecoder decoder;
    EXPECT_EQ(decoder.generateNextFrameId(), 1u);
    EXPECT_EQ(decoder.generateNextFrameId(), 2u);
    EXPECT_EQ(decoder.generateNextFrameId(), 3u);
    Recorder rec, implRec;
    rec.attach(&decoder);
    implRec.attach(decoder.getInterface());

    // Fed (and therefore finished) in the order 1, 3, 4, 2, ...
    const std::vector<size_t> order = {0, 2, 3, 1, 4, 5};
    for (size_t i : order)
        ASSERT_EQ(decoder.decode(images[i]), 1);
    ASSERT_TRUE(waitUntil([&] { return rec.frames.size() == order.size(); }));
    EXPECT_EQ(rec.ids(), idRange(1, 6));
    for (const VideoFrame& f : rec.frames)
        EXPECT_EQ(packYuv420p(f), reference[f.id() - 1]) << f.id();

    // Image 8 fails: the error comes at once; 9.. wait until an id lies beyond 7 + 24,
    // which flushes them.
    for (size_t i = 6; i < images.size(); ++i) {
        Image image = images[i];
        if (image.id() == 8)
            image.setPayload(QByteArray(64, '\x5a'));
        ASSERT_EQ(decoder.decode(image), 1);
    }
    ASSERT_TRUE(waitUntil([&] { return rec.frames.size() == images.size() - 1; }));
    spin(30);
    std::vector<quint64> expected = idRange(1, 7);
    for (quint64 id = 9; id <= 40; ++id)
        expected.push_back(id);
    EXPECT_EQ(rec.ids(), expected);
    EXPECT_EQ(implRec.errors, std::vector<quint32>{1});
    EXPECT_EQ(implRec.errorIds, std::vector<quint64>{8});
    EXPECT_EQ(rec.errorIds, implRec.errorIds) << "the handle re-emits the error once";
    EXPECT_TRUE(poolGoesIdle());
}
