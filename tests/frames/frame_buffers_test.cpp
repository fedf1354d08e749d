// Plane geometry, aligned plane buffers and frame allocation.
#include "orvo/video_frame.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

using orvo::BufferProperties;
using orvo::MemoryVideoBuffer;
using orvo::VideoFrame;
using orvo::VideoFrameQt;

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

TEST(MemoryVideoBuffer, OwnAllocationIsAlignedAndWholeAreaUsable)
{
    for (unsigned align : {1u, 8u, 16u, 24u, 128u}) {
        MemoryVideoBuffer buffer(1000, 100, align);
        EXPECT_EQ(buffer.allocatedSize(), int(1000 + align));
        int bytes = 0, bpl = 0;
        uchar* p = buffer.map(QAbstractVideoBuffer::WriteOnly, &bytes, &bpl);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(bytes, 1000);
        EXPECT_EQ(bpl, 100);
        EXPECT_EQ(quintptr(p) % quintptr(MemoryVideoBuffer::adjustToPower2(int(align))), 0u) << align;
        std::memset(p, 0xAB, size_t(bytes));  // under ASan: the whole usable area lies inside the storage
        EXPECT_EQ(buffer.map(QAbstractVideoBuffer::ReadOnly, nullptr, nullptr), nullptr) << "double map";
        buffer.unmap();
        EXPECT_NE(buffer.map(QAbstractVideoBuffer::ReadOnly, nullptr, nullptr), nullptr);
        buffer.unmap();
        EXPECT_EQ(buffer.map(QAbstractVideoBuffer::NotMapped, nullptr, nullptr), nullptr);
    }
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
        const int bplUV = sub ? std::max((L + 1) / 2, c.props.minBytesPerLineU) : std::max(c.w, c.props.minBytesPerLineU);
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
}

TEST(FrameAllocation, ImpossibleSizeFailsCleanly)
{
    VideoFrame huge(100000, 100000, VideoFrame::Format_YUV420P, orvo::defaultBufferProperties);
    EXPECT_TRUE(huge.isValid());  // the planes exist but hold no memory
    EXPECT_FALSE(huge.map(QAbstractVideoBuffer::ReadWrite));
    EXPECT_FALSE(huge.isMapped());
    EXPECT_EQ(huge.bitsY(), nullptr);

    MemoryVideoBuffer negative(-5, 1, 8);
    EXPECT_EQ(negative.allocatedSize(), 0);
    EXPECT_EQ(negative.map(QAbstractVideoBuffer::ReadOnly, nullptr, nullptr), nullptr);
}
