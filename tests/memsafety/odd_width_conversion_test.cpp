// Every converting path of the library at widths 1 to 33, where swscale's vector code writes
// past rows it does not fill whole, and inputs that once made swscale write past a plane.
// AddressSanitizer cannot see those writes (libswscale is not instrumented): run under
// memcheck, a write past any plane fails the suite; the pixel checks catch a plane whose rows
// an overrun painted over.
#include "common/test_streams.h"
#include "orvo/decoder.h"
#include "orvo/decoder_preferences.h"
#include "orvo/ffmpeg_module.h"
#include "orvo/qimage_import.h"

#include <QCoreApplication>
#include <QFile>
#include <QImage>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <vector>

using namespace orvo;
using namespace orvo::test;

namespace {

constexpr int kMaxWidth = 33;
constexpr int kHeight = 7;
// JPEG's own loss on the test picture; rows painted over by an overrun are far further off.
constexpr int kJpegError = 16;

// The test picture's full-range samples: smooth, so that JPEG keeps it within a few levels.
int lumaAt(int x, int y) { return 40 + 4 * x + 9 * y; }
int cbAt(int x, int) { return 100 + 2 * x; }
int crAt(int, int y) { return 150 - 3 * y; }

// A w x kHeight picture in a full-range JPEG layout ("yuvj420p" or "yuvj422p"), written as raw
// planes and encoded by FFmpeg's MJPEG encoder.
QByteArray encodeJpeg(int w, const QString& format)
{
    const int dy = format == "yuvj420p" ? 2 : 1, cw = (w + 1) / 2, ch = (kHeight + dy - 1) / dy;
    QByteArray raw(w * kHeight + 2 * cw * ch, '\0');
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < w; ++x)
            raw[y * w + x] = char(lumaAt(x, y));
    for (int y = 0; y < ch; ++y)
        for (int x = 0; x < cw; ++x) {
            raw[w * kHeight + y * cw + x] = char(cbAt(2 * x, dy * y));
            raw[w * kHeight + cw * ch + y * cw + x] = char(crAt(2 * x, dy * y));
        }
    // The raw planes are this process's own: concurrent runs share the data directory.
    const QString name = QString("odd_width_%1_%2").arg(w).arg(format);
    QFile file(QString("%1/%2.%3.yuv").arg(dataDir(), name).arg(QCoreApplication::applicationPid()));
    if (!file.open(QIODevice::WriteOnly) || file.write(raw) != raw.size())
        return QByteArray();
    file.close();
    const QByteArray jpeg = readFile(
        ffmpegFile(name + ".jpg", QString("-f rawvideo -pix_fmt %1 -s %2x%3 -i %4 -q:v 2")
                                      .arg(format, QString::number(w), QString::number(kHeight), file.fileName())));
    file.remove();
    return jpeg;
}

VideoFrame decodeOne(unsigned char type, const QByteArray& payload)
{
    VideoFrame frame;
    const auto result = Decoder().decodeImage(Image(type, payload, 1, 0, true), frame);
    return result == Decoder::ImageResult::Picture ? frame : VideoFrame();
}

// Largest difference between the frame's studio-range luma and the test picture's; -1 when the
// frame is not a w x kHeight picture.
int lumaError(VideoFrame frame, int w)
{
    if (frame.width() != w || frame.height() != kHeight || !frame.map())
        return -1;
    int diff = 0;
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < w; ++x)
            diff = std::max(diff, std::abs(frame.lineY(y)[x] - (16 + lumaAt(x, y) * 219 / 255)));
    frame.unmap();
    return diff;
}

// Largest channel difference of two images (1000 when their sizes differ).
int maxDiff(const QImage& a, const QImage& b)
{
    auto bytes = [](const QImage& image) {
        const QImage rgb = image.convertToFormat(QImage::Format_RGB32);
        QByteArray out;
        for (int y = 0; y < rgb.height(); ++y)
            out.append(reinterpret_cast<const char*>(rgb.constScanLine(y)), rgb.width() * 4);
        return out;
    };
    return a.size() == b.size() ? orvo::test::maxDiff(bytes(a), bytes(b)) : 1000;
}

// Grey, so that every chroma sample is neutral and a round trip returns the picture closely
// whatever the chroma filters do at the picture's edges.
QImage greyRamp(int w)
{
    QImage image(w, kHeight, QImage::Format_RGB32);
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < w; ++x)
            image.setPixel(x, y, qRgb(lumaAt(x, y), lumaAt(x, y), lumaAt(x, y)));
    return image;
}

// Decoded pictures that go through swscale: FFmpeg's decoder into pooled planes (4:2:0 and
// 4:2:2 full range) and the MxPEG library (4:2:2 I-frames).
TEST(OddWidths, DecodedPicturesKeepTheirPixels)
{
    PreferencesGuard restore;
    DecoderPreferences* prefs = DecoderPreferences::instance();
    for (int w = 1; w <= kMaxWidth; ++w) {
        SCOPED_TRACE("width " + std::to_string(w));
        for (const QString format : {"yuvj420p", "yuvj422p"}) {
            SCOPED_TRACE(format.toStdString());
            const QByteArray jpeg = encodeJpeg(w, format);
            ASSERT_FALSE(jpeg.isEmpty());
            prefs->decodeMJPEGThroughQImage(false);
            const int viaFfmpeg = lumaError(decodeOne('j', jpeg), w);
            EXPECT_TRUE(viaFfmpeg >= 0 && viaFfmpeg <= kJpegError) << viaFfmpeg;
            if (format == "yuvj422p") {
                prefs->useMxPEGNative(true);
                const int viaMxpeg = lumaError(decodeOne('x', jpeg), w);
                EXPECT_TRUE(viaMxpeg >= 0 && viaMxpeg <= kJpegError) << viaMxpeg;
            }
        }
    }
}

// QImage to frame and back (through the frame operations and FFmpegModule's static
// conversions), scaling and format conversion, at every width and in every layout, into planes
// as tight as a client may hand them with guard bytes right after each: nothing is written past
// a plane (in every build; memcheck watches beyond the guards), and the pictures keep their pixels.
TEST(OddWidths, ConversionsStayInsideTightPlanesAndKeepTheirPixels)
{
    constexpr int kGuard = 64;
    std::vector<std::unique_ptr<std::vector<uchar>>> blocks;
    auto plane = [&](int w, int h) {
        blocks.push_back(std::make_unique<std::vector<uchar>>(size_t(w * h + kGuard), 0xEE));
        return QVideoFrame(new MemoryVideoBuffer(blocks.back()->data(), w * h, w, nullptr, 0, false), QSize(w, h),
                           QVideoFrame::Format_Y8);
    };
    auto guardsIntact = [&] {
        for (const auto& b : blocks)
            if (!std::all_of(b->end() - kGuard, b->end(), [](uchar v) { return v == 0xEE; }))
                return false;
        return true;
    };
    for (int w = 1; w <= kMaxWidth; ++w) {
        SCOPED_TRACE("width " + std::to_string(w));
        const QImage image = greyRamp(w);
        VideoFrame grey(w * 3, kHeight * 2, VideoFrame::Format_YUV420P, defaultBufferProperties);
        ASSERT_TRUE(grey.map(QAbstractVideoBuffer::WriteOnly));
        grey.fillYuv(0x328080, Rect{0, 0, 0, 0});
        grey.unmap();
        for (auto format : {VideoFrame::Format_YUV420P, VideoFrame::Format_YUV422P, VideoFrame::Format_YUV444P}) {
            SCOPED_TRACE("format " + std::to_string(int(format)));
            const int cw = VideoFrameQt::planeUVWidth(format, w), ch = VideoFrameQt::planeUVHeight(format, kHeight);
            VideoFrame frame(plane(w, kHeight), plane(cw, ch), plane(cw, ch), format);
            ASSERT_TRUE(FFmpegModule::qimageToVideoFrame(image, frame));
            int luma = lumaError(frame, w);
            EXPECT_TRUE(luma >= 0 && luma <= 1) << luma;
            ASSERT_TRUE(frame.map());
            QImage back(w, kHeight, QImage::Format_RGB32);
            ASSERT_TRUE(FFmpegModule::videoFrameToQImage(frame, back));
            frame.unmap();
            // swscale's chroma filters weigh the edge of odd widths wrongly (for FFmpeg itself
            // too): colours are compared at even widths, luma at every width.
            if (w % 2 == 0)
                EXPECT_LE(maxDiff(back, image), 3);
            if (format != VideoFrame::Format_YUV444P) {  // qimage2videoFrame writes 4:2:0 and 4:2:2 only
                ASSERT_TRUE(qimage2videoFrame(image, frame, 0, 0, false, 0, 1));
                const QImage rendered = frame.convertToQImage(VideoFrame::Format_RGB32, 0, 0, -1, -1, 0, 0, 1, 1, 1, 1);
                luma = lumaError(frame, w);
                EXPECT_TRUE(luma >= 0 && luma <= 1) << luma;
                if (w % 2 == 0)
                    EXPECT_LE(maxDiff(rendered, image), 3);
            }
            EXPECT_TRUE(frame.convertToFormat(VideoFrame::Format_YUV422P, defaultBufferProperties).isValid());
            ASSERT_TRUE(grey.scaleTo(frame, 0, 0, -1, -1));
            EXPECT_EQ(planeBytes(frame, Plane::Y), QByteArray(w * kHeight, char(0x32)));  // the whole picture
            EXPECT_TRUE(guardsIntact());
        }
    }
}

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
