// One Decoder across format and parameter changes, as a client stream that switches
// codec or scale level does. Each chunk starts with a selector byte: bits 0..4 pick the
// format code (the known codes, 0, and an unknown one), bits 5..6 the parameter (scale
// level), bit 7 the I-frame flag; the rest of the chunk is the payload. Option bits 0..5
// set the preferences read when a format decoder is created (H.264 NAL search and its
// two repairs, JPEG through Qt, native MxPEG, zero-copy decoding); with bit 6 they are
// flipped before every chunk, so a kept decoder meets preferences it was not made with.
#include "fuzz/decode_sequence.h"
#include "orvo/decoder_preferences.h"

namespace {

constexpr unsigned char kCodes[] = {'p', 'P', 'n', 'N', 'h', 'H', 'j', 'J', 'm', 'M',
                                    'y', 'Y', 'x', 'X', 'r', 'e', 'E', 0,   'q'};

void setPreferences(uint8_t bits)
{
    auto* prefs = orvo::DecoderPreferences::instance();
    prefs->lookForNALsH264((bits & 1) != 0);
    prefs->removeLastExtraByteH264((bits & 2) != 0);
    prefs->removeDoubleStartCodesH264((bits & 4) != 0);
    prefs->decodeMJPEGThroughQImage((bits & 8) != 0);
    prefs->useMxPEGNative((bits & 16) != 0);
    prefs->setZeroCopyDecoding((bits & 32) != 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    orvo::fuzz::silenceQtDebug();
    const auto in = orvo::fuzz::split(data, size);
    uint8_t prefs = in.options;
    setPreferences(prefs);
    Decoder decoder;
    for (const QByteArray& chunk : in.chunks) {
        if (chunk.isEmpty())
            continue;
        const uint8_t selector = uint8_t(chunk[0]);
        const unsigned char type = kCodes[(selector & 31) % sizeof kCodes];
        if (in.options & 0x40)
            setPreferences(prefs = uint8_t(~prefs));
        orvo::fuzz::decodeChunk(decoder, chunk.mid(1), type, (selector >> 5) & 3, (selector & 0x80) != 0);
    }
    return 0;
}
