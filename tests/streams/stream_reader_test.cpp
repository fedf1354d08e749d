// orvo::StreamReader on containers and raw elementary streams, from files and memory.
#include "common/test_streams.h"
#include "orvo/decoder.h"
#include "orvo/stream_reader.h"

#include <QFile>
#include <gtest/gtest.h>

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

// The reader's images, checked for their code, ids and first I-frame.
std::vector<Image> readAll(StreamReader& reader, quint8 code)
{
    std::vector<Image> images;
    Image image;
    while (reader.read(image) == StreamReader::Result::Image) {
        EXPECT_EQ(image.type(), code);
        EXPECT_EQ(image.id(), images.size() + 1);
        EXPECT_TRUE(image.iframe() || !images.empty());
        images.push_back(image);
    }
    return images;
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
            std::vector<quint64> failed;
            const std::vector<VideoFrame> frames = decodeImages(readAll(reader, c.code), &failed);
            EXPECT_TRUE(failed.empty());
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
    EXPECT_EQ(decodeImages(readAll(probed, 'h')).size(), 12u);
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

}  // namespace
