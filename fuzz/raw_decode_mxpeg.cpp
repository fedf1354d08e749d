// Baseline for fuzz_decode_mxpeg: libavcodec's MxPEG decoder (the native path decodes with it too).
#include "fuzz/raw_decode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto in = orvo::fuzz::split(data, size);
    // The MxPEG backend keeps JPEG's full range: its pictures change only their chroma layout.
    orvo::fuzz::rawDecode(AV_CODEC_ID_MXPEG, in, false, 1024 * 1024, true);
    return 0;
}
