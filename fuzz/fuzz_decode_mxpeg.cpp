// MxPEG I- and P-frames through the native MxPEG decoder or FFmpeg's (option bit 0).
#include "fuzz/decode_sequence.h"
#include "orvo/decoder_preferences.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto in = orvo::fuzz::split(data, size);
    orvo::DecoderPreferences::instance()->useMxPEGNative((in.options & 1) != 0);
    orvo::fuzz::decodeSequence(in, 'x', 0);
    return 0;
}
