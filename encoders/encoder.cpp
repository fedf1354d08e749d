#include "orvo/encoder.h"

#include "orvo/av_encoder.h"
#include "orvo/log.h"

#include <cstdio>
#include <cstring>
#include <mutex>

namespace orvo {

short Encoder::silence_buffer[Encoder::kSilenceSamples];

int AbstractEncoder::compareAudioVideoPTS() const
{
    int whole = 0, num = 0, den = 1;
    bool exact = true;
    return compareAudioVideoPTS(whole, num, den, exact);
}

int AbstractEncoder::compareAudioVideoPTS(double& seconds)
{
    int whole = 0, num = 0, den = 1;
    bool exact = true;
    const int result = compareAudioVideoPTS(whole, num, den, exact);
    seconds = static_cast<double>(num) / den + whole;
    return result;
}

Encoder::Encoder() = default;

Encoder::Encoder(int engine)
{
    init(engine);
    // Zeroed once: it never holds anything but zeros, and encoders on other threads may
    // be reading it while this one is constructed.
    static std::once_flag zeroed;
    std::call_once(zeroed, [] { std::memset(silence_buffer, 0, sizeof(silence_buffer)); });
}

Encoder::~Encoder()
{
    backend_.reset();
}

bool Encoder::init(int engine)
{
    if (static_cast<unsigned int>(engine) > 1)
        return false;
    if (backend_ && backend_->engine_id() == engine)
        return true;
    backend_.reset();
    backend_ = std::make_shared<AVEncoder>();
    return true;
}

bool Encoder::open(int engine, std::string filename, const char* formatName, unsigned int videoCodec, int width,
                   int height, int sarNum, int sarDen, int bitRate, int bitRateTolerance, int timeBaseDen,
                   int timeBaseNum, int gopSize, unsigned int audioCodec, int audioBitRate, int sampleRate,
                   int channels, void* presetOption, EncoderError& error)
{
    if (!backend_) {
        if (!init(engine)) {
            oprint(LogStream::StandardOutput, "init(%d) failed\n", engine);
            return false;
        }
        if (!backend_)
            return false;
    }
    if (auto* av = dynamic_cast<AVEncoder*>(backend_.get()); av && av->isCrashSafeRecording() != crashSafe_)
        av->setCrashSafeRecording(crashSafe_);
    const std::string format = formatName ? std::string(formatName) : std::string();
    // The facade never suppresses the video stream.
    return backend_->open(filename, format, videoCodec, width, height, sarNum, sarDen, bitRate, bitRateTolerance,
                          timeBaseDen, timeBaseNum, gopSize, audioCodec, audioBitRate, sampleRate, channels,
                          presetOption, error, false);
}

void Encoder::setBackend(AbstractEncoder* backend)
{
    backend_.reset();
    backend_.reset(backend);
}

int Encoder::encode(unsigned char* y, unsigned char* u, unsigned char* v, unsigned int yStride,
                    unsigned int uStride, unsigned int vStride, unsigned char* outBuffer, int outBufferSize)
{
    if (!backend_) {
        oprint(LogStream::StandardOutput, "Encoder::encode: Encoder not initialized.\n");
        return -1;
    }
    return backend_->encode(y, u, v, yStride, uStride, vStride, outBuffer, outBufferSize);
}

int Encoder::output_encoded_video(unsigned char* data, int size)
{
    if (!backend_) {
        oprint(LogStream::StandardOutput, "Encoder::output_encoded_video: Encoder not initialized.\n");
        return -1;
    }
    return backend_->output_encoded_video(data, size);
}

int Encoder::engine_id()
{
    if (!backend_) {
        oprint(LogStream::StandardOutput, "Encoder::engine_id: Encoder not initialized.\n");
        return -1;
    }
    return backend_->engine_id();
}

int Encoder::encode_audio(short* samples, unsigned char* outBuffer, int outBufferSize)
{
    return backend_ ? backend_->encode_audio(samples, outBuffer, outBufferSize) : 0;
}

int Encoder::encode_audio(short* samples, int /*count*/, unsigned char* outBuffer, int outBufferSize)
{
    return backend_ ? backend_->encode_audio(samples, outBuffer, outBufferSize) : 0;
}

bool Encoder::isAudio() { return backend_ ? backend_->hasAudio() : false; }
bool Encoder::isVideo() { return backend_ ? backend_->hasVideo() : false; }

void Encoder::close()
{
    if (backend_)
        backend_->close();
}

qint64 Encoder::behindAudioSamples() { return backend_ ? backend_->behindAudioSamples() : 0; }
int Encoder::compareAudioVideoPTS() { return backend_ ? backend_->compareAudioVideoPTS() : 0; }
int Encoder::compareAudioVideoPTS(double& seconds) { return backend_ ? backend_->compareAudioVideoPTS(seconds) : 0; }

int Encoder::compareAudioVideoPTS(int& wholeSeconds, int& fractionNumerator, int& fractionDenominator, bool& exact)
{
    return backend_ ? backend_->compareAudioVideoPTS(wholeSeconds, fractionNumerator, fractionDenominator, exact) : 0;
}

int Encoder::getAudioInputFrameSize() { return backend_ ? backend_->getAudioInputFrameSize() : 0; }
int Encoder::getAudioSampleRate() { return backend_ ? backend_->getAudioSampleRate() : 0; }

// One frame of silence is read from silence_buffer: frame size times channels samples.
// A codec whose frame would run past the buffer gets no silence rather than a read
// outside it.
bool Encoder::silenceFits()
{
    const int frame = backend_->getAudioInputFrameSize();
    int channels = 1;
    if (auto* av = dynamic_cast<AVEncoder*>(backend_.get()))
        channels = av->getAudioChannels();
    return frame > 0 && channels > 0 && static_cast<qint64>(frame) * channels <= kSilenceSamples;
}

bool Encoder::encode_silence(int samples)
{
    if (!backend_ || !backend_->hasAudio())
        return false;
    const int frame = backend_->getAudioInputFrameSize();
    if (samples < frame || !silenceFits())
        return false;
    for (int i = 0, n = samples / frame; i < n; ++i)
        backend_->encode_audio(silence_buffer, nullptr, 0);
    return true;
}

bool Encoder::sync_audio_to_video_with_silence(bool padPartialFrame)
{
    if (!backend_ || !backend_->hasAudio())
        return false;
    if (!silenceFits())
        return false;
    while (backend_->behindAudioSamples() >= backend_->getAudioInputFrameSize()) {
        // An audio frame that cannot be written would leave the end time unchanged.
        if (backend_->encode_audio(silence_buffer, nullptr, 0) < 0)
            return true;
    }
    if (padPartialFrame && backend_->behindAudioSamples() != 0)
        backend_->encode_audio(silence_buffer, nullptr, 0);
    return true;
}

}  // namespace orvo
