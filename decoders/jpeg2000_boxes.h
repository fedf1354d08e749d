#pragma once
// Walking the box structure of JPEG 2000 payloads (length, four-character type).
// Every routine stays inside [data, data + size) whatever the box lengths say.
#include <QtGlobal>

namespace orvo::jp2 {

constexpr quint32 boxType(char a, char b, char c, char d)
{
    return quint32(quint8(a)) << 24 | quint32(quint8(b)) << 16 | quint32(quint8(c)) << 8 | quint32(quint8(d));
}
constexpr quint32 kSignature = boxType('j', 'P', ' ', ' ');
constexpr quint32 kFileType = boxType('f', 't', 'y', 'p');
constexpr quint32 kHeader = boxType('j', 'p', '2', 'h');
constexpr quint32 kCodestream = boxType('j', 'p', '2', 'c');

// Offset of the first box of `type` in the box chain starting at data[0], or -1.
// A zero length ends the walk (logged as corruption).
int findBox(const unsigned char* data, int size, quint32 type);

// Logs one debug line per box of the chain starting at data[0].
void listBoxes(const unsigned char* data, int size);

// Where decoding of a payload starts: 0 when no signature, file-type, header or
// code-stream box type is found; else at that box, or just past the header of the
// "jp2c" box after it (always for boxes other than the signature, and for the
// signature when `codestream` is set). `displayAtoms` logs the box list on the way.
int codestreamStart(const unsigned char* data, int size, bool codestream, bool displayAtoms);

}  // namespace orvo::jp2
