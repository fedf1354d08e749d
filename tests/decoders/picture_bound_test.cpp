// The production bound on declared picture sizes: 64 Mpixel. Fuzz builds use a much
// smaller budget; these cases fail if that budget ever reaches a normal build.
#include "common/test_streams.h"
#include "orvo/aj2k.h"
#include "orvo/decoder.h"
#include "orvo/decoder_preferences.h"

#include <QBuffer>
#include <QFile>
#include <QImage>
#include <gtest/gtest.h>

using namespace orvo;
using namespace orvo::test;

namespace {

// A real JPEG of w x h (a gradient, so that it is not trivially small).
QByteArray jpegOf(int w, int h)
{
    QImage image(w, h, QImage::Format_RGB32);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            image.setPixel(x, y, qRgb(x & 255, y & 255, (x + y) & 255));
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "JPEG", 50);
    return bytes;
}

// The same JPEG declaring another size in its frame header.
QByteArray declaring(QByteArray jpeg, int w, int h)
{
    const int sof = jpeg.indexOf(QByteArray("\xff\xc0", 2));
    if (sof < 0)
        return QByteArray();
    jpeg[sof + 5] = char(h >> 8);
    jpeg[sof + 6] = char(h & 255);
    jpeg[sof + 7] = char(w >> 8);
    jpeg[sof + 8] = char(w & 255);
    return jpeg;
}

bool decodeJ(QByteArray payload, VideoFrame& frame)
{
    Decoder decoder;
    return decoder.decode('j', reinterpret_cast<unsigned char*>(payload.data()), payload.size(), frame, 0, true);
}

// A J2K code stream (one tile) whose size field declares w x h.
QByteArray j2kDeclaring(const QByteArray& codestream, quint32 w, quint32 h)
{
    QByteArray patched = codestream;
    auto put = [&](int at, quint32 v) {
        for (int i = 0; i < 4; ++i)
            patched[at + i] = char(v >> (24 - 8 * i));
    };
    // SOC, SIZ marker, Lsiz, Rsiz; then Xsiz, Ysiz, XOsiz, YOsiz, XTsiz, YTsiz.
    put(8, w);
    put(12, h);
    put(24, w);
    put(28, h);
    return patched;
}

}  // namespace

TEST(PictureBoundTest, SixtyFourMegapixelsHoldOutsideFuzzBuilds)
{
    PreferencesGuard guard;
    // Above 64 Mpixel is refused; a 2 Mpixel picture (twice a fuzz build's budget) decodes,
    // through FFmpeg and through Qt's reader.
    const QByteArray jpeg = jpegOf(2048, 1024);
    ASSERT_FALSE(jpeg.isEmpty());
    for (bool throughQt : {false, true}) {
        SCOPED_TRACE(throughQt ? "Qt" : "FFmpeg");
        DecoderPreferences::instance()->decodeMJPEGThroughQImage(throughQt);
        const QByteArray header = throughQt ? QByteArray(384, '\0') : QByteArray();
        VideoFrame frame;
        ASSERT_TRUE(decodeJ(header + jpeg, frame));
        EXPECT_EQ(frame.width(), 2048);
        EXPECT_EQ(frame.height(), 1024);
        VideoFrame refused;
        EXPECT_FALSE(decodeJ(header + declaring(jpeg, 8193, 8192), refused));
        EXPECT_TRUE(refused.isNull());
    }

    // JPEG 2000: the header alone tells; exactly 64 Mpixel is accepted.
    const QString path =
        ffmpegFile(QStringLiteral("bound_64x64_codestream.j2k"),
                   QStringLiteral("-f lavfi -i testsrc2=size=64x64 -frames:v 1 -c:v jpeg2000 -format j2k -f image2pipe"));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray j2k = file.readAll();
    aj2k_handle* handle = nullptr;
    ASSERT_EQ(aj2k_initjp2(&handle, 0), AJ2K_OK);
    int w = 0, h = 0, components = 0;
    const QByteArray largest = j2kDeclaring(j2k, 8192, 8192);
    EXPECT_EQ(aj2k_jp2memgetdims(handle, reinterpret_cast<const unsigned char*>(largest.constData()), largest.size(),
                                 AJ2K_INPUT_AUTO, &w, &h, &components),
              AJ2K_OK);
    EXPECT_EQ(w, 8192);
    EXPECT_EQ(h, 8192);
    const QByteArray above = j2kDeclaring(j2k, 8193, 8192);
    EXPECT_EQ(aj2k_jp2memgetdims(handle, reinterpret_cast<const unsigned char*>(above.constData()), above.size(),
                                 AJ2K_INPUT_AUTO, &w, &h, &components),
              AJ2K_ERR_SIZE);
    aj2k_deinitjp2(handle);
}
