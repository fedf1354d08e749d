// The facade without and with a backend, silence padding, the error record.
#include "encoders/encoder_test_support.h"
#include "orvo/av_encoder.h"

#include <gtest/gtest.h>

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
    out.text();
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
    out.text();

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

}  // namespace
