// Wavelet fields (VC-2 made by FFmpeg's vc2 encoder) through DecoderWavelet and the wavelet
// library, compared with FFmpeg's own decode reduced the same way.
#include "common/test_streams.h"

#include <algorithm>
#include "orvo/decoder_wavelet.h"
#include "orvo/wavelet_decoder.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace orvo::test;
using orvo::DecoderWavelet;
using orvo::VideoFrame;
using orvo::WaveletDecoder;

namespace {

// Picture packets (the raw stream ends with a bare end-of-sequence unit) of a VC-2 file: 720 x
// 288 fields are 4:2:0; VC-2 allows 243 lines only without vertical subsampling.
std::vector<QByteArray> pictures(int height, QString* path = nullptr)
{
    const QString file = ffmpegFile(QString("cam_field%1.drc").arg(height),
                                    QString("-f lavfi -i testsrc=size=720x%1:rate=25 -vf format=%2 -frames:v 3 "
                                            "-c:v vc2 -b:v 6M -f dirac")
                                        .arg(height)
                                        .arg(height == 288 ? "yuv420p" : "yuv422p"));
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
