// AVEncoder: encoding pictures and sound, writing packets, comparing track ends.
#include "orvo/av_encoder.h"

#include "orvo/decoder_preferences.h"
#include "orvo/log.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/mathematics.h>
#include <libswresample/swresample.h>
}

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace orvo {

// A fragmenting muxer hands a fragment to the file only when it is complete, so the
// flush costs a write call per fragment (none when the muxer held everything back).
void AVEncoder::flushWrites()
{
    if (flushAfterWrites_ && formatContext_->pb)
        avio_flush(formatContext_->pb);
}

int AVEncoder::writePackets(AVCodecContext* codec, AVStream* stream, unsigned char* copyTo, int copyRoom)
{
    const bool video = codec == videoContext_;
    int written = 0;
    for (;;) {
        int ret = avcodec_receive_packet(codec, packet_);
        if (ret == AVERROR(EAGAIN) || ret == AVERROR_EOF)
            return written;
        if (ret < 0)
            return ret;
        const int size = packet_->size;
        if (copyTo && copyRoom >= size)
            std::memcpy(copyTo, packet_->data, size);
        // One picture per tick; without a duration MP4 would leave the last picture
        // outside its edit list.
        if (video && packet_->duration <= 0)
            packet_->duration = 1;
        av_packet_rescale_ts(packet_, codec->time_base, stream->time_base);
        // Every packet is flagged key, as this encoder always has done.
        packet_->flags |= AV_PKT_FLAG_KEY;
        packet_->stream_index = stream->index;
        // Audio always goes through FFmpeg's interleaving queue, which lets packets out only
        // while every stream has some queued: a recording that must survive a crash sends
        // video through it as well, or its sound would sit in memory until close().
        const bool interleaved =
            !video || DecoderPreferences::instance()->useFFMPEGEncodeAvInterleavedWriteFrame() || flushAfterWrites_;
        if (!writePacket(interleaved, video))
            return -1;
        written += size;
    }
}

bool AVEncoder::writePacket(bool interleaved, bool video)
{
    const int ret = interleaved ? av_interleaved_write_frame(formatContext_, packet_)
                                : av_write_frame(formatContext_, packet_);
    av_packet_unref(packet_);
    if (ret < 0) {
        if (video) {
            oprint(LogStream::StandardError, "Error while writing video frame\n");
        } else {
            char text[256];
            av_strerror(ret, text, sizeof(text));
            oprint(LogStream::StandardError, "Error while writing audio frame: %s\n", text);
        }
        return false;
    }
    flushWrites();
    return true;
}

int AVEncoder::encode(unsigned char* y, unsigned char* u, unsigned char* v, unsigned int yStride,
                      unsigned int uStride, unsigned int vStride, unsigned char* outBuffer, int outBufferSize)
{
    if (!formatContext_ || !videoStream_ || !videoContext_ || !videoFrame_)
        return -1;
    if (!y || !u || !v)
        return AVERROR(EINVAL);
    const AVPixelFormat format = videoContext_->pix_fmt;
    if (format != AV_PIX_FMT_YUV420P && format != AV_PIX_FMT_YUV422P && format != AV_PIX_FMT_YUVJ420P) {
        oprint(LogStream::StandardError, "\nThis pixel format is %d\n", static_cast<int>(format));
        oprint(LogStream::StandardOutput, "We support only YUV(J)420P and YUV422P format\n");
        oprint(LogStream::StandardError, "We support only YUV(J)420P and YUV422P format\n");
        oprint(LogStream::StandardError, "AV_PIX_FMT_YUV420P=%d\n", static_cast<int>(AV_PIX_FMT_YUV420P));
    }
    if (outBufferSize < 1)
        outBuffer = nullptr;
    try {
        AVFrame* frame = videoFrame_;
        av_frame_unref(frame);
        frame->format = format;
        frame->width = videoContext_->width;
        frame->height = videoContext_->height;
        frame->data[0] = y;
        frame->data[1] = u;
        frame->data[2] = v;
        frame->data[3] = nullptr;
        frame->linesize[0] = static_cast<int>(yStride);
        frame->linesize[1] = static_cast<int>(uStride);
        frame->linesize[2] = static_cast<int>(vStride);
        frame->linesize[3] = 0;
        frame->pts = videoPacketCounter_;
        // The frame does not own the caller's planes: libavcodec copies what it keeps.
        const int ret = avcodec_send_frame(videoContext_, frame);
        av_frame_unref(frame);
        if (ret < 0)
            return ret;
        ++videoPacketCounter_;
        return writePackets(videoContext_, videoStream_, outBuffer, outBufferSize);
    } catch (...) {
        oprint(LogStream::StandardError,
               "encoding failed/exception  emited in ffmpeg:avcodec_encode_video/buf=%p,buflen=%d "
               "avf.linesizes=(%u,%u,%u)\n",
               static_cast<void*>(outBuffer), outBufferSize, yStride, uStride, vStride);
        return 0;
    }
}

int AVEncoder::encode_audio(short* samples, unsigned char* /*outBuffer*/, int /*outBufferSize*/)
{
    if (!formatContext_ || !audioStream_ || !audioContext_ || !audioFrame_)
        return -1;
    if (!samples)
        return AVERROR(EINVAL);
    const int frameSize = audioContext_->frame_size;
    const int channels = audioContext_->ch_layout.nb_channels;

    AVFrame* frame = audioFrame_;
    av_frame_unref(frame);
    frame->nb_samples = frameSize;
    frame->format = AV_SAMPLE_FMT_S16;
    frame->sample_rate = audioContext_->sample_rate;
    int ret = av_channel_layout_copy(&frame->ch_layout, &audioContext_->ch_layout);
    if (ret >= 0)
        ret = avcodec_fill_audio_frame(frame, channels, AV_SAMPLE_FMT_S16, reinterpret_cast<uint8_t*>(samples),
                                       av_get_bytes_per_sample(AV_SAMPLE_FMT_S16) * frameSize * channels, 1);
    if (ret < 0) {
        av_log(nullptr, AV_LOG_FATAL, "Audio encoding failed\n");
        char text[128];
        av_strerror(ret, text, sizeof(text));
        oprint(LogStream::StandardOutput, "%s\n", text);
        return ret;
    }

    AVFrame* toSend = frame;
    if (resampler_) {
        // The codec may still hold the previous frame's buffer.
        ret = av_frame_make_writable(convertedFrame_);
        if (ret >= 0)
            ret = swr_convert(resampler_, convertedFrame_->data, frameSize,
                              const_cast<const uint8_t**>(frame->extended_data), frameSize);
        if (ret < 0) {
            av_frame_unref(frame);
            return ret;
        }
        convertedFrame_->nb_samples = frameSize;
        toSend = convertedFrame_;
    }
    toSend->pts = audioPacketCounter_ * frameSize;
    ret = avcodec_send_frame(audioContext_, toSend);
    av_frame_unref(frame);
    if (ret < 0)
        return ret;
    ++audioPacketCounter_;
    audioEndSamples_ += frameSize;
    return writePackets(audioContext_, audioStream_, nullptr, 0);
}

int AVEncoder::output_encoded_video(unsigned char* data, int size)
{
    if (size < 1)
        return size;
    if (!formatContext_ || !videoStream_ || !videoContext_ || !packet_ || !data)
        return -1;
    AVPacket* packet = packet_;
    av_packet_unref(packet);
    // Not owned: the muxer copies what it keeps.
    packet->data = data;
    packet->size = size;
    // One picture after the last one, like the pictures encoded here.
    packet->pts = av_rescale_q(videoPacketCounter_++, videoContext_->time_base, videoStream_->time_base);
    packet->duration = av_rescale_q(1, videoContext_->time_base, videoStream_->time_base);
    if (videoContext_->flags & 1)
        packet->flags |= AV_PKT_FLAG_KEY;
    packet->stream_index = videoStream_->index;
    return writePacket(true, true) ? size : -1;
}

namespace {
// end * timeBase in seconds as a reduced fraction; 0/1 for a time base without meaning.
bool endInSeconds(qint64 end, AVRational timeBase, AVRational& seconds)
{
    seconds = AVRational{0, 1};
    if (timeBase.num <= 0 || timeBase.den <= 0)
        return true;
    return av_reduce(&seconds.num, &seconds.den, end * timeBase.num, timeBase.den, INT_MAX) != 0;
}
}  // namespace

// Track ends count what was handed to the codecs: once close() drains them the file
// holds exactly that, while packets written so far lag behind by the codec's delay.
int AVEncoder::compareAudioVideoPTS(int& wholeSeconds, int& fractionNumerator, int& fractionDenominator,
                                    bool& exact) const
{
    AVRational audio{0, 1}, video{0, 1};
    exact = true;
    if (audioStream_ && audioContext_)
        exact = endInSeconds(audioEndSamples_, AVRational{1, audioContext_->sample_rate}, audio) && exact;
    if (videoStream_ && videoContext_)
        exact = endInSeconds(videoPacketCounter_, videoContext_->time_base, video) && exact;
    // In 64 bits: the products overflow 32 bits within an hour of 44.1 kHz sound.
    const int64_t num = static_cast<int64_t>(audio.num) * video.den - static_cast<int64_t>(video.num) * audio.den;
    const int64_t den = static_cast<int64_t>(audio.den) * video.den;
    exact = av_reduce(&fractionNumerator, &fractionDenominator, num, den, INT_MAX) != 0 && exact;
    const int difference = fractionNumerator;
    wholeSeconds = fractionNumerator / fractionDenominator;
    fractionNumerator = fractionNumerator % fractionDenominator;
    if (difference == 0)
        return 0;
    int s = std::abs(wholeSeconds);
    if (s != INT_MAX)
        ++s;
    return difference > 0 ? s : -s;
}

qint64 AVEncoder::behindAudioSamples() const
{
    int whole = 0, num = 0, den = 1;
    bool exact = true;
    compareAudioVideoPTS(whole, num, den, exact);
    const qint64 rate = getAudioSampleRate();
    return -(static_cast<qint64>(num) * rate / den + static_cast<qint64>(whole) * rate);
}

}  // namespace orvo
