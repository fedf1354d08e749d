// The start-code / length-prefix reading of H.264 and H.265 payloads (option bit 0: H.265)
// on its own, one stream of up to four payloads: a payload read as length-prefixed is
// covered by its lengths, and its conversion keeps its size and puts a 4-byte start code
// where each length was, so the splitter finds exactly as many NAL units as lengths; a
// payload read as neither holds no start code.
#include "decoders/access_unit_splitter.h"
#include "decoders/nal_payload_form.h"
#include "fuzz/fuzz_check.h"
#include "fuzz/fuzz_input.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

int lengthCount(const uint8_t* p, int size)
{
    int count = 0;
    for (qint64 pos = 0; pos + 4 <= size; ++count)
        pos += 4 + (qint64(p[pos]) << 24 | qint64(p[pos + 1]) << 16 | qint64(p[pos + 2]) << 8 | qint64(p[pos + 3]));
    return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto in = orvo::fuzz::split(data, size);
    using Splitter = orvo::AccessUnitSplitter;
    using Form = orvo::NalPayloadForm::Form;
    const Splitter::Codec codec = (in.options & 1) ? Splitter::Codec::Hevc : Splitter::Codec::H264;
    orvo::NalPayloadForm form(codec);
    std::vector<uint8_t> converted;
    for (const QByteArray& chunk : in.chunks) {
        const auto* p = reinterpret_cast<const uint8_t*>(chunk.constData());
        const int n = chunk.size();
        const Form f = form.classify(p, n);
        if (f == Form::Neither) {
            FUZZ_CHECK(Splitter::findStartCode(p, n, 0) < 0);
            FUZZ_CHECK(!orvo::NalPayloadForm::coversWithLengths(p, n, codec));
            continue;
        }
        if (f != Form::LengthPrefixed)
            continue;
        FUZZ_CHECK(orvo::NalPayloadForm::coversWithLengths(p, n, codec));
        orvo::NalPayloadForm::toStartCodes(p, n, converted);
        FUZZ_CHECK(int(converted.size()) == n);
        FUZZ_CHECK(n >= 5 && converted[0] == 0 && converted[1] == 0 && converted[2] == 0 && converted[3] == 1);
        // Every NAL unit begins where a length was: the start codes found are those.
        int found = 0;
        for (int at = Splitter::findStartCode(converted.data(), n, 0); at >= 0;
             at = Splitter::findStartCode(converted.data(), n, at + 3))
            ++found;
        FUZZ_CHECK(found >= lengthCount(p, n));
    }
    return 0;
}
