// The audio buffer script (audio_script.h) against an in-process backend that only keeps
// the two track ends, so that a run costs microseconds; fuzz_audio_buffer_encoder runs
// the same scripts through FFmpeg's MP2 encoder.
#include "fuzz/audio_script.h"

#include <unistd.h>

namespace {

// Track ends in samples at 16 kHz: a picture moves video on by 1/25 s, an audio frame
// moves audio on by its 1152 samples, as they do in the real encoder.
class TrackEnds : public orvo::AbstractEncoder {
public:
    static constexpr int kRate = 16000, kFrame = 1152, kPicture = kRate / 25;
    bool open(const std::string&, const std::string&, unsigned int, int, int, int, int, int, int, int, int, int,
              unsigned int, int, int, int, void*, orvo::EncoderError&, bool) override
    {
        return true;
    }
    int compareAudioVideoPTS(int& whole, int& num, int& den, bool& exact) const override
    {
        const qint64 diff = audioEnd_ - videoEnd_;
        whole = int(diff / kRate);
        num = int(diff % kRate);
        den = kRate;
        exact = true;
        return diff == 0 ? 0 : diff > 0 ? std::abs(whole) + 1 : -(std::abs(whole) + 1);
    }
    bool hasVideo() const override { return true; }
    bool hasAudio() const override { return true; }
    int getAudioInputFrameSize() const override { return kFrame; }
    int getAudioSampleRate() const override { return kRate; }
    qint64 behindAudioSamples() const override { return videoEnd_ - audioEnd_; }
    int encode(unsigned char*, unsigned char*, unsigned char*, unsigned int, unsigned int, unsigned int,
               unsigned char*, int) override
    {
        videoEnd_ += kPicture;
        return 0;
    }
    int output_encoded_video(unsigned char*, int size) override { return size; }
    int encode_audio(short* samples, unsigned char*, int) override
    {
        // Reads the whole frame, as an encoder would: a frame past the buffer is caught.
        static short frame[kFrame];
        std::memcpy(frame, samples, sizeof frame);
        audioEnd_ += kFrame;
        return 10;
    }
    void close() override {}
    int engine_id() const override { return 1; }

private:
    qint64 videoEnd_ = 0;
    qint64 audioEnd_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // The buffer reports overflows on standard output; libFuzzer reports on standard error.
    if (FILE* null = std::fopen("/dev/null", "w")) {
        ::dup2(::fileno(null), 1);
        std::fclose(null);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    orvo::Encoder enc;
    enc.setBackend(new TrackEnds);
    orvo::fuzz::runAudioScript(enc, data, size);
    return 0;
}
