// The JPEG 2000 box search and list on their own, without a decoder (see
// fuzz_decode_jpeg2000_av for the box search in front of FFmpeg). Option bits:
// 0 jpeg2000codestream, 1 jpeg2000display_atoms.
#include "decoders/jpeg2000_boxes.h"
#include "fuzz/fuzz_check.h"
#include "fuzz/fuzz_input.h"
#include "orvo/log.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

quint32 be32(const unsigned char* p)
{
    return quint32(p[0]) << 24 | quint32(p[1]) << 16 | quint32(p[2]) << 8 | quint32(p[3]);
}


}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // The box list's text is not under test; silenced, the library walks without formatting.
    orvo::LogManager::instance().silence();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto in = orvo::fuzz::split(data, size);
    const bool codestream = (in.options & 1) != 0;
    const bool atoms = (in.options & 2) != 0;

    // The parsers alone, on exactly sized copies so that any read past the end is caught.
    for (const QByteArray& chunk : in.chunks) {
        const std::vector<unsigned char> bytes(chunk.begin(), chunk.end());
        const unsigned char* p = bytes.empty() ? nullptr : bytes.data();
        const int n = int(bytes.size());
        const quint32 types[] = {orvo::jp2::kSignature, orvo::jp2::kFileType, orvo::jp2::kHeader,
                                 orvo::jp2::kCodestream, n >= 8 ? be32(p + 4) : 0u};
        for (quint32 type : types) {
            const int at = orvo::jp2::findBox(p, n, type);
            // A box found has its whole header inside the data and the asked type.
            FUZZ_CHECK(at == -1 || (at >= 0 && at + 8 <= n && be32(p + at + 4) == type));
        }
        if (atoms)
            orvo::jp2::listBoxes(p, n);
        const int start = orvo::jp2::codestreamStart(p, n, codestream, atoms);
        FUZZ_CHECK(start >= 0 && (start == 0 || start < n));
    }
    return 0;
}
