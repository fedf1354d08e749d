// Frame handles, shared bodies, mapping rules, snapshots and deep copies.
#include "orvo/video_frame_helper.h"

#include <gtest/gtest.h>

#include <cstring>

using orvo::BufferProperties;
using orvo::Image;
using orvo::MemoryVideoBuffer;
using orvo::VideoFrame;
using orvo::VideoFrameHelper;

namespace {

// A 4:2:0 frame whose every byte tells its plane and position.
VideoFrame patterned(int w, int h, const BufferProperties& props = orvo::defaultBufferProperties)
{
    VideoFrame f(w, h, VideoFrame::Format_YUV420P, props);
    EXPECT_TRUE(f.map(QAbstractVideoBuffer::WriteOnly));
    for (int y = 0; y < f.heightY(); ++y)
        for (int x = 0; x < f.widthY(); ++x) {
            f.lineY(y)[x] = uchar(x * 3 + y * 7);
            f.bitsA()[y * f.bytesPerLineA() + x] = uchar(255 - x);
        }
    for (int y = 0; y < f.heightU(); ++y)
        for (int x = 0; x < f.widthU(); ++x) {
            f.lineU(y)[x] = uchar(x + y * 11 + 1);
            f.lineV(y)[x] = uchar(x * 5 + y + 2);
        }
    f.unmap();
    return f;
}

void expectSamePixels(const VideoFrame& a, const VideoFrame& b)
{
    ASSERT_TRUE(a.map());
    ASSERT_TRUE(b.map());
    ASSERT_EQ(a.widthY(), b.widthY());
    ASSERT_EQ(a.heightU(), b.heightU());
    for (int y = 0; y < a.heightY(); ++y)
        ASSERT_EQ(std::memcmp(a.lineY(y), b.lineY(y), size_t(a.widthY())), 0) << "Y row " << y;
    for (int y = 0; y < a.heightU(); ++y) {
        ASSERT_EQ(std::memcmp(a.lineU(y), b.lineU(y), size_t(a.widthU())), 0) << "U row " << y;
        ASSERT_EQ(std::memcmp(a.lineV(y), b.lineV(y), size_t(a.widthV())), 0) << "V row " << y;
    }
    a.unmap();
    b.unmap();
}

}  // namespace

TEST(VideoFrame, CopiesShareTheBodyClonesDoNot)
{
    VideoFrame f = patterned(17, 9);
    f.setId(42);
    f.setStreamId(7);
    f.setScale(2, 1);
    f.setViewName(QByteArray("left"));
    f.setAttachedData("meta");
    f.setImage(Image('h', QByteArray("payload"), 42));
    VideoFrame copy = f;
    EXPECT_TRUE(copy == f);
    copy.setId(43);
    EXPECT_EQ(f.id(), 43u) << "a setter through one copy is seen through all";
    ASSERT_TRUE(copy.map(QAbstractVideoBuffer::ReadWrite));
    copy.lineY(0)[0] = 99;
    copy.unmap();
    ASSERT_TRUE(f.map());
    EXPECT_EQ(f.lineY(0)[0], 99);
    f.unmap();

    VideoFrame byProps = f.clone(orvo::defaultBufferProperties);
    VideoFrame byAlign = f.clone(16, false);
    for (const VideoFrame& c : {byProps, byAlign}) {
        EXPECT_FALSE(c == f);
        EXPECT_EQ(c.id(), 43u);
        EXPECT_EQ(c.streamId(), 7u);
        EXPECT_EQ(c.getScaleX(), 2);
        EXPECT_EQ(c.attachedData(), QByteArray("meta"));
        EXPECT_TRUE(c.image().sharesDataWith(f.image()));
        EXPECT_EQ(c.pixelFormat(), VideoFrame::Format_YUV420P);
        expectSamePixels(c, f);
    }
    EXPECT_EQ(byProps.viewName(), QByteArray("left"));
    EXPECT_TRUE(byAlign.viewName().isEmpty());
}

TEST(VideoFrame, CloneStridesAlphaAndSourceMapState)
{
    VideoFrame f = patterned(100, 10);
    struct Case {
        int align;
        unsigned bpl;
    };
    for (Case c : {Case{16, 112}, Case{0, 100}, Case{24, 128}, Case{1, 100}}) {
        VideoFrame clone = f.clone(c.align, false);
        ASSERT_TRUE(clone.map());
        EXPECT_EQ(clone.bytesPerLineY(), c.bpl) << c.align;
        EXPECT_EQ(clone.bitsA(), nullptr);
        clone.unmap();
        expectSamePixels(clone, f);
    }

    // Default properties skip alpha; asking for it copies the alpha plane too.
    BufferProperties withAlpha;
    withAlpha.skipAlpha = false;
    withAlpha.minBytesPerLineA = 256;
    VideoFrame a = f.clone(withAlpha);
    VideoFrame noA = f.clone(orvo::defaultBufferProperties);
    ASSERT_TRUE(a.map());
    ASSERT_NE(a.bitsA(), nullptr);
    EXPECT_EQ(a.bytesPerLineA(), 256u);
    EXPECT_EQ(a.bitsA()[3], 252);
    a.unmap();
    ASSERT_TRUE(noA.map());
    EXPECT_EQ(noA.bitsA(), nullptr);
    noA.unmap();

    // clone(align, true) copies alpha only when it is mapped at that moment.
    VideoFrame unmappedAlpha = f.clone(8, true);
    ASSERT_TRUE(unmappedAlpha.map());
    EXPECT_EQ(unmappedAlpha.bitsA(), nullptr);
    unmappedAlpha.unmap();

    // The source ends unmapped even when the caller had mapped it.
    ASSERT_TRUE(f.map());
    VideoFrame mappedAlpha = f.clone(8, true);
    EXPECT_FALSE(f.isMapped());
    ASSERT_TRUE(mappedAlpha.map());
    EXPECT_NE(mappedAlpha.bitsA(), nullptr);
    mappedAlpha.unmap();

    EXPECT_TRUE(VideoFrame().clone(8, false).isNull());
    EXPECT_TRUE(VideoFrame().clone(orvo::defaultBufferProperties).isNull());
}

TEST(VideoFrame, MapFailureOnOnePlaneLeavesOthersUnmapped)
{
    QVideoFrame y(new MemoryVideoBuffer(16, 4, 8), QSize(4, 4), QVideoFrame::Format_Y8);
    QVideoFrame u(new MemoryVideoBuffer(4, 2, 8), QSize(2, 2), QVideoFrame::Format_Y8);
    QVideoFrame broken(new MemoryVideoBuffer(-1, 2, 8), QSize(2, 2), QVideoFrame::Format_Y8);
    VideoFrame badV(y, u, broken, VideoFrame::Format_YUV420P);
    EXPECT_FALSE(badV.map(QAbstractVideoBuffer::ReadWrite));
    EXPECT_FALSE(u.isMapped());
    EXPECT_FALSE(y.isMapped());

    VideoFrame badA(y, u, u, broken, VideoFrame::Format_YUV420P);  // U and V share one plane here
    EXPECT_FALSE(badA.map(QAbstractVideoBuffer::ReadWrite));
    EXPECT_FALSE(u.isMapped());

    VideoFrame badY(broken, u, QVideoFrame(new MemoryVideoBuffer(4, 2, 8), QSize(2, 2), QVideoFrame::Format_Y8),
                    VideoFrame::Format_YUV420P);
    EXPECT_FALSE(badY.map(QAbstractVideoBuffer::ReadWrite));
    EXPECT_FALSE(u.isMapped());
    EXPECT_FALSE(badY.isMapped());

    // Mapping twice for writing fails until unmapped; mapIfNotMapped does not.
    VideoFrame ok = patterned(4, 4);
    ASSERT_TRUE(ok.map(QAbstractVideoBuffer::ReadWrite));
    EXPECT_FALSE(ok.map(QAbstractVideoBuffer::ReadWrite));
    EXPECT_TRUE(ok.mapIfNotMapped(QAbstractVideoBuffer::ReadWrite));
    EXPECT_EQ(ok.mapMode(), QAbstractVideoBuffer::ReadWrite);
    ok.unmap();
    EXPECT_EQ(ok.mapMode(), QAbstractVideoBuffer::NotMapped);
}

TEST(VideoFrame, BodyCopyRulesAndQImageFrames)
{
    VideoFrame src = patterned(8, 8);
    src.setImage(Image('j', QByteArray("abc"), 3));
    src.setViewName(QByteArray("v"));
    src.setMaximalWidth(640);
    src.decorationsRectsRef().push_back(QRect(1, 2, 3, 4));

    orvo::VideoFrameQt bodyCopy(*src.body());
    EXPECT_FALSE(bodyCopy.hasImage());
    EXPECT_TRUE(bodyCopy.isValidImage()) << "the image is copied, the flag is not";
    EXPECT_TRUE(bodyCopy.decorationsRectsRef().empty());

    QImage picture(6, 4, QImage::Format_RGB32);
    picture.fill(Qt::red);
    VideoFrame fromImage(picture, src);
    EXPECT_FALSE(fromImage.areSeparatePlanes());
    EXPECT_EQ(fromImage.pixelFormat(), VideoFrame::Format_RGB32);
    EXPECT_EQ(fromImage.width(), 6);
    EXPECT_EQ(fromImage.viewName(), QByteArray("v"));
    EXPECT_FALSE(fromImage.isMapped()) << "a frame without separate planes never counts as mapped";
    ASSERT_TRUE(fromImage.map());
    EXPECT_EQ(reinterpret_cast<const QRgb*>(fromImage.bits())[0], qRgb(255, 0, 0));
    fromImage.unmap();

    // Separate planes allocated by Qt, 4:2:0 rule for the chroma planes.
    VideoFrame qtPlanes(16 * 4, 16, 4, 16, VideoFrame::Format_YUV420P, true);
    EXPECT_TRUE(qtPlanes.areSeparatePlanes());
    EXPECT_EQ(qtPlanes.heightU(), 2);
}

TEST(VideoFrameHelper, SnapshotsReadGeometryOnce)
{
    VideoFrame f = patterned(320, 9);
    f.setScale(2, 1);
    f.setImage(Image('h', QByteArray("x"), 1, 12345));
    VideoFrameHelper first(f);
    VideoFrameHelper second(f);
    ASSERT_TRUE(first.isValid());
    EXPECT_EQ(second.id(), first.id() + 1);
    EXPECT_EQ(first.width(true), 640u);
    EXPECT_EQ(first.height(true), first.height(false));
    EXPECT_EQ(first.time(), 12345);
    EXPECT_EQ(first.size(), first.bytesPerLineY() * 9 + 2 * first.bytesPerLineU() * 5);
    EXPECT_FALSE(f.isMapped());
    EXPECT_EQ(first.bitsY()[1], 3) << "pointers stay usable after the helper unmapped";

    VideoFrame empty;
    VideoFrameHelper invalid(empty);
    EXPECT_FALSE(invalid.isValid());
    EXPECT_EQ(invalid.width(true), 0u);
}
