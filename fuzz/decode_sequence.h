#pragma once
// Feeds the chunks of one fuzz input, in a row, to one Decoder with one format code.
#include "fuzz/fuzz_input.h"
#include "fuzz/picture_check.h"
#include "orvo/decoder.h"

namespace orvo::fuzz {

// Decodes one chunk with `decoder` and reads the whole picture that comes out.
inline void decodeChunk(Decoder& decoder, const QByteArray& chunk, unsigned char type, int param, bool iframe)
{
    // The decoder may repair its payload in place: give it a private, exactly sized copy.
    std::vector<unsigned char> payload(chunk.begin(), chunk.end());
    orvo::VideoFrame frame;
    if (decoder.decode(type, payload.empty() ? nullptr : payload.data(), int(payload.size()), frame, param, iframe) &&
        frame.isValid())
        readWholePicture(frame);
}

inline void decodeSequence(const Input& in, unsigned char type, int param)
{
    silenceQtDebug();
    Decoder decoder;
    for (const QByteArray& chunk : in.chunks)
        decodeChunk(decoder, chunk, type, param, (in.options & 0x80) != 0);
}

}  // namespace orvo::fuzz
