// On a machine whose GPU has a video engine FFmpeg can use (the default device type, cuda):
// every clip and cut decoded with hardware decoding on equals the ffmpeg command line's decode
// byte for byte, on the synchronous and the pooled paths (H.264 and H.265 on the engine, the
// DCT formats in software by default); the DCT formats allowed on the engine come within the
// rounding of the inverse DCT of software's pictures; a stream forced off the engine mid-stream
// loses no image; 64 pooled streams with damaged images lose none, and device memory comes
// back after decoders are created and destroyed. Each test skips, with the reason, where no
// device opens. tests/gpu/run_gpu.sh makes the data here (ORVO_GPU_PREPARE) and runs the
// suite where the GPU is.
#include "async/async_test_util.h"
#include "hardware/hardware_support.h"
#include "orvo/concurrent_decoder.h"

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <dlfcn.h>

namespace orvo::test {
namespace {

// ORVO_GPU_EMULATE=1 runs the suite over the emulated engine: a dry run of the suite itself
// on a machine without a GPU.
bool emulate() { return !qEnvironmentVariableIsEmpty("ORVO_GPU_EMULATE"); }

// Why hardware decoding cannot be tested here; empty where the engine decodes.
QString noEngineReason()
{
    static const QString reason = [] {
        HardwareGuard guard;
        HardwareGuard::use(HardwareDecoding::Auto, emulate());
        const HwClip clip = hwClip("hw_h264_camera.h264");
        if (clip.images.empty())
            return QStringLiteral("no test clip");
        Decoder decoder;
        VideoFrame frame;
        decoder.decodeImage(clip.images.front(), frame);
        const DecodingPath path = decoder.decodingPath();
        return path.isHardware() ? QString() : QStringLiteral("no GPU device: ") + path.reason;
    }();
    return reason;
}

#define ORVO_NEED_ENGINE()                                          \
    do {                                                            \
        if (!noEngineReason().isEmpty())                            \
            GTEST_SKIP() << noEngineReason().toStdString();         \
    } while (0)

QString md5(const QByteArray& bytes) { return QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex(); }

// The clips whose reference is the command line's decode (Motion JPEG's full range is
// converted differently there: it is compared with the software decode instead).
bool hasCommandLineReference(const QString& name) { return !name.contains("mjpeg"); }

QString referencePath(const QString& name) { return dataDir() + "/" + name + ".md5"; }

// The command line's pictures of a clip (one md5 per picture, in output order): read from
// the data made by the preparation, else made now with ffmpeg.
QStringList commandLineReference(const QString& name)
{
    QFile file(referencePath(name));
    if (file.open(QIODevice::ReadOnly))
        return QString::fromLatin1(file.readAll()).split('\n', Qt::SkipEmptyParts);
    QStringList sums;
    const QStringList parts = name == "hw_h264_resize"
                                  ? QStringList{"hw_h264_camera.h264", "hw_h264_large.h264", "hw_h264_camera.h264"}
                                  : QStringList{name};
    for (const QString& part : parts) {
        const HwClip clip = hwClip(part);
        const Answers soft = softwareDecode(clip.images);  // for the size only
        VideoFrame probe;
        Decoder sizer;
        for (const Image& image : clip.images)
            if (sizer.decodeImage(image, probe) == Decoder::ImageResult::Picture)
                break;
        if (probe.isNull())
            return {};
        const std::vector<QByteArray> frames =
            ffmpegFrames(dataDir() + "/" + part, probe.width(), probe.height(), "yuv420p", QString(), "-threads 1");
        EXPECT_EQ(soft.inOrder.size(), frames.size()) << part.toStdString();
        for (const QByteArray& frame : frames)
            sums << md5(frame);
    }
    if (file.open(QIODevice::WriteOnly))
        file.write(sums.join('\n').toLatin1() + '\n');
    return sums;
}

TEST(HardwareGpuData, Prepare)
{
    if (qEnvironmentVariableIsEmpty("ORVO_GPU_PREPARE"))
        GTEST_SKIP() << "makes the data of the GPU suite (ORVO_GPU_PREPARE=1 ORVO_TEST_DATA=dir)";
    for (const QString& name : hwClipNames(true)) {
        const HwClip clip = hwClip(name);
        EXPECT_FALSE(clip.images.empty()) << name.toStdString();
        if (hasCommandLineReference(name))
            EXPECT_FALSE(commandLineReference(name).isEmpty()) << name.toStdString();
    }
}

enum class Cut { AccessUnits, NalUnits, MarkedNalUnits };

std::vector<Image> cut(const HwClip& clip, Cut how)
{
    if (how == Cut::AccessUnits || (clip.code != 'h' && clip.code != 'e'))
        return clip.images;
    std::vector<Image> out;
    quint64 id = 1;
    for (const Image& au : clip.images) {
        const std::vector<QByteArray> nals = nalUnits(au.payload());
        for (size_t i = 0; i < nals.size(); ++i) {
            out.emplace_back(clip.code, nals[i], id++, 0, au.iframe());
            if (how == Cut::MarkedNalUnits && i + 1 == nals.size())
                out.back().setAccessUnitEnd(true);
        }
    }
    return out;
}

// The pictures of `images` through a pooled decoder, in the order they were emitted.
std::vector<QByteArray> pooledDecode(const std::vector<Image>& images, DecodingPath* path)
{
    std::vector<QByteArray> pictures;
    ConcurrentDecoder decoder;
    QObject::connect(&decoder, &ConcurrentDecoder::frameDecoded,
                     [&](const VideoFrame& f) { pictures.push_back(packYuv420p(f)); });
    for (const Image& image : images)
        decoder.decode(image);
    decoder.drain();
    // The drain's pictures come after every image's: wait for the pool to go quiet.
    EXPECT_TRUE(waitUntil([&] { return !decoder.isBusy(); }));
    EXPECT_TRUE(poolGoesIdle());
    *path = decoder.decodingPath();
    return pictures;
}

TEST(HardwareGpu, EveryClipAndCutEqualsTheCommandLineDecode)
{
    ORVO_NEED_ENGINE();
    HardwareGuard guard;
    for (const QString& name : hwClipNames(true)) {
        const HwClip clip = hwClip(name);
        ASSERT_FALSE(clip.images.empty()) << name.toStdString();
        QStringList reference;
        if (hasCommandLineReference(name)) {
            reference = commandLineReference(name);
        } else {
            for (const QByteArray& picture : softwareDecode(clip.images).inOrder)
                reference << md5(picture);
        }
        ASSERT_FALSE(reference.isEmpty()) << name.toStdString();
        for (Cut how : {Cut::AccessUnits, Cut::NalUnits, Cut::MarkedNalUnits}) {
            SCOPED_TRACE(name.toStdString() + " cut " + std::to_string(int(how)));
            const std::vector<Image> images = cut(clip, how);
            HardwareGuard::use(HardwareDecoding::Auto, emulate(), false);
            const Answers got = decodeAll(images);
            if (how == Cut::AccessUnits) {
                expectEachAnsweredOnce(images, got);
            } else {
                // Parameter sets and SEI are answered with their access unit; none twice.
                for (const auto& [id, count] : got.answerCount)
                    EXPECT_EQ(count, 1) << "image " << id;
            }
            QStringList sums;
            for (const QByteArray& picture : got.inOrder)
                sums << md5(picture);
            EXPECT_EQ(sums, reference);
            // H.264 and H.265 must be on the engine; the rest say where they went.
            if (clip.code == 'h' || clip.code == 'e')
                EXPECT_TRUE(got.paths.back().isHardware()) << got.paths.back().toString().toStdString();
            else
                std::printf("%s: %s\n", qPrintable(name), qPrintable(got.paths.back().toString()));
            DecodingPath pooledPath;
            QStringList pooledSums;
            for (const QByteArray& picture : pooledDecode(images, &pooledPath))
                pooledSums << md5(picture);
            EXPECT_EQ(pooledSums, reference);
            EXPECT_EQ(pooledPath.engine, got.paths.back().engine);
            if (how == Cut::AccessUnits && clip.code != 'h' && clip.code != 'e')
                break;
        }
    }
}

TEST(HardwareGpu, PicturesReducedOnTheEngineComeCloseToTheSoftwareFit)
{
    ORVO_NEED_ENGINE();
    HardwareGuard guard;
    const QSize tile(480, 270);
    for (const char* name : {"hw_h264_1080p.h264", "hw_hevc_1080p.hevc"}) {
        SCOPED_TRACE(name);
        const HwClip clip = hwClip(name);
        ASSERT_FALSE(clip.images.empty());
        const Answers soft = softwareDecode(clip.images, tile);
        // The same filter graph over pictures in memory: the engine's scaler must agree with it.
        HardwareGuard::use(HardwareDecoding::Auto, true);
        const Answers emulated = decodeAll(clip.images, {}, tile);
        HardwareGuard::use(HardwareDecoding::Auto, emulate());
        const long before = hardwareReducedPicturesForTesting();
        const Answers got = decodeAll(clip.images, {}, tile);
        EXPECT_EQ(hardwareReducedPicturesForTesting() - before, long(got.pictures.size()));
        EXPECT_TRUE(got.paths.back().isHardware()) << got.paths.back().toString().toStdString();
        expectEachAnsweredOnce(clip.images, got);
        ASSERT_EQ(got.pictures.size(), soft.pictures.size());
        double worstSoft = 99, worstEmulated = 99;
        for (const auto& [id, picture] : soft.pictures) {
            ASSERT_EQ(got.sizes.at(id), tile) << "image " << id;
            worstSoft = std::min(worstSoft, psnr(got.pictures.at(id), picture));
            worstEmulated = std::min(worstEmulated, psnr(got.pictures.at(id), emulated.pictures.at(id)));
        }
        std::printf("%s in %dx%d: %s, worst picture %.1f dB against the software fit, %.1f dB against the same "
                    "filter graph in memory\n",
                    name, tile.width(), tile.height(), qPrintable(got.paths.back().toString()), worstSoft,
                    worstEmulated);
        std::fflush(stdout);
        // Rounding and sampling positions differ a little; a picture put together wrongly
        // (planes, strides, a chroma offset) falls far below.
        EXPECT_GE(worstEmulated, 35.0);
        EXPECT_GE(worstSoft, 30.0);
    }
}

TEST(HardwareGpu, DctFormatsAllowedOnTheEngineComeCloseToSoftware)
{
    ORVO_NEED_ENGINE();
    HardwareGuard guard;
    for (const char* name : {"hw_mpeg2.m2v", "hw_mpeg4.m4v", "hw_mjpeg_odd.avi"}) {
        SCOPED_TRACE(name);
        const HwClip clip = hwClip(name);
        ASSERT_FALSE(clip.images.empty());
        const Answers soft = softwareDecode(clip.images);
        HardwareGuard::use(HardwareDecoding::Auto, emulate(), true);
        const Answers got = decodeAll(clip.images);
        expectEachAnsweredOnce(clip.images, got);
        ASSERT_EQ(got.pictures.size(), soft.pictures.size());
        double worst = 99;
        int largest = 0;
        for (const auto& [id, picture] : soft.pictures) {
            const QByteArray& engine = got.pictures.at(id);
            ASSERT_EQ(engine.size(), picture.size()) << "image " << id;
            worst = std::min(worst, psnr(engine, picture));
            largest = std::max(largest, maxDiff(engine, picture));
        }
        std::printf("%s: %s, worst picture %.1f dB against software, largest sample difference %d\n", name,
                    qPrintable(got.paths.back().toString()), worst, largest);
        std::fflush(stdout);
        // Rounding of the transform, carried along the predictions: small. A picture put
        // together wrongly (planes, cropping, range) falls far below.
        EXPECT_GE(worst, 35.0);
    }
}

TEST(HardwareGpu, MidStreamFailuresSwitchToSoftwareLosingNothing)
{
    ORVO_NEED_ENGINE();
    HardwareGuard guard;
    HardwareGuard::use(HardwareDecoding::Auto, emulate());
    const HwClip clip = hwClip("hw_h264_camera.h264");
    const Answers soft = softwareDecode(clip.images);
    const Answers got = decodeAll(clip.images, [](size_t i) {
        if (i == 12)
            setHardwareFailureForTesting(HardwareFailurePoint::MidStream, 5);
    });
    expectEachAnsweredOnce(clip.images, got);
    for (const auto& [id, picture] : soft.pictures)
        if (id < 13 || id >= 21)
            EXPECT_EQ(got.pictures.count(id) ? got.pictures.at(id) : QByteArray(), picture) << "image " << id;
    EXPECT_TRUE(got.paths.at(11).isHardware());
    EXPECT_FALSE(got.paths.back().isHardware());
    EXPECT_EQ(hardwareDeviceUsersForTesting("cuda"), 0);
}

// Device memory in use, from the driver (CUDA only: the test's device type).
qint64 deviceMemoryUsed()
{
    using Init = int (*)(unsigned);
    using DeviceGet = int (*)(int*, int);
    using Retain = int (*)(void**, int);
    using Push = int (*)(void*);
    using Pop = int (*)(void**);
    using MemInfo = int (*)(size_t*, size_t*);
    static void* lib = dlopen("libcuda.so.1", RTLD_NOW);
    if (!lib)
        return -1;
    auto init = reinterpret_cast<Init>(dlsym(lib, "cuInit"));
    auto get = reinterpret_cast<DeviceGet>(dlsym(lib, "cuDeviceGet"));
    auto retain = reinterpret_cast<Retain>(dlsym(lib, "cuDevicePrimaryCtxRetain"));
    auto push = reinterpret_cast<Push>(dlsym(lib, "cuCtxPushCurrent_v2"));
    auto pop = reinterpret_cast<Pop>(dlsym(lib, "cuCtxPopCurrent_v2"));
    auto info = reinterpret_cast<MemInfo>(dlsym(lib, "cuMemGetInfo_v2"));
    int device = 0;
    void* context = nullptr;
    if (!init || !get || !retain || !push || !pop || !info || init(0) || get(&device, 0) || retain(&context, device) ||
        push(context))
        return -1;
    size_t free = 0, total = 0;
    const int ret = info(&free, &total);
    pop(&context);
    return ret ? -1 : qint64(total - free);
}

// One damaged image in seven: bytes of the slice data overwritten (the header kept).
Image damaged(const Image& image, quint64 id)
{
    QByteArray payload = image.payload();
    for (int i = payload.size() / 2; i < payload.size() && i < payload.size() / 2 + 24; ++i)
        payload[i] = char(payload[i] ^ 0x5a);
    return Image(image.type(), payload, id, 0, image.iframe());
}

TEST(HardwareGpu, SixtyFourPooledStreamsWithDamageLoseNoImageAndGiveMemoryBack)
{
    ORVO_NEED_ENGINE();
    HardwareGuard guard;
    HardwareGuard::use(HardwareDecoding::Auto, emulate());
    const HwClip clip = hwClip("hw_h264_large.h264");
    const HwClip big = hwClip("hw_h264_1080p.h264");
    ASSERT_FALSE(clip.images.empty());
    constexpr int kStreams = 64;
    const int seconds = qEnvironmentVariableIsSet("ORVO_GPU_SOAK_SECONDS")
                            ? qEnvironmentVariableIntValue("ORVO_GPU_SOAK_SECONDS")
                            : 20;

    // Device memory per 1080p stream on the engine, for the README's figure.
    const qint64 idle = deviceMemoryUsed();
    if (idle >= 0 && !big.images.empty()) {
        std::vector<std::unique_ptr<Decoder>> decoders;
        for (int i = 0; i < 16; ++i) {
            decoders.push_back(std::make_unique<Decoder>());
            Answers a;
            decodeAll(*decoders.back(), {big.images.begin(), big.images.begin() + 3}, a, {}, false);
        }
        std::printf("device memory per 1080p H.264 stream on the engine: %.1f MiB (16 streams)\n",
                    double(deviceMemoryUsed() - idle) / 16 / (1 << 20));
        std::fflush(stdout);
    }

    std::map<quint64, int> answers;
    quint64 sent = 0;
    {
        std::vector<std::unique_ptr<ConcurrentDecoder>> decoders;
        for (int s = 0; s < kStreams; ++s) {
            decoders.push_back(std::make_unique<ConcurrentDecoder>());
            QObject::connect(decoders.back().get(), &ConcurrentDecoder::frameDecoded,
                             [&](const VideoFrame& f) { ++answers[f.id()]; });
            QObject::connect(decoders.back().get(), &ConcurrentDecoder::error,
                             [&](const DecoderError& e) { ++answers[e.imageId()]; });
        }
        QElapsedTimer clock;
        clock.start();
        for (size_t round = 0; clock.elapsed() < seconds * 1000; ++round) {
            const size_t i = round % clip.images.size();
            for (auto& decoder : decoders) {
                const quint64 id = ++sent;  // ids unique over all streams
                const Image& image = clip.images[i];
                decoder->decode(i % 7 == 3 ? damaged(image, id) : Image(image.type(), image.payload(), id, 0, image.iframe()));
            }
            // About real time for each camera, with the backlog kept small.
            waitUntil([&] { return sent - answers.size() < quint64(kStreams) * 4; }, 2000);
        }
        for (auto& decoder : decoders)
            decoder->drain();
        EXPECT_TRUE(waitUntil([&] { return answers.size() >= sent; }, 60000));
        spin(50);
        int onEngine = 0;
        for (auto& decoder : decoders)
            onEngine += decoder->decodingPath().isHardware() ? 1 : 0;
        std::printf("%d of %d streams on the engine after %d s, %llu images\n", onEngine, kStreams, seconds,
                    static_cast<unsigned long long>(sent));
        std::fflush(stdout);
    }
    ASSERT_TRUE(poolGoesIdle());
    EXPECT_EQ(answers.size(), size_t(sent));
    for (const auto& [id, count] : answers)
        ASSERT_EQ(count, 1) << "image " << id;

    // Created and destroyed again and again: device memory back where it was. Each engine
    // decoder costs the driver tens of milliseconds to set up: 10 rounds of 64 (a leak of one
    // surface per decoder would show as hundreds of MiB).
    const qint64 before = deviceMemoryUsed();
    constexpr int kCycles = 10;
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        std::vector<std::unique_ptr<Decoder>> decoders;
        for (int s = 0; s < kStreams; ++s) {
            decoders.push_back(std::make_unique<Decoder>());
            VideoFrame frame;
            decoders.back()->decodeImage(clip.images.front(), frame);
        }
    }
    EXPECT_EQ(openHardwareDevicesForTesting(), 0);
    const qint64 after = deviceMemoryUsed();
    if (before < 0)
        GTEST_SKIP() << "device memory not readable (libcuda): the rest held";
    std::printf("device memory before %lld MiB, after %d x 64 decoders %lld MiB\n",
                static_cast<long long>(before >> 20), kCycles, static_cast<long long>(after >> 20));
    EXPECT_LE(after - before, qint64(16) << 20);
}

}  // namespace
}  // namespace orvo::test
