#pragma once
// Baseline harnesses: the inputs of a decode target, split the same way, decoded by
// libavcodec alone with the settings our FFmpeg paths use in fuzz builds (one thread,
// the 1 Mpixel budget), and nothing else: no frames, no conversion, no picture checks.
// compare_raw.sh replays one frozen corpus through both to price our own work.
#include "fuzz/fuzz_input.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
}

#include <cstdlib>
#include <cstring>
#include <vector>

namespace orvo::fuzz {

// With drainEachChunk every chunk is one picture: the decoder is drained and flushed after
// it, as the wavelet backend does with its one-field payloads.
inline void rawDecode(AVCodecID id, const Input& in, bool drainEachChunk = false)
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
    context->max_pixels = 1024 * 1024;
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
            while (avcodec_receive_frame(context, frame) >= 0)
                av_frame_unref(frame);
            avcodec_send_packet(context, packet);
        }
        while (avcodec_receive_frame(context, frame) >= 0)
            av_frame_unref(frame);
        if (drainEachChunk) {
            avcodec_send_packet(context, nullptr);
            while (avcodec_receive_frame(context, frame) >= 0)
                av_frame_unref(frame);
            avcodec_flush_buffers(context);
        }
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&context);
}

}  // namespace orvo::fuzz
