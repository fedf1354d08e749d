// The network image header: parsing any bytes, and the round trip through serialize()
// and Image::generateNetworkImageHeader().
#include "fuzz/fuzz_check.h"
#include "orvo/image.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

bool same(const orvo::ImageHeader& a, const orvo::ImageHeader& b)
{
    return a.version == b.version && a.type == b.type && a.flags == b.flags && a.iframe == b.iframe &&
           a.id == b.id && a.time == b.time && a.channel == b.channel && a.streamId == b.streamId &&
           a.payloadSize == b.payloadSize && a.attachedSize == b.attachedSize;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // An exactly sized copy, so that a read past the end is caught.
    const QByteArray bytes(reinterpret_cast<const char*>(data), int(size));
    orvo::ImageHeader header;
    const bool parsed = orvo::ImageHeader::parse(bytes, header);
    FUZZ_CHECK(parsed == (size >= size_t(orvo::ImageHeader::kSizeV1) && std::memcmp(data, "OIMG", 4) == 0 &&
                     data[4] == 1));
    if (!parsed)
        return 0;

    // serialize() gives back the 40 bytes read, the I-frame byte brought to 0 or 1.
    const QByteArray written = header.serialize();
    FUZZ_CHECK(written.size() == orvo::ImageHeader::kSizeV1);
    QByteArray expected = bytes.left(orvo::ImageHeader::kSizeV1);
    expected[7] = header.iframe ? 1 : 0;
    FUZZ_CHECK(written == expected);
    orvo::ImageHeader again;
    FUZZ_CHECK(orvo::ImageHeader::parse(written, again) && same(again, header));

    // An image carrying these fields writes the same header (sizes are the image's own).
    const int payloadSize = int(header.payloadSize % 64);
    orvo::Image image(header.type, bytes.left(payloadSize), header.id, header.time, header.iframe);
    image.setFlags(header.flags).setChannel(header.channel).setStreamId(header.streamId);
    image.setAttachedData(bytes.mid(orvo::ImageHeader::kSizeV1));
    orvo::ImageHeader fromImage;
    FUZZ_CHECK(orvo::ImageHeader::parse(image.generateNetworkImageHeader(), fromImage));
    header.payloadSize = quint32(image.payloadSize());
    header.attachedSize = quint32(image.attachedData().size());
    FUZZ_CHECK(same(fromImage, header));
    return 0;
}
