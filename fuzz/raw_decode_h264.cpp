// Baseline for fuzz_decode_h264: libavcodec's H.264 decoder alone.
#include "fuzz/raw_decode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto in = orvo::fuzz::split(data, size);
    orvo::fuzz::rawDecode(AV_CODEC_ID_H264, in);
    return 0;
}
