// Baseline for fuzz_decode_mpeg: MPEG-2 or MPEG-4 Visual by option bit 0, as there.
#include "fuzz/raw_decode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto in = orvo::fuzz::split(data, size);
    orvo::fuzz::rawDecode((in.options & 1) ? AV_CODEC_ID_MPEG2VIDEO : AV_CODEC_ID_MPEG4, in);
    return 0;
}
