#include "decoders/codec_decoder.h"

#include <cstring>

namespace orvo {

CodecDecoder::~CodecDecoder()
{
    av_frame_free(&picture);
    av_packet_free(&packet);
    avcodec_free_context(&context);
}

bool CodecDecoder::allocate(const AVCodec* codec)
{
    context = avcodec_alloc_context3(codec);
    packet = av_packet_alloc();
    picture = av_frame_alloc();
    return context && packet && picture;
}

bool CodecDecoder::copyPayload(const unsigned char* data, int size)
{
    av_frame_unref(picture);
    av_packet_unref(packet);
    if (av_new_packet(packet, size) < 0)
        return false;
    std::memcpy(packet->data, data, size_t(size));
    return true;
}

}  // namespace orvo
