// Plane geometry, plane buffers and frame allocation; frame handles, shared bodies, mapping
// rules, snapshots and deep copies.
#include "common/support.h"
#include "orvo/video_frame_helper.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

using orvo::BufferProperties;
using orvo::Image;
using orvo::MemoryVideoBuffer;
using orvo::VideoFrame;
using orvo::VideoFrameHelper;
using orvo::VideoFrameQt;
using orvo::test::Plane;
using orvo::test::planeBytes;

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
    for (Plane p : {Plane::Y, Plane::U, Plane::V})
        EXPECT_EQ(planeBytes(a, p), planeBytes(b, p)) << int(p);
}

}  // namespace

// Copies share one body: a setter or a pixel written through one is seen through all.
// Clones copy pixels and metadata (the view name only with buffer properties) into planes of
// their own, with the strides asked for.
TEST(VideoFrame, CopiesShareTheBodyClonesDoNot)
{
    VideoFrame f = patterned(100, 10);
    f.setStreamId(7);
    f.setScale(2, 1);
    f.setViewName(QByteArray("left"));
    f.setAttachedData("meta");
    f.setImage(Image('h', QByteArray("payload"), 42));
    VideoFrame copy = f;
    EXPECT_TRUE(copy == f);
    copy.setId(43);
    EXPECT_EQ(f.id(), 43u);
    ASSERT_TRUE(copy.map(QAbstractVideoBuffer::ReadWrite));
    copy.lineY(0)[0] = 99;
    copy.unmap();
    EXPECT_EQ(planeBytes(f, Plane::Y)[0], char(99));

    for (const auto& [align, bpl] : {std::pair{16, 112u}, {0, 100u}, {24, 128u}, {1, 100u}, {-1, 104u}}) {
        SCOPED_TRACE(align);
        const VideoFrame c = align < 0 ? f.clone(orvo::defaultBufferProperties) : f.clone(align, false);
        EXPECT_FALSE(c == f);
        EXPECT_EQ(c.id(), 43u);
        EXPECT_EQ(c.streamId(), 7u);
        EXPECT_EQ(c.getScaleX(), 2);
        EXPECT_EQ(c.attachedData(), QByteArray("meta"));
        EXPECT_TRUE(c.image().sharesDataWith(f.image()));
        EXPECT_EQ(c.pixelFormat(), VideoFrame::Format_YUV420P);
        EXPECT_EQ(c.viewName(), align < 0 ? QByteArray("left") : QByteArray());
        ASSERT_TRUE(c.map());
        EXPECT_EQ(c.bytesPerLineY(), bpl);
        EXPECT_EQ(c.bitsA(), nullptr);
        c.unmap();
        expectSamePixels(c, f);
    }

    // Default properties skip alpha (above); asking for it copies the alpha plane too. clone(align,
    // true) copies alpha only when the source is mapped at that moment, and leaves it unmapped.
    BufferProperties withAlpha;
    withAlpha.skipAlpha = false;
    withAlpha.minBytesPerLineA = 256;
    const VideoFrame a = f.clone(withAlpha), unmapped = f.clone(8, true);
    ASSERT_TRUE(f.map());
    const VideoFrame mapped = f.clone(8, true);
    EXPECT_FALSE(f.isMapped());
    EXPECT_EQ(planeBytes(a, Plane::A), planeBytes(f, Plane::A));
    ASSERT_TRUE(a.map());
    EXPECT_EQ(a.bytesPerLineA(), 256u);
    a.unmap();
    EXPECT_TRUE(planeBytes(unmapped, Plane::A).isEmpty());
    EXPECT_EQ(planeBytes(mapped, Plane::A), planeBytes(f, Plane::A));

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

TEST(PlaneGeometry, OddSizesRoundSizesUpAndPositionsDown)
{
    struct Case {
        VideoFrame::OrvoPixelFormat f;
        int side, chromaW, chromaH, xPos, yPos;
    };
    for (Case c : {Case{VideoFrame::Format_YUV420P, 5, 3, 3, 2, 2}, Case{VideoFrame::Format_YUV422P, 5, 3, 5, 2, 5},
                   Case{VideoFrame::Format_YUV444P, 5, 5, 5, 5, 5}}) {
        EXPECT_EQ(VideoFrameQt::planeUVWidth(c.f, c.side), c.chromaW) << c.f;
        EXPECT_EQ(VideoFrameQt::planeUVHeight(c.f, c.side), c.chromaH) << c.f;
        EXPECT_EQ(VideoFrameQt::xPosPlaneUV(c.f, c.side), c.xPos) << c.f;
        EXPECT_EQ(VideoFrameQt::yPosPlaneUV(c.f, c.side), c.yPos) << c.f;
    }
    EXPECT_EQ(VideoFrame::planeUVSize(QSize(641, 361), VideoFrame::Format_YUV420P), QSize(321, 181));

    int n = 15, w = 5, h = 3, bpl = 5;
    VideoFrame::OrvoPixelFormat f = VideoFrame::Format_YUV420P;
    ASSERT_TRUE(VideoFrame::planeUVGeometry(n, w, h, bpl, f));
    EXPECT_EQ(std::vector<int>({n, w, h, bpl}), std::vector<int>({3, 2, 1, 2}));
    EXPECT_EQ(f, VideoFrame::Format_Y8);
    n = 15, w = 5, h = 3, bpl = 5, f = VideoFrame::Format_YUV422P;
    EXPECT_FALSE(VideoFrame::planeUVGeometry(n, w, h, bpl, f));
    EXPECT_EQ(std::vector<int>({n, w, h, bpl}), std::vector<int>({15, 5, 3, 5}));
    EXPECT_EQ(VideoFrame::pixelFormatName(VideoFrame::Format_YUV420P), "Format_YUV420P");
}

TEST(MemoryVideoBuffer, WrappedMemoryAndDeleterRunsOnceOnLastRelease)
{
    auto* storage = new unsigned char[64];
    {
        MemoryVideoBuffer wrapped(storage + 8, 32, 8, storage, 0, true);
        EXPECT_EQ(wrapped.offset(), 8);
        EXPECT_EQ(wrapped.allocatedSize(), 40);
        EXPECT_EQ(wrapped.map(QAbstractVideoBuffer::ReadOnly, nullptr, nullptr), storage + 8);
        wrapped.unmap();
    }  // freed with delete[] (ASan checks the pairing)

    unsigned char plain[16];
    MemoryVideoBuffer view(plain, 16, 4, nullptr, 0, false);
    EXPECT_EQ(view.allocatedSize(), 16);
    EXPECT_EQ(view.offset(), 0);

    int released = 0;
    unsigned char* seen = nullptr;
    static unsigned char foreign[48];
    {
        VideoFrame outer;
        {
            auto* buffer = new MemoryVideoBuffer(foreign, 48, 8, [&](unsigned char* p) {
                ++released;
                seen = p;
            });
            QVideoFrame plane(buffer, QSize(8, 6), QVideoFrame::Format_Y8);
            VideoFrame frame(plane, plane, plane, VideoFrame::Format_YUV444P);
            outer = frame;  // a copy outlives the frame that made it
        }
        EXPECT_EQ(released, 0);
    }
    EXPECT_EQ(released, 1);
    EXPECT_EQ(seen, foreign);
}

TEST(FrameAllocation, PlanesFollowBufferProperties)
{
    struct Case {
        int w, h;
        VideoFrame::OrvoPixelFormat format;
        BufferProperties props;
    };
    BufferProperties padded;
    padded.minBytesPerLineY = 128;
    padded.minBytesPerLineU = 80;
    padded.minBytesPerLineV = 999;  // ignored by allocation
    padded.alignY = 64;
    padded.alignU = 32;
    padded.alignV = 16;
    padded.alignA = 128;
    const Case cases[] = {
        {5, 3, VideoFrame::Format_YUV420P, orvo::defaultBufferProperties},
        {641, 361, VideoFrame::Format_YUV420P, padded},
        {99, 7, VideoFrame::Format_YUV422P, BufferProperties(32)},
        {33, 9, VideoFrame::Format_YUV444P, padded},
    };
    for (const Case& c : cases) {
        VideoFrame frame(c.w, c.h, c.format, c.props);
        ASSERT_TRUE(frame.map(QAbstractVideoBuffer::ReadWrite));
        const int L = std::max(c.w, c.props.minBytesPerLineY);
        const bool sub = c.format != VideoFrame::Format_YUV444P;
        const int bplUV =
            sub ? std::max((L + 1) / 2, c.props.minBytesPerLineU) : std::max(c.w, c.props.minBytesPerLineU);
        EXPECT_EQ(int(frame.bytesPerLineY()), L);
        EXPECT_EQ(int(frame.bytesPerLineU()), bplUV);
        EXPECT_EQ(int(frame.bytesPerLineV()), bplUV);
        EXPECT_EQ(int(frame.bytesPerLineA()), L);
        EXPECT_EQ(quintptr(frame.bitsY()) % quintptr(c.props.alignY), 0u);
        EXPECT_EQ(quintptr(frame.bitsU()) % quintptr(c.props.alignU), 0u);
        EXPECT_EQ(quintptr(frame.bitsV()) % quintptr(c.props.alignV), 0u);
        EXPECT_EQ(quintptr(frame.bitsA()) % quintptr(c.props.alignA), 0u);
        EXPECT_EQ(frame.widthU(), VideoFrameQt::planeUVWidth(c.format, c.w));
        EXPECT_EQ(frame.heightU(), VideoFrameQt::planeUVHeight(c.format, c.h));
        const int rowsUV = c.format == VideoFrame::Format_YUV420P ? (c.h + 1) / 2 : c.h;
        EXPECT_EQ(frame.mappedBytesU(), bplUV * rowsUV);
        // Every row of every plane is writable up to its bytes per line (ASan watches).
        for (int y = 0; y < frame.heightY(); ++y)
            std::memset(frame.lineY(y), 1, frame.bytesPerLineY());
        for (int y = 0; y < frame.heightU(); ++y) {
            std::memset(frame.lineU(y), 2, frame.bytesPerLineU());
            std::memset(frame.lineV(y), 3, frame.bytesPerLineV());
        }
        EXPECT_TRUE(frame.isMapped());
        frame.unmap();
        EXPECT_FALSE(frame.isMapped());
    }
    // An impossible size gives planes that hold no memory: mapping fails cleanly.
    VideoFrame huge(100000, 100000, VideoFrame::Format_YUV420P, orvo::defaultBufferProperties);
    EXPECT_TRUE(huge.isValid());
    EXPECT_FALSE(huge.map(QAbstractVideoBuffer::ReadWrite));
    EXPECT_FALSE(huge.isMapped());
    EXPECT_EQ(huge.bitsY(), nullptr);
}
