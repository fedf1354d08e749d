#pragma once
// Baseline harnesses: the inputs of a decode target, split the same way, decoded by
// libavcodec alone with the settings our FFmpeg paths use in fuzz builds (one thread,
// the 1 Mpixel budget). A picture that is not already studio-range 4:2:0 is converted to
// it as every picture must be (one swscale context kept for the process, as a raw program
// would), and nothing else: no frames, no pools, no picture checks. compare_raw.sh replays
// one frozen corpus through both to price our own work.
#include "fuzz/fuzz_input.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/imgutils.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

#include <cstdlib>
#include <cstring>
#include <vector>

namespace orvo::fuzz {

// Brings `frame` to studio-range 4:2:0 with swscale (bilinear) into a padded buffer; with
// keepRange (the MxPEG backend) the range stays and only the chroma layout changes.
inline void rawConvert(const AVFrame* frame, bool keepRange)
{
    // Full range by its format or by its flag (an MPEG-4 header may set it on plain 4:2:0).
    const bool jpeg = frame->format == AV_PIX_FMT_YUVJ420P || frame->format == AV_PIX_FMT_YUVJ422P ||
                      frame->format == AV_PIX_FMT_YUVJ444P || frame->format == AV_PIX_FMT_YUVJ440P ||
                      frame->format == AV_PIX_FMT_YUVJ411P || frame->color_range == AVCOL_RANGE_JPEG;
    const bool full = !keepRange && jpeg;
    const bool planar420 = frame->format == AV_PIX_FMT_YUV420P || (keepRange && frame->format == AV_PIX_FMT_YUVJ420P);
    if ((planar420 && !full) || (keepRange && frame->format == AV_PIX_FMT_GRAY8) || frame->width <= 0 ||
        frame->height <= 0)
        return;
    static SwsContext* context = nullptr;
    static int key[4] = {0, 0, AV_PIX_FMT_NONE, 0};
    const int now[4] = {frame->width, frame->height, frame->format, full};
    if (!context || std::memcmp(key, now, sizeof key) != 0) {
        sws_freeContext(context);
        context = sws_alloc_context();
        av_opt_set_int(context, "srcw", frame->width, 0);
        av_opt_set_int(context, "srch", frame->height, 0);
        av_opt_set_int(context, "src_format", frame->format, 0);
        av_opt_set_int(context, "dstw", frame->width, 0);
        av_opt_set_int(context, "dsth", frame->height, 0);
        av_opt_set_int(context, "dst_format", AV_PIX_FMT_YUV420P, 0);
        av_opt_set_int(context, "sws_flags", SWS_BILINEAR, 0);
        av_opt_set_int(context, "src_range", full, 0);
        av_opt_set_int(context, "dst_range", 0, 0);
        if (sws_init_context(context, nullptr, nullptr) < 0) {
            sws_freeContext(context);
            context = nullptr;
            return;
        }
        std::memcpy(key, now, sizeof key);
    }
    // Rows with room for swscale's overrun, and slack after the last one.
    uint8_t* dst[4] = {};
    int stride[4] = {};
    if (av_image_alloc(dst, stride, frame->width + 64, frame->height + 2, AV_PIX_FMT_YUV420P, 64) < 0)
        return;
    sws_scale(context, frame->data, frame->linesize, 0, frame->height, dst, stride);
    av_freep(&dst[0]);
}

// With drainEachChunk every chunk is one picture: the decoder is drained and flushed after
// it, as the wavelet backend does with its one-field payloads. maxPixels is the decoder's
// pixel budget: the one our path gives the same codec. keepRange: see rawConvert.
inline void rawDecode(AVCodecID id, const Input& in, bool drainEachChunk = false, int64_t maxPixels = 1024 * 1024,
                      bool keepRange = false)
{
    static const bool quiet = [] {
        av_log_set_level(AV_LOG_QUIET);
        return true;
    }();
    (void)quiet;
    const AVCodec* codec = avcodec_find_decoder(id);
    AVCodecContext* context = codec ? avcodec_alloc_context3(codec) : nullptr;
    if (!context)
        std::abort();
    context->thread_count = 1;
    context->max_pixels = maxPixels;
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    if (avcodec_open2(context, codec, nullptr) < 0 || !packet || !frame)
        std::abort();
    std::vector<uint8_t> bytes;
    for (const QByteArray& chunk : in.chunks) {
        if (chunk.isEmpty())
            continue;
        bytes.assign(chunk.begin(), chunk.end());
        bytes.resize(bytes.size() + AV_INPUT_BUFFER_PADDING_SIZE, 0);
        packet->data = bytes.data();
        packet->size = chunk.size();
        if (avcodec_send_packet(context, packet) == AVERROR(EAGAIN)) {
            while (avcodec_receive_frame(context, frame) >= 0) {
                rawConvert(frame, keepRange);
                av_frame_unref(frame);
            }
            avcodec_send_packet(context, packet);
        }
        while (avcodec_receive_frame(context, frame) >= 0) {
            rawConvert(frame, keepRange);
            av_frame_unref(frame);
        }
        if (drainEachChunk) {
            avcodec_send_packet(context, nullptr);
            bool first = true;  // the wavelet backend keeps the first picture of a payload
            while (avcodec_receive_frame(context, frame) >= 0) {
                if (first)
                    rawConvert(frame, keepRange);
                first = false;
                av_frame_unref(frame);
            }
            avcodec_flush_buffers(context);
        }
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&context);
}

}  // namespace orvo::fuzz
