// Baseline for fuzz_decode_h265: libavcodec's HEVC decoder alone.
#include "fuzz/raw_decode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto in = orvo::fuzz::split(data, size);
    orvo::fuzz::rawDecode(AV_CODEC_ID_HEVC, in);
    return 0;
}
