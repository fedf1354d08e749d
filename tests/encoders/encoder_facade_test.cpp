// The facade without and with a backend, silence padding, the error record; the audio buffer
// against a recording backend (real encoders: the output-format suite); codec names and
// identifiers, the codecs a container takes, and the listings clients print.
#include "encoders/encoder_test_support.h"
#include "orvo/audio_buffer_encoder.h"
#include "orvo/av_encoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <numeric>

extern "C" {
#include <libavcodec/avcodec.h>
}

using namespace orvo;
using namespace orvo::test;

namespace {

TEST(EncoderError, MessagesAndReset)
{
    EncoderError e;
    EXPECT_FALSE(e.hasError());
    e.setErrorId(EncoderError::CouldNotOpenFile);
    EXPECT_EQ(e.toString(), "Could not open file for writing.");
    e.setErrorId(static_cast<EncoderError::ErrorCode>(42));
    EXPECT_EQ(e.toString(), "Unknown Error");
    e.setAdditionalInfo("/tmp/x.avi");
    e.reset();  // the code only
    EXPECT_FALSE(e.hasError());
    EXPECT_EQ(e.additionalInfo(), "/tmp/x.avi");
}

// Without a backend every call fails or does nothing, without crashing.
TEST(Encoder, WithoutBackendGivesFixedResults)
{
    Encoder enc;
    std::vector<short> s(16);
    unsigned char b[4] = {};
    double seconds = 7.5;
    CaptureFd out(1);
    EXPECT_EQ(enc.encode(b, b, b, 1, 1, 1, nullptr, 0), -1);
    EXPECT_EQ(enc.output_encoded_video(b, 4), -1);
    EXPECT_EQ(enc.engine_id(), -1);
    EXPECT_EQ(enc.encode_audio(s.data(), nullptr, 0), 0);
    EXPECT_EQ(enc.encode_audio(s.data(), 16, nullptr, 0), 0);
    enc.close();
    EXPECT_EQ(enc.compareAudioVideoPTS(seconds), 0);
    EXPECT_EQ(seconds, 7.5);
    EXPECT_FALSE(enc.encode_silence(10000));
    EXPECT_FALSE(enc.sync_audio_to_video_with_silence(true));
}

TEST(Encoder, InitByEngineNumber)
{
    Encoder enc;
    EXPECT_FALSE(enc.init(2));
    EXPECT_FALSE(enc.init(-1));
    EXPECT_EQ(enc.getBackend(), nullptr);

    int destroyed = 0;
    auto* fake = new FakeBackend(1152, 48000, &destroyed);
    enc.setBackend(fake);
    EXPECT_FALSE(enc.init(2));
    EXPECT_TRUE(enc.init(1));  // engine 1 matches: kept
    EXPECT_EQ(enc.getBackend(), fake);
    EXPECT_EQ(destroyed, 0);
    EXPECT_TRUE(enc.init(0));  // engine 0 never matches: replaced by a fresh AVEncoder
    EXPECT_EQ(destroyed, 1);
    EXPECT_NE(dynamic_cast<AVEncoder*>(enc.getBackend()), nullptr);
    EXPECT_EQ(enc.engine_id(), 1);

    // open with an engine the facade does not know, on an empty facade.
    Encoder empty;
    CaptureFd out(1);
    EXPECT_FALSE(empty.open(7, "x.avi", "", 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, nullptr, ignoreEncoderError));

    // Copies share one backend, deleted once by the last owner.
    int gone = 0;
    {
        Encoder a;
        a.setBackend(new FakeBackend(1152, 48000, &gone));
        Encoder b;
        b = a;
        EXPECT_EQ(a.getBackend(), b.getBackend());
        a.setBackend(nullptr);
        EXPECT_EQ(gone, 0);
        EXPECT_EQ(b.getAudioInputFrameSize(), 1152);
    }
    EXPECT_EQ(gone, 1);
}

// Silence goes out in whole frames; sync pads a partial frame only when asked.
TEST(Encoder, SilenceAndSyncCountWholeFrames)
{
    const struct {
        int silence;      // encode_silence(silence), or sync with the video end at -silence
        bool pad;
        size_t frames;
    } cases[] = {{1151, false, 0}, {2 * 1152 + 5, false, 2}, {-1152 * 3 / 2, true, 2}, {-1152 * 3 / 2, false, 1},
                 {-1152 * 3, true, 3}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.silence);
        Encoder enc;
        auto* fake = new FakeBackend(1152, 48000);
        enc.setBackend(fake);
        if (c.silence > 0) {
            EXPECT_EQ(enc.encode_silence(c.silence), c.frames > 0);
        } else {
            fake->videoEnd = -c.silence;
            EXPECT_TRUE(enc.sync_audio_to_video_with_silence(c.pad));
        }
        ASSERT_EQ(fake->frames.size(), c.frames);
        for (const auto& frame : fake->contents)
            for (short v : frame)
                ASSERT_EQ(v, 0);
        if (c.silence == -1152 * 3) {  // exactly three frames: level
            EXPECT_EQ(enc.behindAudioSamples(), 0);
            double seconds = 1;
            EXPECT_EQ(enc.compareAudioVideoPTS(seconds), 0);
            EXPECT_EQ(seconds, 0);
        }
        fake->audio = false;
        EXPECT_FALSE(enc.encode_silence(5000));
        EXPECT_FALSE(enc.sync_audio_to_video_with_silence(true));
    }
}

template <typename List, typename Id>
bool has(const List& l, Id id)
{
    return std::find(l.begin(), l.end(), id) != l.end();
}

TEST(Catalogue, NamesAndIdentifiers)
{
    // The special names are what clients store in their settings.
    const std::pair<const char*, AVCodecID> names[] = {
        {"NONE", AV_CODEC_ID_NONE},   {"NO CODEC", AV_CODEC_ID_NONE}, {"none", AV_CODEC_ID_NONE},
        {"AUTO", AV_CODEC_ID_PROBE},  {"auto", AV_CODEC_ID_PROBE},    {"Auto", AV_CODEC_ID_NONE},
        {"mpeg4", AV_CODEC_ID_MPEG4}, {"aac", AV_CODEC_ID_AAC},       {"adpcm_ima_wav", AV_CODEC_ID_ADPCM_IMA_WAV},
        {"libx265", AV_CODEC_ID_HEVC}, {"no-such-codec", AV_CODEC_ID_NONE},
    };
    for (const auto& [name, id] : names)
        EXPECT_EQ(AVEncoder::cstring2CodecID(name), id) << name;
    EXPECT_STREQ(AVEncoder::CodecID2cstring(AV_CODEC_ID_NONE), "NO CODEC");
    EXPECT_STREQ(AVEncoder::CodecID2cstring(AV_CODEC_ID_PROBE), "AUTO");
    EXPECT_STREQ(AVEncoder::CodecID2cstring(AV_CODEC_ID_VP6), "UNKNOWN");
    for (AVCodecID id : {AV_CODEC_ID_MJPEG, AV_CODEC_ID_MPEG2VIDEO, AV_CODEC_ID_H264, AV_CODEC_ID_AC3, AV_CODEC_ID_MP2})
        EXPECT_EQ(AVEncoder::cstring2CodecID(AVEncoder::CodecID2cstring(id)), id);

    std::string name;
    EXPECT_FALSE(AVEncoder::get_name_for_codec(AV_CODEC_ID_VP6, name));
    std::list<AVCodecID> ids{AV_CODEC_ID_MPEG4, AV_CODEC_ID_VP6, AV_CODEC_ID_MP2};
    std::list<int> mp2{AV_CODEC_ID_MP2};
    std::list<std::string> listed;
    AVEncoder::get_names_for_codecs(ids, listed);
    EXPECT_EQ(listed, (std::list<std::string>{"mpeg4", "mp2"}));
    listed.clear();
    AVEncoder::get_names_for_codecs(mp2, listed);
    EXPECT_EQ(listed, std::list<std::string>{"mp2"});
}

TEST(Catalogue, CodecsOfAContainer)
{
    AVCodecID dv = AV_CODEC_ID_VP6, da = AV_CODEC_ID_VP6;
    std::list<AVCodecID> video, audio, pcm;
    EXPECT_FALSE(AVEncoder::get_codecs(static_cast<const AVOutputFormat*>(nullptr), dv, da, video, audio, pcm,
                                       AV_SAMPLE_FMT_NONE));
    EXPECT_EQ(dv, AV_CODEC_ID_VP6);
    const AVOutputFormat* avi = av_guess_format("avi", nullptr, nullptr);
    ASSERT_TRUE(AVEncoder::get_codecs(avi, dv, da, video, audio, pcm, AV_SAMPLE_FMT_NONE));
    EXPECT_EQ(dv, avi->video_codec);
    EXPECT_EQ(da, avi->audio_codec);
    EXPECT_TRUE(has(video, AV_CODEC_ID_MPEG4) && has(video, AV_CODEC_ID_MJPEG));
    EXPECT_FALSE(has(video, AV_CODEC_ID_VP6));  // no encoder
    EXPECT_TRUE(has(audio, AV_CODEC_ID_MP2));
    EXPECT_TRUE(has(pcm, AV_CODEC_ID_PCM_S16LE));
    EXPECT_FALSE(has(audio, AV_CODEC_ID_ADPCM_IMA_WAV));  // ADPCM is never listed

    // Sample-format filter: MP2 takes S16, AAC only planar float.
    std::list<int> v2, a2, p2;
    int idv = 0, ida = 0;
    CaptureFd out(1);
    ASSERT_TRUE(AVEncoder::get_codecs("x.mp4", "", idv, ida, v2, a2, p2, AV_SAMPLE_FMT_S16));
    EXPECT_FALSE(has(a2, int(AV_CODEC_ID_AAC)));
    EXPECT_TRUE(has(a2, int(AV_CODEC_ID_MP2)));
    a2.clear();
    ASSERT_TRUE(AVEncoder::get_codecs("x.mp4", nullptr, idv, ida, v2, a2, p2, AV_SAMPLE_FMT_FLTP));
    EXPECT_TRUE(has(a2, int(AV_CODEC_ID_AAC)));
    EXPECT_FALSE(AVEncoder::get_codecs("x.nosuchext", "", idv, ida, v2, a2, p2, -1));

    EXPECT_TRUE(AVEncoder::is_video_codec_compatible_with_format("mp4", AV_CODEC_ID_H264));
    EXPECT_TRUE(AVEncoder::is_video_codec_compatible_with_format("avi", AV_CODEC_ID_MPEG4));
    EXPECT_FALSE(AVEncoder::is_video_codec_compatible_with_format("mp4", AV_CODEC_ID_VP6));
    EXPECT_FALSE(AVEncoder::is_video_codec_compatible_with_format("nosuchext", AV_CODEC_ID_H264));
}

TEST(Catalogue, Listings)
{
    CaptureFd out(1);
    ASSERT_TRUE(AVEncoder::display_codecs_for_format("x.avi", "", true));
    AVEncoder::list_all_formats(false);
    ASSERT_TRUE(AVEncoder::display_codecs_for_format("x.nosuchext", nullptr, false));
    std::list<std::string> names{"a"};
    AVEncoder::disp_codec_names(names);
    const std::string text = out.text();
    // The MPEG-4 entry with its FourCC tag, and the MPEG fallback for an unknown extension.
    EXPECT_NE(text.find("FMP4(0x46 0x4d 0x50 0x34)"), std::string::npos);
    EXPECT_NE(text.find("\nmatroska|"), std::string::npos);
    EXPECT_NE(text.find("using MPEG.\nmpeg|"), std::string::npos);
}

std::vector<short> ramp(int n, int from = 1)
{
    std::vector<short> s(n);
    std::iota(s.begin(), s.end(), short(from));
    return s;
}

struct BufferFixture : ::testing::Test {
    BufferFixture()
    {
        fake = new FakeBackend(1152, 48000);
        enc.setBackend(fake);
    }
    Encoder enc;
    FakeBackend* fake;
    std::unique_ptr<AudioBufferEncoder> buf = std::make_unique<AudioBufferEncoder>();
};

TEST_F(BufferFixture, EncodesWholeFramesAndKeepsTheRest)
{
    std::vector<short> in = ramp(3000);
    unsigned int encodedNow = 0;
    EXPECT_TRUE(buf->enqueue(enc, in.data(), 3000, encodedNow, true));
    EXPECT_EQ(encodedNow, 2304u);
    EXPECT_EQ(buf->encoded(), 2304u);
    EXPECT_EQ(buf->buffered(), 696u);
    ASSERT_EQ(fake->frames.size(), 2u);
    // The first frame was gathered in the buffer, the second read straight from the input.
    EXPECT_TRUE(fake->frames[0] < in.data() || fake->frames[0] >= in.data() + in.size());
    EXPECT_EQ(fake->frames[1], in.data() + 1152);
    EXPECT_EQ(fake->contents[0], std::vector<short>(in.begin(), in.begin() + 1152));

    // The buffered tail leads the next frame.
    std::vector<short> more = ramp(456, 3001);
    EXPECT_TRUE(buf->enqueue(enc, more.data(), 456, true));
    ASSERT_EQ(fake->frames.size(), 3u);
    EXPECT_EQ(fake->contents[2], ramp(1152, 1 + 2304));
    EXPECT_TRUE(buf->isEmpty());
}

TEST_F(BufferFixture, HoldsBackWhileAudioIsAhead)
{
    fake->audioEnd = 48000;  // audio one second ahead of the video
    std::vector<short> in = ramp(5000);
    EXPECT_TRUE(buf->enqueue(enc, in.data(), 5000, false));
    EXPECT_TRUE(fake->frames.empty());
    EXPECT_EQ(buf->buffered(), 5000u);
    EXPECT_EQ(buf->room(enc), buf->room());  // behind is negative

    // Video moves 2,000 samples past the audio: frames go out until audio is level or ahead.
    fake->videoEnd = 48000 + 2000;
    EXPECT_EQ(buf->room(enc), buf->room() + 2000);
    EXPECT_EQ(buf->flush_to_sync(enc, false), 2304);
    EXPECT_EQ(buf->buffered(), 5000u - 2304u);
    EXPECT_EQ(fake->contents[1], ramp(1152, 1153));
}

TEST_F(BufferFixture, LimitsOfTheBuffer)
{
    fake->audioEnd = 48000;  // nothing is encoded
    std::vector<short> big(65537);
    EXPECT_FALSE(buf->enqueue(enc, big.data(), 65537, false));
    EXPECT_TRUE(buf->isEmpty());
    std::vector<short> in = ramp(65000);
    EXPECT_TRUE(buf->enqueue(enc, in.data(), 65000, false));
    unsigned int encodedNow = 99;
    std::vector<short> tail = ramp(536, 7);
    EXPECT_EQ(buf->enqueue_some(enc, tail.data(), 100000, encodedNow, false), 536);
    EXPECT_EQ(encodedNow, 0u);
    EXPECT_EQ(buf->buffered(), 65536u);
    EXPECT_EQ(buf->room(), 0u);
    EXPECT_FALSE(buf->fits(1));
    EXPECT_FALSE(buf->enqueue_some(enc, tail.data(), 1, false));
}

TEST_F(BufferFixture, OverflowBecomesSilence)
{
    fake->audioEnd = 48000;  // nothing is encoded
    std::vector<short> in = ramp(60000);
    EXPECT_TRUE(buf->enqueue(enc, in.data(), 60000, false));
    CaptureFd out(1);
    EXPECT_EQ(buf->enqueue_silence(enc, 10000, false), 1);
    EXPECT_EQ(out.text(), "audio buffer full,silence will be encoded\n");
    EXPECT_EQ(buf->buffered(), 60000u);
    EXPECT_TRUE(buf->hasSilence());
    EXPECT_EQ(buf->room(), 0u);
    // Once audio may go on, the buffered samples and then the silence are encoded.
    fake->audioEnd = 0;
    fake->videoEnd = 1 << 20;
    const int encoded = buf->flush_to_sync(enc, false);
    EXPECT_EQ(encoded, 70000 / 1152 * 1152);
    EXPECT_EQ(buf->buffered(), 70000u % 1152u);
    EXPECT_FALSE(buf->hasSilence());
    for (size_t f = 53; f < fake->contents.size(); ++f)  // frames past the data start with silence
        EXPECT_EQ(fake->contents[f][0], 0) << f;
}

TEST_F(BufferFixture, DiscardAndPushSilence)
{
    fake->audioEnd = 48000;
    std::vector<short> in = ramp(4);
    EXPECT_TRUE(buf->enqueue(enc, in.data(), 4, false));
    EXPECT_EQ(buf->enqueue_silence(enc, 20, false), 1);
    EXPECT_EQ(buf->buffered(), 4u);
    EXPECT_TRUE(buf->hasSilence());
    buf->discard(0, 5);  // position 0 is discard_front's
    EXPECT_EQ(buf->buffered(), 4u);
    buf->discard_front(10);
    EXPECT_EQ(buf->buffered(), 0u);
    EXPECT_TRUE(buf->fits(65536 - 14));
    EXPECT_FALSE(buf->fits(65536 - 13));
    buf->discard_silence();
    EXPECT_TRUE(buf->isEmpty());

    std::vector<short> data = ramp(6, 11);
    EXPECT_TRUE(buf->enqueue(enc, data.data(), 6, false));
    EXPECT_TRUE(buf->push_silence_at_front(3));
    EXPECT_FALSE(buf->push_silence_at_front(-1));
    EXPECT_TRUE(buf->push_silence_at_front(0));
    EXPECT_EQ(buf->buffered(), 9u);
    // Now encode everything: the frame starts with three zeros, then the data.
    fake->audioEnd = 0;
    EXPECT_EQ(buf->enqueue_silence(enc, 1152 - 9, true), 1);
    ASSERT_EQ(fake->frames.size(), 1u);
    const std::vector<short>& f = fake->contents[0];
    EXPECT_EQ(std::vector<short>(f.begin(), f.begin() + 9), (std::vector<short>{0, 0, 0, 11, 12, 13, 14, 15, 16}));

    // discard(position, n) inside the buffered samples and into the silence.
    buf->discard();
    fake->audioEnd = 48000;
    std::vector<short> ten = ramp(10);
    EXPECT_TRUE(buf->enqueue(enc, ten.data(), 10, false));
    EXPECT_EQ(buf->enqueue_silence(enc, 10, false), 1);
    buf->discard(8, 5);  // two buffered samples and three of silence
    EXPECT_EQ(buf->buffered(), 8u);
    EXPECT_TRUE(buf->fits(65536 - 8 - 7));
    EXPECT_FALSE(buf->fits(65536 - 8 - 6));
    buf->discard(12, 100);  // cuts the silence at position 12
    EXPECT_TRUE(buf->fits(65536 - 12));
    EXPECT_FALSE(buf->fits(65536 - 11));
    buf->discard(2, 3);
    EXPECT_EQ(buf->buffered(), 5u);
}

}  // namespace
