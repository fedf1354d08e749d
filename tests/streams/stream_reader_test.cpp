// orvo::StreamReader on containers and raw elementary streams, from files and memory,
// and hostile images that must not stall a decoder.
#include "async/async_test_util.h"
#include "common/test_streams.h"
#include "orvo/concurrent_decoder.h"
#include "orvo/decoder.h"
#include "orvo/stream_reader.h"

#include <QFile>
#include <gtest/gtest.h>

#include <random>

using namespace orvo;
using namespace orvo::test;

namespace {

#define SRC "-f lavfi -i testsrc2=size=208x120:rate=25 -frames:v 12 -pix_fmt yuv420p "

struct ReaderCase {
    const char* file;
    const char* encode;
    quint8 code;
    const char* rawFormat;  // demuxer name for the in-memory run; null for containers
    const char* referenceArgs;
};

const ReaderCase kReaderCases[] = {
    {"reader_h264_b.mp4", SRC "-c:v libx264 -bf 2 -g 6", 'h', nullptr, ""},
    {"reader_hevc.mkv", SRC "-c:v libx265 -x265-params log-level=error:bframes=2:keyint=6", 'e', nullptr, ""},
    {"reader_h264.h264", SRC "-c:v libx264 -bf 2 -g 6 -f h264", 'h', "h264", ""},
    {"reader_hevc.hevc", SRC "-c:v libx265 -x265-params log-level=error:bframes=0:keyint=6 -f hevc", 'e', "hevc", ""},
    {"reader_mpeg2.m2v", SRC "-c:v mpeg2video -bf 2 -g 6 -q:v 3 -f mpeg2video", 'M', "mpegvideo", ""},
    {"reader_mpeg4.m4v", SRC "-c:v mpeg4 -bf 1 -g 6 -q:v 3 -f m4v", 'm', "m4v", ""},
    {"reader_mjpeg.mjpeg", SRC "-c:v mjpeg -q:v 3 -pix_fmt yuvj420p -f mjpeg", 'j', "mjpeg", "-sws_flags bilinear"},
};

// Every picture of the reader's images through one Decoder, drained at the end.
std::vector<VideoFrame> decodeAll(StreamReader& reader, quint8 code)
{
    std::vector<VideoFrame> frames;
    Decoder decoder;
    Image image;
    VideoFrame frame;
    quint64 expectedId = 1;
    while (reader.read(image) == StreamReader::Result::Image) {
        EXPECT_EQ(image.type(), code);
        EXPECT_EQ(image.id(), expectedId++);
        if (image.id() == 1)
            EXPECT_TRUE(image.iframe());
        const Decoder::ImageResult r = decoder.decodeImage(image, frame);
        EXPECT_NE(r, Decoder::ImageResult::Failed) << "image " << image.id();
        if (r == Decoder::ImageResult::Picture) {
            frames.push_back(frame);
            frame = VideoFrame();
        }
    }
    while (decoder.drain(frame)) {
        frames.push_back(frame);
        frame = VideoFrame();
    }
    return frames;
}

TEST(StreamReaderTest, YieldsTheSamePicturesAsFFmpegFromFilesAndMemory)
{
    for (const ReaderCase& c : kReaderCases) {
        SCOPED_TRACE(c.file);
        const QString path = ffmpegFile(QString::fromLatin1(c.file), QString::fromLatin1(c.encode));
        const std::vector<QByteArray> reference =
            ffmpegFrames(path, 208, 120, QStringLiteral("yuv420p"), QString::fromLatin1(c.referenceArgs));
        ASSERT_EQ(reference.size(), 12u);
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        const QByteArray bytes = file.readAll();
        for (bool fromMemory : {false, true}) {
            if (fromMemory && !c.rawFormat)
                continue;
            StreamReader reader;
            ASSERT_TRUE(fromMemory ? reader.openData(bytes, QString::fromLatin1(c.rawFormat)) : reader.open(path))
                << reader.errorString().toStdString();
            EXPECT_EQ(reader.formatCode(), c.code);
            EXPECT_EQ(reader.width(), 208);
            const std::vector<VideoFrame> frames = decodeAll(reader, c.code);
            ASSERT_EQ(frames.size(), reference.size()) << (fromMemory ? "memory" : "file");
            for (size_t k = 0; k < frames.size(); ++k)
                EXPECT_EQ(maxDiffYuv420p(frames[k], reference[k], 208, 120), 0) << k;
            Image last;
            EXPECT_EQ(reader.read(last), StreamReader::Result::End);
        }
    }
    // A raw stream found by probing, without a format name.
    StreamReader probed;
    QFile raw(ffmpegFile(QStringLiteral("reader_h264.h264"), QString::fromLatin1(kReaderCases[2].encode)));
    ASSERT_TRUE(raw.open(QIODevice::ReadOnly));
    ASSERT_TRUE(probed.openData(raw.readAll()));
    EXPECT_EQ(decodeAll(probed, 'h').size(), 12u);
}

TEST(StreamReaderTest, ErrorsAreResults)
{
    StreamReader reader;
    Image image;
    EXPECT_EQ(reader.read(image), StreamReader::Result::Error);
    EXPECT_FALSE(reader.open(dataDir() + QStringLiteral("/no such file.mp4")));
    EXPECT_FALSE(reader.errorString().isEmpty());
    EXPECT_FALSE(reader.openData(QByteArray()));
    EXPECT_FALSE(reader.openData(QByteArray(100, 'x'), QStringLiteral("no-such-demuxer")));
    EXPECT_FALSE(reader.isOpen());
    // Audio only: no video stream.
    EXPECT_FALSE(reader.open(ffmpegFile(QStringLiteral("reader_audio.wav"), QStringLiteral("-f lavfi -i sine -t 0.2"))));
    EXPECT_EQ(reader.formatCode(), 0);
}

// Each hostile image goes in front of a clip; the clip's last picture must still arrive.
TEST(HostileImages, NeverStallTheDecoder)
{
    const auto clip = toImages(demuxVideo(h264Clip(10, 5)), 'h', 2);
    ASSERT_EQ(clip.size(), 10u);
    std::mt19937 random(15);
    QByteArray noise(4096, '\0');
    for (char& b : noise)
        b = char(random() & 0xff);
    noise[0] = 0x11;  // no start code anywhere, by construction of the seed (checked below)
    ASSERT_EQ(noise.indexOf(QByteArray("\0\0\1", 3)), -1);
    struct Hostile {
        const char* name;
        Image image;
        int accepted;  // decode()'s answer
        int errors;
    };
    const Hostile cases[] = {
        {"null", Image(), 0, 0},
        {"empty payload", Image('h', QByteArray(), 1), 0, 0},
        {"unknown code", Image('R', noise, 1), 0, 0},
        {"random bytes", Image('h', noise, 1, 0, true), 1, 1},
    };
    for (const Hostile& h : cases) {
        SCOPED_TRACE(h.name);
        ConcurrentDecoder decoder;
        Recorder rec, errors;
        rec.attach(&decoder);
        std::vector<DecoderError> raised;
        QObject::connect(decoder.getInterface(), &DecoderInterfaceSignals::error, &errors.context,
                         [&](DecoderError e) { raised.push_back(e); });
        EXPECT_EQ(decoder.decode(h.image), h.accepted);
        EXPECT_EQ(decoder.droppedImages(), h.accepted ? 0u : 1u);
        for (const Image& image : clip)
            ASSERT_EQ(decoder.decode(image), 1);
        ASSERT_TRUE(waitUntil([&] { return !rec.frames.empty() && rec.frames.back().id() == 11; }));
        EXPECT_EQ(rec.ids(), idRange(2, 11));
        spin(10);
        ASSERT_EQ(int(raised.size()), h.errors);
        if (h.errors) {
            EXPECT_EQ(raised[0].code(), 1u);
            EXPECT_EQ(raised[0].imageId(), 1u);
        }
    }
}

}  // namespace
