// AVEncoder: adding the video and audio streams and opening their encoders.
#include "orvo/av_encoder.h"

#include "decoders/ffmpeg_log.h"
#include "orvo/log.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
#include <libswresample/swresample.h>
}

#include <cstring>

namespace orvo {

namespace {
LogCategory encoderLog("orvo.encoder");

// The video encoder for `codec`. H.265 is always libx265: FFmpeg may list hardware
// encoders first that need a device and take other options.
const AVCodec* videoEncoderFor(AVCodecID codec)
{
    if (codec == AV_CODEC_ID_HEVC)
        if (const AVCodec* x265 = avcodec_find_encoder_by_name("libx265"))
            return x265;
    return avcodec_find_encoder(codec);
}

// Why `c` refused to open, in words: the size rule of its chroma subsampling when the size
// breaks it, else FFmpeg's reason and what it logged.
std::string refusalOf(const AVCodecContext* c, const char* encoder, int err, const QString& logged)
{
    const std::string size = std::to_string(c->width) + "x" + std::to_string(c->height);
    std::string why;
    const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(c->pix_fmt);
    if (desc && (desc->log2_chroma_w || desc->log2_chroma_h) &&
        ((c->width & ((1 << desc->log2_chroma_w) - 1)) || (c->height & ((1 << desc->log2_chroma_h) - 1)))) {
        why = desc->log2_chroma_h ? "4:2:0 pictures need an even width and height"
                                  : "4:2:2 pictures need an even width";
    } else {
        char text[AV_ERROR_MAX_STRING_SIZE] = {0};
        av_strerror(err, text, sizeof text);
        why = text;
    }
    if (!logged.isEmpty())
        why += " (FFmpeg: " + logged.toStdString() + ")";
    return std::string("video encoder ") + encoder + " refused " + size + ": " + why;
}
}  // namespace

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
    videoRefusal_.clear();
    const AVCodec* codec = videoEncoderFor(videoCodecId_);
    if (!codec) {
        olog(encoderLog, LOG_ERROR, "orvo::AVEncoder::open_video", "Video codec not found, codec id: %d",
             static_cast<int>(videoCodecId_));
        videoRefusal_ = std::string("no video encoder for ") + avcodec_get_name(videoCodecId_) + " in this FFmpeg";
        return false;
    }
    FFmpegErrorCapture said;
    const int err = avcodec_open2(videoContext_, codec, nullptr);
    if (err < 0) {
        olog(encoderLog, LOG_ERROR, "orvo::AVEncoder::open_video", "Could not open codec. avcodec_open2() failed, err: %d",
             err);
        videoRefusal_ = refusalOf(videoContext_, codec->name, err, said.text());
        olog(encoderLog, LOG_ERROR, "orvo::AVEncoder::open_video", "%s", videoRefusal_.c_str());
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

}  // namespace orvo
