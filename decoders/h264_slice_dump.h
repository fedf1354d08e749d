#pragma once
// Diagnostic dump of H.264 slice headers (not used when decoding), and the bit readers
// it uses. Both stay inside the given bytes: bits past the end read as zero.
#include <QtGlobal>

namespace orvo::h264 {

class BitReader {
public:
    // Reads MSB first from bit `bitPosition` of data[0 .. size).
    BitReader(const unsigned char* data, int size, qint64 bitPosition = 0)
        : data_(data), sizeBits_(qint64(size) * 8), pos_(bitPosition)
    {
    }
    // The next n bits (n <= 32), most significant first.
    quint32 readBits(int n);
    // Unsigned Exp-Golomb: z leading zeros, a one, z more bits b: 2^z - 1 + b. The count
    // of zeros stops at the end of the data and at 31, so a run of zeros cannot hang or
    // overflow.
    quint32 readUE();
    qint64 position() const { return pos_; }

private:
    int bit();
    const unsigned char* data_;
    qint64 sizeBits_;
    qint64 pos_;
};

// Prints the start-code offsets, NAL header bytes, first_mb, slice_type, ppsid and a 4-bit
// frame_num of every start code in the payload to standard output. Returns the last
// frame_num printed, or -1 when none.
int dumpSliceHeaders(const unsigned char* data, int size);

}  // namespace orvo::h264
