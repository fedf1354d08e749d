// The interface family: signal names, the error record, queued delivery, the handle and the
// single-threaded decoder. Process-wide state reached from several threads at once (the
// swscale contexts behind the QImage conversions, frame-attribute ids): meant for TSan (the
// async label), its results checked in every build.
#include "async/async_test_util.h"
#include "orvo/async_decoder.h"
#include "orvo/concurrent_decoder.h"
#include "orvo/qimage_import.h"
#include "orvo/single_threaded_decoder.h"
#include "orvo/video_frame_helper.h"

#include <QTranslator>
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

using namespace orvo;
using namespace orvo::test;

// Clients connect by name, across threads: the signatures and argument types must resolve.
TEST(AsyncMeta, QueuedStringConnectionsAndErrorTexts)
{
    DecoderInterfaceSignals source;
    DecoderInterfaceSignals relay;
    ASSERT_TRUE(QObject::connect(&source, SIGNAL(frameDecoded(const orvo::VideoFrame&)), &relay,
                                 SIGNAL(frameDecoded(const orvo::VideoFrame&)), Qt::QueuedConnection));
    ASSERT_TRUE(QObject::connect(&source, SIGNAL(error(DecoderError)), &relay, SIGNAL(error(DecoderError)),
                                 Qt::QueuedConnection));
    Recorder rec;
    rec.attach(&relay);
    // A plain thread, as a client's reader thread often is; its join is an ordering TSan
    // sees, where QThread::wait() on a finished thread synchronises only through a futex.
    std::thread emitter([&source] {
        VideoFrame f;
        f.setId(77);
        emit source.frameDecoded(f);
        emit source.error(DecoderError(4));
    });
    emitter.join();
    ASSERT_TRUE(waitUntil([&] { return rec.frames.size() == 1 && rec.errors.size() == 1; }, 5000));
    EXPECT_EQ(rec.frames[0].id(), 77u);
    EXPECT_EQ(rec.errors[0], 4u);

    EXPECT_EQ(DecoderError(1).message(), QStringLiteral("Decoding failed."));
    EXPECT_EQ(DecoderError(17).message(), QStringLiteral("Decoder error 17"));
    DecoderError e(3);
    e.clear();
    EXPECT_FALSE(e.isError());
    // Texts are looked up in the "DecoderError" context.
    struct Translator : QTranslator {
        QString translate(const char* context, const char* source, const char*, int) const override
        {
            return QByteArray(context) == "DecoderError" ? QStringLiteral("T:") + QLatin1String(source) : QString();
        }
    } translator;
    QCoreApplication::installTranslator(&translator);
    EXPECT_EQ(DecoderError(1).message(), QStringLiteral("T:Decoding failed."));
    QCoreApplication::removeTranslator(&translator);
}

TEST(AsyncHandle, NullHandleAndWeakRepointing)
{
    AsyncDecoder null(static_cast<QObject*>(nullptr));
    EXPECT_TRUE(null.isNull());
    EXPECT_EQ(null.decode(Image('y', rawYuv(4, 2, 0))), 0);
    EXPECT_FALSE(null.isBusy());

    WeakAsyncDecoder expired;
    {
        auto impl = QSharedPointer<SignaledAsyncDecoderInterface>(new SingleThreadedDecoderImpl);
        expired = impl;
    }
    null.setWeakAsyncDecoder(expired);
    EXPECT_TRUE(null.isNull());

    // A second handle over the same implementation re-emits its frames too.
    SingleThreadedDecoder owner;
    AsyncDecoder second(static_cast<QObject*>(nullptr));
    second.setWeakAsyncDecoder(owner.qSharedPointerInterface().toWeakRef());
    ASSERT_FALSE(second.isNull());
    EXPECT_EQ(second.getInterface(), owner.getInterface());
    Recorder viaOwner, viaSecond;
    viaOwner.attach(&owner);
    viaSecond.attach(&second);
    EXPECT_EQ(second.decode(Image('y', rawYuv(4, 2, 1), 9)), 1);
    EXPECT_EQ(viaOwner.ids(), std::vector<quint64>{9});
    EXPECT_EQ(viaSecond.ids(), std::vector<quint64>{9});

    // Re-pointing disconnects from the previous implementation.
    SingleThreadedDecoder other;
    second.setWeakAsyncDecoder(other.qSharedPointerInterface().toWeakRef());
    EXPECT_EQ(owner.decode(Image('y', rawYuv(4, 2, 1), 10)), 1);
    EXPECT_EQ(viaSecond.ids(), std::vector<quint64>{9});
    second.setWeakAsyncDecoder(WeakAsyncDecoder());
    EXPECT_TRUE(second.isNull());
}

TEST(SingleThreaded, DecodesOnTheCallersThreadOnceAndReportsFailures)
{
    const auto images = toImages(demuxVideo(h264Clip(10, 10)), 'h');
    ASSERT_EQ(images.size(), 10u);
    // Pictures and their stamps are checked byte for byte by the camera-cut suite.
    SingleThreadedDecoder decoder;
    EXPECT_FALSE(decoder.isBusy());
    Recorder handle, impl;
    handle.attach(&decoder);
    impl.attach(decoder.getInterface());
    for (size_t i = 0; i < images.size(); ++i) {
        Image image = images[i];
        image.setAttachedData("meta");
        ASSERT_EQ(decoder.decode(image), 1) << i;
        // Emitted before decode returned, once.
        ASSERT_EQ(handle.frames.size(), i + 1);
        const VideoFrame& f = handle.frames.back();
        EXPECT_EQ(f.id(), image.id());
        ImageHeader header;
        ASSERT_TRUE(ImageHeader::parse(f.attachedData(), header));
        EXPECT_EQ(header.id, image.id());
        EXPECT_EQ(header.payloadSize, image.payloadSize());
        EXPECT_TRUE(f.attachedData().endsWith("meta"));
    }
    EXPECT_EQ(impl.frames.size(), images.size());
    EXPECT_TRUE(impl.errors.empty());

    // Failures: error code 1 on the implementation, and once more on the handle, before
    // decode returned.
    QByteArray bad = rawYuv(4, 2, 0);
    bad.chop(1);
    EXPECT_EQ(decoder.decode(Image('y', bad, 50)), 0);
    EXPECT_EQ(decoder.decode(Image('R', rawYuv(4, 2, 0), 51)), 0);
    EXPECT_EQ(decoder.decode(Image('y', QByteArray(), 52)), 0);
    EXPECT_EQ(impl.errors, (std::vector<quint32>{1, 1, 1}));
    EXPECT_EQ(impl.errorIds, (std::vector<quint64>{50, 51, 52}));
    EXPECT_EQ(handle.errors, impl.errors);
    EXPECT_EQ(handle.errorIds, impl.errorIds);
    EXPECT_EQ(handle.frames.size(), images.size());
}

namespace {

// A picture that differs per thread in size and content, so that a context shared between
// threads would be rebuilt under the other's feet and give the wrong pixels.
QImage pattern(int w, int h, int seed)
{
    QImage image(w, h, QImage::Format_RGB32);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            image.setPixel(x, y, qRgb((x * 5 + seed) & 0xff, (y * 7 + seed * 3) & 0xff, (x + y + seed * 11) & 0xff));
    return image;
}

// QImage -> frame -> QImage, as a client's render thread does it.
QImage roundTrip(const QImage& image)
{
    VideoFrame frame(image.width(), image.height(), VideoFrame::Format_YUV420P, defaultBufferProperties);
    if (!qimage2videoFrame(image, frame, 0, 0, false, 0, 1))
        return QImage();
    return frame.convertToQImage(VideoFrame::Format_YUV420P, 0, 0, -1, -1, 0, 0, 1, 1, 1, 1);
}

TEST(SharedState, TwoThreadsConvertFramesAndSnapshotThemAtOnce)
{
    const QImage inputs[2] = {pattern(64, 48, 1), pattern(90, 34, 2)};
    // Each thread's expected output, made on this thread before the threads start.
    const QImage expected[2] = {roundTrip(inputs[0]), roundTrip(inputs[1])};
    ASSERT_FALSE(expected[0].isNull() || expected[1].isNull());

    constexpr int kRounds = 40;
    std::atomic<int> mismatches{0};
    std::vector<quint32> ids[2];
    auto work = [&](int t) {
        for (int i = 0; i < kRounds; ++i) {
            if (roundTrip(inputs[t]) != expected[t])
                ++mismatches;
            VideoFrame frame(8, 8, VideoFrame::Format_YUV420P, defaultBufferProperties);
            ids[t].push_back(VideoFrameAttributes(frame, false).id);
        }
    };
    std::thread a(work, 0), b(work, 1);
    a.join();
    b.join();
    EXPECT_EQ(mismatches.load(), 0);
    std::set<quint32> distinct(ids[0].begin(), ids[0].end());
    distinct.insert(ids[1].begin(), ids[1].end());
    EXPECT_EQ(distinct.size(), size_t(2 * kRounds)) << "snapshot ids must not repeat";
}

}  // namespace
