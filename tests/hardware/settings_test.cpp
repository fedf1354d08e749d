// The hardware decoding settings and the query on machines with or without a GPU: Off is
// the default, an unknown device type is refused, Auto without a device decodes exactly as
// software and says so, Required fails cleanly on the synchronous and the pooled paths.
#include "async/async_test_util.h"
#include "hardware/hardware_support.h"
#include "orvo/concurrent_decoder.h"

namespace orvo::test {
namespace {

TEST(HardwareSettings, OffByDefaultWithCudaAsTheDeviceType)
{
    HardwareGuard guard;
    DecoderPreferences* prefs = DecoderPreferences::instance();
    EXPECT_EQ(prefs->hardwareDecoding(), HardwareDecoding::Off);
    EXPECT_EQ(prefs->hardwareDeviceType(), "cuda");
    EXPECT_EQ(prefs->hardwareDeviceName(), "");

    const HwClip clip = hwClip("hw_h264_camera.h264");
    Decoder decoder;
    EXPECT_EQ(decoder.decodingPath().engine, DecodingPath::Engine::None);
    VideoFrame frame;
    ASSERT_EQ(decoder.decodeImage(clip.images.at(0), frame), Decoder::ImageResult::Picture);
    EXPECT_EQ(decoder.decodingPath().engine, DecodingPath::Engine::Software);
    EXPECT_TRUE(decoder.decodingPath().reason.isEmpty());
    EXPECT_EQ(decoder.decodingPath().toString(), "software");
}

TEST(HardwareSettings, UnknownDeviceTypeIsRefusedAndTheSettingKept)
{
    HardwareGuard guard;
    DecoderPreferences* prefs = DecoderPreferences::instance();
    EXPECT_FALSE(prefs->setHardwareDeviceType("no-such-engine"));
    EXPECT_FALSE(prefs->setHardwareDeviceType(""));
    EXPECT_EQ(prefs->hardwareDeviceType(), "cuda");
    // Every engine FFmpeg names goes through the same code: only the name differs.
    for (const char* type : {"vaapi", "vdpau", "vulkan", "cuda"}) {
        EXPECT_TRUE(prefs->setHardwareDeviceType(type)) << type;
        EXPECT_EQ(prefs->hardwareDeviceType(), type);
    }
}

TEST(HardwareSettings, AutoWithoutDeviceDecodesExactlyAsSoftwareAndSaysSo)
{
    HardwareGuard guard;
    LogLines log;
    HardwareGuard::use(HardwareDecoding::Auto, false);
    // No device on any machine, a GPU one included.
    setHardwareFailureForTesting(HardwareFailurePoint::DeviceOpen, -1);
    for (const QString& name : {QStringLiteral("hw_h264_crop.h264"), QStringLiteral("hw_hevc_crop152.hevc")}) {
        SCOPED_TRACE(name.toStdString());
        const HwClip clip = hwClip(name);
        ASSERT_FALSE(clip.images.empty());
        const Answers soft = softwareDecode(clip.images);
        const Answers autoPath = decodeAll(clip.images);
        EXPECT_EQ(autoPath.pictures, soft.pictures);
        EXPECT_EQ(autoPath.errors, soft.errors);
        expectEachAnsweredOnce(clip.images, autoPath);
        ASSERT_FALSE(autoPath.paths.empty());
        const DecodingPath path = autoPath.paths.back();
        EXPECT_EQ(path.engine, DecodingPath::Engine::Software);
        EXPECT_EQ(path.deviceType, "cuda");
        EXPECT_TRUE(path.reason.contains("did not open")) << path.reason.toStdString();
    }
    // Every stream found no device; the log says so once.
    EXPECT_EQ(log.count("decoding in software, not on the cuda engine"), 1) << log.lines().join('\n').toStdString();
}

TEST(HardwareSettings, AutoTakesSoftwareForFormatsWithoutEngine)
{
    HardwareGuard guard;
    HardwareGuard::use(HardwareDecoding::Auto, true);
    Decoder decoder;
    VideoFrame frame;
    ASSERT_EQ(decoder.decodeImage(Image('y', rawYuv(16, 8, 1), 1, 0, true), frame), Decoder::ImageResult::Picture);
    EXPECT_EQ(decoder.decodingPath().engine, DecodingPath::Engine::Software);
}

// The DCT formats decode in software by default, exactly, saying why; on request they take
// the engine. H.264 takes it either way.
TEST(HardwareSettings, DctFormatsTakeTheEngineOnlyWhenApproximatePicturesAreAllowed)
{
    HardwareGuard guard;
    EXPECT_FALSE(DecoderPreferences::instance()->isApproximateHardwareDecoding());
    for (const char* name : {"hw_mpeg2.m2v", "hw_mpeg4.m4v", "hw_mjpeg_odd.avi", "hw_h264_camera.h264"}) {
        SCOPED_TRACE(name);
        const HwClip clip = hwClip(name);
        ASSERT_FALSE(clip.images.empty());
        const bool exact = QString(name).contains("h264");
        for (bool approximate : {false, true}) {
            HardwareGuard::use(HardwareDecoding::Auto, true, approximate);
            const Answers a = decodeAll(clip.images);
            expectEachAnsweredOnce(clip.images, a);
            const DecodingPath path = a.paths.back();
            EXPECT_EQ(path.isHardware(), approximate || exact) << path.toString().toStdString();
            if (!path.isHardware())
                EXPECT_TRUE(path.reason.contains("setApproximateHardwareDecoding(true)")) << path.reason.toStdString();
        }
        // Required never decodes such a format in software.
        HardwareGuard::use(HardwareDecoding::Required, true, false);
        Decoder decoder;
        VideoFrame frame;
        if (!exact)
            EXPECT_EQ(decoder.decodeImage(clip.images.front(), frame), Decoder::ImageResult::Failed);
    }
}

TEST(HardwareSettings, RequiredWithoutDeviceFailsEveryImageWithTheReason)
{
    HardwareGuard guard;
    LogLines log;
    HardwareGuard::use(HardwareDecoding::Required, false);
    setHardwareFailureForTesting(HardwareFailurePoint::DeviceOpen, -1);
    const HwClip clip = hwClip("hw_h264_camera.h264");
    const Answers a = decodeAll(clip.images);
    EXPECT_TRUE(a.pictures.empty());
    EXPECT_EQ(a.errors.size(), clip.images.size());
    expectEachAnsweredOnce(clip.images, a);
    EXPECT_TRUE(a.firstFailure.contains("hardware decoding (cuda) required, but the cuda device did not open"))
        << a.firstFailure.toStdString();
    EXPECT_EQ(a.paths.back().engine, DecodingPath::Engine::None);
    EXPECT_EQ(log.count("hardware decoding (cuda) required"), 1);
}

TEST(HardwareSettings, RequiredRefusesFormatsWithoutEngine)
{
    HardwareGuard guard;
    HardwareGuard::use(HardwareDecoding::Required, true);
    Decoder decoder;
    VideoFrame frame;
    EXPECT_EQ(decoder.decodeImage(Image('y', rawYuv(16, 8, 1), 1, 0, true), frame), Decoder::ImageResult::Failed);
    EXPECT_TRUE(decoder.failureReason().contains("hardware decoding required")) << decoder.failureReason().toStdString();
    EXPECT_FALSE(decoder.init('x', 0));  // MxPEG: FFmpeg has no engine for it
}

// Every image of a pooled stream with Required and no device ends in one error naming the reason.
template <typename Handle>
void requiredFailsPooled()
{
    HardwareGuard guard;
    HardwareGuard::use(HardwareDecoding::Required, false);
    setHardwareFailureForTesting(HardwareFailurePoint::DeviceOpen, -1);
    const HwClip clip = hwClip("hw_h264_camera.h264");
    std::vector<quint64> errorIds;
    QStringList reasons;
    int frames = 0;
    {
        Handle decoder;
        QObject::connect(&decoder, &ConcurrentDecoder::error, [&](const DecoderError& e) {
            errorIds.push_back(e.imageId());
            reasons << e.reason();
        });
        QObject::connect(&decoder, &ConcurrentDecoder::frameDecoded, [&](const VideoFrame&) { ++frames; });
        for (const Image& image : clip.images)
            ASSERT_EQ(decoder.decode(image), 1);
        ASSERT_TRUE(waitUntil([&] { return errorIds.size() >= clip.images.size(); }));
        spin(20);
        EXPECT_EQ(decoder.decodingPath().engine, DecodingPath::Engine::None);
    }
    EXPECT_EQ(frames, 0);
    EXPECT_EQ(errorIds, idRange(1, clip.images.size()));
    for (const QString& reason : reasons)
        EXPECT_TRUE(reason.contains("hardware decoding (cuda) required")) << reason.toStdString();
}

TEST(HardwareSettings, RequiredFailsCleanlyOnThePooledPaths)
{
    requiredFailsPooled<ConcurrentDecoder>();
    requiredFailsPooled<OrderedConcurrentDecoder>();
}

}  // namespace
}  // namespace orvo::test
