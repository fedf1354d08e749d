// Recordings as a camera client makes them: stereo sound through the audio buffer, and
// crash-safe MP4 that survives the recording process being killed.
#include "encoders/encoder_test_support.h"
#include "orvo/audio_buffer_encoder.h"
#include "orvo/av_encoder.h"

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

constexpr int kRate = 48000;
constexpr double kLeftHz = 440, kRightHz = 1500;

// Interleaved stereo: a different tone on each side.
std::vector<short> stereoTones(qint64 first, int samples)
{
    std::vector<short> s(static_cast<size_t>(samples) * 2);
    for (int i = 0; i < samples; ++i) {
        const double t = double(first + i) / kRate;
        s[2 * i] = static_cast<short>(8000 * std::sin(2 * M_PI * kLeftHz * t));
        s[2 * i + 1] = static_cast<short>(8000 * std::sin(2 * M_PI * kRightHz * t));
    }
    return s;
}

// One channel of the first audio stream, decoded by the ffmpeg command line.
std::vector<short> channelOf(const QString& path, int channel)
{
    const QByteArray raw = run(QStringLiteral("ffmpeg"),
                               {QStringLiteral("-nostdin"), QStringLiteral("-v"), QStringLiteral("error"),
                                QStringLiteral("-i"), path, QStringLiteral("-map"), QStringLiteral("0:a:0"),
                                QStringLiteral("-af"), QStringLiteral("pan=mono|c0=c%1").arg(channel),
                                QStringLiteral("-f"), QStringLiteral("s16le"), QStringLiteral("-")});
    std::vector<short> s(raw.size() / 2);
    std::memcpy(s.data(), raw.constData(), s.size() * 2);
    return s;
}

// Power of one frequency (Goertzel), normalised by the length.
double powerAt(const std::vector<short>& s, double hz)
{
    const double w = 2 * M_PI * hz / kRate, coeff = 2 * std::cos(w);
    double s1 = 0, s2 = 0;
    for (short v : s) {
        const double s0 = v + coeff * s1 - s2;
        s2 = s1;
        s1 = s0;
    }
    return (s1 * s1 + s2 * s2 - coeff * s1 * s2) / double(s.size()) / double(s.size());
}

TEST(Stereo, EachChannelCarriesItsOwnToneThroughTheAudioBuffer)
{
    const int width = 160, height = 120, pictures = 50, perPicture = kRate / 25;
    const QString path = dataDir() + QStringLiteral("/stereo.mp4");
    QFile::remove(path);
    Encoder enc(1);
    EncoderError error;
    ASSERT_TRUE(enc.open(1, path.toStdString(), "mp4", AV_CODEC_ID_H264, width, height, 1, 1, 300000, 0, 25, 1, 25,
                         AV_CODEC_ID_AAC, 128000, kRate, 2, nullptr, error))
        << error.toString();
    AudioBufferEncoder audio;
    qint64 at = 0;
    for (int i = 0; i < pictures; ++i) {
        std::vector<unsigned char> p = makePicture(width, height, i);
        encodePicture(enc, p, width, height);
        // Runs of odd lengths: frames are assembled across calls.
        const int run = perPicture + (i % 3 - 1) * 37;
        std::vector<short> s = stereoTones(at, run);
        ASSERT_TRUE(audio.enqueue(enc, s.data(), unsigned(s.size()), false));
        at += run;
    }
    enc.sync_audio_to_video_with_silence(true);
    enc.close();

    const QJsonObject a = streamOfType(ffprobe(path), QStringLiteral("audio"));
    EXPECT_EQ(a.value(QStringLiteral("channels")).toInt(), 2);
    EXPECT_NEAR(number(a, "duration"), 2.0, 0.1);
    const std::vector<short> left = channelOf(path, 0), right = channelOf(path, 1);
    ASSERT_GT(left.size(), size_t(kRate));
    ASSERT_EQ(left.size(), right.size());
    // Each side holds its own tone and hardly any of the other's.
    EXPECT_GT(powerAt(left, kLeftHz), 100 * powerAt(left, kRightHz));
    EXPECT_GT(powerAt(right, kRightHz), 100 * powerAt(right, kLeftHz));
    EXPECT_GT(powerAt(left, kLeftHz), 1e6);
}

// A frame the audio buffer cannot hold is refused at open, not dropped later.
TEST(Stereo, OpenRefusesAnAudioFrameTheBufferCannotHold)
{
    const QString path = dataDir() + QStringLiteral("/too_wide.mkv");
    QFile::remove(path);
    AVEncoder enc;
    EncoderError error;
    // FLAC frames of 4608 samples x 8 channels exceed the buffer's frame limit.
    EXPECT_FALSE(enc.open(path.toStdString(), "matroska", 0, 0, 0, 1, 1, 0, 0, 25, 1, 25, AV_CODEC_ID_FLAC, 0,
                          kRate, 8, nullptr, error, true));
    EXPECT_EQ(error.errorId(), EncoderError::AudioError);
    EXPECT_NE(error.additionalInfo().find("8 channels"), std::string::npos) << error.additionalInfo();
    EXPECT_FALSE(QFile::exists(path));
}

// Killed mid-recording with only the documented switch set, the file keeps every
// fragment written so far: pictures up to the last one or two GOPs, and the sound track.
TEST(CrashSafeRecording, KilledRecordingKeepsItsFragments)
{
    const int width = 160, height = 120, fps = 25, perPicture = kRate / fps;
    const QString path = dataDir() + QStringLiteral("/crash_safe.mp4");
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
        EncoderError error;
        AudioBufferEncoder audio;
        bool ok = enc.open(1, path.toStdString(), "mp4", AV_CODEC_ID_H264, width, height, 1, 1, 300000, 0, fps, 1,
                           fps, AV_CODEC_ID_AAC, 64000, kRate, 1, nullptr, error);
        // Six seconds of media, GOP one second; then wait to be killed.
        for (int i = 0; ok && i < 6 * fps; ++i) {
            std::vector<unsigned char> p = makePicture(width, height, i);
            encodePicture(enc, p, width, height);
            std::vector<short> s = tone(qint64(i) * perPicture, perPicture, 1, kRate);
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
    const QJsonObject video = streamOfType(probe, QStringLiteral("video"));
    const QJsonObject sound = streamOfType(probe, QStringLiteral("audio"));
    ASSERT_FALSE(video.isEmpty());
    ASSERT_FALSE(sound.isEmpty());
    EXPECT_GE(number(video, "nb_read_frames"), 4 * fps);
    EXPECT_GE(number(sound, "nb_read_frames") * 1024, 4.0 * kRate);
}

}  // namespace
