// JPEG 2000 images at scale levels 0..3 (option bits 0..1).
#include "fuzz/decode_sequence.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto in = orvo::fuzz::split(data, size);
    orvo::fuzz::decodeSequence(in, 'r', in.options & 3);
    return 0;
}
