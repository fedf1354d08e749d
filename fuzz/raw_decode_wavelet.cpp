// Baseline for fuzz_decode_wavelet: libavcodec's Dirac/VC-2 decoder, which the wavelet backend
// drives, drained after each payload as the backend does, with the backend's pixel budget
// (16 fields: the decoder's work buffers count against it, and 1 Mpixel refuses every field).
#include "fuzz/raw_decode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto in = orvo::fuzz::split(data, size);
    const int lines = (in.options & 4) ? 243 : 288;  // as fuzz_decode_wavelet picks the field
    orvo::fuzz::rawDecode(AV_CODEC_ID_DIRAC, in, true, int64_t(720) * lines * 16);
    return 0;
}
