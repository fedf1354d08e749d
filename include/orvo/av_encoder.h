#pragma once
// AVEncoder: the FFmpeg backend of Encoder. Opens an output container through
// libavformat, adds at most one video and one audio stream, encodes planar YUV pictures
// and interleaved signed 16-bit sound with libavcodec, and keeps track of where each
// track ends so that callers can keep sound level with pictures.
//
// Time stamps: picture n carries pts n in the video time base given to open(); audio
// frame k starts at sample k * frame size (time base 1 / sample rate). Packets take the
// time stamps the codec gives them, rescaled to the stream, so B-frames and codec delay
// mux correctly. close() drains both codecs, so nothing handed in is lost.
//
// Not thread-safe: one thread at a time per object. The static catalogue functions may
// be called from any thread.
#include "orvo/encoder.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <list>
#include <map>
#include <string>

struct AVCodecContext;
struct AVFrame;
struct AVPacket;
struct SwrContext;

namespace orvo {

class ORVO_EXPORT AVEncoder : public AbstractEncoder {
public:
    AVEncoder();
    ~AVEncoder() override;
    // The FFmpeg objects have one owner: an open encoder cannot be duplicated.
    AVEncoder(const AVEncoder&) = delete;
    AVEncoder& operator=(const AVEncoder&) = delete;

    bool open(const std::string& filename, const std::string& formatName, unsigned int videoCodec, int width,
              int height, int sarNum, int sarDen, int bitRate, int bitRateTolerance, int timeBaseDen,
              int timeBaseNum, int gopSize, unsigned int audioCodec, int audioBitRate, int sampleRate, int channels,
              void* presetOption, EncoderError& error, bool noVideo) override;
    // Drains both codecs, writes the trailer and closes the file.
    void close() override;

    using AbstractEncoder::compareAudioVideoPTS;
    int compareAudioVideoPTS(int& wholeSeconds, int& fractionNumerator, int& fractionDenominator,
                             bool& exact) const override;
    qint64 behindAudioSamples() const override;

    bool hasVideo() const override { return videoStream_ != nullptr; }
    bool hasAudio() const override { return audioStream_ != nullptr; }
    int getAudioInputFrameSize() const override;
    int getAudioSampleRate() const override;
    // Channels of the audio codec (0 without audio): one frame reads this many times
    // getAudioInputFrameSize() samples.
    int getAudioChannels() const;

    // Returns the bytes written for this picture (0 while the codec holds it back), a
    // negative FFmpeg error, or -1 when writing failed or the encoder is not open. A caller
    // buffer (non-null, size >= 1) also receives a copy of the last packet when it fits.
    int encode(unsigned char* y, unsigned char* u, unsigned char* v, unsigned int yStride, unsigned int uStride,
               unsigned int vStride, unsigned char* outBuffer, int outBufferSize) override;
    // Writes an already-encoded video packet, one video time-base tick after the last.
    int output_encoded_video(unsigned char* data, int size) override;
    // Exactly getAudioInputFrameSize() samples per channel, interleaved S16; converted
    // to the codec's own sample format when it takes another.
    int encode_audio(short* samples, unsigned char* outBuffer, int outBufferSize) override;
    int engine_id() const override { return 1; }

    // Options of the muxer and of the output context, handed to avformat_write_header at
    // the next open(). An empty value removes the option. Whenever "movflags" asks for
    // fragments (a flag starting "frag_"), every fragment the muxer completes is flushed
    // to the file before the next one starts (setCrashSafeRecording does all of it).
    void setMuxerOption(const std::string& name, const std::string& value);

    // Crash-safe recording: from the next open(), MP4/MOV output is fragmented
    // ("movflags" = "frag_keyframe+empty_moov") and each completed fragment reaches the
    // file at once, so a process killed mid-recording leaves a playable file that ends at
    // its last fragment, sound included (video then also passes FFmpeg's interleaving
    // queue). Other containers write as they go and are flushed after every packet. Off
    // again: the option goes and writes are buffered as usual.
    void setCrashSafeRecording(bool on);
    bool isCrashSafeRecording() const { return crashSafe_; }

    // The largest audio frame (frame size x channels values) the audio buffer can hold;
    // open() fails for an audio codec and channel count whose frame is larger.
    static constexpr int kMaxAudioFrameValues = 32768;

    // Module-wide path of the H.264 preset file (lines name=value, "#" comments).
    static void setPresetFilePath(const std::string& path);
    static std::string presetFilePath();

    // --- catalogue of codecs and containers ---------------------------------------
    static const char* CodecID2cstring(AVCodecID id);
    static AVCodecID cstring2CodecID(const char* name);
    static bool get_name_for_codec(AVCodecID id, std::string& name);
    static void get_names_for_codecs(std::list<AVCodecID>& ids, std::list<std::string>& names);
    static void get_names_for_codecs(const std::list<int>& ids, std::list<std::string>& names);
    static bool get_codecs(const AVOutputFormat* format, AVCodecID& defaultVideo, AVCodecID& defaultAudio,
                           std::list<AVCodecID>& video, std::list<AVCodecID>& audio, std::list<AVCodecID>& pcm,
                           AVSampleFormat sampleFormat);
    static bool get_codecs(const AVOutputFormat* format, int& defaultVideo, int& defaultAudio, std::list<int>& video,
                           std::list<int>& audio, std::list<int>& pcm, int sampleFormat);
    static bool get_codecs(const char* filename, const char* formatName, AVCodecID& defaultVideo,
                           AVCodecID& defaultAudio, std::list<AVCodecID>& video, std::list<AVCodecID>& audio,
                           std::list<AVCodecID>& pcm, AVSampleFormat sampleFormat);
    static bool get_codecs(const char* filename, const char* formatName, int& defaultVideo, int& defaultAudio,
                           std::list<int>& video, std::list<int>& audio, std::list<int>& pcm, int sampleFormat);
    static bool is_video_codec_compatible_with_format(const char* extension, AVCodecID id);
    static void display_codecs_for_format(const AVOutputFormat* format, bool showMissing, bool verbose);
    static bool display_codecs_for_format(const char* filename, const char* formatName, bool verbose);
    static void list_all_formats(bool verbose);
    static void disp_codec_names(std::list<std::string>& names);

private:
    // The steps of open(), in order. Each failing step has closed what was made and set the error.
    static const AVOutputFormat* outputFormatFor(const std::string& filename, const std::string& formatName);
    bool createOutput(const AVOutputFormat* format, const std::string& filename, int64_t bitRate,
                      EncoderError& error);
    bool chooseCodecs(unsigned int videoCodec, unsigned int audioCodec, EncoderError& error);
    bool openCodecs(EncoderError& error);
    bool openAudioCodec(bool videoOpened, EncoderError& error, bool& opened);
    bool describeStreams(EncoderError& error);
    bool openFile(const std::string& filename, EncoderError& error);
    bool writeHeader(const std::string& filename, EncoderError& error);

    AVStream* add_video_stream(AVCodecID codec, int width, int height, int bitRate, int bitRateTolerance,
                               int timeBaseDen, int timeBaseNum, int gopSize, int sarNum, int sarDen);
    AVStream* add_audio_stream(AVCodecID codec, int bitRate, int sampleRate, int channels);
    bool open_video(int bufferSize);
    bool open_audio(int bufferSize, EncoderError& error);
    void applyPreset(void* presetOption);
    bool readVideoOptionsFromFile(const char* path);
    bool setVideoOption(const char* name, const char* value);
    void closeResources();
    void close_video();
    void close_audio();

    // Receives every packet `codec` has ready and writes it to `stream`; returns the bytes
    // written (0 when none was ready), a negative FFmpeg error, or -1 when writing failed.
    // A caller buffer (copyTo, copyRoom bytes) receives a copy of each packet that fits.
    int writePackets(AVCodecContext* codec, AVStream* stream, unsigned char* copyTo, int copyRoom);
    // Writes and releases packet_ (through FFmpeg's interleaving queue or directly); false,
    // reported as a video or audio failure, when writing failed.
    bool writePacket(bool interleaved, bool video);
    void flushWrites();

    AVFormatContext* formatContext_ = nullptr;
    const AVOutputFormat* outputFormat_ = nullptr;  // owned by FFmpeg
    // The codecs chosen at open (the container's shared record is read-only).
    AVCodecID videoCodecId_ = AV_CODEC_ID_NONE;
    AVCodecID audioCodecId_ = AV_CODEC_ID_NONE;
    int videoOutBufferSize_ = 0;
    int audioOutBufferSize_ = 0;
    // An earlier open_video left its buffer recorded (close keeps it; a failed open does not).
    bool videoOutBufferRecorded_ = false;
    AVStream* audioStream_ = nullptr;
    AVStream* videoStream_ = nullptr;
    AVCodecContext* videoContext_ = nullptr;
    AVCodecContext* audioContext_ = nullptr;
    // Next picture's pts (video time base) and next audio frame's index. Both also mark
    // where each track ends once the codecs are drained.
    qint64 videoPacketCounter_ = 0;
    qint64 audioPacketCounter_ = 0;
    qint64 audioEndSamples_ = 0;
    AVFrame* videoFrame_ = nullptr;
    AVFrame* audioFrame_ = nullptr;      // S16 view of the caller's samples
    AVFrame* convertedFrame_ = nullptr;  // in the codec's format when it is not S16
    AVPacket* packet_ = nullptr;
    SwrContext* resampler_ = nullptr;
    std::map<std::string, std::string> muxerOptions_;
    std::string videoRefusal_;  // why the video encoder did not open, for the error record
    bool crashSafe_ = false;
    bool flushAfterWrites_ = false;  // decided at open: fragmented MP4/MOV or crash-safe
};

}  // namespace orvo
