// Process-wide state reached from several threads at once: the swscale contexts behind the
// QImage conversions, frame-attribute ids and the decoder preferences. Meant for TSan (the
// async label), and its results are checked in every build.
#include "async/async_test_util.h"
#include "orvo/concurrent_decoder.h"
#include "orvo/decoder_preferences.h"
#include "orvo/qimage_import.h"
#include "orvo/video_frame_helper.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <set>
#include <thread>

using namespace orvo;
using namespace orvo::test;

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
    ASSERT_FALSE(expected[0].isNull());
    ASSERT_FALSE(expected[1].isNull());

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

// Pool threads read the zero-copy switch at every image while the client flips it.
TEST(SharedState, PooledDecodingWhilePreferencesChange)
{
    const auto images = toImages(demuxVideo(h264Clip(24, 12)), 'h');
    ASSERT_EQ(images.size(), 24u);
    const auto reference = syncDecode(images);
    DecoderPreferences* prefs = DecoderPreferences::instance();
    const bool zeroCopy = prefs->isZeroCopyDecoding();

    struct Toggler {
        std::atomic<bool> stop{false};
        std::thread thread;
        ~Toggler()
        {
            stop = true;
            if (thread.joinable())
                thread.join();
        }
    } toggler;
    toggler.thread = std::thread([&] {
        for (bool on = true; !toggler.stop.load(); on = !on) {
            prefs->setZeroCopyDecoding(on);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    ConcurrentDecoder decoder;
    decoder.useMultiThreadedMode();
    Recorder rec;
    rec.attach(&decoder);
    for (size_t i = 0; i < images.size(); ++i) {
        ASSERT_EQ(decoder.decode(images[i]), 1);
        ASSERT_TRUE(waitUntil([&] { return rec.frames.size() + rec.errors.size() == i + 1; })) << i;
    }
    toggler.stop = true;
    toggler.thread.join();
    prefs->setZeroCopyDecoding(zeroCopy);

    EXPECT_TRUE(rec.errors.empty());
    ASSERT_EQ(rec.frames.size(), images.size());
    // Copied or wrapped, every picture is the same.
    for (size_t i = 0; i < images.size(); ++i)
        EXPECT_EQ(packYuv420p(rec.frames[i]), reference[i]) << i;
}

}  // namespace
