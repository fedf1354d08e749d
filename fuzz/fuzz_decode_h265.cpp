// H.265 camera images ('e') through FFmpeg's HEVC decoder.
#include "fuzz/decode_sequence.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    orvo::fuzz::decodeSequence(orvo::fuzz::split(data, size), 'e', 0);
    return 0;
}
