// Every accepted image ends in exactly one answer (a frame naming it, or an error naming
// it) on every decoding path, also under damage, wrong format codes and format switches;
// and pictures of whole access units come out in the call of their own image.
#include "async/async_test_util.h"
#include "common/test_streams.h"
#include "orvo/concurrent_decoder.h"
#include "orvo/decoder.h"
#include "orvo/decoder_error.h"
#include "orvo/decoder_preferences.h"
#include "streams/stream_paths.h"

#include <gtest/gtest.h>

#include <map>

using namespace orvo;
using namespace orvo::test;

namespace {

#define ANSWER_SRC "-f lavfi -i testsrc2=size=176x144:rate=25 -frames:v 30 -pix_fmt yuv420p "
#define ANSWER_X265 "-c:v libx265 -x265-params log-level=error:keyint=10:min-keyint=10:scenecut=0:"

std::vector<Packet> clip(const char* name, const char* args)
{
    return demuxVideo(ffmpegFile(QString::fromLatin1(name), QString::fromLatin1(args)));
}

const std::vector<Packet>& h264Units()
{
    static const auto units = clip("answers_h264.h264", ANSWER_SRC "-c:v libx264 -bf 0 -g 10 -f h264");
    return units;
}
const std::vector<Packet>& hevcUnits()
{
    static const auto units = clip("answers_hevc.hevc", ANSWER_SRC ANSWER_X265 "bframes=0 -f hevc");
    return units;
}

// A stream a camera client may really see, one image per access unit:
//  H.264 with a picture cut to half, a key frame replaced by garbage, a lost picture and
//  bytes in front of one; H.265 sent as H.264 and H.264 sent as H.265; H.265, switched to
//  H.264 with B-frames, switched to Motion JPEG while B-frames are held.
std::vector<Image> troubledStream()
{
    std::vector<Image> images;
    auto add = [&](quint8 code, const QByteArray& payload, bool key) {
        images.emplace_back(code, payload, images.size() + 1, qint64(images.size()) * 40, key);
    };
    const auto& h264 = h264Units();
    for (size_t k = 0; k < h264.size(); ++k) {
        QByteArray unit = h264[k].data;
        if (k == 15)
            continue;  // lost
        if (k == 5)
            unit.truncate(unit.size() / 2);
        if (k == 10)
            unit = QByteArray(unit.size(), char(0xa5));
        if (k == 22)
            unit.prepend(QByteArray("\x13\x37\x00\x00\x01\x0c\xff\xee", 8));
        add('h', unit, h264[k].key);
    }
    const auto& hevc = hevcUnits();
    for (size_t k = 0; k < 10; ++k)
        add('h', hevc[k].data, hevc[k].key);
    for (size_t k = 0; k < 10; ++k)
        add('e', h264[k].data, h264[k].key);
    for (size_t k = 0; k < 12; ++k)
        add('e', hevc[k].data, hevc[k].key);
    static const auto bframes = clip("answers_h264_b.h264", ANSWER_SRC "-c:v libx264 -bf 2 -g 10 -f h264");
    for (size_t k = 0; k < 9; ++k)
        add('h', bframes[k].data, bframes[k].key);
    static const auto mjpeg = clip("answers_mjpeg.avi", ANSWER_SRC "-c:v mjpeg -pix_fmt yuvj420p");
    for (size_t k = 0; k < 3; ++k)
        add('j', mjpeg[k].data, true);
    return images;
}

TEST(Answers, EveryImageEndsOnceUnderDamageWrongCodesAndFormatSwitches)
{
    const std::vector<Image> images = troubledStream();
    ASSERT_EQ(images.size(), 29u + 10 + 10 + 12 + 9 + 3);
    for (Path path : {Path::Decoder, Path::Concurrent, Path::Ordered, Path::SingleThreaded}) {
        SCOPED_TRACE(int(path));
        const Outcome out = decodeThrough(path, images, false);
        std::map<quint64, int> answers;
        for (const VideoFrame& f : out.frames)
            ++answers[f.id()];
        for (const DecoderError& e : out.errors) {
            ++answers[e.imageId()];
            if (path != Path::Decoder)
                EXPECT_FALSE(e.reason().isEmpty()) << "image " << e.imageId();
        }
        for (const Image& image : images)
            EXPECT_EQ(answers.count(image.id()) ? answers.at(image.id()) : 0, 1) << "image " << image.id();
        EXPECT_EQ(answers.size(), images.size()) << "answers name images that were never sent";
        // Pictures where FFmpeg gives them (the damage suite compares them): H.264 but the
        // lost picture and the group after the garbage key frame, none of the wrongly coded
        // images, H.265, the held B-frames when the format switches, and Motion JPEG.
        EXPECT_EQ(out.frames.size(), 10u + 11 + 12 + 9 + 3);
    }
}

TEST(Answers, WaitingForTheNextKeyFrameAnswersEachSkippedImageWithAnError)
{
    PreferencesGuard guard;
    DecoderPreferences::instance()->setDamagedPictures(DamagedPictures::WaitForKeyFrame);
    const auto& h264 = h264Units();
    std::vector<Image> images;
    for (size_t k = 0; k < h264.size(); ++k) {
        QByteArray unit = h264[k].data;
        if (k == 13)
            unit.truncate(unit.size() / 2);
        images.emplace_back('h', unit, k + 1, qint64(k) * 40, h264[k].key);
    }
    std::vector<quint64> failed;
    const std::vector<VideoFrame> frames = decodeImages(images, &failed);
    // The cut picture and the rest of its group (13..19) wait for the key frame at 20.
    EXPECT_EQ(failed, idRange(14, 20));
    ASSERT_EQ(frames.size(), 23u);
    for (const VideoFrame& f : frames)
        EXPECT_FALSE(f.isDamaged());
    EXPECT_EQ(frames[13].id(), 21u);

    // Shown, the same pictures are marked.
    DecoderPreferences::instance()->setDamagedPictures(DamagedPictures::Show);
    const std::vector<VideoFrame> shown = decodeImages(images, &failed);
    ASSERT_EQ(shown.size(), 30u);
    EXPECT_TRUE(shown[13].isDamaged());
    EXPECT_FALSE(shown[12].isDamaged());
    EXPECT_FALSE(shown[20].isDamaged());
}

const ClipSpec kClipSpecs[] = {
    {"latency_h264.h264", 'h', ANSWER_SRC "-c:v libx264 -bf 0 -g 10 -f h264"},
    {"latency_h264_slices.h264", 'h', ANSWER_SRC "-c:v libx264 -slices 4 -bf 0 -g 10 -f h264"},
    {"latency_hevc.hevc", 'e', ANSWER_SRC ANSWER_X265 "bframes=0 -f hevc"},
    {"latency_hevc_slices.hevc", 'e', ANSWER_SRC ANSWER_X265 "bframes=0:slices=4 -f hevc"},
};

// Whole access units (one or two per image) and NAL units with the last one marked.
std::vector<Image> latencyImages(const std::vector<Packet>& units, quint8 code, int perImage, bool nalCut)
{
    std::vector<Image> images;
    for (size_t k = 0; k + size_t(perImage) <= units.size(); k += size_t(perImage)) {
        QByteArray payload;
        for (int j = 0; j < perImage; ++j)
            payload += units[k + size_t(j)].data;
        if (!nalCut) {
            images.emplace_back(code, payload, images.size() + 1, qint64(k) * 40, units[k].key);
            continue;
        }
        const std::vector<QByteArray> nals = nalUnits(payload);
        for (size_t n = 0; n < nals.size(); ++n) {
            Image image(code, nals[n], images.size() + 1, qint64(k) * 40, units[k].key);
            images.push_back(image.setAccessUnitEnd(n + 1 == nals.size()));
        }
    }
    return images;
}

TEST(Answers, WholeAccessUnitsComeOutInTheCallOfTheirImage)
{
    for (const ClipSpec& c : kClipSpecs) {
        const std::vector<Packet> units = clip(c.name, c.encode);
        ASSERT_EQ(units.size(), 30u);
        for (int perImage : {1, 2}) {
            for (bool nalCut : {false, true}) {
                SCOPED_TRACE(std::string(c.name) + (perImage == 2 ? " two per image" : "") + (nalCut ? " marked" : ""));
                const std::vector<Image> images = latencyImages(units, c.code, perImage, nalCut);
                // Synchronously: a group's pictures are out when its last image returns.
                Decoder decoder;
                VideoFrame frame;
                size_t pictures = 0, groups = 0;
                bool wrongIdentity = false, late = false;
                for (const Image& image : images) {
                    if (decoder.decodeImage(image, frame) == Decoder::ImageResult::Picture) {
                        do {
                            ++pictures;
                            wrongIdentity = wrongIdentity || (!nalCut && frame.id() != image.id());
                        } while (decoder.takePicture(frame));
                    }
                    if (!nalCut || image.isAccessUnitEnd())
                        late = late || pictures != ++groups * size_t(perImage);
                }
                EXPECT_FALSE(late);
                EXPECT_FALSE(wrongIdentity);
                EXPECT_EQ(pictures, 30u);
            }
        }
        // Pooled: each image's pictures arrive before the next image is given.
        for (int perImage : {1, 2}) {
            ConcurrentDecoder decoder;
            Recorder recorder;
            recorder.attach(&decoder);
            const std::vector<Image> images = latencyImages(units, c.code, perImage, false);
            for (const Image& image : images) {
                ASSERT_EQ(decoder.decode(image), 1);
                EXPECT_TRUE(waitUntil([&] { return recorder.frames.size() == image.id() * size_t(perImage); }, 5000))
                    << c.name << " image " << image.id() << " of " << perImage << " units";
                EXPECT_EQ(recorder.frames.back().id(), image.id());
            }
        }
    }
}

}  // namespace
