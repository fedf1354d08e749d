#include "decoders/jpeg_header.h"

#include <QSize>

namespace orvo {

namespace {

struct Headers {
    int width = 0;
    int height = 0;
    bool frameHeader = false;  // the first one was read (its size may be 0: not a picture)
    bool bitmask = false;      // an MxPEG "MXM" comment
};

// Walks the segments before the first scan (or to the end of the payload): the first frame
// header's size, and whether an MXM comment came before the scan. `untilFrameHeader` stops
// at that frame header. False when the payload is not a JPEG stream or is cut inside a
// segment header.
bool readHeaders(const unsigned char* data, int size, bool untilFrameHeader, Headers* out)
{
    if (!data || size < 4 || data[0] != 0xff || data[1] != 0xd8)
        return false;
    int p = 2;
    while (p + 1 < size) {
        if (data[p] != 0xff) {
            ++p;  // tolerated garbage between segments, as decoders do
            continue;
        }
        const unsigned char marker = data[p + 1];
        if (marker == 0xff) {
            ++p;  // fill byte
            continue;
        }
        p += 2;
        if (marker == 0x01 || marker == 0xd8 || (marker >= 0xd0 && marker <= 0xd7))
            continue;  // no length follows
        if (marker == 0xd9 || marker == 0xda)
            return true;  // end of image or start of scan
        if (p + 2 > size)
            return false;
        const int length = (data[p] << 8) | data[p + 1];
        if (length < 2)
            return false;
        const bool frameHeader = marker >= 0xc0 && marker <= 0xcf && marker != 0xc4 && marker != 0xc8 && marker != 0xcc;
        if (frameHeader && !out->frameHeader) {
            if (length < 7 || p + 7 > size)
                return false;
            out->frameHeader = true;
            out->height = (data[p + 3] << 8) | data[p + 4];
            out->width = (data[p + 5] << 8) | data[p + 6];
            if (untilFrameHeader)
                return true;
        }
        if (marker == 0xfe && length >= 5 && p + 5 <= size && data[p + 2] == 'M' && data[p + 3] == 'X' &&
            data[p + 4] == 'M')
            out->bitmask = true;
        p += length;
    }
    return true;
}

}  // namespace

bool jpegPictureSize(const unsigned char* data, int size, int* width, int* height)
{
    Headers headers;
    if (!readHeaders(data, size, true, &headers) || headers.width <= 0 || headers.height <= 0)
        return false;
    *width = headers.width;
    *height = headers.height;
    return true;
}

bool mxpegKeyPictureSize(const unsigned char* data, int size, int* width, int* height)
{
    Headers headers;
    if (!readHeaders(data, size, false, &headers) || headers.bitmask || headers.width <= 0 || headers.height <= 0)
        return false;
    *width = headers.width;
    *height = headers.height;
    return true;
}

int lowresFactorFor(int width, int height, int maxWidth, int maxHeight, int maxLowres)
{
    if (width <= 0 || height <= 0 || maxWidth <= 0 || maxHeight <= 0 || (width <= maxWidth && height <= maxHeight))
        return 0;
    const QSize target = QSize(width, height).scaled(maxWidth, maxHeight, Qt::KeepAspectRatio);
    int k = 0;
    while (k < maxLowres) {
        const int step = 1 << (k + 1);
        if ((width + step - 1) / step < target.width() || (height + step - 1) / step < target.height())
            break;
        ++k;
    }
    return k;
}

}  // namespace orvo
