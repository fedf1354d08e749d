// The plane pool every decoder makes its frames with: the layouts it is asked for, the slack
// swscale writes into, recycling, frames that outlive their pool, and layouts it refuses.
// Run under ASan and valgrind, the writes below reach exactly the bytes the pool promises.
#include "frames/plane_pool.h"
#include "frames/sws_scale.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

using orvo::PlaneLayout;
using orvo::PlanePool;
using orvo::VideoFrame;

namespace {

// Writes every byte a plane promises: its rows and the slack behind them.
void fillWithSlack(unsigned char* plane, int pitch, int rows, unsigned char value)
{
    std::memset(plane, value, size_t(pitch) * size_t(rows) + orvo::sws::kOutputSlack);
}

}  // namespace

TEST(PlanePool, FramesHaveTheLayoutAskedForAndTheSlackBehindEveryPlane)
{
    PlanePool pool;
    const PlaneLayout layouts[] = {
        PlaneLayout::standard(643, 361),                                    // the decoders' usual frame
        {643, 361, VideoFrame::Format_YUV422P, 644, 322, false},           // JPEG 2000
        {17, 5, VideoFrame::Format_YUV420P, 32, 16, false},                // raw YUV: rows of 16 bytes
        {362, 144, VideoFrame::Format_YUV420P, 362, 182, false},           // wavelet: even chroma rows
    };
    for (const PlaneLayout& l : layouts) {
        SCOPED_TRACE(testing::Message() << l.width << "x" << l.height << " format " << l.format);
        VideoFrame f = pool.allocate(l);
        ASSERT_FALSE(f.isNull());
        EXPECT_EQ(f.pixelFormat(), l.format);
        EXPECT_EQ(f.width(), l.width);
        EXPECT_EQ(f.height(), l.height);
        const int chromaRows = l.format == VideoFrame::Format_YUV420P ? (l.height + 1) / 2 : l.height;
        EXPECT_EQ(f.widthU(), (l.width + 1) / 2);
        EXPECT_EQ(f.heightU(), chromaRows);
        ASSERT_TRUE(f.map(QAbstractVideoBuffer::WriteOnly));
        EXPECT_EQ(f.bytesPerLineY(), unsigned(l.pitchY));
        EXPECT_EQ(f.bytesPerLineU(), unsigned(l.pitchUV));
        EXPECT_EQ(f.bytesPerLineV(), unsigned(l.pitchUV));
        EXPECT_EQ(f.mappedBytesY(), l.pitchY * l.height);
        EXPECT_EQ(f.bitsA() != nullptr, l.alpha);
        // Every plane starts on the vector alignment FFmpeg allocates with.
        for (const unsigned char* p : {f.bitsY(), f.bitsU(), f.bitsV()})
            EXPECT_EQ(reinterpret_cast<quintptr>(p) % 32, 0u);
        fillWithSlack(f.bitsY(), l.pitchY, l.height, 1);
        fillWithSlack(f.bitsU(), l.pitchUV, chromaRows, 2);
        fillWithSlack(f.bitsV(), l.pitchUV, chromaRows, 3);
        if (l.alpha)
            fillWithSlack(f.bitsA(), l.pitchY, l.height, 4);
        EXPECT_EQ(f.lineU(chromaRows - 1)[0], 2) << "the planes do not overlap";
        EXPECT_EQ(f.lineV(0)[0], 3);
        f.unmap();
    }
}

TEST(PlanePool, PlanesComeBackWhenTheirLastFrameGoesAndOutliveThePool)
{
    auto pool = std::make_unique<PlanePool>();
    const PlaneLayout layout{320, 240, VideoFrame::Format_YUV422P, 320, 160, false};
    const unsigned char* first = nullptr;
    {
        VideoFrame f = pool->allocate(layout);
        ASSERT_TRUE(f.map(QAbstractVideoBuffer::ReadOnly));
        first = f.bitsY();
        f.unmap();
    }
    VideoFrame again = pool->allocate(layout);
    ASSERT_TRUE(again.map(QAbstractVideoBuffer::ReadWrite));
    EXPECT_EQ(again.bitsY(), first) << "the released plane was recycled";
    VideoFrame other = pool->allocate(layout);
    ASSERT_TRUE(other.map(QAbstractVideoBuffer::ReadOnly));
    EXPECT_NE(other.bitsY(), again.bitsY()) << "a plane in use is not handed out twice";
    other.unmap();

    // The pool goes first; the frame's planes stay valid and are freed with the frame.
    pool.reset();
    std::memset(again.bitsY(), 7, size_t(320) * 240);
    EXPECT_EQ(again.lineY(239)[319], 7);
    again.unmap();
}

TEST(PlanePool, LayoutsThatAreNoPictureGiveANullFrame)
{
    PlanePool pool;
    const PlaneLayout bad[] = {
        {0, 10, VideoFrame::Format_YUV420P, 16, 8, false},         // no width
        {10, -1, VideoFrame::Format_YUV420P, 16, 8, false},        // negative rows
        {17, 4, VideoFrame::Format_YUV420P, 16, 8, false},         // rows shorter than the width
        {17, 4, VideoFrame::Format_YUV420P, 17, 8, false},         // chroma rows too short
        {16, 4, VideoFrame::Format_YUV444P, 16, 16, false},        // not 4:2:0 or 4:2:2
        {60000, 60000, VideoFrame::Format_YUV420P, 60000, 30000, false},  // over 2 GB a plane
    };
    for (const PlaneLayout& l : bad)
        EXPECT_TRUE(pool.allocate(l).isNull()) << l.width << "x" << l.height << " pitch " << l.pitchY;
    // A picture without rows has empty planes, and the pool still serves real ones afterwards.
    VideoFrame empty = pool.allocate({16, 0, VideoFrame::Format_YUV420P, 16, 8, false});
    ASSERT_FALSE(empty.isNull());
    EXPECT_EQ(empty.height(), 0);
    EXPECT_FALSE(pool.allocate(PlaneLayout::standard(16, 16)).isNull());
}
