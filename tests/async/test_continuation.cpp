// A stream's job going on with the stream's next queued images: every image still comes
// out once, in order, equal to a synchronous decode, with one stream or sixteen fed at
// once (and the zero-copy switch flipped meanwhile), and no stream starves the others; a
// decoder destroyed mid-run delivers nothing afterwards.
#include "async/async_test_util.h"
#include "async/decode_scheduler.h"
#include "orvo/concurrent_decoder.h"
#include "orvo/decoder_preferences.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

using namespace orvo;
using namespace orvo::test;

TEST(Continuation, StreamsFedAtOnceDeliverEveryImageOnceInOrder)
{
    const auto images = toImages(demuxVideo(h264Clip(40, 20)), 'h');
    ASSERT_EQ(images.size(), 40u);
    const auto reference = syncDecode(images);
    const auto scheduler = DecodeScheduler::instance();
    // Pool threads read the zero-copy switch at every image while the client flips it:
    // copied or wrapped, every picture is the same.
    PreferencesGuard guard;
    struct Toggler {
        std::atomic<bool> stop{false};
        std::thread thread{[this] {
            for (bool on = true; !stop; on = !on) {
                DecoderPreferences::instance()->setZeroCopyDecoding(on);
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        }};
        ~Toggler()
        {
            stop = true;
            thread.join();
        }
    } toggler;

    for (const int streams : {1, 16}) {
        SCOPED_TRACE(streams);
        std::vector<std::unique_ptr<ConcurrentDecoder>> decoders;
        std::vector<Recorder> recorders(static_cast<size_t>(streams));
        std::vector<size_t> arrivals;  // stream of each picture, in arrival order
        int whileRunning = 0;          // pictures emitted while their job went on
        int maxJobsPerStream = 0, maxInFlight = 0;
        auto sample = [&] {
            for (auto& d : decoders) {
                auto* impl = static_cast<ConcurrentDecoderImpl*>(d->getInterface());
                maxJobsPerStream =
                    std::max(maxJobsPerStream, impl->pendingDecodings() + impl->pendingCanceledDecodings());
            }
            maxInFlight = std::max(maxInFlight, scheduler->inFlight());
        };
        for (int s = 0; s < streams; ++s) {
            decoders.push_back(std::make_unique<ConcurrentDecoder>());
            ConcurrentDecoder* d = decoders.back().get();
            recorders[size_t(s)].onFrame = [&, d, s](const VideoFrame&) {
                whileRunning += d->isBusy();
                arrivals.push_back(size_t(s));
                sample();
            };
            recorders[size_t(s)].attach(d);
        }
        QTimer sampler;
        QObject::connect(&sampler, &QTimer::timeout, sample);
        sampler.start(1);
        for (const Image& image : images)
            for (auto& d : decoders) {
                ASSERT_EQ(d->decode(image), 1);
                sample();
            }
        ASSERT_TRUE(waitUntil([&] { return arrivals.size() >= images.size() * size_t(streams); }, 60000));
        spin(20);
        sampler.stop();
        for (const Recorder& r : recorders) {
            ASSERT_EQ(r.ids(), idRange(1, 40));
            EXPECT_TRUE(r.errors.empty());
            for (size_t i = 0; i < images.size(); ++i)
                ASSERT_EQ(packYuv420p(r.frames[i]), reference[i]) << i;
        }
        // One job per stream at most, and the pool counts no more jobs than streams.
        EXPECT_LE(maxJobsPerStream, 1);
        EXPECT_GE(maxInFlight, 1);
        EXPECT_LE(maxInFlight, streams);
        // No stream starves: by the time half of all pictures are out, each stream has a
        // quarter of its own.
        std::vector<size_t> perStream(size_t(streams), 0);
        for (size_t k = 0; k < arrivals.size() / 2; ++k)
            ++perStream[arrivals[k]];
        for (int s = 0; s < streams; ++s)
            EXPECT_GE(perStream[size_t(s)], images.size() / 4) << "stream " << s;
        // A lone stream never waits behind another: its job goes on with its own images.
        if (streams == 1)
            EXPECT_GT(whileRunning, 0);
        EXPECT_TRUE(poolGoesIdle());
    }
}

TEST(Continuation, DestroyedMidRunDeliversNothingAfterwards)
{
    // Long enough that the run is still going when the first pictures are handed over (a
    // busy run hands them over a few milliseconds at a time).
    const auto images = toImages(demuxVideo(h264Clip(300, 20)), 'h');
    ASSERT_EQ(images.size(), 300u);
    for (const bool ordered : {false, true}) {
        SCOPED_TRACE(ordered ? "ordered" : "plain");
        auto decoder = ordered ? std::unique_ptr<ConcurrentDecoder>(std::make_unique<OrderedConcurrentDecoder>())
                               : std::make_unique<ConcurrentDecoder>();
        Recorder rec;
        rec.attach(decoder.get());
        for (const Image& image : images)
            ASSERT_EQ(decoder->decode(image), 1);
        ASSERT_TRUE(waitUntil([&] { return rec.frames.size() >= 3; }));
        decoder.reset();
        const size_t atDestruction = rec.frames.size();
        EXPECT_LT(atDestruction, images.size());
        spin(100);
        EXPECT_EQ(rec.frames.size(), atDestruction);
        // The pool's share of the destroyed stream is given back; other streams run on.
        ConcurrentDecoder next;
        Recorder nextRec;
        nextRec.attach(&next);
        for (int i = 0; i < 20; ++i)
            ASSERT_EQ(next.decode(images[size_t(i)]), 1);
        ASSERT_TRUE(waitUntil([&] { return nextRec.frames.size() == 20; }));
        EXPECT_EQ(nextRec.ids(), idRange(1, 20));
    }
}
