// Baseline for fuzz_decode_jpeg2000_av: the codec chosen by option bits 2..3, without the box search.
#include "fuzz/raw_decode.h"

static const AVCodecID kCodecs[] = {AV_CODEC_ID_JPEG2000, AV_CODEC_ID_MJPEG, AV_CODEC_ID_H264, AV_CODEC_ID_MPEG4};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto in = orvo::fuzz::split(data, size);
    orvo::fuzz::rawDecode(kCodecs[(in.options >> 2) & 3], in);
    return 0;
}
