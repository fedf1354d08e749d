// Raw YUV payloads, short and long (rotated) forms.
#include "fuzz/decode_sequence.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    orvo::fuzz::decodeSequence(orvo::fuzz::split(data, size), 'y', 0);
    return 0;
}
