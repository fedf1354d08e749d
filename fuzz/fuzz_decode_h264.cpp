// H.264 camera images: through the NAL-cutting decoder with each repair on or off, or
// straight through FFmpeg (option bits 0..2).
#include "fuzz/decode_sequence.h"
#include "orvo/decoder_preferences.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto in = orvo::fuzz::split(data, size);
    auto* prefs = orvo::DecoderPreferences::instance();
    prefs->lookForNALsH264((in.options & 1) != 0);
    prefs->removeLastExtraByteH264((in.options & 2) != 0);
    prefs->removeDoubleStartCodesH264((in.options & 4) != 0);
    orvo::fuzz::decodeSequence(in, 'h', 0);
    return 0;
}
