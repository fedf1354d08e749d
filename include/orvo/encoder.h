#pragma once
// Writing pictures and 16-bit sound into media files.
//
// Encoder is the public facade: it owns one backend (an AbstractEncoder, in practice
// the FFmpeg encoder AVEncoder), creates it lazily by engine number, forwards every call
// with fixed results while no backend exists, and pads the audio track with silence so
// that it keeps pace with the video track. One thread at a time per Encoder.
#include "orvo/encoder_error.h"

#include <QtGlobal>
#include <memory>
#include <string>

// Codecs are named by FFmpeg's AV_CODEC_ID_* values (0 none, AV_CODEC_ID_PROBE the
// container's default).
extern "C" {
#include <libavcodec/codec_id.h>
}

namespace orvo {

class ORVO_EXPORT AbstractEncoder {
public:
    AbstractEncoder() = default;
    AbstractEncoder(const AbstractEncoder&) = default;
    AbstractEncoder& operator=(const AbstractEncoder&) = default;
    virtual ~AbstractEncoder() = default;

    // Opens an output. Parameters after videoCodec: width, height, sample aspect ratio
    // (num, den), bit rate, bit-rate tolerance, time base denominator, time base numerator,
    // GOP size; after audioCodec: bit rate, sample rate, channel count. Codec 0 = none,
    // 102400 = the container's default. On false, `error` says why.
    virtual bool open(const std::string& filename, const std::string& formatName, unsigned int videoCodec,
                      int width, int height, int sarNum, int sarDen, int bitRate, int bitRateTolerance,
                      int timeBaseDen, int timeBaseNum, int gopSize, unsigned int audioCodec, int audioBitRate,
                      int sampleRate, int channels, void* presetOption, EncoderError& error, bool noVideo) = 0;

    // Sign of (audio end - video end): positive when audio is ahead, 0 when level.
    virtual int compareAudioVideoPTS() const;
    // Also stores audio end minus video end in seconds.
    virtual int compareAudioVideoPTS(double& seconds);
    virtual int compareAudioVideoPTS(int& wholeSeconds, int& fractionNumerator, int& fractionDenominator,
                                     bool& exact) const = 0;
    virtual bool hasVideo() const = 0;
    virtual bool hasAudio() const = 0;
    // Samples per channel in one audio frame of the audio codec.
    virtual int getAudioInputFrameSize() const = 0;
    virtual int getAudioSampleRate() const = 0;
    // Samples the audio track lacks to reach the end of the video track (negative: ahead).
    virtual qint64 behindAudioSamples() const = 0;
    // One planar picture; the three line sizes follow the plane pointers.
    virtual int encode(unsigned char* y, unsigned char* u, unsigned char* v, unsigned int yStride,
                       unsigned int uStride, unsigned int vStride, unsigned char* outBuffer, int outBufferSize) = 0;
    virtual int output_encoded_video(unsigned char* data, int size) = 0;
    // Exactly one audio frame: getAudioInputFrameSize() samples per channel, interleaved S16.
    virtual int encode_audio(short* samples, unsigned char* outBuffer, int outBufferSize) = 0;
    virtual void close() = 0;
    virtual int engine_id() const = 0;
};

class ORVO_EXPORT Encoder {
public:
    Encoder();
    explicit Encoder(int engine);
    ~Encoder();
    // Copies share the backend (the last owner deletes it).
    Encoder(const Encoder&) = default;
    Encoder& operator=(const Encoder&) = default;

    // Engines 0 and 1 both give an AVEncoder; 1 keeps an existing backend, 0 replaces it.
    bool init(int engine);
    bool open(int engine, std::string filename, const char* formatName, unsigned int videoCodec, int width,
              int height, int sarNum, int sarDen, int bitRate, int bitRateTolerance, int timeBaseDen,
              int timeBaseNum, int gopSize, unsigned int audioCodec, int audioBitRate, int sampleRate,
              int channels, void* presetOption, EncoderError& error);

    // Crash-safe recording (see AVEncoder::setCrashSafeRecording), applied at every
    // open() to the FFmpeg backend: fragmented MP4/MOV, each fragment flushed to disk.
    void setCrashSafeRecording(bool on) { crashSafe_ = on; }
    bool isCrashSafeRecording() const { return crashSafe_; }

    // Deletes the present backend and takes ownership of `backend` (may be null).
    void setBackend(AbstractEncoder* backend);
    AbstractEncoder* getBackend() { return backend_.get(); }

    int encode(unsigned char* y, unsigned char* u, unsigned char* v, unsigned int yStride, unsigned int uStride,
               unsigned int vStride, unsigned char* outBuffer, int outBufferSize);
    int output_encoded_video(unsigned char* data, int size);
    int engine_id();
    int encode_audio(short* samples, unsigned char* outBuffer, int outBufferSize);
    // `count` is ignored: always exactly one audio frame is consumed.
    int encode_audio(short* samples, int count, unsigned char* outBuffer, int outBufferSize);
    bool isAudio();
    bool isVideo();
    void close();
    qint64 behindAudioSamples();
    int compareAudioVideoPTS();
    int compareAudioVideoPTS(double& seconds);
    int compareAudioVideoPTS(int& wholeSeconds, int& fractionNumerator, int& fractionDenominator, bool& exact);
    int getAudioInputFrameSize();
    int getAudioSampleRate();

    // Encodes samples / frame size frames of silence (the remainder is dropped); false
    // without audio or when fewer samples than one frame are asked for.
    bool encode_silence(int samples);
    // Encodes frames of silence while audio lags video by at least one frame; with
    // padPartialFrame, one more when a partial frame is still missing.
    bool sync_audio_to_video_with_silence(bool padPartialFrame);

private:
    bool silenceFits();

    std::shared_ptr<AbstractEncoder> backend_;
    bool crashSafe_ = false;
    static constexpr int kSilenceSamples = 65536;
    static short silence_buffer[kSilenceSamples];
};

}  // namespace orvo
