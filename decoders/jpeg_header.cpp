#include "decoders/jpeg_header.h"

#include <QSize>

namespace orvo {

bool jpegPictureSize(const unsigned char* data, int size, int* width, int* height)
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
        if (marker == 0xd9 || marker == 0xda || p + 2 > size)
            return false;  // end of image or start of scan before any frame header
        const int length = (data[p] << 8) | data[p + 1];
        if (length < 2)
            return false;
        const bool frameHeader = marker >= 0xc0 && marker <= 0xcf && marker != 0xc4 && marker != 0xc8 && marker != 0xcc;
        if (frameHeader) {
            if (length < 7 || p + 7 > size)
                return false;
            *height = (data[p + 3] << 8) | data[p + 4];
            *width = (data[p + 5] << 8) | data[p + 6];
            return *width > 0 && *height > 0;
        }
        p += length;
    }
    return false;
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
