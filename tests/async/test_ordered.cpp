// The ordered decoder: reordering rule, gaps bridged by the reorder limit, and the real
// pool path with images fed out of id order.
#include "async/async_test_util.h"
#include "async/decode_scheduler.h"
#include "orvo/concurrent_decoder.h"

#include <gtest/gtest.h>

#include <limits>

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
};

}  // namespace

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
        Ordered o;
        for (const Step& step : steps) {
            if (step.limit)
                o.impl.setReorderLimit(step.limit);
            for (quint64 id : step.finished)
                o.impl.frameFinished(frameWithId(id));
            EXPECT_EQ(o.rec.ids(), step.emitted);
            if (step.waiting >= 0)
                EXPECT_EQ(o.impl.waitingFrameCount(), step.waiting);
        }
        EXPECT_EQ(o.impl.lastEmittedId(), steps.back().emitted.back());
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
