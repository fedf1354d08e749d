// Streams with references decoded small: MPEG-4 Visual and MxPEG at FFmpeg's reduced
// resolution equal FFmpeg's own reduced-resolution decode of the same stream at every factor
// (odd sizes too), and the factor follows the setting from the next key picture on, every
// image answered once. JPEG 2000 and wavelet fields pick their scale level from the size.
#include "async/async_test_util.h"
#include "common/support.h"
#include "common/test_streams.h"
#include "decoders/jpeg_header.h"
#include "decoders/mpeg4_header.h"
#include "orvo/concurrent_decoder.h"
#include "orvo/decoder.h"
#include "orvo/decoder_jpeg2000.h"
#include "orvo/decoder_preferences.h"
#include "orvo/decoder_wavelet.h"

#include <QFile>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>

using namespace orvo;
using namespace orvo::test;

namespace {

int ceilShift(int v, int k) { return (v + (1 << k) - 1) >> k; }

// MPEG-4 Visual of an odd size, a key picture (VOL header + I-VOP) every 4 pictures, closed
// groups; `bFrames` B-frames between references.
constexpr int kMpegW = 323, kMpegH = 243;
QString mpeg4Clip(int bFrames)
{
    return ffmpegFile(QString("rr_mpeg4_bf%1.avi").arg(bFrames),
                      QString::asprintf("-f lavfi -i testsrc2=size=320x240:rate=25 -vf scale=%d:%d -frames:v 16 "
                                        "-c:v mpeg4 -q:v 4 -g 4 -bf %d -flags +cgop -sc_threshold 1000000000",
                                        kMpegW, kMpegH, bFrames));
}

// MxPEG as cameras send it: I-frames are JPEG pictures of FFmpeg's mjpeg encoder, P-frames a
// comment "MXM" with the bitmask of the 16 x 16 macroblocks they carry, the tables and a scan.
constexpr int kMxW = 327, kMxH = 245, kMbW = (kMxW + 15) / 16, kMbH = (kMxH + 15) / 16;

QByteArray mxJpeg(int frameNumber)
{
    return readFile(ffmpegFile(QString("rr_mx_%1.jpg").arg(frameNumber),
                               QString::asprintf("-f lavfi -i testsrc2=size=320x240:rate=25 -vf "
                                                 "trim=start_frame=%d,scale=%d:%d -frames:v 1 -pix_fmt yuvj420p "
                                                 "-c:v mjpeg -q:v 3",
                                                 frameNumber, kMxW, kMxH)));
}

QByteArray pFrame(const QByteArray& b, int count) { return mxpegPFrame(b, kMxW, kMxH, count); }

struct MxStream {
    std::vector<Image> images;
    QString path;  // the same images as an MxPEG clip file, for the ffmpeg command line
};

// I P P P I P P P I P: key pictures at 0, 4 and 8.
MxStream mxStream()
{
    const QByteArray a = mxJpeg(0), b = mxJpeg(15), c = mxJpeg(30);
    const std::vector<QByteArray> payloads = {a, pFrame(b, kMbW * 3 + 7), pFrame(c, kMbW * 5), pFrame(a, 40),
                                              b, pFrame(c, kMbW * 9), pFrame(a, 11), pFrame(b, kMbW * kMbH),
                                              c, pFrame(a, kMbW * 4 + 1)};
    MxStream s;
    QByteArray file;
    for (size_t i = 0; i < payloads.size(); ++i) {
        s.images.emplace_back('x', payloads[i], i + 1, qint64(i) * 40, i % 4 == 0);
        file += payloads[i];
    }
    // The clip demuxer gives a picture once the next one begins: one more closes the last.
    file += a;
    s.path = dataDir() + "/rr_mx_stream.mxg";
    QFile out(s.path);
    EXPECT_TRUE(out.open(QIODevice::WriteOnly));
    out.write(file);
    return s;
}

// Every image through `decoder` one by one, `sizeBefore(i)` set before image i, then the
// drain: the pictures in output order. Each image must be answered exactly once.
std::vector<VideoFrame> run(Decoder& decoder, const std::vector<Image>& images,
                            const std::function<QSize(size_t)>& sizeBefore)
{
    std::vector<VideoFrame> frames;
    std::map<quint64, int> answers;
    auto ended = [&] {
        for (const Decoder::EndedImage& e : decoder.takeImagesWithoutPicture())
            ++answers[e.image.id()];
    };
    for (size_t i = 0; i < images.size(); ++i) {
        decoder.setMaxOutputSize(sizeBefore(i));
        VideoFrame frame;
        const Decoder::ImageResult r = decoder.decodeImage(images[i], frame);
        if (r == Decoder::ImageResult::Picture)
            frames.push_back(std::exchange(frame, VideoFrame()));
        else if (r == Decoder::ImageResult::Failed)
            ++answers[images[i].id()];
        while (decoder.takePicture(frame))
            frames.push_back(std::exchange(frame, VideoFrame()));
        ended();
    }
    VideoFrame frame;
    while (decoder.drain(frame))
        frames.push_back(std::exchange(frame, VideoFrame()));
    ended();
    for (const VideoFrame& f : frames)
        ++answers[f.id()];
    for (const Image& image : images)
        EXPECT_EQ(answers[image.id()], 1) << "image " << image.id();
    EXPECT_EQ(answers.size(), images.size());
    return frames;
}

// A stream of images, the file FFmpeg reads the same pictures from, and how it reads it.
struct StreamCase {
    const char* name;
    std::vector<Image> images;
    QString path;
    QSize full;
    QString refArgs;
};

QSize sizeOf(const VideoFrame& f) { return QSize(f.width(), f.height()); }

// Every picture equals the reference picture of the same place, at the reference size.
void expectEqual(const std::vector<VideoFrame>& got, const std::vector<QByteArray>& ref, const QSize& size,
                 size_t from = 0, size_t to = SIZE_MAX)
{
    ASSERT_EQ(got.size(), ref.size());
    for (size_t i = from; i < std::min(to, got.size()); ++i) {
        ASSERT_EQ(sizeOf(got[i]), size) << "picture " << i;
        EXPECT_EQ(maxDiffYuv420p(got[i], ref[i], size.width(), size.height()), 0) << "picture " << i;
    }
}

}  // namespace

TEST(ReducedResolution, Mpeg4AndMxpegDecodeSmallAsFFmpegDoesAtEveryFactor)
{
    const MxStream mx = mxStream();
    const std::vector<StreamCase> cases = {
        {"mpeg4", toImages(demuxVideo(mpeg4Clip(0)), 'm'), mpeg4Clip(0), {kMpegW, kMpegH}, QString()},
        {"mpeg4 with B-frames", toImages(demuxVideo(mpeg4Clip(2)), 'm'), mpeg4Clip(2), {kMpegW, kMpegH}, QString()},
        {"mxpeg", mx.images, mx.path, {kMxW, kMxH}, "-fps_mode passthrough"},
    };
    for (const StreamCase& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_GE(c.images.size(), 10u);
        for (int k = 0; k <= 3; ++k) {
            SCOPED_TRACE(k);
            const QSize size(ceilShift(c.full.width(), k), ceilShift(c.full.height(), k));
            auto ref = ffmpegFrames(c.path, size.width(), size.height(), "yuv420p", c.refArgs,
                                    QString("-lowres %1").arg(k));
            ref.resize(std::min(ref.size(), c.images.size()));
            Decoder decoder;
            const auto got = run(decoder, c.images, [&](size_t) { return k ? size : QSize(); });
            expectEqual(got, ref, size);
            if (!got.empty())
                EXPECT_EQ(got[0].id(), c.images[0].id());
        }
    }
}

TEST(ReducedResolution, FactorChangesAtTheNextKeyPictureAndEveryImageIsAnsweredOnce)
{
    // MPEG-4 without B-frames and MxPEG: key pictures at 0, 4, 8 (and 12).
    const MxStream mx = mxStream();
    for (const StreamCase& c : {StreamCase{"mpeg4", toImages(demuxVideo(mpeg4Clip(0)), 'm'), mpeg4Clip(0),
                                           {kMpegW, kMpegH}, QString()},
                                StreamCase{"mxpeg", mx.images, mx.path, {kMxW, kMxH}, "-fps_mode passthrough"}}) {
        SCOPED_TRACE(c.name);
        const std::vector<Image>& images = c.images;
        const QSize full = c.full;
        auto at = [&](int k) { return QSize(ceilShift(full.width(), k), ceilShift(full.height(), k)); };
        auto refAt = [&](int k) {
            auto ref = ffmpegFrames(c.path, at(k).width(), at(k).height(), "yuv420p", c.refArgs,
                                    QString("-lowres %1").arg(k));
            ref.resize(std::min(ref.size(), images.size()));
            return ref;
        };
        // Full until 2; 1/4 asked from 2 (a P-picture): scaled after a full decode until the
        // key picture at 4, decoded at 1/4 from there; 1/2 asked from 6: the 1/4 pictures go
        // out as they are until 8, then 1/2; cleared from 9: 1/2 until the next key picture.
        Decoder decoder;
        const auto got = run(decoder, images, [&](size_t i) {
            return i < 2 ? QSize() : i < 6 ? at(2) : i < 9 ? at(1) : QSize();
        });
        ASSERT_EQ(got.size(), images.size());
        const auto full0 = refAt(0), quarter = refAt(2), half = refAt(1);
        expectEqual(got, full0, full, 0, 2);
        ASSERT_EQ(quarter.size(), got.size());
        for (size_t i = 2; i < 4; ++i) {  // fitted after a full decode, not decoded small
            ASSERT_EQ(sizeOf(got[i]), at(2)) << i;
            EXPECT_NE(maxDiffYuv420p(got[i], quarter[i], at(2).width(), at(2).height()), 0) << i;
        }
        expectEqual(got, quarter, at(2), 4, 8);
        expectEqual(got, half, at(1), 8, std::min<size_t>(12, images.size()));
        if (images.size() > 12)
            expectEqual(got, full0, full, 12);
        for (size_t i = 0; i < got.size(); ++i)
            EXPECT_EQ(got[i].id(), images[i].id());
    }
}

TEST(ReducedResolution, MxpegThroughTheMxpegLibraryDecodesSmallToo)
{
    // The library hands JPEG's full-range samples over as they are: FFmpeg's reference stays
    // in yuvj420p. Every factor, then the size changed mid-stream as for the default path.
    const MxStream mx = mxStream();
    struct NativeMxpeg {
        const bool was = DecoderPreferences::instance()->isUsedMxPEGNative();
        NativeMxpeg() { DecoderPreferences::instance()->useMxPEGNative(true); }
        ~NativeMxpeg() { DecoderPreferences::instance()->useMxPEGNative(was); }
    } native;
    auto at = [](int k) { return QSize(ceilShift(kMxW, k), ceilShift(kMxH, k)); };
    auto refAt = [&](int k) {
        auto ref = ffmpegFrames(mx.path, at(k).width(), at(k).height(), "yuvj420p", "-fps_mode passthrough",
                                QString("-lowres %1").arg(k));
        ref.resize(std::min(ref.size(), mx.images.size()));
        return ref;
    };
    for (int k = 0; k <= 3; ++k) {
        SCOPED_TRACE(k);
        Decoder decoder;
        const auto got = run(decoder, mx.images, [&](size_t) { return k ? at(k) : QSize(); });
        expectEqual(got, refAt(k), at(k));
    }
    Decoder decoder;
    const auto got = run(decoder, mx.images, [&](size_t i) {
        return i < 2 ? QSize() : i < 6 ? at(2) : i < 9 ? at(1) : QSize();
    });
    expectEqual(got, refAt(0), at(0), 0, 2);
    for (size_t i = 2; i < 4; ++i)
        EXPECT_EQ(sizeOf(got[i]), at(2)) << i;
    expectEqual(got, refAt(2), at(2), 4, 8);
    expectEqual(got, refAt(1), at(1), 8);
}

TEST(ReducedResolution, Mpeg4IVopsWithoutTheirHeadersStartFromTheLastHeaders)
{
    // Headers only in the first payload, as some cameras send them: the later I-VOPs are key
    // pictures all the same, the decoder opened there is given the first payload's headers.
    const auto packets = demuxVideo(mpeg4Clip(0));
    ASSERT_EQ(packets.size(), 16u);
    std::vector<Image> images;
    QByteArray stream;
    for (size_t i = 0; i < packets.size(); ++i) {
        QByteArray p = packets[i].data;
        if (i > 0 && packets[i].key) {
            const int gov = p.indexOf(QByteArray("\x00\x00\x01\xb3", 4));
            const int vop = p.indexOf(QByteArray("\x00\x00\x01\xb6", 4));
            ASSERT_GT(vop, 0) << i;  // the headers were there, in front
            p = p.mid(gov >= 0 && gov < vop ? gov : vop);
        }
        images.emplace_back('m', p, i + 1, qint64(i) * 40, packets[i].key);
        stream += p;
    }
    const QString path = dataDir() + "/rr_mpeg4_headers_once.m4v";
    QFile out(path);
    ASSERT_TRUE(out.open(QIODevice::WriteOnly));
    out.write(stream);
    out.close();
    auto at = [](int k) { return QSize(ceilShift(kMpegW, k), ceilShift(kMpegH, k)); };
    const auto quarter =
        ffmpegFrames(path, at(2).width(), at(2).height(), "yuv420p", "-fps_mode passthrough", "-f m4v -lowres 2");
    const auto full = ffmpegFrames(path, kMpegW, kMpegH, "yuv420p", "-fps_mode passthrough", "-f m4v");
    Decoder decoder;
    const auto got = run(decoder, images, [&](size_t i) { return i >= 2 && i < 9 ? at(2) : QSize(); });
    expectEqual(got, full, at(0), 0, 2);
    expectEqual(got, quarter, at(2), 4, 12);
    expectEqual(got, full, at(0), 12);
}

TEST(ReducedResolution, HeldPicturesFormatSwitchesAndThePoolKeepEveryAnswer)
{
    // With B-frames the decoder holds a picture when the factor changes: it comes out first,
    // at its own factor, and the pictures from the key picture on are FFmpeg's own.
    const QString path = mpeg4Clip(2);
    const auto images = toImages(demuxVideo(path), 'm');
    ASSERT_EQ(images.size(), 16u);
    const QSize full(kMpegW, kMpegH), eighth(ceilShift(kMpegW, 3), ceilShift(kMpegH, 3));
    const auto fullRef = ffmpegFrames(path, kMpegW, kMpegH);
    {
        Decoder decoder;
        const auto got = run(decoder, images, [&](size_t i) { return i >= 1 && i < 9 ? eighth : QSize(); });
        // Pictures shown from 12 on were all decoded after the key picture at 12.
        expectEqual(got, fullRef, full, 12);
        for (size_t i = 0; i < 12; ++i)
            EXPECT_TRUE(sizeOf(got[i]) == full || sizeOf(got[i]) == eighth) << i;
    }
    // Switching formats and back with a size set: the MPEG-4 decoder begins afresh at 1/8.
    const auto eighthRef = ffmpegFrames(path, eighth.width(), eighth.height(), "yuv420p", QString(), "-lowres 3");
    ASSERT_EQ(eighthRef.size(), images.size());
    {
        const auto jpeg = toImages(demuxVideo(ffmpegFile("rr_switch.avi", "-f lavfi -i testsrc2=size=640x480:rate=25 "
                                                                          "-frames:v 2 -c:v mjpeg -q:v 3")),
                                   'j', 100);
        const auto again = toImages(demuxVideo(path), 'm', 200);
        std::vector<Image> mixed(images.begin(), images.begin() + 6);
        mixed.insert(mixed.end(), jpeg.begin(), jpeg.end());
        mixed.insert(mixed.end(), again.begin(), again.end());
        Decoder decoder;
        const auto got = run(decoder, mixed, [&](size_t) { return eighth; });
        ASSERT_EQ(got.size(), mixed.size());
        // The switch drains the first run: its pictures (at 1/8, in display order: I0 B1 B2 P3
        // I4, then P7, sent before B5 and B6) come out before the JPEG's.
        const size_t shown[] = {0, 1, 2, 3, 4, 7};
        for (size_t i = 0; i < 6; ++i) {
            ASSERT_EQ(sizeOf(got[i]), eighth) << i;
            EXPECT_EQ(maxDiffYuv420p(got[i], eighthRef[shown[i]], eighth.width(), eighth.height()), 0) << i;
        }
        EXPECT_EQ(got[6].id(), 100u);
        EXPECT_EQ(sizeOf(got[6]), QSize(640, 480).scaled(eighth, Qt::KeepAspectRatio));
        const std::vector<VideoFrame> last(got.end() - 16, got.end());
        expectEqual(last, eighthRef, eighth);
    }
    // Pooled: the same pictures, one answer per image.
    {
        const QString plain = mpeg4Clip(0);
        const auto plainImages = toImages(demuxVideo(plain), 'm');
        const auto ref = ffmpegFrames(plain, eighth.width(), eighth.height(), "yuv420p", QString(), "-lowres 3");
        ConcurrentDecoder concurrent;
        Recorder rec;
        rec.attach(&concurrent);
        concurrent.setMaxOutputSize(eighth);
        for (const Image& image : plainImages)
            ASSERT_EQ(concurrent.decode(image), 1);
        ASSERT_TRUE(waitUntil([&] { return rec.frames.size() + rec.errors.size() >= plainImages.size(); }));
        EXPECT_EQ(rec.errors.size(), 0u);
        ASSERT_EQ(rec.frames.size(), ref.size());
        for (size_t i = 0; i < ref.size(); ++i) {
            EXPECT_EQ(rec.frames[i].id(), plainImages[i].id());
            EXPECT_EQ(maxDiffYuv420p(rec.frames[i], ref[i], eighth.width(), eighth.height()), 0) << i;
        }
    }
}

TEST(ReducedResolution, KeyPictureHeadersAreReadOnlyWhereADecoderCanStart)
{
    auto bytes = [](const QByteArray& a) { return reinterpret_cast<const unsigned char*>(a.constData()); };
    // MPEG-4: the VOL + I-VOP payloads of real streams (plain, and with an extended pixel
    // aspect ratio, which shifts the size's bits); every other payload, and every cut of a key
    // payload before its I-VOP's type, refuses.
    const QString odd = ffmpegFile("rr_mpeg4_vol.m4v", "-f lavfi -i testsrc2=size=320x240:rate=25 -vf scale=333:99 "
                                                       "-frames:v 3 -c:v mpeg4 -g 2 -aspect 17:9 -f m4v");
    for (const auto& [path, size] : {std::make_pair(mpeg4Clip(0), QSize(kMpegW, kMpegH)),
                                     std::make_pair(odd, QSize(333, 99))}) {
        const auto packets = demuxVideo(path);
        ASSERT_GE(packets.size(), 3u);
        for (size_t i = 0; i < packets.size(); ++i) {
            const QByteArray& p = packets[i].data;
            int w = 0, h = 0;
            EXPECT_EQ(mpeg4KeyPictureSize(bytes(p), p.size(), &w, &h), packets[i].key) << i;
            if (packets[i].key)
                EXPECT_EQ(QSize(w, h), size);
        }
        const QByteArray key = packets[0].data;
        const int vop = key.indexOf(QByteArray("\x00\x00\x01\xb6", 4));
        ASSERT_GT(vop, 0);
        for (int cut = 0; cut <= vop + 4; ++cut) {
            int w = 0, h = 0;
            EXPECT_FALSE(mpeg4KeyPictureSize(bytes(key), cut, &w, &h)) << cut;
        }
    }
    // MxPEG: an I-frame starts a decoder; a P-frame, or a frame header with a bitmask, does not.
    const QByteArray i = mxJpeg(0);
    int w = 0, h = 0;
    ASSERT_TRUE(mxpegKeyPictureSize(bytes(i), i.size(), &w, &h));
    EXPECT_EQ(QSize(w, h), QSize(kMxW, kMxH));
    const QByteArray p = pFrame(i, 3);
    EXPECT_FALSE(mxpegKeyPictureSize(bytes(p), p.size(), &w, &h));
    const QByteArray masked = p.left(p.indexOf(QByteArray("\xff\xdb", 2))) + i.mid(2);
    EXPECT_TRUE(jpegPictureSize(bytes(masked), masked.size(), &w, &h));
    EXPECT_FALSE(mxpegKeyPictureSize(bytes(masked), masked.size(), &w, &h));
}

TEST(ReducedResolution, Jpeg2000AndWaveletPickTheirScaleLevelFromTheSize)
{
    // JPEG 2000: the level whose picture still covers the size, unless the level asked for
    // is smaller; the same picture as the decoder told that level.
    const QByteArray j2k = readFile(ffmpegFile("rr_641x481.jp2", "-f lavfi -i testsrc=size=641x481 -frames:v 1 "
                                                                 "-c:v libopenjpeg -pix_fmt yuv444p -format jp2"));
    ASSERT_GT(j2k.size(), 100);
    const Image image('r', j2k, 7);
    auto decodeAt = [&](int level) {
        DecoderJPEG2000 direct(level);
        VideoFrame f;
        EXPECT_TRUE(decodeBytes(direct, j2k, f));
        return f;
    };
    auto same = [](const VideoFrame& a, const VideoFrame& b) {
        return sizeOf(a) == sizeOf(b) && planeBytes(a, Plane::Y) == planeBytes(b, Plane::Y) &&
               planeBytes(a, Plane::U) == planeBytes(b, Plane::U) && planeBytes(a, Plane::V) == planeBytes(b, Plane::V);
    };
    struct J2kCase {
        QSize max;
        int param;
        int level;
    };
    for (const J2kCase& c : {J2kCase{{161, 121}, 0, 2}, J2kCase{{162, 122}, 0, 1}, J2kCase{{1000, 1000}, 0, 0},
                             J2kCase{{161, 121}, 3, 3}, J2kCase{{161, 121}, 1, 2}, J2kCase{{}, 1, 1},
                             J2kCase{{1, 1}, 0, 16}}) {
        SCOPED_TRACE(c.level);
        Decoder decoder;
        decoder.setMaxOutputSize(c.max);
        VideoFrame f;
        ASSERT_EQ(decoder.decodeImage(image, f, c.param), Decoder::ImageResult::Picture);
        const VideoFrame expected = decodeAt(c.level);
        EXPECT_TRUE(same(f, expected)) << sizeOf(f).width() << "x" << sizeOf(f).height();
        EXPECT_EQ(f.id(), 7u);
        EXPECT_EQ(f.maximalWidth(), 641);
    }

    // Wavelet fields (720 x 243, shown with doubled lines at level 0).
    const QString field = ffmpegFile("rr_field243.drc", "-f lavfi -i testsrc=size=720x243:rate=25 -vf format=yuv422p "
                                                        "-frames:v 2 -c:v vc2 -b:v 6M -f dirac");
    QByteArray payload;
    for (const auto& p : demuxVideo(field))
        if (p.data.size() > 100 && payload.isEmpty())
            payload = p.data;
    ASSERT_FALSE(payload.isEmpty());
    const Image wavelet('n', payload, 9);
    struct WaveletCase {
        QSize max;
        int param;
        int level;
        QSize out;  // the level's own picture, or that picture fitted as shown
    };
    for (const WaveletCase& c :
         {WaveletCase{{360, 243}, 0, 1, {360, 243}}, WaveletCase{{361, 244}, 0, 0, {361, 122}},
          WaveletCase{{180, 121}, 0, 2, {180, 121}}, WaveletCase{{100, 100}, 0, 2, {100, 67}},
          WaveletCase{{360, 243}, 2, 2, {180, 121}}, WaveletCase{{}, 1, 1, {360, 243}}}) {
        SCOPED_TRACE(c.level);
        DecoderWavelet direct(720, 243, c.level);
        VideoFrame expected;
        ASSERT_TRUE(decodeBytes(direct, payload, expected));
        Decoder decoder;
        decoder.setMaxOutputSize(c.max);
        VideoFrame f;
        ASSERT_EQ(decoder.decodeImage(wavelet, f, c.param), Decoder::ImageResult::Picture);
        EXPECT_EQ(sizeOf(f), c.out);
        if (sizeOf(f) == sizeOf(expected))
            EXPECT_EQ(packYuv420p(f), packYuv420p(expected));
        EXPECT_EQ(f.getScaleY(), c.level == 0 ? 2 : 1);
        EXPECT_EQ(f.id(), 9u);
    }
    // The level follows the size on the same decoder, and back when it is cleared.
    Decoder decoder;
    for (const auto& [max, width] : {std::make_pair(QSize(180, 121), 180), std::make_pair(QSize(), 720),
                                     std::make_pair(QSize(360, 243), 360)}) {
        decoder.setMaxOutputSize(max);
        VideoFrame f;
        ASSERT_EQ(decoder.decodeImage(wavelet, f), Decoder::ImageResult::Picture);
        EXPECT_EQ(f.width(), width);
    }
    // A field larger than asked at level 0 is fitted as shown (lines doubled): 720 x 486
    // into 700 x 700 is 700 x 472, that is 700 x 236 lines marked (1, 2).
    decoder.setMaxOutputSize(QSize(700, 700));
    VideoFrame f;
    ASSERT_EQ(decoder.decodeImage(wavelet, f), Decoder::ImageResult::Picture);
    EXPECT_EQ(sizeOf(f), QSize(700, 236));
    EXPECT_EQ(f.getScaleY(), 2);
}
