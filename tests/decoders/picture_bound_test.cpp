// The production bound on declared picture sizes: 64 Mpixel. Fuzz builds use a much
// smaller budget; these cases fail if that budget ever reaches a normal build.
#include "common/test_streams.h"
#include "orvo/aj2k.h"
#include "orvo/decoder.h"
#include "orvo/decoder_preferences.h"

#include <gtest/gtest.h>

using namespace orvo;
using namespace orvo::test;

namespace {

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
