// Leaving the engine loses nothing: at each point where the engine can fail (made to fail on
// demand, over the emulated engine), the stream goes on in software, every image ends in
// exactly one picture or one error, the pictures before the failure and from the next key
// picture on equal the software decode, the query says software with the reason, the log
// says it once, and the pooled decoders signal the switch.
#include "async/async_test_util.h"
#include "hardware/hardware_support.h"
#include "orvo/concurrent_decoder.h"

namespace orvo::test {
namespace {

// The camera clip: 40 pictures, a key picture every 10, no B-frames.
const QString kCamera = QStringLiteral("hw_h264_camera.h264");

// Pictures equal to the software decode for every image before `from` and from `resume` on.
void expectSoftwareEqualOutside(const Answers& got, const Answers& soft, quint64 from, quint64 resume)
{
    for (const auto& [id, picture] : soft.pictures) {
        if (id >= from && id < resume)
            continue;
        const auto it = got.pictures.find(id);
        ASSERT_NE(it, got.pictures.end()) << "no picture for image " << id;
        EXPECT_EQ(it->second, picture) << "image " << id;
    }
}

TEST(HardwareFallback, DeviceThatDoesNotOpenGivesSoftware)
{
    HardwareGuard guard;
    LogLines log;
    HardwareGuard::use(HardwareDecoding::Auto, true);
    setHardwareFailureForTesting(HardwareFailurePoint::DeviceOpen, 1);
    const HwClip clip = hwClip(kCamera);
    const Answers got = decodeAll(clip.images);
    EXPECT_EQ(got.pictures, softwareDecode(clip.images).pictures);
    expectEachAnsweredOnce(clip.images, got);
    EXPECT_FALSE(got.paths.back().isHardware());
    EXPECT_TRUE(got.paths.back().reason.contains("did not open"));
    // Not tried again at once: the next stream is told the same without a driver call.
    const Answers next = decodeAll({clip.images.at(0)});
    EXPECT_EQ(next.paths.back().reason, got.paths.back().reason);
    EXPECT_TRUE(next.paths.back().reason.contains("not tried again for 30 s"));
    EXPECT_EQ(log.count("did not open"), 1);
}

TEST(HardwareFallback, NoHardwareFormatAndNoSurfacesGoOnInSoftwareInTheSameDecoder)
{
    const std::pair<HardwareFailurePoint, const char*> points[] = {
        {HardwareFailurePoint::GetFormat, "the engine does not decode this stream"},
        {HardwareFailurePoint::SurfaceAllocation, "the engine could not set up its pictures"},
    };
    for (const auto& [point, reason] : points) {
        SCOPED_TRACE(reason);
        HardwareGuard guard;
        LogLines log;
        HardwareGuard::use(HardwareDecoding::Auto, true);
        setHardwareFailureForTesting(point, 1);
        // A clip with a cropping window first: software pictures of the engine's decoder are
        // cropped as the software decoder's.
        for (const QString& name : {QStringLiteral("hw_h264_crop.h264"), kCamera}) {
            const HwClip clip = hwClip(name);
            const Answers got = decodeAll(clip.images);
            // Nothing was decoded on the engine yet: every picture is the software one.
            EXPECT_EQ(got.pictures, softwareDecode(clip.images).pictures);
            expectEachAnsweredOnce(clip.images, got);
            if (name != kCamera) {
                EXPECT_FALSE(got.paths.front().isHardware());
                EXPECT_TRUE(got.paths.back().reason.contains(reason)) << got.paths.back().reason.toStdString();
            } else {
                EXPECT_TRUE(got.paths.back().isHardware());  // the failure was used up
            }
        }
        EXPECT_EQ(log.count(reason), 1);
    }
}

TEST(HardwareFallback, ADamagedPictureOrAFewAreNoReasonToLeave)
{
    HardwareGuard guard;
    HardwareGuard::use(HardwareDecoding::Auto, true);
    const HwClip clip = hwClip(kCamera);
    const Answers soft = softwareDecode(clip.images);
    const Answers got = decodeAll(clip.images, [](size_t i) {
        if (i == 12)
            setHardwareFailureForTesting(HardwareFailurePoint::MidStream, 4);
    });
    expectEachAnsweredOnce(clip.images, got);
    for (quint64 id = 13; id <= 16; ++id)
        EXPECT_EQ(got.errors.count(id), 1u) << "image " << id;
    expectSoftwareEqualOutside(got, soft, 13, 21);
    for (const DecodingPath& path : got.paths)
        EXPECT_TRUE(path.isHardware());
}

TEST(HardwareFallback, ConsecutiveFailuresMidStreamSwitchToSoftwareLosingNothing)
{
    HardwareGuard guard;
    LogLines log;
    HardwareGuard::use(HardwareDecoding::Auto, true);
    const HwClip clip = hwClip(kCamera);
    const Answers soft = softwareDecode(clip.images);
    const Answers got = decodeAll(clip.images, [](size_t i) {
        if (i == 12)
            setHardwareFailureForTesting(HardwareFailurePoint::MidStream, 5);
    });
    expectEachAnsweredOnce(clip.images, got);
    // Images 13 to 17 failed in the engine; up to the next key picture (21) software has no
    // references; from there on the pictures are the software ones.
    for (quint64 id = 13; id <= 17; ++id)
        EXPECT_EQ(got.errors.count(id), 1u) << "image " << id;
    expectSoftwareEqualOutside(got, soft, 13, 21);
    for (size_t i = 0; i < 16; ++i)
        EXPECT_TRUE(got.paths[i].isHardware()) << "after image " << i + 1;
    const DecodingPath last = got.paths.back();
    EXPECT_EQ(last.engine, DecodingPath::Engine::Software);
    EXPECT_TRUE(last.reason.contains("5 pictures in a row failed in the engine")) << last.reason.toStdString();
    EXPECT_EQ(log.count("left the cuda engine for software: 5 pictures in a row"), 1);
    EXPECT_EQ(hardwareDeviceUsersForTesting("cuda"), 0);  // the engine's decoder is gone
}

TEST(HardwareFallback, FailuresWithReorderingStillAnswerEachImageOnce)
{
    HardwareGuard guard;
    HardwareGuard::use(HardwareDecoding::Auto, true);
    for (const QString& name : {QStringLiteral("hw_h264_crop.h264"), QStringLiteral("hw_hevc_crop152.hevc"),
                                QStringLiteral("hw_mpeg2.m2v")}) {
        SCOPED_TRACE(name.toStdString());
        resetHardwareStateForTesting();
        const HwClip clip = hwClip(name);
        const Answers got = decodeAll(clip.images, [](size_t i) {
            if (i == 7)
                setHardwareFailureForTesting(HardwareFailurePoint::MidStream, 5);
        });
        expectEachAnsweredOnce(clip.images, got);
        EXPECT_FALSE(got.paths.back().isHardware());
        EXPECT_FALSE(got.pictures.empty());
    }
}

TEST(HardwareFallback, LostDeviceEndsEveryStreamOnItAndIsTriedAgainLater)
{
    HardwareGuard guard;
    LogLines log;
    HardwareGuard::use(HardwareDecoding::Auto, true);
    const HwClip clip = hwClip(kCamera);
    const Answers soft = softwareDecode(clip.images);
    Decoder first, second;
    Answers a, b;
    for (size_t i = 0; i < clip.images.size(); ++i) {
        if (i == 12)
            setHardwareFailureForTesting(HardwareFailurePoint::DeviceLost, 1);
        decodeAll(first, {clip.images[i]}, a, {}, false);
        decodeAll(second, {clip.images[i]}, b, {}, false);
        if (i == 11) {
            EXPECT_TRUE(first.decodingPath().isHardware());
            EXPECT_TRUE(second.decodingPath().isHardware());
        }
    }
    decodeAll(first, {}, a);  // the drains
    decodeAll(second, {}, b);
    for (const Answers* got : {&a, &b}) {
        expectEachAnsweredOnce(clip.images, *got);
        expectSoftwareEqualOutside(*got, soft, 13, 21);
        EXPECT_TRUE(got->paths.back().reason.contains("the device was lost")) << got->paths.back().reason.toStdString();
    }
    EXPECT_EQ(a.paths.back(), b.paths.back());
    EXPECT_EQ(log.count("the device was lost"), 1) << log.lines().join('\n').toStdString();
    EXPECT_EQ(hardwareDeviceUsersForTesting("cuda"), 0);
    EXPECT_EQ(openHardwareDevicesForTesting(), 0);
    // Not reopened for every new stream at once...
    Decoder third;
    decodeAll(third, {clip.images.at(0)}, a);
    EXPECT_FALSE(third.decodingPath().isHardware());
    EXPECT_TRUE(third.decodingPath().reason.startsWith(b.paths.back().reason))
        << third.decodingPath().reason.toStdString();
    EXPECT_TRUE(third.decodingPath().reason.contains("not tried again for 30 s"));
    // ...but once the wait is over.
    resetHardwareStateForTesting();
    Decoder fourth;
    decodeAll(fourth, {clip.images.at(0)}, a);
    EXPECT_TRUE(fourth.decodingPath().isHardware());
}

TEST(HardwareFallback, StreamsGoBackToTheEngineAtAKeyPictureOnceTheDeviceOpens)
{
    HardwareGuard guard;
    LogLines log;
    HardwareGuard::use(HardwareDecoding::Auto, true);
    const HwClip clip = hwClip(kCamera);
    const Answers soft = softwareDecode(clip.images);

    // No device at first: software, and the engine from the first key picture after the wait.
    setHardwareFailureForTesting(HardwareFailurePoint::DeviceOpen, 1);
    const Answers late = decodeAll(clip.images, [](size_t i) {
        if (i == 4)
            resetHardwareStateForTesting();  // the wait is over
    });
    expectEachAnsweredOnce(clip.images, late);
    EXPECT_EQ(late.pictures, soft.pictures);  // nothing lost at the switch
    EXPECT_FALSE(late.paths.at(9).isHardware());
    for (size_t i = 10; i < late.paths.size(); ++i)
        EXPECT_TRUE(late.paths[i].isHardware()) << "after image " << i + 1;

    // A lost device: both streams leave it and come back at the first key picture after the wait.
    resetHardwareStateForTesting();
    Decoder first, second;
    Answers a, b;
    for (size_t i = 0; i < clip.images.size(); ++i) {
        if (i == 12)
            setHardwareFailureForTesting(HardwareFailurePoint::DeviceLost, 1);
        if (i == 15)
            resetHardwareStateForTesting();
        decodeAll(first, {clip.images[i]}, a, {}, false);
        decodeAll(second, {clip.images[i]}, b, {}, false);
    }
    decodeAll(first, {}, a);
    decodeAll(second, {}, b);
    for (const Answers* got : {&a, &b}) {
        expectEachAnsweredOnce(clip.images, *got);
        expectSoftwareEqualOutside(*got, soft, 13, 21);
        EXPECT_FALSE(got->paths.at(19).isHardware());
        EXPECT_TRUE(got->paths.at(20).isHardware());
        EXPECT_TRUE(got->paths.back().isHardware());
    }
    EXPECT_EQ(hardwareDeviceUsersForTesting("cuda"), 2);
    // Once per part (two streams came back in the second): the reset forgets logged causes.
    EXPECT_EQ(log.count("a stream went back to the cuda engine"), 2);
}

TEST(HardwareFallback, RequiredFailsTheImagesInsteadOfGoingToSoftware)
{
    HardwareGuard guard;
    HardwareGuard::use(HardwareDecoding::Required, true);
    const HwClip clip = hwClip(kCamera);
    const Answers got = decodeAll(clip.images, [](size_t i) {
        if (i == 12)
            setHardwareFailureForTesting(HardwareFailurePoint::MidStream, 5);
    });
    expectEachAnsweredOnce(clip.images, got);
    EXPECT_EQ(got.pictures.size(), 12u);
    for (quint64 id = 13; id <= clip.images.size(); ++id) {
        ASSERT_EQ(got.errors.count(id), 1u) << "image " << id;
        if (id > 17)
            EXPECT_TRUE(got.errors.at(id).contains("hardware decoding (cuda) required, but 5 pictures in a row"))
                << got.errors.at(id).toStdString();
    }
    // No format the engine refuses is decoded in software behind the client's back.
    setHardwareFailureForTesting(HardwareFailurePoint::GetFormat, 1);
    const Answers refused = decodeAll(clip.images);
    EXPECT_TRUE(refused.pictures.empty());
    expectEachAnsweredOnce(clip.images, refused);
}

// The pooled decoders tell the client of each switch (decodingPathChanged, on the handle
// and on the implementation) and lose no image across it.
template <typename Handle>
void pooledSwitch()
{
    HardwareGuard guard;
    HardwareGuard::use(HardwareDecoding::Auto, true);
    const HwClip clip = hwClip(kCamera);
    std::map<quint64, int> answers;
    std::vector<DecodingPath> handlePaths, implPaths;
    {
        Handle decoder;
        QObject::connect(&decoder, &ConcurrentDecoder::frameDecoded, [&](const VideoFrame& f) { ++answers[f.id()]; });
        QObject::connect(&decoder, &ConcurrentDecoder::error, [&](const DecoderError& e) { ++answers[e.imageId()]; });
        QObject::connect(&decoder, &ConcurrentDecoder::decodingPathChanged,
                         [&](const DecodingPath& p) { handlePaths.push_back(p); });
        QObject::connect(decoder.getInterface(), &DecoderInterfaceSignals::decodingPathChanged,
                         [&](const DecodingPath& p) { implPaths.push_back(p); });
        for (size_t i = 0; i < clip.images.size(); ++i) {
            if (i == 12) {
                // The failures must meet the images from 13 on.
                ASSERT_TRUE(waitUntil([&] { return answers.size() >= 12; }));
                setHardwareFailureForTesting(HardwareFailurePoint::MidStream, 5);
            }
            ASSERT_EQ(decoder.decode(clip.images[i]), 1);
        }
        ASSERT_TRUE(waitUntil([&] { return answers.size() >= clip.images.size(); }));
        spin(20);
        EXPECT_FALSE(decoder.decodingPath().isHardware());
    }
    for (const Image& image : clip.images)
        EXPECT_EQ(answers[image.id()], 1) << "image " << image.id();
    ASSERT_EQ(handlePaths.size(), 2u);
    EXPECT_TRUE(handlePaths[0].isHardware());
    EXPECT_EQ(handlePaths[1].engine, DecodingPath::Engine::Software);
    EXPECT_TRUE(handlePaths[1].reason.contains("5 pictures in a row"));
    EXPECT_EQ(implPaths, handlePaths);
}

TEST(HardwareFallback, PooledDecodersSignalTheSwitch)
{
    pooledSwitch<ConcurrentDecoder>();
    pooledSwitch<OrderedConcurrentDecoder>();
}

}  // namespace
}  // namespace orvo::test
