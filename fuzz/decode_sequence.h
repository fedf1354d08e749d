#pragma once
// Feeds the chunks of one fuzz input, in a row, to one Decoder with one format code.
#include "fuzz/fuzz_input.h"
#include "orvo/decoder.h"

#include <cstdio>

namespace orvo::fuzz {

inline void decodeSequence(const Input& in, unsigned char type, int param)
{
    silenceQtDebug();
    Decoder decoder;
    for (const QByteArray& chunk : in.chunks) {
        // The decoder may repair its payload in place: give it a private, exactly sized copy.
        std::vector<unsigned char> payload(chunk.begin(), chunk.end());
        orvo::VideoFrame frame;
        if (decoder.decode(type, payload.empty() ? nullptr : payload.data(), int(payload.size()), frame, param,
                           (in.options & 0x80) != 0) &&
            frame.isValid() && frame.map()) {
            // Touch the whole picture so that a frame whose geometry lies is caught.
            unsigned sum = 0;
            for (int y = 0; y < frame.heightY(); ++y)
                for (int x = 0; x < frame.widthY(); ++x)
                    sum += frame.lineY(y)[x];
            for (int y = 0; y < frame.heightU(); ++y)
                for (int x = 0; x < frame.widthU(); ++x)
                    sum += frame.lineU(y)[x] + frame.lineV(y)[x];
            frame.unmap();
            if (sum == 0xFFFFFFFFu)
                std::fputc('.', stderr);  // keeps the reads from being optimised away
        }
    }
}

}  // namespace orvo::fuzz
