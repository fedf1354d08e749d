// Opening and closing outputs: failures and their codes, the preset file, track ends.
#include "encoders/encoder_test_support.h"
#include "orvo/av_encoder.h"

#include <QFile>
#include <gtest/gtest.h>


extern "C" {
#include <libavcodec/codec_id.h>
}

using namespace orvo;
using namespace orvo::test;

namespace {

bool openVideoOnly(AVEncoder& enc, const QString& path, const char* format, unsigned int video,
                   EncoderError& error, int width = 64, void* preset = nullptr, bool noVideo = false)
{
    return enc.open(path.toStdString(), format, video, width, 48, 1, 1, 400000, 0, 25, 1, 12, 0, 0, 0, 0, preset,
                    error, noVideo);
}

std::string closeAndCaptureStderr(AVEncoder& enc)
{
    CaptureFd err(2);
    enc.close();
    return err.text();
}

const char* const kDoubleClose = "\nAVEncoder::close called on closed encoder. Double close call??\n";

struct OpenFailure {
    const char* name;
    const char* file;  // under the data directory unless absolute
    const char* format;
    unsigned video;
    int width;
    unsigned audio;
    int sampleRate;
    int channels;
    bool noVideo;
    EncoderError::ErrorCode code;
    const char* info;  // expected in the additional information, or null
};

// Each failure reports its code, writes no file and leaves the encoder closed.
TEST(AVEncoderOpen, FailuresReportTheirCodeAndLeaveTheEncoderClosed)
{
    const OpenFailure cases[] = {
        {"no codec", "none.avi", "", 0, 64, 0, 0, 0, false, EncoderError::NoCodecSpecified, nullptr},
        {"video refused", "novideo.avi", "", AV_CODEC_ID_MPEG4, 64, 0, 0, 0, true, EncoderError::CouldNotAddStream,
         nullptr},
        {"no encoder", "vp6.avi", "", AV_CODEC_ID_VP6, 64, 0, 0, 0, false, EncoderError::CouldNotOpenCodecs, nullptr},
        {"zero width", "zero.avi", "", AV_CODEC_ID_MPEG4, 0, 0, 0, 0, false, EncoderError::CouldNotOpenCodecs, nullptr},
        {"no directory", "/nonexistent-dir/x.avi", "", AV_CODEC_ID_MPEG4, 64, 0, 0, 0, false,
         EncoderError::CouldNotOpenFile, "/nonexistent-dir/x.avi"},
        // MP4 takes no 16-bit PCM: the header fails with FFmpeg's reason.
        {"pcm in mp4", "pcm.mp4", "", 0, 0, AV_CODEC_ID_PCM_S16LE, 8000, 1, false, EncoderError::CouldNotWriteHeader,
         ""},
        // FLAC frames of 4608 samples x 8 channels exceed the audio buffer's frame limit.
        {"frame too large", "too_wide.mkv", "matroska", 0, 0, AV_CODEC_ID_FLAC, 48000, 8, true,
         EncoderError::AudioError, "8 channels"},
    };
    for (const OpenFailure& c : cases) {
        SCOPED_TRACE(c.name);
        const QString path = c.file[0] == '/' ? QString(c.file) : dataDir() + "/" + c.file;
        QFile::remove(path);
        AVEncoder enc;
        EncoderError error;
        EXPECT_FALSE(enc.open(path.toStdString(), c.format, c.video, c.width, 48, 1, 1, 400000, 0, 25, 1, 12, c.audio,
                              0, c.sampleRate, c.channels, nullptr, error, c.noVideo));
        EXPECT_EQ(error.errorId(), c.code);
        if (c.info)
            EXPECT_NE(error.additionalInfo().find(c.info), std::string::npos) << error.additionalInfo();
        EXPECT_FALSE(enc.hasVideo());
        EXPECT_EQ(closeAndCaptureStderr(enc), kDoubleClose);
        if (c.code != EncoderError::CouldNotWriteHeader)
            EXPECT_FALSE(QFile::exists(path));
    }
    // The "don't care" record shared by all recorders is never written.
    Encoder broken(1);
    EXPECT_FALSE(broken.open(1, "/nonexistent-dir/x.avi", "", AV_CODEC_ID_MPEG4, 64, 48, 1, 1, 1, 0, 25, 1, 12, 0, 0,
                             0, 0, nullptr, ignoreEncoderError));
    EXPECT_FALSE(ignoreEncoderError.hasError());
    EXPECT_EQ(ignoreEncoderError.additionalInfo(), "");
}

TEST(AVEncoderOpen, ClosedEncoderRefusesWorkWithoutCrashing)
{
    AVEncoder enc;
    std::vector<unsigned char> p = makePicture(64, 48, 0);
    std::vector<short> s(4096);
    EXPECT_EQ(enc.encode(p.data(), p.data(), p.data(), 64, 32, 32, nullptr, 0), -1);
    EXPECT_EQ(enc.encode_audio(s.data(), nullptr, 0), -1);
    EXPECT_EQ(enc.output_encoded_video(p.data(), 10), -1);
    EXPECT_EQ(enc.output_encoded_video(p.data(), 0), 0);
    EXPECT_EQ(enc.getAudioInputFrameSize(), 0);
    EXPECT_EQ(enc.behindAudioSamples(), 0);
    EXPECT_EQ(closeAndCaptureStderr(enc), kDoubleClose);

    // After a real output was closed, a second close is reported and work is refused.
    EncoderError error;
    ASSERT_TRUE(openVideoOnly(enc, dataDir() + "/closed.avi", "", AV_CODEC_ID_MPEG4, error));
    EXPECT_GE(encodePicture(enc, p, 64, 48), 0);
    EXPECT_EQ(closeAndCaptureStderr(enc), "");
    EXPECT_EQ(closeAndCaptureStderr(enc), kDoubleClose);
    EXPECT_EQ(enc.encode(p.data(), p.data(), p.data(), 64, 32, 32, nullptr, 0), -1);
    EXPECT_FALSE(enc.hasVideo());

    // The same encoder opens a new output.
    ASSERT_TRUE(openVideoOnly(enc, dataDir() + "/reopened.avi", "", AV_CODEC_ID_MPEG4, error));
    EXPECT_TRUE(enc.hasVideo());
    enc.close();
}

TEST(AVEncoderOpen, AudioFailureAloneIsReportedInTheAdditionalInformation)
{
    AVEncoder enc;
    EncoderError error;
    error.setAdditionalInfo("earlier");
    // MP2 has no 12,345 Hz mode.
    ASSERT_TRUE(enc.open((dataDir() + "/noaudio.avi").toStdString(), "", AV_CODEC_ID_MPEG4, 64, 48, 1, 1, 400000,
                         0, 25, 1, 12, AV_CODEC_ID_MP2, 64000, 12345, 1, nullptr, error, false));
    EXPECT_FALSE(error.hasError());
    EXPECT_EQ(error.additionalInfo(),
              "earlier,could not open audio encoder:reason:Audio error. additional info:Invalid argument");
    std::vector<short> s(4096);
    EXPECT_LT(enc.encode_audio(s.data(), nullptr, 0), 0);
    enc.close();
}

// Real preset lines: comments, blanks before the key, values with leading blanks, and
// options the codec does not know.
TEST(AVEncoderPreset, PresetFileLinesBecomeCodecOptions)
{
    const QString preset = dataDir() + "/test.ffpreset";
    {
        QFile f(preset);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        f.write("# x264 test preset\n"
                "  # indented comment\n"
                "\n"
                "   bf = 3\n"
                "preset=ultrafast\r\n"
                "nosuchoption=1\n"
                "g=7\n");
    }
    AVEncoder::setPresetFilePath(preset.toStdString());
    const QString path = dataDir() + "/preset.mp4";
    AVEncoder enc;
    EncoderError error;
    int presetSwitch = 1;
    CaptureFd out(1);
    const bool ok = openVideoOnly(enc, path, "", AV_CODEC_ID_H264, error, 64, &presetSwitch);
    const std::string text = out.text();
    AVEncoder::setPresetFilePath(std::string());
    ASSERT_TRUE(ok) << error.toString();
    EXPECT_NE(text.find("Option:nosuchoption=1 (invalid)"), std::string::npos) << text;
    for (int i = 0; i < 20; ++i) {
        std::vector<unsigned char> p = makePicture(64, 48, i);
        EXPECT_GE(encodePicture(enc, p, 64, 48), 0);
    }
    enc.close();
    // bf " 3" reached the codec: the stream has B-frames (ultrafast alone has none).
    const QJsonObject video = streamOfType(ffprobe(path), "video");
    EXPECT_GE(video.value("has_b_frames").toInt(), 1);
    EXPECT_EQ(number(video, "nb_read_frames"), 20);
}

TEST(AVEncoderSync, TrackEndsCompareAsFractionsOfSeconds)
{
    AVEncoder enc;
    EncoderError error;
    // 16 kHz MP2 (1,152-sample frames) beside 50 pictures per second.
    ASSERT_TRUE(enc.open((dataDir() + "/compare.avi").toStdString(), "", AV_CODEC_ID_MPEG4, 64, 48, 1, 1, 400000, 0,
                         50, 1, 12, AV_CODEC_ID_MP2, 32000, 16000, 1, nullptr, error, false));
    ASSERT_EQ(enc.getAudioInputFrameSize(), 1152);
    ASSERT_EQ(enc.getAudioSampleRate(), 16000);
    std::vector<short> s = tone(0, 1152, 1, 16000);
    std::vector<unsigned char> p = makePicture(64, 48, 0);
    // Audio and video ends after each step; the result is |whole| + 1 with the sign of audio - video.
    const struct {
        int audioFrames, pictures;
        int result, whole, num, den;
        qint64 behind;
    } steps[] = {{0, 0, 0, 0, 0, 1, 0},  {10, 0, 1, 0, 18, 25, -11520},  // 0.72 s of sound
                 {0, 61, -1, 0, -1, 2, 8000}, {0, 100, -3, -2, -1, 2, 40000}};  // 1.22 s, then 3.22 s of video
    for (const auto& step : steps) {
        for (int i = 0; i < step.audioFrames; ++i)
            ASSERT_GE(enc.encode_audio(s.data(), nullptr, 0), 0);
        for (int i = 0; i < step.pictures; ++i)
            ASSERT_GE(encodePicture(enc, p, 64, 48), 0);
        int whole = 5, num = 5, den = 5;
        bool exact = false;
        EXPECT_EQ(enc.compareAudioVideoPTS(whole, num, den, exact), step.result);
        EXPECT_TRUE(exact);
        EXPECT_EQ(whole, step.whole);
        EXPECT_EQ(num, step.num);
        if (step.num)
            EXPECT_EQ(den, step.den);
        EXPECT_EQ(enc.behindAudioSamples(), step.behind);
    }
    enc.close();
}

}  // namespace
