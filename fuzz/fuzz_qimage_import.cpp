// QImage import: qimage2videoFrame at any position, enlarging or not, with any line
// divisor; qImageAlphaChannel2videoFrame; and the frames made from a QImage. The input is
// a 7-byte header, then the image's pixels (repeated to fill it):
//   0 options: bits 0..2 image format, 3 enlarge, 4..5 frame format, 6 frame mapped by
//     the caller, 7 line divisor 2 (else 1; 0 and 3 come from byte 5)
//   1, 2 image width and height (1..64), 3, 4 frame width and height (1..64)
//   5, 6 x and y, signed (negative counts from the right and bottom)
#include "fuzz/fuzz_input.h"
#include "fuzz/picture_check.h"
#include "orvo/qimage_import.h"
#include "orvo/video_frame.h"

#include <QImage>
#include <cstring>

namespace {

constexpr QImage::Format kImageFormats[8] = {QImage::Format_RGB32, QImage::Format_ARGB32, QImage::Format_RGB888,
                                             QImage::Format_ARGB32_Premultiplied, QImage::Format_Grayscale8,
                                             QImage::Format_RGB16, QImage::Format_Indexed8, QImage::Format_RGBA8888};
constexpr orvo::VideoFrame::OrvoPixelFormat kFrameFormats[4] = {
    orvo::VideoFrame::Format_YUV420P, orvo::VideoFrame::Format_YUV422P, orvo::VideoFrame::Format_YUV444P,
    orvo::VideoFrame::Format_YUV420P};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    orvo::fuzz::silenceQtDebug();
    if (size < 7)
        return 0;
    const uint8_t options = data[0];
    const int iw = 1 + (data[1] & 63), ih = 1 + (data[2] & 63);
    const int fw = 1 + (data[3] & 63), fh = 1 + (data[4] & 63);
    const int x = int(int8_t(data[5])), y = int(int8_t(data[6]));
    const bool enlarge = (options & 8) != 0;
    // Divisors 0 and 3 now and then: the function must cope with any value.
    int lineDivisor = (options & 0x80) ? 2 : 1;
    if ((data[5] & 0x81) == 0x81)
        lineDivisor = (data[6] & 1) ? 3 : 0;

    QImage image(iw, ih, kImageFormats[options & 7]);
    if (image.format() == QImage::Format_Indexed8) {
        image.setColorCount(4);
        for (int i = 0; i < 4; ++i)
            image.setColor(i, qRgba(i * 80, 255 - i * 60, i * 30, 255 - i * 20));
    }
    const uint8_t* pixels = data + 7;
    const size_t n = size - 7;
    for (int row = 0; row < ih; ++row) {
        uchar* line = image.scanLine(row);
        const int bytes = int(image.bytesPerLine());
        for (int i = 0; i < bytes; ++i)
            line[i] = n ? pixels[(size_t(row) * size_t(bytes) + size_t(i)) % n] : uchar(row + i);
    }
    if (image.format() == QImage::Format_Indexed8)
        for (int row = 0; row < ih; ++row)
            for (int i = 0; i < iw; ++i)
                image.scanLine(row)[i] &= 3;

    orvo::VideoFrame frame(fw, fh, kFrameFormats[(options >> 4) & 3], orvo::defaultBufferProperties);
    // A new frame's samples are undefined, as a new QImage's are: give them a value so that the
    // picture check reads only what is defined (memcheck would flag the rest).
    if (frame.map(QAbstractVideoBuffer::WriteOnly)) {
        for (int row = 0; row < frame.heightY(); ++row)
            std::memset(frame.lineY(row), 0x10, size_t(frame.widthY()));
        for (int row = 0; row < frame.heightU(); ++row)
            std::memset(frame.lineU(row), 0x80, size_t(frame.widthU()));
        for (int row = 0; row < frame.heightV(); ++row)
            std::memset(frame.lineV(row), 0x80, size_t(frame.widthV()));
        frame.unmap();
    }
    if (options & 0x40)
        frame.map(QAbstractVideoBuffer::ReadWrite);
    orvo::qimage2videoFrame(image, frame, x, y, enlarge, 0, lineDivisor);
    orvo::fuzz::readWholePicture(frame);
    // The alpha copy wants the frame's size: give it that size now and then.
    const QImage alphaSource = (data[6] & 2) ? image.scaled(frame.width(), frame.height()) : image;
    orvo::qImageAlphaChannel2videoFrame(alphaSource, frame);
    if (frame.isMapped())
        frame.unmap();

    // Frames holding the picture itself, one with its own body, one with the metadata of another.
    orvo::VideoFrame wrapped(image);
    orvo::fuzz::readWholePicture(wrapped);
    QImage copy = image;
    orvo::VideoFrame withMetadata(copy, frame);
    orvo::fuzz::readWholePicture(withMetadata);
    return 0;
}
