// JPEG 2000 at scale levels 0-3 through DecoderJPEG2000 and the aj2k library, compared with
// decodes by opj_decompress -r LEVEL (RGB and greyscale files) and by FFmpeg's own JPEG 2000
// decoder at -lowres LEVEL (YCbCr files: opj_decompress turns those into RGB on output).
// Wavelet fields (VC-2 made by FFmpeg's vc2 encoder) through DecoderWavelet and the wavelet
// library, compared with FFmpeg's own decode reduced the same way.
#include "backends/aj2k.h"
#include "backends/wavelet_decoder.h"
#include "common/test_streams.h"
#include "orvo/decoder_jpeg2000.h"
#include "orvo/decoder_wavelet.h"

#include <QFileInfo>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>

using namespace orvo::test;
using orvo::DecoderJPEG2000;
using orvo::DecoderWavelet;
using orvo::VideoFrame;
using orvo::WaveletDecoder;

namespace {

enum class Reference { FFmpeg420, FFmpeg444, OpjRgb, OpjGrey };

struct J2kFile {
    const char* name;
    int width;
    int height;
    Reference reference;
};

// Each file is made once per data directory by encoders of FFmpeg and OpenJPEG: the Full HD
// picture a code stream, the others JP2 files.
QString makeFile(const J2kFile& f)
{
    const QString name = QString::fromLatin1(f.name);
    const QString source = QString::asprintf("-f lavfi -i testsrc%s=size=%dx%d -frames:v 1 ",
                                             f.width == 1920 ? "2" : "", f.width, f.height);
    if (f.reference == Reference::FFmpeg420 || f.reference == Reference::FFmpeg444)
        return ffmpegFile(name, source + "-c:v libopenjpeg -pix_fmt " +
                                    (f.reference == Reference::FFmpeg420 ? "yuv420p" : "yuv444p") + " -format " +
                                    (f.width == 1920 ? "j2k" : "jp2"));
    const bool rgb = f.reference == Reference::OpjRgb;
    const QString pnm = ffmpegFile(name + (rgb ? ".ppm" : ".pgm"), source + "-pix_fmt " + (rgb ? "rgb24" : "gray"));
    const QString out = dataDir() + "/" + name;
    if (!pnm.isEmpty() && QFileInfo(out).size() == 0)
        runProgram("opj_compress", {"-i", pnm, "-o", out});
    return out;
}

int reduced(int size, int level) { return (size + (1 << level) - 1) >> level; }

// The reference picture at `level` as 4:2:2 planes (Y, U, V packed).
std::vector<QByteArray> referencePlanes(const J2kFile& f, const QString& path, int level)
{
    const int w = reduced(f.width, level), h = reduced(f.height, level), cw = (w + 1) / 2;
    std::vector<QByteArray> planes{QByteArray(w * h, 0), QByteArray(cw * h, 0), QByteArray(cw * h, 0)};
    auto set = [&](int plane, int x, int y, double v) {
        planes[size_t(plane)][y * (plane ? cw : w) + x] = char(std::lround(v));
    };

    if (f.reference == Reference::FFmpeg420 || f.reference == Reference::FFmpeg444) {
        const bool sub = f.reference == Reference::FFmpeg420;
        const QByteArray raw = runProgram("ffmpeg", {"-nostdin", "-loglevel", "error", "-lowres",
                                                     QString::number(level), "-i", path, "-f", "rawvideo", "-pix_fmt",
                                                     sub ? "yuv420p" : "yuv444p", "-"});
        const int sw = sub ? cw : w, sh = sub ? (h + 1) / 2 : h;
        if (raw.size() != w * h + 2 * sw * sh) {
            ADD_FAILURE() << "reference of " << raw.size() << " bytes for " << w << "x" << h;
            return {};
        }
        const auto* p = reinterpret_cast<const uchar*>(raw.constData());
        planes[0] = raw.left(w * h);
        for (int c = 1; c <= 2; ++c) {
            const uchar* src = p + w * h + (c - 1) * sw * sh;
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < cw; ++x)
                    set(c, x, y,
                        sub ? src[(y / 2) * sw + x]
                            : (src[y * sw + 2 * x] + src[y * sw + std::min(2 * x + 1, w - 1)] + 1) / 2);
        }
        return planes;
    }

    // opj_decompress writes raw output as one plane per component.
    const bool rgb = f.reference == Reference::OpjRgb;
    const QString out = dataDir() + QString("/%1.r%2.raw").arg(f.name).arg(level);
    runProgram("opj_decompress", {"-i", path, "-o", out, "-r", QString::number(level), "-quiet"});
    const QByteArray raw = readFile(out);
    if (raw.size() != w * h * (rgb ? 3 : 1)) {
        ADD_FAILURE() << "opj_decompress gave " << raw.size() << " bytes for " << w << "x" << h;
        return {};
    }
    auto px = [&](int c, int x, int y) { return double(uchar(raw[(c * h + y) * w + std::min(x, w - 1)])); };
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x)
            set(0, x, y, rgb ? 16 + (65.481 * px(0, x, y) + 128.553 * px(1, x, y) + 24.966 * px(2, x, y)) / 255.0
                             : px(0, x, y));
        for (int x = 0; x < cw; ++x) {
            double c[3];
            for (int k = 0; k < 3; ++k)
                c[k] = rgb ? (px(k, 2 * x, y) + px(k, 2 * x + 1, y)) / 2.0 : 0;
            set(1, x, y, 128 + (-37.797 * c[0] - 74.203 * c[1] + 112.0 * c[2]) / 255.0);
            set(2, x, y, 128 + (112.0 * c[0] - 93.786 * c[1] - 18.214 * c[2]) / 255.0);
        }
    }
    return planes;
}

const J2kFile kFullHd{"cam_fullhd420.j2k", 1920, 1080, Reference::FFmpeg420};

class Jpeg2000Levels : public ::testing::TestWithParam<J2kFile> {};

TEST_P(Jpeg2000Levels, MatchesIndependentDecodeAtLevels0To3)
{
    const J2kFile f = GetParam();
    const QString path = makeFile(f);
    ASSERT_FALSE(path.isEmpty());
    QByteArray data = readFile(path);
    ASSERT_GT(data.size(), 0);

    DecoderJPEG2000 decoder(0);  // one decoder for all levels: the level changes in place
    for (int level = 0; level <= 3; ++level) {
        SCOPED_TRACE(std::string(f.name) + " level " + std::to_string(level));
        decoder.setScaleLevel(level);
        VideoFrame frame;
        ASSERT_TRUE(decodeBytes(decoder, data, frame, true));
        EXPECT_EQ(frame.pixelFormat(), VideoFrame::Format_YUV422P);
        EXPECT_EQ(frame.maximalWidth(), f.width);
        EXPECT_EQ(frame.maximalHeight(), f.height);
        ASSERT_EQ(frame.width(), reduced(f.width, level));
        ASSERT_EQ(frame.height(), reduced(f.height, level));
        ASSERT_EQ(frame.widthU(), (frame.width() + 1) / 2);
        ASSERT_EQ(frame.heightU(), frame.height());

        const std::vector<QByteArray> ref = referencePlanes(f, path, level);
        ASSERT_EQ(ref.size(), 3u);
        for (int c = 0; c < 3; ++c)
            EXPECT_LE(maxDiff(planeBytes(frame, Plane(c)), ref[size_t(c)]), 1) << "plane " << c;
    }
    // Levels beyond the code stream's resolutions give its smallest (FFmpeg's encoder writes
    // six: level 5 of 1920 x 1080 is 60 x 34); negative levels the full picture.
    for (const auto& [level, width] : {std::pair{9, reduced(f.width, 5)}, {-2, f.width}}) {
        decoder.setScaleLevel(level);
        VideoFrame frame;
        ASSERT_TRUE(decodeBytes(decoder, data, frame));
        EXPECT_EQ(frame.width(), width) << "level " << level;
        EXPECT_EQ(frame.maximalWidth(), f.width);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Files, Jpeg2000Levels,
    ::testing::Values(kFullHd, J2kFile{"cam_odd420.jp2", 641, 361, Reference::FFmpeg420},
                      J2kFile{"cam_odd444.jp2", 641, 361, Reference::FFmpeg444},
                      J2kFile{"cam_rgb.j2k", 333, 199, Reference::OpjRgb},
                      J2kFile{"cam_grey.jp2", 201, 150, Reference::OpjGrey}),
    [](const ::testing::TestParamInfo<J2kFile>& info) {
        return std::string(info.param.name).substr(4, std::string(info.param.name).find('.') - 4);
    });

TEST(Jpeg2000, HostileInputFailsWithoutTouchingMemoryOutsideThePlanes)
{
    const QByteArray good = readFile(makeFile({"cam_odd420.jp2", 641, 361, Reference::FFmpeg420}));
    ASSERT_GT(good.size(), 1000);
    DecoderJPEG2000 decoder(1);
    VideoFrame untouched(8, 8, VideoFrame::Format_YUV420P, orvo::defaultBufferProperties);

    // Not JPEG 2000 at all, or nothing: the size query fails and the frame stays as it was.
    for (const QByteArray& junk : {QByteArray(), QByteArray("\xff\x4f"), QByteArray(5000, '\x5a'), good.left(40)}) {
        VideoFrame frame = untouched;
        EXPECT_FALSE(decodeBytes(decoder, junk, frame));
        EXPECT_TRUE(frame == untouched);
    }
    VideoFrame frame;
    EXPECT_FALSE(decoder.decode(nullptr, 100, frame, false));

    // Truncated code streams fail (strict decoding), at every cut.
    for (int cut : {good.size() / 8, good.size() / 2, good.size() - 3}) {
        VideoFrame f;
        EXPECT_FALSE(decodeBytes(decoder, good.left(cut), f)) << "cut at " << cut;
    }

    // A header announcing a huge picture is refused before decoding.
    QByteArray huge = readFile(makeFile(kFullHd));
    ASSERT_EQ(uchar(huge[2]), 0xFF);
    ASSERT_EQ(uchar(huge[3]), 0x51);  // SIZ: Xsiz at offset 8, Ysiz at 12
    for (int i : {8, 12}) {
        huge[i] = 0;
        huge[i + 1] = char(0xEA);
        huge[i + 2] = 0x60;
        huge[i + 3] = 0;
    }
    VideoFrame hugeFrame = untouched;
    EXPECT_FALSE(decodeBytes(decoder, huge, hugeFrame));
    EXPECT_TRUE(hugeFrame == untouched);

    // The decoder still works after all that.
    VideoFrame ok;
    EXPECT_TRUE(decodeBytes(decoder, good, ok));
    EXPECT_EQ(ok.width(), 321);
}

TEST(Jpeg2000, LibraryReplacesPlanesThatAreTooSmall)
{
    const QByteArray data = readFile(makeFile({"cam_odd420.jp2", 641, 361, Reference::FFmpeg420}));
    aj2k_handle* h = nullptr;
    ASSERT_EQ(aj2k_initjp2(&h, AJ2K_INIT_STRICT), 0);
    std::unique_ptr<aj2k_handle, void (*)(aj2k_handle*)> guard(h, aj2k_deinitjp2);
    int w = 0, ht = 0, comps = 0;
    const auto* bytes = reinterpret_cast<const uchar*>(data.constData());
    ASSERT_EQ(aj2k_jp2memgetdims(h, bytes, data.size(), AJ2K_INPUT_AUTO, &w, &ht, &comps), 0);
    EXPECT_EQ(w, 641);
    EXPECT_EQ(ht, 361);
    EXPECT_EQ(comps, 3);
    EXPECT_NE(aj2k_jp2memgetdims(h, bytes, data.size(), AJ2K_INPUT_J2K, &w, &ht, &comps), 0);  // a JP2 file
    EXPECT_EQ(w, 0);
    EXPECT_STRNE(aj2k_lasterror(h), "");

    // Level 1 of 641 x 361 is 321 x 181: larger than planes sized 320 x 180 by halving.
    unsigned char* y = new unsigned char[1];
    unsigned char* u = nullptr;
    unsigned char* v = new unsigned char[320 * 180 / 2];
    int ySize = 1, uSize = 0, vSize = 320 * 180 / 2, yBpl = 0, uBpl = 0, vBpl = 0, ow = 0, oh = 0;
    ASSERT_EQ(aj2k_jp2memtoraw_splanes(h, bytes, data.size(), AJ2K_INPUT_AUTO, &y, &ySize, &yBpl, &u, &uSize, &uBpl,
                                       &v, &vSize, &vBpl, &ow, &oh, 1, 8),
              0);
    EXPECT_EQ(ow, 321);
    EXPECT_EQ(oh, 181);
    EXPECT_GE(yBpl, 321);
    EXPECT_GE(uBpl, 161);
    EXPECT_GE(ySize, yBpl * oh);
    EXPECT_GE(uSize, uBpl * oh);
    EXPECT_GE(vSize, vBpl * oh);
    EXPECT_NE(aj2k_jp2memtoraw_splanes(h, bytes, data.size(), AJ2K_INPUT_AUTO, &y, &ySize, &yBpl, &u, &uSize, &uBpl,
                                       &v, &vSize, &vBpl, &ow, &oh, 1, 16),
              0);  // only 8-bit output
    EXPECT_EQ(ow, 0);
    delete[] y;
    delete[] u;
    delete[] v;
}

// Picture packets (the raw stream ends with a bare end-of-sequence unit) of a VC-2 file: 720 x
// 288 fields are 4:2:0; VC-2 allows 243 lines only without vertical subsampling.
std::vector<QByteArray> pictures(int height, QString* path = nullptr)
{
    const QString file = ffmpegFile(QString("cam_field%1.drc").arg(height),
                                    QString::asprintf("-f lavfi -i testsrc=size=720x%d:rate=25 -vf format=%s "
                                                      "-frames:v 3 -c:v vc2 -b:v 6M -f dirac",
                                                      height, height == 288 ? "yuv420p" : "yuv422p"));
    if (path)
        *path = file;
    std::vector<QByteArray> out;
    for (const auto& p : demuxVideo(file))
        if (p.data.size() > 100)
            out.push_back(p.data);
    return out;
}

struct Field {
    int height;
    unsigned char code;
};

class WaveletLevels : public ::testing::TestWithParam<Field> {};

TEST_P(WaveletLevels, MatchesFfmpegDecodeReducedTheSameWay)
{
    const Field field = GetParam();
    QString path;
    const std::vector<QByteArray> pics = pictures(field.height, &path);
    ASSERT_EQ(pics.size(), 3u);

    for (int level = 0; level <= 2; ++level) {
        SCOPED_TRACE("level " + std::to_string(level));
        DecoderWavelet decoder(720, field.height, level);
        EXPECT_EQ(decoder.getFormat(), field.code);
        EXPECT_EQ(decoder.scaleLevel(), level);
        const int w = 720 >> level, h = level < 2 ? field.height : field.height / 2;
        const std::vector<QByteArray> ref = ffmpegFrames(
            path, w, h, "yuv420p", QString("-vf scale=%1:%2:flags=bilinear").arg(w).arg(h));
        ASSERT_EQ(ref.size(), pics.size());

        // Out of order and repeated: every image stands on its own.
        for (int i : {2, 0, 1, 1}) {
            VideoFrame frame;
            ASSERT_TRUE(decodeBytes(decoder, pics[size_t(i)], frame, true)) << "picture " << i;
            EXPECT_EQ(frame.pixelFormat(), VideoFrame::Format_YUV420P);
            EXPECT_EQ(frame.getScaleX(), 1);
            EXPECT_EQ(frame.getScaleY(), level == 0 ? 2 : 1);
            ASSERT_TRUE(frame.map());
            EXPECT_EQ(frame.bytesPerLineU(), unsigned(((w / 2) + 1) & ~1));
            EXPECT_EQ(frame.heightU(), (h + 1) / 2);
            frame.unmap();
            const int diff = maxDiffYuv420p(frame, ref[size_t(i)], w, h);
            EXPECT_TRUE(diff >= 0 && diff <= 1) << "picture " << i << " differs by " << diff;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Fields, WaveletLevels, ::testing::Values(Field{288, 'p'}, Field{243, 'n'}),
                         [](const ::testing::TestParamInfo<Field>& info) {
                             return "lines" + std::to_string(info.param.height);
                         });

TEST(Wavelet, HostileInputFailsAndNeverWritesOutsideThePlanes)
{
    const std::vector<QByteArray> p288 = pictures(288);
    const std::vector<QByteArray> p243 = pictures(243);
    ASSERT_FALSE(p288.empty());
    ASSERT_FALSE(p243.empty());
    DecoderWavelet decoder(720, 288, 1);

    const QByteArray good = p288[0];
    for (const QByteArray& bad : {good.left(good.size() / 2), good.left(20), QByteArray(3000, 'B'), QByteArray(),
                                  p243[0] /* a field of another size */}) {
        VideoFrame frame;
        EXPECT_FALSE(decodeBytes(decoder, bad, frame, true));
        EXPECT_TRUE(frame.isValid());  // replaced by the new, unfilled picture
    }
    VideoFrame frame;
    EXPECT_TRUE(decodeBytes(decoder, good, frame, true));

    // An uninitialised library: message, false, frame untouched.
    DecoderWavelet broken(0, 288, 0);
    VideoFrame untouched(4, 4, VideoFrame::Format_YUV420P, orvo::defaultBufferProperties);
    VideoFrame f = untouched;
    EXPECT_FALSE(decodeBytes(broken, good, f, true));
    EXPECT_TRUE(f == untouched);
    EXPECT_FALSE(WaveletDecoder(721, 288, 0).isInitialized());  // odd output width
    EXPECT_EQ(WaveletDecoder(724, 243, 1).chromaBytesPerLine(), 182);  // 181 chroma samples, padded

    // Planes shorter than the layout: false, and the bytes behind the given ends stay as they were.
    WaveletDecoder lib(720, 288, 1);
    const int ySize = lib.outputWidth() * lib.outputHeight(), cSize = lib.chromaBytesPerLine() * lib.chromaLines();
    std::vector<unsigned char> y(size_t(ySize) + 64, 0xEE), u(size_t(cSize) + 64, 0xEE), v(size_t(cSize) + 64, 0xEE);
    QByteArray data = good;
    auto* d = reinterpret_cast<uchar*>(data.data());
    EXPECT_FALSE(lib.decode(d, data.size(), y.data(), u.data(), v.data(), y.data() + ySize, u.data() + cSize - 1,
                            v.data() + cSize));
    EXPECT_TRUE(std::all_of(y.begin(), y.end(), [](uchar b) { return b == 0xEE; }));
    EXPECT_TRUE(lib.decode(d, data.size(), y.data(), u.data(), v.data(), y.data() + ySize, u.data() + cSize,
                           v.data() + cSize));
    for (int i = 0; i < 64; ++i) {
        EXPECT_EQ(y[size_t(ySize + i)], 0xEE);
        EXPECT_EQ(u[size_t(cSize + i)], 0xEE);
        EXPECT_EQ(v[size_t(cSize + i)], 0xEE);
    }
}

}  // namespace
