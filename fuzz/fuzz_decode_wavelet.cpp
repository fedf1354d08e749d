// Wavelet fields: 'n' (243 lines) or 'p' (288 lines) by option bit 2, scale level 0..3.
#include "fuzz/decode_sequence.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto in = orvo::fuzz::split(data, size);
    orvo::fuzz::decodeSequence(in, (in.options & 4) ? 'n' : 'p', in.options & 3);
    return 0;
}
