// The library inside a host process: quiet when asked, FFmpeg's log left to the host
// when asked, and a codec FFmpeg cannot open fails one decoder instead of the process.
// The FFmpeg log mode is process-wide, so these run in their own executable, in order.
#include "async/async_test_util.h"
#include "encoders/encoder_test_support.h"
#include "orvo/audio_buffer_encoder.h"
#include "orvo/concurrent_decoder.h"
#include "orvo/decoder_av.h"
#include "orvo/decoder_preferences.h"
#include "orvo/ffmpeg_log.h"
#include "orvo/ffmpeg_module.h"
#include "orvo/log.h"

#include <QMutex>
#include <gtest/gtest.h>

#include <atomic>
#include <string>

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavutil/log.h>
}

using namespace orvo;
using namespace orvo::test;

namespace {

std::vector<Image> h264Images(int frames) { return toImages(demuxVideo(h264Clip(frames, 5)), 'h'); }

// A complete recording: H.264 + AAC into MP4, pictures and sound, closed.
void recordClip(const QString& path)
{
    const int width = 176, height = 144;
    Encoder enc(1);
    EncoderError error;
    ASSERT_TRUE(enc.open(1, path.toStdString(), "mp4", AV_CODEC_ID_H264, width, height, 1, 1, 400000, 0, 25, 1, 25,
                         AV_CODEC_ID_AAC, 64000, 48000, 1, nullptr, error));
    AudioBufferEncoder audio;
    for (int i = 0; i < 25; ++i) {
        std::vector<unsigned char> p = makePicture(width, height, i);
        encodePicture(enc, p, width, height);
        std::vector<short> s = tone(qint64(i) * 1920, 1920, 1, 48000);
        audio.enqueue(enc, s.data(), 1920, false);
    }
    enc.sync_audio_to_video_with_silence(true);
    enc.close();
}

// Pooled decoding of a clip plus images that make the library complain: an empty payload
// and an unknown format code (refused at decode), and undecodable bytes (one error).
void decodeOnThePool(const std::vector<Image>& clip)
{
    ConcurrentDecoder decoder;
    Recorder rec;
    rec.attach(decoder.getInterface());
    for (const Image& image : clip)
        ASSERT_EQ(decoder.decode(image), 1);
    EXPECT_EQ(decoder.decode(Image('h', QByteArray(), 100)), 0);
    EXPECT_EQ(decoder.decode(Image('R', QByteArray(16, 'x'), 101)), 0);
    EXPECT_EQ(decoder.decode(Image('h', QByteArray(64, 'x'), 102)), 1);
    ASSERT_TRUE(waitUntil([&] { return rec.frames.size() + rec.errors.size() == clip.size() + 1; }));
    EXPECT_EQ(rec.frames.size(), clip.size());
}

// The JPEG 2000 box listing, a line per box on Qt's debug stream.
void listJpeg2000Boxes()
{
    PreferencesGuard guard;
    DecoderPreferences::instance()->setJpeg2000passthrough(false);
    DecoderPreferences::instance()->setJpeg2000display_atoms(true);
    Decoder decoder('h', 0);
    VideoFrame frame;
    decodeBytes(decoder, QByteArray("\0\0\0\x0cjP  \x0d\x0a\x87\x0a\0\0\0\x10jp2c0123456789", 28), frame, true);
}

// FFmpeg's log callback is global: the test's own records what reaches it.
std::atomic<int> hostCallbackLines{0};
void hostCallback(void*, int level, const char*, va_list)
{
    if (level <= AV_LOG_INFO)
        ++hostCallbackLines;
}

// Must run before anything in this process creates a decoder or an encoder.
TEST(FFmpegLog, UntouchedLeavesTheHostsCallbackInPlace)
{
    const std::vector<Image> clip = h264Images(10);
    setFFmpegLogMode(FFmpegLogMode::Untouched);
    av_log_set_callback(hostCallback);
    av_log_set_level(AV_LOG_INFO);

    Decoder sync('h', 0);
    VideoFrame frame;
    decodeBytes(sync, QByteArray("\0\0\0\1\x65", 5) + QByteArray(4000, '\x5a'), frame, true);  // a corrupt slice
    decodeOnThePool(clip);
    recordClip(dataDir() + QStringLiteral("/host_untouched.mp4"));

    // FFmpeg's own complaints about the corrupt slice and x264's banner reached the host.
    EXPECT_GT(hostCallbackLines.load(), 0);
    const int before = hostCallbackLines.load();
    av_log(nullptr, AV_LOG_ERROR, "the host's own line\n");
    EXPECT_EQ(hostCallbackLines.load(), before + 1);

    setFFmpegLogMode(FFmpegLogMode::Silenced);
    const int silenced = hostCallbackLines.load();
    av_log(nullptr, AV_LOG_ERROR, "dropped\n");
    EXPECT_EQ(hostCallbackLines.load(), silenced);
}

TEST(FFmpegLog, ToSinkDeliversFFmpegsLinesAsItems)
{
    QMutex mutex;
    std::vector<std::pair<std::string, QString>> items;
    LogManager::instance().setSink([&](const LogItem& item) {
        QMutexLocker lock(&mutex);
        items.emplace_back(item.category, item.message);
    });
    setFFmpegLogMode(FFmpegLogMode::ToSink);
    av_log(nullptr, AV_LOG_WARNING, "first half, ");
    av_log(nullptr, AV_LOG_WARNING, "second half\n");
    recordClip(dataDir() + QStringLiteral("/host_tosink.mp4"));  // libx264 reports at info level
    setFFmpegLogMode(FFmpegLogMode::Silenced);
    LogManager::instance().setSink({});

    int ffmpegLines = 0, joined = 0;
    for (const auto& item : items) {
        if (item.first != "ffmpeg")
            continue;
        ++ffmpegLines;
        EXPECT_FALSE(item.second.endsWith(QLatin1Char('\n')));
        joined += item.second == QStringLiteral("first half, second half");
    }
    EXPECT_EQ(joined, 1);
    EXPECT_GT(ffmpegLines, 1);
}

TEST(Output, RedirectedAndSilencedSink)
{
    const std::vector<Image> clip = h264Images(10);
    const QString path = dataDir() + QStringLiteral("/host_quiet.mp4");

    // Default: the encoder's texts appear on standard output as they always have.
    {
        CaptureFd out(1);
        recordClip(path);
        EXPECT_NE(out.text().find("Adding audio stream...\naudio opened\n"), std::string::npos);
    }

    // Redirected: the same texts arrive as items, marked for standard output.
    std::vector<LogItem> items;
    QMutex mutex;
    LogManager::instance().setSink([&](const LogItem& item) {
        QMutexLocker lock(&mutex);
        items.push_back(item);
    });
    {
        CaptureFd out(1), err(2);
        recordClip(path);
        decodeOnThePool(clip);
        listJpeg2000Boxes();
        EXPECT_EQ(out.text(), "");
        EXPECT_EQ(err.text(), "");
    }
    bool sawAudioLine = false, sawBox = false;
    for (const LogItem& item : items) {
        sawAudioLine |= item.message == QStringLiteral("audio opened\n") && item.stream == LogStream::StandardOutput;
        sawBox |= item.message.startsWith(QStringLiteral("offset=0 size=12")) && item.stream == LogStream::Qt;
    }
    EXPECT_TRUE(sawAudioLine);
    EXPECT_TRUE(sawBox);

    // Silenced: a full encode and a pooled decode (failures included) write nothing.
    LogManager::instance().setSink({});
    LogManager::instance().silence();
    {
        CaptureFd out(1), err(2);
        recordClip(path);
        decodeOnThePool(clip);
        listJpeg2000Boxes();
        setCodecMissingForTesting(FormatIn_MPEG4, true);
        Decoder missing;
        EXPECT_FALSE(missing.init('m', 0));
        setCodecMissingForTesting(FormatIn_MPEG4, false);
        EXPECT_EQ(out.text(), "");
        EXPECT_EQ(err.text(), "");
    }
    LogManager::instance().setSink({});
}

// A codec the linked FFmpeg lacks (simulated by the test hook) fails the decoder, in
// synchronous and pooled decoding, and the process carries on.
TEST(MissingCodec, FailsTheDecoderNotTheProcess)
{
    const std::vector<Image> clip = h264Images(10);
    setCodecMissingForTesting(FormatIn_H264, true);
    LogManager::instance().silence();

    DecoderAV direct(FormatIn_H264);
    EXPECT_TRUE(direct.fail());
    VideoFrame frame;
    EXPECT_FALSE(decodeBytes(direct, clip[0].payload(), frame, true));

    Decoder sync;
    EXPECT_FALSE(sync.init('h', 0));
    EXPECT_FALSE(sync.isInitialized());
    EXPECT_NE(sync.decodeImage(clip[0], frame), Decoder::ImageResult::Picture);

    ConcurrentDecoder pooled;
    Recorder rec;
    rec.attach(pooled.getInterface());
    for (int i = 0; i < 3; ++i)
        pooled.decode(clip[i]);
    ASSERT_TRUE(waitUntil([&] { return rec.errors.size() == 3; }));
    spin(50);
    EXPECT_EQ(rec.errors, (std::vector<quint32>{1, 1, 1}));
    EXPECT_TRUE(rec.frames.empty());

    // With the codec back, the same decoder object decodes the stream.
    setCodecMissingForTesting(FormatIn_H264, false);
    LogManager::instance().setSink({});
    for (const Image& image : clip)
        pooled.decode(image);
    ASSERT_TRUE(waitUntil([&] { return rec.frames.size() == clip.size(); }));
    EXPECT_TRUE(sync.init('h', 0));
}

}  // namespace
