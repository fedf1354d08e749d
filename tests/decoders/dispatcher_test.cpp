// The dispatcher's rules that the asynchronous layers rely on, the preferences, and the
// raw YUV layouts; the H.264 camera path on hand-made bytes: cutting and repairing payloads,
// the slice dump (real streams cut the camera's way are decoded by the stream suite).
#include "common/test_streams.h"
#include "decoders/h264_payload.h"
#include "decoders/h264_slice_dump.h"
#include "orvo/decoder.h"
#include "orvo/decoder_av.h"
#include "orvo/decoder_h264.h"
#include "orvo/decoder_jpeg.h"
#include "orvo/decoder_jpeg2000.h"
#include "orvo/decoder_mxpeg.h"
#include "orvo/decoder_null.h"
#include "orvo/decoder_preferences.h"
#include "orvo/decoder_wavelet.h"
#include "orvo/decoder_yuv.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

using namespace orvo;
using namespace orvo::test;

namespace {

AbstractDecoder* held(const Decoder& d) { return d.formatDecoder().data(); }

}  // namespace

// Which decoder each format code selects, and when a held decoder is kept.
TEST(DecoderDispatchTest, CodeTableAndKeepingDecoders)
{
    EXPECT_FALSE(Decoder().isInitialized());
    struct Step {
        quint8 code;
        int param;
        bool ok;
        quint8 format;   // getFormat() afterwards
        bool keeps;      // the decoder held before is kept
        const char* kind;
    };
    // Codes compare case-insensitively; the parameter means nothing for H.264 and H.265;
    // wavelet decoders are kept only for the same scale level (above 2 counts as 2);
    // JPEG 2000 keeps its decoder and takes the new level in place; an unknown code changes nothing.
    const Step steps[] = {
        {0, 0, true, 0, false, "null"},        {'Y', 0, true, 0, true, "null"},
        {'R', 0, false, 0, true, "null"},      {'y', 0, true, 'y', false, "yuv"},
        {'h', 0, true, 'h', false, "av"},      {'H', 5, true, 'h', true, "av"},
        {'e', 0, true, 'e', false, "av"},      {'E', 3, true, 'e', true, "av"},
        {'R', 0, false, 'e', true, "av"},      {'M', 0, true, 'M', false, "av"},
        {'p', 2, true, 'p', false, "wavelet"}, {'p', 7, true, 'p', true, "wavelet"},
        {'P', 2, true, 'p', true, "wavelet"},  {'p', 1, true, 'p', false, "wavelet"},
        {'n', 1, true, 'n', false, "wavelet"}, {'r', 1, true, 'r', false, "jpeg2000"},
        {'r', 3, true, 'r', true, "jpeg2000"},
    };
    Decoder d;
    for (const Step& s : steps) {
        SCOPED_TRACE(testing::Message() << "code " << int(s.code) << " param " << s.param);
        const auto before = d.formatDecoder();  // held, so that a new decoder cannot reuse its address
        EXPECT_EQ(d.init(s.code, s.param), s.ok);
        EXPECT_EQ(d.getFormat(), s.format);
        EXPECT_EQ(d.formatDecoder() == before, s.keeps);
        const std::string kind = s.kind;
        AbstractDecoder* now = held(d);
        if (kind == "null")
            EXPECT_EQ(now, DecoderNULL::instance());
        else if (kind == "yuv")
            EXPECT_NE(dynamic_cast<DecoderYUV*>(now), nullptr);
        else if (kind == "wavelet")
            EXPECT_EQ(dynamic_cast<DecoderWavelet*>(now)->scaleLevel(), std::min(s.param, 2));
        else if (kind == "jpeg2000")
            EXPECT_EQ(dynamic_cast<DecoderJPEG2000*>(now)->scaleLevel(), s.param);
        else
            EXPECT_NE(dynamic_cast<DecoderAV*>(now), nullptr);
    }
    EXPECT_EQ(dynamic_cast<DecoderAV*>(held(Decoder('M', 0)))->formatIn(), FormatIn_MPEG2);
    EXPECT_NE(dynamic_cast<DecoderMPEG4*>(held(Decoder('m', 0))), nullptr);  // MPEG-2 reports 'M', MPEG-4 'm'
    EXPECT_EQ(Decoder('m', 0).getFormat(), 'm');
    EXPECT_EQ(dynamic_cast<DecoderAV*>(held(Decoder('E', 0)))->formatIn(), FormatIn_HEVC);
    EXPECT_FALSE(Decoder('R', 0).isInitialized());

    // The null decoder fails every image; so does an unknown code, changing nothing.
    unsigned char bytes[8] = {};
    VideoFrame frame;
    EXPECT_FALSE(Decoder(quint8(0), 0).decode(bytes, sizeof bytes, frame, true));
    EXPECT_FALSE(d.decode('R', bytes, sizeof bytes, frame, 0, false));
    EXPECT_EQ(d.getFormat(), 'r');
    // Garbage and an empty payload are no picture for H.265, not a crash.
    Decoder hevc('e', 0);
    EXPECT_FALSE(decodeBytes(hevc, QByteArray("\0\0\1\x40", 4) + QByteArray(4000, '\x5a'), frame, true));
    EXPECT_FALSE(decodeBytes(hevc, QByteArray(), frame, true));
    EXPECT_TRUE(frame.isNull());
}

TEST(DecoderDispatchTest, PreferencesAreReadWhenADecoderIsCreated)
{
    PreferencesGuard guard;
    DecoderPreferences* p = DecoderPreferences::instance();

    Decoder h('h', 0);
    EXPECT_EQ(dynamic_cast<DecoderH264*>(held(h)), nullptr);
    EXPECT_EQ(dynamic_cast<DecoderAV*>(held(h))->formatIn(), FormatIn_H264);
    Decoder j('j', 0);
    EXPECT_EQ(dynamic_cast<DecoderAV*>(held(j))->formatIn(), FormatIn_MJPEG);
    Decoder x('x', 0);
    EXPECT_EQ(dynamic_cast<DecoderAV*>(held(x))->formatIn(), FormatIn_MXPEG);
    EXPECT_EQ(x.getFormat(), 'X');

    p->lookForNALsH264(true);
    p->decodeMJPEGThroughQImage(true);
    p->useMxPEGNative(true);
    AbstractDecoder* before = held(h);
    ASSERT_TRUE(h.init('h', 0));
    EXPECT_EQ(held(h), before) << "a held decoder keeps its kind";
    EXPECT_NE(dynamic_cast<DecoderH264*>(held(Decoder('h', 0))), nullptr);
    EXPECT_NE(dynamic_cast<DecoderJPEG*>(held(Decoder('J', 0))), nullptr);
    EXPECT_NE(dynamic_cast<DecoderMXPEG*>(held(Decoder('x', 0))), nullptr);
    // Going through another format picks up the new preference.
    ASSERT_TRUE(h.init('y', 0));
    ASSERT_TRUE(h.init('h', 0));
    EXPECT_NE(dynamic_cast<DecoderH264*>(held(h)), nullptr);
}

TEST(DecoderDispatchTest, CopiesShareTheFormatDecoder)
{
    Decoder a('h', 0);
    Decoder b(a);
    EXPECT_EQ(held(a), held(b));
    Decoder c('y', 0);
    AbstractDecoder* yuv = held(c);
    c.swap(a);
    EXPECT_EQ(held(a), yuv);
    EXPECT_EQ(held(c), held(b));
    b = a;
    EXPECT_EQ(held(b), yuv);
    // The H.264 decoder lives on in `c` after the other copies let go.
    QWeakPointer<AbstractDecoder> weak = c.formatDecoder();
    c = Decoder();
    EXPECT_TRUE(weak.isNull());
}

TEST(DecoderDispatchTest, DecodeWithoutDecoderFailsAndEveryDecodeIsTimed)
{
    Decoder empty;
    VideoFrame frame;
    unsigned char payload[16] = {0, 4, 0, 2};  // a 4x2 raw picture
    EXPECT_FALSE(empty.decode(payload, 16, frame, false));
    EXPECT_TRUE(frame.isNull());

    // The decoding time reaches the frame, also when decoding fails.
    Decoder yuv('y', 0);
    VideoFrame failed;
    EXPECT_FALSE(yuv.decode(payload, 15, failed, false));
    EXPECT_GT(failed.decodingDurationNanoSecs(), 0);
    EXPECT_FALSE(failed.isValid());

    bool ok = false;
    VideoFrame decoded = yuv.decode2videoframe(payload, 16, &ok, true);
    EXPECT_TRUE(ok);
    EXPECT_TRUE(decoded.isValid());
    EXPECT_GT(decoded.decodingDurationNanoSecs(), 0);
    EXPECT_EQ(decoded.width(), 4);
    ok = true;
    VideoFrame none = yuv.decode2videoframe(payload, 17, &ok, true);
    EXPECT_FALSE(ok);
    EXPECT_FALSE(none.isValid());
    yuv.decode2videoframe(payload, 16, nullptr, true);  // no result pointer is fine

    // The six-argument form decodes with the decoder it selects.
    VideoFrame viaCode;
    EXPECT_TRUE(Decoder().decode('y', payload, 16, viaCode, 0, false));
    EXPECT_TRUE(viaCode.isValid());
}

namespace {

std::vector<unsigned char> shortForm(int w, int h)
{
    std::vector<unsigned char> p{static_cast<unsigned char>(w >> 8), static_cast<unsigned char>(w),
                                 static_cast<unsigned char>(h >> 8), static_cast<unsigned char>(h)};
    const int area = w * h;
    for (int i = 0; i < area + area / 2; ++i)
        p.push_back(static_cast<unsigned char>(i * 7 + 3));
    return p;
}

std::vector<unsigned char> longForm(int ry, int ru, int rv, int w, int h)
{
    std::vector<unsigned char> p = shortForm(w, h);
    const int fields[6] = {0, ry, ru, rv, w, h};
    for (int i = 0; i < 6; ++i) {
        p[size_t(2 * i)] = static_cast<unsigned char>(fields[i] >> 8);
        p[size_t(2 * i + 1)] = static_cast<unsigned char>(fields[i]);
    }
    return p;
}

// Checks every visible sample of a decoded raw picture against the payload, with the
// given rotations, and that odd-sized chroma edges repeat their neighbours.
void expectPlanes(const VideoFrame& frame, const std::vector<unsigned char>& p, int w, int h, int ry, int ru, int rv)
{
    ASSERT_TRUE(frame.map());
    const unsigned char* src = p.data() + 4;
    const int area = w * h, cw = w / 2, ch = h / 2;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            ASSERT_EQ(frame.lineY(y)[x], src[y * w + (x + ry) % w]) << "Y " << x << "," << y;
    for (int y = 0; y < ch; ++y)
        for (int x = 0; x < cw; ++x) {
            ASSERT_EQ(frame.lineU(y)[x], src[area + y * cw + (x + ru) % cw]) << "U " << x << "," << y;
            ASSERT_EQ(frame.lineV(y)[x], src[area + area / 4 + y * cw + (x + rv) % cw]) << "V " << x << "," << y;
        }
    if (w % 2 && cw > 0)
        for (int y = 0; y < ch; ++y)
            EXPECT_EQ(frame.lineU(y)[cw], frame.lineU(y)[cw - 1]);
    if (h % 2 && ch > 0)
        for (int x = 0; x < (w + 1) / 2; ++x)
            EXPECT_EQ(frame.lineV(ch)[x], frame.lineV(ch - 1)[x]);
    frame.unmap();
}

}  // namespace

TEST(DecoderYUVTest, ShortAndLongFormsWithRotations)
{
    DecoderYUV yuv;
    VideoFrame frame;
    // 17 wide: rows copied one by one into a 32-byte pitch, odd chroma edges completed; a
    // width that is a multiple of 16 takes the one-piece path. Long form: RY = 1 turns a row
    // a b c d into b c d a.
    const struct {
        int w, h, ry, ru, rv;
        bool longForm;
        unsigned bplY, bplU;
    } rows[] = {{4, 2, 0, 0, 0, false, 16, 8},  {17, 5, 0, 0, 0, false, 32, 16}, {4, 4, 1, 0, 0, true, 16, 8},
                {32, 6, 5, 3, 7, true, 32, 16}, {32, 6, 0, 0, 0, false, 32, 16}};
    for (const auto& r : rows) {
        SCOPED_TRACE(testing::Message() << r.w << "x" << r.h << " rotations " << r.ry << r.ru << r.rv);
        std::vector<unsigned char> p = r.longForm ? longForm(r.ry, r.ru, r.rv, r.w, r.h) : shortForm(r.w, r.h);
        ASSERT_TRUE(yuv.decode(p.data(), int(p.size()), frame, false));
        EXPECT_EQ(frame.pixelFormat(), VideoFrame::Format_YUV420P);
        EXPECT_EQ(frame.width(), r.w);
        EXPECT_EQ(frame.heightU(), (r.h + 1) / 2);
        ASSERT_TRUE(frame.map());
        EXPECT_EQ(frame.bytesPerLineY(), r.bplY);
        EXPECT_EQ(frame.bytesPerLineU(), r.bplU);
        frame.unmap();
        expectPlanes(frame, p, r.w, r.h, r.ry, r.ru, r.rv);
    }
    // The long form's header ends in the first two Y rows.
    std::vector<unsigned char> rotated = longForm(1, 0, 0, 4, 4);
    rotated[12] = 'a', rotated[13] = 'b', rotated[14] = 'c', rotated[15] = 'd';
    ASSERT_TRUE(yuv.decode(rotated.data(), 28, frame, false));
    ASSERT_TRUE(frame.map());
    EXPECT_EQ(QByteArray(reinterpret_cast<char*>(frame.lineY(1)), 4), QByteArray("\x04\x00\x04\x00", 4));
    EXPECT_EQ(QByteArray(reinterpret_cast<char*>(frame.lineY(2)), 4), QByteArray("bcda"));
    frame.unmap();
    // 4x2 is accepted only at exactly 4 + 8 + 4 bytes; a rejected payload leaves the frame alone.
    const VideoFrame kept = frame;
    std::vector<unsigned char> small = shortForm(4, 2);
    small.push_back(0);
    EXPECT_FALSE(yuv.decode(small.data(), 15, frame, false));
    EXPECT_FALSE(yuv.decode(small.data(), 17, frame, false));
    EXPECT_EQ(frame, kept);
}

TEST(DecoderYUVTest, HostilePayloadsAreRejected)
{
    DecoderYUV yuv;
    VideoFrame frame;
    // Sides whose product overflows 32 bits and wraps to exactly this payload's size.
    std::vector<unsigned char> overflow(4 + 1529, 0x55);
    overflow[0] = 60025 >> 8, overflow[1] = 60025 & 0xFF, overflow[2] = 47702 >> 8, overflow[3] = 47702 & 0xFF;
    EXPECT_FALSE(yuv.decode(overflow.data(), int(overflow.size()), frame, false));

    // Rotations at or beyond their row: Y rows are 4 bytes, chroma rows 2.
    for (auto bad : {longForm(4, 0, 0, 4, 4), longForm(65535, 0, 0, 4, 4), longForm(0, 2, 0, 4, 4),
                     longForm(0, 0, 2, 4, 4), longForm(0, 1, 0, 1, 8)}) {
        EXPECT_FALSE(yuv.decode(bad.data(), int(bad.size()), frame, false));
    }
    std::vector<unsigned char> edge = longForm(3, 1, 1, 4, 4);
    VideoFrame accepted;
    EXPECT_TRUE(yuv.decode(edge.data(), int(edge.size()), accepted, false));

    // Shorter than its header, exactly sized buffers so that any overread shows under ASan.
    for (int size = 0; size < 12; ++size) {
        std::vector<unsigned char> tiny(size_t(size), 0);
        EXPECT_FALSE(yuv.decode(size ? tiny.data() : nullptr, size, frame, false)) << size;
    }
    EXPECT_TRUE(frame.isNull());
    std::vector<unsigned char> empty{0, 0, 0, 0};  // a 0-wide long form needs 12 bytes
    EXPECT_FALSE(yuv.decode(empty.data(), 4, frame, false));
}

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
    CaptureFd out(1);
    // The second header runs past the end of the data, where bits read as zero.
    EXPECT_EQ(h264::dumpSliceHeaders(slice.data(), int(slice.size())), 0);
    EXPECT_EQ(out.text(), "\n___________h264 debug_________________\n"
                          "offset=0 nal=65, first_mb=0 slice_type=7 ppsid=0 frame_num=5\n"
                          "offset=7 nal=41, first_mb=0 slice_type=5 ppsid=0 frame_num=0\n"
                          "___________h264 debug____end_____________\n");
    CaptureFd quiet(1);
    Bytes tiny{0, 0, 0, 1, 0x65};
    EXPECT_EQ(h264::dumpSliceHeaders(tiny.data(), int(tiny.size())), -1);
    // Zero bits to the end: the readers stop at the end of the data instead of running on.
    Bytes zeros{0, 0, 0, 1, 0x65, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(h264::dumpSliceHeaders(zeros.data(), int(zeros.size())), 0);

    const Bytes bits{0x38, 0x80};  // 00111 -> 6, then 000 and 100
    h264::BitReader reader(bits.data(), 2);
    EXPECT_EQ(reader.readUE(), 6u);
    EXPECT_EQ(reader.readBits(3), 0u);
    EXPECT_EQ(reader.readBits(3), 4u);
    EXPECT_EQ(reader.readBits(32), 0u);  // past the end reads zeros
}
