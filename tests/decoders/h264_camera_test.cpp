// The H.264 camera path on hand-made bytes: cutting and repairing payloads, the slice dump.
// Real streams cut the camera's way are decoded by the stream suite.
#include "common/test_streams.h"
#include "decoders/h264_payload.h"
#include "decoders/h264_slice_dump.h"
#include "orvo/decoder_h264.h"

#include <gtest/gtest.h>

using namespace orvo;
using namespace orvo::test;

namespace {

using Bytes = std::vector<unsigned char>;

int cut(Bytes bytes, bool lastByte = true, bool doubleStart = true)
{
    return h264::cameraPayloadLength(bytes.empty() ? nullptr : bytes.data(), int(bytes.size()), lastByte,
                                     doubleStart);
}

}  // namespace

TEST(H264PayloadTest, CutAndRepairs)
{
    EXPECT_EQ(cut({0, 0, 0, 1, 0x65, 0xAA, 0xBB, 0, 0, 0, 1}), 7);
    // A start code and a single byte before the cut lose that byte only when asked.
    EXPECT_EQ(cut({0, 0, 0, 1, 0x09, 0, 0, 0, 1}), 4);
    EXPECT_EQ(cut({0, 0, 0, 1, 0x09, 0, 0, 0, 1}, false), 5);
    // Trailing FF padding goes with the double-start-code repair.
    EXPECT_EQ(cut({0, 0, 0, 1, 0x65, 1, 2, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 1}), 7);
    EXPECT_EQ(cut({0, 0, 0, 1, 0x65, 1, 2, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 1}, true, false), 11);
    EXPECT_EQ(cut({0, 0, 0, 1, 0x65, 1, 2, 0xFE, 0xFF, 0xFF, 0xFF, 0, 0, 0, 1}), 11);
    // No start code after offset 0, or too short.
    EXPECT_EQ(cut({0, 0, 0, 1, 0x65, 1, 2, 3}), -1);
    EXPECT_EQ(cut({0, 0, 0, 1}), -1);
    EXPECT_EQ(cut({}), -1);
    EXPECT_EQ(cut({7, 0, 0, 0, 1}), 1);
    EXPECT_EQ(cut({0, 0, 0, 0, 1}), 1);
    EXPECT_EQ(cut({0, 0, 0, 1, 9}), -1);

    // The repair turns the first of two adjacent start codes into padding, in place; a
    // run of three shrinks to one.
    Bytes doubled{0, 0, 0, 1, 0, 0, 0, 1, 0x67, 0x42};
    h264::repairDoubleStartCodes(doubled.data(), int(doubled.size()));
    EXPECT_EQ(doubled, (Bytes{0, 0, 0, 0, 0, 0, 0, 1, 0x67, 0x42}));
    Bytes tripled{0x09, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0x65};
    h264::repairDoubleStartCodes(tripled.data(), int(tripled.size()));
    EXPECT_EQ(tripled, (Bytes{0x09, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0x65}));

    // Cuts at offsets 1 to 4 leave no room to look back five or four bytes; exact-size
    // heap buffers make any look before the payload visible under ASan.
    for (int at = 1; at <= 4; ++at) {
        Bytes bytes(size_t(at), 0xFF);
        bytes.insert(bytes.end(), {0, 0, 0, 1});
        EXPECT_EQ(cut(bytes), at == 4 ? 0 : at) << at;  // four FF bytes are padding
        bytes[0] = 0xEE;
        EXPECT_EQ(cut(bytes), at) << at;
    }
}

TEST(H264DecoderTest, ShortOrUncutPayloadsFailWithoutTouchingTheFrame)
{
    DecoderH264* decoder = DecoderH264::get();

    VideoFrame frame;
    frame.setId(99);
    const VideoFrame kept = frame;
    Bytes four{0, 0, 0, 1};
    EXPECT_FALSE(decoder->decode(four.data(), 4, frame, true));
    Bytes single{0, 0, 0, 1, 0x65, 0x88, 0x84};
    EXPECT_FALSE(decoder->decode(single.data(), int(single.size()), frame, true));
    EXPECT_EQ(frame, kept);
    DecoderH264::release(decoder);
    DecoderH264::release(nullptr);
    DecoderH264::get()->release();
}

TEST(H264SliceDumpTest, PrintsSliceHeadersAndStaysInBounds)
{
    // first_mb ue 0 ("1"), slice_type ue 7 ("0001000"), ppsid ue 0 ("1"), frame_num "0101".
    Bytes slice{0, 0, 0, 1, 0x65, 0x88, 0xA8, 0, 0, 0, 1, 0x41, 0x9A};
    testing::internal::CaptureStdout();
    const int last = h264::dumpSliceHeaders(slice.data(), int(slice.size()));
    const std::string out = testing::internal::GetCapturedStdout();
    // The second header runs past the end of the data, where bits read as zero.
    EXPECT_EQ(last, 0);
    EXPECT_EQ(out, "\n___________h264 debug_________________\n"
                   "offset=0 nal=65, first_mb=0 slice_type=7 ppsid=0 frame_num=5\n"
                   "offset=7 nal=41, first_mb=0 slice_type=5 ppsid=0 frame_num=0\n"
                   "___________h264 debug____end_____________\n");

    testing::internal::CaptureStdout();
    Bytes tiny{0, 0, 0, 1, 0x65};
    EXPECT_EQ(h264::dumpSliceHeaders(tiny.data(), int(tiny.size())), -1);
    testing::internal::GetCapturedStdout();

    const Bytes bits{0x38, 0x80};  // 00111 -> 6, then 000 and 100
    h264::BitReader reader(bits.data(), 2);
    EXPECT_EQ(reader.readUE(), 6u);
    EXPECT_EQ(reader.readBits(3), 0u);
    EXPECT_EQ(reader.readBits(3), 4u);
    EXPECT_EQ(reader.readBits(32), 0u);  // past the end reads zeros

    // Zero bits to the end: the readers stop at the end of the data instead of running on.
    testing::internal::CaptureStdout();
    Bytes zeros{0, 0, 0, 1, 0x65, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(h264::dumpSliceHeaders(zeros.data(), int(zeros.size())), 0);
    testing::internal::GetCapturedStdout();
}
