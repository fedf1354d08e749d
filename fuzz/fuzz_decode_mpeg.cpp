// MPEG-4 Visual ('m') or MPEG-2 video ('M') by option bit 0.
#include "fuzz/decode_sequence.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto in = orvo::fuzz::split(data, size);
    orvo::fuzz::decodeSequence(in, (in.options & 1) ? 'M' : 'm', 0);
    return 0;
}
