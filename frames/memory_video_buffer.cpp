#include "orvo/video_buffer.h"
#include "orvo/log.h"

#include <cstdint>
#include <new>

namespace orvo {

const BufferProperties defaultBufferProperties;

struct MemoryVideoBuffer::Private {
    int bytesPerLine = 0;
    MapMode mapMode = NotMapped;
    unsigned char* data = nullptr;
    int allocatedSize = 0;
    int size = 0;
    int offset = 0;
    bool ownsMemory = false;
    bool readOnly = false;
    std::function<void(unsigned char*)> deleter;
};

MemoryVideoBuffer::MemoryVideoBuffer(int size, int bytesPerLine, unsigned int align_bytes)
    : QAbstractVideoBuffer(NoHandle), d(new Private)
{
    // The reported allocatedSize keeps the requested slack (size + align_bytes); the
    // storage itself also covers the power-of-two rounding of the alignment so that the
    // usable area never runs past it.
    const qint64 reported = qint64(size) + qint64(align_bytes);
    const qint64 rounded = adjustToPower2(int(align_bytes));
    const qint64 storage = qint64(size) + qMax<qint64>(align_bytes, rounded);
    d->allocatedSize = int(reported);
    try {
        if (size < 0 || reported > INT32_MAX || storage > INT32_MAX)
            throw std::bad_alloc();
        d->data = new unsigned char[size_t(storage)];
        d->size = size;
        d->bytesPerLine = bytesPerLine;
        d->offset = offsetPointerToPower2(d->data, int(align_bytes));
        d->ownsMemory = true;
    } catch (const std::bad_alloc&) {
        odebug().nospace() << "MemoryVideoBuffer::MemoryVideoBuffer(int size, int bytesPerLine, unsigned int align_bytes) "
                    "bad alloc of "
                 << reported;
        d->allocatedSize = 0;
        d->data = nullptr;
        d->size = 0;
        d->bytesPerLine = 0;
        d->offset = 0;
        d->ownsMemory = false;
    }
}

MemoryVideoBuffer::MemoryVideoBuffer(unsigned char* data, int size, int bytesPerLine, unsigned char* allocatedData,
                                     int allocatedSize, bool ownsMemory)
    : QAbstractVideoBuffer(NoHandle), d(new Private)
{
    d->data = allocatedData ? allocatedData : data;
    d->offset = int(data - d->data);
    d->size = size;
    d->bytesPerLine = bytesPerLine;
    d->allocatedSize = allocatedSize >= 1 ? allocatedSize : d->offset + size;
    d->ownsMemory = ownsMemory;
}

MemoryVideoBuffer::MemoryVideoBuffer(unsigned char* data, int size, int bytesPerLine,
                                     std::function<void(unsigned char*)> deleter)
    : QAbstractVideoBuffer(NoHandle), d(new Private)
{
    d->data = data;
    d->size = size;
    d->bytesPerLine = bytesPerLine;
    d->offset = 0;
    d->allocatedSize = 0;
    d->ownsMemory = false;
    d->deleter = std::move(deleter);
}

MemoryVideoBuffer::~MemoryVideoBuffer()
{
    if (d->ownsMemory)
        delete[] d->data;
    else if (d->deleter)
        d->deleter(d->data);
    delete d;
}

QAbstractVideoBuffer::MapMode MemoryVideoBuffer::mapMode() const { return d->mapMode; }

uchar* MemoryVideoBuffer::map(MapMode mode, int* numBytes, int* bytesPerLine)
{
    if (d->mapMode != NotMapped || !d->data || mode == NotMapped)
        return nullptr;
    // Writing into memory the decoder still references would corrupt its next pictures.
    if (d->readOnly && (mode & WriteOnly))
        return nullptr;
    d->mapMode = mode;
    if (numBytes)
        *numBytes = d->size;
    if (bytesPerLine)
        *bytesPerLine = d->bytesPerLine;
    return d->data + d->offset;
}

void MemoryVideoBuffer::unmap() { d->mapMode = NotMapped; }

int MemoryVideoBuffer::allocatedSize() const { return d->allocatedSize; }
int MemoryVideoBuffer::offset() const { return d->offset; }
int MemoryVideoBuffer::size() const { return d->size; }
bool MemoryVideoBuffer::ownsMemory() const { return d->ownsMemory; }
void MemoryVideoBuffer::setReadOnly(bool readOnly) { d->readOnly = readOnly; }
bool MemoryVideoBuffer::isReadOnly() const { return d->readOnly; }

int MemoryVideoBuffer::adjustToPower2(int n)
{
    quint32 v = quint32(n);
    if (v <= 1)
        return 1;
    --v;
    v |= v >> 1;
    v |= v >> 2;
    v |= v >> 4;
    v |= v >> 8;
    v |= v >> 16;
    return int(v + 1);  // 0x80000001.. rounds to 0 as an unsigned power of two would overflow
}

int MemoryVideoBuffer::offsetPointerToPower2(unsigned char* p, int align)
{
    const quintptr a = quintptr(quint32(adjustToPower2(align)));
    if (a <= 1)
        return 0;
    const quintptr rem = quintptr(p) % a;
    return rem == 0 ? 0 : int(a - rem);
}

}  // namespace orvo
