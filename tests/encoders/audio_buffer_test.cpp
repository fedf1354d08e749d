// The audio buffer against a recording backend (real encoders: the output-format suite).
#include "encoders/encoder_test_support.h"
#include "orvo/audio_buffer_encoder.h"

#include <gtest/gtest.h>

#include <memory>
#include <numeric>

using namespace orvo;
using namespace orvo::test;

namespace {

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
    EXPECT_EQ(buf->max_enqueue_samples(), 0xFFFFFFFFLL);
    EXPECT_EQ(buf->capacity(), 65536u);
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

    EXPECT_TRUE(buf->is_continuous());
    buf->set_discontinuity_flag(true);
    EXPECT_TRUE(buf->out_of_sync());
    EXPECT_TRUE(buf->skipped_forward());
    buf->reset_encoded();
    EXPECT_EQ(buf->encoded(), 0u);
}

}  // namespace
