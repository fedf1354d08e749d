// Baseline for fuzz_decode_wavelet: libavcodec's Dirac/VC-2 decoder, which the wavelet backend
// drives, drained after each payload as the backend does.
#include "fuzz/raw_decode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto in = orvo::fuzz::split(data, size);
    orvo::fuzz::rawDecode(AV_CODEC_ID_DIRAC, in, true);
    return 0;
}
