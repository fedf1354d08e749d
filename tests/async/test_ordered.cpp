// The ordered decoder: reordering rule, gaps bridged by the reorder limit, and the real
// pool path with images fed out of id order.
#include "async/async_test_util.h"
#include "async/decode_scheduler.h"
#include "orvo/concurrent_decoder.h"

#include <gtest/gtest.h>

using namespace orvo;
using namespace orvo::test;

namespace {

VideoFrame frameWithId(quint64 id)
{
    VideoFrame f;
    f.setId(id);
    return f;
}

struct Ordered {
    OrderedConcurrentDecoderImpl impl;
    Recorder rec;
    Ordered() { rec.attach(&impl); }
    void finish(std::initializer_list<quint64> ids)
    {
        for (quint64 id : ids)
            impl.frameFinished(frameWithId(id));
    }
};

}  // namespace

TEST(OrderedRule, RestoresOrderAndFlushesAcrossGaps)
{
    {
        Ordered o;
        o.finish({1, 3, 4, 2});
        EXPECT_EQ(o.rec.ids(), (std::vector<quint64>{1, 2, 3, 4}));
        EXPECT_EQ(o.impl.lastEmittedId(), 4u);
        EXPECT_EQ(o.impl.waitingFrameCount(), 0);
    }
    {
        // The first frame is emitted whatever its id; 7 and 8 wait behind the missing 6;
        // 40 lies beyond 5 + 24 and flushes them.
        Ordered o;
        o.finish({5, 7, 8});
        EXPECT_EQ(o.rec.ids(), (std::vector<quint64>{5}));
        o.finish({40});
        EXPECT_EQ(o.rec.ids(), (std::vector<quint64>{5, 7, 8, 40}));
        EXPECT_EQ(o.impl.lastEmittedId(), 40u);
    }
    {
        // A missing id: the successors wait (without spinning) until the gap exceeds the
        // limit, then everything comes out in order.
        Ordered o;
        o.finish({1, 2});
        for (quint64 id = 4; id <= 26; ++id)
            o.impl.frameFinished(frameWithId(id));
        EXPECT_EQ(o.rec.ids(), (std::vector<quint64>{1, 2}));
        EXPECT_EQ(o.impl.waitingFrameCount(), 23);
        o.finish({27, 28});
        std::vector<quint64> expected{1, 2};
        for (quint64 id = 4; id <= 28; ++id)
            expected.push_back(id);
        EXPECT_EQ(o.rec.ids(), expected);
        EXPECT_EQ(o.impl.waitingFrameCount(), 0);
    }
    {
        // A frame not newer than the last emitted one waits for a later flush; equal ids
        // keep their arrival order.
        Ordered o;
        o.finish({10, 11, 4});
        EXPECT_EQ(o.rec.ids(), (std::vector<quint64>{10, 11}));
        EXPECT_EQ(o.impl.waitingFrameCount(), 1);
        o.finish({12});
        EXPECT_EQ(o.rec.ids(), (std::vector<quint64>{10, 11, 12}));
        o.impl.setReorderLimit(2);
        o.finish({20});
        EXPECT_EQ(o.rec.ids(), (std::vector<quint64>{10, 11, 12, 4, 20}));
    }
    {
        // Ids near the top of the range do not wrap the window.
        Ordered o;
        const quint64 top = std::numeric_limits<quint64>::max();
        o.finish({top - 3, top - 1, top - 2});
        EXPECT_EQ(o.rec.ids(), (std::vector<quint64>{top - 3, top - 2, top - 1}));
    }
}

TEST(OrderedDecoder, PoolPathEmitsInIdOrderAndBridgesFailedImages)
{
    const auto images = toImages(demuxVideo(mjpegClip(40)), 'j');
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
    EXPECT_EQ(DecodeScheduler::instance()->inFlight(), 0);
}
