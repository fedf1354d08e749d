#include "decoders/jpeg2000_boxes.h"
#include "orvo/log.h"

#include <QString>

namespace orvo::jp2 {
namespace {

quint32 readBE32(const unsigned char* p)
{
    return quint32(p[0]) << 24 | quint32(p[1]) << 16 | quint32(p[2]) << 8 | quint32(p[3]);
}

bool isWanted(quint32 type)
{
    return type == kSignature || type == kFileType || type == kHeader || type == kCodestream;
}

// Calls visit(offset, length, type) for each box until it returns false. The walk keeps
// a full box header inside the data; offsets are 64-bit so that huge lengths cannot wrap.
template <typename Visit>
void walk(const unsigned char* data, int size, Visit visit)
{
    if (!data || size < 9)
        return;
    for (qint64 o = 0; o < qint64(size) - 8;) {
        const quint32 length = readBE32(data + o);
        if (length == 0) {
            odebug() << "block size=0 possible corruption";
            return;
        }
        if (!visit(int(o), length, readBE32(data + o + 4)))
            return;
        o += length;
    }
}

QChar shown(quint32 type, int shift)
{
    const char c = char((type >> shift) & 0xFF);
    return c == 0 ? QLatin1Char('0') : QLatin1Char(c);
}

}  // namespace

int findBox(const unsigned char* data, int size, quint32 type)
{
    int found = -1;
    walk(data, size, [&](int offset, quint32, quint32 t) {
        if (t != type)
            return true;
        found = offset;
        return false;
    });
    return found;
}

void listBoxes(const unsigned char* data, int size)
{
    const bool silent = LogManager::instance().isSilenced();
    walk(data, size, [silent](int offset, quint32 length, quint32 type) {
        if (silent)
            return true;  // the walk alone: nobody reads the list
        const QString line = QStringLiteral("offset=%1 size=%2 name=%3 %4 %5 %6(%7%8%9%10)")
                                 .arg(offset)
                                 .arg(length)
                                 .arg(type >> 24)
                                 .arg((type >> 16) & 0xFF)
                                 .arg((type >> 8) & 0xFF)
                                 .arg(type & 0xFF)
                                 .arg(shown(type, 24))
                                 .arg(shown(type, 16))
                                 .arg(shown(type, 8))
                                 .arg(shown(type, 0));
        odebug().noquote() << line;
        return true;
    });
}

int codestreamStart(const unsigned char* data, int size, bool codestream, bool displayAtoms)
{
    if (!data)
        return 0;
    for (int k = 0; k < size - 8; ++k) {
        const quint32 type = readBE32(data + k + 4);
        if (!isWanted(type))
            continue;
        // The list once ran over the whole payload size from k; it is bounded to the
        // bytes that actually follow k.
        if (displayAtoms)
            listBoxes(data + k, size - k);
        if (type == kSignature && !codestream)
            return k;
        const int r = findBox(data + k, size - k, kCodestream);
        return r < 0 ? 0 : k + r + 8;
    }
    return 0;
}

}  // namespace orvo::jp2
