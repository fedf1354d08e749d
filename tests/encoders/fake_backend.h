#pragma once
// A backend that records what the facade and the audio buffer ask of it. Track ends are
// counted in samples at `rate`: the video end is set by the test, the audio end grows by
// one frame per encode_audio.
#include "orvo/encoder.h"

#include <cstdlib>
#include <vector>

namespace orvo::test {

class FakeBackend : public AbstractEncoder {
public:
    FakeBackend(int frameSize, int rate, int* destroyed = nullptr, int engine = 1)
        : frameSize(frameSize), rate(rate), destroyed(destroyed), engine(engine) {}
    ~FakeBackend() override
    {
        if (destroyed)
            ++*destroyed;
    }

    bool open(const std::string&, const std::string&, unsigned int, int, int, int, int, int, int, int, int, int,
              unsigned int, int, int, int, void*, EncoderError&, bool) override
    {
        return false;
    }
    int compareAudioVideoPTS(int& whole, int& num, int& den, bool& exact) const override
    {
        const qint64 diff = audioEnd - videoEnd;
        whole = static_cast<int>(diff / rate);
        num = static_cast<int>(diff % rate);
        den = rate;
        exact = true;
        return diff == 0 ? 0 : diff > 0 ? static_cast<int>(std::abs(whole)) + 1 : -(std::abs(whole) + 1);
    }
    bool hasVideo() const override { return true; }
    bool hasAudio() const override { return audio; }
    int getAudioInputFrameSize() const override { return frameSize; }
    int getAudioSampleRate() const override { return rate; }
    qint64 behindAudioSamples() const override { return videoEnd - audioEnd; }
    int encode(unsigned char*, unsigned char*, unsigned char*, unsigned int, unsigned int, unsigned int,
               unsigned char*, int) override
    {
        return 0;
    }
    int output_encoded_video(unsigned char*, int size) override { return size; }
    int encode_audio(short* samples, unsigned char*, int) override
    {
        frames.push_back(samples);
        contents.emplace_back(samples, samples + frameSize);
        audioEnd += frameSize;
        return 10;
    }
    void close() override {}
    int engine_id() const override { return engine; }

    int frameSize;
    int rate;
    int* destroyed;
    int engine;
    bool audio = true;
    qint64 videoEnd = 0;
    qint64 audioEnd = 0;
    std::vector<const short*> frames;
    std::vector<std::vector<short>> contents;
};

}  // namespace orvo::test
