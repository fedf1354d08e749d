// Real streams from FFmpeg's encoders, decoded image by image through the dispatcher and
// compared plane by plane with the ffmpeg command line's own decode; the production bound on
// declared picture sizes (64 Mpixel: fuzz builds use a much smaller budget, and these cases
// fail if that budget ever reaches a normal build).
#include "backends/aj2k.h"
#include "common/test_streams.h"
#include "decoders/jpeg2000_boxes.h"
#include "orvo/decoder.h"
#include "orvo/decoder_av.h"
#include "orvo/decoder_preferences.h"
#include "orvo/ffmpeg_module.h"

#include <gtest/gtest.h>

#include <map>

using namespace orvo;
using namespace orvo::test;

namespace {

struct StreamCase {
    const char* name;
    const char* encode;  // ffmpeg arguments that make the file
    const char* file;
    quint8 code;
    int width;
    int height;
    bool yuv420pSource;  // FFmpeg's picture is already what frames hold (copied or wrapped)
    const char* referenceArgs;
    int delay = 0;  // pictures the codec holds back until the next one arrives
};

std::ostream& operator<<(std::ostream& os, const StreamCase& c) { return os << c.name; }

#define TESTSRC(size, frames) "-f lavfi -i testsrc2=size=" size ":rate=25 -frames:v " frames " "

const StreamCase kCases[] = {
    {"h264_baseline", TESTSRC("642x362", "30") "-c:v libx264 -profile:v baseline -bf 0 -g 10 -pix_fmt yuv420p",
     "h264_baseline_642x362.mkv", 'h', 642, 362, true, ""},
    {"h264_main", TESTSRC("642x362", "30") "-c:v libx264 -profile:v main -bf 0 -g 10 -pix_fmt yuv420p",
     "h264_main_642x362.mkv", 'H', 642, 362, true, ""},
    {"h264_main_720p", TESTSRC("1280x720", "12") "-c:v libx264 -profile:v main -bf 0 -g 10 -pix_fmt yuv420p",
     "h264_main_1280x720.mkv", 'h', 1280, 720, true, ""},
    {"mjpeg_yuvj420p", TESTSRC("642x362", "8") "-c:v mjpeg -pix_fmt yuvj420p -q:v 3", "mjpeg_420_642x362.avi", 'j',
     642, 362, false, "-sws_flags bilinear"},
    {"mjpeg_yuvj422p", TESTSRC("642x362", "8") "-c:v mjpeg -pix_fmt yuvj422p -q:v 3", "mjpeg_422_642x362.avi", 'J',
     642, 362, false, "-sws_flags bilinear"},
    {"mpeg2", TESTSRC("642x362", "30") "-c:v mpeg2video -bf 0 -g 10 -q:v 3 -pix_fmt yuv420p", "mpeg2_642x362.m2v",
     'M', 642, 362, true, "", 1},
    {"mpeg2_low_delay",
     TESTSRC("642x362", "30") "-c:v mpeg2video -bf 0 -g 10 -q:v 3 -flags +low_delay -pix_fmt yuv420p",
     "mpeg2_low_delay_642x362.m2v", 'M', 642, 362, true, ""},
    {"mpeg4", TESTSRC("642x362", "30") "-c:v mpeg4 -bf 0 -g 10 -q:v 3 -pix_fmt yuv420p", "mpeg4_642x362.avi", 'm',
     642, 362, true, ""},
    // H.265 as cameras send it (no B-frames, closed GOPs); whole access units, so each
    // picture comes out with its own image.
    {"hevc_main", TESTSRC("1366x768", "12") "-pix_fmt yuv420p -c:v libx265 -preset ultrafast -x265-params "
     "log-level=error:bframes=0:keyint=5:min-keyint=5:scenecut=0:open-gop=0", "hevc_main_1366x768.mkv", 'e', 1366,
     768, true, ""},
    // Main 10 arrives as 8-bit 4:2:0, converted as FFmpeg's own bilinear swscale does it;
    // zero-copy only ever wraps 8-bit pictures.
    {"hevc_main10", TESTSRC("640x360", "10") "-pix_fmt yuv420p10le -c:v libx265 -preset ultrafast -x265-params "
     "log-level=error:bframes=0:keyint=5:min-keyint=5:scenecut=0:open-gop=0", "hevc_main10_640x360.mkv", 'E', 640,
     360, false, "-sws_flags bilinear"},
};

struct StreamData {
    std::vector<Image> images;
    std::vector<QByteArray> reference;
};

// Each stream is made and decoded by the command line once per test run.
const StreamData& streamData(const StreamCase& c)
{
    static std::map<std::string, StreamData> cache;
    auto it = cache.find(c.name);
    if (it != cache.end())
        return it->second;
    StreamData data;
    const QString path = ffmpegFile(QString::fromLatin1(c.file), QString::fromLatin1(c.encode));
    if (!path.isEmpty()) {
        data.images = toImages(demuxVideo(path), c.code);
        data.reference = ffmpegFrames(path, c.width, c.height, QStringLiteral("yuv420p"),
                                      QString::fromLatin1(c.referenceArgs));
    }
    return cache.emplace(c.name, std::move(data)).first->second;
}

// Decodes every image with a fresh dispatcher that is destroyed before the frames are
// returned, so that the frames must stand on their own.
std::vector<VideoFrame> decodeAll(const std::vector<Image>& images)
{
    std::vector<VideoFrame> pictures;
    Decoder decoder;
    for (const Image& image : images) {
        VideoFrame frame;
        if (decoder.decode(image.type(), image.payloadData(), int(image.payloadSize()), frame, 0, image.iframe()))
            pictures.push_back(frame);
        else
            EXPECT_TRUE(frame.isNull() || !frame.isValid()) << "no picture must leave no planes";
    }
    return pictures;
}

class StreamDecodeTest : public ::testing::TestWithParam<StreamCase> {};

TEST_P(StreamDecodeTest, MatchesTheReferenceDecodeWithAndWithoutZeroCopy)
{
    const StreamCase& c = GetParam();
    const StreamData& data = streamData(c);
    ASSERT_FALSE(data.images.empty());
    ASSERT_FALSE(data.reference.empty());
    for (bool zeroCopy : {false, true}) {
        SCOPED_TRACE(zeroCopy ? "zero-copy" : "copy");
        PreferencesGuard guard;
        DecoderPreferences::instance()->setZeroCopyDecoding(zeroCopy);
        const std::vector<VideoFrame> pictures = decodeAll(data.images);
        // One packet in, at most one picture out: every reference picture comes out, in
        // order, but for those a delayed codec still holds at the end.
        ASSERT_EQ(pictures.size() + size_t(c.delay), data.reference.size());
        for (size_t k = 0; k < pictures.size(); ++k) {
            const VideoFrame& f = pictures[k];
            ASSERT_EQ(f.pixelFormat(), VideoFrame::Format_YUV420P);
            ASSERT_TRUE(f.areSeparatePlanes());
            EXPECT_FALSE(f.isMapped());
            EXPECT_EQ(f.widthU(), (c.width + 1) / 2);
            EXPECT_EQ(f.heightV(), (c.height + 1) / 2);
            if (c.yuv420pSource) {
                // Copies have the tight default pitch; zero-copy frames keep FFmpeg's aligned one.
                ASSERT_TRUE(f.map());
                if (zeroCopy)
                    EXPECT_EQ(f.bytesPerLineY() % 32, 0u);
                else
                    EXPECT_EQ(f.bytesPerLineY(), unsigned(c.width));
                f.unmap();
            }
            // Full-range JPEG pictures go through swscale just as the reference does (the
            // same bilinear studio-range conversion), so they match to the byte as well.
            ASSERT_EQ(maxDiffYuv420p(f, data.reference[k], c.width, c.height), 0) << "picture " << k;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Streams, StreamDecodeTest, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<StreamCase>& info) { return info.param.name; });

TEST(FFmpegDecodeTest, ModulePadsThePacketInPlace)
{
    FFmpegModule module(DecodeContext{FormatIn_MPEG4, 1});
    QByteArray packet("\x00\x00\x01\xb6", 4);
    VideoFrame frame;
    EXPECT_FALSE(module.decode(packet, frame));
    ASSERT_GE(packet.size(), 4 + 64);
    EXPECT_EQ(packet.mid(4), QByteArray(packet.size() - 4, '\0'));
    EXPECT_TRUE(frame.isNull());
    QByteArray empty;
    EXPECT_FALSE(module.decode(empty, frame));
    EXPECT_EQ(empty, QByteArray(empty.size(), '\0'));
    EXPECT_GE(empty.size(), 32);
}

TEST(FFmpegDecodeTest, JPEG2000BoxesChooseWhereDecodingStarts)
{
    PreferencesGuard guard;
    DecoderPreferences* prefs = DecoderPreferences::instance();
    const QString path = ffmpegFile(QStringLiteral("still_642x362.jp2"),
                                    QStringLiteral("-f lavfi -i testsrc2=size=642x362 -frames:v 1 -c:v jpeg2000 "
                                                   "-pix_fmt yuv420p -format jp2"));
    const QByteArray jp2 = readFile(path);
    const std::vector<QByteArray> reference = ffmpegFrames(path, 642, 362);
    ASSERT_EQ(reference.size(), 1u);
    ASSERT_EQ(jp2.mid(4, 4), QByteArray("jP  "));
    const int codestream = jp2.indexOf("jp2c") + 4;

    DecoderAV decoder(FormatIn_JPEG2000);
    EXPECT_EQ(decoder.getFormat(), 'r');
    auto decode = [&](const QByteArray& payload) {
        VideoFrame frame;
        return decodeBytes(decoder, payload, frame, true) ? maxDiffYuv420p(frame, reference[0], 642, 362) : -1;
    };
    // A camera header in front of the file: only the box search finds the picture.
    const QByteArray wrapped = QByteArray(24, '\x5a') + jp2;
    const auto* bytes = reinterpret_cast<const unsigned char*>(wrapped.constData());
    EXPECT_EQ(jp2::codestreamStart(bytes, wrapped.size(), false, false), 24);
    EXPECT_EQ(jp2::codestreamStart(bytes, wrapped.size(), true, false), 24 + codestream);
    prefs->setJpeg2000passthrough(false);
    EXPECT_EQ(decode(wrapped), 0);
    prefs->setJpeg2000codestream(true);
    EXPECT_EQ(decode(wrapped), 0);
    EXPECT_EQ(decode(jp2), 0);
    // From the file-type box on, the code stream is looked for whatever the switch says.
    prefs->setJpeg2000codestream(false);
    EXPECT_EQ(decode(jp2.mid(12)), 0);

    // The box list goes to the debug stream.
    MessageCapture capture;
    prefs->setJpeg2000display_atoms(true);
    EXPECT_EQ(decode(jp2), 0);
    EXPECT_TRUE(capture.contains(QStringLiteral("offset=12 size=20 name=102 116 121 112(ftyp)")));
}

TEST(FFmpegDecodeTest, BoxWalkStaysInsideThePayload)
{
    auto be32 = [](quint32 v) {
        const char b[4] = {char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
        return QByteArray(b, 4);
    };
    auto start = [](const QByteArray& p, bool codestream) {
        return jp2::codestreamStart(reinterpret_cast<const unsigned char*>(p.constData()), p.size(), codestream, true);
    };
    MessageCapture capture;
    const struct {
        const char* what;
        QByteArray payload;
        bool codestream;
        int start;
    } cases[] = {
        // A length far past the end: the walk stops, the search fails and decoding starts at 0.
        {"huge", be32(0xFFFFFFF0u) + "ftyp" + QByteArray(16, 'x') + be32(12) + "jp2c" + be32(0), false, 0},
        {"zero length ends the walk", be32(12) + "ftyp" + be32(0) + be32(0) + "jp2h" + be32(7) + be32(9) + "jp2c",
         false, 0},
        {"length 1 advances byte by byte", be32(1) + "jp2h" + QByteArray(30, '\x01'), true, 0},
        {"header last in the payload", be32(8) + "ftyp" + be32(9) + "jp2c" + "Z", false, 16},
        {"header only", be32(8) + "ftyp" + be32(8) + "jp2c", false, 0},
    };
    for (const auto& c : cases)
        EXPECT_EQ(start(c.payload, c.codestream), c.start) << c.what;
    // Payloads shorter than a box header.
    for (int n = 0; n <= 9; ++n) {
        std::vector<unsigned char> bytes(size_t(n), 0);
        const unsigned char* p = n ? bytes.data() : nullptr;
        EXPECT_EQ(jp2::codestreamStart(p, n, true, true), 0);
        EXPECT_EQ(jp2::findBox(p, n, jp2::kCodestream), -1);
    }
}

TEST(FFmpegModuleTest, QImageConversionsKeepTheColours)
{
    // Red in BT.601 studio range.
    const struct {
        QRgb rgb;
        int y, u, v;
    } c{qRgb(255, 0, 0), 82, 90, 240};
    for (QImage::Format format : {QImage::Format_ARGB32, QImage::Format_RGB32, QImage::Format_RGB888,
                                  QImage::Format_RGB16, QImage::Format_Indexed8}) {
        SCOPED_TRACE(testing::Message() << "format " << int(format));
        QImage image(34, 18, QImage::Format_ARGB32);
        image.fill(c.rgb);
        image = image.convertToFormat(format);
        VideoFrame frame(34, 18, VideoFrame::Format_YUV420P, defaultBufferProperties);
        ASSERT_TRUE(FFmpegModule::qimageToVideoFrame(image, frame));
        ASSERT_TRUE(frame.map());
        EXPECT_NEAR(frame.lineY(9)[17], c.y, 2);
        EXPECT_NEAR(frame.lineU(4)[8], c.u, 2);
        EXPECT_NEAR(frame.lineV(4)[8], c.v, 2);

        QImage back(34, 18, format);
        back.fill(0);
        ASSERT_TRUE(FFmpegModule::videoFrameToQImage(frame, back));
        frame.unmap();
        EXPECT_EQ(back.format(), format);
        const QRgb px = back.pixel(17, 9);
        const int tolerance = format == QImage::Format_RGB16 || format == QImage::Format_Indexed8 ? 12 : 4;
        EXPECT_NEAR(qRed(px), qRed(c.rgb), tolerance);
        EXPECT_NEAR(qGreen(px), qGreen(c.rgb), tolerance);
        EXPECT_NEAR(qBlue(px), qBlue(c.rgb), tolerance);
        EXPECT_EQ(qAlpha(px), 255);
    }
    // Refusals: null image, a read-only mapped frame, an unmapped frame for the way back.
    VideoFrame frame(8, 8, VideoFrame::Format_YUV420P, defaultBufferProperties);
    EXPECT_FALSE(FFmpegModule::qimageToVideoFrame(QImage(), frame));
    ASSERT_TRUE(frame.map());
    QImage image(8, 8, QImage::Format_RGB32);
    EXPECT_FALSE(FFmpegModule::qimageToVideoFrame(image, frame));
    frame.unmap();
    EXPECT_FALSE(FFmpegModule::videoFrameToQImage(frame, image));
    VideoFrame none;
    EXPECT_FALSE(FFmpegModule::qimageToVideoFrame(image, none));
}

bool decodeJ(QByteArray payload, VideoFrame& frame)
{
    return Decoder().decode('j', reinterpret_cast<unsigned char*>(payload.data()), payload.size(), frame, 0, true);
}

}  // namespace

TEST(PictureBoundTest, SixtyFourMegapixelsHoldOutsideFuzzBuilds)
{
    PreferencesGuard guard;
    // Above 64 Mpixel is refused (before Qt or FFmpeg allocate the picture); a 2 Mpixel
    // picture (twice a fuzz build's budget) decodes, through FFmpeg and through Qt's reader.
    const QByteArray jpeg = qtJpeg(2048, 1024, 50);
    for (bool throughQt : {false, true}) {
        SCOPED_TRACE(throughQt ? "Qt" : "FFmpeg");
        DecoderPreferences::instance()->decodeMJPEGThroughQImage(throughQt);
        const QByteArray header = throughQt ? QByteArray(384, '\0') : QByteArray();
        VideoFrame frame;
        ASSERT_TRUE(decodeJ(header + jpeg, frame));
        EXPECT_EQ(frame.width(), 2048);
        EXPECT_EQ(frame.height(), 1024);
        VideoFrame refused;
        EXPECT_FALSE(decodeJ(header + withJpegSize(jpeg, 8193, 8192), refused));
        EXPECT_TRUE(refused.isNull());
    }

    // JPEG 2000: the header alone tells; exactly 64 Mpixel is accepted.
    const QByteArray j2k = readFile(ffmpegFile(QStringLiteral("bound_64x64_codestream.j2k"),
                                               QStringLiteral("-f lavfi -i testsrc2=size=64x64 -frames:v 1 -c:v "
                                                              "jpeg2000 -format j2k -f image2pipe")));
    ASSERT_GT(j2k.size(), 40);
    aj2k_handle* handle = nullptr;
    ASSERT_EQ(aj2k_initjp2(&handle, 0), AJ2K_OK);
    for (const quint32 w : {8192u, 8193u}) {
        // SOC, SIZ marker, Lsiz, Rsiz; then Xsiz, Ysiz, XOsiz, YOsiz, XTsiz, YTsiz (one tile).
        QByteArray patched = j2k;
        for (int at : {8, 12, 24, 28})
            for (int i = 0; i < 4; ++i)
                patched[at + i] = char((at % 8 ? 8192u : w) >> (24 - 8 * i));
        int width = 0, height = 0, components = 0;
        EXPECT_EQ(aj2k_jp2memgetdims(handle, reinterpret_cast<const unsigned char*>(patched.constData()),
                                     patched.size(), AJ2K_INPUT_AUTO, &width, &height, &components),
                  w == 8192 ? AJ2K_OK : AJ2K_ERR_SIZE);
        if (w == 8192)
            EXPECT_EQ(width * height, 8192 * 8192);
    }
    aj2k_deinitjp2(handle);
}
