// Inputs that once made swscale write past a plane. AddressSanitizer cannot see those writes
// (libswscale is not instrumented): this suite also runs under valgrind memcheck.
#include "orvo/decoder.h"

#include <QFile>
#include <gtest/gtest.h>

#include <vector>

namespace {

QByteArray readInput(const char* name)
{
    QFile file(QStringLiteral(ORVO_SOURCE_DIR "/tests/data/") + name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// A hostile MPEG-4 stream whose odd-width, full-range picture goes through the decoder's
// conversion into a pooled plane: the last row of that conversion was written 8 bytes past
// the plane.
TEST(SwsOverrun, Mpeg4PictureConvertedIntoPooledPlanes)
{
    const QByteArray input = readInput("mpeg4_odd_width_sws_overrun.bin");
    ASSERT_FALSE(input.isEmpty());
    // Byte 0 is the fuzz harness's option byte (MPEG-4, one payload).
    const QByteArray payload = input.mid(1);
    Decoder decoder;
    std::vector<unsigned char> bytes(payload.begin(), payload.end());
    orvo::VideoFrame frame;
    ASSERT_TRUE(decoder.decode('m', bytes.data(), int(bytes.size()), frame, 0, false));
    ASSERT_TRUE(frame.map());
    // Every sample is read so that memcheck sees a plane left unwritten.
    unsigned sum = 0;
    for (int y = 0; y < frame.heightY(); ++y)
        for (int x = 0; x < frame.widthY(); ++x)
            sum += frame.lineY(y)[x];
    for (int y = 0; y < frame.heightU(); ++y)
        for (int x = 0; x < frame.widthU(); ++x)
            sum += frame.lineU(y)[x] + frame.lineV(y)[x];
    frame.unmap();
    EXPECT_GT(frame.widthY() % 8, 0) << "the picture must have a width swscale does not vectorise whole";
    EXPECT_GT(sum, 0u);
}

}  // namespace
