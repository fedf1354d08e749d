#pragma once
// Pixel formats, plane allocation parameters and the aligned plane buffer.
//
// Every decoded picture is a set of separately allocated 8-bit planes (Y, U, V and
// an optional alpha plane A); each plane is a Qt QVideoFrame of Format_Y8 over a
// MemoryVideoBuffer.
#include "orvo/export.h"
#include <QAbstractVideoBuffer>
#include <QSize>
#include <QString>
#include <functional>

namespace orvo {

// Values 0..29 and 1000 equal Qt's QVideoFrame::PixelFormat; 1001 and 1002 are the
// library's own planar formats. Qt's 8 (Format_BGRA32) has no name here: it still passes
// through as its number, and pixelFormatName calls it "Unregistred format". VideoFrame
// and VideoFrameQt inherit this enum.
struct ORVO_EXPORT PixelFormats {
    enum OrvoPixelFormat : qint32 {
        Format_Invalid = 0,
        Format_ARGB32 = 1,
        Format_ARGB32_Premultiplied = 2,
        Format_RGB32 = 3,
        Format_RGB24 = 4,
        Format_RGB565 = 5,
        Format_RGB555 = 6,
        Format_ARGB8565_Premultiplied = 7,
        Format_BGRA32_Premultiplied = 9,
        Format_BGR32 = 10,
        Format_BGR24 = 11,
        Format_BGR565 = 12,
        Format_BGR555 = 13,
        Format_BGRA5658_Premultiplied = 14,
        Format_AYUV444 = 15,
        Format_AYUV444_Premultiplied = 16,
        Format_YUV444 = 17,
        Format_YUV420P = 18,
        Format_YV12 = 19,
        Format_UYVY = 20,
        Format_YUYV = 21,
        Format_NV12 = 22,
        Format_NV21 = 23,
        Format_IMC1 = 24,
        Format_IMC2 = 25,
        Format_IMC3 = 26,
        Format_IMC4 = 27,
        Format_Y8 = 28,
        Format_Y16 = 29,
        Format_User = 1000,
        Format_YUV422P = 1001,
        Format_YUV444P = 1002,
    };
};
using OrvoPixelFormat = PixelFormats::OrvoPixelFormat;

// Plane allocation parameters, copied by value.
struct ORVO_EXPORT BufferProperties {
    int minBytesPerLineY = 0;
    int minBytesPerLineU = 0;
    int minBytesPerLineV = 0;
    int minBytesPerLineA = 0;
    int alignY = 8;
    int alignU = 8;
    int alignV = 8;
    int alignA = 8;
    bool skipAlpha = true;  // clones made with these properties get no alpha plane

    BufferProperties() = default;
    explicit BufferProperties(int align) : alignY(align), alignU(align), alignV(align), alignA(align) {}

    // alignY is deliberately not examined.
    bool isValid() const { return (skipAlpha || alignA != 0) && alignU != 0 && alignV != 0; }
};

// Process-wide defaults (bytes per line 0, alignment 8, skipAlpha); read-only.
extern ORVO_EXPORT const BufferProperties defaultBufferProperties;

// One plane of memory behind a QVideoFrame. The map state belongs to the QVideoFrame
// that holds the buffer; the buffer itself has no lock.
class ORVO_EXPORT MemoryVideoBuffer : public QAbstractVideoBuffer {
public:
    // Allocates size bytes aligned to align_bytes (rounded up to a power of two).
    // On allocation failure (or a negative size) the buffer is empty and every map fails.
    MemoryVideoBuffer(int size, int bytesPerLine, unsigned int align_bytes);
    // Wraps caller memory; `data` is the first usable byte, `allocatedData` (if not null)
    // the start of the allocation containing it. With ownsMemory the destructor frees
    // the allocation with delete[], so it must come from new[].
    MemoryVideoBuffer(unsigned char* data, int size, int bytesPerLine, unsigned char* allocatedData,
                      int allocatedSize, bool ownsMemory);
    // Wraps foreign memory; `deleter` runs exactly once, from the destructor, on
    // whichever thread drops the last reference to the frame plane.
    MemoryVideoBuffer(unsigned char* data, int size, int bytesPerLine, std::function<void(unsigned char*)> deleter);
    ~MemoryVideoBuffer() override;

    MapMode mapMode() const override;
    uchar* map(MapMode mode, int* numBytes, int* bytesPerLine) override;
    void unmap() override;

    int allocatedSize() const;
    int offset() const;
    int size() const;
    bool ownsMemory() const;

    // Read-only memory (a zero-copy decoder picture that the decoder still references):
    // map refuses WriteOnly and ReadWrite. A frame over such planes gives itself planes of
    // its own on its first write (see VideoFrameQt::detach), so only the frame writing
    // stops sharing the decoder's memory.
    void setReadOnly(bool readOnly);
    bool isReadOnly() const;

    static int adjustToPower2(int n);
    static int offsetPointerToPower2(unsigned char* p, int align);

private:
    struct Private;
    Private* d;
    Q_DISABLE_COPY(MemoryVideoBuffer)
};

}  // namespace orvo
