#pragma once
// CodecDecoder: the FFmpeg objects of one decoder, owned together. The context, the packet
// that payloads are fed through and the picture that comes out are allocated in one step
// and freed with the owner, whatever state the decoder was left in.
extern "C" {
#include <libavcodec/avcodec.h>
}

namespace orvo {

struct CodecDecoder {
    AVCodecContext* context = nullptr;
    AVPacket* packet = nullptr;
    AVFrame* picture = nullptr;

    CodecDecoder() = default;
    ~CodecDecoder();
    CodecDecoder(const CodecDecoder&) = delete;
    CodecDecoder& operator=(const CodecDecoder&) = delete;

    // Allocates the three for `codec` (options go on the context before open()); false when
    // memory ran out. Whatever was allocated is freed with the owner.
    bool allocate(const AVCodec* codec);
    // Opens the allocated context: FFmpeg's result (negative on failure).
    int open(const AVCodec* codec) { return avcodec_open2(context, codec, nullptr); }
    // Drops the last picture and puts a copy of `size` bytes at `data` into the packet, with
    // FFmpeg's zeroed padding behind it; false when memory ran out.
    bool copyPayload(const unsigned char* data, int size);
};

}  // namespace orvo
