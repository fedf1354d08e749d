#pragma once
// A bounds-aware view of one mapped 8-bit plane. Frames can be built over foreign buffers
// whose declared size, stride and mapped byte count disagree; every pixel loop and every
// swscale call of the frame operations checks against this view first, so that no
// operation reads or writes past the memory a plane actually maps.
#include "orvo/video_frame_qt.h"

#include <QtGlobal>

namespace orvo {

struct PlaneView {
    unsigned char* data = nullptr;
    qint64 stride = 0;  // bytes from one row to the next
    int width = 0;      // declared width in samples, clipped to the stride
    int height = 0;     // declared height in rows, clipped to the rows the mapping holds
    qint64 bytes = 0;   // mapped byte count

    PlaneView() = default;
    // A plane that reports no stride (below 1) is taken as rows packed at its width.
    PlaneView(unsigned char* bits, int bytesPerLine, int w, int h, int mappedBytes)
    {
        if (!bits || w < 1 || h < 1 || mappedBytes < 1)
            return;
        data = bits;
        bytes = mappedBytes;
        stride = bytesPerLine >= 1 ? bytesPerLine : w;
        width = int(qMin<qint64>(w, stride));
        const qint64 rows = bytes >= width ? (bytes - width) / stride + 1 : 0;
        height = int(qMin<qint64>(h, rows));
        if (height < 1) {
            width = height = 0;
            data = nullptr;
        }
    }

    bool isNull() const { return data == nullptr; }
    // True when the mapped memory holds w x h samples at this stride, whatever the declared
    // size says (swscale addresses planes by pointer and stride only).
    bool holds(int w, int h) const
    {
        return data && w >= 0 && h >= 0 && w <= stride && (h == 0 || qint64(h - 1) * stride + w <= bytes);
    }
    unsigned char* at(int x, int y) const { return data + qint64(y) * stride + x; }
};

// Views of a body's planes; null while the body is not mapped.
inline PlaneView viewY(const VideoFrameQt& f)
{
    return PlaneView(f.bitsY(), int(f.bytesPerLineY()), f.widthY(), f.heightY(), f.mappedBytesY());
}
inline PlaneView viewU(const VideoFrameQt& f)
{
    return PlaneView(f.bitsU(), int(f.bytesPerLineU()), f.widthU(), f.heightU(), f.mappedBytesU());
}
inline PlaneView viewV(const VideoFrameQt& f)
{
    return PlaneView(f.bitsV(), int(f.bytesPerLineV()), f.widthV(), f.heightV(), f.mappedBytesV());
}
inline PlaneView viewA(const VideoFrameQt& f)
{
    return PlaneView(f.bitsA(), int(f.bytesPerLineA()), f.widthA(), f.heightA(), f.mappedBytesA());
}

}  // namespace orvo
