#include "decoders/h264_slice_dump.h"
#include "orvo/log.h"

#include <cstdio>

namespace orvo::h264 {

int BitReader::bit()
{
    if (pos_ < 0 || pos_ >= sizeBits_) {
        ++pos_;
        return 0;
    }
    const int b = (data_[pos_ >> 3] >> (7 - (pos_ & 7))) & 1;
    ++pos_;
    return b;
}

quint32 BitReader::readBits(int n)
{
    quint32 v = 0;
    for (int i = 0; i < n; ++i)
        v = (v << 1) | quint32(bit());
    return v;
}

quint32 BitReader::readUE()
{
    int zeros = 0;
    while (zeros < 31 && pos_ < sizeBits_ && bit() == 0)
        ++zeros;
    // The loop consumed the terminating one unless it stopped on a limit.
    if (zeros == 31)
        bit();
    const quint32 b = readBits(zeros);
    return (quint32(1) << zeros) - 1 + b;
}

int dumpSliceHeaders(const unsigned char* data, int size)
{
    oprint(LogStream::StandardOutput, "\n___________h264 debug_________________\n");
    int last = -1;
    if (data && size - 5 >= 1) {
        for (int i = 0; i < size - 5; ++i) {
            if (!(data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 0 && data[i + 3] == 1))
                continue;
            BitReader reader(data + i + 4, size - i - 4, 8);
            const quint32 firstMb = reader.readUE();
            const quint32 sliceType = reader.readUE();
            const quint32 ppsId = reader.readUE();
            const int frameNum = int(reader.readBits(4));
            oprint(LogStream::StandardOutput,
                   "offset=%d nal=%X, first_mb=%d slice_type=%d ppsid=%d frame_num=%d\n", i, data[i + 4],
                   int(firstMb), int(sliceType), int(ppsId), frameNum);
            last = frameNum;
        }
    }
    oprint(LogStream::StandardOutput, "___________h264 debug____end_____________\n");
    return last;
}

}  // namespace orvo::h264
