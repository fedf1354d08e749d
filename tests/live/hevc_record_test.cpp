// Recording H.265: an MP4 with H.265 and AAC from Encoder, read back by ffprobe (tag
// 'hvc1', which Apple players require) and decoded again through the library.
#include "encoders/encoder_test_support.h"
#include "orvo/decoder.h"

#include <QFile>
#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/codec_id.h>
}

using namespace orvo;
using namespace orvo::test;

TEST(HevcRecording, Mp4WithAacReadsBackAsHvc1)
{
    const int width = 320, height = 240, fps = 25, pictures = 30, rate = 48000;
    const QString path = dataDir() + QStringLiteral("/live_hevc_aac.mp4");
    QFile::remove(path);

    std::vector<std::vector<unsigned char>> input;
    {
        Encoder enc(1);
        EncoderError error;
        CaptureFd quiet(2);  // x265 must not write to the client's standard error
        ASSERT_TRUE(enc.open(1, path.toStdString(), "", AV_CODEC_ID_HEVC, width, height, 1, 1, 800000, 0, fps, 1, 25,
                             AV_CODEC_ID_AAC, 64000, rate, 2, nullptr, error))
            << error.toString() << " " << error.additionalInfo();
        qint64 samples = 0;
        for (int i = 0; i < pictures; ++i) {
            input.push_back(makePicture(width, height, i));
            ASSERT_GE(encodePicture(enc, input.back(), width, height), 0);
            while (enc.behindAudioSamples() >= enc.getAudioInputFrameSize()) {
                std::vector<short> s = tone(samples, enc.getAudioInputFrameSize(), 2, rate);
                ASSERT_GE(enc.encode_audio(s.data(), nullptr, 0), 0);
                samples += enc.getAudioInputFrameSize();
            }
        }
        EXPECT_TRUE(enc.sync_audio_to_video_with_silence(true));
        enc.close();
        const std::string stderrText = quiet.text();
        EXPECT_EQ(stderrText.find("x265 ["), std::string::npos) << stderrText;
    }

    const QJsonObject probe = ffprobe(path);
    const QJsonObject video = streamOfType(probe, QStringLiteral("video"));
    ASSERT_FALSE(video.isEmpty());
    EXPECT_EQ(video.value(QStringLiteral("codec_name")).toString(), QStringLiteral("hevc"));
    EXPECT_EQ(video.value(QStringLiteral("codec_tag_string")).toString(), QStringLiteral("hvc1"));
    EXPECT_EQ(video.value(QStringLiteral("width")).toInt(), width);
    EXPECT_EQ(video.value(QStringLiteral("height")).toInt(), height);
    EXPECT_EQ(number(video, "nb_read_frames"), pictures);
    const QJsonObject audio = streamOfType(probe, QStringLiteral("audio"));
    EXPECT_EQ(audio.value(QStringLiteral("codec_name")).toString(), QStringLiteral("aac"));
    EXPECT_EQ(audio.value(QStringLiteral("channels")).toInt(), 2);

    // The recording is a stream the library decodes as a camera's H.265: each picture
    // equals FFmpeg's decode of the file and is close to what was recorded.
    const std::vector<Image> images = toImages(demuxVideo(path), 'e');
    const std::vector<QByteArray> reference = ffmpegFrames(path, width, height);
    ASSERT_EQ(reference.size(), size_t(pictures));
    ASSERT_EQ(images.size(), size_t(pictures));
    Decoder decoder;
    // x265 may hold pictures back (look-ahead, B-frames): the library shows each as soon
    // as FFmpeg gives it, so decoded pictures are matched by content order.
    size_t next = 0;
    for (const Image& image : images) {
        VideoFrame frame;
        QByteArray payload(reinterpret_cast<const char*>(image.payloadData()), int(image.payloadSize()));
        if (!decoder.decode('e', reinterpret_cast<unsigned char*>(payload.data()), payload.size(), frame, 0,
                            image.iframe()))
            continue;
        ASSERT_LT(next, reference.size());
        EXPECT_EQ(maxDiffYuv420p(frame, reference[next], width, height), 0) << "picture " << next;
        EXPECT_GT(psnrY(reinterpret_cast<const unsigned char*>(reference[next].constData()), input[next].data(), width,
                        height),
                  30.0);
        ++next;
    }
    EXPECT_GE(next, size_t(pictures) - 4);
}
