// Pictures reduced on the engine before their download, for a client's largest output size
// (over the emulated engine here, whose filter graph is the one a GPU runs with its own
// scaling filter): each picture has the size the software fit gives it, keeps its image's
// identity and comes close to the software fit; pictures cut at their left or top, and odd
// target sizes, are fitted in software exactly as without the engine; clearing the size
// brings full pictures back byte for byte; the pooled decoders reduce the same way.
#include "async/async_test_util.h"
#include "hardware/hardware_support.h"
#include "orvo/concurrent_decoder.h"

namespace orvo::test {
namespace {

// Compares a run over the emulated engine with the software fit of the same images;
// returns the worst picture's PSNR.
double compareWithSoftwareFit(const Answers& engine, const Answers& soft, const std::vector<Image>& images)
{
    expectEachAnsweredOnce(images, engine);
    EXPECT_EQ(engine.pictures.size(), soft.pictures.size());
    double worst = 99;
    for (const auto& [id, picture] : soft.pictures) {
        const auto it = engine.pictures.find(id);
        if (it == engine.pictures.end()) {
            ADD_FAILURE() << "no picture for image " << id;
            continue;
        }
        EXPECT_EQ(engine.sizes.at(id), soft.sizes.at(id)) << "image " << id;
        worst = std::min(worst, psnr(it->second, picture));
    }
    return worst;
}

TEST(EngineScaling, ReducesBeforeTheDownloadToTheSoftwareFitsSize)
{
    HardwareGuard guard;
    struct Case {
        const char* clip;
        QSize bound;
        bool onEngine;   // reduced by the engine's filter graph
        double minPsnr;  // against the software fit (99: byte-equal)
    };
    const Case cases[] = {
        {"hw_h264_large.h264", {160, 120}, true, 40},   // 320x240: one exact halving
        {"hw_h264_large.h264", {120, 200}, true, 30},   // a halving, then 160x120 to 120x90
        {"hw_hevc_crop152.hevc", {66, 50}, true, 30},   // 198x150, cut at its right and bottom
        {"hw_h264_large.h264", {100, 100}, false, 99},  // 100x75: odd, fitted in software
        {"hw_h264_window.h264", {100, 60}, false, 99},  // cut at its left and top: in software
        {"hw_h264_large.h264", {640, 480}, false, 99},  // fits already
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.clip) + " in " + std::to_string(c.bound.width()) + "x" +
                     std::to_string(c.bound.height()));
        const HwClip clip = hwClip(c.clip);
        ASSERT_FALSE(clip.images.empty());
        const Answers soft = softwareDecode(clip.images, c.bound);
        HardwareGuard::use(HardwareDecoding::Auto, true);
        const long before = hardwareReducedPicturesForTesting();
        const Answers engine = decodeAll(clip.images, {}, c.bound);
        const long reduced = hardwareReducedPicturesForTesting() - before;
        EXPECT_EQ(reduced, c.onEngine ? long(engine.pictures.size()) : 0);
        EXPECT_TRUE(engine.paths.back().isHardware());
        const QSize size = soft.sizes.begin()->second;
        EXPECT_TRUE(size.width() <= c.bound.width() && size.height() <= c.bound.height());
        const double worst = compareWithSoftwareFit(engine, soft, clip.images);
        if (c.minPsnr >= 99)
            EXPECT_EQ(engine.pictures, soft.pictures);
        else
            EXPECT_GE(worst, c.minPsnr);
        std::printf("%s in %dx%d: %dx%d, %ld reduced on the engine, worst %.1f dB against the software fit\n", c.clip,
                    c.bound.width(), c.bound.height(), size.width(), size.height(), reduced, worst);
    }
}

TEST(EngineScaling, ClearedOrChangedMidStreamAndPooled)
{
    HardwareGuard guard;
    const HwClip clip = hwClip("hw_h264_large.h264");
    ASSERT_GE(clip.images.size(), 12u);
    const Answers full = softwareDecode(clip.images);
    HardwareGuard::use(HardwareDecoding::Auto, true);
    // Small for the first third, 80x60 for the second, full size after.
    Decoder decoder;
    Answers a;
    decodeAll(decoder, clip.images, a, [&](size_t i) {
        if (i == 0)
            decoder.setMaxOutputSize({160, 120});
        else if (i == 6)
            decoder.setMaxOutputSize({80, 60});
        else if (i == 12)
            decoder.setMaxOutputSize({});
    });
    expectEachAnsweredOnce(clip.images, a);
    for (const Image& image : clip.images) {
        const quint64 id = image.id();
        const QSize expected = id <= 6 ? QSize(160, 120) : id <= 12 ? QSize(80, 60) : QSize(320, 240);
        EXPECT_EQ(a.sizes.at(id), expected) << "image " << id;
        if (id > 12)
            EXPECT_EQ(a.pictures.at(id), full.pictures.at(id)) << "image " << id;
    }

    // Pooled: the handle's setting reaches the engine.
    const long before = hardwareReducedPicturesForTesting();
    std::vector<QSize> sizes;
    {
        ConcurrentDecoder pooled;
        pooled.setMaxOutputSize({160, 120});
        QObject::connect(&pooled, &ConcurrentDecoder::frameDecoded,
                         [&](const VideoFrame& f) { sizes.emplace_back(f.width(), f.height()); });
        for (const Image& image : clip.images)
            pooled.decode(image);
        ASSERT_TRUE(waitUntil([&] { return sizes.size() == clip.images.size(); }));
        EXPECT_TRUE(pooled.decodingPath().isHardware());
    }
    EXPECT_TRUE(poolGoesIdle());
    EXPECT_EQ(hardwareReducedPicturesForTesting() - before, long(clip.images.size()));
    for (const QSize& s : sizes)
        EXPECT_EQ(s, QSize(160, 120));
}

TEST(EngineScaling, AFailingFilterFallsBackToTheSoftwareFitSayingWhy)
{
    HardwareGuard guard;
    const HwClip clip = hwClip("hw_h264_large.h264");
    ASSERT_FALSE(clip.images.empty());
    const QSize bound(160, 120);
    const Answers soft = softwareDecode(clip.images, bound);
    HardwareGuard::use(HardwareDecoding::Auto, true);
    LogLines log;
    setHardwareFailureForTesting(HardwareFailurePoint::Scaling, 1);
    const long before = hardwareReducedPicturesForTesting();
    const Answers engine = decodeAll(clip.images, {}, bound);
    // The stream stays on the engine; its pictures are fitted in software from the first on,
    // byte for byte as without the engine.
    EXPECT_EQ(hardwareReducedPicturesForTesting() - before, 0);
    EXPECT_TRUE(engine.paths.back().isHardware());
    expectEachAnsweredOnce(clip.images, engine);
    EXPECT_EQ(engine.pictures, soft.pictures);
    EXPECT_EQ(log.count("downloaded in full and fitted in software: its scaling filter failed"), 1)
        << log.lines().join('\n').toStdString();
}

}  // namespace
}  // namespace orvo::test
