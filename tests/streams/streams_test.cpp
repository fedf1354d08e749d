// orvo::StreamReader on containers and raw elementary streams, from files and memory; and
// streams cut the way camera network layers cut them (whole access units, one NAL unit per
// image, one NAL unit plus the next start code for the repairing H.264 path), decoded through
// every decoder and facade, compared byte for byte with the ffmpeg command line, and checked
// for the identity each picture carries.
#include "common/test_streams.h"
#include "orvo/decoder.h"
#include "orvo/decoder_preferences.h"
#include "orvo/stream_reader.h"
#include "streams/stream_paths.h"

#include <QFileInfo>
#include <gtest/gtest.h>

#include <map>

using namespace orvo;
using namespace orvo::test;

namespace {

#define SOURCE "-f lavfi -i testsrc2=size=320x256:rate=25 -frames:v 14 -pix_fmt yuv420p "
#define X265 "-c:v libx265 -x265-params log-level=error:keyint=8:"

using Clip = ClipSpec;

const Clip kClips[] = {
    {"h264_cavlc_slices", 'h', SOURCE "-c:v libx264 -coder 0 -slices 4 -bf 0 -g 8 -f h264"},
    {"h264_cabac_slices", 'H', SOURCE "-c:v libx264 -coder 1 -slices 4 -bf 0 -g 8 -f h264"},
    {"h264_bframes", 'h', SOURCE "-c:v libx264 -bf 3 -b_strategy 0 -g 8 -f h264"},
    {"hevc_slices", 'e', SOURCE X265 "slices=4:bframes=0 -f hevc"},
    {"hevc_bframes", 'E', SOURCE X265 "bframes=3:b-adapt=0 -f hevc"},
    {"mpeg2", 'M', SOURCE "-c:v mpeg2video -bf 0 -g 8 -q:v 3 -f mpeg2video"},
};

enum class Cut { AccessUnit, NalUnit, NalPlusStartCode };

struct Case {
    const Clip* clip;
    Cut cut;
    Path path;
};

std::string caseName(const testing::TestParamInfo<Case>& info)
{
    static const char* cuts[] = {"au", "nal", "nal_sc"};
    static const char* paths[] = {"decoder", "zerocopy", "concurrent", "ordered", "single"};
    return std::string(info.param.clip->name) + "_" + cuts[int(info.param.cut)] + "_" + paths[int(info.param.path)];
}

std::vector<Case> allCases()
{
    std::vector<Case> out;
    for (const Clip& clip : kClips)
        for (Cut cut : {Cut::AccessUnit, Cut::NalUnit, Cut::NalPlusStartCode})
            for (Path path : {Path::Decoder, Path::DecoderZeroCopy, Path::Concurrent, Path::Ordered,
                              Path::SingleThreaded})
                // MPEG-2 has no NAL units; the repairing path is H.264's.
                if ((cut != Cut::NalUnit || clip.code != 'M') &&
                    (cut != Cut::NalPlusStartCode || clip.code == 'h' || clip.code == 'H'))
                    out.push_back({&clip, cut, path});
    return out;
}

bool isSlice(quint8 code, const QByteArray& nal)
{
    const int header = nal[2] == 1 ? 3 : 4;
    const quint8 b = quint8(nal[header]);
    if (code == 'e' || code == 'E')
        return ((b >> 1) & 0x3f) < 32;
    return (b & 0x1f) >= 1 && (b & 0x1f) <= 5;
}

// A clip made once, its access units, and what ffmpeg makes of it.
struct ClipData {
    QString path;
    std::vector<QByteArray> units;    // access units, as the reader cut them
    std::vector<bool> keys;
    std::vector<QByteArray> reference;  // pictures in output order
    std::vector<int> pictureUnit;       // access unit of each reference picture (ffprobe pkt_pos)
};

const ClipData& clipData(const Clip& clip)
{
    static std::map<std::string, ClipData> cache;
    auto it = cache.find(clip.name);
    if (it != cache.end())
        return it->second;
    ClipData data;
    data.path = ffmpegFile(QString::fromLatin1(clip.name) + (clip.code == 'M' ? ".m2v" : ".es"),
                           QString::fromLatin1(clip.encode));
    StreamReader reader;
    EXPECT_TRUE(reader.open(data.path)) << reader.errorString().toStdString();
    Image image;
    std::map<qint64, int> unitAt;
    qint64 position = 0;
    while (reader.read(image) == StreamReader::Result::Image) {
        EXPECT_EQ(image.type(), clip.code == 'H' ? 'h' : clip.code == 'E' ? 'e' : clip.code);
        unitAt[position] = int(data.units.size());
        position += image.payloadSize();
        data.units.push_back(image.payload());
        data.keys.push_back(image.iframe());
    }
    EXPECT_EQ(position, QFileInfo(data.path).size()) << "a raw stream is cut without losing a byte";
    data.reference = ffmpegFrames(data.path, 320, 256);
    const QByteArray positions = runProgram(QStringLiteral("ffprobe"), {"-v", "error", "-select_streams", "v:0",
                                                                       "-show_entries", "frame=pkt_pos", "-of",
                                                                       "csv=p=0", data.path});
    for (const QByteArray& line : positions.split('\n')) {
        const QByteArray pos = line.split(',').front().trimmed();  // side data may follow
        if (pos.isEmpty())
            continue;
        auto unit = unitAt.find(pos.toLongLong());
        EXPECT_NE(unit, unitAt.end()) << "pkt_pos " << line.toStdString();
        data.pictureUnit.push_back(unit == unitAt.end() ? -1 : unit->second);
    }
    EXPECT_EQ(data.pictureUnit.size(), data.reference.size());
    return cache.emplace(clip.name, std::move(data)).first->second;
}

// The clip cut into images (ids 1, 2, ..., distinct times, stream 7), and for each access
// unit the id of the image whose picture it is (the image of its first slice).
struct CutImages {
    std::vector<Image> images;
    std::vector<quint64> unitIdentity;
};

CutImages cutClip(const Clip& clip, const ClipData& data, Cut cut)
{
    CutImages out;
    auto add = [&](const QByteArray& payload, bool key) {
        Image image(clip.code, payload, out.images.size() + 1, qint64(out.images.size()) * 10 + 5, key);
        image.setStreamId(7);
        out.images.push_back(image);
    };
    static const QByteArray startCode("\0\0\0\1", 4);
    for (size_t u = 0; u < data.units.size(); ++u) {
        if (cut == Cut::AccessUnit) {
            add(data.units[u], data.keys[u]);
            out.unitIdentity.push_back(out.images.size());
            continue;
        }
        quint64 identity = 0;
        for (const QByteArray& nal : nalUnits(data.units[u])) {
            add(cut == Cut::NalUnit ? nal : nal + startCode, data.keys[u]);
            if (!identity && isSlice(clip.code, nal))
                identity = out.images.size();
        }
        out.unitIdentity.push_back(identity);
    }
    return out;
}

class CameraCutsTest : public testing::TestWithParam<Case> {};

TEST_P(CameraCutsTest, EveryPictureExactAndStampedWithItsImage)
{
    const Case& c = GetParam();
    const ClipData& data = clipData(*c.clip);
    ASSERT_FALSE(data.reference.empty());
    PreferencesGuard guard;
    DecoderPreferences::instance()->lookForNALsH264(c.cut == Cut::NalPlusStartCode);
    DecoderPreferences::instance()->setZeroCopyDecoding(c.path == Path::DecoderZeroCopy);
    const CutImages cut = cutClip(*c.clip, data, c.cut);

    const Outcome out = decodeThrough(c.path, cut.images);
    EXPECT_TRUE(out.errors.empty()) << "first error on image " << out.errors.front().imageId();
    ASSERT_EQ(out.frames.size(), data.reference.size());
    for (size_t k = 0; k < out.frames.size(); ++k) {
        const VideoFrame& f = out.frames[k];
        ASSERT_EQ(maxDiffYuv420p(f, data.reference[k], 320, 256), 0) << "picture " << k;
        const quint64 id = cut.unitIdentity[size_t(data.pictureUnit[k])];
        ASSERT_EQ(f.id(), id) << "picture " << k;
        EXPECT_EQ(f.image().time(), cut.images[id - 1].time());
        EXPECT_TRUE(f.image().sharesDataWith(cut.images[id - 1]));
        EXPECT_EQ(f.streamId(), 7u);
    }
}

INSTANTIATE_TEST_SUITE_P(Streams, CameraCutsTest, testing::ValuesIn(allCases()), caseName);

// A slice lost on the network leaves its picture unfinished: the decoder gives it up when
// the next picture starts, keeps decoding, and is exact again from the next I-frame.
TEST(CameraCuts, LostSliceCostsAtMostItsGroupOfPictures)
{
    const Clip& clip = kClips[0];
    const ClipData& data = clipData(clip);
    ASSERT_EQ(data.reference.size(), 14u);
    CutImages cut = cutClip(clip, data, Cut::NalUnit);
    // Drop the last slice of the third picture.
    const quint64 lost = cut.unitIdentity[3] - 1;
    ASSERT_TRUE(isSlice(clip.code, cut.images[lost - 1].payload()));
    cut.images.erase(cut.images.begin() + int(lost - 1));
    const Outcome out = decodeThrough(Path::Decoder, cut.images);
    EXPECT_TRUE(out.errors.empty());
    ASSERT_GE(out.frames.size(), 8u);
    // Pictures 8.. (the second group) come out exactly, in order, at the end.
    for (size_t k = 0; k < 6; ++k)
        EXPECT_EQ(maxDiffYuv420p(out.frames[out.frames.size() - 6 + k], data.reference[8 + k], 320, 256), 0) << k;
}

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

// From the file, and for raw streams from memory, with the demuxer named and (H.264) probed.
TEST(StreamReaderTest, YieldsTheSamePicturesAsFFmpegFromFilesAndMemory)
{
    for (const ReaderCase& c : kReaderCases) {
        SCOPED_TRACE(c.file);
        const QString path = ffmpegFile(QString::fromLatin1(c.file), QString::fromLatin1(c.encode));
        const std::vector<QByteArray> reference =
            ffmpegFrames(path, 208, 120, QStringLiteral("yuv420p"), QString::fromLatin1(c.referenceArgs));
        ASSERT_EQ(reference.size(), 12u);
        const QByteArray bytes = readFile(path);
        for (const char* demuxer : {"", c.rawFormat, c.code == 'h' && c.rawFormat ? "probe" : nullptr}) {
            if (!demuxer)
                continue;
            SCOPED_TRACE(*demuxer ? demuxer : "file");
            StreamReader reader;
            ASSERT_TRUE(!*demuxer ? reader.open(path)
                                  : reader.openData(bytes, demuxer == QLatin1String("probe") ? QString() : demuxer))
                << reader.errorString().toStdString();
            EXPECT_EQ(reader.formatCode(), c.code);
            EXPECT_EQ(reader.width(), 208);
            std::vector<quint64> failed;
            const std::vector<VideoFrame> frames = decodeImages(readAll(reader, c.code), &failed);
            EXPECT_TRUE(failed.empty());
            ASSERT_EQ(frames.size(), reference.size());
            for (size_t k = 0; k < frames.size(); ++k)
                EXPECT_EQ(maxDiffYuv420p(frames[k], reference[k], 208, 120), 0) << k;
            Image last;
            EXPECT_EQ(reader.read(last), StreamReader::Result::End);
        }
    }
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
    EXPECT_FALSE(
        reader.open(ffmpegFile(QStringLiteral("reader_audio.wav"), QStringLiteral("-f lavfi -i sine -t 0.2"))));
    EXPECT_EQ(reader.formatCode(), 0);
}

// Raw elementary streams carry no time stamps: H.264 and H.265 are timed by the timing
// information in their parameter sets (30 pictures a second here, not the 25 assumed when
// there is none), Motion JPEG, which has none, by the frame rate the client gives.
TEST(StreamReaderTest, RawStreamsAreTimedByTheirOwnTimingOrTheRateGiven)
{
    const struct {
        const char* file;
        const char* codec;
        double givenRate;  // 0: the reader's default
        double expectedRate;
    } cases[] = {
        {"timed_h264.h264", "-c:v libx264 -bf 0 -f h264", 0, 30},
        {"timed_hevc.hevc", "-c:v libx265 -x265-params log-level=error:bframes=0 -f hevc", 0, 30},
        {"timed_mjpeg.mjpeg", "-c:v mjpeg -pix_fmt yuvj420p -f mjpeg", 12.5, 12.5},
        {"timed_mjpeg.mjpeg", "-c:v mjpeg -pix_fmt yuvj420p -f mjpeg", 0, StreamReader::kDefaultFrameRate},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        const QString path = ffmpegFile(QString::fromLatin1(c.file),
                                        QStringLiteral("-f lavfi -i testsrc2=size=64x48:rate=30 -frames:v 7 ") +
                                            QString::fromLatin1(c.codec));
        StreamReader reader;
        if (c.givenRate > 0)
            reader.setFrameRate(c.givenRate);
        ASSERT_TRUE(reader.open(path)) << reader.errorString().toStdString();
        Image image;
        qint64 k = 0;
        for (; reader.read(image) == StreamReader::Result::Image; ++k) {
            EXPECT_EQ(image.time(), qRound64(k * 1000 / c.expectedRate)) << k;
            EXPECT_TRUE(image.isAccessUnitEnd());
        }
        EXPECT_EQ(k, 7);
    }
}

}  // namespace
