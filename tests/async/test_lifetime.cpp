// Destroying decoders while jobs run and images wait: no job outlives its decoder, no
// result reaches a destroyed object, and the other streams carry on.
#include "async/async_test_util.h"
#include "async/decode_scheduler.h"
#include "orvo/concurrent_decoder.h"

#include <QPointer>
#include <gtest/gtest.h>

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
    EXPECT_EQ(DecodeScheduler::instance()->inFlight(), 0);
    EXPECT_EQ(DecodeScheduler::instance()->scheduledCount(), 0);
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
