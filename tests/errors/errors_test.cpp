// Failures of a client's first hour answer with their cause: length-prefixed H.264/H.265
// (decoded after conversion, or refused with a reason that names both forms), an unknown
// container name, a picture size the codec refuses, and a pooled decoder whose owner thread
// runs no event loop.
#include "async/async_test_util.h"
#include "orvo/concurrent_decoder.h"
#include "orvo/decoder.h"
#include "orvo/encoder.h"
#include "orvo/log.h"

#include <QFile>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>

using namespace orvo;
using namespace orvo::test;

namespace {

// Every line the library writes, while alive.
class SinkCapture {
public:
    SinkCapture()
    {
        LogManager::instance().setSink([this](const LogItem& item) {
            const std::lock_guard<std::mutex> lock(mutex_);
            lines_.append(item.message);
        });
    }
    ~SinkCapture() { LogManager::instance().setSink({}); }
    int count(const QString& text) const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return int(std::count_if(lines_.begin(), lines_.end(), [&](const QString& l) { return l.contains(text); }));
    }

private:
    mutable std::mutex mutex_;
    QStringList lines_;
};

// An Annex B access unit with each start code replaced by the NAL unit's size in 4 bytes,
// big-endian, as MP4 samples and many camera SDKs carry NAL units.
QByteArray lengthPrefixed(const QByteArray& annexB)
{
    QByteArray out;
    for (QByteArray nal : nalUnits(annexB)) {
        nal.remove(0, nal.indexOf('\x01') + 1);
        const quint32 n = quint32(nal.size());
        out.append(char(n >> 24)).append(char(n >> 16)).append(char(n >> 8)).append(char(n));
        out.append(nal);
    }
    return out;
}

// One image per NAL unit, each with its 4-byte length.
std::vector<QByteArray> lengthPrefixedNalUnits(const QByteArray& annexB)
{
    std::vector<QByteArray> out;
    for (const QByteArray& nal : nalUnits(annexB))
        out.push_back(lengthPrefixed(nal));
    return out;
}

// Small pictures at a low rate: many NAL units of 256 to 511 bytes, whose lengths are
// written 00 00 01 xx and so also read as start codes.
const ClipSpec kLengthClips[] = {
    {"errors_h264.mp4", 'h', "-c:v libx264 -bf 0 -g 10 -b:v 100k"},
    {"errors_hevc.mp4", 'e', "-c:v libx265 -x265-params log-level=error:bframes=0:keyint=10 -b:v 100k"},
};

TEST(Errors, LengthPrefixedNalUnitsAreConvertedToStartCodes)
{
    for (const ClipSpec& clip : kLengthClips) {
        SCOPED_TRACE(clip.name);
        const QString path =
            ffmpegFile(QString::fromLatin1(clip.name),
                       QStringLiteral("-f lavfi -i testsrc2=size=176x144:rate=25 -frames:v 20 ") + clip.encode);
        const std::vector<QByteArray> reference = ffmpegFrames(path, 176, 144);
        ASSERT_EQ(reference.size(), 20u);
        const std::vector<Packet> units = demuxVideo(path);
        ASSERT_EQ(units.size(), 20u);
        for (bool perNalUnit : {false, true}) {
            SCOPED_TRACE(perNalUnit ? "one NAL unit per image" : "one access unit per image");
            std::vector<Image> images;
            int lookLikeStartCodes = 0;
            for (const Packet& unit : units) {
                const std::vector<QByteArray> payloads =
                    perNalUnit ? lengthPrefixedNalUnits(unit.data) : std::vector<QByteArray>{lengthPrefixed(unit.data)};
                for (const QByteArray& payload : payloads) {
                    lookLikeStartCodes += payload.contains(QByteArray("\0\0\1", 3)) ? 1 : 0;
                    images.emplace_back(clip.code, payload, images.size() + 1, 0, unit.key);
                }
            }
            EXPECT_GT(lookLikeStartCodes, 5) << "the clip should hold lengths that read as start codes";
            std::vector<quint64> failed;
            const std::vector<VideoFrame> frames = decodeImages(images, &failed);
            EXPECT_TRUE(failed.empty());
            ASSERT_EQ(frames.size(), reference.size());
            for (size_t k = 0; k < frames.size(); ++k)
                EXPECT_EQ(maxDiffYuv420p(frames[k], reference[k], 176, 144), 0) << k;
        }
    }
}

TEST(Errors, APayloadOfNeitherFormIsRefusedWithBothNamed)
{
    for (quint8 code : {'h', 'e'}) {
        Decoder decoder;
        VideoFrame frame;
        // No start code, and lengths that run past the end.
        QByteArray junk(600, '\x11');
        EXPECT_EQ(decoder.decodeImage(Image(code, junk, 1, 0, true), frame), Decoder::ImageResult::Failed);
        const QString reason = decoder.failureReason();
        EXPECT_TRUE(reason.contains(QLatin1String("no start code")) && reason.contains(QLatin1String("4-byte")))
            << reason.toStdString();
    }
}

// --- encoder ----------------------------------------------------------------------------------

bool openEncoder(Encoder& encoder, const QString& path, const char* container, int width, int height,
                 EncoderError& error)
{
    return encoder.open(1, path.toStdString(), container, AV_CODEC_ID_H264, width, height, 1, 1, 400000, 0, 25, 1,
                        12, 0, 0, 0, 0, nullptr, error);
}

TEST(Errors, AnUnknownContainerNameFailsOpenWithTheName)
{
    SinkCapture lines;  // keeps the encoder's lines out of the test's output
    const QString path = dataDir() + QStringLiteral("/errors_container.mp4");
    QFile::remove(path);
    Encoder encoder(1);
    EncoderError error;
    EXPECT_FALSE(openEncoder(encoder, path, "foo", 64, 48, error));
    EXPECT_EQ(error.errorId(), EncoderError::NoSuitableOutputFormat);
    EXPECT_NE(error.additionalInfo().find("\"foo\""), std::string::npos) << error.additionalInfo();
    EXPECT_FALSE(QFile::exists(path)) << "nothing written under a guessed container";
    // The same output under a name FFmpeg knows.
    EXPECT_TRUE(openEncoder(encoder, path, "mp4", 64, 48, error)) << error.additionalInfo();
    encoder.close();
}

TEST(Errors, ASizeTheCodecRefusesIsNamedWithTheRule)
{
    SinkCapture lines;
    const QString path = dataDir() + QStringLiteral("/errors_size.mp4");
    Encoder encoder(1);
    EncoderError error;
    EXPECT_FALSE(openEncoder(encoder, path, "mp4", 641, 361, error));
    EXPECT_EQ(error.errorId(), EncoderError::CouldNotOpenCodecs);
    EXPECT_EQ(error.toString(), "Neither video nor audio could be opened.");
    const std::string info = error.additionalInfo();
    EXPECT_NE(info.find("641x361"), std::string::npos) << info;
    EXPECT_NE(info.find("even width and height"), std::string::npos) << info;
    EXPECT_EQ(lines.count(QStringLiteral("641x361")), 1) << "the reason is logged once";
    // One pixel less each way is served.
    EXPECT_TRUE(openEncoder(encoder, path, "mp4", 640, 360, error)) << error.additionalInfo();
    encoder.close();
}

// --- a pooled decoder on a thread that runs no event loop -------------------------------------

TEST(Errors, ResultsThatWaitForAnOwnerWithoutEventLoopGiveOneWarning)
{
    SinkCapture lines;
    const QString warning = QStringLiteral("runs no Qt event loop");
    ConcurrentDecoder decoder;
    Recorder rec;
    rec.attach(&decoder);
    // An owner that runs its event loop hears nothing of it.
    ASSERT_EQ(decoder.decode(Image('y', rawYuv(16, 16, 1), 1)), 1);
    ASSERT_TRUE(waitUntil([&] { return rec.frames.size() == 1; }));

    // Now the owner keeps decoding without returning to its event loop.
    ASSERT_EQ(decoder.decode(Image('y', rawYuv(16, 16, 2), 2)), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(2300));
    ASSERT_EQ(decoder.decode(Image('y', rawYuv(16, 16, 3), 3)), 1);
    EXPECT_EQ(lines.count(warning), 1);
    ASSERT_EQ(decoder.decode(Image('y', rawYuv(16, 16, 4), 4)), 1);
    ASSERT_TRUE(waitUntil([&] { return rec.frames.size() == 4; }));
    EXPECT_EQ(rec.ids(), idRange(1, 4)) << "the results still arrive, in order";
    EXPECT_EQ(lines.count(warning), 1) << "one warning per decoder";
    EXPECT_TRUE(poolGoesIdle());
}

}  // namespace
