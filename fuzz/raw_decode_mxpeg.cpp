// Baseline for fuzz_decode_mxpeg: libavcodec's MxPEG decoder (the native path decodes with it too).
#include "fuzz/raw_decode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto in = orvo::fuzz::split(data, size);
    orvo::fuzz::rawDecode(AV_CODEC_ID_MXPEG, in);
    return 0;
}
