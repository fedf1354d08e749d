// JPEG camera images through FFmpeg's Motion JPEG decoder or Qt's reader (option bit 0).
#include "fuzz/decode_sequence.h"
#include "orvo/decoder_preferences.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto in = orvo::fuzz::split(data, size);
    orvo::DecoderPreferences::instance()->decodeMJPEGThroughQImage((in.options & 1) != 0);
    orvo::fuzz::decodeSequence(in, 'j', 0);
    return 0;
}
