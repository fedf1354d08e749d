// The hardware path without a GPU: the emulated engine decodes in software and sends every
// picture through the engine's download (NV12), the cropping of a hardware picture and the
// NV12-to-planar conversion. Its pictures must equal the software decode byte for byte, for
// every codec the engine takes, with cropping windows, odd sizes, B-frames, full-range JPEG
// and changes of resolution; the device is shared by its streams and released with the last.
#include "async/async_test_util.h"
#include "hardware/hardware_support.h"
#include "orvo/concurrent_decoder.h"

#include <memory>

namespace orvo::test {
namespace {

class EmulatedEngine : public testing::TestWithParam<QString> {
};

TEST_P(EmulatedEngine, PicturesEqualTheSoftwareDecode)
{
    HardwareGuard guard;
    HardwareGuard::use(HardwareDecoding::Auto, true);
    const HwClip clip = hwClip(GetParam());
    ASSERT_FALSE(clip.images.empty());
    const Answers soft = softwareDecode(clip.images);
    const Answers engine = decodeAll(clip.images);
    ASSERT_FALSE(soft.pictures.empty());
    EXPECT_EQ(engine.pictures.size(), soft.pictures.size());
    for (const auto& [id, picture] : soft.pictures) {
        const auto it = engine.pictures.find(id);
        ASSERT_NE(it, engine.pictures.end()) << "no picture for image " << id;
        EXPECT_EQ(maxDiff(it->second, picture), 0) << "image " << id;
        EXPECT_EQ(it->second.size(), picture.size()) << "image " << id;
    }
    EXPECT_EQ(engine.errors, soft.errors);
    expectEachAnsweredOnce(clip.images, engine);
    for (const DecodingPath& path : engine.paths) {
        EXPECT_TRUE(path.isHardware()) << path.toString().toStdString();
        EXPECT_EQ(path.deviceType, "cuda");
    }
    EXPECT_EQ(engine.paths.back().toString(), "hardware (cuda)");
}

INSTANTIATE_TEST_SUITE_P(Clips, EmulatedEngine, testing::ValuesIn(hwClipNames()),
                         [](const testing::TestParamInfo<QString>& info) {
                             return QString(info.param).replace('.', '_').toStdString();
                         });

TEST(EmulatedEngineCuts, OneNalUnitPerImageEqualsTheSoftwareDecode)
{
    HardwareGuard guard;
    HardwareGuard::use(HardwareDecoding::Auto, true);
    const HwClip clip = hwClip("hw_h264_crop.h264");
    std::vector<Image> nals;
    quint64 id = 1;
    for (const Image& au : clip.images)
        for (const QByteArray& nal : nalUnits(au.payload()))
            nals.emplace_back('h', nal, id++, 0, au.iframe());
    const Answers soft = softwareDecode(nals);
    const Answers engine = decodeAll(nals);
    ASSERT_EQ(soft.pictures.size(), clip.images.size());
    EXPECT_EQ(engine.pictures, soft.pictures);
    EXPECT_TRUE(engine.paths.back().isHardware());
}

TEST(HardwareDevice, SharedByItsStreamsAndReleasedWithTheLast)
{
    HardwareGuard guard;
    HardwareGuard::use(HardwareDecoding::Auto, true);
    const HwClip clip = hwClip("hw_h264_camera.h264");
    const int before = openHardwareDevicesForTesting();
    {
        std::vector<std::unique_ptr<Decoder>> decoders;
        for (int i = 0; i < 3; ++i) {
            decoders.push_back(std::make_unique<Decoder>());
            VideoFrame frame;
            ASSERT_EQ(decoders.back()->decodeImage(clip.images.at(0), frame), Decoder::ImageResult::Picture);
            EXPECT_TRUE(decoders.back()->decodingPath().isHardware());
        }
        EXPECT_EQ(hardwareDeviceUsersForTesting("cuda"), 3);
        EXPECT_EQ(openHardwareDevicesForTesting(), before + 1);
        decoders.pop_back();
        EXPECT_EQ(hardwareDeviceUsersForTesting("cuda"), 2);
        // A format switch gives the device back too.
        VideoFrame frame;
        decoders.back()->decodeImage(Image('y', rawYuv(16, 8, 1), 99, 0, true), frame);
        EXPECT_EQ(hardwareDeviceUsersForTesting("cuda"), 1);
    }
    EXPECT_EQ(hardwareDeviceUsersForTesting("cuda"), 0);
    EXPECT_EQ(openHardwareDevicesForTesting(), before);
}

TEST(HardwareDevice, PooledDecodersShareAndReleaseTheDevice)
{
    HardwareGuard guard;
    HardwareGuard::use(HardwareDecoding::Auto, true);
    const HwClip clip = hwClip("hw_h264_camera.h264");
    const int before = openHardwareDevicesForTesting();
    {
        std::vector<std::unique_ptr<ConcurrentDecoder>> decoders;
        std::vector<int> frames(8, 0);
        for (size_t i = 0; i < frames.size(); ++i) {
            decoders.push_back(std::make_unique<ConcurrentDecoder>());
            QObject::connect(decoders.back().get(), &ConcurrentDecoder::frameDecoded,
                             [&frames, i](const VideoFrame&) { ++frames[i]; });
            for (const Image& image : clip.images)
                decoders.back()->decode(image);
        }
        ASSERT_TRUE(waitUntil([&] {
            return std::all_of(frames.begin(), frames.end(), [&](int n) { return n == int(clip.images.size()); });
        }));
        for (const auto& d : decoders)
            EXPECT_TRUE(d->decodingPath().isHardware()) << d->decodingPath().toString().toStdString();
        EXPECT_EQ(hardwareDeviceUsersForTesting("cuda"), long(decoders.size()));
    }
    EXPECT_TRUE(poolGoesIdle());
    EXPECT_EQ(hardwareDeviceUsersForTesting("cuda"), 0);
    EXPECT_EQ(openHardwareDevicesForTesting(), before);
}

}  // namespace
}  // namespace orvo::test
