// AVEncoder: choosing the container, adding and opening the streams, closing.
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
LogCategory encoderLog("orvo.encoder");
constexpr unsigned int kCodecNone = 0;
constexpr unsigned int kCodecAuto = AV_CODEC_ID_PROBE;  // 102400: the container's default

// The video encoder for `codec`. H.265 is always libx265: FFmpeg may list hardware
// encoders first that need a device and take other options.
const AVCodec* videoEncoderFor(AVCodecID codec)
{
    if (codec == AV_CODEC_ID_HEVC)
        if (const AVCodec* x265 = avcodec_find_encoder_by_name("libx265"))
            return x265;
    return avcodec_find_encoder(codec);
}

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

    // 1. Container.
    const char* shortName = formatName.empty() ? nullptr : formatName.c_str();
    const AVOutputFormat* format = av_guess_format(shortName, filename.c_str(), nullptr);
    if (!format) {
        oprint(LogStream::StandardOutput,
               "Could not deduce output format from file extension %s and format name %s using MPEG.\n",
               filename.c_str(), formatName.c_str());
        format = av_guess_format("mpeg", nullptr, nullptr);
    }
    if (!format) {
        error.setErrorId(EncoderError::NoSuitableOutputFormat);
        return false;
    }

    // 2. Format context.
    if (avformat_alloc_output_context2(&formatContext_, format, nullptr, filename.c_str()) < 0 ||
        !formatContext_) {
        formatContext_ = nullptr;
        error.setErrorId(EncoderError::MemoryAllocationError);
        return false;
    }
    outputFormat_ = format;
    formatContext_->bit_rate = static_cast<int64_t>(bitRate) + (audioCodec != kCodecNone ? audioBitRate : 0);
    videoStream_ = nullptr;
    audioStream_ = nullptr;
    // Each output starts its time line at zero.
    videoPacketCounter_ = 0;
    audioPacketCounter_ = 0;
    audioEndSamples_ = 0;

    // 3. Codecs, kept here: FFmpeg's container record is shared and read-only.
    videoCodecId_ = chosenCodec(videoCodec, format->video_codec);
    audioCodecId_ = chosenCodec(audioCodec, format->audio_codec);
    if (videoCodecId_ == AV_CODEC_ID_NONE && audioCodecId_ == AV_CODEC_ID_NONE) {
        closeResources();
        error.setErrorId(EncoderError::NoCodecSpecified);
        return false;
    }

    // 4. Video stream and, for H.264, the preset.
    if (!noVideo && videoCodecId_ != AV_CODEC_ID_NONE) {
        videoStream_ = add_video_stream(videoCodecId_, width, height, bitRate, bitRateTolerance, timeBaseDen,
                                        timeBaseNum, gopSize, sarNum, sarDen);
        if (!videoStream_)
            oprint(LogStream::StandardOutput, "Video stream could not be created.\n");
        else if (videoCodecId_ == AV_CODEC_ID_H264)
            applyPreset(presetOption);
    }

    // 5. Audio stream.
    if (audioCodecId_ != AV_CODEC_ID_NONE) {
        oprint(LogStream::StandardOutput, "Adding audio stream...\n");
        audioStream_ = add_audio_stream(audioCodecId_, audioBitRate, sampleRate, channels);
    }

    // 6.
    if (!videoStream_ && !audioStream_) {
        closeResources();
        error.setErrorId(EncoderError::CouldNotAddStream);
        return false;
    }

    // 7. and 8. Codecs.
    bool videoOpened = false;
    if (videoStream_) {
        videoOpened = open_video(40000000);
        if (!videoOpened)
            oprint(LogStream::StandardOutput, "Could not open video encoder.\n");
    }
    bool audioOpened = false;
    if (audioStream_) {
        EncoderError audioError;
        audioOpened = open_audio(100000, audioError);
        // The audio buffer builds whole frames of interleaved values: a frame it cannot
        // hold would have its sound dropped, so such a configuration is refused here.
        if (audioOpened &&
            static_cast<qint64>(audioContext_->frame_size) * getAudioChannels() > kMaxAudioFrameValues) {
            error.setErrorId(EncoderError::AudioError);
            error.setAdditionalInfo("audio frame of " + std::to_string(audioContext_->frame_size) + " samples x " +
                                    std::to_string(getAudioChannels()) + " channels exceeds " +
                                    std::to_string(kMaxAudioFrameValues) + " values");
            closeResources();
            return false;
        }
        if (audioOpened) {
            oprint(LogStream::StandardOutput, "audio opened\n");
        } else {
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
        }
    }

    // 9.
    if (!videoOpened && !audioOpened) {
        closeResources();
        error.setErrorId(EncoderError::CouldNotOpenCodecs);
        return false;
    }

    // A stream whose codec did not open still describes itself (it stays empty), as the
    // header needs every stream's parameters.
    if (videoStream_ && avcodec_parameters_from_context(videoStream_->codecpar, videoContext_) < 0) {
        closeResources();
        error.setErrorId(EncoderError::MemoryAllocationError);
        return false;
    }
    if (videoStream_)
        preferHvc1Tag(format, videoStream_->codecpar);
    if (audioStream_ && avcodec_parameters_from_context(audioStream_->codecpar, audioContext_) < 0) {
        closeResources();
        error.setErrorId(EncoderError::MemoryAllocationError);
        return false;
    }

    // 10. File.
    if (!(format->flags & AVFMT_NOFILE)) {
        if (avio_open(&formatContext_->pb, filename.c_str(), AVIO_FLAG_WRITE) < 0) {
            error.setErrorId(EncoderError::CouldNotOpenFile);
            error.setAdditionalInfo(filename);
            closeResources();
            return false;
        }
    }

    // 11. Header, with the caller's muxer options.
    AVDictionary* options = nullptr;
    for (const auto& option : muxerOptions_)
        av_dict_set(&options, option.first.c_str(), option.second.c_str(), 0);
    const int ret = avformat_write_header(formatContext_, &options);
    av_dict_free(&options);
    if (ret < 0) {
        error.setErrorId(EncoderError::CouldNotWriteHeader);
        char text[128];
        if (av_strerror(ret, text, sizeof(text)) == 0)
            error.setAdditionalInfo(text);
        closeResources();
        // A failed open leaves no empty file behind.
        if (!(format->flags & AVFMT_NOFILE))
            std::remove(filename.c_str());
        return false;
    }
    const auto movflags = muxerOptions_.find("movflags");
    flushAfterWrites_ = !(format->flags & AVFMT_NOFILE) &&
                        (crashSafe_ || (movflags != muxerOptions_.end() &&
                                        movflags->second.find("frag_") != std::string::npos));
    error.setErrorId(EncoderError::NoError);
    return true;
}

AVStream* AVEncoder::add_video_stream(AVCodecID codec, int width, int height, int bitRate, int bitRateTolerance,
                                      int timeBaseDen, int timeBaseNum, int gopSize, int sarNum, int sarDen)
{
    AVStream* stream = avformat_new_stream(formatContext_, nullptr);
    // The context is made for the encoder itself so that its private options (preset,
    // tune, ...) can be set from the preset file before it opens.
    AVCodecContext* c = stream ? avcodec_alloc_context3(videoEncoderFor(codec)) : nullptr;
    if (!c) {
        oprint(LogStream::StandardError, "Could not alloc stream\n");
        return nullptr;
    }
    videoContext_ = c;
    stream->sample_aspect_ratio = AVRational{sarNum, sarDen};
    stream->time_base = AVRational{timeBaseNum, timeBaseDen};

    c->codec_id = codec;
    c->codec_type = AVMEDIA_TYPE_VIDEO;
    c->bit_rate = bitRate;
    c->bit_rate_tolerance = bitRateTolerance < 1 ? bitRate / 4 : bitRateTolerance;
    c->width = width;
    c->height = height;
    c->time_base = AVRational{timeBaseNum, timeBaseDen};
    c->framerate = AVRational{timeBaseDen, timeBaseNum};
    c->gop_size = gopSize;
    c->sample_aspect_ratio = AVRational{sarNum, sarDen};
    c->pix_fmt = codec == AV_CODEC_ID_MJPEG ? AV_PIX_FMT_YUVJ420P : AV_PIX_FMT_YUV420P;
    if (codec == AV_CODEC_ID_MPEG2VIDEO)
        c->max_b_frames = 2;
    if (codec == AV_CODEC_ID_MPEG1VIDEO)
        c->mb_decision = 2;
    // libx265 prints its own banner and statistics on standard error unless told not to;
    // the library keeps FFmpeg's messages out of the client's output, and x265's too.
    if (codec == AV_CODEC_ID_HEVC && c->codec && std::strcmp(c->codec->name, "libx265") == 0)
        av_opt_set(c->priv_data, "x265-params", "log-level=error", 0);
    // As many threads as the codec finds useful; a preset line threads=1 overrides it.
    c->thread_count = 0;
    if (formatContext_->oformat->flags & AVFMT_GLOBALHEADER)
        c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    return stream;
}

AVStream* AVEncoder::add_audio_stream(AVCodecID codec, int bitRate, int sampleRate, int channels)
{
    AVStream* stream = avformat_new_stream(formatContext_, nullptr);
    const AVCodec* encoder = avcodec_find_encoder(codec);
    AVCodecContext* c = stream ? avcodec_alloc_context3(encoder) : nullptr;
    if (!c) {
        oprint(LogStream::StandardError, "Could not alloc stream\n");
        return nullptr;
    }
    audioContext_ = c;
    c->codec_id = codec;
    c->codec_type = AVMEDIA_TYPE_AUDIO;
    c->bit_rate = bitRate;
    c->sample_rate = sampleRate;
    av_channel_layout_default(&c->ch_layout, channels > 0 ? channels : 0);
    // Callers hand signed 16-bit samples; a codec that takes another format (AAC takes
    // planar float) gets them converted in encode_audio.
    c->sample_fmt = AV_SAMPLE_FMT_S16;
    if (encoder && encoder->sample_fmts) {
        bool takesS16 = false;
        for (const AVSampleFormat* f = encoder->sample_fmts; *f != AV_SAMPLE_FMT_NONE; ++f)
            takesS16 = takesS16 || *f == AV_SAMPLE_FMT_S16;
        if (!takesS16)
            c->sample_fmt = encoder->sample_fmts[0];
    }
    c->time_base = AVRational{1, sampleRate};
    stream->time_base = AVRational{1, sampleRate};
    if (formatContext_->oformat->flags & AVFMT_GLOBALHEADER)
        c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    return stream;
}

bool AVEncoder::open_video(int bufferSize)
{
    const AVCodec* codec = videoEncoderFor(videoCodecId_);
    if (!codec) {
        olog(encoderLog, LOG_ERROR, "orvo::AVEncoder::open_video", "Video codec not found, codec id: %d",
             static_cast<int>(videoCodecId_));
        return false;
    }
    const int err = avcodec_open2(videoContext_, codec, nullptr);
    if (err < 0) {
        olog(encoderLog, LOG_ERROR, "orvo::AVEncoder::open_video", "Could not open codec. avcodec_open2() failed, err: %d",
             err);
        return false;
    }
    if (videoOutBufferRecorded_) {
        oprint(LogStream::StandardOutput, "error already \n");
        videoOutBufferRecorded_ = false;
    }
    // Packets come from the codec in their own buffers; only the size is kept as the
    // record of the output buffer.
    videoOutBufferSize_ = bufferSize;
    videoOutBufferRecorded_ = true;
    videoFrame_ = av_frame_alloc();
    packet_ = packet_ ? packet_ : av_packet_alloc();
    return videoFrame_ && packet_;
}

bool AVEncoder::open_audio(int bufferSize, EncoderError& error)
{
    const AVCodec* codec = avcodec_find_encoder(audioCodecId_);
    if (!codec) {
        oprint(LogStream::StandardError, "audio codec not found\n");
        error.setErrorId(EncoderError::AudioCouldNotBeOpened);
        return false;
    }
    const int err = avcodec_open2(audioContext_, codec, nullptr);
    if (err < 0) {
        oprint(LogStream::StandardError, "could not open codec\n");
        char text[128];
        if (av_strerror(err, text, sizeof(text)) == 0) {
            error.setErrorId(EncoderError::AudioError);
            error.setAdditionalInfo(text);
        }
        return false;
    }
    // Codecs without a fixed frame (PCM) would otherwise offer callers a frame of zero
    // samples; give them one of 1,024.
    if (audioContext_->frame_size < 1 && (codec->capabilities & AV_CODEC_CAP_VARIABLE_FRAME_SIZE))
        audioContext_->frame_size = 1024;
    audioOutBufferSize_ = bufferSize;

    audioFrame_ = av_frame_alloc();
    packet_ = packet_ ? packet_ : av_packet_alloc();
    if (!audioFrame_ || !packet_) {
        error.setErrorId(EncoderError::MemoryAllocationError);
        return false;
    }
    if (audioContext_->sample_fmt != AV_SAMPLE_FMT_S16 && audioContext_->frame_size > 0) {
        int ret = swr_alloc_set_opts2(&resampler_, &audioContext_->ch_layout, audioContext_->sample_fmt,
                                      audioContext_->sample_rate, &audioContext_->ch_layout, AV_SAMPLE_FMT_S16,
                                      audioContext_->sample_rate, 0, nullptr);
        if (ret >= 0)
            ret = swr_init(resampler_);
        convertedFrame_ = ret >= 0 ? av_frame_alloc() : nullptr;
        if (convertedFrame_) {
            convertedFrame_->format = audioContext_->sample_fmt;
            convertedFrame_->nb_samples = audioContext_->frame_size;
            convertedFrame_->sample_rate = audioContext_->sample_rate;
            ret = av_channel_layout_copy(&convertedFrame_->ch_layout, &audioContext_->ch_layout);
            if (ret >= 0)
                ret = av_frame_get_buffer(convertedFrame_, 0);
        }
        if (ret < 0 || !convertedFrame_) {
            char text[128];
            error.setErrorId(EncoderError::AudioError);
            if (av_strerror(ret < 0 ? ret : AVERROR(ENOMEM), text, sizeof(text)) == 0)
                error.setAdditionalInfo(text);
            return false;
        }
    }
    return true;
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
        writeVideoPackets(nullptr, 0);
    if (audioContext_ && avcodec_is_open(audioContext_) && avcodec_send_frame(audioContext_, nullptr) >= 0)
        writeAudioPackets();
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
