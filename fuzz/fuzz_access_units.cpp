// The access-unit splitter on its own, for H.264 and H.265 (option bit 0): every unit it
// hands on is a run of whole NAL units of the payloads, begins with a start code, carries
// the tag of a payload already given (never decreasing), holds no more bytes than were
// given, and marked payloads (option bits 1..4, one per chunk) leave nothing with a slice
// behind.
#include "decoders/access_unit_splitter.h"
#include "fuzz/fuzz_check.h"
#include "fuzz/fuzz_input.h"

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto in = orvo::fuzz::split(data, size);
    using Splitter = orvo::AccessUnitSplitter;
    Splitter splitter((in.options & 1) ? Splitter::Codec::Hevc : Splitter::Codec::H264);
    qint64 given = 0, lastTag = 0;
    size_t bytesIn = 0, bytesOut = 0;
    const Splitter::Sink sink = [&](const Splitter::Unit& unit) {
        FUZZ_CHECK(unit.size >= 4 && unit.data[0] == 0 && unit.data[1] == 0 && unit.data[2] == 1);
        FUZZ_CHECK(unit.tag >= 1 && unit.tag <= given && unit.tag >= lastTag);
        lastTag = unit.tag;
        bytesOut += size_t(unit.size);
    };
    for (size_t k = 0; k < in.chunks.size(); ++k) {
        const QByteArray& chunk = in.chunks[k];
        bytesIn += size_t(chunk.size());
        const bool marked = (in.options >> (1 + k)) & 1;
        const auto payload = splitter.push(reinterpret_cast<const uint8_t*>(chunk.constData()), chunk.size(), ++given,
                                           marked, sink);
        FUZZ_CHECK(payload.nalUnits >= 0 && payload.foreignUnits >= 0);
        FUZZ_CHECK(!payload.hasSlice || payload.nalUnits > 0);
        if (marked)
            FUZZ_CHECK(!splitter.holdsSlice());
        FUZZ_CHECK(bytesOut <= bytesIn);
    }
    splitter.flush(sink);
    FUZZ_CHECK(!splitter.holdsSlice());
    FUZZ_CHECK(bytesOut <= bytesIn);
    return 0;
}
