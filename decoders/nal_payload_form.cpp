#include "decoders/nal_payload_form.h"

#include <cstring>

namespace orvo {
namespace {

using Codec = AccessUnitSplitter::Codec;

quint32 readLength(const uint8_t* p)
{
    return quint32(p[0]) << 24 | quint32(p[1]) << 16 | quint32(p[2]) << 8 | quint32(p[3]);
}

// A NAL unit header as an encoder writes it: the forbidden bit clear and a type that is
// defined (H.264 1..23; H.265 0..40 with a temporal id).
bool validHeader(const uint8_t* nal, quint32 length, Codec codec)
{
    if (codec == Codec::H264) {
        const int type = nal[0] & 0x1f;
        return (nal[0] & 0x80) == 0 && type >= 1 && type <= 23;
    }
    if (length < 2)
        return false;
    const int type = (nal[0] >> 1) & 0x3f;
    return (nal[0] & 0x80) == 0 && type <= 40 && (nal[1] & 0x07) != 0;
}

// The NAL unit types a camera's access unit begins with: a slice, SEI, a parameter set or a
// delimiter. A length's low byte read as a header is seldom one of them.
bool plausibleFirstHeader(const uint8_t* nal, int length, Codec codec)
{
    if (length < 1 || !validHeader(nal, quint32(length), codec))
        return false;
    if (codec == Codec::H264) {
        const int type = nal[0] & 0x1f;
        const int refIdc = (nal[0] >> 5) & 3;
        switch (type) {
        case 1: return true;
        case 5: case 7: case 8: return refIdc != 0;  // IDR slices and parameter sets are references
        case 6: case 9: return refIdc == 0;          // SEI and delimiters never are
        default: return false;
        }
    }
    const int type = (nal[0] >> 1) & 0x3f;
    return type <= 21 || (type >= 32 && type <= 35) || type == 39;
}

}  // namespace

bool NalPayloadForm::coversWithLengths(const uint8_t* data, int size, Codec codec)
{
    if (!data || size < 5)
        return false;
    qint64 pos = 0;
    while (pos < size) {
        if (size - pos < 4)
            return false;
        const quint32 length = readLength(data + pos);
        pos += 4;
        if (length == 0 || length > quint64(size - pos) || !validHeader(data + pos, length, codec))
            return false;
        pos += length;
    }
    return true;
}

void NalPayloadForm::toStartCodes(const uint8_t* data, int size, std::vector<uint8_t>& out)
{
    out.assign(data, data + size);
    for (qint64 pos = 0; pos + 4 <= size;) {
        const quint32 length = readLength(data + pos);
        static const uint8_t kStartCode[4] = {0, 0, 0, 1};
        std::memcpy(out.data() + pos, kStartCode, 4);
        pos += 4 + qint64(length);
    }
}

bool NalPayloadForm::startCodeReadingHolds(const uint8_t* data, int size) const
{
    // 00 00 00 01 at the front: a length of 1 is no NAL unit a camera sends.
    if (size >= 4 && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1)
        return true;
    // Start codes and emulation prevention leave no 00 00 02, and no 00 00 00 other than
    // the zeros before a start code; length prefixes below 65,536 are 00 00 followed by
    // anything.
    for (int i = 0; i + 2 < size; ++i) {
        if (data[i] != 0 || data[i + 1] != 0)
            continue;
        if (data[i + 2] == 2)
            return false;
        if (data[i + 2] == 0 && i + 3 < size && data[i + 3] > 1)
            return false;
    }
    const int first = AccessUnitSplitter::findStartCode(data, size, 0);
    return first >= 0 && plausibleFirstHeader(data + first + 3, size - first - 3, codec_);
}

NalPayloadForm::Form NalPayloadForm::classify(const uint8_t* data, int size)
{
    const bool lengths = coversWithLengths(data, size, codec_);
    const bool startCodes = data && size > 0 && AccessUnitSplitter::findStartCode(data, size, 0) >= 0;
    if (lengths == startCodes) {
        if (!lengths)
            return Form::Neither;
        // Both readings hold: the stream's form, else the bytes decide.
        if (stream_ != Form::Neither)
            return stream_;
        return startCodeReadingHolds(data, size) ? Form::StartCodes : Form::LengthPrefixed;
    }
    stream_ = lengths ? Form::LengthPrefixed : Form::StartCodes;
    return stream_;
}

}  // namespace orvo
