// AVEncoder: opening an output step by step, and closing it.
#include "orvo/av_encoder.h"

#include "decoders/ffmpeg_log.h"
#include "orvo/log.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

#include <cstdio>
#include <cstring>

namespace orvo {

namespace {
constexpr unsigned int kCodecNone = 0;
constexpr unsigned int kCodecAuto = AV_CODEC_ID_PROBE;  // 102400: the container's default

// Apple players open H.265 in MP4/MOV only under the tag 'hvc1' (parameter sets in the
// sample description); FFmpeg writes 'hev1' unless told.
void preferHvc1Tag(const AVOutputFormat* format, AVCodecParameters* par)
{
    const unsigned int hvc1 = MKTAG('h', 'v', 'c', '1');
    if (par->codec_id == AV_CODEC_ID_HEVC && format->codec_tag &&
        av_codec_get_id(format->codec_tag, hvc1) == AV_CODEC_ID_HEVC)
        par->codec_tag = hvc1;
}

AVCodecID chosenCodec(unsigned int requested, AVCodecID containerDefault)
{
    if (requested == kCodecNone)
        return AV_CODEC_ID_NONE;
    if (requested == kCodecAuto)
        return containerDefault;
    return static_cast<AVCodecID>(requested);
}
}  // namespace

AVEncoder::AVEncoder() = default;

AVEncoder::~AVEncoder()
{
    // An output still open is finished properly rather than left without its trailer.
    if (formatContext_)
        close();
    videoOutBufferRecorded_ = false;
}

int AVEncoder::getAudioInputFrameSize() const
{
    return audioStream_ && audioContext_ ? audioContext_->frame_size : 0;
}

int AVEncoder::getAudioSampleRate() const
{
    return audioStream_ && audioContext_ ? audioContext_->sample_rate : 0;
}

int AVEncoder::getAudioChannels() const
{
    return audioStream_ && audioContext_ ? audioContext_->ch_layout.nb_channels : 0;
}

void AVEncoder::setCrashSafeRecording(bool on)
{
    crashSafe_ = on;
    setMuxerOption("movflags", on ? "frag_keyframe+empty_moov" : "");
}

void AVEncoder::setMuxerOption(const std::string& name, const std::string& value)
{
    if (value.empty())
        muxerOptions_.erase(name);
    else
        muxerOptions_[name] = value;
}

bool AVEncoder::open(const std::string& filename, const std::string& formatName, unsigned int videoCodec,
                     int width, int height, int sarNum, int sarDen, int bitRate, int bitRateTolerance,
                     int timeBaseDen, int timeBaseNum, int gopSize, unsigned int audioCodec, int audioBitRate,
                     int sampleRate, int channels, void* presetOption, EncoderError& error, bool noVideo)
{
    // The shared "don't care" record may be passed by encoders on several threads at once:
    // it is left alone rather than written concurrently.
    if (&error == &ignoreEncoderError) {
        EncoderError scratch;
        return open(filename, formatName, videoCodec, width, height, sarNum, sarDen, bitRate, bitRateTolerance,
                    timeBaseDen, timeBaseNum, gopSize, audioCodec, audioBitRate, sampleRate, channels,
                    presetOption, scratch, noVideo);
    }
    applyFFmpegLogMode();  // the codecs' own chatter follows the client's choice
    // A second open on an open encoder finishes the first output instead of leaking it.
    if (formatContext_)
        close();

    // A container named but unknown is a mistake to report, not a guess to make.
    if (!formatName.empty() && !av_guess_format(formatName.c_str(), nullptr, nullptr)) {
        error.setErrorId(EncoderError::NoSuitableOutputFormat);
        error.setAdditionalInfo("unknown container format \"" + formatName +
                                "\" (FFmpeg muxer names such as mp4, matroska, mov, avi, mpegts)");
        return false;
    }
    const AVOutputFormat* format = outputFormatFor(filename, formatName);
    if (!format) {
        error.setErrorId(EncoderError::NoSuitableOutputFormat);
        return false;
    }
    const int64_t totalBitRate = static_cast<int64_t>(bitRate) + (audioCodec != kCodecNone ? audioBitRate : 0);
    if (!createOutput(format, filename, totalBitRate, error) || !chooseCodecs(videoCodec, audioCodec, error))
        return false;

    if (!noVideo && videoCodecId_ != AV_CODEC_ID_NONE) {
        videoStream_ = add_video_stream(videoCodecId_, width, height, bitRate, bitRateTolerance, timeBaseDen,
                                        timeBaseNum, gopSize, sarNum, sarDen);
        if (!videoStream_)
            oprint(LogStream::StandardOutput, "Video stream could not be created.\n");
        else if (videoCodecId_ == AV_CODEC_ID_H264)
            applyPreset(presetOption);
    }
    if (audioCodecId_ != AV_CODEC_ID_NONE) {
        oprint(LogStream::StandardOutput, "Adding audio stream...\n");
        audioStream_ = add_audio_stream(audioCodecId_, audioBitRate, sampleRate, channels);
    }
    if (!videoStream_ && !audioStream_) {
        closeResources();
        error.setErrorId(EncoderError::CouldNotAddStream);
        return false;
    }

    if (!openCodecs(error) || !describeStreams(error) || !openFile(filename, error) ||
        !writeHeader(filename, error))
        return false;
    const auto movflags = muxerOptions_.find("movflags");
    flushAfterWrites_ = !(format->flags & AVFMT_NOFILE) &&
                        (crashSafe_ || (movflags != muxerOptions_.end() &&
                                        movflags->second.find("frag_") != std::string::npos));
    error.setErrorId(EncoderError::NoError);
    return true;
}

// The container named by `formatName`, else the one the file name suggests, else MPEG.
const AVOutputFormat* AVEncoder::outputFormatFor(const std::string& filename, const std::string& formatName)
{
    const char* shortName = formatName.empty() ? nullptr : formatName.c_str();
    const AVOutputFormat* format = av_guess_format(shortName, filename.c_str(), nullptr);
    if (!format) {
        oprint(LogStream::StandardOutput,
               "Could not deduce output format from file extension %s and format name %s using MPEG.\n",
               filename.c_str(), formatName.c_str());
        format = av_guess_format("mpeg", nullptr, nullptr);
    }
    return format;
}

// The format context, with the time line of a new output.
bool AVEncoder::createOutput(const AVOutputFormat* format, const std::string& filename, int64_t bitRate,
                             EncoderError& error)
{
    if (avformat_alloc_output_context2(&formatContext_, format, nullptr, filename.c_str()) < 0 ||
        !formatContext_) {
        formatContext_ = nullptr;
        error.setErrorId(EncoderError::MemoryAllocationError);
        return false;
    }
    outputFormat_ = format;
    formatContext_->bit_rate = bitRate;
    videoStream_ = nullptr;
    audioStream_ = nullptr;
    // Each output starts its time line at zero.
    videoPacketCounter_ = 0;
    audioPacketCounter_ = 0;
    audioEndSamples_ = 0;
    return true;
}

// The codecs, kept here: FFmpeg's container record is shared and read-only.
bool AVEncoder::chooseCodecs(unsigned int videoCodec, unsigned int audioCodec, EncoderError& error)
{
    videoCodecId_ = chosenCodec(videoCodec, outputFormat_->video_codec);
    audioCodecId_ = chosenCodec(audioCodec, outputFormat_->audio_codec);
    if (videoCodecId_ == AV_CODEC_ID_NONE && audioCodecId_ == AV_CODEC_ID_NONE) {
        closeResources();
        error.setErrorId(EncoderError::NoCodecSpecified);
        return false;
    }
    return true;
}

// Opens the encoders of the streams added; the output goes on with either one.
bool AVEncoder::openCodecs(EncoderError& error)
{
    bool videoOpened = false;
    if (videoStream_) {
        videoOpened = open_video(40000000);
        if (!videoOpened)
            oprint(LogStream::StandardOutput, "Could not open video encoder.\n");
    }
    bool audioOpened = false;
    if (audioStream_ && !openAudioCodec(videoOpened, error, audioOpened))
        return false;
    if (!videoOpened && !audioOpened) {
        closeResources();
        error.setErrorId(EncoderError::CouldNotOpenCodecs);
        if (!videoRefusal_.empty())
            error.setAdditionalInfo(videoRefusal_);
        return false;
    }
    return true;
}

// False when the audio configuration is refused (the output is then closed); `opened` tells
// whether the audio encoder is open. A failure beside an open video encoder is noted in the
// error's additional information.
bool AVEncoder::openAudioCodec(bool videoOpened, EncoderError& error, bool& opened)
{
    EncoderError audioError;
    opened = open_audio(100000, audioError);
    // The audio buffer builds whole frames of interleaved values: a frame it cannot
    // hold would have its sound dropped, so such a configuration is refused here.
    if (opened && static_cast<qint64>(audioContext_->frame_size) * getAudioChannels() > kMaxAudioFrameValues) {
        error.setErrorId(EncoderError::AudioError);
        error.setAdditionalInfo("audio frame of " + std::to_string(audioContext_->frame_size) + " samples x " +
                                std::to_string(getAudioChannels()) + " channels exceeds " +
                                std::to_string(kMaxAudioFrameValues) + " values");
        closeResources();
        return false;
    }
    if (opened) {
        oprint(LogStream::StandardOutput, "audio opened\n");
        return true;
    }
    oprint(LogStream::StandardOutput, "Could not open audio encoder.Reason:%s additional information:%s\n",
           audioError.toString().c_str(), audioError.additionalInfo().c_str());
    if (videoOpened) {
        std::string info = error.additionalInfo();
        if (!info.empty())
            info += ",";
        info += "could not open audio encoder:reason:" + audioError.toString() +
                " additional info:" + audioError.additionalInfo();
        error.setAdditionalInfo(info);
    }
    return true;
}

// A stream whose codec did not open still describes itself (it stays empty), as the
// header needs every stream's parameters.
bool AVEncoder::describeStreams(EncoderError& error)
{
    if (videoStream_ && avcodec_parameters_from_context(videoStream_->codecpar, videoContext_) < 0) {
        closeResources();
        error.setErrorId(EncoderError::MemoryAllocationError);
        return false;
    }
    if (videoStream_)
        preferHvc1Tag(outputFormat_, videoStream_->codecpar);
    if (audioStream_ && avcodec_parameters_from_context(audioStream_->codecpar, audioContext_) < 0) {
        closeResources();
        error.setErrorId(EncoderError::MemoryAllocationError);
        return false;
    }
    return true;
}

bool AVEncoder::openFile(const std::string& filename, EncoderError& error)
{
    if (!(outputFormat_->flags & AVFMT_NOFILE)) {
        if (avio_open(&formatContext_->pb, filename.c_str(), AVIO_FLAG_WRITE) < 0) {
            error.setErrorId(EncoderError::CouldNotOpenFile);
            error.setAdditionalInfo(filename);
            closeResources();
            return false;
        }
    }
    return true;
}

// The header, with the caller's muxer options.
bool AVEncoder::writeHeader(const std::string& filename, EncoderError& error)
{
    AVDictionary* options = nullptr;
    for (const auto& option : muxerOptions_)
        av_dict_set(&options, option.first.c_str(), option.second.c_str(), 0);
    const int ret = avformat_write_header(formatContext_, &options);
    av_dict_free(&options);
    if (ret >= 0)
        return true;
    error.setErrorId(EncoderError::CouldNotWriteHeader);
    char text[128];
    if (av_strerror(ret, text, sizeof(text)) == 0)
        error.setAdditionalInfo(text);
    const bool hasFile = !(outputFormat_->flags & AVFMT_NOFILE);
    closeResources();
    // A failed open leaves no empty file behind.
    if (hasFile)
        std::remove(filename.c_str());
    return false;
}

void AVEncoder::close_video()
{
    avcodec_free_context(&videoContext_);
    av_frame_free(&videoFrame_);
    videoStream_ = nullptr;
}

void AVEncoder::close_audio()
{
    avcodec_free_context(&audioContext_);
    av_frame_free(&audioFrame_);
    av_frame_free(&convertedFrame_);
    swr_free(&resampler_);
    audioStream_ = nullptr;
}

void AVEncoder::closeResources()
{
    close_video();
    videoOutBufferRecorded_ = false;
    close_audio();
    av_packet_free(&packet_);
    if (formatContext_) {
        // A file opened before the header failed is closed too: it would leak otherwise.
        if (outputFormat_ && !(outputFormat_->flags & AVFMT_NOFILE))
            avio_closep(&formatContext_->pb);
        avformat_free_context(formatContext_);
        formatContext_ = nullptr;
    }
}

void AVEncoder::close()
{
    if (!formatContext_) {
        oprint(LogStream::StandardError, "\nAVEncoder::close called on closed encoder. Double close call??\n");
        return;
    }
    // Codecs with delay (look-ahead, B-frames, AAC priming) still hold pictures and
    // sound: drain both before the trailer so that nothing handed in is lost.
    if (videoContext_ && avcodec_is_open(videoContext_) && avcodec_send_frame(videoContext_, nullptr) >= 0)
        writePackets(videoContext_, videoStream_, nullptr, 0);
    if (audioContext_ && avcodec_is_open(audioContext_) && avcodec_send_frame(audioContext_, nullptr) >= 0)
        writePackets(audioContext_, audioStream_, nullptr, 0);
    av_write_trailer(formatContext_);
    if (!(outputFormat_->flags & AVFMT_NOFILE))
        avio_closep(&formatContext_->pb);
    close_video();
    close_audio();
    av_packet_free(&packet_);
    avformat_free_context(formatContext_);
    formatContext_ = nullptr;
}

}  // namespace orvo
