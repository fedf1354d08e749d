#include "backends/ffmpeg_decoding_loop.h"

#include <algorithm>

extern "C" {
#include <libavutil/error.h>
}

#include <new>

namespace orvo {

std::unique_ptr<FFmpegDecodingLoop> FFmpegDecodingLoop::open(const AVCodec* codec, const Options& options,
                                                             int* error)
{
    if (error)
        *error = 0;
    if (!codec) {
        if (error)
            *error = AVERROR_DECODER_NOT_FOUND;
        return nullptr;
    }
    std::unique_ptr<FFmpegDecodingLoop> loop(new (std::nothrow) FFmpegDecodingLoop);
    if (!loop || !(loop->context_ = avcodec_alloc_context3(codec)) || !(loop->packet_ = av_packet_alloc()) ||
        !(loop->frame_ = av_frame_alloc())) {
        if (error)
            *error = AVERROR(ENOMEM);
        return nullptr;
    }
    AVCodecContext* context = loop->context_;
    if (options.hardware) {
        loop->hardware_.reset(new (std::nothrow) hw::Session(options.hardware, options.hardwareFormat));
        if (!loop->hardware_ || !(loop->downloaded_ = av_frame_alloc())) {
            if (error)
                *error = AVERROR(ENOMEM);
            return nullptr;
        }
    }
#ifdef FUZZING_BUILD_MODE_UNSAFE_FOR_PRODUCTION
    context->thread_count = 1;  // findings and timings belong to one thread
#else
    if (options.threads > 0)
        context->thread_count = options.threads;
#endif
    context->max_pixels = options.maxPixels;
    context->lowres = std::min(options.lowres, int(codec->max_lowres));
    if (loop->hardware_) {
        loop->hardware_->attach(context);  // after the thread count: the engine takes one
        loop->hardware_->setRequired(options.hardwareRequired);
    }
    const int ret = avcodec_open2(context, codec, nullptr);
    if (ret < 0) {
        if (error)
            *error = ret;
        return nullptr;
    }
    return loop;
}

FFmpegDecodingLoop::~FFmpegDecodingLoop()
{
    av_frame_free(&frame_);
    av_frame_free(&downloaded_);
    av_packet_free(&packet_);
    // The codec context refers to the session (get_format): it goes first.
    avcodec_free_context(&context_);
    hardware_.reset();
}

FFmpegDecodingLoop::Result FFmpegDecodingLoop::decodePacket(const AVPacket* packet, const FrameReady& ready)
{
    lastError_ = 0;
    int ret = avcodec_send_packet(context_, packet);
    if (ret == AVERROR(EAGAIN)) {
        // Output is waiting: once it is taken the packet fits. Should it still not, the
        // packet counts as refused rather than being tried forever.
        if (receive(ready) == Result::FrameProcessingFailed)
            return Result::FrameProcessingFailed;
        ret = avcodec_send_packet(context_, packet);
    }
    if (ret < 0 && !(ret == AVERROR_EOF && !packet)) {
        lastError_ = ret;
        if (hardware_)
            hardware_->noteFailure(ret, false);
        return Result::SendFailed;
    }
    return receive(ready);
}

FFmpegDecodingLoop::Result FFmpegDecodingLoop::decode(const uint8_t* data, int size, int64_t pts,
                                                      const FrameReady& ready)
{
    if (!data || size <= 0) {
        lastError_ = AVERROR(EINVAL);
        return Result::SendFailed;
    }
    // Not reference-counted: FFmpeg copies the bytes into a padded buffer of its own.
    packet_->data = const_cast<uint8_t*>(data);
    packet_->size = size;
    packet_->pts = pts;
    packet_->dts = AV_NOPTS_VALUE;
    const Result result = decodePacket(packet_, ready);
    packet_->data = nullptr;
    packet_->size = 0;
    return result;
}

void FFmpegDecodingLoop::flush() { avcodec_flush_buffers(context_); }

FFmpegDecodingLoop::Result FFmpegDecodingLoop::receive(const FrameReady& ready)
{
    for (;;) {
        const int ret = avcodec_receive_frame(context_, frame_);
        if (ret == AVERROR(EAGAIN) || ret == AVERROR_EOF)
            return Result::Ok;
        if (ret < 0) {
            lastError_ = ret;
            if (hardware_)
                hardware_->noteFailure(ret, false);
            return Result::ReceiveFailed;
        }
        AVFrame* picture = frame_;
        if (hardware_) {
            bool downloaded = false;
            const int got = hardware_->toSoftware(frame_, downloaded_, &downloaded);
            if (got < 0) {
                // The picture is lost; its packet is answered by the feeder's bookkeeping.
                av_frame_unref(frame_);
                lastError_ = got;
                return Result::ReceiveFailed;
            }
            hardware_->notePicture();
            if (downloaded) {
                av_frame_unref(frame_);
                picture = downloaded_;
            }
        }
        const bool processed = ready(picture);
        av_frame_unref(picture);
        if (!processed)
            return Result::FrameProcessingFailed;
    }
}

std::string FFmpegDecodingLoop::errorText(int error)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(error, text, sizeof text);
    return text;
}

}  // namespace orvo
