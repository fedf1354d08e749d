// Built without coverage instrumentation (fuzz/CMakeLists.txt): these loops run over every
// pixel of every picture and would otherwise cost the campaign half its time.
#include "fuzz/picture_check.h"

#include <cstdio>
#include <cstring>
#include <vector>

namespace orvo::fuzz {
namespace {

// One row at a time: the copy is checked by ASan's memcpy as one range (and read by
// valgrind byte by byte); the sum over the copy is what makes uninitialised samples
// visible to memcheck, as it decides a branch.
unsigned sumRow(const unsigned char* row, int width, std::vector<unsigned char>& scratch)
{
    if (width <= 0)
        return 0;
    if (scratch.size() < size_t(width))
        scratch.resize(size_t(width));
    std::memcpy(scratch.data(), row, size_t(width));
    unsigned sum = 0;
    for (int x = 0; x < width; ++x)
        sum += scratch[size_t(x)];
    return sum;
}

}  // namespace

bool readWholePicture(VideoFrame& frame)
{
    const bool wasMapped = frame.isMapped();
    if (!wasMapped && !frame.map())
        return false;
    static thread_local std::vector<unsigned char> scratch;
    unsigned sum = 0;
    for (int y = 0; y < frame.heightY(); ++y)
        sum += sumRow(frame.lineY(y), frame.widthY(), scratch);
    for (int y = 0; y < frame.heightU(); ++y)
        sum += sumRow(frame.lineU(y), frame.widthU(), scratch);
    for (int y = 0; y < frame.heightV(); ++y)
        sum += sumRow(frame.lineV(y), frame.widthV(), scratch);
    if (!wasMapped)
        frame.unmap();
    if (sum == 0xFFFFFFFFu)
        std::fputc('.', stderr);  // keeps the reads from being optimised away
    return true;
}

}  // namespace orvo::fuzz
