// The H.264 slice-header dump with its bit readers, and the camera payload cut and
// repairs of DecoderH264 on their own. Option bits: 0 removeLastExtraByte,
// 1 removeDoubleStartCodes.
#include "decoders/h264_payload.h"
#include "decoders/h264_slice_dump.h"
#include "fuzz/fuzz_check.h"
#include "fuzz/fuzz_input.h"
#include "orvo/log.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

bool isStartCode(const unsigned char* p) { return p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 1; }

void bitReaders(const unsigned char* p, int n)
{
    // A script of reads driven by the data itself: the position only moves forward, by
    // n for readBits(n) and by at most 63 for readUE, whatever lies past the end.
    orvo::h264::BitReader script(p, n);
    orvo::h264::BitReader reader(p, n, n > 0 ? p[0] & 7 : 0);
    for (int i = 0; i < 64 && script.position() < qint64(n) * 8; ++i) {
        const qint64 before = reader.position();
        if (script.readBits(1)) {
            const int bits = int(script.readBits(5)) + 1;  // 1 .. 32
            const quint32 v = reader.readBits(bits);
            FUZZ_CHECK(reader.position() == before + bits);
            FUZZ_CHECK(bits == 32 || v < (quint32(1) << bits));
        } else {
            reader.readUE();
            const qint64 moved = reader.position() - before;
            FUZZ_CHECK(moved >= 0 && moved <= 63);
            // Inside the data the code is whole: z zeros, the one, z bits.
            if (before + 63 <= qint64(n) * 8)
                FUZZ_CHECK(moved % 2 == 1);
        }
    }
}

void cutAndRepair(const std::vector<unsigned char>& original, bool lastExtraByte, bool doubleStartCodes)
{
    std::vector<unsigned char> bytes = original;
    const int n = int(bytes.size());
    unsigned char* p = bytes.empty() ? nullptr : bytes.data();
    const int cut = orvo::h264::cameraPayloadLength(p, n, lastExtraByte, doubleStartCodes);
    FUZZ_CHECK(cut == -1 || (cut >= 0 && cut < n));
    if (cut < 0) {
        FUZZ_CHECK(bytes == original);
        return;
    }
    for (int i = 0; i < n; ++i) {
        // The repair only turns the 01 of a start code into 00, and only before the cut.
        if (bytes[i] != original[i])
            FUZZ_CHECK(doubleStartCodes && i < cut && original[i] == 1 && bytes[i] == 0);
    }
    if (doubleStartCodes)
        for (int q = 0; q + 8 <= cut; ++q)
            FUZZ_CHECK(!(isStartCode(p + q) && isStartCode(p + q + 4)));

    // The repair on its own, for any length up to the buffer's.
    std::vector<unsigned char> again = original;
    orvo::h264::repairDoubleStartCodes(again.empty() ? nullptr : again.data(), n);
    for (int q = 0; q + 8 <= n; ++q)
        FUZZ_CHECK(!(isStartCode(again.data() + q) && isStartCode(again.data() + q + 4)));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // The dump's text is not under test (its formats are checked at compile time); with
    // the output silenced the library does not even format it.
    orvo::LogManager::instance().silence();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto in = orvo::fuzz::split(data, size);
    for (const QByteArray& chunk : in.chunks) {
        const std::vector<unsigned char> bytes(chunk.begin(), chunk.end());
        const unsigned char* p = bytes.empty() ? nullptr : bytes.data();
        const int n = int(bytes.size());
        const int last = orvo::h264::dumpSliceHeaders(p, n);
        FUZZ_CHECK(last >= -1 && last <= 15);
        bitReaders(p, n);
        cutAndRepair(bytes, (in.options & 1) != 0, (in.options & 2) != 0);
    }
    return 0;
}
