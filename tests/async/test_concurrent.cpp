// The pooled decoder: failures, synchronous mode, I-frame clearing, the backlog bound and
// clearing, and the decode job. Pictures and their stamps through the pool are checked byte
// for byte by the camera-cut, ordered and continuation tests.
#include "async/async_test_util.h"
#include "async/decode_scheduler.h"
#include "async/image_decoder.h"
#include "orvo/concurrent_decoder.h"

#include <QThread>
#include <gtest/gtest.h>
#include <new>
#include <thread>

using namespace orvo;
using namespace orvo::test;

namespace {

ConcurrentDecoderImpl* implOf(ConcurrentDecoder& d) { return static_cast<ConcurrentDecoderImpl*>(d.getInterface()); }

}  // namespace

TEST(Concurrent, FailedImagesYieldOnlyErrorCodeOne)
{
    ConcurrentDecoder decoder;
    Recorder rec, implRec;
    rec.attach(&decoder);
    implRec.attach(decoder.getInterface());
    QByteArray shortYuv = rawYuv(16, 16, 0);
    shortYuv.chop(3);
    // Nothing to decode: refused at once and counted, so it never takes a job.
    EXPECT_EQ(decoder.decode(Image('R', rawYuv(16, 16, 0), 2)), 0);
    EXPECT_EQ(decoder.decode(Image('y', QByteArray(), 3)), 0);
    EXPECT_EQ(decoder.decode(Image()), 0);
    EXPECT_EQ(decoder.droppedImages(), 3u);
    // Undecodable bytes: one error each, naming the image.
    ASSERT_EQ(decoder.decode(Image('y', shortYuv, 1)), 1);
    ASSERT_EQ(decoder.decode(Image('j', QByteArray(2000, '\x5a'), 4, 0, true)), 1);
    ASSERT_EQ(decoder.decode(Image('h', QByteArray(4096, '\x11'), 5, 0, true)), 1);  // no start code
    ASSERT_TRUE(waitUntil([&] { return implRec.errors.size() == 3; }));
    spin(50);
    EXPECT_EQ(implRec.errors, (std::vector<quint32>{1, 1, 1}));
    EXPECT_EQ(implRec.errorIds, (std::vector<quint64>{1, 4, 5}));
    EXPECT_TRUE(implRec.frames.empty());
    // The handle re-emits each error once, as the implementation emitted it.
    EXPECT_TRUE(rec.frames.empty());
    EXPECT_EQ(rec.errors, implRec.errors);
    EXPECT_EQ(rec.errorIds, implRec.errorIds);

    // The decoder keeps working after failures.
    ASSERT_EQ(decoder.decode(Image('y', rawYuv(16, 16, 5), 9)), 1);
    ASSERT_TRUE(waitUntil([&] { return rec.frames.size() == 1; }));
    EXPECT_EQ(rec.frames[0].id(), 9u);
    EXPECT_TRUE(poolGoesIdle());
}

TEST(Concurrent, SynchronousModeResults)
{
    ConcurrentDecoder decoder;
    Recorder rec;
    rec.attach(&decoder);
    decoder.useSingleThreadedMode();
    EXPECT_TRUE(decoder.isSingleThreadedMode());
    decoder.setWaveletScaleLevel(2);  // not used by this path
    EXPECT_EQ(decoder.waveletScaleLevel(), 2);

    Image good('y', rawYuv(32, 16, 1), 1);
    good.setStreamId(8);
    EXPECT_EQ(decoder.decode(good), 3);
    ASSERT_EQ(rec.frames.size(), 1u);  // emitted before decode returned
    EXPECT_EQ(rec.frames[0].id(), 1u);
    EXPECT_EQ(rec.frames[0].streamId(), 8u);
    EXPECT_EQ(rec.frames[0].width(), 32);

    // A failure is reported by the result; the frame is emitted all the same.
    QByteArray bad = rawYuv(32, 16, 1);
    bad.chop(1);
    EXPECT_EQ(decoder.decode(Image('y', bad, 2)), -1);
    ASSERT_EQ(rec.frames.size(), 2u);
    EXPECT_EQ(rec.frames[1].id(), 2u);
    EXPECT_FALSE(rec.frames[1].isValid());

    // With a backlog, nothing is decoded synchronously.
    decoder.useMultiThreadedMode();
    const auto images = toImages(demuxVideo(h264Clip(10, 10)), 'h');
    for (const Image& image : images)
        decoder.decode(image);
    decoder.useSingleThreadedMode();
    EXPECT_EQ(decoder.decode(Image('y', rawYuv(32, 16, 1), 99)), 0);
    decoder.useMultiThreadedMode();
    ASSERT_TRUE(waitUntil([&] { return rec.frames.size() == 2 + images.size(); }));
    for (const auto& f : rec.frames)
        EXPECT_NE(f.id(), 99u);
    EXPECT_TRUE(poolGoesIdle());
}

// I-frame clearing and the backlog bound, alone and together. Image 1 starts at once and
// keeps the decoder busy until the event loop runs again, so every later image waits in the
// backlog as the owner thread sees it, and the bound is exact. Images 1 to 28 go in without
// the event loop, 29 and 30 once the decoder is idle: an image after a refused one is refused
// even with room, until the next I-frame.
TEST(Concurrent, IFrameClearingAndTheBacklogBound)
{
    // IDR every 5 pictures: I-frames are ids 1, 6, 11, 16, 21, 26.
    const QString path = h264Clip(30, 5);
    const auto images = toImages(demuxVideo(path), 'h');
    ASSERT_EQ(images.size(), 30u);
    const auto ffmpeg = ffmpegFrames(path, 176, 144);

    const std::vector<quint64> afterClearing{1, 26, 27, 28, 29, 30};
    const struct {
        bool clearing;
        int bound;
        int backlog;  // after image 28
        std::vector<quint64> decoded;
        quint64 dropped;
    } rows[] = {
        {true, 0, 3, afterClearing, 24},
        {false, 0, 27, idRange(1, 30), 0},
        // Behind a full backlog an I-frame is still taken; the images after it are not.
        {false, 3, 8, {1, 2, 3, 4, 6, 11, 16, 21, 26}, 21},
        {true, 3, 3, afterClearing, 24},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << "clearing " << row.clearing << ", bound " << row.bound);
        ConcurrentDecoder decoder;
        if (row.clearing)
            decoder.clearInputQueueOnIFrames();
        EXPECT_EQ(decoder.isInputQueueClearedOnIFrames(), row.clearing);
        if (row.bound) {
            decoder.setInputQueueMaxSize(row.bound);
            EXPECT_EQ(decoder.inputQueueMaxSize(), row.bound);
        }
        Recorder rec;
        rec.attach(&decoder);
        testing::internal::CaptureStdout();
        quint64 accepted = 0;
        for (size_t i = 0; i < images.size(); ++i) {
            if (i == 25)  // the job takes queued images meanwhile: clearing must drop them too
                QThread::msleep(100);
            if (i == 28) {
                EXPECT_EQ(implOf(decoder)->backlogSize(), row.backlog);
                ASSERT_TRUE(waitUntil([&] { return implOf(decoder)->isBacklogEmpty() && !implOf(decoder)->isBusy(); }));
            }
            const int result = decoder.decode(images[i]);
            ASSERT_TRUE(result == 1 || (result == 0 && row.bound)) << i;
            if (images[i].iframe())
                ASSERT_EQ(result, 1) << "an I-frame is never refused";
            accepted += quint64(result);
        }
        ASSERT_TRUE(waitUntil([&] { return rec.frames.size() == row.decoded.size(); }));
        spin(30);
        // Images that were dropped are never decoded, and never mistaken for others.
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        EXPECT_EQ(rec.ids(), row.decoded);
        EXPECT_TRUE(rec.errors.empty());
        for (const VideoFrame& f : rec.frames)
            EXPECT_EQ(maxDiffYuv420p(f, ffmpeg[f.id() - 1], 176, 144), 0) << "id " << f.id();
        EXPECT_EQ(decoder.decodedFrames(), row.decoded.size());
        EXPECT_EQ(decoder.droppedImages(), row.dropped);
        if (!row.clearing)
            EXPECT_EQ(accepted + decoder.droppedImages(), 30u);
        EXPECT_TRUE(poolGoesIdle());
    }
}

// I-frame-only decoding yields only I-frames; switched off mid-GOP, decoding resumes at the
// next I-frame.
TEST(Concurrent, IFramesOnlyResumesAtTheNextIFrame)
{
    const QString path = h264Clip(100, 25);
    const std::vector<Image> images = toImages(demuxVideo(path), 'h');
    ASSERT_EQ(images.size(), 100u);
    const auto ffmpeg = ffmpegFrames(path, 176, 144);
    std::vector<quint64> expected = idRange(51, 100);
    expected.insert(expected.begin(), {1, 26});
    for (const bool synchronous : {false, true}) {
        SCOPED_TRACE(synchronous ? "single-threaded" : "pooled");
        ConcurrentDecoder decoder;
        synchronous ? decoder.useSingleThreadedMode() : decoder.useMultiThreadedMode();
        decoder.setDecodeIFramesOnly(true);
        EXPECT_TRUE(decoder.isDecodeIFramesOnly());
        Recorder rec;
        rec.attach(&decoder);
        for (size_t i = 0; i < images.size(); ++i) {
            if (i == 37)
                decoder.setDecodeIFramesOnly(false);  // mid-GOP: 38 .. 50 still refused
            const int result = decoder.decode(images[i]);
            if (i < 50)
                EXPECT_EQ(result, images[i].iframe() ? (synchronous ? 3 : 1) : 0) << i;
        }
        ASSERT_TRUE(waitUntil([&] { return rec.frames.size() >= expected.size(); }));
        spin(20);
        EXPECT_EQ(rec.ids(), expected);
        EXPECT_TRUE(rec.errors.empty());
        EXPECT_EQ(decoder.droppedImages(), 100u - expected.size());
        for (const VideoFrame& f : rec.frames)
            EXPECT_EQ(maxDiffYuv420p(f, ffmpeg[f.id() - 1], 176, 144), 0) << "id " << f.id();
    }
}

TEST(Concurrent, ClearDropsTheRunningResultAndNeverSharesTheDecoder)
{
    const auto images = toImages(demuxVideo(h264Clip(24, 12)), 'h');
    ConcurrentDecoder decoder;
    ConcurrentDecoderImpl* impl = implOf(decoder);
    Recorder rec;
    rec.attach(&decoder);
    for (int i = 0; i < 6; ++i)
        decoder.decode(images[i]);
    impl->clear();
    EXPECT_TRUE(impl->isBacklogEmpty());
    // While the cancelled job still runs, the decoder counts as busy: its Decoder is in use.
    if (impl->pendingCanceledDecodings() > 0)
        EXPECT_TRUE(impl->isBusy());
    EXPECT_EQ(impl->pendingDecodings(), 0);
    // New images (from the next I-frame on) are accepted at once and decode after it.
    for (int i = 12; i < 24; ++i)
        ASSERT_EQ(decoder.decode(images[i]), 1);
    ASSERT_TRUE(waitUntil([&] { return rec.frames.size() == 12; }));
    spin(30);
    EXPECT_EQ(rec.ids(), idRange(13, 24));
    EXPECT_TRUE(poolGoesIdle());

    // clearBlocking() returns with nothing running.
    for (int i = 0; i < 6; ++i)
        decoder.decode(images[i]);
    impl->clearBlocking();
    EXPECT_EQ(impl->pendingCanceledDecodings(), 0);
    EXPECT_FALSE(impl->isBusy());
    spin(30);
    EXPECT_EQ(rec.frames.size(), 12u);
    EXPECT_TRUE(poolGoesIdle());
}

namespace {

// A job whose inner step throws, to exercise the job's exception capture.
struct ThrowingDecoder : ImageDecoder {
    int mode = 0;
    bool decodeInto(const Image& image, VideoFrame& frame, int scale) override
    {
        if (mode == 1)
            throw std::bad_alloc();
        if (mode == 2)
            throw 42;
        return ImageDecoder::decodeInto(image, frame, scale);
    }
};

}  // namespace

TEST(DecodeJob, StampsHalfHeightAndCapturesExceptions)
{
    ThrowingDecoder job;
    bool ok = true;
    CaptureFd out(1);

    // Half-height rule: applied to every type but 'a', 'n' and 'p', success or not.
    Image field('y', rawYuv(16, 8, 2), 11);
    field.setFlags(2).setStreamId(4);
    VideoFrame f = job.decode(field, job.formatDecoder(), &ok, 0);
    EXPECT_TRUE(ok);
    EXPECT_EQ(job.lastError().code(), 0u);
    EXPECT_EQ(f.getScaleX(), 1);
    EXPECT_EQ(f.getScaleY(), 2);
    EXPECT_EQ(f.id(), 11u);
    EXPECT_EQ(f.streamId(), 4u);
    EXPECT_EQ(job.workerThread(), QThread::currentThread());
    field.setFlags(3);
    EXPECT_EQ(job.decode(field, job.formatDecoder(), &ok, 0).getScaleY(), 1);
    for (quint8 type : {quint8('n'), quint8('p'), quint8('a'), quint8('j')}) {
        Image other(type, QByteArray(100, '\x01'), 12);
        other.setFlags(0x12);
        VideoFrame w;
        const bool decoded = job.decodeInto(other, w, 0);
        EXPECT_TRUE(type != 'j' || !decoded);
        EXPECT_EQ(w.getScaleY(), type == 'j' ? 2 : 1) << type;
        EXPECT_EQ(w.id(), 12u);
    }

    // Empty payload: failure, a null job result, but the inner frame is stamped.
    Image empty('y', QByteArray(), 21);
    empty.setStreamId(6);
    VideoFrame inner;
    EXPECT_FALSE(job.decodeInto(empty, inner, 0));
    EXPECT_EQ(inner.id(), 21u);
    EXPECT_EQ(inner.streamId(), 6u);
    EXPECT_TRUE(inner.imageRef().sharesDataWith(empty));
    EXPECT_TRUE(job.decode(empty, job.formatDecoder(), &ok, 0).isNull());
    EXPECT_FALSE(ok);
    EXPECT_EQ(job.lastError().code(), 1u);
    VideoFrame fromNull;
    EXPECT_FALSE(job.decodeInto(Image(), fromNull, 0));

    // Exceptions never leave the job, run on a thread of its own as the pooled decoder runs it.
    Image image('y', rawYuv(16, 8, 2), 31, 123456789012LL);
    image.setChannel(7);
    for (const auto& [mode, code] : {std::pair{1, 3u}, {2, 4u}, {0, 0u}}) {
        job.mode = mode;
        VideoFrame result;
        std::thread([&] { result = job.decode(image, job.formatDecoder(), nullptr, 0); }).join();
        EXPECT_EQ(result.isNull(), mode != 0);
        EXPECT_EQ(job.lastError().code(), code);
        EXPECT_EQ(job.takeOutcome().errorCode, code);
        EXPECT_NE(job.workerThread(), QThread::currentThread());
    }
    EXPECT_NE(out.text().find("channel=7 frame timestamp=123456789012"), std::string::npos);
}
