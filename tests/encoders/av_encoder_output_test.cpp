// Files written through Encoder, read back by ffprobe and the ffmpeg command line.
#include "encoders/encoder_test_support.h"
#include "orvo/audio_buffer_encoder.h"
#include "orvo/av_encoder.h"
#include "orvo/decoder_preferences.h"

#include <QFile>
#include <gtest/gtest.h>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

extern "C" {
#include <libavcodec/codec_id.h>
}

using namespace orvo;
using namespace orvo::test;

namespace {

struct OutputCase {
    const char* name;
    const char* file;
    const char* format;
    unsigned int video;
    unsigned int audio;
    const char* videoName;  // as ffprobe names the codecs
    const char* audioName;
    int sampleRate;
    int channels;
    const char* decodePixFmt;
    double minPsnr;
    bool interleavedVideo;
    bool audioBuffer;  // sound through AudioBufferEncoder in runs of odd lengths
    const char* tag;   // the codec tag players need, or null
};

std::ostream& operator<<(std::ostream& os, const OutputCase& c) { return os << c.name; }

class OutputFormats : public ::testing::TestWithParam<OutputCase> {};

// Pictures and sound are fed the way a recorder does: a picture, then audio frames while
// the audio track lags (or runs of samples through the audio buffer); at the end the audio
// is padded to the video with silence. Encoders keep quiet on the client's standard error.
TEST_P(OutputFormats, StreamsAndPicturesSurviveTheRoundTrip)
{
    const OutputCase& c = GetParam();
    const int width = 176, height = 144, pictures = 50, fps = 25;
    const QString path = dataDir() + QLatin1Char('/') + QLatin1String(c.file);
    QFile::remove(path);
    PreferencesGuard guard;
    DecoderPreferences::instance()->setUseFFMPEGEncodeAvInterleavedWriteFrame(c.interleavedVideo);

    CaptureFd quiet(2);
    Encoder enc(1);
    EncoderError error;
    ASSERT_TRUE(enc.open(1, path.toStdString(), c.format, c.video, width, height, 1, 1, 2000000, 0, fps, 1, 12,
                         c.audio, 128000, c.sampleRate, c.channels, nullptr, error))
        << error.toString() << " " << error.additionalInfo();
    EXPECT_FALSE(error.hasError());
    EXPECT_TRUE(enc.isVideo());
    EXPECT_EQ(enc.isAudio(), c.audio != 0);

    std::vector<std::vector<unsigned char>> input;
    qint64 audioSamples = 0;
    AudioBufferEncoder buffer;
    for (int i = 0; i < pictures; ++i) {
        input.push_back(makePicture(width, height, i));
        ASSERT_GE(encodePicture(enc, input.back(), width, height), 0);
        if (c.audio && c.audioBuffer) {
            const int run = c.sampleRate / fps + (i % 3 - 1) * 37;
            std::vector<short> s = tone(audioSamples, run, c.channels, c.sampleRate);
            ASSERT_TRUE(buffer.enqueue(enc, s.data(), unsigned(s.size()), false));
            audioSamples += run;
        }
        // Directly fed sound stays one to two frames behind: the final padding spans a frame.
        while (c.audio && !c.audioBuffer && enc.behindAudioSamples() >= 2 * enc.getAudioInputFrameSize()) {
            std::vector<short> s = tone(audioSamples, enc.getAudioInputFrameSize(), c.channels, c.sampleRate);
            ASSERT_GE(enc.encode_audio(s.data(), nullptr, 0), 0);
            audioSamples += enc.getAudioInputFrameSize();
        }
    }
    const int frameSize = enc.getAudioInputFrameSize();
    if (c.audio && c.audioBuffer) {  // every value is encoded or still held
        EXPECT_EQ(buffer.encoded() + buffer.buffered(), quint64(audioSamples) * unsigned(c.channels));
        EXPECT_EQ(buffer.encoded() % unsigned(frameSize * c.channels), 0u);
    }
    // Padding with silence brings the two tracks within one audio frame of each other.
    if (c.audio)
        EXPECT_TRUE(enc.sync_audio_to_video_with_silence(true));
    enc.close();
    const std::string stderrText = quiet.text();
    EXPECT_EQ(stderrText.find("x265 ["), std::string::npos) << stderrText;

    const QJsonObject probe = ffprobe(path);
    const QJsonObject video = streamOfType(probe, QStringLiteral("video"));
    ASSERT_FALSE(video.isEmpty()) << path.toStdString();
    EXPECT_EQ(video.value(QStringLiteral("codec_name")).toString(), QLatin1String(c.videoName));
    EXPECT_EQ(video.value(QStringLiteral("width")).toInt(), width);
    EXPECT_EQ(video.value(QStringLiteral("height")).toInt(), height);
    if (c.tag)
        EXPECT_EQ(video.value(QStringLiteral("codec_tag_string")).toString(), QLatin1String(c.tag));
    // Every picture reached the file, including those the codec held back until close.
    EXPECT_EQ(number(video, "nb_read_frames"), pictures);
    const double seconds = double(pictures) / fps;
    const double videoDuration = video.contains(QStringLiteral("duration"))
                                     ? number(video, "duration")
                                     : number(probe.value(QStringLiteral("format")).toObject(), "duration");
    EXPECT_NEAR(videoDuration, seconds, 1.5 / fps);

    const QJsonObject audio = streamOfType(probe, QStringLiteral("audio"));
    if (c.audio) {
        ASSERT_FALSE(audio.isEmpty());
        EXPECT_EQ(audio.value(QStringLiteral("codec_name")).toString(), QLatin1String(c.audioName));
        EXPECT_EQ(number(audio, "sample_rate"), c.sampleRate);
        EXPECT_EQ(audio.value(QStringLiteral("channels")).toInt(), c.channels);
        if (path.endsWith(QLatin1String(".mp4")))  // exact track durations (edit lists)
            EXPECT_LT(std::abs(number(audio, "duration") - videoDuration), double(frameSize) / c.sampleRate);
        // Each channel's tone comes back at its level and on its own side: the sample
        // conversion for the codec is right.
        for (int ch = 0; ch < c.channels; ++ch) {
            const std::vector<short> pcm = ffmpegAudio(path, ch);
            ASSERT_GT(pcm.size(), size_t(c.sampleRate));
            double sum = 0;
            const size_t from = pcm.size() / 4, to = pcm.size() / 2;
            for (size_t i = from; i < to; ++i)
                sum += double(pcm[i]) * pcm[i];
            EXPECT_NEAR(std::sqrt(sum / double(to - from)), 8000 / std::sqrt(2.0), 600) << "channel " << ch;
            if (c.channels == 2)
                EXPECT_GT(powerAt(pcm, toneHz(ch), c.sampleRate), 100 * powerAt(pcm, toneHz(1 - ch), c.sampleRate));
        }
    } else {
        EXPECT_TRUE(audio.isEmpty());
    }

    const std::vector<QByteArray> decoded =
        ffmpegFrames(path, width, height, QLatin1String(c.decodePixFmt), QStringLiteral("-fps_mode passthrough"));
    ASSERT_EQ(decoded.size(), input.size());
    double worst = 99;
    for (size_t i = 0; i < decoded.size(); ++i)
        worst = std::min(worst, psnrY(reinterpret_cast<const unsigned char*>(decoded[i].constData()),
                                      input[i].data(), width, height));
    EXPECT_GT(worst, c.minPsnr);
}

INSTANTIATE_TEST_SUITE_P(
    Containers, OutputFormats,
    ::testing::Values(
        OutputCase{"H264_AAC_MP4", "out_h264_aac.mp4", "", AV_CODEC_ID_H264, AV_CODEC_ID_AAC, "h264", "aac", 48000, 2,
                   "yuv420p", 35, true, true, nullptr},
        OutputCase{"MPEG4_MP2_AVI", "out_mpeg4_mp2.avi", "", AV_CODEC_ID_MPEG4, AV_CODEC_ID_MP2, "mpeg4", "mp2",
                   48000, 1, "yuv420p", 30, false, false, nullptr},
        OutputCase{"MJPEG_MOV", "out_mjpeg.mov", "mov", AV_CODEC_ID_MJPEG, 0, "mjpeg", "", 0, 0, "yuvj420p", 30,
                   false, false, nullptr},
        OutputCase{"MPEG2_MP2_PS", "out_mpeg2_mp2.mpg", "mpeg", AV_CODEC_ID_MPEG2VIDEO, AV_CODEC_ID_MP2,
                   "mpeg2video", "mp2", 48000, 1, "yuv420p", 30, false, false, nullptr},
        // Tag 'hvc1': Apple players require it.
        OutputCase{"HEVC_AAC_MP4", "out_hevc_aac.mp4", "", AV_CODEC_ID_HEVC, AV_CODEC_ID_AAC, "hevc", "aac", 48000,
                   2, "yuv420p", 30, false, false, "hvc1"},
        // 102400 keeps the container's own codecs: AVI writes MPEG-4 and MP3 (whose encoder
        // takes only planar samples, so the interleaved input is converted).
        OutputCase{"AUTO_AVI", "out_auto.avi", "", AV_CODEC_ID_PROBE, AV_CODEC_ID_PROBE, "mpeg4", "mp3", 44100, 1,
                   "yuv420p", 30, false, false, nullptr},
        // An unknown extension falls back to the MPEG container.
        OutputCase{"MPEG1_UNKNOWN_EXTENSION", "out_fallback.xyz123", "", AV_CODEC_ID_MPEG1VIDEO, 0, "mpeg1video", "",
                   0, 0, "yuv420p", 30, false, false, nullptr}),
    [](const ::testing::TestParamInfo<OutputCase>& info) { return std::string(info.param.name); });

// Killed mid-recording, a crash-safe recording (a fragmented MP4, set through the muxer
// options) keeps every fragment written so far, pictures and sound.
TEST(KilledRecording, FragmentedMp4KeepsItsFragments)
{
    const int width = 160, height = 120, fps = 25, perPicture = 48000 / fps;
    const QString path = dataDir() + "/crash_safe.mp4";
    QFile::remove(path);
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    std::fflush(nullptr);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(ready[0]);
        Encoder enc(1);
        enc.setCrashSafeRecording(true);
        AudioBufferEncoder audio;
        const bool ok = enc.open(1, path.toStdString(), "", AV_CODEC_ID_H264, width, height, 1, 1, 300000, 0, fps, 1,
                                 fps, AV_CODEC_ID_AAC, 64000, 48000, 1, nullptr, ignoreEncoderError);
        // Six seconds of media, GOP one second; then wait to be killed.
        for (int i = 0; ok && i < 6 * fps; ++i) {
            std::vector<unsigned char> p = makePicture(width, height, i);
            encodePicture(enc, p, width, height);
            std::vector<short> s = tone(qint64(i) * perPicture, perPicture, 1, 48000);
            audio.enqueue(enc, s.data(), perPicture, false);
        }
        const char done = ok ? 1 : 0;
        (void)!::write(ready[1], &done, 1);
        ::pause();
        ::_exit(3);
    }
    ::close(ready[1]);
    char done = 0;
    ASSERT_EQ(::read(ready[0], &done, 1), 1);
    ::close(ready[0]);
    ASSERT_EQ(::kill(child, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
    ASSERT_EQ(done, 1) << "the recording did not open";

    const QJsonObject probe = ffprobe(path);
    EXPECT_GE(number(streamOfType(probe, QStringLiteral("video")), "nb_read_frames"), 4 * fps);
    EXPECT_GE(number(streamOfType(probe, QStringLiteral("audio")), "nb_read_frames") * 1024, 4.0 * 48000);
}

// Packets copied out through the caller's buffer and written by a second encoder with
// output_encoded_video make a file that decodes to the same pictures.
TEST(PassThrough, EncodedPacketsAreWrittenAsTheyAre)
{
    const int width = 96, height = 64, pictures = 20;
    const QString source = dataDir() + QStringLiteral("/source.avi");
    const QString copy = dataDir() + QStringLiteral("/passthrough.avi");
    Encoder a(1), b(1);
    EncoderError error;
    ASSERT_TRUE(a.open(1, source.toStdString(), "", AV_CODEC_ID_MPEG4, width, height, 1, 1, 800000, 0, 25, 1, 10, 0,
                       0, 0, 0, nullptr, error));
    ASSERT_TRUE(b.open(1, copy.toStdString(), "", AV_CODEC_ID_MPEG4, width, height, 1, 1, 800000, 0, 25, 1, 10, 0,
                       0, 0, 0, nullptr, error));
    std::vector<unsigned char> out(1 << 20);
    for (int i = 0; i < pictures; ++i) {
        std::vector<unsigned char> p = makePicture(width, height, i);
        const int size = encodePicture(a, p, width, height, out.data(), int(out.size()));
        ASSERT_GT(size, 0);  // MPEG-4 without B-frames: one packet per picture
        EXPECT_EQ(b.output_encoded_video(out.data(), size), size);
    }
    EXPECT_EQ(b.output_encoded_video(out.data(), 0), 0);
    a.close();
    b.close();
    const std::vector<QByteArray> original = ffmpegFrames(source, width, height);
    const std::vector<QByteArray> passed = ffmpegFrames(copy, width, height);
    ASSERT_EQ(original.size(), size_t(pictures));
    EXPECT_EQ(passed, original);
    EXPECT_NEAR(number(streamOfType(ffprobe(copy), QStringLiteral("video")), "duration"), pictures / 25.0, 0.041);
}

}  // namespace
