// Baseline for fuzz_decode_mjpeg: libavcodec's Motion JPEG decoder (also for the inputs that take Qt's reader there).
#include "fuzz/raw_decode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto in = orvo::fuzz::split(data, size);
    orvo::fuzz::rawDecode(AV_CODEC_ID_MJPEG, in);
    return 0;
}
